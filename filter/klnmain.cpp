// The bottom layer: the conversion context, the byte readers, the
// header's records, the reads over a data set's blocks and the character
// conversion.
#include <algorithm>
#include <cmath>

#include "kln_blocks.h"
#include "kln_conv.h"

// ==== Context ====

int initial(ConvContext **out) {
  *out = static_cast<ConvContext *>(VTQ_calloc(1, sizeof(ConvContext)));
  ConvContext *ctx = *out;
  if (!ctx) return kNoMemory;
  ctx->columnHeads[0] = NewCellNode(ctx);
  if (!ctx->columnHeads[0]) return kNoMemory;
  ctx->columnHeadCount = 1;
  ctx->outBuf = static_cast<uint8_t *>(VTQ_calloc(kOutBufSize, 1));
  if (!ctx->outBuf) return kNoMemory;
  ctx->oleState = static_cast<uint8_t *>(VTQ_calloc(VTQ_OLE_STATE_SIZE, 1));
  if (!ctx->oleState) return kNoMemory;
  return kOk;
}

void FreeDbFields(ConvContext *ctx) {
  for (int i = 0; i < ctx->dbFieldCount; ++i) {
    DbField &f = ctx->dbFields[i];
    if (!f.name) break;  // the table was filled only this far
    VTQ_free(f.name);
    f.name = nullptr;
    if (f.extraLen != 0 && f.extra) {
      VTQ_free(f.extra);
      f.extra = nullptr;
    }
  }
  VTQ_free(ctx->dbFields);
  ctx->dbFields = nullptr;
}

namespace {
constexpr uint32_t kFirstCellBlock = 64, kMaxCellBlock = uint32_t(1) << kCellBlockBits;

// Nodes in a block: 64, 128, ..., 2048, then 4096 from the seventh block on.
uint32_t BlockSize(uint32_t block) { return block < 6 ? kFirstCellBlock << block : kMaxCellBlock; }

// Adds an empty block of nodes; false when out of memory or out of indices.
bool AddCellBlock(ConvContext *ctx) {
  if (ctx->cellBlockCount == kMaxCellBlocks) return false;
  if (ctx->cellBlockCount == ctx->cellBlockRoom) {
    const uint32_t room = ctx->cellBlockRoom ? 2 * ctx->cellBlockRoom : 16;
    void *p = VTQ_realloc(ctx->cellBlocks, room * sizeof(CellNode *));
    if (!p) return false;
    ctx->cellBlocks = static_cast<CellNode **>(p);
    ctx->cellBlockRoom = room;
  }
  auto *block = static_cast<CellNode *>(VTQ_malloc(BlockSize(ctx->cellBlockCount) * sizeof(CellNode)));
  if (!block) return false;
  ctx->cellsUsed = ctx->cellBlockCount == 0 ? 1 : 0;  // index 0 names no node
  ctx->cellBlocks[ctx->cellBlockCount++] = block;
  return true;
}
}  // namespace

CellNode *NewCellNode(ConvContext *ctx, uint32_t *index) {
  if ((ctx->cellBlockCount == 0 || ctx->cellsUsed == BlockSize(ctx->cellBlockCount - 1)) && !AddCellBlock(ctx))
    return nullptr;
  const uint32_t at = ((ctx->cellBlockCount - 1) << kCellBlockBits) | ctx->cellsUsed++;
  if (index) *index = at;
  CellNode *node = CellAt(ctx, at);
  *node = CellNode{};
  return node;
}

namespace {
// Arena chunks of 64 KiB (texts are far shorter: a chunk's unused tail is
// small).
constexpr size_t kTextChunk = 65536;

uint8_t *ChunkBytes(TextChunk *chunk) { return reinterpret_cast<uint8_t *>(chunk + 1); }
}  // namespace

char *NewCellText(ConvContext *ctx, const ByteView &v, size_t at, size_t n) {
  const size_t held = at < v.size() ? std::min(n, v.size() - at) : 0;
  const void *nul = held ? std::memchr(v.data() + at, 0, held) : nullptr;
  n = nul ? size_t(static_cast<const uint8_t *>(nul) - (v.data() + at)) : held;
  const size_t need = 4 + n + 1;
  TextChunk *chunk = ctx->cellTexts;
  if (!chunk || chunk->size - chunk->used < need) {
    const size_t size = std::max(need, kTextChunk);
    auto *fresh = static_cast<TextChunk *>(VTQ_malloc(sizeof(TextChunk) + size));
    if (!fresh) return nullptr;
    *fresh = TextChunk{chunk, size, 0};
    ctx->cellTexts = chunk = fresh;
  }
  uint8_t *at4 = ChunkBytes(chunk) + chunk->used;
  const uint32_t len = static_cast<uint32_t>(n);
  std::memcpy(at4, &len, 4);
  if (n > 0) std::memcpy(at4 + 4, v.data() + at, n);
  at4[4 + n] = 0;
  chunk->used += need;
  return reinterpret_cast<char *>(at4 + 4);
}

