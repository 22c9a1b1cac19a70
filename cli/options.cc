// The command line: options named for people, turned into the filter's
// FilterOptions bits and the tool's own settings.
#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kln2txt.h"

#ifndef KLN2TXT_VERSION
#error "KLN2TXT_VERSION is set by the build"
#endif

namespace kln2txt {

namespace {

constexpr char kUsage[] =
    "Usage: kln2txt [OPTION]... FILE...\n"
    "       kln2txt --out-dir DIR [-j N] [OPTION]... FILE...\n"
    "Writes the text of KLN documents to standard output, to a file (-o) or,\n"
    "one file per document, into a folder (--out-dir). FILE - reads standard input.\n"
    "\n"
    "Output:\n"
    "  -o, --output OUT        write the text into OUT (removed again when the\n"
    "                          document has no text or is refused)\n"
    "      --out-dir DIR       convert every FILE into DIR/NAME.txt (NAME-2.txt, …\n"
    "                          for a name met before), each in a process of its own\n"
    "  -j, --jobs N            run N documents at a time with --out-dir (1)\n"
    "      --timeout SECONDS   end a document that runs longer (--out-dir; 60, 0 = none)\n"
    "      --properties        print title, author, keywords, description, class\n"
    "                          and version as 'name: value' lines instead of the text\n"
    "      --json              print one JSON object per document (always UTF-8):\n"
    "                          file, properties, text, tables, result and message\n"
    "      --format FORMAT     text, markdown (paragraphs and tables), html (an XHTML\n"
    "                          document) or jsonl (properties, then one line per\n"
    "                          paragraph and per table row); all but text in UTF-8 (text)\n"
    "      --header-row        a sheet's first row heads its table (else A, B, ...)\n"
    "      --extract-objects DIR  also write each embedded object's bytes into\n"
    "                          DIR/NAME-N.ole\n"
    "      --serve             answer JSON requests, one a line, on standard input\n"
    "                          (no FILE; see the README); the options are defaults\n"
    "\n"
    "Text:\n"
    "  -e, --encoding NAME     output character set (UTF-8)\n"
    "      --latin1            the documents' text is ISO-8859-1 (Windows-31J)\n"
    "      --bom               start UTF-8 output with a byte-order mark\n"
    "      --line-ends MODE    keep, lf, crlf, cr or space (lf)\n"
    "      --max-bytes N       cut the output after N bytes\n"
    "      --log               write a log beside the output (or the input)\n"
    "\n"
    "Tables:\n"
    "      --separator C       separate cells with the character C (,)\n"
    "      --tab               separate cells with a tab\n"
    "      --no-quote          no double quotes around cells\n"
    "      --no-fill           no empty fields for empty cells before a written one\n"
    "\n"
    "Embedded objects:\n"
    "      --ole MODE          extract their text, skip them, or refuse the\n"
    "                          document (extract)\n"
    "      --ole-continue      an object that fails does not end the document\n"
    "      --ole-limit-stops   reaching --max-bytes inside an object ends the output\n"
    "\n"
    "      --help              show this help\n"
    "      --version           show the version\n"
    "\n"
    "Exit status: 0 success (also a document without text, with a message),\n"
    "1 a document failed, 2 usage, 3 output cut at --max-bytes. With several\n"
    "documents the most serious status of them all: 1, then 3, then 0.\n";

enum LongOnly : int {
  kOutDir = 256,
  kTimeout,
  kListProperties,
  kJson,
  kServe,
  kLatin1,
  kBom,
  kLineEnds,
  kMaxBytes,
  kLog,
  kSeparator,
  kTab,
  kNoQuote,
  kNoFill,
  kOle,
  kOleContinue,
  kOleLimitStops,
  kFormat,
  kHeaderRow,
  kExtractObjects,
  kHelp,
  kVersion,
};

constexpr option kLongOptions[] = {
    {"output", required_argument, nullptr, 'o'},
    {"out-dir", required_argument, nullptr, kOutDir},
    {"jobs", required_argument, nullptr, 'j'},
    {"timeout", required_argument, nullptr, kTimeout},
    {"properties", no_argument, nullptr, kListProperties},
    {"json", no_argument, nullptr, kJson},
    {"serve", no_argument, nullptr, kServe},
    {"encoding", required_argument, nullptr, 'e'},
    {"latin1", no_argument, nullptr, kLatin1},
    {"bom", no_argument, nullptr, kBom},
    {"line-ends", required_argument, nullptr, kLineEnds},
    {"max-bytes", required_argument, nullptr, kMaxBytes},
    {"log", no_argument, nullptr, kLog},
    {"separator", required_argument, nullptr, kSeparator},
    {"tab", no_argument, nullptr, kTab},
    {"no-quote", no_argument, nullptr, kNoQuote},
    {"no-fill", no_argument, nullptr, kNoFill},
    {"ole", required_argument, nullptr, kOle},
    {"ole-continue", no_argument, nullptr, kOleContinue},
    {"ole-limit-stops", no_argument, nullptr, kOleLimitStops},
    {"format", required_argument, nullptr, kFormat},
    {"header-row", no_argument, nullptr, kHeaderRow},
    {"extract-objects", required_argument, nullptr, kExtractObjects},
    {"help", no_argument, nullptr, kHelp},
    {"version", no_argument, nullptr, kVersion},
    {nullptr, 0, nullptr, 0},
};

struct Named {
  std::string_view name;
  uint32_t bits;
};

constexpr Named kLineEndModes[] = {{"keep", KLN_FLAG_LINE_KEEP},
                                   {"lf", KLN_FLAG_LINE_LF},
                                   {"crlf", KLN_FLAG_LINE_CRLF},
                                   {"cr", KLN_FLAG_LINE_CR},
                                   {"space", KLN_FLAG_LINE_SPACE}};
constexpr uint32_t kLineEndBits =
    KLN_FLAG_LINE_KEEP | KLN_FLAG_LINE_LF | KLN_FLAG_LINE_CRLF | KLN_FLAG_LINE_CR | KLN_FLAG_LINE_SPACE;

constexpr Named kFormats[] = {{"text", uint32_t(Format::kText)},
                              {"markdown", uint32_t(Format::kMarkdown)},
                              {"html", uint32_t(Format::kHtml)},
                              {"jsonl", uint32_t(Format::kJsonl)}};

constexpr Named kOleModes[] = {{"extract", KLN_FLAG_OLE_EXTRACT}, {"skip", 0}, {"refuse", KLN_FLAG_OLE_REFUSE}};
constexpr uint32_t kOleModeBits = KLN_FLAG_OLE_EXTRACT | KLN_FLAG_OLE_REFUSE;

int UsageError(const char *format, const char *what) {
  std::fputs("kln2txt: ", stderr);
  std::fprintf(stderr, format, what);
  std::fputs("\nTry 'kln2txt --help' for more information.\n", stderr);
  return kExitUsage;
}

// A whole decimal number in [min, max].
bool ParseNumber(const char *text, unsigned long min, unsigned long max, unsigned long &value) {
  if (!*text || *text == '-' || *text == '+') return false;
  char *end = nullptr;
  errno = 0;
  value = std::strtoul(text, &end, 10);
  return errno == 0 && *end == '\0' && value >= min && value <= max;
}

// Replaces the bits of `mask` in flags with those of the mode called `name`.
template <size_t N>
bool SetMode(const Named (&modes)[N], uint32_t mask, const char *name, uint32_t &flags) {
  for (const Named &m : modes) {
    if (m.name == name) {
      flags = (flags & ~mask) | m.bits;
      return true;
    }
  }
  return false;
}

void SetSeparator(FilterOptions &filter, unsigned char c) {
  filter.flags |= KLN_FLAG_SEPARATOR;
  filter.cellSeparator = c;
}

// Checks the combinations that only make sense together.
int CheckCombination(const Settings &s, bool jobsGiven, bool timeoutGiven) {
  if (s.serve) {
    if (!s.files.empty()) return UsageError("%s", "--serve takes no FILE: requests name the documents");
    if (!s.output.empty() || !s.outDir.empty() || s.properties || s.json || jobsGiven || timeoutGiven ||
        s.format != Format::kText || !s.extractDir.empty())
      return UsageError("%s", "--serve answers in JSON lines: it takes no output, batch or format option");
    if (s.filter.flags & KLN_FLAG_LOG) return UsageError("%s", "--serve writes no log");
    return kExitOk;
  }
  if (s.files.empty()) return UsageError("%s", "no FILE given");
  const bool readsStdin = std::find(s.files.begin(), s.files.end(), "-") != s.files.end();
  if (!s.output.empty() && !s.outDir.empty()) return UsageError("%s", "-o and --out-dir exclude each other");
  if (!s.output.empty() && s.files.size() > 1) return UsageError("%s", "-o takes one FILE; use --out-dir for more");
  if (s.outDir.empty() && (jobsGiven || timeoutGiven)) return UsageError("%s", "-j and --timeout go with --out-dir");
  if (!s.outDir.empty() && readsStdin) return UsageError("%s", "--out-dir takes named files, not -");
  if (readsStdin && (s.files.size() > 1)) return UsageError("%s", "- must be the only FILE");
  if ((s.filter.flags & KLN_FLAG_LOG) && readsStdin && s.output.empty())
    return UsageError("%s", "--log needs a named FILE or -o: the log goes beside it");
  if (s.properties && s.json) return UsageError("%s", "--json already holds the properties");
  if (s.format != Format::kText && (s.properties || s.json))
    return UsageError("%s", "--format goes with neither --properties nor --json");
  return kExitOk;
}

}  // namespace

bool SetLineEnds(const std::string &name, uint32_t &flags) {
  return SetMode(kLineEndModes, kLineEndBits, name.c_str(), flags);
}

bool SetOleMode(const std::string &name, uint32_t &flags) {
  return SetMode(kOleModes, kOleModeBits, name.c_str(), flags);
}

int ParseCommandLine(int argc, char **argv, Settings &s, bool &done) {
  done = false;
  std::snprintf(s.filter.outCharset, sizeof s.filter.outCharset, "UTF-8");
  s.filter.flags = KLN_FLAG_LINE_LF | KLN_FLAG_OLE_EXTRACT;
  s.charset.charsetCode = KLN_CHARSET_WINDOWS31J;
  bool jobsGiven = false, timeoutGiven = false;
  unsigned long n = 0;
  opterr = 0;  // our own messages
  optind = 1;
  for (int c; (c = getopt_long(argc, argv, ":o:j:e:", kLongOptions, nullptr)) != -1;) {
    switch (c) {
      case 'o': s.output = optarg; break;
      case kOutDir: s.outDir = optarg; break;
      case 'j':
        if (!ParseNumber(optarg, 1, 256, n))
          return UsageError("-j wants a number of workers from 1 to 256, not '%s'", optarg);
        s.jobs = static_cast<unsigned>(n);
        jobsGiven = true;
        break;
      case kTimeout:
        if (!ParseNumber(optarg, 0, 86400, n))
          return UsageError("--timeout wants seconds (0 = none), not '%s'", optarg);
        s.timeoutSeconds = static_cast<unsigned>(n);
        timeoutGiven = true;
        break;
      case kListProperties: s.properties = true; break;
      case kJson: s.json = true; break;
      case kServe: s.serve = true; break;
      case 'e':
        // The filter takes a set name of at most 32 characters.
        if (std::strlen(optarg) == 0 || std::strlen(optarg) > 32)
          return UsageError("the output character set name must have 1 to 32 characters: '%s'", optarg);
        std::snprintf(s.filter.outCharset, sizeof s.filter.outCharset, "%s", optarg);
        break;
      case kLatin1: s.charset.charsetCode = 0; break;
      case kBom: s.filter.convOption |= KLN_CONV_UTF8_BOM; break;
      case kLineEnds:
        if (!SetLineEnds(optarg, s.filter.flags))
          return UsageError("--line-ends is keep, lf, crlf, cr or space, not '%s'", optarg);
        break;
      case kMaxBytes:
        if (!ParseNumber(optarg, 0, UINT32_MAX, n))
          return UsageError("--max-bytes wants a number of bytes, not '%s'", optarg);
        s.filter.flags |= KLN_FLAG_SIZE_LIMIT;
        s.filter.sizeLimit = static_cast<uint32_t>(n);
        break;
      case kLog: s.filter.flags |= KLN_FLAG_LOG; break;
      case kSeparator:
        // The filter separates cells with one byte.
        if (std::strlen(optarg) != 1)
          return UsageError("--separator wants one single-byte character, not '%s'", optarg);
        SetSeparator(s.filter, static_cast<unsigned char>(optarg[0]));
        break;
      case kTab: SetSeparator(s.filter, '\t'); break;
      case kNoQuote: s.filter.flags |= KLN_FLAG_NO_QUOTE; break;
      case kNoFill: s.filter.flags |= KLN_FLAG_NO_FILL; break;
      case kOle:
        if (!SetOleMode(optarg, s.filter.flags))
          return UsageError("--ole is extract, skip or refuse, not '%s'", optarg);
        break;
      case kOleContinue: s.filter.flags |= KLN_FLAG_OLE_CONTINUE; break;
      case kOleLimitStops: s.filter.flags |= KLN_FLAG_OLE_LIMIT_STOPS; break;
      case kFormat: {
        uint32_t format = 0;
        if (!SetMode(kFormats, ~0u, optarg, format))
          return UsageError("--format is text, markdown, html or jsonl, not '%s'", optarg);
        s.format = static_cast<Format>(format);
        break;
      }
      case kHeaderRow: s.headerRow = true; break;
      case kExtractObjects: s.extractDir = optarg; break;
      case kHelp:
        std::fputs(kUsage, stdout);
        done = true;
        return kExitOk;
      case kVersion:
        std::printf("kln2txt %s\n", KLN2TXT_VERSION);
        done = true;
        return kExitOk;
      case ':': return UsageError("option '%s' wants a value", argv[optind - 1]);
      default: return UsageError("unknown option '%s'", argv[optind - 1]);
    }
  }
  s.files.assign(argv + optind, argv + argc);
  return CheckCombination(s, jobsGiven, timeoutGiven);
}

}  // namespace kln2txt
