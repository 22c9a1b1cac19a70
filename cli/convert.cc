// One document: its text, its properties, or both as one JSON object, to
// standard output or into a file.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "kln2txt.h"
#include "vtq_stream.h"

namespace kln2txt {

const Property kProperties[6] = {{"title", KLN_PROP_TITLE},       {"author", KLN_PROP_AUTHOR},
                                 {"keywords", KLN_PROP_KEYWORDS}, {"description", KLN_PROP_DESCRIPTION},
                                 {"class", KLN_PROP_CLASS},       {"version", KLN_PROP_VERSION}};

// The six properties of `path` in the output set of `options`; false when
// the header cannot be read.
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

// The options with UTF-8 output (and no byte-order mark) in place of the
// set the user named.
FilterOptions InUtf8(const FilterOptions &options) {
  FilterOptions utf8 = options;
  std::snprintf(utf8.outCharset, sizeof utf8.outCharset, "UTF-8");
  utf8.convOption &= ~KLN_CONV_UTF8_BOM;
  return utf8;
}

namespace {

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

// "name: value" lines of the six properties.
std::string PropertyLines(const std::vector<std::string> &values) {
  std::string lines;
  for (size_t i = 0; i < 6; ++i) lines += std::string(kProperties[i].name) + ": " + values[i] + "\n";
  return lines;
}

// --properties: "name: value" lines in the output character set. A text
// that set cannot take leaves its field empty; kNotConvertible tells so.
// A set whose characters hold zero bytes cannot pass through the filter's
// NUL-terminated record: the lines are read in UTF-8 and recoded whole.
Outcome WriteProperties(const std::string &path, const Settings &s, Output &out, int &code) {
  const bool wide = HoldsZeroBytes(s.filter.outCharset);
  std::vector<std::string> values, inUtf8;
  if (!ReadProperties(path, wide ? InUtf8(s.filter) : s.filter, s.charset, values)) {
    code = KLN_ERR_FORMAT;
    return DiagnoseFormatFailure(path, s);
  }
  code = KLN_OK;
  const std::string lines = PropertyLines(values);
  std::string recoded;
  if (wide && !Recode(lines, s.filter.outCharset, recoded)) return Outcome::kNotConvertible;
  out.write(wide ? recoded.data() : lines.data(), wide ? recoded.size() : lines.size());
  if (wide || std::find(values.begin(), values.end(), "") == values.end() ||
      !ReadProperties(path, InUtf8(s.filter), s.charset, inUtf8))
    return Outcome::kConverted;
  for (size_t i = 0; i < 6; ++i)
    if (values[i].empty() && !inUtf8[i].empty()) return Outcome::kNotConvertible;
  return Outcome::kConverted;
}

// Hands the text of `path` to write(user, …). An embedded object without
// readable text fails the document only with --ole-strict: otherwise the
// document is converted again passing such objects over, after again().
// The filter does not tell which object failed; what a second run writes
// up to it is what the first one wrote.
template <class Again>
int TextPassingObjectsOver(const std::string &path, const std::string &name, const Settings &s,
                           const FilterOptions &options, VTQ_StreamWriteFn write, void *user, Again again) {
  const int code = StreamText(path, VTQ_StreamCreate(write, user), s, options);
  if (code != KLN_ERR_OLE_FAILED || s.oleStrict) return code;
  FilterOptions passOver = options;
  passOver.flags |= KLN_FLAG_OLE_CONTINUE;
  again();
  Warn(name, "an embedded object without readable text was passed over (--ole-strict fails the document)");
  return StreamText(path, VTQ_StreamCreate(write, user), s, passOver);
}

// --json: {"file", "properties", "text", "result", "message"} on one line;
// answers the result code of the text and its outcome.
int WriteJson(const std::string &path, const std::string &name, const Settings &s, Output &out, Outcome &outcome) {
  const FilterOptions options = InUtf8(s.filter);
  std::vector<std::string> values;
  const bool headerReadable = ReadProperties(path, options, s.charset, values);
  std::string text;
  const int code = TextPassingObjectsOver(path, name, s, options, AppendToString, &text, [&] { text.clear(); });
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
  out.write(json.data(), json.size());
  return code;
}

// The text of `path` into out; its bytes written before are not repeated.
Result WriteText(const std::string &path, const std::string &name, const Settings &s, Output &out) {
  const int code = TextPassingObjectsOver(path, name, s, s.filter, Output::Write, &out, [&] { out.rewrite(); });
  const Outcome outcome = OutcomeOf(code);
  if (outcome != Outcome::kDamaged || out.failed()) return {outcome, code, {}, 0};
  return {DiagnoseFormatFailure(path, s), code, {}, 0};
}

// The filter writes its log beside the file it reads, as NAME.KLN.log:
// opened here first so that a failure names the log and its reason. A
// private copy has no place beside the input for it.
Result OpenLog(const std::string &name, const Input &in) {
  const std::string log = name + ".KLN.log";
  if (log.size() >= KLN_MAX_PATH) return {Outcome::kLogFailed, 0, log, ENAMETOOLONG};
  if (in.isCopy()) return {Outcome::kLogFailed, 0, log, ESPIPE};  // a pipe: the log would be beside the copy
  FILE *f = std::fopen(log.c_str(), "a");
  if (!f) return {Outcome::kLogFailed, 0, log, errno};
  std::fclose(f);
  return {};
}

}  // namespace

void InjectTestFault(const std::string &input) {
  const char *faults = std::getenv("KLN2TXT_TEST_FAULT");
  if (!faults) return;
  const size_t slash = input.find_last_of('/');
  const std::string base = slash == std::string::npos ? input : input.substr(slash + 1);
  // Several faults are separated by commas: crash:a.kln,hang:b.kln.
  for (std::string_view rest(faults); !rest.empty();) {
    const std::string_view f = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(rest.size(), f.size() + 1));
    const size_t colon = f.find(':');
    if (colon == std::string_view::npos || f.substr(colon + 1) != base) continue;
    if (f.substr(0, colon) == "crash") {
      signal(SIGSEGV, SIG_DFL);  // past any sanitizer's handler
      raise(SIGSEGV);
    } else if (f.substr(0, colon) == "hang") {
      for (;;) pause();
    }
  }
}

Result ConvertDocument(const Settings &s, const std::string &input, const std::string &outPath) {
  Input in;
  Output out;
  Result r = in.open(input);
  if (r.outcome == Outcome::kConverted) r = out.open(outPath, in.status());
  if (r.outcome == Outcome::kConverted && (s.filter.flags & KLN_FLAG_LOG)) r = OpenLog(input, in);
  if (r.outcome != Outcome::kConverted) return r;
  InjectTestFault(input);
  if (!s.extractDir.empty() && !ExtractObjects(in.path(), input, s)) return {Outcome::kWriteFailed, 0, {}, 0};
  if (s.properties) {
    r.outcome = WriteProperties(in.path(), s, out, r.code);
  } else if (s.json) {
    r.code = WriteJson(in.path(), input, s, out, r.outcome);
  } else if (s.format != Format::kText) {
    r.code = WriteStructured(in.path(), input, s, out);
    r.outcome = OutcomeOf(r.code);
    if (r.outcome == Outcome::kDamaged && !out.failed()) r.outcome = DiagnoseFormatFailure(in.path(), s);
  } else {
    r = WriteText(in.path(), input, s, out);
  }
  return out.finish(r, s.json);
}

}  // namespace kln2txt
