#include "dbchange.h"

#include <algorithm>
#include <cmath>

#include "kln_blocks.h"
#include "sschange.h"

// ==== Database data sets and field definitions ====
//
// A database data set is a run of numbered length-prefixed blocks (from
// 1): the field definitions with the fields' extra pieces after them, the
// value table (block 4), a count K (block 5), then among blocks the format
// does not use here the record list (block 2K + 6) and the fields' styles
// (block 2K + 11).

namespace {
constexpr int kMaxBlocks = 256;
constexpr int kFieldBlock = 1, kValueTableBlock = 4, kCountBlock = 5;
constexpr int kRecordListBeforeCount = 251, kStyleBlockBeforeCount = 256;
constexpr uint8_t kDatabaseDocument = 3;

// Field-definition block, body offsets; then the entry's own offsets.
constexpr size_t kFieldCountAt = 0, kFieldEntrySizeAt = 6, kFieldEntriesAt = 12;
constexpr size_t kNameLenAt = 0, kNameAt = 1, kTypeAt = 64, kResultTypeAt = 70, kFlagsAt = 118, kSpareAt = 119,
                 kSubKindAt = 121;
constexpr uint32_t kMaxFields = 256;
constexpr uint32_t kMaxNameLen = 63;

// Style block, body offsets; then the entry's own offsets.
constexpr size_t kStyleCountAt = 0, kStyleEntrySizeAt = 6, kStyleEntriesAt = 20, kStyleMinBody = 21;
constexpr size_t kStyleFieldAt = 0, kStyleNumberAt = 4, kStyleEntryBytes = 6;

enum FieldType : uint8_t {
  kTextField = 0,
  kNumberField = 1,
  kDateField = 2,
  kTimeField = 3,
  kChoiceField = 4,
  kYesNoField = 5,
  kChoiceField2 = 6,
  kComputedField = 7,
  kComputedField2 = 8,
};
constexpr uint8_t kSubKindSecondPiece = 8, kFlagSecondPiece = 0x80;

// Reads the next extra piece from the file and appends it, length word
// and bytes, to extra at *used. *length receives the piece's length.
// 0; 3000 for a negative length or a file that ends inside the piece; 12.
int ReadExtraPiece(ConvContext *ctx, VtqBuffer &extra, size_t *used, int32_t *length) {
  uint8_t head[4];
  if (!ReadWord(ctx, head)) return kFormatError;
  const int32_t p = static_cast<int32_t>(Get4wc(head, ctx));
  *length = p;
  if (p < 0) return kFormatError;
  if (p == 0) return kOk;
  // extraLen is 32-bit: two pieces must not add up beyond it.
  if (*used + 4 + uint64_t(p) > uint64_t(INT32_MAX)) return kFormatError;
  if (!extra.grow(*used + 4)) return kNoMemory;
  std::memcpy(extra.data() + *used, head, 4);
  const long got = ReadGrowing(ctx, extra, *used + 4, uint32_t(p));
  if (got < 0) return kNoMemory;
  if (got < p) return kFormatError;
  *used += 4 + size_t(p);
  return kOk;
}

// The extra pieces of one field, as its type calls for them.
int ReadExtraPieces(ConvContext *ctx, DbField &f) {
  int pieces = 0;
  bool emptySecond = false;  // whether the second piece may be empty
  switch (f.fieldType) {
    case kTextField:
    case kYesNoField:
    case kComputedField:
    case kComputedField2:
      pieces = (f.subKind == kSubKindSecondPiece && (f.fieldFlags & kFlagSecondPiece)) ? 2 : 1;
      break;
    case kChoiceField:
    case kChoiceField2:
      pieces = 2;
      emptySecond = true;
      break;
    default:
      return kOk;
  }
  VtqBuffer extra;
  size_t used = 0;
  for (int i = 0; i < pieces; ++i) {
    int32_t length = 0;
    const int r = ReadExtraPiece(ctx, extra, &used, &length);
    if (r != kOk) return r;
    if (i == 1 && !emptySecond && length < 1) return kFormatError;
  }
  f.extraLen = static_cast<int32_t>(used);
  if (used) f.extra = extra.release();
  return kOk;
}
}  // namespace

