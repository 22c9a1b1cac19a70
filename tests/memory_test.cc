// Documents from memory: every memory call answers what the path call
// answers for the same bytes, and reads nothing beyond the bytes it is given.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "corpus.h"
#include "test_support.h"
#include "vtq_rt.h"
#include "vtq_txkln_ext.h"

using kln::Bytes;

namespace {

// The option sets of the sweeps and the entry-point tests, each also read
// with the document's own bits.
std::vector<FilterOptions> OptionSets(uint32_t docFlags) {
  FilterOptions limited = kln::Options("UTF-8", docFlags | KLN_FLAG_SIZE_LIMIT);
  limited.sizeLimit = 40;
  FilterOptions semicolon = kln::Options("UTF-8", docFlags | KLN_FLAG_SEPARATOR | KLN_FLAG_NO_QUOTE);
  semicolon.cellSeparator = ';';
  return {kln::Options("UTF-8", docFlags),
          kln::Options("UTF-16", docFlags | KLN_FLAG_OLE_EXTRACT),
          kln::Options("ISO-8859-1", docFlags | KLN_FLAG_LINE_CRLF),
          kln::Options("WINDOWS-31J", docFlags | KLN_FLAG_NO_QUOTE | KLN_FLAG_NO_FILL | KLN_FLAG_LINE_SPACE),
          kln::Options("UTF-8", docFlags | KLN_FLAG_OLE_REFUSE),
          kln::Options("UTF-8", docFlags | KLN_FLAG_OLE_EXTRACT | KLN_FLAG_OLE_CONTINUE | KLN_FLAG_OLE_LIMIT_STOPS),
          limited,
          semicolon};
}

// The document in a heap block of exactly its size, so that the sanitizer
// catches a read one byte past its end.
std::unique_ptr<uint8_t[]> ExactCopy(const Bytes &doc) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[doc.size() ? doc.size() : 1]);
  if (!doc.empty()) std::memcpy(copy.get(), doc.data(), doc.size());
  return copy;
}

kln::Result MemoryStream(const Bytes &doc, const FilterOptions &opt) {
  const auto copy = ExactCopy(doc);
  const KlnCharsetInfo cs = kln::Charset();
  VTQ_STREAM *s = VTQ_StreamCreateBuffer();
  kln::Result r;
  r.code = GetTextStreamFromMemoryWithErrCallback(copy.get(), doc.size(), s, &opt, &cs, nullptr);
  size_t n;
  const void *data = VTQ_StreamBufferData(s, &n);
  r.text.assign(static_cast<const char *>(data ? data : ""), n);
  VTQ_StreamDestroy(s);
  return r;
}

kln::Result MemoryFile(const Bytes &doc, const FilterOptions &opt) {
  const auto copy = ExactCopy(doc);
  const KlnCharsetInfo cs = kln::Charset();
  kln::TempDir dir;
  const std::string out = dir.file("out.txt");
  kln::Result r;
  r.code = GetTextFromMemoryWithErrCallback(copy.get(), doc.size(), out.c_str(), &opt, &cs, nullptr);
  r.outputExists = !dir.list().empty();
  r.text = kln::ReadAll(out);
  return r;
}

std::string Properties(const Bytes &doc, bool memory, int *code) {
  const FilterOptions opt = kln::Options("UTF-8");
  const KlnCharsetInfo cs = kln::Charset();
  std::string record(KLN_PROPERTY_RECORD_SIZE, 'x');
  if (memory) {
    const auto copy = ExactCopy(doc);
    *code = GetPropertyFromMemory(copy.get(), doc.size(), &opt, record.data(), &cs);
  } else {
    kln::TempDir dir;
    kln::WriteFile(dir.file("in.kln"), doc);
    *code = GetProperty(dir.file("in.kln").c_str(), &opt, record.data(), &cs);
  }
  return record;
}

