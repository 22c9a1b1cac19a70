// Writes the decoding tables of the document sets as C++ source, from the
// build machine's iconv: Windows-31J (one entry per single byte and one
// per lead/trail pair) and Windows-1252. Built and run at build time, so
// that the runtime decodes without opening iconv.
//
// Entries are 16-bit code points; 0xFFFF marks a byte or pair that is no
// character, 0xFFFE a byte that only begins a character. Neither is a
// character either set decodes to; the program fails if one ever were.
//
// Usage: make_decode_tables OUT.inc
#include <errno.h>
#include <iconv.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

constexpr uint32_t kInvalid = 0xFFFF;
constexpr uint32_t kLead = 0xFFFE;

bool IsTrail(uint8_t b) { return (b >= 0x40 && b <= 0x7E) || (b >= 0x80 && b <= 0xFC); }

// Converts bytes with cd into one code point; kInvalid when the bytes are
// no whole character, kLead when they are only its beginning. Answers
// false for a code point the 16-bit entries cannot hold.
bool DecodeOne(iconv_t cd, const uint8_t *bytes, size_t n, uint32_t *cp) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char *in = reinterpret_cast<char *>(const_cast<uint8_t *>(bytes));
  uint8_t out[8];
  char *o = reinterpret_cast<char *>(out);
  size_t inLeft = n, outLeft = sizeof out;
  if (iconv(cd, &in, &inLeft, &o, &outLeft) == size_t(-1)) {
    *cp = errno == EINVAL ? kLead : kInvalid;
    return true;
  }
  if (inLeft != 0 || sizeof out - outLeft != 4) {
    *cp = kInvalid;
    return true;
  }
  *cp = uint32_t(out[0]) | uint32_t(out[1]) << 8 | uint32_t(out[2]) << 16 | uint32_t(out[3]) << 24;
  return *cp < kLead;
}

void WriteTable(FILE *f, const char *name, const std::vector<uint32_t> &t) {
  std::fprintf(f, "const uint16_t %s[%zu] = {", name, t.size());
  for (size_t i = 0; i < t.size(); ++i) std::fprintf(f, "%s0x%04X,", i % 16 ? "" : "\n", unsigned(t[i]));
  std::fprintf(f, "\n};\n");
}

// The single-byte table of `set` (bytes below 0x80 are themselves); the
// pair table too when pairs is given. A lead byte of a one-byte set is
// no character.
bool MakeTables(const char *set, std::vector<uint32_t> &single, std::vector<uint32_t> *pairs) {
  iconv_t cd = iconv_open("UTF-32LE", set);
  if (cd == iconv_t(-1)) return false;
  bool ok = true;
  single.assign(256, kInvalid);
  if (pairs) pairs->assign(65536, kInvalid);
  for (uint32_t b = 0; b < 256 && ok; ++b) {
    const uint8_t byte = static_cast<uint8_t>(b);
    uint32_t cp = b;
    if (b >= 0x80) ok = DecodeOne(cd, &byte, 1, &cp);
    single[b] = cp == kLead && !pairs ? kInvalid : cp;
    if (cp != kLead || !pairs) continue;
    for (uint32_t trail = 0x40; trail <= 0xFC && ok; ++trail) {
      const uint8_t two[2] = {byte, static_cast<uint8_t>(trail)};
      if (!IsTrail(two[1])) continue;
      uint32_t pair;
      ok = DecodeOne(cd, two, 2, &pair);
      (*pairs)[b << 8 | trail] = pair == kLead ? kInvalid : pair;
    }
  }
  iconv_close(cd);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_decode_tables OUT.inc\n");
    return 2;
  }
  std::vector<uint32_t> w31jSingle, w31jPairs, cp1252;
  if (!MakeTables("WINDOWS-31J", w31jSingle, &w31jPairs) || !MakeTables("WINDOWS-1252", cp1252, nullptr)) {
    std::fprintf(stderr, "make_decode_tables: iconv lacks a set, or a character lies beyond 16 bits\n");
    return 1;
  }
  FILE *f = std::fopen(argv[1], "w");
  if (!f) {
    std::perror(argv[1]);
    return 1;
  }
  std::fprintf(f, "// Made by make_decode_tables at build time; do not edit.\n");
  WriteTable(f, "kW31JSingle", w31jSingle);
  WriteTable(f, "kW31JPairs", w31jPairs);
  WriteTable(f, "kCp1252", cp1252);
  return std::fclose(f) == 0 ? 0 : 1;
}
