// kln2txt --serve: a long-running worker for hosts that keep a pool of
// converters. Each line of standard input is one JSON request naming a
// document (its path, or its bytes in base64) and what to answer; each
// request gets exactly one JSON line on standard output, flushed at once.
// The process ends with status 0 at the end of its input.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <iostream>
#include <memory>
#include <string_view>

#include "kln2txt.h"

namespace kln2txt {

namespace {

// The place of c in `digits` (or in `alternative`, the same digits in
// other letters), -1 when it is in neither.
int DigitValue(char c, std::string_view digits, std::string_view alternative = {}) {
  size_t at = c ? digits.find(c) : std::string_view::npos;
  if (at == std::string_view::npos && c) at = alternative.find(c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// One value of a request. Objects and arrays keep their members in order;
// `raw` is the value's own text, so an "id" goes back exactly as it came.
struct Json {
  enum Type : uint8_t { kNull, kBool, kNumber, kString, kArray, kObject } type = kNull;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<std::pair<std::string, Json>> members;
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
      std::string name;
      if (v.type == Json::kObject && (!(skipSpace(), string(name)) || !take(':'))) return false;
      v.members.emplace_back(std::move(name), Json{});
      if (!parse(v.members.back().second, depth + 1)) return false;
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
      const char c = s_[pos_++];
      if (c == '"') return true;
      if (static_cast<uint8_t>(c) < 0x20) return false;
      if (c != '\\') {
        out += c;
        continue;
      }
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

// Standard base64 with optional '=' padding; false for any other byte.
bool DecodeBase64(std::string_view in, std::string &out) {
  while (!in.empty() && in.back() == '=') in.remove_suffix(1);
  if (in.size() % 4 == 1) return false;
  out.reserve(in.size() / 4 * 3 + 2);
  uint32_t bits = 0;
  int count = 0;
  for (const char c : in) {
    const int v = DigitValue(c, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
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

// What one request asks for.
struct Request {
  std::string_view id = "null";
  std::string path, data, name;
  bool hasData = false;
  Settings settings;
  bool text = true, properties = true;
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
  for (const auto &[name, v] : json.members) {
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
      // Tables and blocks come from the structure events, which this
      // filter does not offer yet: say so rather than answer nothing.
      bool asked = false;
      ok = Flag(v, name, asked, error) && (!asked || (error = "\"" + name + "\" is not in this build", false));
    } else if (name == "options") {
      ok = v.type == Json::kObject || (error = "\"options\" wants an object", false);
      for (size_t i = 0; ok && i < v.members.size(); ++i)
        ok = ApplyOption(v.members[i].first, v.members[i].second, r.settings, error);
    } else {
      ok = (error = "unknown field \"" + name + "\"", false);
    }
    if (!ok) return false;
  }
  if (r.path.empty() == !r.hasData) return error = "a request has either \"path\" or \"data\"", false;
  if (r.name.empty()) r.name = r.path;
  return true;
}

// The document's bytes as a file the filter opens by name: an anonymous
// memory file, so nothing is left on disk whatever happens to the worker.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string &bytes) : fd_(memfd_create("kln2txt-serve", MFD_CLOEXEC)) {
    bool ok = fd_ >= 0;
    for (size_t done = 0; ok && done < bytes.size();) {
      const ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
      ok = n > 0 || (n < 0 && errno == EINTR);
      if (n > 0) done += static_cast<size_t>(n);
    }
    if (ok) path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~MemoryFile() {
    if (fd_ >= 0) close(fd_);
  }
  MemoryFile(const MemoryFile &) = delete;
  MemoryFile &operator=(const MemoryFile &) = delete;
  // Empty when the file could not be made.
  const std::string &path() const { return path_; }

 private:
  int fd_;
  std::string path_;
};

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

// Converts the document of a request; answers the JSON line.
std::string Serve(const Request &r) {
  InjectTestFault(r.name);
  std::unique_ptr<MemoryFile> memory;
  if (r.hasData) {
    memory = std::make_unique<MemoryFile>(r.data);
    if (memory->path().empty())
      return Answer(r.id, KLN_ERR_NOMEM, "no_memory", OutcomeText(Outcome::kNoMemory)) + "}\n";
  }
  const std::string &path = memory ? memory->path() : r.path;
  if (path.size() >= KLN_MAX_PATH)
    return Answer(r.id, KLN_ERR_OPEN, "cannot_open", OutcomeText(Outcome::kPathTooLong)) + "}\n";

  const FilterOptions options = InUtf8(r.settings.filter);
  std::vector<std::string> values;
  const bool headerReadable = ReadProperties(path, options, r.settings.charset, values);
  std::string text;
  const int code = r.text || !headerReadable ? TextOf(path, r.settings, options, text) : KLN_OK;
  const bool failed = code != KLN_OK && code != KLN_ERR_SIZE_LIMIT;
  const Outcome outcome = code == KLN_ERR_FORMAT && !headerReadable ? Outcome::kNotKln : OutcomeOf(code);
  std::string json = Answer(r.id, code, StatusOf(code, headerReadable), code == KLN_OK ? "" : OutcomeText(outcome));
  json += std::string(",\"truncated\":") + (code == KLN_ERR_SIZE_LIMIT ? "true" : "false");
  if (r.text) json += ",\"text\":" + JsonString(failed ? std::string() : text);
  if (r.properties) {
    json += ",\"properties\":";
    if (!headerReadable) json += "null";
    for (size_t i = 0; headerReadable && i < 6; ++i)
      json += std::string(i ? "," : "{") + "\"" + kProperties[i].name + "\":" + JsonString(values[i]);
    if (headerReadable) json += '}';
  }
  return json + ",\"warnings\":[]}\n";
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
