// Spreadsheet data sets: the cell-table buffer with its CTAB, COLM and
// CHNK records and the cell records.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kln_builder.h"

namespace kln {

// The 80-bit extended value of d, most significant byte first.
Bytes Extended(double d);
Bytes Le16(uint16_t v);
Bytes Le32(uint32_t v);
Bytes LeDouble(double d);

// The cell-table buffer of spreadsheets and databases alike: a count
// word, CTAB with its two header words and 256 column flags, then per
// column a COLM of chunk flags (padded with padChunkFlags zero flags) and a
// CHNK per present chunk whose 64 slot offsets point at the slot records.
// Its length word counts itself.
using SlotRecords = std::map<uint16_t, std::map<uint32_t, std::map<uint16_t, Bytes>>>;  // column, chunk, slot
Bytes CellTableBuffer(const SlotRecords &columns, uint16_t ctabColumn, uint16_t ctabRow,
                      uint32_t padChunkFlags = 0);

struct SsCell {
  uint16_t row = 0, column = 0;
  uint8_t kind = 0;
  uint16_t style = 0;
  Bytes data;                             // the record's data after the style number
  std::optional<uint16_t> recordLength;   // default: 4 + data size

  static SsCell Int16(uint16_t row, uint16_t col, int16_t v, uint16_t style = 0);
  static SsCell Int32(uint16_t row, uint16_t col, int32_t v, uint16_t style = 0);
  static SsCell Float(uint16_t row, uint16_t col, double v, uint16_t style = 0);
  static SsCell Text(uint16_t row, uint16_t col, const std::string &text, uint16_t style = 0);
  static SsCell Bool(uint16_t row, uint16_t col, uint8_t v);
  static SsCell Error(uint16_t row, uint16_t col, uint8_t number);
  // A formula with a stored expression of `expression` bytes and its
  // cached result laid out as `cached`.
  static SsCell Formula(uint16_t row, uint16_t col, uint8_t resultKind, const Bytes &cached, uint16_t style = 0,
                        size_t expression = 3);
};

struct SsSheet {
  std::vector<SsCell> cells;
  std::optional<uint16_t> lastColumn, lastRow;  // default: the largest in `cells`
  Bytes tableBuffer() const;                    // length word (counting itself) and body
  DataSet build(uint16_t seq = 1) const;        // two leading buffers, the table, one more
};

// A spreadsheet document: the sheet's data set, then the style chain.
Document SsDocument(const SsSheet &sheet, const StyleChain &styles = StyleChain{{{0, 0}}, {{}}});

}  // namespace kln