int SetCellText(ConvContext *ctx, CellNode *node, const ByteView &v, size_t at, size_t n) {
  node->text = NewCellText(ctx, v, at, n);
  return node->text ? kOk : kNoMemory;
}

int SetFixedCellText(ConvContext *ctx, CellNode *node, const char *text) {
  const size_t n = std::strlen(text);
  return SetCellText(ctx, node, ByteView(reinterpret_cast<const uint8_t *>(text), n), 0, n);
}

void FreeCellTable(ConvContext *ctx) {
  for (TextChunk *chunk = ctx->cellTexts; chunk;) {
    TextChunk *next = chunk->next;
    VTQ_free(chunk);
    chunk = next;
  }
  ctx->cellTexts = nullptr;
  for (uint32_t b = 0; b < ctx->cellBlockCount; ++b) VTQ_free(ctx->cellBlocks[b]);
  VTQ_free(ctx->cellBlocks);
  ctx->cellBlocks = nullptr;
  ctx->cellBlockCount = ctx->cellBlockRoom = ctx->cellsUsed = 0;
  ctx->columnHeadCount = 0;
}

int closeall(ConvContext *ctx) {
  if (!ctx) return kOk;
  if (ctx->dbFields) FreeDbFields(ctx);
  VTQ_free(ctx->styleMap);
  ctx->styleMap = nullptr;
  VTQ_free(ctx->cellStyles);
  ctx->cellStyles = nullptr;
  FreeCellTable(ctx);
  VTQ_free(ctx->stripBuf);
  ctx->stripBuf = nullptr;
  VTQ_free(ctx->outBuf);
  ctx->outBuf = nullptr;
  VTQ_free(ctx->oleState);
  ctx->oleState = nullptr;
  VTQ_free(ctx);
  return kOk;
}

// ==== Byte readers ====

uint32_t Get2wc(const uint8_t *p, const ConvContext *) { return (uint32_t(p[0]) << 8) | p[1]; }

uint32_t Get4wc(const uint8_t *p, const ConvContext *) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// The significand is summed bit by bit, the leading (explicit) bit weighing
// 1.0, each step rounded to double (so a significand wider than a double
// rounds as that sum does, not as one rounding of all 64 bits would), and
// then scaled by the power of two of the exponent: exact up to 2^1023,
// infinite above (not-a-number for a zero significand).
double getfloat(const uint8_t *p, const ConvContext *ctx) {
  const uint32_t w = Get2wc(p, ctx);
  const int e = static_cast<int>(w & 0x7FFF) - 16383;
  if (e < -65) return 0.0;
  // The 64-bit mantissa (bit 63 weighs 1) rounded as adding its bits one
  // by one from the top in doubles rounds it: 53 bits from the first set
  // one, plus one when the next bit is set and the last kept bit is odd
  // (a tie goes to even; the bits below it are too small to count).
  uint64_t m = 0;
  for (int i = 2; i < 10; ++i) m = (m << 8) | p[i];
  double sum = 0.0;
  if (m != 0) {
    const int shift = 11 - __builtin_clzll(m);
    if (shift <= 0) {
      sum = std::ldexp(double(m), -63);
    } else {
      uint64_t kept = m >> shift;
      if (((m >> (shift - 1)) & 1) && (kept & 1)) ++kept;
      sum = std::ldexp(double(kept), shift - 63);
    }
  }
  double result = sum * std::ldexp(1.0, e);
  if (w & 0x8000) result = -result;
  return result;
}

// ==== Global header ====

bool ReadHeaderBytes(ConvContext *ctx, uint8_t *buf, uint32_t n) {
  std::memset(buf, 0, n);
  return n == 0 || comm_read(buf, 1, n, ctx->inFile) >= 1;
}

