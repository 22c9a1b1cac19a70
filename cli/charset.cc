// Output character sets as the runtime's converter knows them: the names
// the filter takes, and UTF-8 text recoded into a set whose characters
// hold zero bytes (the filter's NUL-terminated properties cannot carry it).
#include "kln2txt.h"
#include "vtq_rt.h"

namespace kln2txt {

namespace {

// A converter from UTF-8 into `set`, with "\n" kept as it is.
bool StartRecoding(const char *set, CconvState &st) {
  CconvOptions options{};
  options.firstOutput = 1;  // a byte-order mark where the set opens with one
  options.word8 = 1;
  options.word4112 = 1;
  options.separatorCode = 1;  // line ends as written
  CconvCharsetRecord record{0, 0, 1};
  st = CconvState{};
  return cconvInitConvert(&st, &options, set) == 0 && cconvChgCharset(&st, &record, "UTF-8") == 0;
}

}  // namespace

bool KnownCharset(const char *set) {
  CconvState st;
  const bool known = StartRecoding(set, st);
  cconvTermConvert(&st);
  return known;
}

bool Recode(const std::string &utf8, const char *set, std::string &out) {
  CconvState st;
  out.clear();
  bool ok = StartRecoding(set, st);
  unsigned char piece[4096];
  st.in = reinterpret_cast<const unsigned char *>(utf8.data());
  st.inLen = static_cast<uint32_t>(utf8.size());
  st.out = piece;
  st.outCap = sizeof piece;
  while (ok && st.inPos < st.inLen) {
    const uint32_t before = st.inPos;
    st.outLen = 0;
    ok = cconvConvert(&st) == 0 && st.inPos != before;
    out.append(reinterpret_cast<const char *>(piece), st.outLen);
  }
  cconvTermConvert(&st);
  return ok;
}

bool HoldsZeroBytes(const char *set) {
  std::string a;
  return Recode("A", set, a) && a.find('\0') != std::string::npos;
}

}  // namespace kln2txt
