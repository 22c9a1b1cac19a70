// The spreadsheet reader: the cell table built from CTAB, COLM and CHNK.
#include <gtest/gtest.h>

#include <cmath>

#include "ss_builder.h"
#include "sschange.h"
#include "test_support.h"

using kln::SsCell;
using kln::SsSheet;

namespace {

using Cell = kln::TableCell;

struct Table {
  int result;
  std::vector<Cell> cells;   // present cells, column by column, in chain order
  uint16_t colCount, rowCount;
};

// Runs the header and the data-set walk and reads the table back.
Table Load(const kln::Document &doc) {
  kln::OpenedContext ctx(doc.build());
  Table t{};
  t.result = ctx.walk();
  t.cells = ctx.cells();
  t.colCount = ctx->colCount;
  t.rowCount = ctx->rowCount;
  return t;
}

TEST(SpreadsheetTable, EveryCellKindWithRowsFromChunkAndSlot) {
  SsSheet sheet;
  sheet.lastColumn = 3;
  sheet.cells = {
      SsCell::Int16(0, 0, -2),     SsCell::Int32(17, 0, 100000), SsCell::Float(63, 0, -3.0),
      SsCell::Text(64, 0, "abc"),  SsCell::Bool(145, 0, 2),      SsCell::Error(146, 0, 12),
      SsCell::Error(147, 0, 2),    SsCell::Float(0, 2, 5600.0),
  };
  const Table t = Load(kln::SsDocument(sheet));
  EXPECT_EQ(t.result, 0);
  const std::vector<Cell> expected = {
      {0, 0, 0, -2, ""},       {17, 0, 1, 100000, ""}, {63, 0, 2, -3.0, ""},     {64, 0, 3, 0, "abc"},
      {145, 0, 5, 0, "TRUE"}, {146, 0, 6, 0, "#ERROR!"}, {147, 0, 6, 0, "#DIV/0!"}, {0, 2, 2, 5600.0, ""},
  };
  EXPECT_EQ(t.cells, expected);
  EXPECT_EQ(t.colCount, 4);
  EXPECT_EQ(t.rowCount, 148);
}

TEST(SpreadsheetTable, FormulaResultsInBothHeaderVariants) {
  SsSheet sheet;
  sheet.cells = {
      SsCell::Formula(0, 0, 0, {0x34, 0x12}),        SsCell::Formula(1, 0, 1, kln::Le32(0xFFFFFFFE)),
      SsCell::Formula(2, 0, 2, kln::LeDouble(2.5)),  SsCell::Formula(3, 0, 3, {2, 'h', 'i'}),
      SsCell::Formula(4, 0, 5, {0}),                 SsCell::Formula(5, 0, 6, {4}),
      SsCell::Formula(6, 0, 0, {0x34, 0x12, 0x99}),  // longer than 2 bytes: its first two count
  };
  kln::Document doc = kln::SsDocument(sheet);
  Table t = Load(doc);
  ASSERT_EQ(t.result, 0);
  const std::vector<Cell> v0 = {{0, 0, 0, 4660, ""}, {1, 0, 1, -2, ""},     {2, 0, 2, 2.5, ""}, {3, 0, 3, 0, "hi"},
                                {4, 0, 5, 0, "FALSE"}, {5, 0, 6, 0, "#NUM!"}, {6, 0, 0, 4660, ""}};
  EXPECT_EQ(t.cells, v0);

  sheet.cells = {SsCell::Formula(0, 0, 0, {0x34, 0x12}), SsCell::Formula(1, 0, 2, kln::Extended(-0.75))};
  doc = kln::SsDocument(sheet);
  doc.header.mark1 = 0x09;  // second header variant: cached results big-endian
  t = Load(doc);
  ASSERT_EQ(t.result, 0);
  EXPECT_EQ(t.cells, (std::vector<Cell>{{0, 0, 0, 13330, ""}, {1, 0, 2, -0.75, ""}}));
}

TEST(SpreadsheetTable, OnlyTheFirstSheetOfASpreadsheetDocument) {
  SsSheet a, b;
  a.cells = {SsCell::Int16(0, 0, 1)};
  b.cells = {SsCell::Int16(0, 1, 2)};
  kln::Document doc = kln::SsDocument(a);
  doc.dataSets.push_back(b.build(2));
  EXPECT_EQ(Load(doc).cells, (std::vector<Cell>{{0, 0, 0, 1, ""}}));
  doc.header.docKind = 1;  // a word-processing document: its sheets are skipped
  const Table t = Load(doc);
  EXPECT_EQ(t.result, 0);
  EXPECT_TRUE(t.cells.empty());
}

TEST(SpreadsheetTable, UnknownCellKindsAndSurplusColumnRecords) {
  SsSheet sheet;
  SsCell odd = SsCell::Int16(1, 0, 7);
  odd.kind = 9;  // skipped; it does not use up one of the chunk's counted cells
  sheet.cells = {SsCell::Int16(0, 0, 1), odd, SsCell::Int16(2, 0, 3)};
  kln::Bytes table = sheet.tableBuffer();
  // The chunk counts three cells: the unknown one is not among them.
  const Table t = Load(kln::SsDocument(sheet));
  EXPECT_EQ(t.cells, (std::vector<Cell>{{0, 0, 0, 1, ""}, {2, 0, 0, 3, ""}}));

  // A COLM record after the last present column ends the walk with success.
  kln::Bytes extra = kln::Out().u32(12).tag("COLM").u16(0).u16(0).u32(1).done();
  kln::Bytes body(table.begin() + 4, table.end());
  body.insert(body.end(), extra.begin(), extra.end());
  kln::Document doc = kln::SsDocument(sheet);
  doc.dataSets[0].content = kln::Cat({kln::Block({}), kln::Block({}),
                                      kln::Out().u32(uint32_t(body.size() + 4)).raw(body).done()});
  EXPECT_EQ(Load(doc).result, 0);
}

// The table buffer of a one-cell sheet, to corrupt by offset.
struct Corruption {
  const char *name;
  size_t at;  // offset in the table buffer (its length word first)
  kln::Bytes bytes;
};

TEST(SpreadsheetTable, MalformedTablesFailWith3000) {
  SsSheet sheet;
  sheet.cells = {SsCell::Float(0, 0, 1.5)};
  const size_t colm = 4 + 2 + 1036, chnk = colm + 16, cell = chnk + 4 + 140;
  const Corruption cases[] = {
      {"CTAB length", 6, {0, 0, 4, 9}},
      {"CTAB tag", 10, {'X'}},
      {"last column above 255", 14, {1, 0}},
      {"COLM tag", colm + 4, {'X'}},
      {"chunk record tag", chnk + 4, {'X'}},
      {"more than 64 cells", chnk + 8, {0, 65}},
      {"float longer than 14 bytes", cell, {0, 15}},
      {"cell past its chunk", cell, {0, 200, 0}},  // as a 16-bit integer, which has no length of its own to check
      {"many chunks in one column", colm + 8, {0, 0, 0x01, 0x10}},
  };
  for (const Corruption &c : cases) {
    kln::Bytes table = sheet.tableBuffer();
    if (std::string(c.name) == "many chunks in one column") {
      // 273 chunks marked present: more than a column can hold.
      kln::Bytes flags;
      for (int i = 0; i < 273; ++i) flags.insert(flags.end(), {0, 0, 0, 1});
      table.insert(table.begin() + long(colm + 16), flags.begin(), flags.end() - 4);
    }
    std::copy(c.bytes.begin(), c.bytes.end(), table.begin() + long(c.at));
    kln::Document doc = kln::SsDocument(sheet);
    doc.dataSets[0].content = kln::Cat({kln::Block({}), kln::Block({}), table});
    EXPECT_EQ(Load(doc).result, 3000) << c.name;
  }
}

TEST(SpreadsheetTable, FormulaFailures) {
  const std::pair<const char *, SsCell> cases[] = {
      {"result kind 4", SsCell::Formula(0, 0, 4, {0, 0})},
      {"result kind 7", SsCell::Formula(0, 0, 7, {0, 0})},
      {"short cached integer", SsCell::Formula(0, 0, 1, {1, 2})},
  };
  for (const auto &[name, cell] : cases) {
    SsSheet sheet;
    sheet.cells = {cell};
    EXPECT_EQ(Load(kln::SsDocument(sheet)).result, 3000) << name;
  }
}

}  // namespace
