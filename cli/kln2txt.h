// kln2txt: the command-line host of the filter. It loads the filter the way
// a conversion runtime does, through the public header and the runtime's
// stream API, and turns KLN documents into text for people and scripts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vtq_txkln.h"

namespace kln2txt {

// Exit statuses, documented in --help and the README.
enum ExitStatus : int { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitCut = 3 };

// What --format writes.
enum class Format : uint8_t { kText, kMarkdown, kHtml, kJsonl };

// What the tool ran, from the command line.
struct Settings {
  FilterOptions filter{};    // output set, flag bits, size limit, separator
  KlnCharsetInfo charset{};  // the documents' character set
  std::string output;        // -o: file mode into this path
  std::string outDir;        // --out-dir: batch mode
  unsigned jobs = 1;         // -j: batch workers
  unsigned timeoutSeconds = 60;
  bool properties = false;  // --properties instead of the text
  bool json = false;        // one JSON object per document
  Format format = Format::kText;
  bool headerRow = false;   // --header-row: a sheet's first row heads its table
  std::string extractDir;   // --extract-objects: embedded objects' bytes go here
  bool serve = false;       // --serve: requests on standard input
  std::vector<std::string> files;
};

// Parses argv into settings. Answers kExitOk to go on, or the status to end
// with at once (--help and --version: kExitOk with `done` set; a mistake:
// kExitUsage after a message on standard error).
int ParseCommandLine(int argc, char **argv, Settings &settings, bool &done);

// Set the line-end mode ("keep", "lf", …) or the embedded-object mode
// ("extract", "skip", "refuse") called `name` in flags; false for a name
// that is none of them.
bool SetLineEnds(const std::string &name, uint32_t &flags);
bool SetOleMode(const std::string &name, uint32_t &flags);

// How one document ended, as people and the summary name it.
enum class Outcome : uint8_t {
  kConverted,
  kEmpty,           // 3003: a valid document without text
  kCut,             // 3005: output cut at the size limit
  kNotKln,          // 3000 and the header cannot be read
  kDamaged,         // 3000 with a readable header
  kNotConvertible,  // 3000, but the text converts to UTF-8
  kNoMemory,        // 12
  kCannotOpen,      // 22
  kTextBlock,       // 25
  kOleRefused,      // 3004
  kOleFailed,       // 4001
  kPathTooLong,     // a path the filter cannot take
  kWriteFailed,     // standard output or the listing could not be written
  kUnknownCode,     // a result code this tool does not know
  kCrashed,         // batch: the worker died of a signal
  kTimedOut,        // batch: the worker was killed after --timeout
  kWorkerLost,      // batch: the worker ended in an unexpected way
};
constexpr int kOutcomeCount = static_cast<int>(Outcome::kWorkerLost) + 1;

// The outcome of result code `code`; 3000 gives kDamaged until a closer
// look tells it apart.
Outcome OutcomeOf(int code);
// A short name for summaries ("not a KLN document") and a hint, if any.
const char *OutcomeText(Outcome outcome);
int ExitStatusOf(Outcome outcome);
// The more serious of two exit statuses: failed > cut > success.
int GravestStatus(int a, int b);
// What to add to the text of an outcome: the result code this tool does
// not know, the output set that failed, the size limit.
std::string DetailOf(Outcome outcome, int code, const Settings &settings);
// Writes "kln2txt: FILE: TEXT[ (detail)]" to standard error, for every
// outcome but kConverted.
void Report(const std::string &file, Outcome outcome, const std::string &detail = {});

// The six properties of the header in record order.
struct Property {
  const char *name;
  size_t offset;
};
extern const Property kProperties[6];

// Converts one document as the settings ask. outPath empty: the result goes
// to standard output (stream mode); otherwise into that file (file mode for
// the text). Answers the outcome; code is the filter's result code.
Outcome ConvertDocument(const Settings &settings, const std::string &input, const std::string &outPath, int &code);

// The test-only switch KLN2TXT_TEST_FAULT=crash:NAME or hang:NAME makes the
// process that converts the document whose base name is NAME crash or hang,
// so that the isolation of workers can be tested.
void InjectTestFault(const std::string &input);

// --serve: answers requests read from standard input until its end.
int RunServe(const Settings &settings);

// Converts settings.files into settings.outDir with worker processes.
// Answers the exit status.
int RunBatch(const Settings &settings);

// s as a JSON string with its quotes; bytes that are not UTF-8 become U+FFFD.
std::string JsonString(const std::string &s);
// Length of the well-formed UTF-8 sequence at s[i], or 0 when there is none.
size_t Utf8SequenceAt(const std::string &s, size_t i);

// The options with UTF-8 output (and no byte-order mark) in place of the
// set the user named.
FilterOptions InUtf8(const FilterOptions &options);
// The six properties of `path` in the output set of `options`; false when
// the header cannot be read.
bool ReadProperties(const std::string &path, const FilterOptions &options, const KlnCharsetInfo &charset,
                    std::vector<std::string> &values);
// The six texts of a property record (KLN_PROPERTY_RECORD_SIZE bytes).
std::vector<std::string> PropertyValues(const std::vector<char> &record);

// format.cc: the document as structure. WriteStructured writes `path` in
// settings.format to out and answers the filter's result code; TablesJson
// is the JSON array of its tables; ExtractObjects writes its embedded
// objects' bytes into settings.extractDir (false when one could not be
// written, with a message).
int WriteStructured(const std::string &path, const std::string &name, const Settings &settings, FILE *out);
std::string TablesJson(const std::string &path, const Settings &settings);
bool ExtractObjects(const std::string &path, const std::string &input, const Settings &settings);
// Column letters of a sheet: A to Z, then AA, AB, ... for 0-based column i.
std::string ColumnName(size_t i);

}  // namespace kln2txt
