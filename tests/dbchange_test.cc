// The database reader: field definitions, styles, and the records placed
// in the cell table in the order of the record list.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "db_builder.h"
#include "dbchange.h"
#include "test_support.h"

using kln::DbFieldSpec;
using kln::DbTable;

namespace {

using Cell = kln::TableCell;

struct Field {
  std::string name;
  int type, subKind, resultType, flags, styleNo;
  kln::Bytes extra;
  bool operator==(const Field &) const = default;
};

struct Loaded {
  int result;
  std::vector<Field> fields;
  std::vector<Cell> cells;  // present cells, column by column, in chain order
  bool rowsAscend = true;   // within every chain
  uint16_t colCount, rowCount;
};

// Runs the header and the data-set walk and reads the context back.
Loaded Load(const kln::Document &doc) {
  kln::OpenedContext ctx(doc.build());
  Loaded t{};
  t.result = ctx.walk();
  for (int i = 0; ctx->dbFields && i < ctx->dbFieldCount; ++i) {
    const DbField &f = ctx->dbFields[i];
    t.fields.push_back({f.name ? f.name : "", f.fieldType, f.subKind, f.resultType, f.fieldFlags, f.styleNo,
                        kln::Bytes(f.extra, f.extra + f.extraLen)});
  }
  t.cells = ctx.cells();
  for (size_t i = 1; i < t.cells.size(); ++i) {
    if (t.cells[i].column == t.cells[i - 1].column && t.cells[i].row <= t.cells[i - 1].row) t.rowsAscend = false;
  }
  t.colCount = ctx->colCount;
  t.rowCount = ctx->rowCount;
  return t;
}

DbFieldSpec Text(const std::string &name) { return {name, 0}; }
DbFieldSpec Number(const std::string &name, uint8_t subKind = 0) { return {name, 1, subKind}; }

TEST(DatabaseFields, DefinitionsAndExtraPieces) {
  DbTable t;
  DbFieldSpec note{"Note", 0, 8, 0, 0x80};
  note.pieces = {kln::Piece(kln::Str("ab")), kln::Piece(kln::Str("c"))};
  DbFieldSpec pick{"Pick", 4};
  pick.pieces = {kln::Piece({}), kln::ChoiceList({"x"})};  // an empty first piece adds nothing
  DbFieldSpec sum{"Sum", 7, 0, 3};
  sum.flags = 0x11;
  t.fields = {note, Number("Qty", 7), pick, sum, {"Odd", 9}};
  t.styles = {{1, 4}, {3, 2}, {1, 6}};  // a later entry for the same field wins
  const Loaded l = Load(kln::DbDocument(t));
  ASSERT_EQ(l.result, 0);
  const std::vector<Field> expected = {
      {"Note", 0, 8, 0, 0x80, 0, kln::Cat({kln::Piece(kln::Str("ab")), kln::Piece(kln::Str("c"))})},
      {"Qty", 1, 7, 0, 0, 6, {}},
      {"Pick", 4, 0, 0, 0, 0, kln::ChoiceList({"x"})},
      {"Sum", 7, 0, 3, 0x11, 2, {}},  // an empty piece adds nothing
      {"Odd", 9, 0, 0, 0, 0, {}},
  };
  EXPECT_EQ(l.fields, expected);
}

TEST(DatabaseFields, OutsideADatabaseDocumentOnlyTheFieldsAreRead) {
  DbTable t;
  t.fields = {Text("A")};
  t.values[0] = {{0, kln::DbText("v")}};
  t.records = {0};
  t.styles = {{0, 3}};
  kln::Document doc = kln::DbDocument(t);
  doc.header.docKind = 2;
  const Loaded l = Load(doc);
  EXPECT_EQ(l.result, 0);
  ASSERT_EQ(l.fields.size(), 1u);
  EXPECT_EQ(l.fields[0].styleNo, 0);
  EXPECT_TRUE(l.cells.empty());
}

TEST(DatabaseRecords, BlockNumbersWithAndWithoutTheCountBlock) {
  DbTable t;
  t.fields = {Text("A")};
  t.values[0] = {{0, kln::DbText("v")}};
  t.records = {0};
  t.count = 3;  // record list block 12, style block 17
  EXPECT_EQ(Load(kln::DbDocument(t)).cells, (std::vector<Cell>{{0, 0, 16, 0, "v"}}));

  // Without block 5 the record list is block 251; block 5 is empty here.
  t.count = 0;
  t.replace[5] = {};
  kln::DataSet d = t.build();
  kln::Out blocks;
  blocks.raw(t.fieldBlock()).u32(0).u32(0).raw(t.valueTable()).u32(0);
  for (int k = 6; k < 251; ++k) blocks.u32(0);
  blocks.raw(t.recordList());
  d.content = blocks.done();
  kln::Document doc = kln::DbDocument(t);
  doc.dataSets = {d};
  EXPECT_EQ(Load(doc).cells, (std::vector<Cell>{{0, 0, 16, 0, "v"}}));
}

TEST(DatabaseRecords, EveryValueKind) {
  DbTable t;
  DbFieldSpec pick{"Pick", 6};
  pick.pieces = {kln::ChoiceList({"red", "green"}), kln::Piece({})};
  t.fields = {Text("T"),       Number("N7", 7),          Number("N"),       {"D", 2},          {"H", 3}, pick,
              {"YN", 5},       {"C0", 7, 0, 1},          {"C2", 8, 0, 2},   {"C3", 7, 0, 3},   {"X", 9}};
  const std::string longText(300, 'w');
  t.values[0] = {{0, kln::DbText(longText)}, {1, kln::DbText("")}};
  t.values[1] = {{0, kln::DbNumber(-2.5)}};
  t.values[2] = {{0, kln::DbNumber(1e6)}};
  t.values[3] = {{0, kln::DbNumber(366)}};
  t.values[4] = {{0, kln::DbNumber(0.75)}};
  t.values[5] = {{0, kln::DbNumber(2.9)}, {1, kln::DbNumber(3)}};
  t.values[6] = {{0, kln::DbNumber(1)}, {1, kln::DbNumber(-0.5)}};
  t.values[7] = {{0, kln::DbComputedNumber(4)}, {1, kln::DbComputedText("ok")}};
  t.values[8] = {{0, kln::DbComputedNumber(5)}, {1, kln::DbComputedError()}};
  t.values[9] = {{0, kln::DbComputedNumber(0.5)}};
  t.values[10] = {{0, kln::DbNumber(1)}};
  t.records = {0, 1};
  const Loaded l = Load(kln::DbDocument(t));
  ASSERT_EQ(l.result, 0);
  const std::vector<Cell> expected = {
      {0, 0, 16, 0, longText},  // the empty text of record 1 makes no cell
      {0, 1, 11, -2.5, ""},     {0, 2, 15, 1e6, ""},  {0, 3, 13, 366, ""}, {0, 4, 14, 0.75, ""},
      {0, 5, 16, 0, "green"},   {1, 5, 16, 0, ""},    // no third entry: a text cell without text
      {0, 6, 16, 0, "1"},       {1, 6, 16, 0, "0"},   {0, 7, 12, 4, ""},   {1, 7, 16, 0, "ok"},
      {0, 8, 13, 5, ""},        {1, 8, 16, 0, "#ERROR!"}, {0, 9, 14, 0.5, ""},
      {0, 10, 0, 0, ""},        // a field without values: a cell the writer passes over
  };
  EXPECT_EQ(l.cells, expected);
  EXPECT_EQ(l.colCount, 11);
  EXPECT_EQ(l.rowCount, 2);
}

// Cells of a generated table, as the value table and the record list say
// they must come out: row i, column c holds field c's value of record i.
std::vector<Cell> Model(const DbTable &t) {
  std::vector<Cell> cells;
  for (const auto &[c, column] : t.values) {
    for (size_t i = 0; i < t.records.size(); ++i) {
      const auto v = column.find(t.records[i]);
      if (v == column.end()) continue;
      const kln::Bytes &b = v->second;
      if (c % 2 == 0)
        cells.push_back({int(i), c, 16, 0, std::string(b.begin() + 4, b.end())});
      else
        cells.push_back({int(i), c, 15, double(t.records[i]) * 0.5 + c, ""});
    }
  }
  return cells;
}

// Random record lists over a table whose columns skip chunks and slots.
TEST(DatabaseRecords, AnyRecordOrderPutsEveryValueInItsRow) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 40; ++round) {
    DbTable t;
    const int fields = 1 + int(rng() % 5), records = 1 + int(rng() % 700);
    for (int c = 0; c < fields; ++c) t.fields.push_back(c % 2 ? Number("n" + std::to_string(c)) : Text("t"));
    for (int c = 0; c < fields; ++c) {
      if (rng() % 6 == 0) continue;  // a column without values
      auto &column = t.values[uint16_t(c)];
      const uint32_t skipChunk = rng() % 12;
      for (int r = 0; r < records; ++r) {
        if (uint32_t(r / 64) == skipChunk || rng() % 5 == 0) continue;  // absent chunk, empty slot
        if (c % 2)
          column[uint32_t(r)] = kln::DbNumber(r * 0.5 + c);
        else
          column[uint32_t(r)] = kln::DbText("r" + std::to_string(r) + "c" + std::to_string(c));
      }
    }
    for (int r = 0; r < records; ++r) t.records.push_back(uint16_t(r));
    switch (round % 4) {
      case 0: std::shuffle(t.records.begin(), t.records.end(), rng); break;
      case 1: std::reverse(t.records.begin(), t.records.end()); break;
      case 2:  // chunks interleaved: one record of each chunk in turn
        std::stable_sort(t.records.begin(), t.records.end(), [](uint16_t a, uint16_t b) { return a % 64 < b % 64; });
        break;
      default:  // some records twice, some not at all, some without any value
        for (uint16_t &r : t.records) r = uint16_t(rng() % (records + 70));
        break;
    }
    const Loaded l = Load(kln::DbDocument(t));
    ASSERT_EQ(l.result, 0) << "round " << round;
    EXPECT_TRUE(l.rowsAscend) << "round " << round;
    EXPECT_EQ(l.cells, Model(t)) << "round " << round;
    EXPECT_EQ(l.rowCount, t.records.size());
  }
}