int dbFieldSet(const ByteView &block, int64_t length, ConvContext *ctx) {
  const ByteView body = block.sub(4, block.size());
  const uint32_t n = body.u16(kFieldCountAt);
  if (n > kMaxFields) return kFormatError;
  // A second database data set builds its table in place of the first;
  // the cells the first one placed stay.
  if (ctx->dbFields) FreeDbFields(ctx);
  ctx->dbFieldCount = 0;
  VtqPtr<DbField> fields;
  if (!fields.alloc(n + 1)) return kNoMemory;  // the element after the last stays zero
  ctx->dbFields = fields.release();
  ctx->dbFieldCount = static_cast<int16_t>(n);
  const uint32_t size = body.u16(kFieldEntrySizeAt);
  if (length - 4 != int64_t(kFieldEntriesAt) + int64_t(n) * size) return kFormatError;
  for (uint32_t i = 0; i < n; ++i) {
    const size_t e = kFieldEntriesAt + size_t(i) * size;
    DbField &f = ctx->dbFields[i];
    f.nameLen = body.u8(e + kNameLenAt);
    // The name area holds 63 bytes; a longer name is refused with 12.
    if (f.nameLen > kMaxNameLen) return kNoMemory;
    f.name = OwnedText(body, e + kNameAt, f.nameLen);
    if (!f.name) return kNoMemory;
    f.fieldType = body.u8(e + kTypeAt);
    f.resultType = body.u8(e + kResultTypeAt);
    f.fieldFlags = body.u8(e + kFlagsAt);
    f.spareByte = body.u8(e + kSpareAt);
    f.subKind = body.u8(e + kSubKindAt);
  }
  for (uint32_t i = 0; i < n; ++i) {
    const int r = ReadExtraPieces(ctx, ctx->dbFields[i]);
    if (r != kOk) return r;
  }
  return kOk;
}

int GetDBStyle(const ByteView &block, int64_t length, ConvContext *ctx) {
  const ByteView body = block.sub(4, block.size());
  const uint32_t count = body.u16(kStyleCountAt), size = body.u16(kStyleEntrySizeAt);
  if (length - 4 < int64_t(kStyleMinBody)) return kFormatError;
  if (count == 0) return kOk;
  // A count that claims more entries than the body holds is refused.
  const uint64_t last = kStyleEntriesAt + uint64_t(count - 1) * size;
  if (last + std::max<uint64_t>(size, kStyleEntryBytes) > body.size()) return kFormatError;
  for (uint32_t i = 0; i < count; ++i) {
    const size_t e = kStyleEntriesAt + size_t(i) * size;
    const uint32_t field = body.u16(e + kStyleFieldAt);
    if (int32_t(field) >= ctx->dbFieldCount) return kFormatError;
    ctx->dbFields[field].styleNo = body.u16(e + kStyleNumberAt);  // a later entry overrides
  }
  return kOk;
}

int GetDbDSET(ConvContext *ctx) {
  VtqBuffer buf, valueTable;
  size_t valueTableSize = 0;  // 0 until block 4 is kept
  int recordList = kRecordListBeforeCount, styleBlock = kStyleBlockBeforeCount;
  for (int k = 1; k <= kMaxBlocks; ++k) {
    // The value table's length counts its own four bytes.
    Block read;
    const int head = NextBlock(ctx, buf, &read, k == kValueTableBlock ? kCountsItself : 0);
    if (head != kOk) return head;
    if (read.bodyLength == 0) continue;
    const ByteView &block = read.bytes;
    const int64_t length = int64_t(read.bodyLength) + 4;
    int r = kOk;
    if (k == kFieldBlock) {
      r = dbFieldSet(block, length, ctx);
    } else if (k == kValueTableBlock) {
      if (!valueTable.alloc(block.size())) return kNoMemory;
      std::memcpy(valueTable.data(), block.data(), block.size());
      valueTableSize = block.size();
    } else if (k == kCountBlock) {
      const uint32_t count = block.u16(4);
      if (count == 0) return kFormatError;
      recordList = int(2 * count + 6);
      styleBlock = int(2 * count + 11);
    }
    if (r != kOk) return r;
    if (ctx->docKind != kDatabaseDocument) continue;
    if (k == recordList && valueTableSize) r = dbCtabcov(block, ctx, ByteView(valueTable.data(), valueTableSize));
    if (k == styleBlock) r = GetDBStyle(block, length, ctx);
    if (r != kOk) return r;
  }
  return kFormatError;
}

