#include "wpchange.h"

#include "events.h"
#include "filecomm.h"
#include "kln_blocks.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// ==== Word-processing text ====
//
// A word-processing data set is a run of blocks: two blocks this reader
// does not interpret, the object table (32-byte entries), one data block
// for each object entry of kind 3, the text index (10-byte descriptors),
// and one text block per descriptor. Text bytes 1, 11 and 12 end a line,
// 2..9 are layout bytes shown as a space, and 6 anchors the next inline
// text object.

namespace {
constexpr size_t kObjectEntrySize = 32;
constexpr size_t kObjectKind = 5, kObjectTextLength = 10, kObjectText = 12;
constexpr size_t kInlineSlot = 11;  // an inline text keeps at most 11 bytes
constexpr size_t kDescriptorSize = 10;
constexpr int kObjectTableBlock = 3, kTextIndexBlock = 4, kMaxBlocks = 256;

// First bytes of a two-byte character; the second byte may be anything.
bool IsLead(uint8_t b) { return (b >= 0x81 && b <= 0x9F) || b >= 0xE0; }

// What a text byte stands for: 1, 11 and 12 end a line, 2..9 are layout
// bytes shown as a space (6 too, where no inline text takes its place).
uint8_t Control(uint8_t b) {
  if (b == 1 || b == 11 || b == 12) return 13;
  return b >= 2 && b <= 9 ? ' ' : b;
}

// The texts of the inline objects (kind-4 entries), in entry order.
struct InlineTexts {
  VtqPtr<uint8_t> texts;      // kInlineSlot bytes per entry
  VtqPtr<uint32_t> lengths;
  int count = 0;
  const uint8_t *text(int i) const { return texts.get() + size_t(i) * kInlineSlot; }
};

// Keeps the inline text of one kind-4 entry: the text's last character may
// not be a lone lead byte; a text longer than the slot is cut to the slot
// on a character boundary; control bytes are translated as in the text.
int StoreInlineText(const ByteView &table, size_t entry, InlineTexts &inl) {
  const uint32_t length = table.u16(entry + kObjectTextLength);
  const size_t at = entry + kObjectText;
  size_t kept = 0;
  size_t j = 0;
  while (j < length) {
    j += (IsLead(table.u8(at + j)) && length > 1) ? 2 : 1;
    if (j <= kInlineSlot) kept = j;
  }
  if (j > length) return kFormatError;
  uint8_t *slot = inl.texts.get() + size_t(inl.count) * kInlineSlot;
  table.copy(at, slot, kept);
  for (size_t k = 0; k < kept;) {
    const uint8_t b = slot[k];
    if (IsLead(b) && length > 1) {
      k += 2;
      continue;
    }
    slot[k++] = Control(b);
  }
  inl.lengths[size_t(inl.count)] = static_cast<uint32_t>(kept);
  ++inl.count;
  return kOk;
}

// Reads the object table: keeps the inline texts and skips the data block
// that follows the table for every entry of kind 3.
int ReadObjectTable(ConvContext *ctx, const ByteView &table, InlineTexts &inl) {
  const size_t n = table.size() / kObjectEntrySize;
  if (!inl.texts.alloc(n * kInlineSlot) || !inl.lengths.alloc(n)) return kNoMemory;
  for (size_t i = 0; i < n; ++i) {
    const size_t entry = i * kObjectEntrySize;
    const uint8_t kind = table.u8(entry + kObjectKind);
    if (kind >= 5) return kFormatError;
    if (kind == 3) {
      const int r = SkipCurBuff(ctx);
      if (r != kOk) return r;
    } else if (kind == 4) {
      const int r = StoreInlineText(table, entry, inl);
      if (r != kOk) return r;
    }
  }
  return kOk;
}

struct TextBlockDesc {
  int32_t position;
  int16_t length;
};

// The lead bytes in a row just before bit p of a 16-byte chunk, counted
// from where a character begins (notLead: the bytes that are no lead).
int LeadRun(unsigned notLead, int p, bool midPair) {
  const unsigned below = notLead & ((1u << p) - 1);
  if (below) return p - 1 - (31 - __builtin_clz(below));
  return p - (midPair ? 1 : 0);
}

#ifdef __SSE2__
// Bit i set for each of the 16 bytes at p that lies in [lo, hi].
unsigned BytesIn(__m128i v, uint8_t lo, uint8_t hi) {
  const __m128i off = _mm_sub_epi8(v, _mm_set1_epi8(static_cast<char>(lo)));
  const __m128i in = _mm_cmpeq_epi8(_mm_min_epu8(off, _mm_set1_epi8(static_cast<char>(hi - lo))), off);
  return static_cast<unsigned>(_mm_movemask_epi8(in));
}

// Of `bits` (bytes of a 16-byte chunk, no lead byte among them), those
// that begin a character. After a byte that is no lead byte a character
// begins; before it, a run of lead bytes alternates lead and second byte.
// midPair: the chunk's first byte is the second of a pair.
unsigned AtCharStart(unsigned bits, unsigned notLead, bool midPair) {
  unsigned starts = 0;
  for (; bits; bits &= bits - 1) {
    const int p = __builtin_ctz(bits);
    if (LeadRun(notLead, p, midPair) % 2 == 0) starts |= 1u << p;
  }
  return starts;
}
#endif

// The text of one block: control bytes translated, inline texts in place
// of their anchors, double-byte characters whole.
class BlockTranslator {
 public:
  BlockTranslator(const InlineTexts &inl, int *nextInline) : inl_(inl), next_(nextInline) {}