TEST(DatabaseRecords, ColumnFlagsUpToTheFieldCountAndSurplusSections) {
  DbTable t;
  t.fields = {Text("A")};
  t.values[0] = {{0, kln::DbText("a")}};
  t.values[1] = {{0, kln::DbText("b")}};  // flag 1: the table's zero element, a text field
  t.values[2] = {{0, kln::DbText("c")}};  // beyond the field count: never linked
  t.records = {0};
  const Loaded l = Load(kln::DbDocument(t));
  EXPECT_EQ(l.result, 0);
  // Only as many columns as there are fields are read.
  EXPECT_EQ(l.cells, (std::vector<Cell>{{0, 0, 16, 0, "a"}}));
}

// A block's body: what follows its length word.
kln::Bytes Body(const kln::Bytes &block) { return kln::Bytes(block.begin() + 4, block.end()); }

// A later data set builds the field table anew; the cells of the earlier
// ones stay. Its rows are its list positions, or follow the rows in use
// when its columns already hold cells.
TEST(DatabaseRecords, ALaterDataSetKeepsTheCellsOfTheEarlierOnes) {
  DbTable ab;
  ab.fields = {Text("A"), Text("B")};
  ab.values[0] = {{0, kln::DbText("a0")}, {1, kln::DbText("a1")}};
  ab.values[1] = {{0, kln::DbText("b0")}, {1, kln::DbText("b1")}};
  ab.records = {1, 0};
  DbTable onlyB = ab;
  onlyB.values.erase(0);
  const auto withoutValues = [](std::vector<DbFieldSpec> fields) {  // block 4 empty: no records
    DbTable t;
    t.fields = std::move(fields);
    kln::DataSet d = t.build(2);
    d.content = kln::Cat({t.fieldBlock(), kln::Out().u32(0).u32(0).u32(0).done()});
    return d;
  };
  const auto withValues = [](std::vector<DbFieldSpec> fields, uint16_t column, std::vector<uint16_t> records) {
    DbTable t;
    t.fields = std::move(fields);
    t.values[column] = {{0, kln::DbText("x0")}, {1, kln::DbText("x1")}};
    t.records = std::move(records);
    return t.build(2);
  };
  struct Case {
    const char *name;
    const DbTable &first;
    kln::DataSet second;
    std::string text;
  };
  const Case cases[] = {
      {"one field, no records", ab, withoutValues({Text("X")}), "\"X\"\n\"a1\",\"b1\"\n\"a0\",\"b0\""},
      {"no fields, no records", ab, withoutValues({}), "\"a1\",\"b1\"\n\"a0\",\"b0\""},
      {"records in a column in use", ab, withValues({Text("X")}, 0, {0, 1, 0}),
       "\"X\"\n\"a1\",\"b1\"\n\"a0\",\"b0\"\n\"x0\"\n\"x1\"\n\"x0\""},
      {"records in a new last column", ab, withValues({Text("X"), Text("Y"), Text("Z")}, 2, {1, 1}),
       "\"X\",\"Y\",\"Z\"\n\"a1\",\"b1\",\"x1\"\n\"a0\",\"b0\",\"x1\""},
      {"records in a new first column", onlyB, withValues({Text("X")}, 0, {0}),
       "\"X\"\n\"x0\",\"b1\"\n,\"b0\""},
  };
  for (const Case &c : cases) {
    kln::Document doc = kln::DbDocument(c.first);
    doc.dataSets.push_back(c.second);
    const kln::Result r = kln::RunStream(doc.build());
    EXPECT_EQ(r.code, 0) << c.name;
    EXPECT_EQ(r.text, c.text) << c.name;
  }
}

