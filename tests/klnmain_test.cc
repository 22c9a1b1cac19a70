// The extended-float reader, the block reader, the global header and the
// data-set walk.
#include <gtest/gtest.h>

#include <cmath>

#include "kln_blocks.h"
#include "klnfile.h"
#include "test_support.h"

using kln::Bytes;
using kln::Document;
using kln::Header;

namespace {

struct FloatCase {
  Bytes bytes;
  double expected;
};

TEST(ByteReaders, ExtendedFloats) {
  const FloatCase cases[] = {
      {{0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}, 1.0},
      {{0xC0, 0x00, 0xC0, 0, 0, 0, 0, 0, 0, 0}, -3.0},
      {{0x40, 0x0B, 0xAF, 0, 0, 0, 0, 0, 0, 0}, 5600.0},
      {{0x3F, 0xBD, 0x80, 0, 0, 0, 0, 0, 0, 0}, 0.0},                  // e = -66: cut off
      {{0x3F, 0xBE, 0x80, 0, 0, 0, 0, 0, 0, 0}, std::ldexp(1.0, -65)},  // e = -65: kept
      {{0xBF, 0xBD, 0x80, 0, 0, 0, 0, 0, 0, 0}, 0.0},                  // negative below the cut: +0
      {{0x40, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 4.0},  // rounds to double
      // 1 + 2^-53 + 2^-63 rounds bit by bit: the tie at 2^-53 goes to even
      // first, and the last bit no longer counts.
      {{0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0x04, 0x01}, 1.0},
      {{0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0x0C, 0x00}, 1.0 + std::ldexp(1.0, -51)},  // an odd last bit: up
      {{0x43, 0xFF, 0x40, 0, 0, 0, 0, 0, 0, 0}, HUGE_VAL},  // 2^1024 scales to infinity, whatever the significand
  };
  for (const FloatCase &c : cases) {
    const double v = getfloat(c.bytes.data(), nullptr);
    EXPECT_EQ(v, c.expected);
    EXPECT_FALSE(std::signbit(v) && c.expected == 0.0);
  }
  const Bytes inf = {0x7F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}, nan = {0x7F, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_TRUE(std::isinf(getfloat(inf.data(), nullptr)));
  EXPECT_TRUE(std::isnan(getfloat(nan.data(), nullptr)));
}

// ---- The block reader ----

TEST(BlockReader, LengthWordsReadAsTheFramingSays) {
  struct Case {
    const char *name;
    Bytes input;
    unsigned framing;
    int code;
    uint32_t bodyLength;
    size_t held;  // bytes of the view: the length word and the body read
    size_t left;  // input bytes the read leaves
  };
  const Bytes abc = kln::Str("abc");
  const Case cases[] = {
      {"next data set", kln::Str("DSETabc"), 0, 0x9700, 0, 0, 3},
      {"end of the data sets", kln::Str("FNTMabc"), 0, 0x9800, 0, 0, 3},
      {"a tag as a length", kln::Str("DSETabc"), kNoTags, 0, 0x44534554, 7, 0},
      {"negative: no body", kln::Cat({{0xFF, 0xFF, 0xFF, 0xF0}, abc}), 0, 0, 0, 4, 3},
      {"unsigned: a long body", kln::Cat({{0xFF, 0xFF, 0xFF, 0xF0}, abc}), kUnsignedLength, 0, 0xFFFFFFF0, 7, 0},
      {"counts itself", kln::Cat({{0, 0, 0, 9}, kln::Str("bodyXmore")}), kCountsItself, 0, 5, 9, 4},
      {"4 or less counts only the body", kln::Cat({{0, 0, 0, 4}, abc, abc}), kCountsItself, 0, 4, 8, 2},
      {"the body missing", {0, 0, 0, 5}, 0, 0, 5, 4, 0},
      {"no length word", {}, 0, 3000, 0, 0, 0},
  };
  for (const Case &c : cases) {
    kln::OpenedContext ctx(c.input);
    VtqBuffer buf;
    Block block{};
    EXPECT_EQ(NextBlock(ctx.get(), buf, &block, c.framing), c.code) << c.name;
    EXPECT_EQ(block.bodyLength, c.bodyLength) << c.name;
    EXPECT_EQ(block.bytes.size(), c.held) << c.name;
    EXPECT_EQ(ctx.next(64).size(), c.left) << c.name;
  }
}

// The buffer starts at 8192 bytes and grows to a longer body and its spare
// byte, and for a length larger than the file no further than one read.
TEST(BlockReader, BufferGrowsToTheBodyOnly) {
  const Bytes body(9000, 'x');
  kln::OpenedContext ctx(kln::Cat({kln::Block(body), {0, 0, 0, 1}, {'y'}, {0x7F, 0xFF, 0xFF, 0xFF}, Bytes(100, 'z')}));
  VtqBuffer buf;
  Block block{};
  ASSERT_EQ(NextBlock(ctx.get(), buf, &block), 0);
  EXPECT_EQ(Bytes(block.bytes.data() + 4, block.bytes.data() + block.bytes.size()), body);
  EXPECT_EQ(buf.size(), 4 + body.size() + 1);
  ASSERT_EQ(NextBlock(ctx.get(), buf, &block), 0);
  EXPECT_EQ(buf.size(), 4 + body.size() + 1);  // reused
  EXPECT_EQ(block.bytes.u8(4), 'y');
  ASSERT_EQ(NextBlock(ctx.get(), buf, &block), 0);
  EXPECT_EQ(block.bytes.size(), 104u);
  EXPECT_LE(buf.size(), 4 + 65536 + 1u);
}

// ---- The global header ----

// Opens a context on the document and walks the header; the next two
// bytes of the input come back in `after` (the data-set count).
int WalkHeader(const Bytes &doc, ConvContext *out = nullptr, Bytes *after = nullptr) {
  kln::OpenedContext ctx(doc);
  const int r = GetGlobalInfo(ctx.get());
  if (out) *out = *ctx.get();
  if (after) *after = ctx.next(2);
  return r;
}

Bytes WithCount(const Header &h) { return kln::Cat({h.build(), {0x12, 0x34}}); }

TEST(GlobalHeader, WalksToTheEndOfTheFixedTail) {
  Header h;
  h.docKind = 2;
  h.title = std::string(200, 'T');
  h.author = "";
  h.keywords = "k";
  h.dbPath = Bytes(8192, 1);
  h.table6 = Bytes(24, 0);  // two entries after the 16 bytes
  ConvContext c;
  Bytes after;
  EXPECT_EQ(WalkHeader(WithCount(h), &c, &after), 0);
  EXPECT_EQ(c.headerVariant, 0);
  EXPECT_EQ(c.docKind, 2);
  EXPECT_EQ(after, (Bytes{0x12, 0x34}));
  // A print table whose first word is above 120 ends the walk early.
  Header early;
  early.printTableFirst = 121;
  EXPECT_EQ(WalkHeader(WithCount(early), nullptr, &after), 0);
  EXPECT_EQ(after, (Bytes{0x12, 0x34}));
}

TEST(GlobalHeader, ErrorsAndTheSecondVariant) {
  struct Case {
    const char *name;
    Header header;
    int expected;
  };
  Header badSig;
  badSig.signature = "RVZX";
  Header variant1 = badSig;
  variant1.mark1 = 0x05;  // 04 05: second variant, header errors are not reported
  Header otherMark;
  otherMark.mark0 = 0x00;  // not rejected for its mark
  Header kind4;
  kind4.docKind = 4;
  Header longPath;
  longPath.dbPath = Bytes(8193, 0);
  Header longPalette;
  longPalette.palette = Bytes(8193, 0);
  const Case cases[] = {
      {"wrong signature", badSig, 3000},      {"second variant", variant1, 0},
      {"other mark", otherMark, 0},           {"document kind 4", kind4, 3000},
      {"LenDbPath above 8192", longPath, 3000}, {"Palette above 8192", longPalette, 3000},
  };
  for (const Case &c : cases) EXPECT_EQ(WalkHeader(WithCount(c.header)), c.expected) << c.name;
}

TEST(GlobalHeader, TruncatedHeaderFailsOnlyInTheFirstVariant) {
  const Bytes full = Header().build();
  for (size_t len : {size_t(0), size_t(3), size_t(100), size_t(344), full.size() - 324}) {  // the last field missing whole
    const Bytes cut(full.begin(), full.begin() + static_cast<long>(len));
    EXPECT_EQ(WalkHeader(cut), 3000) << len;
    Bytes cut1 = cut;
    if (cut1.size() >= 2) {
      cut1[1] = 0x07;
      EXPECT_EQ(WalkHeader(cut1), 0) << len;
    }
  }
}

// ---- The data-set walk ----

kln::DataSet Unread(uint8_t kind, Bytes content = {}) {
  kln::DataSet d;
  d.kind = kind;
  d.content = std::move(content);
  return d;
}

struct Walk {
  int result;
  uint32_t dsetSeen;
  int32_t dsetCount;
  Bytes rest;  // what the walk left unread
};

Walk RunWalk(const Bytes &doc) {
  kln::OpenedContext ctx(doc);
  EXPECT_EQ(GetGlobalInfo(ctx.get()), 0);
  const int r = GetDSetInfo(ctx.get());
  return {r, ctx->dsetSeen, ctx->dsetCount, ctx.next(64)};
}

TEST(DataSetWalk, SkipsDataSetsWithoutReaderToFntm) {
  Document d;
  const Bytes blocks = kln::Cat({kln::Block(Bytes(5, 7)), {0, 0, 0, 0}, {0xFF, 0xFF, 0xFF, 0xF0},
                                 kln::Block(kln::Str("DSEX"))});
  d.dataSets = {Unread(4, blocks), Unread(0x7F, blocks), Unread(0x80, blocks)};
  d.trailer = kln::Str("after");
  const Walk w = RunWalk(d.build());
  EXPECT_EQ(w.result, 0);
  EXPECT_EQ(w.dsetSeen, 3u);
  EXPECT_EQ(w.rest, kln::Str("after"));
}

// The walk ends after the announced count, 0 included: the data set
// after it is read only as far as its tag, its record and "FNTM" stay.
TEST(DataSetWalk, EndsAfterTheAnnouncedCount) {
  for (uint16_t count : {0, 1}) {
    Document d;
    d.dataSets = {Unread(9), Unread(9)};
    d.dataSets[1].seq = 1;
    d.dataSets.resize(count + 1);
    d.dsetCount = count;
    const Walk w = RunWalk(d.build());
    EXPECT_EQ(w.result, 0) << count;
    EXPECT_EQ(w.dsetSeen, count + 1u) << count;
    EXPECT_EQ(w.rest.size(), 20u + 4u) << count;
  }
}

TEST(DataSetWalk, FindsTheFirstTagByScanning) {
  Header h;
  h.printTableFirst = 121;  // the walk stops early; junk follows the header
  kln::Document d;
  d.header = h;
  d.dataSets = {Unread(9), Unread(9)};
  const Bytes body = d.build();
  const Bytes headerBytes = h.build();
  const Bytes tail(body.begin() + static_cast<long>(headerBytes.size()), body.end());
  const Bytes doc = kln::Cat({headerBytes, kln::Str("xxDDSETyy"), tail});
  const Walk w = RunWalk(doc);
  EXPECT_EQ(w.result, 0);
  EXPECT_EQ(w.dsetCount, 2);  // taken from the two bytes in front of the tag
  EXPECT_EQ(w.dsetSeen, 2u);
}

TEST(DataSetWalk, TagAfterAnExtraDIsNotFound) {
  // 'D' 'D' 'S' 'E' is compared and differs; "T" alone never matches.
  const Bytes doc = kln::Cat({[] {
                                Header h;
                                h.printTableFirst = 121;
                                return h.build();
                              }(),
                              {0, 1}, kln::Str("DDSET")});
  EXPECT_EQ(RunWalk(doc).result, 3000);
}

TEST(DataSetWalk, MalformedRecordsFail) {
  Document shortRecord;
  shortRecord.dataSets = {Unread(9)};
  Bytes doc = shortRecord.build();
  const size_t rec = Header().build().size() + 2 + 4;
  doc[rec + 3] = 15;  // record length 15
  EXPECT_EQ(RunWalk(doc).result, 3000);

  Document badSeq;
  badSeq.dataSets = {Unread(9)};
  badSeq.dataSets[0].seq = 2;
  EXPECT_EQ(RunWalk(badSeq.build()).result, 3000);

  Document noEnd;
  noEnd.dataSets = {Unread(9)};
  noEnd.endWithFntm = false;
  EXPECT_EQ(RunWalk(noEnd.build()).result, 3000);
}

}  // namespace
