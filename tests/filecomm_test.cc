// The output writer: conversion, pieces, the size limit, line ends.
#include <gtest/gtest.h>

#include "filecomm.h"
#include "test_support.h"

using kln::Bytes;

namespace {

// A context writing to a collected stream, with the given output set and flags.
struct Writer {
  explicit Writer(const std::string &outCharset = "UTF-8", uint32_t flags = 0, uint32_t limit = 0)
      : ctx(kln::Document().build(), Options(outCharset, flags, limit)) {}
  static FilterOptions Options(const std::string &cs, uint32_t flags, uint32_t limit) {
    FilterOptions o = kln::Options(cs, flags);
    o.sizeLimit = limit;
    return o;
  }
  int write(const std::string &s) {
    return comm_write(s.data(), 1, s.size(), nullptr, ctx.get());
  }
  kln::OpenedContext ctx;
};

const std::string kA = "\x82\xa0";  // HIRAGANA A in the document's Windows-31J
const std::string kI = "\x82\xa2", kU = "\x82\xa4";

TEST(CommWrite, TheTotalCountsPast4GiB) {
  Writer w;
  w.ctx->totalOut = 0xFFFFFFF0u;
  EXPECT_EQ(w.write(std::string(32, 'x')), 32);
  EXPECT_EQ(w.ctx->totalOut, 0x100000010u);
}

TEST(CommWrite, ByteOrderMarkOnlyWithTheFirstOutput) {
  Writer w("UTF-16");
  EXPECT_EQ(w.write(""), 1);
  EXPECT_EQ(w.write(std::string("\x01\x02\x7f", 3)), 1);  // all control codes: nothing
  EXPECT_EQ(w.ctx.text, "");
  w.write("a");
  w.write("b");
  EXPECT_EQ(w.ctx.text, std::string("\xFF\xFE" "a\0b\0", 6));
}

TEST(CommWrite, TextLargerThanTheOutputBufferIsWrittenWhole) {
  std::string text, expected = "\xFF\xFE";
  for (int i = 0; i < 40000; ++i) {
    text += kA;
    expected += std::string("\x42\x30", 2);
  }
  text += "\r\n";
  expected += std::string("\r\0\n\0", 4);
  Writer w("UTF-16");
  EXPECT_GE(w.write(text), 1);
  EXPECT_EQ(w.ctx.text, expected);
  EXPECT_EQ(w.ctx->totalOut, expected.size());
}

TEST(CommWrite, SizeLimitCutsOnACharacterBoundaryAndStops) {
  Writer w("UTF-8", KLN_FLAG_SIZE_LIMIT, 10);
  EXPECT_EQ(w.write("abcdef"), 6);
  EXPECT_EQ(w.write(kA + kI + kU), -1);  // 9 bytes, 4 allowed: one whole character
  EXPECT_EQ(w.ctx.text, "abcdef\xE3\x81\x82");
  EXPECT_EQ(w.ctx->totalOut, 15u);
  EXPECT_EQ(w.write("x"), -1);  // nothing is converted any more
  EXPECT_EQ(w.ctx->totalOut, 15u);

  Writer exact("UTF-8", KLN_FLAG_SIZE_LIMIT, 6);  // reaching the limit exactly goes on
  EXPECT_EQ(exact.write("abcdef"), 6);
  EXPECT_EQ(exact.ctx->writeState, 0u);
  EXPECT_EQ(exact.write("g"), -1);
  EXPECT_EQ(exact.ctx.text, "abcdef");
}

TEST(CommWrite, LineEndChoices) {
  const std::string text = "a\r\nb\rc\nd";
  const std::pair<uint32_t, std::string> cases[] = {
      {0, text},
      {KLN_FLAG_LINE_KEEP, text},
      {KLN_FLAG_LINE_LF, "a\nb\nc\nd"},
      {KLN_FLAG_LINE_CRLF, "a\r\nb\r\nc\r\nd"},
      {KLN_FLAG_LINE_CR, "a\rb\rc\rd"},
      {KLN_FLAG_LINE_SPACE, "a b c d"},
      {KLN_FLAG_LINE_LF | KLN_FLAG_LINE_CR, "a\nb\nc\nd"},  // the lower bit wins
  };
  for (const auto &[flags, expected] : cases) {
    Writer w("UTF-8", flags);
    w.write(text);
    EXPECT_EQ(w.ctx.text, expected) << flags;
  }
  Writer split("UTF-8", KLN_FLAG_LINE_CRLF);  // a CR ending one write and an LF opening the next
  split.write("a\r");
  split.write("\nb");
  EXPECT_EQ(split.ctx.text, "a\r\n\r\nb");
}

}  // namespace
