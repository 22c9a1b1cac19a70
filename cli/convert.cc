// One document: its text to standard output (stream mode) or into a file
// (file mode), its properties, or both as one JSON object.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kln2txt.h"
#include "vtq_stream.h"

namespace kln2txt {

const Property kProperties[6] = {{"title", KLN_PROP_TITLE},       {"author", KLN_PROP_AUTHOR},
                                 {"keywords", KLN_PROP_KEYWORDS}, {"description", KLN_PROP_DESCRIPTION},
                                 {"class", KLN_PROP_CLASS},       {"version", KLN_PROP_VERSION}};

bool ReadProperties(const std::string &path, const FilterOptions &options, const KlnCharsetInfo &charset,
                    std::vector<std::string> &values) {
  std::vector<char> record(KLN_PROPERTY_RECORD_SIZE, 0);
  if (GetProperty(path.c_str(), &options, record.data(), &charset) != KLN_OK) return false;
  values = PropertyValues(record);
  return true;
}

std::vector<std::string> PropertyValues(const std::vector<char> &record) {
  std::vector<std::string> values;
  for (size_t i = 0; i < 6; ++i) {
    // Each text ends at its NUL, and at the latest where the next one starts.
    const size_t end = i + 1 < 6 ? kProperties[i + 1].offset : record.size();
    const char *at = record.data() + kProperties[i].offset;
    values.emplace_back(at, strnlen(at, end - kProperties[i].offset));
  }
  return values;
}

FilterOptions InUtf8(const FilterOptions &options) {
  FilterOptions utf8 = options;
  std::snprintf(utf8.outCharset, sizeof utf8.outCharset, "UTF-8");
  utf8.convOption &= ~KLN_CONV_UTF8_BOM;
  return utf8;
}

namespace {

// A private copy of an input the filter cannot open by its own name:
// standard input (the reader seeks) or a path of KLN_MAX_PATH bytes or more.
// The copy is removed at destruction.
class InputCopy {
 public:
  InputCopy() = default;
  ~InputCopy() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  InputCopy(const InputCopy &) = delete;
  InputCopy &operator=(const InputCopy &) = delete;

  // Copies `input` ("-" for standard input). Answers false on failure, with
  // errno set.
  bool make(const std::string &input) {
    const char *dir = std::getenv("TMPDIR");
    std::string name = std::string(dir && *dir ? dir : "/tmp") + "/kln2txt-XXXXXX";
    if (name.size() >= KLN_MAX_PATH) name = "/tmp/kln2txt-XXXXXX";
    const int to = mkstemp(name.data());
    if (to < 0) return false;
    path_ = name;
    const int from = input == "-" ? STDIN_FILENO : open(input.c_str(), O_RDONLY);
    bool ok = from >= 0 && Copy(from, to);
    const int saved = errno;
    if (from > STDIN_FILENO) close(from);
    ok = close(to) == 0 && ok;
    errno = saved;
    return ok;
  }
  const std::string &path() const { return path_; }

