// Document properties from the header's text records.
#include <gtest/gtest.h>

#include <cstring>

#include "test_support.h"
#include "vtq_rt.h"

using kln::Bytes;
using kln::Header;

namespace {

struct Props {
  int code;
  std::vector<uint8_t> record;
  std::string field(size_t at) const { return reinterpret_cast<const char *>(record.data() + at); }
};

Props ReadProps(const Bytes &doc, const std::string &outCharset = "UTF-8") {
  kln::TempDir dir;
  const std::string path = dir.file("p.kln");
  kln::WriteFile(path, doc);
  const FilterOptions opt = kln::Options(outCharset);
  const KlnCharsetInfo cs = kln::Charset();
  Props p{0, std::vector<uint8_t>(KLN_PROPERTY_RECORD_SIZE, 0xAA)};
  p.code = GetProperty(path.c_str(), &opt, p.record.data(), &cs);
  return p;
}

TEST(Properties, AllSixConvertedIntoTheirPlaces) {
  Header h;
  h.title = "\x94\x71\x8c\x5b";  // Windows-31J
  h.docClass = "letter";
  h.description = "a description";
  h.author = "Sato";
  h.version = "1.0";
  h.keywords = "k1 k2";
  const Props p = ReadProps(h.build());
  EXPECT_EQ(p.code, 0);
  EXPECT_EQ(p.field(KLN_PROP_TITLE), "\xE6\x8B\x9D\xE5\x95\x93");
  EXPECT_EQ(p.field(KLN_PROP_CLASS), "letter");
  EXPECT_EQ(p.field(KLN_PROP_DESCRIPTION), "a description");
  EXPECT_EQ(p.field(KLN_PROP_AUTHOR), "Sato");
  EXPECT_EQ(p.field(KLN_PROP_VERSION), "1.0");
  EXPECT_EQ(p.field(KLN_PROP_KEYWORDS), "k1 k2");
  // Every other byte of the record is zero.
  size_t nonZero = 0;
  for (uint8_t b : p.record) nonZero += b != 0;
  EXPECT_EQ(nonZero, 6u + 6 + 13 + 4 + 3 + 5);
}

TEST(Properties, AbsentEmptyAndLongTexts) {
  Header h;
  h.title = std::string(254, 'a');
  h.author = std::string(255, 'b');  // read past and left empty
  h.description = "";                // present, but no text
  h.keywords = "\xe9";
  const Props p = ReadProps(h.build(), "UTF-16");
  EXPECT_EQ(p.code, 0);
  EXPECT_EQ(p.record[KLN_PROP_TITLE], 'a');  // UTF-16, no byte-order mark in property mode
  EXPECT_EQ(p.record[KLN_PROP_TITLE + 507], 0);
  EXPECT_EQ(p.record[KLN_PROP_TITLE + 506], 'a');
  EXPECT_EQ(p.field(KLN_PROP_AUTHOR), "");
  EXPECT_EQ(p.field(KLN_PROP_DESCRIPTION), "");
  EXPECT_EQ(p.field(KLN_PROP_CLASS), "");
}

TEST(Properties, Failures) {
  Header bad;
  bad.signature = "RVZX";
  Props p = ReadProps(bad.build());
  EXPECT_EQ(p.code, 3000);
  EXPECT_EQ(p.record[0], 0);  // cleared

  Header kind;
  kind.docKind = 7;
  EXPECT_EQ(ReadProps(kind.build()).code, 3000);

  // Ends right after a present keywords record: 0; after an absent one: 3000.
  Header withKeywords;
  withKeywords.keywords = "k";
  Bytes full = withKeywords.build();
  full.resize(344 + 4 * 5 + 4 + 1 + 1);
  EXPECT_EQ(ReadProps(full).code, 0);
  Bytes noKeywords = Header().build();
  noKeywords.resize(344 + 4 * 6);
  EXPECT_EQ(ReadProps(noKeywords).code, 3000);

  kln::TempDir dir;
  const FilterOptions opt = kln::Options();
  const KlnCharsetInfo cs = kln::Charset();
  std::vector<uint8_t> record(KLN_PROPERTY_RECORD_SIZE, 0xAA);
  EXPECT_EQ(GetProperty(dir.file("missing").c_str(), &opt, record.data(), &cs), 3000);
  const std::string longPath = dir.path() + "/" + std::string(300, 'x');
  EXPECT_EQ(GetProperty(longPath.c_str(), &opt, record.data(), &cs), 3000);
  EXPECT_EQ(record, std::vector<uint8_t>(KLN_PROPERTY_RECORD_SIZE, 0xAA));  // untouched
}

TEST(Properties, AllocationFailuresGive12) {
  Header h;
  h.title = "t";
  kln::TempDir dir;
  const std::string path = dir.file("p.kln");
  kln::WriteFile(path, h.build());
  const FilterOptions opt = kln::Options();
  const KlnCharsetInfo cs = kln::Charset();
  std::vector<uint8_t> record(KLN_PROPERTY_RECORD_SIZE);
  for (long n = 1; n <= 5; ++n) {
    VTQ_SetAllocFailAt(n);
    const int code = GetProperty(path.c_str(), &opt, record.data(), &cs);
    VTQ_SetAllocFailAt(0);
    EXPECT_TRUE(code == 12 || code == 0) << n;  // a failed conversion leaves the field empty
  }
}

}  // namespace
