// Whole spreadsheet documents written as delimited text.
#include <gtest/gtest.h>

#include "ss_builder.h"
#include "test_support.h"

using kln::SsCell;
using kln::SsSheet;

namespace {

kln::Bytes Sheet(std::vector<SsCell> cells) {
  SsSheet sheet;
  sheet.cells = std::move(cells);
  return kln::SsDocument(sheet).build();
}

TEST(SpreadsheetText, WriterOptions) {
  const kln::Bytes doc = Sheet({SsCell::Int16(0, 0, 1), SsCell::Text(0, 2, "x"), SsCell::Int16(2, 1, 2)});
  struct Case {
    const char *name;
    uint32_t flags;
    std::string expected;
  };
  const Case cases[] = {
      {"default", 0, "\"1\",,\"x\"\n\n,\"2\""},
      {"no blank fill", KLN_FLAG_NO_FILL, "\"1\",\"x\"\n\n\"2\""},
      {"no quotes", KLN_FLAG_NO_QUOTE, "1,,x\n\n,2"},
      {"caller's separator", KLN_FLAG_SEPARATOR, "\"1\";;\"x\"\n\n;\"2\""},
      {"line ends as CR LF", KLN_FLAG_LINE_CRLF | KLN_FLAG_NO_QUOTE, "1,,x\r\n\r\n,2"},
  };
  for (const Case &c : cases) {
    FilterOptions opt = kln::Options("UTF-8", c.flags);
    opt.cellSeparator = ';';
    const kln::Result r = kln::RunStream(doc, opt);
    EXPECT_EQ(r.code, 0) << c.name;
    EXPECT_EQ(r.text, c.expected) << c.name;
  }
}

TEST(SpreadsheetText, FirstCellAndCellTexts) {
  // Line feeds stand only between cells; carriage returns leave cell texts.
  const kln::Result r = kln::RunStream(Sheet({SsCell::Text(5, 2, "a\r\nb"), SsCell::Bool(5, 3, 1)}));
  EXPECT_EQ(r.text, ",,\"a\nb\",\"TRUE\"");
}

TEST(SpreadsheetText, ATextEndingInALeadByteLeavesTheSeparatorAlone) {
  FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_SEPARATOR | KLN_FLAG_NO_QUOTE);
  opt.cellSeparator = '@';  // a trail byte, which would join the lead byte into one character
  EXPECT_EQ(kln::RunStream(Sheet({SsCell::Text(0, 0, "x\x82"), SsCell::Int16(0, 1, 1)}), opt).text, "x\xEF\xBF\xBD@1");
}

TEST(SpreadsheetText, ManyColumnsAndRows) {
  std::vector<SsCell> cells;
  std::string expected;
  for (uint16_t r = 0; r < 130; r += 43) {
    for (uint16_t c = 0; c < 256; c += 85) cells.push_back(SsCell::Int16(r, c, int16_t(r + c)));
  }
  const kln::Result out = kln::RunStream(Sheet(cells), kln::Options("UTF-8", KLN_FLAG_NO_QUOTE | KLN_FLAG_NO_FILL));
  for (int r = 0; r < 130; r += 43) {
    if (r) expected += std::string(43, '\n');
    for (int c = 0; c < 256; c += 85) {
      if (c) expected += ',';
      expected += std::to_string(r + c);
    }
  }
  EXPECT_EQ(out.text, expected);
}

TEST(SpreadsheetText, FailuresAndTheSizeLimit) {
  SsSheet sheet;
  sheet.cells = {SsCell::Int16(0, 0, 1), SsCell::Int16(0, 1, 2, 9)};
  // Style 9 maps to cell style 0 (an unset slot); a table without cell styles fails.
  kln::StyleChain none{{{0, 0}}, {}};
  none.withCell = false;
  EXPECT_EQ(kln::RunStream(kln::SsDocument(sheet, none).build()).code, 3000);
  EXPECT_EQ(kln::RunStream(kln::SsDocument(sheet).build()).text, "\"1\",\"2\"");

  FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_SIZE_LIMIT);
  opt.sizeLimit = 5;
  const kln::Result cut = kln::RunFile(kln::SsDocument(sheet).build(), opt);
  EXPECT_EQ(cut.code, 3005);
  EXPECT_EQ(cut.text, "\"1\",\"");
}

}  // namespace
