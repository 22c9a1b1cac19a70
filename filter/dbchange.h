// Reader layer: database data sets: field definitions, the value table
// and the record list brought into the CellTable, and the fields' styles.
#pragma once

#include "kln_context.h"

// Reads one database data set; answers 0x9700, 0x9800 or an error code.
// Builds the field table (any document kind); in a database document it
// also brings the records into the CellTable and sets the fields' styles.
int GetDbDSET(ConvContext *ctx);

// The event kind (KLN_CELL_...) of a text value of field f: a choice, a
// yes/no or a text.
int32_t DbTextKind(const DbField &f);

// Builds dbFields / dbFieldCount from the field-definition block (`block`:
// its length word, then the body as read; `length` is the declared body
// length + 4) and reads the fields' extra pieces that follow it in the
// file. Replaces a table built before. 0, 12 or 3000.
int dbFieldSet(const ByteView &block, int64_t length, ConvContext *ctx);

// Sets the styleNo of the fields the style block names (its length word,
// then the body as read; `length` is the declared body length + 4).
// 0 or 3000.
int GetDBStyle(const ByteView &block, int64_t length, ConvContext *ctx);

// Brings the values of the value table into the CellTable, one row per
// entry of the record list, in list order. Both blocks are given with
// their length word first and their bodies as read. 0, 12 or 3000.
int dbCtabcov(const ByteView &recordList, ConvContext *ctx, const ByteView &valueTable);

// Where each entry of a choice field's list starts in the field's extra
// data, so that a value finds its text in one step whatever the list's
// length.
struct DbChoiceList {
  VtqPtr<uint32_t> starts;
  uint32_t count = 0;
};
// Indexes the list of field f (the first extra piece: its length word P,
// then entries of one length byte and that many bytes up to P + 4; an
// entry cut by the list's end is none). 0 or 12.
int dbChoiceIndex(const DbField &f, DbChoiceList *list);

// Decodes one stored value (`value` starts at it and ends with its chunk)
// of the field cell->column into cell's kind, value and text; `choices`
// is that field's list when it is a choice field. 0, 12, 3000, or
// kDbNoValue when the value holds nothing (no cell).
constexpr int kDbNoValue = -1;
int GetDBBody(const ByteView &value, CellNode *cell, ConvContext *ctx, const DbChoiceList &choices);

// The values of one column, keyed by record number from their chunk and
// slot, held from the column's first chunk until it is placed in
// record-list order. Owns the entries; their texts are in the table's
// text arena.
class DbHeldValues {
 public:
  struct Entry {
    CellNode cell;  // row: the record number; column: the field
  };
  DbHeldValues() = default;
  DbHeldValues(const DbHeldValues &) = delete;
  DbHeldValues &operator=(const DbHeldValues &) = delete;
  ~DbHeldValues() { clear(); }
  // Sets the store up for record numbers 0 to lastRecord; false when out
  // of memory.
  bool init(uint32_t lastRecord);
  uint32_t lastRecord() const { return lastRecord_; }
  // Room for n values; false when out of memory.
  bool reserve(size_t n);
  // A zeroed entry at the end, kept only by keep(); reserve() made room.
  Entry &next();
  void keep();
  // The entry of a record number, or null when it has no value.
  Entry *find(uint16_t record) const;
  size_t count() const { return count_; }
  // Forgets every entry.
  void clear();

 private:
  VtqPtr<Entry> entries_;
  VtqPtr<uint32_t> byRecord_;  // by record number: entry index + 1; 0: no value
  uint32_t lastRecord_ = 0;
  size_t capacity_ = 0, count_ = 0;
};

// Holds the values of one chunk (`chunk` starts at its "CHNK" tag) of
// field `column`, chunk number `chunkNo`, as far as the record list
// reaches. 0, 12, or 3000 (also when the store cannot grow).
int dbGetCellData2(const ByteView &chunk, ConvContext *ctx, uint16_t column, uint32_t chunkNo, DbHeldValues &held,
                   const DbChoiceList &choices);

// Places the held values of one column at the end of the chain that
// starts at `head`: row firstRow + i takes the value of records[i], rows
// ascending; a record without a value gets no cell. A record shown in
// several rows shares one copy of its text. 0 or 12.
int dbGetCellData(ConvContext *ctx, CellNode *head, uint16_t column, const uint16_t *records, uint32_t recordCount,
                  uint32_t firstRow, DbHeldValues &held);
