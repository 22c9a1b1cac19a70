// JSON string literals for --json: always UTF-8, so a byte sequence that is
// not well-formed UTF-8 is replaced rather than passed on.
#include <cstdio>

#include "kln2txt.h"
#include "vtq_rt.h"

namespace kln2txt {

size_t Utf8SequenceAt(const std::string &s, size_t i) { return VTQ_Utf8Length(s.data() + i, s.size() - i); }

std::string JsonString(const std::string &s) {
  std::string out = "\"";
  out.reserve(s.size() + 2);
  for (size_t i = 0; i < s.size();) {
    const char c = s[i];
    const size_t n = Utf8SequenceAt(s, i);
    if (n == 0) {
      out += "\xEF\xBF\xBD";  // U+FFFD for the byte that starts no character
      ++i;
      continue;
    }
    if (n > 1) {
      out.append(s, i, n);
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (static_cast<uint8_t>(c) < 0x20 || c == 0x7F) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned>(static_cast<uint8_t>(c)));
      out += esc;
    } else {
      out += c;
    }
    i += n;
  }
  out += '"';
  return out;
}

}  // namespace kln2txt
