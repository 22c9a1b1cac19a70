#include "sschange.h"

#include "filecomm.h"

// ==== Cell table and spreadsheet data sets ====
//
// A spreadsheet data set is a run of length-prefixed buffers; the third
// holds the cell table: a CTAB record marking the present columns, then
// for each of them a COLM record marking its present chunks (64 rows
// each) followed by one CHNK record per present chunk.

namespace {
constexpr size_t kSsBufferSize = 8192;
constexpr int kCellTableBuffer = 3;
constexpr int kMaxSsBuffers = 257;
constexpr size_t kCtabAt = 6, kCtabSize = 1036, kColumnsAt = 1042;
constexpr uint32_t kCtabLength = 1032;
constexpr int kMaxColumns = 256, kMaxChunks = 257;

// Appends a zeroed node to the column list and makes it the tail.
int LinkColumn(ConvContext *ctx, CellNode **tail, uint16_t column) {
  auto *node = static_cast<CellNode *>(VTQ_calloc(1, sizeof(CellNode)));
  if (!node) return kFormatError;
  (*tail)->column = column;
  (*tail)->nextColumn = node;
  *tail = node;
  ++ctx->colsLinked;
  return kOk;
}

CellNode *ColumnListTail(ConvContext *ctx) {
  CellNode *tail = ctx->cells;
  while (tail->nextColumn) tail = tail->nextColumn;
  return tail;
}

// Reads the chunks of the column at `p`; answers 0 or an error code and
// advances p and remaining past them.
int ReadColumnChunks(ConvContext *ctx, const ByteView &buf, size_t *p, int64_t *remaining, int32_t column,
                     const int32_t *chunks, int chunkCount) {
  CellNode *tail = nullptr;  // the column's last node while its chunks ascend
  int32_t lastChunk = -1;
  for (int m = 0; m < chunkCount; ++m) {
    if (buf.tagIs(*p + 4, "COLM")) return kOk;
    if (!buf.tagIs(*p + 4, "CHNK")) return kFormatError;
    const int64_t len = int64_t(buf.u32(*p)) + 4;
    const ByteView chunk = buf.sub(*p + 4, len - 4);
    if (chunks[m] <= lastChunk) tail = nullptr;
    lastChunk = chunks[m];
    const int r = ssGetCellData(chunk, ctx, column, static_cast<uint32_t>(chunks[m]), &tail);
    if (r != kOk) return r;
    if (len > *remaining) return kFormatError;
    *remaining -= len;
    *p += static_cast<size_t>(len);
    if (*remaining == 0) return kOk;
  }
  return kOk;
}
}  // namespace

int ssCtabcov(const ByteView &buf, int64_t length, ConvContext *ctx) {
  VtqPtr<int32_t> columns, chunks;
  if (!columns.alloc(kMaxColumns + 1) || !chunks.alloc(kMaxChunks)) return kNoMemory;
  int64_t remaining = length - 6;
  if (remaining < 0) return kFormatError;
  if (!buf.tagIs(kCtabAt + 4, "CTAB") || buf.u32(kCtabAt) != kCtabLength) return kFormatError;
  const uint32_t lastColumn = buf.u16(kCtabAt + 8);
  if (lastColumn >= kMaxColumns) return kFormatError;  // the CTAB holds 256 column entries
  ctx->colCount = static_cast<uint16_t>(lastColumn + 1);
  ctx->rowCount = static_cast<uint16_t>(buf.u16(kCtabAt + 10) + 1);

  CellNode *tail = ColumnListTail(ctx);
  int present = 0;
  for (uint32_t i = 0; i <= lastColumn; ++i) {
    if (buf.u32(kCtabAt + 12 + 4 * i) == 0) continue;
    columns[size_t(present++)] = static_cast<int32_t>(i);
    if (LinkColumn(ctx, &tail, static_cast<uint16_t>(i)) != kOk) return kFormatError;
  }
  if (int64_t(kCtabSize) > remaining) return kFormatError;
  remaining -= kCtabSize;

  size_t p = kColumnsAt;
  // One COLM record may follow the last present column; it has no column
  // of its own and ends the walk, its chunks unread.
  for (int n = 0; remaining > 0 && n < present; ++n) {
    if (!buf.tagIs(p + 4, "COLM")) return kFormatError;
    const uint32_t first = buf.u16(p + 8), last = buf.u16(p + 10);
    int chunkCount = 0;
    for (uint32_t i = 0; first + i <= last; ++i) {
      if (buf.u32(p + 12 + 4 * size_t(i)) == 0) continue;
      if (chunkCount == kMaxChunks) return kFormatError;
      chunks[size_t(chunkCount++)] = static_cast<int32_t>(first + i);
    }
    const int64_t len = int64_t(buf.u32(p)) + 4;
    if (len > remaining) return kFormatError;
    remaining -= len;
    p += static_cast<size_t>(len);
    if (chunkCount > 0 && remaining > 0) {
      const int r = ReadColumnChunks(ctx, buf, &p, &remaining, columns[size_t(n)], chunks.get(), chunkCount);
      if (r != kOk) return r;
    }
  }
  return kOk;
}