  // Translates in[0..n) into out (room for n bytes and the inline texts);
  // answers the output length. *pastEnd says whether the last character
  // was a lead byte in the last position. A block of one byte has no pair.
  size_t run(const uint8_t *in, size_t n, uint8_t *out, bool *pastEnd) const {
    size_t o = 0;
    size_t j = 0;
    *pastEnd = false;
#ifdef __SSE2__
    // Sixteen bytes at a time, copied whole, then the layout and line-end
    // bytes that begin a character replaced; a chunk with an inline text's
    // anchor goes byte by byte. At least one byte is left to the end.
    bool midPair = false;
    while (n - j > 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + j));
      const unsigned controls = BytesIn(v, 1, 12) & ~BytesIn(v, 10, 10);
      if (inl_.count > 0 && (controls & BytesIn(v, 6, 6))) {
        if (midPair) out[o++] = in[j++];
        byteByByte(in, n, j, j + 16, out, o, pastEnd);
        midPair = false;
        continue;
      }
      const unsigned notLead = ~(BytesIn(v, 0x81, 0x9F) | BytesIn(v, 0xE0, 0xFF)) & 0xFFFF;
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + o), v);
      for (unsigned m = AtCharStart(controls, notLead, midPair); m; m &= m - 1) {
        const int p = __builtin_ctz(m);
        out[o + p] = Control(in[j + p]);
      }
      midPair = LeadRun(notLead, 16, midPair) % 2 == 1;
      o += 16;
      j += 16;
    }
    if (midPair) out[o++] = in[j++];
#endif
    byteByByte(in, n, j, n, out, o, pastEnd);
    return o;
  }

 private:
  // Translates the characters that begin in in[j..stop) at out[o]; a pair
  // may take the byte at stop. Moves j and o on.
  void byteByByte(const uint8_t *in, size_t n, size_t &j, size_t stop, uint8_t *out, size_t &o,
                  bool *pastEnd) const {
    while (j < stop) {
      const uint8_t b = in[j];
      if (b == 6 && inl_.count > 0) {
        if (*next_ < inl_.count) {
          const uint32_t len = inl_.lengths[size_t(*next_)];
          std::memcpy(out + o, inl_.text(*next_), len);
          o += len;
          ++*next_;
        }
      } else if (IsLead(b) && n > 1) {
        out[o++] = b;
        out[o++] = j + 1 < n ? in[j + 1] : 0;
        *pastEnd = j + 1 >= n;
        j += 2;
        continue;
      } else {
        out[o++] = Control(b);
      }
      ++j;
    }
  }

  const InlineTexts &inl_;
  int *next_;
};