void ExpectSame(const Bytes &doc, const FilterOptions &opt, const std::string &what) {
  const kln::Result path = kln::RunStream(doc, opt), memory = MemoryStream(doc, opt);
  EXPECT_EQ(memory.code, path.code) << what << " (stream)";
  EXPECT_EQ(memory.text, path.text) << what << " (stream)";
  const kln::Result pathFile = kln::RunFile(doc, opt), memoryFile = MemoryFile(doc, opt);
  EXPECT_EQ(memoryFile.code, pathFile.code) << what << " (file)";
  EXPECT_EQ(memoryFile.text, pathFile.text) << what << " (file)";
  EXPECT_EQ(memoryFile.outputExists, pathFile.outputExists) << what << " (file)";
}

TEST(Memory, EveryCallEqualsThePathCallOverTheCorpus) {
  kln::ScopedTmpDir tmp;
  for (const kln::NamedDocument &d : kln::Corpus()) {
    int i = 0;
    for (const FilterOptions &opt : OptionSets(d.flags)) ExpectSame(d.bytes, opt, d.name + " #" + std::to_string(i++));
    int pathCode, memoryCode;
    const std::string fromPath = Properties(d.bytes, false, &pathCode);
    EXPECT_EQ(Properties(d.bytes, true, &memoryCode), fromPath) << d.name;
    EXPECT_EQ(memoryCode, pathCode) << d.name;
  }
  EXPECT_TRUE(tmp.leftovers().empty());
}

// Every cut of every document, each in a block of exactly its length.
TEST(Memory, TruncatedBuffersReadNothingPastTheirEnd) {
  kln::ScopedTmpDir tmp;
  for (const kln::NamedDocument &d : kln::Corpus()) {
    const FilterOptions opt = kln::Options("UTF-8", d.flags);
    for (size_t len = 0; len < d.bytes.size(); len += 1 + len / 16) {
      const Bytes prefix(d.bytes.begin(), d.bytes.begin() + static_cast<long>(len));
      const kln::Result path = kln::RunStream(prefix, opt), memory = MemoryStream(prefix, opt);
      EXPECT_EQ(memory.code, path.code) << d.name << " cut at " << len;
      EXPECT_EQ(memory.text, path.text) << d.name << " cut at " << len;
      int code;
      Properties(prefix, true, &code);
    }
  }
  EXPECT_TRUE(tmp.leftovers().empty());
}

TEST(Memory, NoPathLimitAndNullData) {
  const FilterOptions opt = kln::Options();
  const FilterOptions logged = kln::Options("UTF-8", KLN_FLAG_LOG);
  const KlnCharsetInfo cs = kln::Charset();
  uint8_t record[KLN_PROPERTY_RECORD_SIZE];
  EXPECT_EQ(GetTextStreamFromMemoryWithErrCallback(nullptr, 1, nullptr, &opt, &cs, nullptr), 22);
  EXPECT_EQ(GetPropertyFromMemory(nullptr, 1, &opt, record, &cs), 3000);
  EXPECT_EQ(MemoryStream(Bytes(), opt).code, kln::RunStream(Bytes(), opt).code);
  // A stream has no name to put a log beside.
  const Bytes letter = kln::Corpus()[3].bytes;
  EXPECT_EQ(MemoryStream(letter, logged).code, 22);
}

TEST(BufferStream, CollectsEveryWriteAndIsNoOtherKind) {
  VTQ_STREAM *s = VTQ_StreamCreateBuffer();
  size_t n = 1;
  EXPECT_EQ(VTQ_StreamBufferData(s, &n), nullptr);
  EXPECT_EQ(n, 0u);
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string piece = std::to_string(i) + ",";
    ASSERT_EQ(VTQ_WriteStream(s, long(piece.size()), piece.data()), long(piece.size()));
    expected += piece;
  }
  const void *data = VTQ_StreamBufferData(s, &n);
  EXPECT_EQ(std::string(static_cast<const char *>(data), n), expected);
  VTQ_StreamDestroy(s);
  VTQ_STREAM *file = VTQ_StreamCreateFile(stdout);
  EXPECT_EQ(VTQ_StreamBufferData(file, &n), nullptr);
  EXPECT_EQ(n, 0u);
  VTQ_StreamDestroy(file);
}

}  // namespace
