#include "wpchange.h"

#include "filecomm.h"

// ==== Word-processing text ====
//
// A word-processing data set is a run of blocks: two blocks this reader
// does not interpret, the object table (32-byte entries), one data block
// for each object entry of kind 3, the text index (10-byte descriptors),
// and one text block per descriptor. Text bytes 1, 11 and 12 end a line,
// 2..9 are layout bytes shown as a space, and 6 anchors the next inline
// text object.

namespace {
constexpr size_t kWpBufferSize = 8192;
constexpr size_t kObjectEntrySize = 32;
constexpr size_t kObjectKind = 5, kObjectTextLength = 10, kObjectText = 12;
constexpr size_t kInlineSlot = 11;  // an inline text keeps at most 11 bytes
constexpr size_t kDescriptorSize = 10;
constexpr int kObjectTableBlock = 3, kTextIndexBlock = 4, kMaxBlocks = 256;

// First bytes of a two-byte character; the second byte may be anything.
bool IsLead(uint8_t b) { return (b >= 0x81 && b <= 0x9F) || b >= 0xE0; }

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
    if (b == 1 || b == 11 || b == 12)
      slot[k] = 13;
    else if (b >= 2 && b <= 9)
      slot[k] = ' ';
    ++k;
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

// The text of one block: control bytes translated, inline texts in place
// of their anchors, double-byte characters whole.
class BlockTranslator {
 public:
  BlockTranslator(const InlineTexts &inl, int *nextInline) : inl_(inl), next_(nextInline) {}

  // Translates in[0..n) into out; answers the output length. *pastEnd says
  // whether the last character was a lead byte in the last position.
  size_t run(const uint8_t *in, size_t n, uint8_t *out, bool *pastEnd) const {
    size_t o = 0;
    size_t j = 0;
    *pastEnd = false;
    while (j < n) {
      const uint8_t b = in[j];
      if (b == 1 || b == 11 || b == 12) {
        out[o++] = 13;
      } else if (b == 6 && inl_.count > 0) {
        if (*next_ < inl_.count) {
          const uint32_t len = inl_.lengths[size_t(*next_)];
          std::memcpy(out + o, inl_.text(*next_), len);
          o += len;
          ++*next_;
        }
      } else if (b >= 2 && b <= 9) {
        out[o++] = ' ';
      } else if (IsLead(b) && n > 1) {
        out[o++] = b;
        out[o++] = j + 1 < n ? in[j + 1] : 0;
        *pastEnd = j + 1 >= n;
        j += 2;
        continue;
      } else {
        out[o++] = b;
      }
      ++j;
    }
    return o;
  }

 private:
  const InlineTexts &inl_;
  int *next_;
};

// Reads the text blocks that the text index in readBuffer[0..indexSize)
// describes, and writes their text followed by one carriage return.
int wpGetTxtBlock(VtqBuffer &readBuffer, size_t indexSize, ConvContext *ctx, const InlineTexts &inl) {
  const ByteView index(readBuffer.data(), indexSize);
  const uint32_t s = index.u32(0);
  if (s >= 1 && s <= 9) return kFormatError;
  const uint32_t count = s / kDescriptorSize;
  // Descriptors beyond the bytes read are zero, and a zero length fails:
  // only those read need room.
  const size_t held = indexSize > 4 ? (indexSize - 4) / kDescriptorSize : 0;
  VtqPtr<TextBlockDesc> desc;
  if (!desc.alloc((held < count ? held : count) + 1)) return kNoMemory;
  for (size_t k = 0; k < held && k < count; ++k) {
    desc[k].position = static_cast<int32_t>(index.u32(4 + kDescriptorSize * k));
    desc[k].length = static_cast<int16_t>(index.u16(4 + kDescriptorSize * k + 4));
  }

  int nextInline = 0;
  const BlockTranslator translate(inl, &nextInline);
  int32_t total = 0;
  bool carry = false;
  uint8_t carryByte = 0;
  for (uint32_t k = 0; k < count; ++k) {
    const TextBlockDesc d = k < held ? desc[k] : TextBlockDesc{0, 0};
    if (d.position < 0 || d.position < total) return kFormatError;
    uint8_t len[4];
    if (!ReadWord(ctx, len)) return kFormatError;
    const int32_t n = static_cast<int32_t>(Get4wc(len, ctx));
    if (d.length <= 0 || n != d.length) return kFormatError;

    const size_t start = carry ? 1 : 0;
    const long got = ReadGrowing(ctx, readBuffer, start, static_cast<uint32_t>(n));
    if (got < 0) return kNoMemory;
    if (got == 0) return kTextBlockFailed;
    if (!readBuffer.grow(start + size_t(n) + 1)) return kNoMemory;
    uint8_t *text = readBuffer.data();
    std::memset(text + start + got, 0, size_t(n) - size_t(got));  // a short read leaves no stale bytes
    total += d.length;
    if (carry) text[0] = carryByte;
    const size_t blockLen = size_t(n) + start;

    VtqPtr<uint8_t> out;
    if (!out.alloc(blockLen + kInlineSlot * size_t(inl.count) + 10)) return kNoMemory;
    bool pastEnd;
    size_t outLen = translate.run(text, blockLen, out.get(), &pastEnd);
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
    if (comm_write(out.get(), 1, outLen, ctx->outFile, ctx) < 1) return kFormatError;
  }
  if (comm_write("\r", 1, 1, ctx->outFile, ctx) < 1) return kFormatError;
  return kOk;
}
}  // namespace

int GetWpRtfDSET(ConvContext *ctx) {
  VtqBuffer readBuffer;
  if (!readBuffer.alloc(kWpBufferSize)) return kNoMemory;
  InlineTexts inl;
  for (int block = 1; block <= kMaxBlocks; ++block) {
    uint8_t *head = readBuffer.data();
    const int tag = ReadBlockHead(ctx, head);
    if (tag != kOk) return tag;
    const int32_t l = static_cast<int32_t>(Get4wc(head, ctx));
    long got = 0;
    if (l > 0) {
      got = ReadGrowing(ctx, readBuffer, 4, static_cast<uint32_t>(l));
      if (got < 0) return kNoMemory;
    }
    if (l <= 0) continue;
    if (block == kObjectTableBlock) {
      const int r = ReadObjectTable(ctx, ByteView(readBuffer.data() + 4, size_t(got)), inl);
      if (r != kOk) return r;
    } else if (block == kTextIndexBlock) {
      const int r = wpGetTxtBlock(readBuffer, 4 + size_t(got), ctx, inl);
      return r != kOk ? r : SkipCurDSET(ctx);
    }
  }
  return kFormatError;  // 256 blocks without a text index
}

// Drawings are not read yet: the data set is skipped by the walk.
int GetWpGrphDSET(ConvContext *, const uint8_t *, size_t) { return kOk; }