// Reads the text blocks that the text index (its length word, then the
// body as read) describes, and writes their text followed by one carriage
// return. The blocks are read into readBuffer, which may hold the index.
int wpGetTxtBlock(VtqBuffer &readBuffer, const ByteView &index, ConvContext *ctx, const InlineTexts &inl) {
  const uint32_t s = index.u32(0);
  if (s >= 1 && s <= 9) return kFormatError;
  const uint32_t count = s / kDescriptorSize;
  // Descriptors beyond the bytes read are zero, and a zero length fails:
  // only those read need room.
  const size_t held = index.size() > 4 ? (index.size() - 4) / kDescriptorSize : 0;
  VtqPtr<TextBlockDesc> desc;
  if (!desc.alloc((held < count ? held : count) + 1)) return kNoMemory;
  for (size_t k = 0; k < held && k < count; ++k) {
    desc[k].position = static_cast<int32_t>(index.u32(4 + kDescriptorSize * k));
    desc[k].length = static_cast<int16_t>(index.u16(4 + kDescriptorSize * k + 4));
  }

  int nextInline = 0;
  const BlockTranslator translate(inl, &nextInline);
  VtqBuffer out;  // the translated text, kept from block to block
  int32_t total = 0;
  bool carry = false;
  uint8_t carryByte = 0;
  for (uint32_t k = 0; k < count; ++k) {
    const TextBlockDesc d = k < held ? desc[k] : TextBlockDesc{0, 0};
    if (d.position < 0 || d.position < total) return kFormatError;
    // A text block's length word must be the one its descriptor gives.
    Block block;
    const int r = NextBlock(ctx, readBuffer, &block, kNoTags);
    if (r != kOk) return r;
    const int32_t n = static_cast<int32_t>(block.bytes.u32(0));
    if (d.length <= 0 || n != d.length) return kFormatError;
    if (block.bodyMissing()) return kTextBlockFailed;

    // The body follows its length word; a carried lead byte goes just
    // before it, in the length word's last byte.
    const size_t got = block.bytes.size() - 4, start = carry ? 1 : 0;
    if (!readBuffer.grow(4 + size_t(n) + 1)) return kNoMemory;
    uint8_t *text = readBuffer.data() + 4 - start;
    std::memset(text + start + got, 0, size_t(n) - got);  // a short read leaves no stale bytes
    total += d.length;
    if (carry) text[0] = carryByte;
    const size_t blockLen = size_t(n) + start;

    if (!out.grow(blockLen + kInlineSlot * size_t(inl.count) + 10)) return kNoMemory;
    bool pastEnd;
    size_t outLen = translate.run(text, blockLen, out.data(), &pastEnd);
    size_t covered = blockLen;  // input bytes the output stands for
    carry = false;
    if (blockLen == 1 && IsLead(text[0])) {
      carry = true;  // a lone lead byte opens the next block
      carryByte = text[0];
      continue;
    }
    if (pastEnd) {
      outLen -= 2;
      covered -= 1;
      carry = k + 1 < count;
      carryByte = text[blockLen - 1];
    }
    if (covered > 0 && text[covered - 1] == 0 && outLen > 0) --outLen;
    if (comm_write(out.data(), 1, outLen, ctx->outFile, ctx) < 1) return kFormatError;
  }
  if (comm_write("\r", 1, 1, ctx->outFile, ctx) < 1) return kFormatError;
  return kOk;
}
}  // namespace