int GetSsDSET(ConvContext *ctx) {
  VtqBuffer buf;
  if (!buf.alloc(kSsBufferSize + 1)) return kNoMemory;
  for (int k = 1;; ++k) {
    uint8_t *head = buf.data();
    std::memset(head, 0, 4);
    if (comm_read(head, 1, 4, ctx->inFile) < 1) return kFormatError;
    if (IsTag(head, "DSET")) {
      ctx->dsetSeen += 1;
      return kNextDset;
    }
    if (IsTag(head, "FNTM")) return kFntmRead;
    uint32_t length = Get4wc(head, ctx);
    // The cell-table buffer's length counts its own four bytes.
    if (k == kCellTableBuffer && length > 4) length -= 4;
    const long got = length > 0 ? ReadGrowing(ctx, buf, 4, length) : 0;
    if (got < 0) return kNoMemory;
    if (k == kCellTableBuffer && length > 4 && ctx->docKind == 2 && ctx->hasSheet == 0) {
      const int r = ssCtabcov(ByteView(buf.data(), 4 + size_t(got)), int64_t(length) + 4, ctx);
      if (r != kOk) return r;
    }
    if (k == kMaxSsBuffers) return kFormatError;
  }
}

// ==== Cell values ====

// Error texts by error number; numbers 10 and above show the first.
const char *const ssERR[10] = {"#ERROR!", "#N/A!", "#DIV/0!", "#VALUE!", "#NUM!",
                               "#REF!",   "#ARG!", "#USER!",  "#DATE!",  "#TIME!"};

namespace {
constexpr size_t kSlotsAt = 12;
constexpr int kSlots = 64;

// A copy of n bytes as an owned NUL-terminated string; null when out of memory.
char *OwnedText(const ByteView &v, size_t at, size_t n) {
  auto *t = static_cast<char *>(VTQ_malloc(n + 1));
  if (!t) return nullptr;
  v.copy(at, reinterpret_cast<uint8_t *>(t), n);
  t[n] = '\0';
  return t;
}

int SetText(CellNode *node, const ByteView &v, size_t at, size_t n) {
  char *t = OwnedText(v, at, n);
  if (!t) return kNoMemory;
  VTQ_free(node->text);
  node->text = t;
  return kOk;
}

int SetFixedText(CellNode *node, const char *text) {
  return SetText(node, ByteView(reinterpret_cast<const uint8_t *>(text), std::strlen(text)), 0, std::strlen(text));
}

// A cached formula result of the given kind; `at` is where it starts in
// the record and `len` its length.
int DecodeCachedResult(CellNode *node, const ByteView &rec, size_t at, int64_t len, uint8_t kind,
                       const ConvContext *ctx) {
  switch (kind) {
    case 0:
    case 1: {
      const size_t width = kind == 0 ? 2 : 4;
      if (ctx->headerVariant == 0) {
        // Least significant byte first; longer results are read from their start.
        if (len < int64_t(width)) return kFormatError;
        uint32_t v = 0;
        for (size_t i = 0; i < width; ++i) v |= uint32_t(rec.u8(at + i)) << (8 * i);
        node->value = kind == 0 ? double(int16_t(v)) : double(int32_t(v));
      } else if (ctx->headerVariant == 1) {
        node->value = kind == 0 ? double(int16_t(rec.u16(at))) : double(int32_t(rec.u32(at)));
      }
      return kOk;
    }
    case 2:
      if (ctx->headerVariant == 0) {
        uint8_t le[8];
        rec.copy(at, le, 8);
        double d;
        std::memcpy(&d, le, 8);  // the host stores doubles least significant byte first
        node->value = d;
      } else if (ctx->headerVariant == 1) {
        uint8_t ext[10];
        rec.copy(at, ext, 10);
        node->value = getfloat(ext, ctx);
      }
      return kOk;
    case 3:
      return SetText(node, rec, at + 1, rec.u8(at));
    case 5:
      return SetFixedText(node, rec.u8(at) ? "TRUE" : "FALSE");
    case 6:
      return SetFixedText(node, ssERR[rec.u8(at) < 10 ? rec.u8(at) : 0]);
    default:
      return kFormatError;
  }
}

// Decodes one cell record (`rec`: its length field first) into node.
int DecodeCell(CellNode *node, const ByteView &rec, uint32_t l, const ConvContext *ctx) {
  const uint8_t kind = rec.u8(2);
  switch (kind) {
    case 0:
      node->value = int16_t(rec.u16(6));
      return kOk;
    case 1:
      node->value = int32_t(rec.u32(6));
      return kOk;
    case 2: {
      if (l > 14) return kFormatError;
      uint8_t ext[10];
      rec.copy(6, ext, 10);  // a shorter record reads its missing bytes as 0
      node->value = getfloat(ext, ctx);
      return kOk;
    }
    case 4: {
      const uint8_t resultKind = rec.u8(6);
      const uint8_t f = rec.u8(8);
      if (resultKind == 4 || resultKind > 6) return kFormatError;
      node->kind = resultKind;
      return DecodeCachedResult(node, rec, 10 + size_t(f), int64_t(l) - f - 8, resultKind, ctx);
    }
    default:  // 3, 5, 6: text, boolean, error
      return DecodeCachedResult(node, rec, 6, int64_t(l) - 4, kind, ctx);
  }
}

// The node a chunk of `column` fills first: the column's head, then along
// the chain past the rows before the chunk.
CellNode *FindFillNode(ConvContext *ctx, int32_t column, uint32_t chunk) {
  CellNode *node = ctx->cells;
  while (node->column < column && node->nextColumn) node = node->nextColumn;
  while (node->row < chunk * 64 && node->nextInColumn) node = node->nextInColumn;
  return node;
}
}  // namespace

