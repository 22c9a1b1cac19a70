// Reader layer: spreadsheet data sets, cell values, formatting, dates, and
// the cell writer that the driver's last stage runs.
#pragma once

#include "kln_context.h"

// Appends a zeroed node to the column list: the old spare node becomes the
// head of `column`, the new node the spare. 3000 when the node cannot be
// had or the list is full.
int LinkColumn(ConvContext *ctx, uint16_t column);
// A copy of the n bytes at `at` of v (zeros beyond its end) as an owned
// NUL-terminated string; null when out of memory.
char *OwnedText(const ByteView &v, size_t at, size_t n);

// Loads the first spreadsheet data set of a spreadsheet document into the
// CellTable; answers 0x9700, 0x9800 or an error code.
int GetSsDSET(ConvContext *ctx);
// Builds the column list from the cell-table buffer `buf` (its length
// field first; `length` counts that field) and stores every chunk's cells.
int ssCtabcov(const ByteView &buf, int64_t length, ConvContext *ctx);
// Stores the cells of one chunk (`chunk` starts at its "CHNK" tag) of
// `column`. *tail, when set, is the node to fill (the column's last node
// while its chunks ascend); on return it is the column's new last node.
int ssGetCellData(const ByteView &chunk, ConvContext *ctx, int32_t column, uint32_t chunkNo, CellNode **tail);
extern const char *const ssERR[10];

// The cell style of a style number, or null when the document has none.
const CellStyle *LookupCellStyle(const ConvContext *ctx, uint16_t styleNo);
// Builds the cell styles from a "CELL" record (its length word first; the
// body declares bodyLen bytes of which `held` were read).
int GetCellStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen, size_t held);
// Breaks a date serial down (serial in, everything else out).
void caldate(CalDate *cd);
extern const char JapanYear[4][10], BJapanYear[4][10], JapanWeek[7][10], JWeek[7][10];
extern const int16_t jpnyear[4];
extern const int32_t jpndate[3];

// Appends the cell value formatted by its style to out at *outLen (room
// for 49 bytes and two quotes); 0 or 3000.
int GetSSFormat(ConvContext *ctx, double value, uint16_t kind, uint16_t style, char *out, size_t *outLen);

// The format code a number cell of this kind and style is written with
// (5 to 13 dates, 14 to 17 times); -1 when the document has no cell styles.
int CellFormatCode(const ConvContext *ctx, uint16_t kind, uint16_t style);

// One cell of a row, formatted as the delimited writer writes it.
struct RowCell {
  uint16_t column;
  uint16_t kind;   // the cell table's kind
  uint16_t style;  // the style it is formatted with
  int failed;      // not 0: formatting failed with this code, and the table ends at this cell
  size_t at;       // its text: CellRow::text[at, at + length), in the document's set,
  size_t length;   // between quotes when the writer quotes
};

// The present cells of one table row, in column order.
struct CellRow {
  uint16_t number;
  const RowCell *cells;
  size_t count;
  const uint8_t *text;
};

// Takes a table row by row. Every answer but 0 ends the walk with it.
class RowConsumer {
 public:
  virtual int start() = 0;  // before the first row
  virtual int row(const CellRow &row) = 0;

 protected:
  ~RowConsumer() = default;
};

// Walks the CellTable row by row into `out`: start(), then each row with
// present cells. Answers 0 or the first failure.
int WalkCellRows(ConvContext *ctx, RowConsumer &out);

// The delimited text writer: the database's field names as the first
// line, then the rows, through comm_write.
class DelimitedWriter final : public RowConsumer {
 public:
  explicit DelimitedWriter(ConvContext *ctx);
  int start() override;
  int row(const CellRow &row) override;

 private:
  int WriteFieldNames();
  int WrtSSBlank(int row, int column);
  int Append(const uint8_t *bytes, size_t n);
  int Flush();

  ConvContext *ctx_;
  char separator_;
  bool quote_;
  bool fill_;
  VtqPtr<uint8_t> prefix_;  // the line feeds and separators before a cell
  VtqBuffer pending_;       // the row's bytes not yet written
  size_t pendingLen_ = 0;
  int prevRow_ = -1;
  int prevColumn_ = -1;
};

// Writes the CellTable as delimited text.
int PutSSVtqTxt(ConvContext *ctx);
