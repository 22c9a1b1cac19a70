// kln2txt: the command-line host of the filter. It loads the filter the way
// a conversion runtime does, through the public header and the runtime's
// stream API, and turns KLN documents into text for people and scripts.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

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
  bool oleStrict = false;   // an object without readable text fails the document
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
  kInputFailed,     // the input cannot be opened or read
  kOutputFailed,    // the output cannot be opened or put in place
  kLogFailed,       // the log cannot be opened
  kWriteFailed,     // the output cannot be written
  kOutputIsInput,   // the output names the input file
  kUnknownCode,     // a result code this tool does not know
  kCrashed,         // batch: the worker died of a signal
  kTimedOut,        // batch: the worker was killed after --timeout
  kWorkerLost,      // batch: the worker ended in an unexpected way
  kInterrupted,     // batch: ended or never started at a stop signal
};
constexpr int kOutcomeCount = static_cast<int>(Outcome::kInterrupted) + 1;

// How one document ended: its outcome and the filter's result code; for a
// failure on one of the tool's own paths, that path and the system's
// reason (an errno value, 0 for none).
struct Result {
  Outcome outcome = Outcome::kConverted;
  int code = 0;
  std::string path;
  int error = 0;
};

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
// The same for a document's result: a failure on a path of the tool's own
// reads "kln2txt: PATH: TEXT[: REASON]".
void Report(const std::string &file, const Result &result, const Settings &settings);
// Writes "kln2txt: FILE: TEXT" to standard error for what went wrong
// without failing the document.
void Warn(const std::string &file, const char *text);

// The six properties of the header in record order.
struct Property {
  const char *name;
  size_t offset;
};
extern const Property kProperties[6];

// Converts one document as the settings ask. outPath empty: the result goes
// to standard output; otherwise into that file, which appears only once
// whole (see Output).
Result ConvertDocument(const Settings &settings, const std::string &input, const std::string &outPath);

// ---- The tool's own files ----

// SIGINT, SIGTERM and SIGHUP: they end the tool, a batch after its summary.
extern const int kStopSignals[3];
// At a stop signal the paths held by TempPath objects are removed and the
// process ends of the signal.
void InstallStopHandlers();

// A temporary file, removed at destruction or at a stop signal unless
// released first.
class TempPath {
 public:
  TempPath() = default;
  ~TempPath();
  TempPath(const TempPath &) = delete;
  TempPath &operator=(const TempPath &) = delete;
  void own(const std::string &path);
  void release();  // the file stays
  const std::string &path() const { return path_; }

 private:
  std::string path_;
  int slot_ = -1;
};

// $TMPDIR, or /tmp when that is unset or too long for the filter's paths.
std::string TempFolder();
// Where a worker with process id pid writes the output before it is whole.
std::string PartialName(const std::string &output, pid_t pid);

// The input as the filter reads it: the named file, or a private copy of
// standard input, a pipe or a path too long for the filter.
class Input {
 public:
  Result open(const std::string &name);
  const std::string &path() const { return path_; }
  bool isCopy() const;
  const struct stat &status() const { return stat_; }

 private:
  Result copy(int from, const std::string &name);
  struct stat stat_ {};
  std::string path_;
  TempPath copy_;
};

// Where the result goes: standard output, a device or pipe as it comes,
// or a file written under PartialName and renamed once whole.
class Output {
 public:
  // Refuses an output that is the input file itself.
  Result open(const std::string &path, const struct stat &input);
  // A VTQ_StreamWriteFn over an Output.
  static long Write(void *user, const void *data, long len);
  bool write(const void *data, size_t n);
  // The next bytes repeat what was written already: they are passed over.
  void rewrite() { skip_ = written_; }
  bool failed() const { return error_ != 0; }
  // Closes the output; keeps the file only when something was written and
  // r is no failure, or the output records the failure (a JSON object).
  // Answers r, or the failure to write or to rename.
  Result finish(Result r, bool recordsFailure);

 private:
  std::string path_, target_;  // as named, and the file it is (links resolved)
  FILE *file_ = nullptr;
  TempPath partial_;
  uint64_t written_ = 0, skip_ = 0;
  int error_ = 0;
};

// ---- Character sets (the runtime's converter) ----

// True when the filter takes `set` as its output character set.
bool KnownCharset(const char *set);
// UTF-8 text in `set`, with the byte-order mark the set opens with.
bool Recode(const std::string &utf8, const char *set, std::string &out);
// True when characters in `set` hold zero bytes (UTF-16, UTF-32, …).
bool HoldsZeroBytes(const char *set);

// The test-only switch KLN2TXT_TEST_FAULT=crash:NAME or hang:NAME (several
// separated by commas) makes the process that converts the document whose
// base name is NAME crash or hang, so that the isolation of workers can be
// tested.
void InjectTestFault(const std::string &input);

// --serve: answers requests read from standard input until its end.
int RunServe(const Settings &settings);

// Converts settings.files into settings.outDir with worker processes.
// Answers the exit status.
int RunBatch(const Settings &settings);

// s as a JSON string with its quotes; bytes that are not UTF-8 become U+FFFD.
std::string JsonString(const std::string &s);
// Length of the well-formed UTF-8 sequence at s[i] (i < s.size()), or 0
// when there is none.
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
int WriteStructured(const std::string &path, const std::string &name, const Settings &settings, Output &out);
std::string TablesJson(const std::string &path, const Settings &settings);
bool ExtractObjects(const std::string &path, const std::string &input, const Settings &settings);
// Column letters of a sheet: A to Z, then AA, AB, ... for 0-based column i.
std::string ColumnName(size_t i);

}  // namespace kln2txt