int ssGetCellData(const ByteView &chunk, ConvContext *ctx, int32_t column, uint32_t chunkNo, CellNode **tail) {
  CellNode *node = *tail ? *tail : FindFillNode(ctx, column, chunkNo);
  const uint32_t count = chunk.u16(4);
  if (count > kSlots) return kFormatError;
  uint32_t stored = 0;
  int result = kOk;
  for (int s = 0; s < kSlots && stored < count && result == kOk; ++s) {
    const uint32_t off = chunk.u16(kSlotsAt + 2 * size_t(s));
    if (off == 0) continue;
    const uint32_t l = chunk.u16(off);
    if (!chunk.has(off, 2 + size_t(l))) return kFormatError;  // the cell runs past its chunk
    const ByteView rec = chunk.sub(off, 2 + size_t(l));
    node->column = static_cast<uint16_t>(column);
    node->row = static_cast<uint16_t>(chunkNo * 64 + uint32_t(s));
    node->kind = rec.u8(2);
    node->style = rec.u16(4);
    if (node->kind > 6) continue;  // not counted; the next cell takes the node
    result = DecodeCell(node, rec, l, ctx);
    node->present = 1;
    if (result != kOk) break;
    auto *next = static_cast<CellNode *>(VTQ_calloc(1, sizeof(CellNode)));
    if (!next) break;
    node->nextInColumn = next;
    node = next;
    ++stored;
  }
  *tail = node;
  return result;
}

// ==== Style table: cell styles ====

int GetCellStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen, size_t held) {
  const ByteView body(record + 4, held);
  const uint32_t n = body.u16(0), size = body.u16(6);
  ctx->cellStyleCount = int32_t(n);
  if (bodyLen < 22) return kFormatError;
  VTQ_free(ctx->cellStyles);
  ctx->cellStyles = static_cast<CellStyle *>(VTQ_calloc(n ? n : 1, sizeof(CellStyle)));
  if (!ctx->cellStyles) return kNoMemory;
  for (uint32_t i = 0; i < n; ++i) {
    const size_t e = 28 + size_t(i) * size;
    CellStyle &c = ctx->cellStyles[i];
    body.copy(e, c.styleHead, 4);
    c.formatCode = body.u8(e + 4);
    c.decimals = body.u8(e + 5);
    c.thousandsSep = body.u8(e + 8);
    c.negativeInParens = body.u8(e + 9);
    if (22 + int64_t(i + 1) * size > bodyLen) return kFormatError;
  }
  return kOk;
}

const CellStyle *LookupCellStyle(const ConvContext *ctx, uint16_t styleNo) {
  // A style number beyond the map reads as an unset slot: cell style 0.
  const uint32_t idx = int32_t(styleNo) < ctx->styleMapCount && ctx->styleMap ? ctx->styleMap[styleNo] : 0;
  if (!ctx->cellStyles || ctx->cellStyleCount < 1) return nullptr;
  if (int64_t(idx) < ctx->cellStyleCount) return &ctx->cellStyles[idx];
  return &ctx->cellStyles[ctx->cellStyleCount - 1];
}

// ==== Date serials and the Japanese calendar ====

// ==== Cell value formatting ====

// ==== Cell text writer ====

int PutSSVtqTxt(ConvContext *) { return kOk; }
