// JSON string literals for --json: always UTF-8, so a byte sequence that is
// not well-formed UTF-8 is replaced rather than passed on.
#include <cstdio>

#include "kln2txt.h"

namespace kln2txt {

// Stray continuation bytes, overlong forms, surrogates, code points beyond
// U+10FFFF and cut sequences start no character.
size_t Utf8SequenceAt(const std::string &s, size_t i) {
  const auto byte = [&](size_t k) { return k < s.size() ? static_cast<uint8_t>(s[k]) : 0u; };
  const auto cont = [&](size_t k) { return (byte(k) & 0xC0u) == 0x80u; };
  const uint8_t b = byte(i);
  if (b < 0x80) return 1;
  if (b >= 0xC2 && b <= 0xDF) return cont(i + 1) ? 2 : 0;
  if (b >= 0xE0 && b <= 0xEF) {
    const uint8_t b1 = byte(i + 1);
    if ((b == 0xE0 && b1 < 0xA0) || (b == 0xED && b1 > 0x9F)) return 0;
    return cont(i + 1) && cont(i + 2) ? 3 : 0;
  }
  if (b >= 0xF0 && b <= 0xF4) {
    const uint8_t b1 = byte(i + 1);
    if ((b == 0xF0 && b1 < 0x90) || (b == 0xF4 && b1 > 0x8F)) return 0;
    return cont(i + 1) && cont(i + 2) && cont(i + 3) ? 4 : 0;
  }
  return 0;
}

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