 private:
  static bool Copy(int from, int to) {
    char buf[65536];
    for (ssize_t n; (n = read(from, buf, sizeof buf)) != 0;) {
      if (n < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      for (ssize_t done = 0; done < n;) {
        const ssize_t w = write(to, buf + done, static_cast<size_t>(n - done));
        if (w < 0 && errno != EINTR) return false;
        if (w > 0) done += w;
      }
    }
    return true;
  }
  std::string path_;
};

long AppendToString(void *user, const void *data, long len) {
  static_cast<std::string *>(user)->append(static_cast<const char *>(data), static_cast<size_t>(len));
  return len;
}

// The text of `path` handed to `stream`.
int StreamText(const std::string &path, VTQ_STREAM *stream, const Settings &s, const FilterOptions &options) {
  if (!stream) return KLN_ERR_NOMEM;
  const int code = GetTextStreamWithErrCallback(path.c_str(), stream, &options, &s.charset, nullptr);
  VTQ_StreamDestroy(stream);
  return code;
}

// Opens where a listing goes: standard output, or the file outPath.
FILE *OpenListing(const std::string &outPath) { return outPath.empty() ? stdout : std::fopen(outPath.c_str(), "wb"); }

bool CloseListing(FILE *out) {
  if (out == stdout) return std::fflush(out) == 0;
  return std::fclose(out) == 0;
}

long Discard(void *, const void *, long len) { return len; }

// Why the filter answered 3000 (read, format, conversion or write failure)
// for `path`: no readable header, or a document that converts to UTF-8 but
// not to the output set asked for, or else a document damaged further in.
Outcome DiagnoseFormatFailure(const std::string &path, const Settings &s) {
  FilterOptions utf8 = InUtf8(s.filter);
  std::vector<std::string> values;
  if (!ReadProperties(path, utf8, s.charset, values)) return Outcome::kNotKln;
  utf8.flags &= ~(KLN_FLAG_LOG | KLN_FLAG_SIZE_LIMIT);  // the probe writes no log and reads to the end
  if (std::strcmp(s.filter.outCharset, "UTF-8") != 0 &&
      OutcomeOf(StreamText(path, VTQ_StreamCreate(Discard, nullptr), s, utf8)) != Outcome::kDamaged)
    return Outcome::kNotConvertible;
  return Outcome::kDamaged;
}

// --properties: "name: value" lines in the output character set. A text
// that set cannot take leaves its field empty; kNotConvertible tells so.
Outcome WriteProperties(const std::string &path, const Settings &s, FILE *out, int &code) {
  std::vector<std::string> values, inUtf8;
  if (!ReadProperties(path, s.filter, s.charset, values)) {
    code = KLN_ERR_FORMAT;
    return DiagnoseFormatFailure(path, s);
  }
  code = KLN_OK;
  for (size_t i = 0; i < 6; ++i) std::fprintf(out, "%s: %s\n", kProperties[i].name, values[i].c_str());
  if (std::find(values.begin(), values.end(), "") == values.end() ||
      !ReadProperties(path, InUtf8(s.filter), s.charset, inUtf8))
    return Outcome::kConverted;
  for (size_t i = 0; i < 6; ++i)
    if (values[i].empty() && !inUtf8[i].empty()) return Outcome::kNotConvertible;
  return Outcome::kConverted;
}

// --json: {"file", "properties", "text", "result", "message"} on one line;
// answers the result code of the text and its outcome.
int WriteJson(const std::string &path, const std::string &name, const Settings &s, FILE *out, Outcome &outcome) {
  const FilterOptions options = InUtf8(s.filter);
  std::vector<std::string> values;
  const bool headerReadable = ReadProperties(path, options, s.charset, values);
  std::string text;
  const int code = StreamText(path, VTQ_StreamCreate(AppendToString, &text), s, options);
  outcome = OutcomeOf(code);
  if (outcome == Outcome::kDamaged && !headerReadable) outcome = Outcome::kNotKln;

  std::string json = "{\"file\":" + JsonString(name) + ",\"properties\":";
  if (headerReadable) {
    json += '{';
    for (size_t i = 0; i < 6; ++i)
      json += std::string(i ? "," : "") + "\"" + kProperties[i].name + "\":" + JsonString(values[i]);
    json += '}';
  } else {
    json += "null";
  }
  json += ",\"text\":" + JsonString(text) + ",\"tables\":" + TablesJson(path, s) +
          ",\"result\":" + std::to_string(code) +
          ",\"message\":" + JsonString(OutcomeText(outcome)) + "}\n";
  std::fwrite(json.data(), 1, json.size(), out);
  return code;
}

// Writes the properties or the JSON object of `path` to outPath (or
// standard output).
Outcome WriteListing(const std::string &path, const std::string &name, const Settings &s, const std::string &outPath,
                     int &code) {
  FILE *out = OpenListing(outPath);
  if (!out) {
    code = KLN_ERR_OPEN;
    return Outcome::kCannotOpen;
  }
  Outcome outcome = Outcome::kConverted;
  if (s.json) {
    code = WriteJson(path, name, s, out, outcome);
  } else if (s.format != Format::kText) {
    code = WriteStructured(path, name, s, out);
    outcome = OutcomeOf(code);
    if (outcome == Outcome::kDamaged) outcome = DiagnoseFormatFailure(path, s);
  } else {
    outcome = WriteProperties(path, s, out, code);
  }
  return CloseListing(out) ? outcome : Outcome::kWriteFailed;
}

}  // namespace

Outcome ConvertDocument(const Settings &s, const std::string &input, const std::string &outPath, int &code) {
  code = KLN_OK;
  // The filter copies paths into buffers of KLN_MAX_PATH bytes.
  if (outPath.size() >= KLN_MAX_PATH) return Outcome::kPathTooLong;
  InputCopy copy;
  if (input == "-" || input.size() >= KLN_MAX_PATH) {
    if (!copy.make(input)) {
      code = KLN_ERR_OPEN;
      return Outcome::kCannotOpen;
    }
  }
  const std::string &path = copy.path().empty() ? input : copy.path();
  if (!s.extractDir.empty() && !ExtractObjects(path, input, s)) return Outcome::kWriteFailed;
  if (s.properties || s.json || s.format != Format::kText) return WriteListing(path, input, s, outPath, code);

  bool written = true;
  if (outPath.empty()) {
    std::fflush(stdout);
    code = StreamText(path, VTQ_StreamCreateFile(stdout), s, s.filter);
    written = std::fflush(stdout) == 0 && !std::ferror(stdout);
  } else {
    code = GetTextWithErrCallback(path.c_str(), outPath.c_str(), &s.filter, &s.charset, nullptr);
  }
  if (!written) return Outcome::kWriteFailed;
  const Outcome outcome = OutcomeOf(code);
  return outcome == Outcome::kDamaged ? DiagnoseFormatFailure(path, s) : outcome;
}

}  // namespace kln2txt
