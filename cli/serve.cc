// kln2txt --serve: a long-running worker for hosts that keep a pool of
// converters. Each line of standard input is one JSON request naming a
// document (its path, or its bytes in base64) and what to answer; each
// request gets exactly one JSON line on standard output, flushed at once.
// The process ends with status 0 at the end of its input.
#include <cmath>
#include <cstring>
#include <iostream>
#include <string_view>

#include "kln2txt.h"
#include "vtq_stream.h"
#include "vtq_txkln_ext.h"

namespace kln2txt {

namespace {

// The place of c in `digits` (or in `alternative`, the same digits in
// other letters), -1 when it is in neither.
int DigitValue(char c, std::string_view digits, std::string_view alternative = {}) {
  size_t at = c ? digits.find(c) : std::string_view::npos;
  if (at == std::string_view::npos && c) at = alternative.find(c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// One value of a request. Objects and arrays keep their members in order,
// each with its name in an object; `raw` is the value's own text, so an
// "id" goes back exactly as it came.
struct Json {
  enum Type : uint8_t { kNull, kBool, kNumber, kString, kArray, kObject } type = kNull;
  bool boolean = false;
  double number = 0;
  std::string string, name;
  std::vector<Json> members;
  std::string_view raw;
};

// A strict reader of one JSON text; nesting is capped so that a hostile
// line cannot exhaust the stack.
class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : s_(text) {}

  // Answers false, with a reason, for anything but one well-formed value.
  bool read(Json &value, std::string &error) {
    if (!parse(value, 0) || (skipSpace(), pos_ != s_.size())) {
      error = "malformed JSON at byte " + std::to_string(pos_);
      return false;
    }
    return true;
  }

 private:
  static constexpr int kMaxDepth = 16;

  void skipSpace() {
    while (pos_ < s_.size() && std::strchr(" \t\r\n", s_[pos_]) && s_[pos_]) ++pos_;
  }
  bool take(char c) {
    skipSpace();
    if (pos_ < s_.size() && s_[pos_] == c) return ++pos_, true;
    return false;
  }
  bool word(std::string_view w) {
    if (s_.substr(pos_, w.size()) != w) return false;
    pos_ += w.size();
    return true;
  }

  bool parse(Json &v, int depth) {
    skipSpace();
    const size_t start = pos_;
    if (pos_ >= s_.size() || depth > kMaxDepth) return false;
    bool ok = false;
    const char c = s_[pos_];
    if (c == '{' || c == '[') {
      v.type = c == '{' ? Json::kObject : Json::kArray;
      ok = members(v, c == '{' ? '}' : ']', depth);
    } else if (c == '"') {
      v.type = Json::kString;
      ok = string(v.string);
    } else if (c == 't' || c == 'f') {
      v.type = Json::kBool;
      v.boolean = c == 't';
      ok = word(v.boolean ? "true" : "false");
    } else if (c == 'n') {
      ok = word("null");
    } else {
      v.type = Json::kNumber;
      ok = number(v.number);
    }
    v.raw = s_.substr(start, pos_ - start);
    return ok;
  }

  bool members(Json &v, char close, int depth) {
    ++pos_;
    if (take(close)) return true;
    do {
      Json &member = v.members.emplace_back();
      if (v.type == Json::kObject && (!(skipSpace(), string(member.name)) || !take(':'))) return false;
      if (!parse(member, depth + 1)) return false;
    } while (take(','));
    return take(close);
  }

  bool number(double &n) {
    const size_t start = pos_;
    while (pos_ < s_.size() && std::strchr("+-0123456789.eE", s_[pos_]) && s_[pos_]) ++pos_;
    const std::string text(s_.substr(start, pos_ - start));
    char *end = nullptr;
    n = std::strtod(text.c_str(), &end);
    return !text.empty() && end == text.c_str() + text.size() && std::isfinite(n);
  }

  bool hex4(uint32_t &u) {
    if (pos_ + 4 > s_.size()) return false;
    u = 0;
    for (int i = 0; i < 4; ++i) {
      const int d = DigitValue(s_[pos_++], "0123456789abcdef", "0123456789ABCDEF");
      if (d < 0) return false;
      u = u << 4 | static_cast<uint32_t>(d);
    }
    return true;
  }

  // A \u escape, with the second half of a surrogate pair, as UTF-8.
  bool escapedCharacter(std::string &out) {
    uint32_t u = 0;
    if (!hex4(u) || (u >= 0xDC00 && u <= 0xDFFF)) return false;
    if (u >= 0xD800 && u <= 0xDBFF) {
      uint32_t low = 0;
      if (!word("\\u") || !hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
      u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
    }
    if (u < 0x80) {
      out += static_cast<char>(u);
    } else if (u < 0x800) {
      out += static_cast<char>(0xC0 | u >> 6);
      out += static_cast<char>(0x80 | (u & 0x3F));
    } else if (u < 0x10000) {
      out += static_cast<char>(0xE0 | u >> 12);
      out += static_cast<char>(0x80 | (u >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (u & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | u >> 18);
      out += static_cast<char>(0x80 | (u >> 12 & 0x3F));
      out += static_cast<char>(0x80 | (u >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (u & 0x3F));
    }
    return true;
  }

  bool string(std::string &out) {
    if (pos_ >= s_.size() || s_[pos_] != '"') return false;
    for (++pos_; pos_ < s_.size();) {
      // A run without quote, backslash or control character goes in at once
      // (a document's base64 is one long run).
      const size_t run = pos_;
      while (pos_ < s_.size() && s_[pos_] != '"' && s_[pos_] != '\\' && static_cast<uint8_t>(s_[pos_]) >= 0x20) ++pos_;
      out.append(s_.substr(run, pos_ - run));
      if (pos_ >= s_.size()) return false;
      const char c = s_[pos_++];
      if (c == '"') return true;
      if (c != '\\') return false;
      if (pos_ >= s_.size()) return false;
      const char e = s_[pos_++];
      static constexpr std::string_view kFrom = "\"\\/bfnrt", kTo = "\"\\/\b\f\n\r\t";
      const size_t k = kFrom.find(e);
      if (k != std::string_view::npos) {
        out += kTo[k];
      } else if (e != 'u' || !escapedCharacter(out)) {
        return false;
      }
    }
    return false;
  }

  std::string_view s_;
  size_t pos_ = 0;
};

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Standard base64 with optional '=' padding; false for any other byte.
bool DecodeBase64(std::string_view in, std::string &out) {
  while (!in.empty() && in.back() == '=') in.remove_suffix(1);
  if (in.size() % 4 == 1) return false;
  out.reserve(in.size() / 4 * 3 + 2);
  uint32_t bits = 0;
  int count = 0;
  for (const char c : in) {
    const int v = DigitValue(c, kBase64Digits);
    if (v < 0) return false;
    bits = bits << 6 | static_cast<uint32_t>(v);
    if (++count == 4) {
      out += static_cast<char>(bits >> 16);
      out += static_cast<char>(bits >> 8);
      out += static_cast<char>(bits);
      bits = 0;
      count = 0;
    }
  }
  if (count == 2) out += static_cast<char>(bits >> 4);
  if (count == 3) {
    out += static_cast<char>(bits >> 10);
    out += static_cast<char>(bits >> 2);
  }
  return true;
}

std::string EncodeBase64(const uint8_t *data, size_t size) {
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (size_t i = 0; i < size; i += 3) {
    const uint32_t n = uint32_t{data[i]} << 16 | (i + 1 < size ? uint32_t{data[i + 1]} << 8 : 0) |
                       (i + 2 < size ? uint32_t{data[i + 2]} : 0);
    out += kBase64Digits[n >> 18];
    out += kBase64Digits[n >> 12 & 63];
    out += i + 1 < size ? kBase64Digits[n >> 6 & 63] : '=';
    out += i + 2 < size ? kBase64Digits[n & 63] : '=';
  }
  return out;
}

// What one request asks for.
struct Request {
  std::string_view id = "null";
  std::string path, data, name;
  bool hasData = false;
  Settings settings;
  bool text = true, properties = true, tables = false, blocks = false, objects = false;
};

// The value of a boolean member, or an error.
bool Flag(const Json &v, const std::string &name, bool &flag, std::string &error) {
  if (v.type != Json::kBool) return error = "\"" + name + "\" wants true or false", false;
  flag = v.boolean;
  return true;
}

bool SetFlagBit(const Json &v, const std::string &name, uint32_t bit, uint32_t &flags, std::string &error) {
  bool on = false;
  if (!Flag(v, name, on, error)) return false;
  flags = on ? flags | bit : flags & ~bit;
  return true;
}

// Applies one member of "options" to the settings.
bool ApplyOption(const std::string &name, const Json &v, Settings &s, std::string &error) {
  FilterOptions &f = s.filter;
  const bool isString = v.type == Json::kString;
  if (name == "latin1") {
    bool latin1 = false;
    if (!Flag(v, name, latin1, error)) return false;
    s.charset.charsetCode = latin1 ? 0 : KLN_CHARSET_WINDOWS31J;
    return true;
  }
  if (name == "line_ends") {
    if (isString && SetLineEnds(v.string, f.flags)) return true;
    return error = "\"line_ends\" is keep, lf, crlf, cr or space", false;
  }
  if (name == "ole") {
    if (isString && SetOleMode(v.string, f.flags)) return true;
    return error = "\"ole\" is extract, skip or refuse", false;
  }
  if (name == "max_bytes") {
    if (v.type != Json::kNumber || v.number < 0 || v.number > UINT32_MAX || v.number != std::floor(v.number))
      return error = "\"max_bytes\" wants a whole number of bytes", false;
    f.flags |= KLN_FLAG_SIZE_LIMIT;
    f.sizeLimit = static_cast<uint32_t>(v.number);
    return true;
  }
  if (name == "separator") {
    if (!isString || v.string.size() != 1) return error = "\"separator\" wants one single-byte character", false;
    f.flags |= KLN_FLAG_SEPARATOR;
    f.cellSeparator = static_cast<unsigned char>(v.string[0]);
    return true;
  }
  if (name == "ole_continue") return SetFlagBit(v, name, KLN_FLAG_OLE_CONTINUE, f.flags, error);
  if (name == "no_quote") return SetFlagBit(v, name, KLN_FLAG_NO_QUOTE, f.flags, error);
  if (name == "no_fill") return SetFlagBit(v, name, KLN_FLAG_NO_FILL, f.flags, error);
  error = "unknown option \"" + name + "\"";
  return false;
}

// Reads the request of one line over the defaults; false with a reason for
// a request that cannot be served.
bool ParseRequest(const Json &json, Request &r, std::string &error) {
  if (json.type != Json::kObject) return error = "a request is a JSON object", false;
  for (const Json &v : json.members) {
    const std::string &name = v.name;
    bool ok = true;
    if (name == "id") {
      r.id = v.raw;
    } else if (name == "path" || name == "name") {
      ok = v.type == Json::kString || (error = "\"" + name + "\" wants a string", false);
      (name == "path" ? r.path : r.name) = v.string;
    } else if (name == "data") {
      ok = (v.type == Json::kString && DecodeBase64(v.string, r.data)) || (error = "\"data\" wants base64", false);
      r.hasData = true;
    } else if (name == "text" || name == "properties") {
      ok = Flag(v, name, name == "text" ? r.text : r.properties, error);
    } else if (name == "tables" || name == "blocks" || name == "objects") {
      ok = Flag(v, name, name == "tables" ? r.tables : name == "blocks" ? r.blocks : r.objects, error);
    } else if (name == "options") {
      ok = v.type == Json::kObject || (error = "\"options\" wants an object", false);
      for (size_t i = 0; ok && i < v.members.size(); ++i)
        ok = ApplyOption(v.members[i].name, v.members[i], r.settings, error);
    } else {
      ok = (error = "unknown field \"" + name + "\"", false);
    }
    if (!ok) return false;
  }
  if (r.path.empty() == !r.hasData) return error = "a request has either \"path\" or \"data\"", false;
  if (r.path.find('\0') != std::string::npos) return error = "\"path\" holds a NUL character", false;
  if (r.name.empty()) r.name = r.path;
  r.blocks = r.blocks || r.objects;  // objects come in their blocks
  r.tables = r.tables || r.blocks;   // which refer to the tables
  return true;
}

// The bytes of the file at `path`; false when it cannot be read.
bool ReadFile(const std::string &path, std::string &bytes) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  char buf[65536];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) bytes.append(buf, n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

// The status word of an answer for a result code.
const char *StatusOf(int code, bool headerReadable) {
  switch (code) {
    case KLN_OK: return "ok";
    case KLN_ERR_NO_TEXT: return "no_text";
    case KLN_ERR_SIZE_LIMIT: return "truncated";
    case KLN_ERR_FORMAT: return headerReadable ? "damaged" : "not_kln";
    case KLN_ERR_OLE_REFUSED: return "refused";
    case KLN_ERR_OLE_FAILED: return "object_failed";
    case KLN_ERR_NOMEM: return "no_memory";
    case KLN_ERR_OPEN: return "cannot_open";
    default: return "error";
  }
}

std::string Answer(std::string_view id, int code, const char *status, const std::string &message) {
  return "{\"id\":" + std::string(id) + ",\"code\":" + std::to_string(code) + ",\"status\":\"" + status +
         "\",\"message\":" + JsonString(message);
}

// Appends item to a comma-separated list of JSON values.
void Add(std::string &list, const std::string &item) {
  if (!list.empty()) list += ',';
  list += item;
}

// The tables, blocks and warnings of a document as JSON array members,
// written from its structure events. An embedded object is one block, with
// its bytes and its text when `objects` is asked (else its text stays in
// the text blocks); objects within it belong to it.
class Structure {
 public:
  explicit Structure(bool objects) : objects_(objects) {}

  // Runs the document's events; answers the result code.
  int collect(const std::string &bytes, const FilterOptions &options, const KlnCharsetInfo &charset) {
    KlnEventHandlers h{};
    h.structSize = sizeof h;
    h.text = Text;
    h.tableStart = TableStart;
    h.row = Row;
    h.tableEnd = TableEnd;
    h.objectStart = ObjectStart;
    h.objectEnd = ObjectEnd;
    const int code =
        GetEventsFromMemoryWithErrCallback(bytes.data(), bytes.size(), &h, this, &options, &charset, nullptr);
    endText();
    return code;
  }

  std::string tables, blocks, warnings;

 private:
  static Structure &Of(void *user) { return *static_cast<Structure *>(user); }

  void endText() {
    if (!text_.empty()) Add(blocks, "{\"type\":\"text\",\"text\":" + JsonString(text_) + "}");
    text_.clear();
  }

  static int Text(void *user, const char *text, size_t length) {
    Structure &s = Of(user);
    (s.depth_ && s.objects_ ? s.objectText_ : s.text_).append(text, length);
    return 0;
  }

  static int TableStart(void *user, const KlnTableInfo *t) {
    Structure &s = Of(user);
    s.endText();
    Add(s.blocks, "{\"type\":\"table\",\"table\":" + std::to_string(t->number) + "}");
    const bool database = t->kind == KLN_TABLE_DATABASE;
    std::string columns;
    for (uint32_t i = 0; i < (database ? t->fieldCount : t->columnCount); ++i)
      Add(columns, JsonString(database ? std::string(t->fieldNames[i]) : ColumnName(i)));
    s.table_ = "{\"number\":" + std::to_string(t->number) + ",\"kind\":\"" + (database ? "database" : "sheet") +
               "\",\"columns\":[" + columns + "],\"rows\":[";
    s.rows_ = 0;
    return 0;
  }

  static int Row(void *user, uint32_t row, const KlnCell *cells, size_t count) {
    Structure &s = Of(user);
    for (; s.rows_ < row; ++s.rows_) s.table_ += s.rows_ ? ",[]" : "[]";  // rows the writer leaves empty
    std::string json;
    for (size_t i = 0; i < count; ++i) Add(json, JsonString(std::string(cells[i].text, cells[i].length)));
    s.table_ += (s.rows_++ ? ",[" : "[") + json + "]";
    return 0;
  }

  static int TableEnd(void *user, int32_t) {
    Structure &s = Of(user);
    Add(s.tables, s.table_ + "]}");
    return 0;
  }

  static int ObjectStart(void *user, const KlnObjectInfo *o) {
    Structure &s = Of(user);
    if (s.depth_++) return 0;
    s.endText();
    s.object_ = "{\"type\":\"object\",\"number\":" + std::to_string(o->number) +
                ",\"position\":" + std::to_string(o->position);
    if (s.objects_) s.object_ += ",\"data\":\"" + EncodeBase64(o->data, o->size) + "\"";
    s.objectText_.clear();
    return 0;
  }

  static int ObjectEnd(void *user, int32_t number, int32_t result) {
    Structure &s = Of(user);
    if (result == KLN_ERR_OLE_UNSUPPORTED)
      Add(s.warnings, JsonString("embedded object " + std::to_string(number) + " holds no text that can be read"));
    if (s.depth_ == 0 || --s.depth_ > 0) return 0;
    if (s.objects_) s.object_ += ",\"text\":" + JsonString(s.objectText_);
    Add(s.blocks, s.object_ + ",\"code\":" + std::to_string(result) + "}");
    return 0;
  }

  const bool objects_;
  std::string text_, table_, object_, objectText_;
  uint32_t rows_ = 0;  // rows of the open table written so far
  int depth_ = 0;      // embedded objects open
};

// The text of the document in `bytes` into `text`; answers the result code.
int TextOf(const std::string &bytes, const FilterOptions &options, const KlnCharsetInfo &charset, std::string &text) {
  VTQ_STREAM *stream = VTQ_StreamCreateBuffer();
  if (!stream) return KLN_ERR_NOMEM;
  const int code =
      GetTextStreamFromMemoryWithErrCallback(bytes.data(), bytes.size(), stream, &options, &charset, nullptr);
  size_t length = 0;
  const void *data = VTQ_StreamBufferData(stream, &length);
  text.assign(static_cast<const char *>(data), length);
  VTQ_StreamDestroy(stream);
  return code;
}

// The six properties of a record as a JSON object; null when the header
// could not be read.
std::string PropertiesJson(const std::vector<char> &record, bool readable) {
  if (!readable) return "null";
  const std::vector<std::string> values = PropertyValues(record);
  std::string json;
  for (size_t i = 0; i < 6; ++i) Add(json, "\"" + std::string(kProperties[i].name) + "\":" + JsonString(values[i]));
  return "{" + json + "}";
}

// Converts the document of a request; answers the JSON line. The document
// is read into memory whether it came as data or by path.
std::string Serve(Request &r) {
  InjectTestFault(r.name);
  const bool loaded = r.hasData || ReadFile(r.path, r.data);
  const FilterOptions options = InUtf8(r.settings.filter);
  const KlnCharsetInfo &charset = r.settings.charset;
  std::vector<char> record(KLN_PROPERTY_RECORD_SIZE, 0);
  const bool headerReadable =
      loaded && GetPropertyFromMemory(r.data.data(), r.data.size(), &options, record.data(), &charset) == KLN_OK;
  std::string text;
  int code = KLN_ERR_OPEN;
  if (loaded) code = r.text || !headerReadable ? TextOf(r.data, options, charset, text) : KLN_OK;
  const auto failed = [](int c) { return c != KLN_OK && c != KLN_ERR_SIZE_LIMIT && c != KLN_ERR_NO_TEXT; };
  Structure structure(r.objects);
  if (r.tables && headerReadable && !failed(code)) {
    const int events = structure.collect(r.data, options, charset);
    if (failed(events)) code = events;
  }
  const Outcome outcome = code == KLN_ERR_FORMAT && !headerReadable ? Outcome::kNotKln : OutcomeOf(code);
  std::string json = Answer(r.id, code, StatusOf(code, headerReadable), code == KLN_OK ? "" : OutcomeText(outcome));
  json += std::string(",\"truncated\":") + (code == KLN_ERR_SIZE_LIMIT ? "true" : "false");
  if (r.text) json += ",\"text\":" + JsonString(failed(code) ? std::string() : text);
  if (r.properties) json += ",\"properties\":" + PropertiesJson(record, headerReadable);
  if (r.tables) json += ",\"tables\":[" + structure.tables + "]";
  if (r.blocks) json += ",\"blocks\":[" + structure.blocks + "]";
  return json + ",\"warnings\":[" + structure.warnings + "]}\n";
}

// The answer to one line of input.
std::string AnswerLine(const std::string &line, const Settings &defaults) {
  Json json;
  std::string error;
  Request request;
  request.settings = defaults;
  if (!JsonReader(line).read(json, error) || !ParseRequest(json, request, error)) {
    return Answer(request.id, -1, "bad_request", error) + "}\n";
  }
  return Serve(request);
}

}  // namespace

int RunServe(const Settings &settings) {
  std::ios::sync_with_stdio(false);
  for (std::string line; std::getline(std::cin, line);) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string answer = AnswerLine(line, settings);
    if (std::fwrite(answer.data(), 1, answer.size(), stdout) != answer.size() || std::fflush(stdout) != 0)
      return kExitFailed;
  }
  return kExitOk;
}

}  // namespace kln2txt
