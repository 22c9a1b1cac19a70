// The runtime's converter: decoding the document set, substitution,
// stripping, pieces and character boundaries.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "test_support.h"
#include "vtq_rt.h"

namespace {

// Converts text (already stripped) in pieces of at most `cap` bytes.
std::string Convert(const std::string &text, const char *out, const char *doc = "WINDOWS31J", uint32_t cap = 1 << 16,
                    uint32_t lineEnds = 1, uint32_t first = 0) {
  CconvOptions opt{};
  opt.firstOutput = first;
  opt.separatorCode = lineEnds;
  CconvState st{};
  CconvCharsetRecord rec{1, 0, 1};
  EXPECT_EQ(cconvInitConvert(&st, &opt, out), 0) << out;
  EXPECT_EQ(cconvChgCharset(&st, &rec, doc), 0) << doc;
  std::unique_ptr<char[]> buf(new char[cap]);  // exactly cap bytes: the sanitizer sees a write past them
  std::string result;
  st.in = reinterpret_cast<const unsigned char *>(text.data());
  st.inLen = static_cast<uint32_t>(text.size());
  st.out = reinterpret_cast<unsigned char *>(buf.get());
  st.outCap = cap;
  while (st.inPos < st.inLen) {
    st.outLen = 0;
    EXPECT_EQ(cconvConvert(&st), 0);
    EXPECT_LE(st.outLen, cap);
    if (st.outLen == 0) break;
    result.append(buf.get(), st.outLen);
  }
  cconvTermConvert(&st);
  return result;
}

TEST(Converter, DecodesTheDocumentSets) {
  struct Case {
    std::string text;
    const char *doc, *out;
    std::string expected;
  };
  const Case cases[] = {
      {"\x5c\x7e", "WINDOWS31J", "UTF-8", "\\~"},                      // 0x5C is the backslash
      {"\x87\x40\xed\x40", "WINDOWS31J", "UTF-8", "\xE2\x91\xA0\xE7\xBA\x8A"},  // vendor rows
      {"\xb1", "WINDOWS31J", "UTF-8", "\xEF\xBD\xB1"},                 // half-width katakana
      {"\x81\x20", "WINDOWS31J", "UTF-8", "\xEF\xBF\xBD "},            // lead before a non-trail byte
      {"a\x82", "WINDOWS31J", "UTF-8", "a\xEF\xBF\xBD"},               // lone final lead byte
      {"\x85\x40", "WINDOWS31J", "UTF-8", "\xEF\xBF\xBD"},             // unassigned pair: one character
      {"\x85\x40", "WINDOWS31J", "ISO-8859-1", "?"},
      {"\x82\xa0", "WINDOWS31J", "SHIFT_JIS", "\x82\xa0"},
      {"\xe9\x80", "ISO-8859-1", "UTF-8", "\xC3\xA9\xC2\x80"},
      {"\xe9", "ISO-8859-1", "SHIFT_JIS", "?"},                       // not in the output set
      {"\xe9", "ISO-8859-1", "UTF-16BE", std::string("\0\xe9", 2)},
      {"\x88\x9f", "WINDOWS31J", "UTF-32", std::string("\x9c\x4e\0\0", 4)},
      {"\xF0\x9F\x98\x80\xC3\xA9\xE0\x80z", "UTF-8", "UTF-16BE",  // an overlong form: each byte alone
       std::string("\xD8\x3D\xDE\x00\0\xE9\xFF\xFD\xFF\xFD\0z", 12)},
  };
  for (const Case &c : cases) EXPECT_EQ(Convert(c.text, c.out, c.doc), c.expected) << c.doc << " -> " << c.out;
}

TEST(Utf8, LengthOfTheSequenceThatStartsTheText) {
  const std::pair<std::string, size_t> cases[] = {
      {"", 0},                  {std::string("\0", 1), 1}, {"\x7F", 1},
      {"\x80", 0},              {"\xC1\xBF", 0},            {"\xC2\x80", 2},         // overlong below C2
      {"\xC2", 0},              {"\xC2z", 0},               {"\xDF\xBF", 2},
      {"\xE0\x9F\xBF", 0},      {"\xE0\xA0\x80", 3},        {"\xE6\x97", 0},         // overlong, cut short
      {"\xED\x9F\xBF", 3},      {"\xED\xA0\x80", 0},        {"\xEF\xBF\xBFz", 3},   // surrogates
      {"\xF0\x8F\xBF\xBF", 0},  {"\xF0\x90\x80\x80", 4},    {"\xF0\x9F\x98z", 0},
      {"\xF4\x8F\xBF\xBF", 4},  {"\xF4\x90\x80\x80", 0},    {"\xF5\x80\x80\x80", 0},  // beyond U+10FFFF
  };
  for (const auto &[text, length] : cases) EXPECT_EQ(VTQ_Utf8Length(text.data(), text.size()), length) << text;
}

TEST(Converter, PiecesEndOnCharacterBoundaries) {
  // Characters of one, two and three UTF-8 bytes (runs of half-width
  // katakana: three from one byte), an ASCII run, line ends.
  std::string text;
  for (int i = 0; i < 300; ++i)
    text += "a\x82\xa0\r\n" + std::string(i % 19, 'x') + "\x83\x9f" + std::string(i % 23, '\xb1');
  for (const char *out : {"EUC-JP", "UTF-8"}) {
    for (uint32_t lineEnds : {1u, 3u}) {
      const std::string whole = Convert(text, out, "WINDOWS31J", 1 << 16, lineEnds);
      for (uint32_t cap : {7u, 8u, 9u, 64u}) {
        EXPECT_EQ(Convert(text, out, "WINDOWS31J", cap, lineEnds), whole) << out << " " << cap;
      }
    }
  }
}

TEST(Converter, StripsStandAloneControlBytes) {
  const std::string src("a\x01\t\n\r\x0b\x0c\x1f\x7f\x82\x01\x82\xa0\x81\x7f", 16);
  unsigned char dst[32];
  uint32_t n = VTQ_CopyStripControlCode(dst, reinterpret_cast<const unsigned char *>(src.data()), 16, 2, 1);
  // The control byte after a lead byte stands alone and goes; 0x7F is no trail byte.
  EXPECT_EQ(std::string(reinterpret_cast<char *>(dst), n), std::string("a\t\n\r\x82\x82\xa0\x81", 8));
  n = VTQ_CopyStripControlCode(dst, reinterpret_cast<const unsigned char *>("\x82\x41\x00z"), 4, 1, 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(dst), n), "\x82" "Az");
  // Longer texts go many bytes at a time: a clean stretch, one with only
  // kept line ends, one with a byte to drop at its very end.
  const std::string clean = "0123456789abcdef", kept = "ab\r\ncd\tef\r\n012\r\n";
  const std::string longer = clean + kept + "0123456789abcde\x1f" + "xyz";
  unsigned char big[80];
  n = VTQ_CopyStripControlCode(big, reinterpret_cast<const unsigned char *>(longer.data()), uint32_t(longer.size()), 2, 1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(big), n), clean + kept + "0123456789abcde" + "xyz");
}