TEST(DatabaseRecords, ValuesOfRecordsNoRowShowsAreNotDecoded) {
  DbTable t;
  t.fields = {{"YN", 5}};
  t.values[0] = {{0, kln::DbNumber(1)}, {1, kln::DbNumber(7)}, {900, kln::DbNumber(7)}};
  t.records = {0};
  const kln::Result r = kln::RunStream(kln::DbDocument(t).build());
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "\"YN\"\n\"1\"");
  t.records = {0, 900};
  EXPECT_EQ(kln::RunStream(kln::DbDocument(t).build()).code, 3000);
}

// Documents refused, grouped by what is wrong; each from a valid table.
TEST(DatabaseFailures, BadTablesAreRefused) {
  DbTable base;
  base.fields = {Text("A"), {"YN", 5}, {"C", 7, 0, 0}};
  base.values[0] = {{0, kln::DbText("x")}, {70, kln::DbText("y")}};
  base.records = {70, 0};
  base.styles = {{0, 1}};
  ASSERT_EQ(kln::RunStream(kln::DbDocument(base).build()).code, 0);

  struct Case {
    const char *name;
    int code;
    void (*change)(DbTable &);
  };
  const Case cases[] = {
      // field definitions and extra pieces
      {"257 fields", 3000, [](DbTable &t) { t.fields.resize(257, Text("f")); }},
      {"block one byte longer than its entries", 3000,
       [](DbTable &t) {
         kln::Bytes body = Body(t.fieldBlock());
         body.resize(12 + 3 * 122 + 1);  // the pieces after the block dropped
         t.replace[1] = body;
       }},
      {"name of 63 bytes: read", 0, [](DbTable &t) { t.fields[0].nameLen = 63; }},
      {"name of 64 bytes", 12, [](DbTable &t) { t.fields[0].nameLen = 64; }},
      {"negative piece length", 3000, [](DbTable &t) { t.fields[0].pieces = {{0xFF, 0, 0, 0}}; }},
      {"empty second piece of a text field", 3000,
       [](DbTable &t) {
         t.fields[0].subKind = 8, t.fields[0].flags = 0x80;
         t.fields[0].pieces = {kln::Piece({}), kln::Piece({})};
       }},
      // blocks
      {"count block of 0", 3000, [](DbTable &t) { t.replace[5] = {0, 0}; }},
      {"no end within 256 blocks", 3000, [](DbTable &t) { t.count = 200; }},
      {"style for field 3 of 3", 3000, [](DbTable &t) { t.styles = {{3, 1}}; }},
      {"style count claiming more than the body", 3000, [](DbTable &t) { t.styleCount = 2; }},
      // record list
      {"32768 records", 3000,
       [](DbTable &t) {
         t.records.assign(32768, 0);
         t.recordEntrySize = 0;
       }},
      {"record entries past the list", 3000,
       [](DbTable &t) {
         kln::Bytes list = Body(t.recordList());
         list[7] = 40;  // entry size 40: the second entry starts past the body
         t.replace[8] = list;
       }},
      // value table
      {"value table without CTAB", 3000,
       [](DbTable &t) {
         kln::Bytes b = Body(t.valueTable());
         b[6] = 'X';
         t.replace[4] = b;
       }},
      {"column section length 1033", 3000,
       [](DbTable &t) {
         kln::Bytes b = Body(t.valueTable());
         b[5] = 9;
         t.replace[4] = b;
       }},
      {"COLM with 521 chunk flags: still read", 0, [](DbTable &t) { t.padChunkFlags = 521 - 2; }},
      {"COLM with 522 chunk flags", 3000, [](DbTable &t) { t.padChunkFlags = 522 - 2; }},
      {"chunk section without CHNK", 3000,
       [](DbTable &t) {
         kln::Bytes b = Body(t.valueTable());
         b[1038 + 20 + 4] = 'X';  // column 0: a COLM of two flags (20 bytes), then its first chunk
         t.replace[4] = b;
       }},
      {"chunk longer than the table", 3000,
       [](DbTable &t) {
         kln::Bytes b = Body(t.valueTable());
         b[1038 + 20] = 0x40;
         t.replace[4] = b;
       }},
      {"chunk of 65 values", 3000,
       [](DbTable &t) {
         kln::Bytes b = Body(t.valueTable());
         b[1038 + 20 + 9] = 65;
         t.replace[4] = b;
       }},
      // values
      {"yes/no value 2", 3000, [](DbTable &t) { t.values[1] = {{0, kln::DbNumber(2)}}; }},
      {"computed number of result type 4", 3000,
       [](DbTable &t) {
         t.fields[2].resultType = 4;
         t.values[2] = {{0, kln::DbComputedNumber(1)}};
       }},
      {"choice field without a list", 3000,
       [](DbTable &t) {
         t.fields[1].type = 4;
         t.values[1] = {{0, kln::DbNumber(1)}};
       }},
      {"text running past its chunk", 3000,
       [](DbTable &t) {
         kln::Bytes v = kln::DbText("abc");
         v.resize(v.size() - 1);
         t.values[0][0] = v;
       }},
      {"choice value without an entry (the writer)", 3000,
       [](DbTable &t) {
         t.fields[1].type = 4;
         t.fields[1].pieces = {kln::ChoiceList({"a"}), kln::Piece({})};
         t.values[1] = {{0, kln::DbNumber(2)}};
       }},
  };
  for (const Case &c : cases) {
    DbTable t = base;
    c.change(t);
    EXPECT_EQ(kln::RunStream(kln::DbDocument(t).build()).code, c.code) << c.name;
  }
}