namespace {
// The fixed part: field sizes from offset 0 to 344.
constexpr uint16_t kFixedFields[] = {4, 4, 10, 20, 37, 1, 8, 2, 3, 7, 36, 94, 21, 1,
                                     15, 1, 26, 3, 7, 2, 2, 3, 21, 5, 9, 1, 1};
constexpr size_t kSignatureField = 1;
constexpr size_t kDocKindField = 14;  // its last byte, file offset 262

void SetHeaderVariant(ConvContext *ctx, const uint8_t *mark) {
  if (Get2wc(mark, ctx) == 0x0402)
    ctx->headerVariant = 0;
  else if (mark[0] == 0x04)
    ctx->headerVariant = 1;
}

bool ReadHeaderFixedPart(ConvContext *ctx, uint8_t *buf) {
  for (size_t i = 0; i < sizeof kFixedFields / sizeof kFixedFields[0]; ++i) {
    if (!ReadHeaderBytes(ctx, buf, kFixedFields[i])) return false;
    if (i == 0) SetHeaderVariant(ctx, buf);
    if (i == kSignatureField && !IsTag(buf, "RVZT")) return false;
    if (i == kDocKindField) {
      ctx->docKind = buf[14];
      if (ctx->docKind > 3) return false;
    }
  }
  return true;
}

bool ReadHeaderTextRecord(ConvContext *ctx, uint8_t *buf, ByteView *text, bool *absent) {
  *text = {};
  if (!ReadHeaderBytes(ctx, buf, 4)) return false;
  *absent = Get4wc(buf, ctx) == 0;
  if (*absent) return true;
  if (!ReadHeaderBytes(ctx, buf, 1)) return false;
  const uint32_t len = buf[0];
  if (!ReadHeaderBytes(ctx, buf, len)) return false;
  *text = ByteView(buf, len);
  return true;
}
}  // namespace

bool ReadHeaderStart(ConvContext *ctx, uint8_t *buf, HeaderTextFn take, void *user, bool *lastAbsent) {
  if (!ReadHeaderFixedPart(ctx, buf)) return false;
  for (int i = 0; i < kHeaderTextRecords; ++i) {
    ByteView text;
    if (!ReadHeaderTextRecord(ctx, buf, &text, lastAbsent)) return false;
    if (take) take(user, i, text);
  }
  return true;
}

// ==== Blocks of a data set ====

bool ReadWord(ConvContext *ctx, uint8_t *b) {
  std::memset(b, 0, 4);
  return comm_read(b, 1, 4, ctx->inFile) >= 1;
}

int ReadBlockHead(ConvContext *ctx, uint8_t *head) {
  if (!ReadWord(ctx, head)) return kFormatError;
  if (IsTag(head, "DSET")) {
    ctx->dsetSeen += 1;
    return kNextDset;
  }
  return IsTag(head, "FNTM") ? kFntmRead : kOk;
}

long ReadGrowing(ConvContext *ctx, VtqBuffer &buf, size_t at, uint32_t len) {
  constexpr uint32_t kPiece = 1u << 16;
  size_t got = 0;
  while (got < len) {
    const uint32_t part = static_cast<uint32_t>(len - got < kPiece ? len - got : kPiece);
    const size_t need = at + got + part + 1;  // one spare byte for a terminator
    // Doubling keeps the reads few; the whole record and its spare byte
    // bound the growth.
    if (need > buf.size() && !buf.grow(std::min(std::max(need, 2 * buf.size()), at + size_t(len) + 1))) return -1;
    const size_t n = comm_read(buf.data() + at + got, 1, part, ctx->inFile);
    got += n;
    if (n < part) break;
  }
  return static_cast<long>(got);
}

namespace {
constexpr size_t kReadBufferSize = 8192;
}  // namespace

int NextBlock(ConvContext *ctx, VtqBuffer &buf, Block *block, unsigned framing) {
  if (!buf.grow(kReadBufferSize)) return kNoMemory;
  uint8_t *head = buf.data();
  const int tag = (framing & kNoTags) ? (ReadWord(ctx, head) ? kOk : kFormatError) : ReadBlockHead(ctx, head);
  if (tag != kOk) return tag;
  uint32_t length = Get4wc(head, ctx);
  if (!(framing & kUnsignedLength) && static_cast<int32_t>(length) <= 0) length = 0;
  if ((framing & kCountsItself) && length > 4) length -= 4;
  const long got = length > 0 ? ReadGrowing(ctx, buf, 4, length) : 0;
  if (got < 0) return kNoMemory;
  *block = {ByteView(buf.data(), 4 + size_t(got)), length};
  return kOk;
}

int SkipCurDSET(ConvContext *ctx) {
  uint8_t b[4];
  for (;;) {
    const int head = ReadBlockHead(ctx, b);
    if (head != kOk) return head;
    const int32_t n = static_cast<int32_t>(Get4wc(b, ctx));
    if (n <= 0) continue;  // an empty or negative length is passed over
    const int r = ReadFilePass(n, ctx);
    if (r != kOk) return r;
  }
}

int SkipCurBuff(ConvContext *ctx) {
  uint8_t b[4];
  if (!ReadWord(ctx, b) || IsTag(b, "DSET")) return kFormatError;
  const int32_t n = static_cast<int32_t>(Get4wc(b, ctx));
  if (n == 0) return kOk;
  return ReadFilePass(n, ctx) != kOk ? kFormatError : kOk;
}

