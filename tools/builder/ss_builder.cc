#include "ss_builder.h"

#include <cmath>
#include <cstring>
#include <map>

namespace kln {

Bytes Extended(double d) {
  Out o;
  if (d == 0) return Bytes(10, 0);
  int e;
  const double m = std::frexp(std::fabs(d), &e);  // |d| = m * 2^e, 0.5 <= m < 1
  const uint64_t significand = static_cast<uint64_t>(std::ldexp(m, 64));
  o.u16((d < 0 ? 0x8000u : 0u) | static_cast<uint32_t>(e - 1 + 16383));
  o.u32(static_cast<uint32_t>(significand >> 32)).u32(static_cast<uint32_t>(significand));
  return o.done();
}

Bytes Le16(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }
Bytes Le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
Bytes LeDouble(double d) {
  Bytes b(8);
  std::memcpy(b.data(), &d, 8);
  return b;
}

namespace {
SsCell Make(uint16_t row, uint16_t col, uint8_t kind, Bytes data, uint16_t style = 0) {
  SsCell c;
  c.row = row;
  c.column = col;
  c.kind = kind;
  c.style = style;
  c.data = std::move(data);
  return c;
}
}  // namespace

SsCell SsCell::Int16(uint16_t row, uint16_t col, int16_t v, uint16_t style) {
  return Make(row, col, 0, Out().u16(static_cast<uint16_t>(v)).done(), style);
}
SsCell SsCell::Int32(uint16_t row, uint16_t col, int32_t v, uint16_t style) {
  return Make(row, col, 1, Out().u32(static_cast<uint32_t>(v)).done(), style);
}
SsCell SsCell::Float(uint16_t row, uint16_t col, double v, uint16_t style) {
  return Make(row, col, 2, Extended(v), style);
}
SsCell SsCell::Text(uint16_t row, uint16_t col, const std::string &text, uint16_t style) {
  return Make(row, col, 3, Out().u8(static_cast<uint32_t>(text.size())).str(text).done(), style);
}
SsCell SsCell::Bool(uint16_t row, uint16_t col, uint8_t v) { return Make(row, col, 5, {v}); }
SsCell SsCell::Error(uint16_t row, uint16_t col, uint8_t number) { return Make(row, col, 6, {number}); }
SsCell SsCell::Formula(uint16_t row, uint16_t col, uint8_t resultKind, const Bytes &cached, uint16_t style,
                       size_t expression) {
  Out d;
  d.u8(resultKind).u8(0).u8(static_cast<uint32_t>(expression)).u8(0).zeros(expression).raw(cached);
  return Make(row, col, 4, d.done(), style);
}

Bytes CellTableBuffer(const SlotRecords &columns, uint16_t ctabColumn, uint16_t ctabRow, uint32_t padChunkFlags) {
  Out body;
  body.u16(0);  // count, not used
  body.u32(1032).tag("CTAB").u16(ctabColumn).u16(ctabRow);
  for (int i = 0; i < 256; ++i) body.u32(columns.count(static_cast<uint16_t>(i)) ? 1 : 0);
  for (const auto &[column, chunks] : columns) {
    const uint32_t first = chunks.empty() ? 0 : chunks.begin()->first;
    const uint32_t flags = chunks.empty() ? 0 : chunks.rbegin()->first - first + 1;
    body.u32(8 + 4 * (flags + padChunkFlags)).tag("COLM").u16(first).u16(chunks.empty() ? 0 : first + flags - 1);
    for (uint32_t q = first; q < first + flags; ++q) body.u32(chunks.count(q) ? 1 : 0);
    body.zeros(4 * size_t(padChunkFlags));
    for (const auto &[chunk, slots] : chunks) {
      Out records;
      std::vector<uint16_t> offsets(64, 0);
      for (const auto &[slot, record] : slots) {
        offsets[slot] = static_cast<uint16_t>(140 + records.size());
        records.raw(record);
      }
      Out chnk;
      chnk.tag("CHNK").u16(static_cast<uint32_t>(slots.size())).zeros(6);
      for (uint16_t off : offsets) chnk.u16(off);
      chnk.raw(records.done());
      body.block(chnk.done());
    }
  }
  const Bytes b = body.done();
  return Out().u32(static_cast<uint32_t>(b.size() + 4)).raw(b).done();
}

Bytes SsSheet::tableBuffer() const {
  uint16_t maxCol = 0, maxRow = 0;
  SlotRecords columns;
  for (const SsCell &c : cells) {
    maxCol = std::max(maxCol, c.column);
    maxRow = std::max(maxRow, c.row);
    Out record;
    record.u16(c.recordLength ? *c.recordLength : static_cast<uint16_t>(4 + c.data.size()));
    record.u8(c.kind).u8(0).u16(c.style).raw(c.data);
    columns[c.column][c.row / 64][c.row % 64] = record.done();
  }
  return CellTableBuffer(columns, lastColumn ? *lastColumn : maxCol, lastRow ? *lastRow : maxRow);
}

DataSet SsSheet::build(uint16_t seq) const {
  DataSet d;
  d.kind = 2;
  d.seq = seq;
  d.content = Cat({Block(Bytes(10, 0)), Block(Bytes(6, 0)), tableBuffer(), Block(Bytes(4, 0))});
  return d;
}

Document SsDocument(const SsSheet &sheet, const StyleChain &styles) {
  return TableDocument(2, sheet.build(), styles);
}

}  // namespace kln