int GetWpRtfDSET(ConvContext *ctx) {
  VtqBuffer readBuffer;
  InlineTexts inl;
  for (int k = 1; k <= kMaxBlocks; ++k) {
    Block block;
    const int tag = NextBlock(ctx, readBuffer, &block);
    if (tag != kOk) return tag;
    if (block.bodyLength == 0) continue;
    if (k == kObjectTableBlock) {
      const int r = ReadObjectTable(ctx, block.bytes.sub(4, block.bytes.size()), inl);
      if (r != kOk) return r;
    } else if (k == kTextIndexBlock) {
      const int r = wpGetTxtBlock(readBuffer, block.bytes, ctx, inl);
      return r != kOk ? r : SkipCurDSET(ctx);
    }
  }
  return kFormatError;  // 256 blocks without a text index
}

// ==== Drawings and their embedded OLE objects ====
//
// A drawing's header record lists its objects (entries of entryStride
// bytes from offset 88: kind at byte 0, subkind at byte 2). The blocks
// after the record are a leading block with a count n, 2n blocks the
// reader passes over, and then the blocks of the objects in entry order:
// a header block for each object that has blocks, one more block for a
// framed shape, and for an embedded OLE object its bytes after a 28-byte
// head whose first word is their length plus 24.

namespace {
constexpr size_t kObjectCountAt = 4, kEntryStrideAt = 10, kEntriesAt = 88;
constexpr uint32_t kOleHeadSize = 28, kOleHeadUnread = 24;

// How an object entry's blocks follow in the data set.
enum Mark : uint16_t {
  kNoBlocks = 0,
  kOleObject = 1,       // header block, then the object's bytes
  kHeaderAndBlock = 2,  // header block and one more block
  kPlainShape = 3,      // no blocks of its own
  kHeaderOnly = 4,      // header block only
};

uint16_t MarkOf(uint8_t kind, uint8_t subkind) {
  if (kind == 8 && subkind == 5) return kOleObject;
  if (kind == 8 && subkind == 0) return kHeaderAndBlock;
  if (kind == 1 && subkind == 1) return kHeaderOnly;
  if (kind == 1 && subkind == 0) return kPlainShape;
  return kNoBlocks;
}

bool HasBlocks(uint16_t mark) { return mark == kOleObject || mark == kHeaderAndBlock || mark == kHeaderOnly; }

// The leading block: a length, a count of block pairs, and the rest of the
// block, passed over; then the pairs themselves. A failed skip of a pair
// ends the skipping without ending the data set.
int SkipLeadingBlocks(ConvContext *ctx, uint8_t *small) {
  std::memset(small, 0, 6);
  if (comm_read(small, 1, 6, ctx->inFile) < 6) return kFormatError;
  const int32_t length = static_cast<int32_t>(Get4wc(small, ctx));
  const int16_t pairs = static_cast<int16_t>(Get2wc(small + 4, ctx));
  if (length <= 0) return kFormatError;
  const int skipped = ReadFilePass(length - 2, ctx);
  if (pairs <= 0) return kFormatError;
  if (skipped != kOk) return skipped;
  for (int32_t i = 0; i < 2 * int32_t(pairs); ++i) {
    if (SkipCurBuff(ctx) != kOk) break;
  }
  return kOk;
}

// What a failed object means for the drawing: passed over (kOk with
// *goOn), the end of the output (kOk), or the document's result.
int OleFailure(ConvContext *ctx, int code, bool *goOn) {
  const FilterOptions *opt = ctx->options;
  const bool limitStops = (opt->flags & KLN_FLAG_OLE_LIMIT_STOPS) && (opt->flags & KLN_FLAG_SIZE_LIMIT);
  *goOn = false;
  if (!(opt->flags & KLN_FLAG_OLE_CONTINUE)) return limitStops && code == kSizeLimit ? kSizeLimit : kOleFailed;
  if (limitStops) {
    TakeOleStateTotal(ctx);
    if (ctx->totalOut > opt->sizeLimit || code == kSizeLimit) {
      ctx->writeState = kWriteStopped;
      return kOk;
    }
  }
  *goOn = true;
  return kOk;
}

// One OLE object whose 28-byte head is next in the input.
int ReadOleObject(ConvContext *ctx, uint8_t *scratch, bool *goOn) {
  *goOn = true;
  std::memset(scratch, 0, kOleHeadSize);
  if (comm_read(scratch, 1, kOleHeadSize, ctx->inFile) < 1) return kFormatError;
  const int32_t oleLength = static_cast<int32_t>(Get4wc(scratch, ctx));
  if (oleLength < int32_t(kOleHeadUnread)) return kFormatError;
  const int32_t bytes = oleLength - int32_t(kOleHeadUnread);
  const uint32_t flags = ctx->options->flags;
  if (ctx->writeState != 0) return kOk;  // output stopped: the object stays unread
  if (flags & KLN_FLAG_OLE_REFUSE) return kOleRefused;
  const bool extract = (flags & KLN_FLAG_OLE_EXTRACT) != 0;
  if (!extract && !ReportsObjects(ctx)) return ReadFilePass(bytes, ctx);
  const int r = WrtOLEFile(bytes, ctx);
  if (r == kOk || ctx->eventStop != 0) return r;
  return extract ? OleFailure(ctx, r, goOn) : r;
}

// Walks the objects' blocks until the entries are used up or the next
// data set begins.
int WalkObjects(ConvContext *ctx, const uint16_t *marks, uint16_t objectCount, uint8_t *scratch, uint8_t *small) {
  size_t entry = 0;
  for (;;) {
    const int tag = ReadBlockHead(ctx, small);
    if (tag == kNextDset) return ctx->dsetSeen > uint32_t(ctx->dsetCount) ? kFormatError : kNextDset;
    if (tag != kOk && tag != kFntmRead) return tag;  // only "DSET" is a tag here
    const int32_t headerLength = static_cast<int32_t>(Get4wc(small, ctx));
    if (headerLength > 0) {
      const int r = ReadFilePass(headerLength, ctx);
      if (r != kOk) return r;
    }
    while (entry + 1 < objectCount && !HasBlocks(marks[entry])) ++entry;
    if (marks[entry] == kHeaderAndBlock) {
      const int r = SkipCurBuff(ctx);
      if (r != kOk) return r;
    } else if (marks[entry] == kOleObject) {
      bool goOn;
      const int r = ReadOleObject(ctx, scratch, &goOn);
      if (r != kOk || !goOn) return r;
    }
    if (++entry >= objectCount) return kOk;
  }
}

// A unique temporary file for one object's bytes, beside the output when
// the caller asks for it.
bool MakeTempName(ConvContext *ctx, char *name) {
  if (ctx->options->tempFlags & KLN_TEMP_BESIDE_OUTPUT) return VTQ_ASC_tmpnam1(ctx->outPath, name) != 0;
  return VTQ_ASC_tmpnam(name) != 0;
}

// Hands the object's text on to the output stream (the host's, or the
// events' text). A failed write is noted here: the object's own result
// would pass it off as a damaged object.
long ForwardToHost(void *user, const void *data, long len) {
  auto *ctx = static_cast<ConvContext *>(user);
  if (VTQ_WriteStream(ctx->outStream, len, data) != -1) return len;
  ctx->writeFailed = 1;
  return 0;
}

// Lets the runtime write the text of the opened object to the output. In
// file mode a failed write shows when the output is closed.
int ExtractOleText(ConvContext *ctx, VTQ_OLE *ole) {
  if (!ctx->oleState) return kFormatError;
  PutOleStateTotal(ctx);
  int code;
  if (ctx->streamMode != 0) {  // the host's stream, or the events' text
    VTQ_STREAM *out = VTQ_StreamCreate(ForwardToHost, ctx);
    if (!out) return kNoMemory;
    code = VTQ_GetOleTextStreamWithErrCallback(ole, out, ctx->options, ctx->oleState, ctx->errCallback);
    VTQ_StreamDestroy(out);
  } else {
    std::memcpy(ctx->oleState, ctx->outPath, kPathSize);
    code = VTQ_GetOleTextWithErrCallback(ole, ctx->outFile, ctx->options, ctx->oleState, ctx->errCallback);
  }
  if (code == kOk) {
    TakeOleStateTotal(ctx);
    return kOk;
  }
  // A cut inside the object ends only the object unless the caller says so.
  const uint32_t flags = ctx->options->flags;
  if (code == kSizeLimit && (flags & KLN_FLAG_SIZE_LIMIT) && !(flags & KLN_FLAG_OLE_LIMIT_STOPS)) return kOk;
  return code;
}

// Writes the object's bytes into the file at path.
int WriteObjectFile(const char *path, const VtqBuffer &bytes, size_t n) {
  VTQ_FILE *f = VTQ_FileOpen(path, "wb");
  if (!f) return kFormatError;
  const bool written = n == 0 || VTQ_FileWrite(bytes.data(), 1, n, f) == n;
  return VTQ_FileClose(f) == 0 && written ? kOk : kFormatError;
}

// Extracts the text of the object's bytes through a temporary file that is
// removed before it returns.
int ExtractObject(ConvContext *ctx, const VtqBuffer &bytes, size_t n) {
  char name[kPathSize];
  if (!MakeTempName(ctx, name)) return kFormatError;
  int result = WriteObjectFile(name, bytes, n);
  if (result == kOk) {
    if (!(ctx->flags & kCtxOutputMade)) comm_write(" ", 1, 1, ctx->outFile, ctx);
    VTQ_OLE *ole = VTQ_2OLEopen(name);
    result = ole ? ExtractOleText(ctx, ole) : kFormatError;
    if (ole) VTQ_2OLEclose(ole);
  }
  VTQ_ASC_remove(name);  // the temporary file never outlives the object
  return result;
}
}  // namespace

