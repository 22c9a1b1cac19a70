#include "wp_builder.h"

namespace kln {

DataSet WpDataSet::build(uint16_t seq) const {
  Out table;
  for (const WpObject &o : objects) {
    Out e;
    e.zeros(5).u8(o.kind).zeros(4).u16(o.textLength ? *o.textLength : static_cast<uint16_t>(o.text.size()));
    e.str(o.text.substr(0, 20));
    e.zeros(32 - e.size());
    table.raw(e.done());
  }
  Out content;
  content.block(first).block(second).block(table.done());
  for (const WpObject &o : objects) {
    if (o.kind == 3) content.block(o.data);
  }
  Out index;
  int32_t total = 0;
  for (const WpTextBlock &b : blocks) {
    index.u32(static_cast<uint32_t>(b.position ? *b.position : total));
    index.u16(b.declaredLength ? *b.declaredLength : static_cast<uint16_t>(b.text.size())).zeros(4);
    total += static_cast<int32_t>(b.text.size());
  }
  content.block(index.done());
  for (const WpTextBlock &b : blocks) {
    content.u32(b.blockLength ? *b.blockLength : static_cast<uint32_t>(b.text.size())).str(b.text);
  }
  content.raw(after);
  DataSet d;
  d.kind = 1;
  d.seq = seq;
  d.content = content.done();
  return d;
}

Document WpDocument(const std::vector<WpDataSet> &sets, uint8_t docKind) {
  Document doc;
  doc.header.docKind = docKind;
  uint16_t seq = 1;
  for (const WpDataSet &s : sets) doc.dataSets.push_back(s.build(seq++));
  return doc;
}

}  // namespace kln
