// Spreadsheet data sets, cell values, formatting, dates, the cell writer.
#pragma once

#include "klnmain.h"

// Appends a zeroed node to the column list: the old tail becomes the head
// of `column`, the new node the tail. 3000 when the node cannot be had.
int LinkColumn(ConvContext *ctx, CellNode **tail, uint16_t column);
// The spare node that ends the column list.
CellNode *ColumnListTail(ConvContext *ctx);
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
extern const int8_t monthday[12];

// Appends the cell value formatted by its style to out at *outLen (room
// for 49 bytes and two quotes); 0 or 3000.
int GetSSFormat(ConvContext *ctx, double value, uint16_t kind, uint16_t style, char *out, size_t *outLen);

// Writes the CellTable as delimited text.
int PutSSVtqTxt(ConvContext *ctx);
