// Drawings and their embedded OLE objects: the block walk, the extraction
// of packaged texts and documents, the option bits, the size limit and the
// temporary files.
#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "kln_context.h"
#include "ole_builder.h"
#include "test_support.h"
#include "wp_builder.h"

using kln::Bytes;
using kln::DrawingDataSet;
using kln::DrawingObject;
using kln::Str;

namespace {

constexpr uint32_t kExtract = KLN_FLAG_OLE_EXTRACT;

// Every test runs with TMPDIR pointing at a folder of its own, so that a
// temporary file left behind shows.
class OleTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(tmp_.leftovers(), std::vector<std::string>{}) << "temporary files left"; }

 private:
  kln::ScopedTmpDir tmp_;
};

kln::DataSet Text(const std::string &text, uint16_t seq) {
  kln::WpDataSet s;
  s.blocks = {{text}};
  return s.build(seq);
}

// A document of word-processing text before and after a drawing.
Bytes Doc(const std::vector<DrawingObject> &objects, const std::string &before = "abc",
          const std::string &after = "xyz") {
  kln::Document d;
  uint16_t seq = 1;
  if (!before.empty()) d.dataSets.push_back(Text(before, seq++));
  DrawingDataSet drawing;
  drawing.objects = objects;
  d.dataSets.push_back(drawing.build(seq++));
  if (!after.empty()) d.dataSets.push_back(Text(after, seq++));
  return d.build();
}

DrawingObject PackagedText(const std::string &text) { return DrawingObject::Ole(kln::PackagedObject(Str(text))); }

// Both output modes give the same code and text.
kln::Result RunBoth(const Bytes &doc, const FilterOptions &opt) {
  const kln::Result stream = kln::RunStream(doc, opt);
  const kln::Result file = kln::RunFile(doc, opt);
  EXPECT_EQ(stream.code, file.code);
  if (file.outputExists) {
    EXPECT_EQ(stream.text, file.text);
  }
  return stream;
}

TEST_F(OleTest, PackagedAndContentsTextsInEachCharacterSet) {
  const struct {
    const char *what;
    Bytes object;
    std::string expected;
  } kCases[] = {
      {"UTF-8 with its mark", kln::PackagedObject(Str("\xEF\xBB\xBF" "caf\xC3\xA9\r\nok")), "caf\xC3\xA9\r\nok"},
      {"Windows-31J", kln::PackagedObject(Str("\x93\xfa\x96\x7b\x8c\xea")), "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"},
      {"Windows-1252", kln::PackagedObject(Str("caf\xE9 \x80" "5")), "caf\xC3\xA9 \xE2\x82\xAC" "5"},
      {"empty", kln::PackagedObject({}), ""},
      {"CONTENTS stream", kln::CompoundFile({{"CONTENTS", Str("plain \x93\xfa")}}), "plain \xE6\x97\xA5"},
  };
  for (const auto &c : kCases) {
    const kln::Result r = RunBoth(Doc({DrawingObject::Ole(c.object)}), kln::Options("UTF-8", kExtract));
    EXPECT_EQ(r.code, 0) << c.what;
    EXPECT_EQ(r.text, "abc\r" + c.expected + "xyz\r") << c.what;
  }
}

TEST_F(OleTest, ObjectTextTakesTheCallersChoices) {
  const Bytes doc = Doc({PackagedText("one\r\ntwo\n")}, "", "");
  // Nothing was written before the object: one space opens the output.
  EXPECT_EQ(RunBoth(doc, kln::Options("UTF-8", kExtract | KLN_FLAG_LINE_SPACE)).text, " one two ");
  EXPECT_EQ(RunBoth(doc, kln::Options("UTF-8", kExtract | KLN_FLAG_LINE_CRLF)).text, " one\r\ntwo\r\n");
  // No byte-order mark inside the output, only at its start.
  FilterOptions bom = kln::Options("UTF-16", kExtract);
  EXPECT_EQ(RunBoth(doc, bom).text, std::string("\xFF\xFE \0o\0n\0e\0\r\0\n\0t\0w\0o\0\n\0", 22));
  // A character the output set cannot hold is substituted as in the document's own text.
  const Bytes euro = Doc({PackagedText("\xE2\x82\xAC")}, "", "");
  EXPECT_EQ(RunBoth(euro, kln::Options("ISO-8859-1", kExtract)).text, " ?");
}