int WrtOLEFile(int32_t n, ConvContext *ctx) {
  const long position = VTQ_FileTell(ctx->inFile);
  VtqBuffer bytes;
  const long got = ReadGrowing(ctx, bytes, 0, static_cast<uint32_t>(n));
  if (got < 0) return kNoMemory;
  if (got < n) return kFormatError;  // the document ends inside the object
  int result = ReportsObjects(ctx) ? EmitObjectStart(ctx, position, bytes.data(), size_t(n)) : kOk;
  if (result != kOk) return result;
  if (ctx->options->flags & KLN_FLAG_OLE_EXTRACT) result = ExtractObject(ctx, bytes, size_t(n));
  const int stop = ReportsObjects(ctx) && ctx->eventStop == 0 ? EmitObjectEnd(ctx, result) : kOk;
  return stop != kOk ? stop : result;
}

int GetWpGrphDSET(ConvContext *ctx, const uint8_t *record, size_t recordSize) {
  VtqPtr<uint8_t> scratch, small;
  if (!scratch.alloc(kOleHeadSize) || !small.alloc(10)) return kNoMemory;
  // Entries beyond the end of a short record read as zero: no mark.
  const ByteView rec(record, recordSize);
  const uint16_t objectCount = rec.u16(kObjectCountAt);
  const uint16_t stride = rec.u16(kEntryStrideAt);
  VtqPtr<uint16_t> marks;
  if (!marks.alloc(size_t(objectCount) + 1)) return kNoMemory;
  if (objectCount == 0) return kOk;
  int oleObjects = 0;
  for (size_t i = 0; i < objectCount; ++i) {
    const size_t at = kEntriesAt + i * stride;
    marks[i] = MarkOf(rec.u8(at), rec.u8(at + 2));
    oleObjects += marks[i] == kOleObject;
  }
  if (oleObjects == 0) return kOk;
  const int r = SkipLeadingBlocks(ctx, small.get());
  if (r != kOk) return r;
  return WalkObjects(ctx, marks.get(), objectCount, scratch.get(), small.get());
}