TEST(Converter, CutStrKeepsWholeCharacters) {
  struct Case {
    const char *set;
    std::string converted;
    uint32_t allowance, expected;
  };
  const Case cases[] = {
      {"UTF-8", "a\xE3\x81\x82z", 3, 1},       {"UTF-8", "a\xE3\x81\x82z", 4, 4},
      {"UTF-16LE", std::string("a\0\x3d\xd8\x00\xde", 6), 5, 2},  // a surrogate pair stays whole
      {"UTF-16LE", std::string("a\0\x3d\xd8\x00\xde", 6), 6, 6},
      {"EUC-JP", "a\xa4\xa2\xa4\xa4", 4, 3},   {"EUC-JP", "a\xa4\xa2\xa4\xa4", 2, 1},
      {"UTF-32", std::string("\xff\xfe\0\0a\0\0\0", 8), 7, 4},
  };
  for (const Case &c : cases) {
    FilterOptions o = kln::Options(c.set);
    EXPECT_EQ(CutStr(reinterpret_cast<const unsigned char *>(c.converted.data()),
                     static_cast<uint32_t>(c.converted.size()), c.allowance, &o),
              c.expected)
        << c.set << " " << c.allowance;
  }
}

TEST(Converter, RefusesUnknownAndStatefulSets) {
  CconvOptions opt{};
  for (const char *name : {"NO-SUCH-SET", "ISO-2022-JP", "ISO-2022-KR", "UTF-7", "IBM930"}) {
    CconvState st{};
    EXPECT_NE(cconvInitConvert(&st, &opt, name), 0) << name;
  }
  CconvState st{};
  EXPECT_EQ(cconvInitConvert(&st, &opt, "WINDOWS31J"), 0);
  CconvCharsetRecord rec{0, 0, 1};
  EXPECT_NE(cconvChgCharset(&st, &rec, "KOI8-R"), 0);
}

}  // namespace