TEST_F(OleTest, EmbeddedDocumentsComeOutThroughTheFilter) {
  kln::Document inner;
  inner.dataSets = {Text("\x93\xfa\x96\x7b inner", 1)};
  const Bytes once = Doc({DrawingObject::Ole(kln::PackagedObject(inner.build(), "in.kln"))});
  kln::Result r = RunBoth(once, kln::Options("UTF-8", kExtract));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "abc\r\xE6\x97\xA5\xE6\x9C\xAC inner\rxyz\r");
  // UTF-16 output: the inner document adds no byte-order mark.
  r = RunBoth(once, kln::Options("UTF-16", kExtract));
  EXPECT_EQ(r.text.substr(0, 4), std::string("\xFF\xFE" "a\0", 4));
  EXPECT_EQ(r.text.find("\xFF\xFE", 2), std::string::npos);

  // A document without text adds nothing and is no failure.
  kln::Document empty;
  r = RunBoth(Doc({DrawingObject::Ole(kln::PackagedObject(empty.build(), "e.kln"))}), kln::Options("UTF-8", kExtract));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "abc\rxyz\r");
}

// Wraps a document in `levels` drawings, each embedding the one before.
Bytes Nested(int levels) {
  kln::Document d;
  d.dataSets = {Text("core", 1)};
  Bytes doc = d.build();
  for (int i = 0; i < levels; ++i) doc = Doc({DrawingObject::Ole(kln::PackagedObject(doc, "n.kln"))}, "", "");
  return doc;
}

TEST_F(OleTest, NestingEndsAtFourLevels) {
  const kln::Result four = RunBoth(Nested(4), kln::Options("UTF-8", kExtract));
  EXPECT_EQ(four.code, 0);
  EXPECT_EQ(four.text, "    core\r");  // each level opens with its space
  EXPECT_EQ(RunBoth(Nested(5), kln::Options("UTF-8", kExtract)).code, KLN_ERR_OLE_FAILED);
}

TEST_F(OleTest, OptionBitsChooseWhatHappensToObjects) {
  const Bytes doc = Doc({PackagedText("inside")});
  kln::Result r = RunBoth(doc, kln::Options("UTF-8", 0));  // skipped byte for byte
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "abc\rxyz\r");
  for (uint32_t flags : {KLN_FLAG_OLE_REFUSE, KLN_FLAG_OLE_REFUSE | kExtract}) {
    EXPECT_EQ(kln::RunStream(doc, kln::Options("UTF-8", flags)).code, KLN_ERR_OLE_REFUSED);
    const kln::Result file = kln::RunFile(doc, kln::Options("UTF-8", flags));
    EXPECT_EQ(file.code, KLN_ERR_OLE_REFUSED);
    EXPECT_FALSE(file.outputExists);
  }
}

TEST_F(OleTest, EntriesOfEveryMarkKeepTheWalkInStep) {
  // Framed shapes, header-only shapes, plain shapes and others between
  // objects; after the last object a plain shape costs one more header block.
  const std::vector<DrawingObject> objects = {
      {8, 0, {}, {}}, {1, 0, {}, {}}, PackagedText("first"), {1, 1, {}, {}}, {3, 3, {}, {}},
      PackagedText("second"), {1, 0, {}, {}}};
  DrawingDataSet drawing;
  drawing.objects = objects;
  kln::DataSet set = drawing.build(2);
  set.content.insert(set.content.end(), {0, 0, 0, 2, 0x44, 0x44});  // the extra header block
  kln::Document d;
  d.dataSets = {Text("abc", 1), set, Text("xyz", 3)};
  const kln::Result r = RunBoth(d.build(), kln::Options("UTF-8", kExtract));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "abc\rfirstsecondxyz\r");

  // A drawing without an OLE object is passed over whole.
  DrawingDataSet shapes;
  shapes.objects = {{8, 0, {}, {}}, {1, 1, {}, {}}};
  d.dataSets = {Text("abc", 1), shapes.build(2), Text("xyz", 3)};
  EXPECT_EQ(RunBoth(d.build(), kln::Options("UTF-8", kExtract)).text, "abc\rxyz\r");
}