// ==== Database records into the cell table ====
//
// The value table stores the values column by column: a CTAB record with
// one flag per field, then for each flagged field a COLM section whose
// chunk flags mark the chunks stored, each chunk a CHNK section with the
// values of 64 consecutive record numbers. The record list says which
// record each row shows. A column's values are gathered keyed by record
// number and then placed in list order, so any order of the list, however
// it interleaves the chunks, puts every value in its row.

namespace {
// Record list, body offsets.
constexpr size_t kRecordCountAt = 0, kRecordEntrySizeAt = 6, kRecordEntriesAt = 22;
constexpr uint32_t kMaxRecords = 32768;
// Value table, body offsets.
constexpr size_t kColumnSectionLengthAt = 2, kCtabTagAt = 6, kColumnFlagsAt = 14, kColumnsAt = 1038;
constexpr uint32_t kColumnSectionLength = 1032;
constexpr int kColumnSlots = 257;
// COLM section: length word (counting from the tag), tag, first chunk
// number, last chunk number, chunk flags.
constexpr size_t kColmFirstAt = 8, kColmFlagsAt = 12, kColmHeader = 8;
constexpr uint32_t kMaxChunkFlags = 521;
// CHNK section from its tag: value count, slot offsets.
constexpr size_t kChunkCountAt = 4, kChunkSlotsAt = 12;
constexpr uint32_t kSlots = 64;
// Stored value: size, flags, text length, then text or an 80-bit float.
constexpr size_t kValueSizeAt = 0, kValueFlagsAt = 2, kValueTextLenAt = 3, kValueDataAt = 4, kExtendedBytes = 10;
constexpr uint8_t kFlagLengthBit8 = 0x01, kFlagNumericResult = 0x80;

// Cell kinds of database cells.
constexpr uint16_t kNumberSub7 = 11, kComputedNumber = 12, kDate = 13, kTime = 14, kNumber = 15, kText = 16;
constexpr uint8_t kSubKindNumber11 = 7;

// The 80-bit float of a stored value; 3000 when it runs past its chunk.
int ValueNumber(const ByteView &value, const ConvContext *ctx, double *out) {
  if (!value.has(kValueDataAt, kExtendedBytes)) return kFormatError;
  *out = getfloat(value.data() + kValueDataAt, ctx);
  return kOk;
}

// The value's n bytes of text as the cell's text; 3000 when they run past
// the chunk, 12 when out of memory.
int ValueText(ConvContext *ctx, const ByteView &value, size_t n, CellNode *cell) {
  if (!value.has(kValueDataAt, n)) return kFormatError;
  return SetCellText(ctx, cell, value, kValueDataAt, n);
}

// The n-th entry (from 1) of a choice field's list as the cell's text; no
// such entry leaves the cell without text.
int ChoiceText(ConvContext *ctx, const DbField &f, const DbChoiceList &choices, double number, CellNode *cell) {
  const double n = std::trunc(number);  // a fraction is cut toward zero
  if (!(n >= 1.0 && n <= double(choices.count))) return kOk;
  const uint32_t at = choices.starts[size_t(n) - 1];
  const ByteView extra(f.extra, size_t(f.extraLen));
  return SetCellText(ctx, cell, extra, at + 1, extra.u8(at));
}

int ComputedValue(const DbField &f, const ByteView &value, CellNode *cell, ConvContext *ctx) {
  if (value.u8(kValueFlagsAt) & kFlagNumericResult) {
    const int r = ValueNumber(value, ctx, &cell->value);
    if (r != kOk) return r;
    switch (f.resultType) {
      case 0:
      case 1:
        cell->kind = kComputedNumber;
        return kOk;
      case 2:
        cell->kind = kDate;
        return kOk;
      case 3:
        cell->kind = kTime;
        return kOk;
      default:
        cell->kind = kNumber;
        return kFormatError;
    }
  }
  cell->kind = kText;
  // A result too small to hold a text is the formula's error.
  if (value.u16(kValueSizeAt) <= 2) return SetFixedCellText(ctx, cell, "#ERROR!");
  return ValueText(ctx, value, value.u8(kValueTextLenAt), cell);
}
}  // namespace

int32_t DbTextKind(const DbField &f) {
  if (f.fieldType == kChoiceField || f.fieldType == kChoiceField2) return KLN_CELL_CHOICE;
  return f.fieldType == kYesNoField ? KLN_CELL_YESNO : KLN_CELL_TEXT;
}

