#include "db_builder.h"

#include "ss_builder.h"

namespace kln {

namespace {
Bytes Value(uint16_t size, uint8_t flags, uint8_t len, const Bytes &data) {
  return Out().u16(size).u8(flags).u8(len).raw(data).done();
}

// The pieces a type calls for, each empty (a second piece of a text-like
// field must not be empty: one byte).
std::vector<Bytes> DefaultPieces(const DbFieldSpec &f) {
  switch (f.type) {
    case 0:
    case 5:
    case 7:
    case 8:
      if (f.subKind == 8 && (f.flags & 0x80)) return {Piece({}), Piece({0})};
      return {Piece({})};
    case 4:
    case 6:
      return {Piece({}), Piece({})};
    default:
      return {};
  }
}

}  // namespace

Bytes DbText(const std::string &text) {
  const auto n = static_cast<uint32_t>(text.size());
  return Value(static_cast<uint16_t>(2 + n), static_cast<uint8_t>((n >> 8) & 1), static_cast<uint8_t>(n), Str(text));
}
Bytes DbNumber(double v) { return Value(12, 0, 0, Extended(v)); }
Bytes DbComputedNumber(double v) { return Value(12, 0x80, 0, Extended(v)); }
Bytes DbComputedText(const std::string &text) {
  return Value(static_cast<uint16_t>(3 + text.size()), 0, static_cast<uint8_t>(text.size()), Str(text));
}
Bytes DbComputedError() { return Value(2, 0, 0, {}); }

Bytes Piece(const Bytes &bytes) { return Block(bytes); }

Bytes ChoiceList(const std::vector<std::string> &entries) {
  Out o;
  for (const std::string &e : entries) o.u8(static_cast<uint32_t>(e.size())).str(e);
  return Piece(o.done());
}

Bytes DbTable::fieldBlock() const {
  Out body;
  body.u16(static_cast<uint32_t>(fields.size())).zeros(4).u16(fieldEntrySize).zeros(4);
  for (const DbFieldSpec &f : fields) {
    Bytes e(fieldEntrySize, 0);
    auto put = [&e](size_t at, uint8_t v) {
      if (at < e.size()) e[at] = v;
    };
    put(0, f.nameLen ? *f.nameLen : static_cast<uint8_t>(f.name.size()));
    for (size_t i = 0; i < f.name.size(); ++i) put(1 + i, static_cast<uint8_t>(f.name[i]));
    put(64, f.type);
    put(70, f.resultType);
    put(118, f.flags);
    put(121, f.subKind);
    body.raw(e);
  }
  Out o;
  o.block(body.done());
  for (const DbFieldSpec &f : fields) {
    for (const Bytes &p : f.pieces ? *f.pieces : DefaultPieces(f)) o.raw(p);
  }
  return o.done();
}

Bytes DbTable::valueTable() const {
  SlotRecords columns;
  for (const auto &[field, column] : values) {
    auto &chunks = columns[field];
    for (const auto &[record, v] : column) chunks[record / 64][static_cast<uint16_t>(record % 64)] = v;
  }
  return CellTableBuffer(columns, 0, 0, padChunkFlags);
}

Bytes DbTable::recordList() const {
  Out body;
  body.u16(static_cast<uint32_t>(records.size())).zeros(4).u16(recordEntrySize).zeros(14);
  for (uint16_t r : records) {
    Bytes e(recordEntrySize, 0);
    if (e.size() > 0) e[0] = static_cast<uint8_t>(r >> 8);
    if (e.size() > 1) e[1] = static_cast<uint8_t>(r);
    body.raw(e);
  }
  return Block(body.done());
}

Bytes DbTable::styleBlock() const {
  Out body;
  body.u16(styleCount ? *styleCount : static_cast<uint32_t>(styles.size())).zeros(4).u16(styleEntrySize).zeros(12);
  for (const auto &[field, style] : styles) {
    Bytes e(styleEntrySize, 0);
    Out entry;
    entry.u16(field).zeros(2).u16(style);
    const Bytes eb = entry.done();
    for (size_t i = 0; i < e.size() && i < eb.size(); ++i) e[i] = eb[i];
    body.raw(e);
  }
  if (body.size() < 21) body.zeros(21 - body.size());
  return Block(body.done());
}

DataSet DbTable::build(uint16_t seq) const {
  const int recordBlock = 2 * count + 6, styleNo = 2 * count + 11;
  Out o;
  for (int k = 1; k <= styleNo; ++k) {
    if (replace.count(k)) {
      const Bytes &body = replace.at(k);
      // The value table's length counts its own four bytes.
      o.u32(static_cast<uint32_t>(body.size() + (k == 4 ? 4 : 0))).raw(body);
      continue;
    }
    if (k == 1)
      o.raw(fieldBlock());
    else if (k == 4)
      o.raw(valueTable());
    else if (k == 5)
      o.block(Out().u16(count).done());
    else if (k == recordBlock)
      o.raw(recordList());
    else if (k == styleNo)
      o.raw(styleBlock());
    else
      o.block(Bytes(k % 3 == 0 ? 0 : 6, 0x11));  // blocks not used here, some empty
  }
  DataSet d;
  d.kind = 3;
  d.seq = seq;
  d.content = o.done();
  return d;
}

Document DbDocument(const DbTable &table, const StyleChain &styles) {
  return TableDocument(3, table.build(), styles);
}

}  // namespace kln
