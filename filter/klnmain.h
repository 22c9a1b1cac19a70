// The per-call context, the records the readers share, and the functions
// of klnmain.cpp / klnfile.cpp: context, driver, byte readers, header,
// data-set walk, character conversion, style table, properties.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

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

// One cell of the CellTable. Column heads double as the first node of
// their column's chain; every chain ends with one empty node.
// The small fields share the first 8 bytes, so a node takes 40.
struct CellNode {
  uint16_t row;
  uint16_t column;
  uint16_t style;
  uint8_t kind;
  uint8_t present : 1;
  // The text belongs to another cell of the table: a record shown in
  // several rows keeps one copy of its text, whatever the rows.
  uint8_t textShared : 1;
  double value;
  char *text;  // owned, unless textShared
  CellNode *nextColumn;
  CellNode *nextInColumn;
};

// A block of CellTable nodes: the table takes its nodes a block at a time
// and frees the blocks at once.
struct CellBlock {
  CellBlock *next;
  size_t size;  // nodes in the block
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
  CellNode *cells;
  CellBlock *cellBlocks;  // newest first; its nodes from cellsUsed on are free
  size_t cellsUsed;
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

// ---- Byte readers. ----

// Big-endian readers: the same value on every host.
uint32_t Get2wc(const uint8_t *p, const ConvContext *ctx = nullptr);
uint32_t Get4wc(const uint8_t *p, const ConvContext *ctx = nullptr);
// The 80-bit extended value at p (10 bytes, big-endian) as a double.
double getfloat(const uint8_t *p, const ConvContext *ctx);

// A checked view of a record: the fixed-width readers answer 0 for every
// byte that lies beyond the end, so no reader can step outside the record.
class ByteView {
 public:
  ByteView() = default;
  ByteView(const uint8_t *p, size_t n) : p_(p), n_(n) {}
  size_t size() const { return n_; }
  const uint8_t *data() const { return p_; }
  bool has(size_t off, size_t len) const { return off <= n_ && len <= n_ - off; }
  uint8_t u8(size_t off) const { return off < n_ ? p_[off] : 0; }
  uint16_t u16(size_t off) const { return static_cast<uint16_t>((u8(off) << 8) | u8(off + 1)); }
  uint32_t u32(size_t off) const {
    return (uint32_t(u8(off)) << 24) | (uint32_t(u8(off + 1)) << 16) | (uint32_t(u8(off + 2)) << 8) |
           u8(off + 3);
  }
  // Copies len bytes from off into dst, zeros for bytes beyond the end.
  void copy(size_t off, uint8_t *dst, size_t len) const {
    for (size_t i = 0; i < len; ++i) dst[i] = u8(off + i);
  }
  bool tagIs(size_t off, const char *tag4) const { return has(off, 4) && std::memcmp(p_ + off, tag4, 4) == 0; }
  ByteView sub(size_t off, size_t len) const {
    if (off > n_) return {};
    return {p_ + off, len < n_ - off ? len : n_ - off};
  }

