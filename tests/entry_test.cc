// The text entry points: result codes, removal of the output, the log.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ole_builder.h"
#include "test_support.h"
#include "vtq_rt.h"
#include "wp_builder.h"

using kln::Bytes;
using kln::Document;
using kln::TempDir;

namespace {

bool Exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

Bytes NotKln() {
  Document d;
  d.header.signature = "NOPE";
  return d.build();
}

TEST(EntryPoints, OpenFailuresAndLongPathsGive22) {
  TempDir dir;
  const FilterOptions opt = kln::Options();
  const KlnCharsetInfo cs = kln::Charset();
  const std::string in = dir.file("in.kln"), out = dir.file("out.txt");
  kln::WriteFile(in, Document().build());

  EXPECT_EQ(GetTextWithErrCallback(dir.file("missing").c_str(), out.c_str(), &opt, &cs, nullptr), 22);
  EXPECT_FALSE(Exists(out));
  EXPECT_EQ(GetTextWithErrCallback(in.c_str(), dir.file("no/such/dir").c_str(), &opt, &cs, nullptr), 22);

  const std::string longPath = dir.path() + "/" + std::string(260 - dir.path().size() - 1, 'a');
  ASSERT_EQ(longPath.size(), 260u);
  EXPECT_EQ(GetTextWithErrCallback(longPath.c_str(), out.c_str(), &opt, &cs, nullptr), 22);
  EXPECT_EQ(GetTextWithErrCallback(in.c_str(), longPath.c_str(), &opt, &cs, nullptr), 22);
  EXPECT_FALSE(Exists(longPath));
  EXPECT_EQ(GetTextStreamWithErrCallback(longPath.c_str(), nullptr, &opt, &cs, nullptr), 22);
  EXPECT_EQ(GetTextStreamWithErrCallback(dir.file("missing").c_str(), nullptr, &opt, &cs, nullptr), 22);
  EXPECT_EQ(dir.list(), std::vector<std::string>{"in.kln"});
}

TEST(EntryPoints, NothingProducedGives3003AndRemovesOnlyInFileMode) {
  const kln::Result file = kln::RunFile(Document().build());
  EXPECT_EQ(file.code, 3003);
  EXPECT_FALSE(file.outputExists);
  EXPECT_EQ(kln::RunStream(Document().build()).code, 3003);

  const kln::Result bad = kln::RunFile(NotKln());
  EXPECT_EQ(bad.code, 3000);
  EXPECT_FALSE(bad.outputExists);
  EXPECT_EQ(kln::RunStream(NotKln()).code, 3000);
}

TEST(EntryPoints, LogThatCannotBeOpenedGives22) {
  TempDir dir;
  const std::string in = dir.file("in.kln");
  kln::WriteFile(in, Document().build());
  // The output name fits its 260 bytes, the log name built from it does not.
  const std::string out = dir.path() + "/" + std::string(255 - dir.path().size(), 'o');
  const FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_LOG);
  const KlnCharsetInfo cs = kln::Charset();
  EXPECT_EQ(GetTextWithErrCallback(in.c_str(), out.c_str(), &opt, &cs, nullptr), 22);
  EXPECT_EQ(dir.list(), std::vector<std::string>{"in.kln"});  // the empty output is removed
}

// A word-processing document of `blocks` text blocks of 1000 bytes each,
// with a packaged text object after them when `object` is set.
Bytes TextDoc(int blocks, bool object = false) {
  kln::WpDataSet text;
  for (int i = 0; i < blocks; ++i) text.blocks.push_back({std::string(999, char('a' + i % 26)) + "\n"});
  Document d = kln::WpDocument({text});
  if (object) {
    kln::DrawingDataSet drawing;
    drawing.objects = {kln::DrawingObject::Ole(kln::PackagedObject(kln::Str("object text")))};
    d.dataSets.push_back(drawing.build(2));
  }
  return d.build();
}

TEST(EntryPoints, OutputThatIsTheInputIsRefusedUntouched) {
  const struct {
    const char *what;
    std::string (*output)(const TempDir &);  // makes the output path
  } kCases[] = {
      {"same path", [](const TempDir &d) { return d.file("in.kln"); }},
      {"another spelling", [](const TempDir &d) { return d.path() + "/./in.kln"; }},
      {"hard link",
       [](const TempDir &d) { return link(d.file("in.kln").c_str(), d.file("hard").c_str()) ? "" : d.file("hard"); }},
      {"symbolic link",
       [](const TempDir &d) { return symlink("in.kln", d.file("soft").c_str()) ? "" : d.file("soft"); }},
  };
  const FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_LOG);
  const KlnCharsetInfo cs = kln::Charset();
  for (const auto &c : kCases) {
    TempDir dir;
    const Bytes doc = TextDoc(2);
    kln::WriteFile(dir.file("in.kln"), doc);
    const std::string out = c.output(dir);
    ASSERT_FALSE(out.empty()) << c.what;
    const std::vector<std::string> before = dir.list();
    EXPECT_EQ(GetTextWithErrCallback(dir.file("in.kln").c_str(), out.c_str(), &opt, &cs, nullptr), 22) << c.what;
    EXPECT_TRUE(kln::ReadAll(dir.file("in.kln")) == std::string(doc.begin(), doc.end())) << c.what;
    EXPECT_EQ(dir.list(), before) << c.what << ": no log, nothing removed";
  }
}

// Takes `budget` bytes in all, then fewer than offered.
struct ShortSink {
  long budget;
  static long Write(void *user, const void *, long len) {
    auto *s = static_cast<ShortSink *>(user);
    const long took = len <= s->budget ? len : s->budget;
    s->budget -= took;
    return took;
  }
};

TEST(EntryPoints, FailedWritesGive3000) {
  const FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_OLE_EXTRACT | KLN_FLAG_OLE_CONTINUE);
  const KlnCharsetInfo cs = kln::Charset();
  const struct {
    const char *what;
    Bytes doc;
    long budget;  // stream mode: bytes the host takes
  } kCases[] = {
      {"fails at the close, or at the first write", TextDoc(1), 0},
      {"fails while writing", TextDoc(40), 10000},
      {"fails inside an embedded object", TextDoc(1, true), 1003},
  };
  for (const auto &c : kCases) {
    TempDir dir;
    const std::string in = dir.file("in.kln");
    kln::WriteFile(in, c.doc);
    EXPECT_EQ(GetTextWithErrCallback(in.c_str(), "/dev/full", &opt, &cs, nullptr), 3000) << c.what;
    ShortSink sink{c.budget};
    VTQ_STREAM *s = VTQ_StreamCreate(ShortSink::Write, &sink);
    EXPECT_EQ(GetTextStreamWithErrCallback(in.c_str(), s, &opt, &cs, nullptr), 3000) << c.what;
    VTQ_StreamDestroy(s);
    // The whole text reaches a host that takes it all.
    ShortSink all{1 << 30};
    s = VTQ_StreamCreate(ShortSink::Write, &all);
    EXPECT_EQ(GetTextStreamWithErrCallback(in.c_str(), s, &opt, &cs, nullptr), 0) << c.what;
    VTQ_StreamDestroy(s);
  }
  EXPECT_TRUE(Exists("/dev/full"));
}

}  // namespace
