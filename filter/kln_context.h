// Bottom layer, the context: the result codes, the per-call ConvContext
// with the records it owns (cell table, styles, database fields), the
// holders over the runtime allocator, and the context's life.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kln_bytes.h"
#include "vtq_rt.h"
#include "vtq_txkln.h"
#include "vtq_txkln_ext.h"

// Result codes used inside the filter besides the public ones.
constexpr int kOk = 0;
constexpr int kNoMemory = 12;
constexpr int kOpenFailed = 22;
constexpr int kTextBlockFailed = 25;
constexpr int kFormatError = 3000;
constexpr int kNoText = 3003;
constexpr int kOleRefused = 3004;
constexpr int kSizeLimit = 3005;
constexpr int kOleFailed = 4001;
constexpr int kNextDset = 0x9700;    // the next "DSET" tag has been read
constexpr int kFntmRead = 0x9800;    // "FNTM" ends the data-set area
constexpr uint32_t kWriteStopped = 0x9900;  // writeState once the limit passed

// ConvContext.flags bits.
constexpr uint32_t kCtxOutputMade = 0x04;
constexpr uint32_t kCtxPropertyMode = 0x20;
constexpr uint32_t kCtxEventMode = 0x40;  // structure events: no byte-order mark

constexpr uint32_t kOutBufSize = 0x10002;
constexpr size_t kPathSize = 260;

// One cell of the CellTable. Every column is a chain of nodes ordered by
// row, from its head (see ConvContext::columnHeads) to one empty node that
// ends it. A node takes 24 bytes: the small fields share the first 8, a
// cell holds either a number or a text, and the link is a 32-bit index.
struct CellNode {
  uint16_t row;
  uint16_t column;
  uint16_t style;
  uint8_t kind;
  uint8_t present;
  union {
    double value;  // number kinds
    char *text;    // text kinds (CellHoldsText): from the table's text arena (NewCellText), or null
  };
  uint32_t next;  // the next node of the column (CellAt); 0 at the chain's end
};

// Whether cells of this kind hold a text rather than a number: spreadsheet
// texts, yes/no and errors, database texts.
inline bool CellHoldsText(uint8_t kind) { return kind == 3 || kind == 5 || kind == 6 || kind == 16; }

// Nodes come in blocks, named by index: block << kCellBlockBits | slot.
// The first block holds 64 nodes, every next one twice as many up to 4096,
// so a small document takes little and a big table one allocation per
// 4096 cells. Index 0 names no node (the first block's first slot stays
// unused).
constexpr uint32_t kCellBlockBits = 12;
constexpr uint32_t kMaxCellBlocks = uint32_t(1) << (32 - kCellBlockBits);
// The column list: at most 257 database columns and the spare node.
constexpr uint32_t kMaxColumnHeads = 258;

// A chunk of the table's text arena; its bytes follow the record.
struct TextChunk {
  TextChunk *next;
  size_t size;  // bytes in the chunk
  size_t used;
};

struct CellStyle {
  uint8_t styleHead[4];
  uint8_t formatCode;
  uint8_t decimals;
  uint8_t thousandsSep;
  uint8_t negativeInParens;
};

struct DbField {
  uint8_t nameLen;
  char *name;  // owned
  uint8_t fieldType;
  uint8_t subKind;
  uint8_t resultType;
  uint8_t fieldFlags;
  uint8_t spareByte;
  uint16_t styleNo;
  int32_t extraLen;
  uint8_t *extra;  // owned
};

struct CalDate {
  double serial;
  int32_t year;  // years since 1900
  int32_t month;
  int32_t day;
  int32_t hour;
  int32_t minute;
  int32_t second;
  int32_t weekday;
  int32_t leapYear;
  int32_t era;
  int32_t yearInCentury;
  char ampm[5];
};

struct ConvContext {
  const FilterOptions *options;
  const KlnCharsetInfo *charsetInfo;
  uint32_t flags;
  uint8_t *outBuf;  // kOutBufSize bytes
  uint32_t outLen;
  uint8_t *oleState;  // VTQ_OLE_STATE_SIZE bytes
  uint64_t totalOut;  // 64-bit: a table's text may pass 4 GiB
  uint32_t writeState;
  uint8_t writeFailed;  // a write or the closing of the output failed
  uint8_t headerVariant;
  VTQ_FILE *inFile;
  VTQ_FILE *outFile;
  VTQ_LOG *logFile;
  char logName[kPathSize];
  uint8_t docKind;
  char inPath[kPathSize];
  char outPath[kPathSize];
  uint32_t dsetSeen;
  int32_t dsetCount;
  uint8_t hasSheet;
  uint16_t colCount;
  uint16_t rowCount;
  // The column list: the head of each column, in ascending column order,
  // then a spare node that becomes the next column's head.
  CellNode *columnHeads[kMaxColumnHeads];
  uint32_t columnHeadCount;
  CellNode **cellBlocks;  // cellBlockCount blocks of nodes, room for cellBlockRoom
  uint32_t cellBlockCount, cellBlockRoom;
  uint32_t cellsUsed;  // nodes of the newest block handed out
  TextChunk *cellTexts;  // the text arena, the chunk being filled first
  uint8_t *stripBuf;  // the stripped copy of written text, kept from write to write
  size_t stripSize;
  CellStyle *cellStyles;
  int32_t cellStyleCount;
  int32_t styleMapCount;
  uint16_t *styleMap;
  int16_t dbFieldCount;
  DbField *dbFields;
  VTQ_STREAM *outStream;
  uint32_t streamMode;
  void *errCallback;
  uint32_t fileMode;
  // Structure events (streamMode 2): the host's handlers and user pointer,
  // the host's stop code, the objects reported so far, and whether written
  // text is only counted (the delimited copy of a table).
  const KlnEventHandlers *events;
  void *eventUser;
  int32_t eventStop;
  int32_t objectCount;
  uint8_t countOnly;
};