int dbChoiceIndex(const DbField &f, DbChoiceList *list) {
  const ByteView extra(f.extra, f.extraLen > 0 ? size_t(f.extraLen) : 0);
  const uint64_t end = std::min<uint64_t>(uint64_t(extra.u32(0)) + 4, extra.size());
  list->count = 0;
  // Every entry takes at least its length byte.
  if (!list->starts.alloc(end > 4 ? size_t(end - 4) : 0)) return kNoMemory;
  for (uint64_t at = 4; at < end && at + 1 + extra.u8(at) <= end; at += 1 + extra.u8(at))
    list->starts[list->count++] = uint32_t(at);
  return kOk;
}

int GetDBBody(const ByteView &value, CellNode *cell, ConvContext *ctx, const DbChoiceList &choices) {
  // The table has dbFieldCount + 1 elements, the last one zero.
  if (!ctx->dbFields || cell->column > kMaxFields || int32_t(cell->column) > ctx->dbFieldCount) return kFormatError;
  const DbField &f = ctx->dbFields[cell->column];
  double number = 0;
  int r = kOk;
  switch (f.fieldType) {
    case kTextField: {
      const size_t len = value.u8(kValueTextLenAt) + ((value.u8(kValueFlagsAt) & kFlagLengthBit8) ? 256 : 0);
      if (len == 0) return kDbNoValue;
      cell->kind = kText;
      return ValueText(ctx, value, len, cell);
    }
    case kNumberField:
    case kDateField:
    case kTimeField:
      cell->kind = f.fieldType == kDateField   ? kDate
                   : f.fieldType == kTimeField ? kTime
                   : f.subKind == kSubKindNumber11 ? kNumberSub7
                                                   : kNumber;
      return ValueNumber(value, ctx, &cell->value);
    case kChoiceField:
    case kChoiceField2:
      cell->kind = kText;
      if (f.extraLen <= 4) return kFormatError;  // no list
      r = ValueNumber(value, ctx, &number);
      return r != kOk ? r : ChoiceText(ctx, f, choices, number, cell);
    case kYesNoField:
      cell->kind = kText;
      r = ValueNumber(value, ctx, &number);
      if (r != kOk) return r;
      number = std::trunc(number);
      if (number != 0.0 && number != 1.0) return kFormatError;
      return SetFixedCellText(ctx, cell, number == 0.0 ? "0" : "1") == kOk ? kOk : kFormatError;
    case kComputedField:
    case kComputedField2:
      return ComputedValue(f, value, cell, ctx);
    default:
      return kOk;  // a field without values: nothing set
  }
}

bool DbHeldValues::init(uint32_t lastRecord) {
  lastRecord_ = lastRecord;
  return byRecord_.alloc(size_t(lastRecord) + 1);
}

bool DbHeldValues::reserve(size_t n) {
  if (n <= capacity_) return true;
  n = std::max(n, 2 * capacity_);  // doubling: every value is copied O(1) times
  VtqPtr<Entry> bigger;
  if (!bigger.alloc(n)) return false;
  if (count_) std::memcpy(bigger.get(), entries_.get(), count_ * sizeof(Entry));
  entries_.reset(bigger.release());
  capacity_ = n;
  return true;
}

DbHeldValues::Entry &DbHeldValues::next() {
  Entry &e = entries_[count_];
  std::memset(&e, 0, sizeof e);
  return e;
}

void DbHeldValues::keep() {
  // A second value of the same record replaces the first, whose text
  // stays with its entry until clear().
  const uint16_t record = entries_[count_].cell.row;
  ++count_;
  byRecord_[record] = uint32_t(count_);
}

DbHeldValues::Entry *DbHeldValues::find(uint16_t record) const {
  if (record > lastRecord_) return nullptr;
  const uint32_t i = byRecord_[record];
  return i ? &entries_[i - 1] : nullptr;
}

void DbHeldValues::clear() {
  for (size_t i = 0; i < count_; ++i) byRecord_[entries_[i].cell.row] = 0;
  count_ = 0;
}

