#include "corpus.h"

#include "db_builder.h"
#include "ole_builder.h"
#include "ss_builder.h"
#include "vtq_txkln.h"
#include "wp_builder.h"

namespace kln {

namespace {
NamedDocument HeaderOnly() {
  Document d;
  d.header.title = "title";
  d.header.author = "\x93\xfa\x96\x7b";
  d.header.keywords = "k1 k2";
  return {"header_only", d.build()};
}

NamedDocument StyleChainOnly() {
  Document d;
  d.header.docKind = 2;
  d.trailer = StyleChain{{{0, 0}, {1, 1}}, {{0, 0, 0, 0}, {4, 2, 1, 1}}}.build();
  return {"style_chain", d.build()};
}

NamedDocument SecondVariantWithScan() {
  Document d;
  d.header.mark1 = 0x07;
  d.header.printTableFirst = 121;
  DataSet unknown;
  unknown.kind = 9;
  unknown.content = Block(Bytes(8, 1));
  d.dataSets = {unknown, unknown};
  return {"variant1_scan", d.build()};
}
// A scan for "DSET" that meets the end of the file two bytes into a tag.
NamedDocument ScanEndsInTag() {
  Header h;
  h.mark1 = 0x07;
  return {"scan_ends_in_tag", Cat({h.build(), Bytes{0, 1}, Str("xxxxDS")})};
}
NamedDocument Letter() {
  WpDataSet page;
  page.objects = {{4, "Sato"}, {3, "", std::nullopt, Bytes(12, 7)}, {4, "\x93\xfa\x96\x7b"}};
  page.blocks = {{"\x94\x71\x8c\x5b\x01" "Dear \x06,\x0b"}, {"Thanks\x02\x09" "from \x06 \x94"}, {"\x71" "end"}};
  WpDataSet second;
  second.blocks = {{"P.S."}};
  return {"letter", WpDocument({page, second}).build()};
}
NamedDocument Budget() {
  SsSheet sheet;
  sheet.cells = {SsCell::Text(0, 0, "\x97\x5c\x8e\x5a"), SsCell::Text(0, 1, "Q1"),  SsCell::Int16(1, 1, 1200, 1),
                 SsCell::Float(2, 1, 0.125, 2),            SsCell::Int32(70, 2, 33000, 3),
                 SsCell::Formula(71, 2, 2, LeDouble(34000.5), 4), SsCell::Bool(72, 0, 1), SsCell::Error(73, 0, 2)};
  StyleChain styles{{{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}},
                    {{0, 0, 0, 0}, {1, 0, 1, 0}, {2, 1, 0, 0}, {11, 0, 0, 0}, {15, 0, 0, 0}}};
  return {"budget", SsDocument(sheet, styles).build()};
}
// A drawing between two pages: a framed shape, a packaged note, a
// CONTENTS text and a packaged letter, extracted.
NamedDocument Drawing() {
  WpDataSet page;
  page.blocks = {{"See the note:"}};
  DrawingDataSet drawing;
  drawing.objects = {{8, 0, {}, {}},
                     DrawingObject::Ole(PackagedObject(Str("Note: \x93\xfa\x96\x7b\r\n"))),
                     DrawingObject::Ole(CompoundFile({{"CONTENTS", Str("caf\xe9")}})),
                     {1, 1, {}, {}},
                     DrawingObject::Ole(PackagedObject(Letter().bytes, "letter.kln"))};
  Document d = WpDocument({page});
  d.dataSets.push_back(drawing.build(2));
  return {"drawing", d.build(), KLN_FLAG_OLE_EXTRACT};
}
// A member list: every kind of field, records shown out of number order
// across chunks and one twice, an absent chunk and empty slots, styled
// columns.
NamedDocument Members() {
  DbTable t;
  DbFieldSpec pick{"Plan", 4};
  pick.pieces = {ChoiceList({"basic", "\x93\xc1\x95\xca"}), Piece({})};
  DbFieldSpec note{"Note", 0, 8, 0, 0x80};
  note.pieces = {Piece(Str("n")), Piece(Str("m"))};
  t.fields = {{"\x96\xbc\x91\x4f"}, {"Fee", 1, 7}, {"Joined", 2}, {"At", 3}, pick, {"Paid", 5}, {"Due", 7, 0, 2},
              {"Tag", 8}, note};
  for (uint32_t r : {0u, 1u, 70u, 200u}) {
    t.values[0][r] = DbText("member " + std::to_string(r));
    t.values[1][r] = DbNumber(1250.5 * r);
    t.values[5][r] = DbNumber(r % 2);
  }
  t.values[2] = {{0, DbNumber(40000)}, {200, DbNumber(366)}};
  t.values[3] = {{1, DbNumber(0.5)}};
  t.values[4] = {{0, DbNumber(1)}, {70, DbNumber(2)}};
  t.values[6] = {{0, DbComputedNumber(41000.25)}};
  t.values[7] = {{0, DbComputedText("ok")}, {1, DbComputedError()}};
  t.values[8] = {{70, DbText(std::string(260, 'x'))}};
  t.records = {200, 70, 1, 0, 3, 70};
  t.styles = {{1, 1}, {2, 2}, {3, 3}};
  const StyleChain styles{{{0, 0}, {1, 1}, {2, 2}, {3, 3}}, {{0, 0, 0, 0}, {4, 2, 1, 1}, {8, 0, 0, 0}, {15, 0, 0, 0}}};
  return {"members", DbDocument(t, styles).build()};
}
}  // namespace

std::vector<NamedDocument> Corpus() {
  return {HeaderOnly(), StyleChainOnly(), SecondVariantWithScan(), ScanEndsInTag(), Letter(), Budget(), Members(), Drawing()};
}

}  // namespace kln