// ---- Ownership over the runtime allocator. ----

// Frees with VTQ_free when it goes out of scope.
template <class T>
class VtqPtr {
 public:
  VtqPtr() = default;
  explicit VtqPtr(T *p) : p_(p) {}
  VtqPtr(const VtqPtr &) = delete;
  VtqPtr &operator=(const VtqPtr &) = delete;
  ~VtqPtr() { VTQ_free(p_); }
  // Zero-filled room for n elements; false when out of memory.
  bool alloc(size_t n) {
    reset(static_cast<T *>(VTQ_calloc(n ? n : 1, sizeof(T))));
    return p_ != nullptr;
  }
  void reset(T *p = nullptr) {
    VTQ_free(p_);
    p_ = p;
  }
  T *release() {
    T *p = p_;
    p_ = nullptr;
    return p;
  }
  T *get() const { return p_; }
  T &operator[](size_t i) const { return p_[i]; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  T *p_ = nullptr;
};

// A growable byte buffer (read buffers of the readers). Growing keeps the
// bytes already held.
class VtqBuffer {
 public:
  VtqBuffer() = default;
  VtqBuffer(const VtqBuffer &) = delete;
  VtqBuffer &operator=(const VtqBuffer &) = delete;
  ~VtqBuffer() { VTQ_free(data_); }
  // Zero-filled buffer of n bytes; false when out of memory.
  bool alloc(size_t n) {
    VTQ_free(data_);
    data_ = static_cast<uint8_t *>(VTQ_calloc(n ? n : 1, 1));
    size_ = data_ ? n : 0;
    return data_ != nullptr;
  }
  // At least n bytes; false (buffer unchanged) when out of memory.
  bool grow(size_t n) {
    if (n <= size_) return true;
    void *p = VTQ_realloc(data_, n);
    if (!p) return false;
    data_ = static_cast<uint8_t *>(p);
    size_ = n;
    return true;
  }
  // Hands the bytes over to the caller, who frees them with VTQ_free.
  uint8_t *release() {
    uint8_t *p = data_;
    data_ = nullptr;
    size_ = 0;
    return p;
  }
  uint8_t *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t *data_ = nullptr;
  size_t size_ = 0;
};

// The running output total that the OLE state record carries into the
// runtime's extraction and back (a host-order u32).
inline uint32_t OleStateTotal(const ConvContext *ctx) {
  uint32_t v = 0;
  if (ctx->oleState) std::memcpy(&v, ctx->oleState + VTQ_OLE_STATE_TOTAL, 4);
  return v;
}
// Hands totalOut to the record before an extraction: its low 32 bits,
// which are the whole total whenever a size limit is on (the output stops
// once the total passes the 32-bit limit).
inline void PutOleStateTotal(ConvContext *ctx) {
  const uint32_t v = static_cast<uint32_t>(ctx->totalOut);
  if (ctx->oleState) std::memcpy(ctx->oleState + VTQ_OLE_STATE_TOTAL, &v, 4);
}
// Adds to totalOut what the extraction added to the record since
// PutOleStateTotal (modulo 2^32, the record's width).
inline void TakeOleStateTotal(ConvContext *ctx) {
  ctx->totalOut += static_cast<uint32_t>(OleStateTotal(ctx) - static_cast<uint32_t>(ctx->totalOut));
}

// The context's life: initial makes it (its first cell node, outBuf, the
// OLE state record), closeall frees everything it owns, also after a failure.
int initial(ConvContext **out);
int closeall(ConvContext *ctx);
// Frees the database field table with its names and extra data.
void FreeDbFields(ConvContext *ctx);
// Frees the CellTable's blocks and texts; the column list is empty
// afterwards.
void FreeCellTable(ConvContext *ctx);
// A zeroed node of the CellTable, its index in *index when asked; null
// when out of memory or when the table has every block an index can name.
CellNode *NewCellNode(ConvContext *ctx, uint32_t *index = nullptr);
// The node of an index from NewCellNode.
inline CellNode *CellAt(const ConvContext *ctx, uint32_t index) {
  return ctx->cellBlocks[index >> kCellBlockBits] + (index & ((uint32_t(1) << kCellBlockBits) - 1));
}
// The node after `node` in its column; null at the chain's end.
inline CellNode *NextInColumn(const ConvContext *ctx, const CellNode *node) {
  return node->next ? CellAt(ctx, node->next) : nullptr;
}
// v's n bytes from `at` as a cell text from the table's arena, released
// with the table: a cell shows its text up to the first NUL, and bytes
// beyond v's end read as NUL. NUL-terminated, with its length in the four
// bytes before it. Null when out of memory.
char *NewCellText(ConvContext *ctx, const ByteView &v, size_t at, size_t n);
// Sets node's text with NewCellText; 12 when out of memory.
int SetCellText(ConvContext *ctx, CellNode *node, const ByteView &v, size_t at, size_t n);
// Sets node's text to one of the format's own words ("TRUE", "#ERROR!").
int SetFixedCellText(ConvContext *ctx, CellNode *node, const char *text);
// The length of a text from NewCellText.
inline size_t CellTextLength(const char *text) {
  uint32_t n;
  std::memcpy(&n, text - 4, 4);
  return n;
}

