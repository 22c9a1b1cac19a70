#include "kln_builder.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace kln {

Out &Out::u8(uint32_t v) {
  b_.push_back(static_cast<uint8_t>(v));
  return *this;
}
Out &Out::u16(uint32_t v) { return u8(v >> 8).u8(v); }
Out &Out::u32(uint32_t v) { return u16(v >> 16).u16(v); }
Out &Out::tag(std::string_view four) {
  for (size_t i = 0; i < 4; ++i) u8(i < four.size() ? static_cast<uint8_t>(four[i]) : 0);
  return *this;
}
Out &Out::str(std::string_view s) {
  b_.insert(b_.end(), s.begin(), s.end());
  return *this;
}
Out &Out::raw(const Bytes &b) {
  b_.insert(b_.end(), b.begin(), b.end());
  return *this;
}
Out &Out::zeros(size_t n) {
  b_.insert(b_.end(), n, 0);
  return *this;
}
Out &Out::block(const Bytes &body) { return u32(static_cast<uint32_t>(body.size())).raw(body); }

Bytes Block(const Bytes &body) { return Out().block(body).done(); }

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes &p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

Bytes Str(std::string_view s) { return Bytes(s.begin(), s.end()); }

namespace {
void TextRecord(Out &o, const std::optional<std::string> &text) {
  if (!text) {
    o.u32(0);
    return;
  }
  if (text->size() > 255) throw std::invalid_argument("header text longer than 255 bytes");
  o.u32(static_cast<uint32_t>(text->size()) + 1).u8(static_cast<uint32_t>(text->size())).str(*text);
}

void Sized(Out &o, const Bytes &body) { o.block(body); }
}  // namespace

Bytes Header::build() const {
  Out o;
  o.u8(mark0).u8(mark1).zeros(2);
  o.tag(signature);
  o.zeros(262 - 8);  // fixed fields up to the document kind
  o.u8(docKind);     // offset 262
  o.zeros(344 - 263);
  TextRecord(o, title);
  TextRecord(o, docClass);
  TextRecord(o, description);
  TextRecord(o, author);
  TextRecord(o, version);
  TextRecord(o, keywords);
  Sized(o, dbPath);
  Bytes print(124, 0);
  print[0] = static_cast<uint8_t>(uint32_t(printTableFirst) >> 24);
  print[1] = static_cast<uint8_t>(uint32_t(printTableFirst) >> 16);
  print[2] = static_cast<uint8_t>(uint32_t(printTableFirst) >> 8);
  print[3] = static_cast<uint8_t>(printTableFirst);
  o.raw(print);
  if (printTableFirst > 120) return o.done();
  Sized(o, table3);
  Sized(o, palette);
  o.zeros(32);  // table5
  o.block(table6);
  if (!table6.empty()) {
    o.u32(0);  // M
    size_t k = table6.size() >= 16 ? (table6.size() - 16) / 4 : 0;
    for (size_t i = 0; i < k; ++i) o.u32(0).u32(0);
  }
  o.zeros(26 + 2 + 20 + 324);
  return o.done();
}

Bytes DataSet::record() const {
  Bytes body = recordBody;
  if (body.size() < 16) body.resize(16, 0);
  body[10] = variant;  // record offset 14
  body[12] = kind;     // record offset 16
  body[14] = static_cast<uint8_t>(seq >> 8);
  body[15] = static_cast<uint8_t>(seq);
  return Block(body);
}

Bytes StyleRecord(std::string_view tag, uint16_t count, uint16_t entrySize, const Bytes &entries,
                  size_t entriesAt) {
  Out body;
  body.u16(count).zeros(4).u16(entrySize).zeros(4).tag(tag);
  body.zeros(entriesAt - body.size());
  body.raw(entries);
  return Block(body.done());
}

Bytes StyleChain::build() const {
  Out o;
  o.block(Bytes(8, 0));                // FNTM body
  o.tag("CUTS").block(Bytes(4, 0));
  o.tag("DSUM").block(Bytes(4, 0));
  o.tag("HDNI").u32(8).zeros(4);       // HDNI length counts itself
  o.tag(keyNextTable).raw(beforeRecords);
  Out stylEntries;
  for (const StyleEntry &s : styles) {
    Out e;
    e.u16(s.styleNo).zeros(10).u16(s.cellStyle);
    e.zeros(stylEntrySize > e.size() ? stylEntrySize - e.size() : 0);
    stylEntries.raw(e.done());
  }
  o.raw(StyleRecord("STYL", stylCount ? *stylCount : static_cast<uint16_t>(styles.size()), stylEntrySize, stylEntries.done(), 90));
  for (const Bytes &r : extraRecords) o.raw(r);
  if (withCell) {
    Out cellEntries;
    for (const CellStyleSpec &c : cellStyles) {
      Out e;
      e.zeros(4).u8(c.formatCode).u8(c.decimals).zeros(2).u8(c.thousandsSep).u8(c.negativeInParens);
      e.zeros(cellEntrySize > e.size() ? cellEntrySize - e.size() : 0);
      cellEntries.raw(e.done());
    }
    o.raw(StyleRecord("CELL", cellCount ? *cellCount : static_cast<uint16_t>(cellStyles.size()), cellEntrySize, cellEntries.done(), 28));
  }
  o.raw(StyleRecord("NAME", 0, 0, {}, 16));
  return o.done();
}

Bytes Document::build() const {
  Out o;
  o.raw(header.build());
  o.u16(dsetCount ? *dsetCount : static_cast<uint16_t>(dataSets.size()));
  if (dataSets.empty()) o.tag("DSET");
  for (const DataSet &d : dataSets) o.tag("DSET").raw(d.record()).raw(d.content);
  if (endWithFntm) o.tag("FNTM").raw(trailer);
  return o.done();
}

Document TableDocument(uint8_t docKind, DataSet set, const StyleChain &styles) {
  Document doc;
  doc.header.docKind = docKind;
  doc.dataSets = {std::move(set)};
  doc.trailer = styles.build();
  return doc;
}

void WriteFile(const std::string &path, const Bytes &bytes) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot write " + path);
  size_t n = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
  if (n != bytes.size()) throw std::runtime_error("short write to " + path);
}

}  // namespace kln