int dbGetCellData2(const ByteView &chunk, ConvContext *ctx, uint16_t column, uint32_t chunkNo, DbHeldValues &held,
                   const DbChoiceList &choices) {
  const uint32_t count = chunk.u16(kChunkCountAt);
  if (count > kSlots) return kFormatError;
  // A chunk whose records the list does not reach holds nothing to show.
  if (uint64_t(chunkNo) * kSlots > held.lastRecord()) return kOk;
  if (!held.reserve(held.count() + count)) return kFormatError;
  uint32_t taken = 0;
  for (uint32_t s = 0; s < kSlots && taken < count; ++s) {
    const uint32_t off = chunk.u16(kChunkSlotsAt + 2 * size_t(s));
    if (off == 0) continue;  // an empty slot: the record has no value here
    ++taken;
    if (chunkNo * kSlots + s > held.lastRecord()) break;  // values no row shows are not decoded
    DbHeldValues::Entry &e = held.next();
    e.cell.row = static_cast<uint16_t>(chunkNo * kSlots + s);
    e.cell.column = column;
    const int r = GetDBBody(chunk.sub(off, chunk.size()), &e.cell, ctx, choices);
    if (r == kDbNoValue) continue;
    if (r != kOk) return r;
    e.cell.present = 1;
    held.keep();
  }
  return kOk;
}

int dbGetCellData(ConvContext *ctx, CellNode *head, uint16_t column, const uint16_t *records, uint32_t recordCount,
                  uint32_t firstRow, DbHeldValues &held) {
  CellNode *node = head;
  while (node->next) node = NextInColumn(ctx, node);
  for (uint32_t i = 0; i < recordCount; ++i) {
    const DbHeldValues::Entry *e = held.find(records[i]);
    if (!e) continue;
    uint32_t next;
    CellNode *fresh = NewCellNode(ctx, &next);
    if (!fresh) return kNoMemory;
    *node = e->cell;  // kind and value or text: a record the list shows again shares its text
    node->row = static_cast<uint16_t>(firstRow + i);
    node->column = column;
    node->next = next;
    node = fresh;
  }
  return kOk;
}

namespace {
struct RecordList {
  VtqPtr<uint16_t> numbers;
  uint32_t count = 0;
  uint16_t lastRecord = 0;  // the highest record number the list shows
};

// Reads the record numbers of the list, row by row. 0, 12 or 3000.
int ReadRecordList(const ByteView &body, RecordList *list) {
  const uint32_t r = body.u16(kRecordCountAt);
  if (r >= kMaxRecords) return kFormatError;
  if (body.size() < kRecordEntriesAt) return kFormatError;
  const uint32_t size = body.u16(kRecordEntrySizeAt);
  // Every entry starts within the body (bytes beyond it read as 0).
  if (r > 0 && kRecordEntriesAt + uint64_t(r - 1) * size > body.size()) return kFormatError;
  if (!list->numbers.alloc(r + 1)) return kNoMemory;
  for (uint32_t i = 0; i < r; ++i) {
    list->numbers[i] = body.u16(kRecordEntriesAt + size_t(i) * size);
    list->lastRecord = std::max(list->lastRecord, list->numbers[i]);
  }
  list->count = r;
  return kOk;
}

// One column of the value table: its COLM section at *p and the chunks
// that follow it; gathers their values and places them from row
// firstRow on. Advances *p.
int ReadDbColumn(const ByteView &table, size_t *p, ConvContext *ctx, CellNode *head, uint16_t column,
                 const RecordList &list, uint32_t firstRow, int32_t *chunks, DbHeldValues &held) {
  if (!table.tagIs(*p + 4, "COLM")) return kFormatError;
  const uint32_t m = table.u32(*p);
  const uint32_t first = table.u16(*p + kColmFirstAt);
  const uint32_t flagCount = m >= kColmHeader ? (m - kColmHeader) / 4 : 0;
  if (flagCount > kMaxChunkFlags) return kFormatError;  // more chunks than a column may have
  for (uint32_t j = 0; j < flagCount; ++j) {
    const bool present = table.u32(*p + kColmFlagsAt + 4 * size_t(j)) != 0;
    chunks[j] = present ? int32_t(first + j) : -1;
  }
  if (uint64_t(m) + 4 > table.size() - *p) return kFormatError;
  *p += size_t(m) + 4;
  DbChoiceList choices;
  const DbField &f = ctx->dbFields[column];
  if ((f.fieldType == kChoiceField || f.fieldType == kChoiceField2) && dbChoiceIndex(f, &choices) != kOk)
    return kNoMemory;
  for (uint32_t j = 0; j < flagCount && *p < table.size(); ++j) {
    if (chunks[j] < 0) continue;  // an absent chunk: its records have no value here
    if (table.tagIs(*p + 4, "COLM")) break;  // the column stores fewer chunks than it flags
    if (!table.tagIs(*p + 4, "CHNK")) return kFormatError;
    const uint32_t g = table.u32(*p);
    if (uint64_t(g) + 4 > table.size() - *p) return kFormatError;
    const int r = dbGetCellData2(table.sub(*p + 4, g), ctx, column, uint32_t(chunks[j]), held, choices);
    if (r != kOk) return r;
    *p += size_t(g) + 4;
  }
  const int r = dbGetCellData(ctx, head, column, list.numbers.get(), list.count, firstRow, held);
  held.clear();
  return r;
}

// The head of `column` in the column list, which runs in ascending column
// order; a column without one gets a head in its place (the spare node
// that ends the list, when the column comes after all others). Null when
// the node cannot be had.
CellNode *DbColumnHead(ConvContext *ctx, uint16_t column) {
  CellNode **heads = ctx->columnHeads;
  const uint32_t last = ctx->columnHeadCount - 1;  // the spare
  uint32_t k = 0;
  while (k < last && heads[k]->column < column) ++k;
  if (k == last) return LinkColumn(ctx, column) == kOk ? heads[k] : nullptr;
  if (heads[k]->column == column) return heads[k];
  if (ctx->columnHeadCount == kMaxColumnHeads) return nullptr;
  CellNode *head = NewCellNode(ctx);
  if (!head) return nullptr;
  head->column = column;
  std::memmove(heads + k + 1, heads + k, (ctx->columnHeadCount++ - k) * sizeof *heads);
  heads[k] = head;
  return head;
}
}  // namespace