// Whole database documents written as delimited text.
TEST(DatabaseText, HeaderLineAndEachColumnThroughItsFieldsStyle) {
  DbTable t;
  t.fields = {Text("Name"), Number("Qty", 7), Number("Price"), {"Day", 2}, {"At", 3}, {"Ok", 5}};
  t.values[0] = {{0, kln::DbText("Ann")}, {1, kln::DbText(std::string("Bob\0ignored", 11))}};
  t.values[1] = {{0, kln::DbNumber(1234.5)}};
  t.values[2] = {{0, kln::DbNumber(-3)}, {1, kln::DbNumber(2)}};
  t.values[3] = {{0, kln::DbNumber(366)}};
  t.values[4] = {{0, kln::DbNumber(0.75)}};
  t.values[5] = {{0, kln::DbNumber(1)}, {1, kln::DbNumber(0)}};
  t.records = {1, 0};
  t.styles = {{1, 1}, {3, 3}, {4, 4}};
  const kln::StyleChain styles{{{0, 0}, {1, 1}, {3, 3}, {4, 4}},
                               {{0, 0, 0, 0}, {4, 2, 1, 0}, {}, {5, 0, 0, 0}, {16, 0, 0, 0}}};
  const kln::Bytes doc = kln::DbDocument(t, styles).build();
  const auto text = [&](uint32_t flags) {
    FilterOptions opt = kln::Options("UTF-8", flags);
    opt.cellSeparator = ';';
    return kln::RunStream(doc, opt).text;
  };
  EXPECT_EQ(text(0),
            "\"Name\",\"Qty\",\"Price\",\"Day\",\"At\",\"Ok\"\n"
            "\"Bob\",,\"2\",,,\"0\"\n"
            "\"Ann\",\"1,234.50\",\"-3\",\"05/01/01\",\"18:00\",\"1\"");
  EXPECT_EQ(text(KLN_FLAG_NO_QUOTE | KLN_FLAG_SEPARATOR),  // the caller's separator
            "Name;Qty;Price;Day;At;Ok\nBob;;2;;;0\nAnn;1,234.50;-3;05/01/01;18:00;1");
  EXPECT_EQ(text(KLN_FLAG_NO_FILL | KLN_FLAG_NO_QUOTE),
            "Name,Qty,Price,Day,At,Ok\nBob,2,0\nAnn,1,234.50,-3,05/01/01,18:00,1");
}

// One record of 64 fields shown 1,000 times: every row shares the
// record's texts, so the table costs nodes in blocks and no copy of a text
// (which would be one allocation per cell).
TEST(DatabaseMemory, ARecordShownManyTimesSharesItsValues) {
  DbTable t;
  std::string header, row;
  for (int c = 0; c < 64; ++c) {
    const std::string name = "F" + std::to_string(c), value = "v" + std::to_string(c);
    t.fields.push_back(Text(name));
    t.values[uint16_t(c)] = {{0, kln::DbText(value)}};
    header += (c ? ",\"" : "\"") + name + "\"";
    row += (c ? ",\"" : "\"") + value + "\"";
  }
  t.records.assign(1000, 0);
  std::string expected = header;
  for (size_t i = 0; i < t.records.size(); ++i) expected += "\n" + row;
  const kln::Bytes doc = kln::DbDocument(t).build();
  const long before = VTQ_AllocCount();
  const kln::Result r = kln::RunStream(doc);
  EXPECT_LT(VTQ_AllocCount() - before, 1000) << "for 64,000 cells";
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, expected);
}

}  // namespace
