// The style table after the data sets: the map from style numbers to
// cell styles and the lookup the formatter uses.
#include <gtest/gtest.h>

#include "klnfile.h"
#include "sschange.h"
#include "test_support.h"

using kln::Bytes;
using kln::StyleChain;

namespace {

struct Styles {
  int result;
  std::vector<uint16_t> map;
  std::vector<std::array<int, 4>> cells;  // format, decimals, grouping, parentheses
  std::vector<int> lookups;               // cell-style index found for style numbers 0..11, -1 none
};

Styles Load(const StyleChain &chain, uint8_t docKind = 2) {
  kln::Document doc;
  doc.header.docKind = docKind;
  doc.dataSets = {kln::DataSet{}};
  doc.dataSets[0].kind = 9;  // skipped: the walk ends behind "FNTM"
  doc.trailer = chain.build();
  kln::OpenedContext ctx(doc.build());
  EXPECT_EQ(ctx.walk(), 0);
  Styles s{};
  s.result = GetStyleInfo(ctx.get());
  for (int i = 0; i < ctx->styleMapCount; ++i) s.map.push_back(ctx->styleMap[i]);
  for (int i = 0; i < ctx->cellStyleCount && ctx->cellStyles; ++i) {
    const CellStyle &c = ctx->cellStyles[i];
    s.cells.push_back({c.formatCode, c.decimals, c.thousandsSep, c.negativeInParens});
  }
  for (uint16_t n = 0; n < 12; ++n) {
    const CellStyle *c = LookupCellStyle(ctx.get(), n);
    s.lookups.push_back(c ? int(c - ctx->cellStyles) : -1);
  }
  return s;
}

TEST(StyleTable, MapsStyleNumbersToCellStyles) {
  const StyleChain chain{{{0, 1}, {1, 0}, {5, 2}, {1, 3}, {6, 4}},
                         {{0, 0, 0, 0}, {4, 2, 1, 1}, {16, 0, 0, 0}, {3, 1, 0, 0}}};
  const Styles s = Load(chain);
  EXPECT_EQ(s.result, 0);
  // Style 5 grows the map; the later entry for style 1 wins; unset slots read 0.
  EXPECT_EQ(s.map, (std::vector<uint16_t>{1, 3, 0, 0, 0, 2, 4}));
  EXPECT_EQ(s.cells, (std::vector<std::array<int, 4>>{{0, 0, 0, 0}, {4, 2, 1, 1}, {16, 0, 0, 0}, {3, 1, 0, 0}}));
  // Beyond the map: cell style 0; beyond the cell styles: the last one.
  EXPECT_EQ(s.lookups, (std::vector<int>{1, 3, 0, 0, 0, 2, 3, 0, 0, 0, 0, 0}));
}

TEST(StyleTable, WithoutCellRecordNothingIsFound) {
  StyleChain chain{{{0, 0}}, {}};
  chain.withCell = false;
  const Styles s = Load(chain);
  EXPECT_EQ(s.result, 0);
  EXPECT_TRUE(s.cells.empty());
  EXPECT_EQ(s.lookups[0], -1);
  // The "CELL" record is read only in spreadsheet and database documents.
  const Styles wp = Load(StyleChain{{{0, 0}}, {{4, 0, 0, 0}}}, 0);
  EXPECT_EQ(wp.result, 0);
  EXPECT_TRUE(wp.cells.empty());
}

TEST(StyleTable, SectionsBeforeTheStyleKeyArePassedOver) {
  StyleChain one{{{0, 0}}, {{4, 0, 0, 0}}};
  one.keyNextTable = "XXXX";
  one.beforeRecords = kln::Block(kln::Str("abcdSTYL"));  // its last four bytes are the key
  EXPECT_EQ(Load(one).cells.size(), 1u);
  StyleChain two = one;
  two.beforeRecords = kln::Cat({kln::Block(kln::Str("abcd")), kln::Block(kln::Str("efgh"))});
  EXPECT_EQ(Load(two).result, 0);  // after two sections the walk goes on all the same
  StyleChain other{{{0, 0}}, {{4, 0, 0, 0}}};
  other.extraRecords = {kln::StyleRecord("MISC", 0, 0, {}, 16)};
  EXPECT_EQ(Load(other).cells.size(), 1u);
}

TEST(StyleTable, MalformedTablesFail) {
  struct Case {
    const char *name;
    StyleChain chain;
    int result;
  };
  StyleChain stylOverrun{{{0, 0}, {1, 0}}, {{}}};
  stylOverrun.stylCount = 3;  // more entries than the body holds
  StyleChain cellOverrun{{{0, 0}}, {{}, {}}};
  cellOverrun.cellCount = 5;
  StyleChain badFirst{{{0, 0}}, {{}}};
  badFirst.keyNextTable = "STYL";
  badFirst.beforeRecords = kln::StyleRecord("NAME", 0, 0, {}, 16);
  StyleChain endless{{}, {}};
  endless.withCell = false;
  for (int i = 0; i < 300; ++i) endless.extraRecords.push_back(kln::StyleRecord("MISC", 0, 0, {}, 16));
  const Case cases[] = {
      {"STYL entries past the body", stylOverrun, 3000},
      {"CELL entries past the body", cellOverrun, 3000},
      {"first record not STYL", badFirst, 3000},
      {"no NAME among 257 records", endless, 3000},
  };
  for (const Case &c : cases) EXPECT_EQ(Load(c.chain).result, c.result) << c.name;

  // A record whose body is shorter than its header.
  StyleChain shortCell{{{0, 0}}, {}};
  shortCell.withCell = false;
  shortCell.extraRecords = {kln::Block(kln::Out().u16(1).zeros(4).u16(10).zeros(4).tag("CELL").done())};
  EXPECT_EQ(Load(shortCell).result, 3000);
}

}  // namespace