 private:
  const uint8_t *p_ = nullptr;
  size_t n_ = 0;
};

inline bool IsTag(const uint8_t *p, const char *tag4) { return std::memcmp(p, tag4, 4) == 0; }

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

// ---- Context (klnmain.cpp). ----
int initial(ConvContext **out);
int closeall(ConvContext *ctx);
// Frees the database field table with its names and extra data.
void FreeDbFields(ConvContext *ctx);
// Frees every column and node of the CellTable with their texts; cells
// is null afterwards.
void FreeCellTable(ConvContext *ctx);
// A zeroed node of the CellTable; null when out of memory.
CellNode *NewCellNode(ConvContext *ctx);

// ---- Global header. ----
// A buffer the header's fields and tables fit.
constexpr uint32_t kHeaderBufSize = 8192;
// The six text records that follow the fixed part, in file order: title,
// class, description, author, version, keywords.
constexpr int kHeaderTextRecords = 6;
// Reads the fixed part of the header into buf (kHeaderBufSize bytes),
// field by field: checks the signature, sets docKind and headerVariant.
// False when a field brings nothing or a check fails.
bool ReadHeaderFixedPart(ConvContext *ctx, uint8_t *buf);
// Reads the next text record: u32 P, and when P != 0 a length byte and
// that many bytes into buf. *text views them (empty when absent: *absent
// is then true). False when a read brings nothing.
bool ReadHeaderTextRecord(ConvContext *ctx, uint8_t *buf, ByteView *text, bool *absent);

// ---- Driver and stages. ----
int convertFile(ConvContext *ctx);
int GetGlobalInfo(ConvContext *ctx);
int GetDSetInfo(ConvContext *ctx);
int FindDSET(ConvContext *ctx);
int SkipCurDSET(ConvContext *ctx);
int SkipCurBuff(ConvContext *ctx);
int ReadFilePass(int32_t n, ConvContext *ctx);

// Reads 4 bytes into b, zero-filled first; false when nothing came.
bool ReadWord(ConvContext *ctx, uint8_t *b);

// Reads the 4 bytes that open the next item of a data set into head:
// answers 0 when they are a block length, 0x9700 when they are "DSET"
// (counted in dsetSeen), 0x9800 for "FNTM", 3000 when nothing came.
int ReadBlockHead(ConvContext *ctx, uint8_t *head);

// Reads up to len bytes into buf at offset `at`, growing buf as the bytes
// arrive, so that a length word larger than the file costs no more memory
// than the file holds. Answers the number of bytes read (0 when none came),
// or -1 when the buffer cannot grow.
long ReadGrowing(ConvContext *ctx, VtqBuffer &buf, size_t at, uint32_t len);

// A path the 260-byte buffers of the context cannot hold (or none).
inline bool PathTooLong(const char *path) { return !path || strnlen(path, kPathSize) >= kPathSize; }

// Where a document comes from: a path (shorter than kPathSize), or, with
// path null, the bytes data[0..size) held by the caller.
struct KlnInput {
  const char *path;
  const void *data;
  size_t size;
};
inline KlnInput PathInput(const char *path) { return {path, nullptr, 0}; }
inline KlnInput MemoryInput(const void *data, size_t size) { return {nullptr, data, size}; }

// Opens the input as ctx->inFile (a path is kept in ctx->inPath); false
// when it cannot be opened.
bool OpenInput(ConvContext *ctx, const KlnInput &in);

// Creates the context of a text conversion, fills it from the caller's
// arguments and opens the input. On failure the context is released and
// *out is null; answers 0, 12 or 22.
int OpenTextContext(ConvContext **out, const KlnInput &in, const FilterOptions *options,
                    const KlnCharsetInfo *charset, void *errCallback);

// Runs the text conversion of an opened context and judges the outcome;
// shared by the file and the stream entry points. The log is named after
// logBase; an empty base has no log name, which fails a log request (22).
int RunTextConversion(ConvContext *ctx, const char *logBase);

// ---- Character conversion. ----
int GetSeparator(uint32_t flags);
int GetString_kln(char *name33, uint32_t *flag, uint32_t code);
// Converts len bytes of document text into outBuf / outLen (one piece: the
// text must fit outBuf, as property texts do). 0 or 3000.
int CodeConv(ConvContext *ctx, const uint8_t *text, uint32_t len, int mode);

// One conversion of a whole text, possibly in several pieces.
struct ConvRun {
  CconvState state{};
  CconvOptions options{};
  bool firstOutput = false;
  bool active = false;
  ~ConvRun() {
    if (active) cconvTermConvert(&state);
  }
};
// Sets the run up for len bytes of text (mode 3: document set from
// charsetInfo). The stripped copy goes to `scratch` when given (grown,
// kept for the next run), else to the context's buffer. 0, 12 or 3000.
int CodeConvStart(ConvContext *ctx, ConvRun &run, const uint8_t *text, uint32_t len, int mode,
                  VtqBuffer *scratch = nullptr);
// Converts the next piece into outBuf (outLen set). 0 or 3000.
int CodeConvPiece(ConvContext *ctx, ConvRun &run);
// Whether input remains after the last piece.
inline bool CodeConvMore(const ConvRun &run) { return run.state.inPos < run.state.inLen; }
// Ends the run; when it produced nothing, the next conversion counts as
// the first again.
void CodeConvEnd(ConvContext *ctx, ConvRun &run, uint32_t totalProduced);

// ---- Style table (klnfile.cpp). ----
int GetStyleInfo(ConvContext *ctx);
// Builds the style map from a "STYL" record (its length word first; the
// body declares bodyLen bytes of which `held` were read).
int GetStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen, size_t held);

// ---- Cell writer entry (klnfile.cpp). ----
int GetVtqTxt(ConvContext *ctx);

// ---- Properties (klnfile.cpp). ----
int GetKlnPropertyInfo(uint8_t *record, ConvContext *ctx);
