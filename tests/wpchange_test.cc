// Word-processing text: documents come out as running text.
#include <gtest/gtest.h>
#include <iconv.h>

#include "test_support.h"
#include "wp_builder.h"

using kln::WpDataSet;
using kln::WpObject;
using kln::WpTextBlock;

namespace {

// The expected text, written in the document's set, as UTF-8 (iconv is
// the oracle).
std::string Utf8(const std::string &w31j) {
  iconv_t cd = iconv_open("UTF-8", "WINDOWS-31J");
  std::string out(w31j.size() * 3 + 4, '\0');
  char *in = const_cast<char *>(w31j.data()), *o = out.data();
  size_t inLeft = w31j.size(), outLeft = out.size();
  iconv(cd, &in, &inLeft, &o, &outLeft);
  iconv_close(cd);
  out.resize(out.size() - outLeft);
  return out;
}

const std::string kHaikei = "\x94\x71\x8c\x5b";  // a salutation, two double-byte characters
const std::string kKei = "\x8c\x5b";

kln::Bytes Letter() {
  WpDataSet page1;
  page1.blocks = {
      {kHaikei + "\x01" + "Dear Ms. Sato,\x0b"},
      {"Thank you\x02\x09" "for " + kHaikei.substr(0, 3)},  // a character split across blocks
      {kHaikei.substr(3) + "...\x0c"},
      {"\x8c"},  // a one-byte block: its lead byte opens the next block
      {"\x5b" "end" + std::string("\0", 1)},  // a block ending in NUL
  };
  WpDataSet page2;
  page2.blocks = {{"P.S. " + kKei}};
  return kln::WpDocument({page1, page2}).build();
}

const std::string kLetterText = kHaikei + "\rDear Ms. Sato,\rThank you  for " + kHaikei + "...\r" + kKei + "end\r" +
                                "P.S. " + kKei + "\r";

TEST(WordProcessing, LetterInFileAndStreamMode) {
  const kln::Result stream = kln::RunStream(Letter());
  EXPECT_EQ(stream.code, 0);
  EXPECT_EQ(stream.text, Utf8(kLetterText));
  const kln::Result file = kln::RunFile(Letter());
  EXPECT_EQ(file.code, 0);
  EXPECT_EQ(file.text, Utf8(kLetterText));
}

TEST(WordProcessing, InlineObjectsTakeTheirAnchors) {
  WpDataSet set;
  set.objects = {
      {4, "one"}, {3, "", std::nullopt, kln::Bytes(40, 0xAA)}, {4, "t\x01wo"},
      {4, "abcdefghij" + kKei},  // 12 bytes: cut before the character that does not fit
      {4, "abcdefghijk"},        // 11 bytes: whole
      {2, "ignored"},
  };
  set.blocks = {{"[\x06][\x06]"}, {"[\x06][\x06][\x06]"}};  // the fifth anchor finds no text left
  EXPECT_EQ(kln::RunStream(kln::WpDocument({set}).build()).text, "[one][t\rwo][abcdefghij][abcdefghijk][]\r");

  WpDataSet noInline;
  noInline.objects = {{1}};
  noInline.blocks = {{"a\x06" "b"}};
  EXPECT_EQ(kln::RunStream(kln::WpDocument({noInline}).build()).text, "a b\r");
}

// Long blocks are translated many bytes at a time: each text comes out the
// same at every alignment of its bytes, with runs of lead bytes of odd and
// even length (second bytes in the lead range too), layout and line-end
// bytes right after them, and an inline text's anchor among them.
TEST(WordProcessing, TextComesOutTheSameAtEveryAlignment) {
  const std::string kLeadTrail = "\x88\x9f";  // a character whose second byte is also a lead byte
  std::string run;
  for (int i = 0; i < 9; ++i) run += kLeadTrail;
  const struct Case {
    std::string text, expected;  // expected: in the document's set, "@" for the inline text
  } kCases[] = {
      {run + "\x01" + kKei + "\x02" + "abc" + run + kLeadTrail + "\x0b" + "x\x0c",
       run + "\r" + kKei + " abc" + run + kLeadTrail + "\rx\r"},
      {"\x09" + run + "\x03\x04" + kHaikei + "\x06" + run + "\x05" "end\x0a",
       " " + run + "  " + kHaikei + "@" + run + " end\n"},
      {std::string(15, 'a') + "\x82\xa0\x01\x82\xa0\x0b" + std::string(17, 'b') + "\x82\xa0\x02",
       std::string(15, 'a') + "\x82\xa0\r\x82\xa0\r" + std::string(17, 'b') + "\x82\xa0 "},
  };
  for (const Case &c : kCases) {
    for (size_t shift = 0; shift < 33; ++shift) {
      WpDataSet set;
      set.objects = {{4, "one"}};
      set.blocks = {{std::string(shift, '-') + c.text}};
      std::string expected = std::string(shift, '-') + c.expected + "\r";
      if (const size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, "one");
      EXPECT_EQ(kln::RunStream(kln::WpDocument({set}).build()).text, Utf8(expected)) << "shift " << shift;
    }
  }
}

TEST(WordProcessing, LongBlocksAreReadWhole) {
  std::string text;
  while (text.size() < 20000) text += "0123456789" + kKei;
  WpDataSet set;
  set.first = kln::Bytes(9000, 1);  // a leading block larger than the first buffer
  set.blocks = {{text}, {text.substr(0, 8195)}};
  const kln::Result r = kln::RunStream(kln::WpDocument({set}).build());
  EXPECT_EQ(r.code, 0);
  // The second block ends in a lead byte: it is dropped at the end of the text.
  EXPECT_TRUE(r.text == Utf8(text + text.substr(0, 8194) + "\r"));
}

TEST(WordProcessing, FailuresKeepTheTextWrittenBefore) {
  struct Case {
    const char *name;
    WpDataSet set;
    int code;
    std::string text;
  };
  WpDataSet shortIndex;
  shortIndex.blocks = {{"abc"}};
  WpDataSet backwards;
  backwards.blocks = {{"ab"}, {"cd", 1}};
  WpDataSet mismatch;
  mismatch.blocks = {{"ab"}, {"cd", std::nullopt, std::nullopt, 3}};
  WpDataSet empty;
  empty.blocks = {{"ab"}, {"", std::nullopt, 0}};
  WpDataSet badKind;
  badKind.objects = {{5}};
  badKind.blocks = {{"ab"}};
  WpDataSet loneLead;
  loneLead.objects = {{4, "ab\x82"}};
  loneLead.blocks = {{"ab"}};
  const Case cases[] = {
      {"position behind the text", backwards, 3000, "ab"},
      {"block length differs", mismatch, 3000, "ab"},
      {"zero length", empty, 3000, "ab"},
      {"object kind 5", badKind, 3000, ""},
      {"inline text ends in a lead byte", loneLead, 3000, ""},
  };
  for (const Case &c : cases) {
    const kln::Result r = kln::RunStream(kln::WpDocument({c.set}).build());
    EXPECT_EQ(r.code, c.code) << c.name;
    EXPECT_EQ(r.text, c.text) << c.name;
  }

  // A text index of 1..9 bytes; 256 blocks without one; a truncated block.
  kln::Bytes doc = kln::WpDocument({shortIndex}).build();
  kln::DataSet raw;
  raw.content = kln::Cat({kln::Block({}), kln::Block({}), kln::Block({}), kln::Block(kln::Bytes(9, 0))});
  kln::Document d;
  d.dataSets = {raw};
  EXPECT_EQ(kln::RunStream(d.build()).code, 3000);
  raw.content.clear();
  for (int i = 0; i < 257; ++i) raw.content = kln::Cat({raw.content, kln::Block({1})});
  d.dataSets = {raw};
  EXPECT_EQ(kln::RunStream(d.build()).code, 3000);
  doc.resize(doc.size() - 7);  // "FNTM" and the whole text block body gone
  EXPECT_EQ(kln::RunStream(doc).code, 25);
}

TEST(WordProcessing, SizeLimitGives3005AndKeepsTheCutText) {
  WpDataSet set;
  set.blocks = {{"abcdef"}, {kHaikei}, {"more"}};
  FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_SIZE_LIMIT);
  opt.sizeLimit = 8;
  const kln::Result r = kln::RunFile(kln::WpDocument({set}).build(), opt);
  EXPECT_EQ(r.code, 3005);
  EXPECT_EQ(r.text, "abcdef");  // the first character of the second block does not fit
}

TEST(WordProcessing, InADatabaseOnlySomeVariantsAreRead) {
  WpDataSet set;
  set.blocks = {{"text"}};
  kln::Document doc = kln::WpDocument({set, set}, 3);
  doc.dataSets[0].variant = 0x40;
  doc.dataSets[1].variant = 0x41;
  doc.trailer = kln::StyleChain().build();
  EXPECT_EQ(kln::RunStream(doc.build()).text, "text\r");
}

}  // namespace