TEST_F(OleTest, FailedObjectsFailTheDocumentUnlessContinued) {
  const std::vector<std::pair<const char *, DrawingObject>> kBroken = {
      {"not a compound file", DrawingObject::Ole(Str("plain bytes, no container"))},
      {"no stream the runtime reads", DrawingObject::Ole(kln::CompoundFile({{"Other", Str("x")}}))},
      {"binary package", DrawingObject::Ole(kln::PackagedObject(Bytes{0, 1, 2, 0xFF}, "a.bin"))},
      {"cut package", DrawingObject::Ole(kln::CompoundFile({{"\x01Ole10Native", Bytes{9, 0, 0, 0, 2, 0, 'a'}}}))},
      {"empty object", DrawingObject::Ole({})},
  };
  for (const auto &[what, object] : kBroken) {
    const Bytes doc = Doc({object, PackagedText("good")});
    const kln::Result file = kln::RunFile(doc, kln::Options("UTF-8", kExtract));
    EXPECT_EQ(file.code, KLN_ERR_OLE_FAILED) << what;
    EXPECT_FALSE(file.outputExists) << what;
    const kln::Result passed = RunBoth(doc, kln::Options("UTF-8", kExtract | KLN_FLAG_OLE_CONTINUE));
    EXPECT_EQ(passed.code, 0) << what;
    EXPECT_EQ(passed.text, "abc\rgoodxyz\r") << what;
  }
}

// A compound file whose CONTENTS entry has the u32 at `field` (116 first
// sector, 120 size) replaced.
Bytes DamagedEntry(size_t field, uint32_t value) {
  Bytes b = kln::CompoundFile({{"CONTENTS", Str("text")}});
  const std::string name("C\0O\0N\0T\0E\0N\0T\0S\0", 16);
  const auto at = std::search(b.begin(), b.end(), name.begin(), name.end()) - b.begin() + field;
  for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(value >> (8 * i));
  return b;
}

// The reader's complaints about a damaged object stay out of the host's
// standard error, and the host's own messages still reach it.
TEST_F(OleTest, DamagedObjectsSayNothingOnStandardError) {
  const Bytes doc = Doc({DrawingObject::Ole(DamagedEntry(116, 0xFFFF00)),
                         DrawingObject::Ole(DamagedEntry(120, 0x7FFFFFF0)), PackagedText("good")});
  testing::internal::CaptureStderr();
  const kln::Result r = RunBoth(doc, kln::Options("UTF-8", kExtract | KLN_FLAG_OLE_CONTINUE));
  g_log("libgsf:msole", G_LOG_LEVEL_WARNING, "the host's own warning");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "abc\rgoodxyz\r");
  EXPECT_EQ(err.find("CRITICAL"), std::string::npos) << err;
  EXPECT_NE(err.find("the host's own warning"), std::string::npos) << err;
}