int ReadFilePass(int32_t n, ConvContext *ctx) {
  uint8_t b[4096];
  for (int32_t left = n; left > 0;) {
    const size_t part = left < int32_t(sizeof b) ? size_t(left) : sizeof b;
    if (comm_read(b, 1, part, ctx->inFile) < part) return kFormatError;
    left -= int32_t(part);
  }
  return kOk;
}

// ==== Character conversion ====

int GetSeparator(uint32_t flags) { return static_cast<int>(VTQ_LineEndCode(flags)); }

int GetString_kln(char *name33, uint32_t *flag, uint32_t code) {
  *flag = 0;
  if (code == KLN_CHARSET_WINDOWS31J) {
    std::memcpy(name33, "WINDOWS31J", 11);
    *flag = 1;
  } else {
    std::memcpy(name33, "ISO-8859-1", 11);
  }
  return kOk;
}

namespace {
// The stripped copy of written text, in a buffer the context keeps from
// write to write.
uint8_t *StripBuffer(ConvContext *ctx, size_t n) {
  if (n > ctx->stripSize) {
    VTQ_free(ctx->stripBuf);
    ctx->stripBuf = static_cast<uint8_t *>(VTQ_malloc(n));
    ctx->stripSize = ctx->stripBuf ? n : 0;
  }
  return ctx->stripBuf;
}
}  // namespace

int CodeConvStart(ConvContext *ctx, ConvRun &run, const uint8_t *text, uint32_t len, int mode, VtqBuffer *scratch) {
  CconvCharsetRecord record{0, 0, 1};
  run.options = CconvOptions{};
  run.options.convOption = ctx->options->convOption;
  run.firstOutput = false;
  if (!(ctx->flags & kCtxOutputMade)) {
    run.firstOutput = !(ctx->flags & (kCtxPropertyMode | kCtxEventMode));
    ctx->flags |= kCtxOutputMade;
  }
  run.options.firstOutput = run.firstOutput ? 1 : 0;
  run.options.word8 = 1;
  run.options.word4112 = 1;
  run.options.separatorCode = static_cast<uint32_t>(GetSeparator(ctx->options->flags));

  char docName[33];
  if (mode == 3)
    GetString_kln(docName, &record.dbcs, ctx->charsetInfo->charsetCode);
  else
    VTQ_GetResouceString(mode, docName, 33);
  char outName[33];
  std::memcpy(outName, ctx->options->outCharset, 32);
  outName[32] = '\0';
  if (std::strcmp(outName, "ISO-8859-1") == 0) run.options.subst = run.options.subst2 = '?';

  if (cconvInitConvert(&run.state, &run.options, outName) != 0) return kFormatError;
  run.active = true;
  if (cconvChgCharset(&run.state, &record, docName) != 0) return kFormatError;
  // outBuf is not cleared: only the bytes the converter writes are read.
  run.state.out = ctx->outBuf;
  run.state.outLen = 0;
  run.state.outCap = kOutBufSize;
  uint8_t *stripped;
  if (scratch) {
    if (!scratch->grow(size_t(len) + 16)) return kNoMemory;
    stripped = scratch->data();
  } else {
    stripped = StripBuffer(ctx, size_t(len) + 16);
    if (!stripped) return kNoMemory;
  }
  run.state.in = stripped;
  run.state.inPos = 0;
  run.state.inLen = VTQ_CopyStripControlCode(stripped, text, len, VTQ_GetGroupCharWidth(docName), record.dbcs);
  return kOk;
}

int CodeConvPiece(ConvContext *ctx, ConvRun &run) {
  const uint32_t before = run.state.inPos;
  run.state.outLen = 0;
  if (cconvConvert(&run.state) != 0) return kFormatError;
  // A converter that neither reads nor writes would never finish.
  if (run.state.outLen == 0 && run.state.inPos == before && CodeConvMore(run)) return kFormatError;
  ctx->outLen = run.state.outLen;
  return kOk;
}

void CodeConvEnd(ConvContext *ctx, ConvRun &run, uint32_t totalProduced) {
  if (totalProduced == 0 && run.firstOutput) ctx->flags &= ~kCtxOutputMade;
}

int CodeConv(ConvContext *ctx, const uint8_t *text, uint32_t len, int mode) {
  ConvRun run;
  int r = CodeConvStart(ctx, run, text, len, mode);
  if (r == kOk) r = CodeConvPiece(ctx, run);
  // The whole text must fit outBuf in one piece.
  if (r == kOk && CodeConvMore(run)) r = kFormatError;
  CodeConvEnd(ctx, run, r == kOk ? ctx->outLen : 0);
  return r == kOk ? kOk : kFormatError;
}