int dbCtabcov(const ByteView &recordList, ConvContext *ctx, const ByteView &valueTable) {
  const ByteView table = valueTable.sub(4, valueTable.size());
  VtqPtr<CellNode *> heads;
  VtqPtr<uint16_t> columns;
  VtqPtr<int32_t> chunks;
  if (!heads.alloc(kColumnSlots) || !columns.alloc(kColumnSlots) || !chunks.alloc(kMaxChunkFlags)) return kNoMemory;
  RecordList list;
  int r = ReadRecordList(recordList.sub(4, recordList.size()), &list);
  if (r != kOk) return r;
  if (!table.tagIs(kCtabTagAt, "CTAB") || table.u32(kColumnSectionLengthAt) != kColumnSectionLength)
    return kFormatError;

  // Flags 0 to dbFieldCount, the last one the table's zero element.
  int linked = 0;
  bool occupied = false;  // a column already holds cells of an earlier data set
  for (int32_t c = 0; c <= ctx->dbFieldCount; ++c) {
    if (table.u32(kColumnFlagsAt + 4 * size_t(c)) == 0) continue;
    CellNode *head = DbColumnHead(ctx, static_cast<uint16_t>(c));
    if (!head) return kFormatError;
    occupied = occupied || head->present;  // a column's first cell fills its head
    heads[size_t(linked)] = head;
    columns[size_t(linked)] = static_cast<uint16_t>(c);
    ++linked;
  }
  // The cells of earlier data sets stay. Where this one's columns meet
  // them, its rows follow the rows in use, so that no cell is ever placed
  // on another and every row keeps its record whole.
  const uint32_t firstRow = occupied ? ctx->rowCount : 0;
  if (firstRow + list.count > UINT16_MAX) return kFormatError;  // beyond the rows a cell can name
  ctx->colCount = std::max<uint16_t>(ctx->colCount, static_cast<uint16_t>(ctx->dbFieldCount));
  ctx->rowCount = std::max<uint16_t>(ctx->rowCount, static_cast<uint16_t>(firstRow + list.count));
  if (table.size() < kColumnsAt) return kFormatError;
  if (table.size() == kColumnsAt || ctx->dbFieldCount == 0) return kOk;

  DbHeldValues held;
  if (!held.init(list.lastRecord)) return kNoMemory;
  size_t p = kColumnsAt;
  // Sections beyond the flagged columns, or the field count, are not read.
  for (int k = 0; k < linked && k < ctx->dbFieldCount && p < table.size(); ++k) {
    r = ReadDbColumn(table, &p, ctx, heads[size_t(k)], columns[size_t(k)], list, firstRow, chunks.get(), held);
    if (r != kOk) return r;
  }
  return kOk;
}