TEST_F(OleTest, MalformedDrawingBlocks) {
  DrawingObject shortHead = PackagedText("x");
  shortHead.oleLength = 23;
  EXPECT_EQ(kln::RunStream(Doc({shortHead}), kln::Options("UTF-8", kExtract)).code, KLN_ERR_FORMAT);

  for (int32_t length : {0, -5}) {
    kln::Document d;
    DrawingDataSet drawing;
    drawing.objects = {PackagedText("x")};
    drawing.leadingLength = length;
    d.dataSets = {drawing.build(1)};
    EXPECT_EQ(kln::RunStream(d.build(), kln::Options("UTF-8", kExtract)).code, KLN_ERR_FORMAT) << length;
  }

  // The entries promise a second object, but the next data set begins:
  // the walk goes on with it, and refuses it once the count is used up.
  DrawingDataSet drawing;
  drawing.objects = {PackagedText("one")};
  drawing.objectCount = 2;
  drawing.entryStride = 24;
  kln::DataSet set = drawing.build(1);
  set.recordBody.resize(84 + 2 * 24, 0);
  set.recordBody[84 + 24] = 8;
  set.recordBody[84 + 26] = 5;
  kln::Document d;
  d.dataSets = {set, Text("next", 2)};
  kln::Result r = kln::RunStream(d.build(), kln::Options("UTF-8", kExtract));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, " onenext\r");
  d.dsetCount = 1;
  EXPECT_EQ(kln::RunStream(d.build(), kln::Options("UTF-8", kExtract)).code, KLN_ERR_FORMAT);
}

TEST_F(OleTest, SizeLimitInsideAnObject) {
  const Bytes doc = Doc({PackagedText("0123456789ABCDEF")}, "", "xyz");
  FilterOptions opt = kln::Options("UTF-8", kExtract | KLN_FLAG_SIZE_LIMIT);
  opt.sizeLimit = 10;
  // The object is cut; its bytes do not count, so the text after it fits.
  kln::Result r = RunBoth(doc, opt);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, " 012345678xyz\r");
  // The caller wants the limit inside an object to end the output.
  opt.flags |= KLN_FLAG_OLE_LIMIT_STOPS;
  r = kln::RunStream(doc, opt);
  EXPECT_EQ(r.code, KLN_ERR_SIZE_LIMIT);
  EXPECT_EQ(r.text, " 012345678");
  opt.flags |= KLN_FLAG_OLE_CONTINUE;
  r = kln::RunStream(doc, opt);
  EXPECT_EQ(r.code, KLN_ERR_SIZE_LIMIT);
  EXPECT_EQ(r.text, " 012345678");
  // Within the limit the object's bytes count like any other text.
  opt.sizeLimit = 17;
  r = kln::RunStream(doc, opt);
  EXPECT_EQ(r.code, KLN_ERR_SIZE_LIMIT);
  EXPECT_EQ(r.text, " 0123456789ABCDEF");
}

// The state record carries 32 bits of the total; what the object adds is
// counted on from the whole total.
TEST_F(OleTest, TheObjectsBytesCountPast4GiB) {
  kln::OpenedContext ctx(Doc({PackagedText("0123456789ABCDEF")}, "", ""), kln::Options("UTF-8", kExtract));
  ctx->totalOut = 0xFFFFFFF8u;
  ctx.walk();
  EXPECT_EQ(ctx.text, " 0123456789ABCDEF");
  EXPECT_EQ(ctx->totalOut, 0xFFFFFFF8ull + 17);
}

TEST_F(OleTest, TemporaryFilesBesideTheOutput) {
  kln::TempDir dir;
  const std::string in = dir.file("in.kln"), out = dir.file("out.txt");
  kln::WriteFile(in, Doc({PackagedText("beside"), DrawingObject::Ole(Str("broken"))}));
  FilterOptions opt = kln::Options("UTF-8", kExtract | KLN_FLAG_OLE_CONTINUE);
  opt.tempFlags = KLN_TEMP_BESIDE_OUTPUT;
  const KlnCharsetInfo cs = kln::Charset();
  EXPECT_EQ(GetTextWithErrCallback(in.c_str(), out.c_str(), &opt, &cs, nullptr), 0);
  EXPECT_EQ(kln::ReadAll(out), "abc\rbesidexyz\r");
  EXPECT_EQ(dir.list(), (std::vector<std::string>{"in.kln", "out.txt"}));
}

}  // namespace
