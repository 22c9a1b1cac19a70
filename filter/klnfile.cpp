// The file and property entry points, the style table readers and the
// cell-writing stage.
#include "events.h"
#include "filecomm.h"
#include "klnmain.h"
#include "sschange.h"
#include "vtq_txkln_ext.h"

// ==== File entry point ====

namespace {
int TextToFile(const KlnInput &in, const char *outPath, const FilterOptions *options, const KlnCharsetInfo *charset,
               void *errCallback) {
  if (!options || !charset) return kFormatError;
  ConvContext *ctx;
  const int r = OpenTextContext(&ctx, in, options, charset, errCallback);
  if (r != kOk) return r;
  std::memcpy(ctx->outPath, outPath, std::strlen(outPath) + 1);
  ctx->fileMode = 1;
  // Opening the input itself for writing would truncate the document.
  if (!SameFile(ctx->inPath, ctx->outPath)) ctx->outFile = VTQ_FileOpen(ctx->outPath, "wb");
  if (!ctx->outFile) {
    VTQ_FileClose(ctx->inFile);
    closeall(ctx);
    return kOpenFailed;
  }
  const int result = RunTextConversion(ctx, ctx->outPath);
  closeall(ctx);
  return result;
}
}  // namespace

extern "C" int GetTextWithErrCallback(const char *inPath, const char *outPath, const FilterOptions *options,
                                      const KlnCharsetInfo *charset, void *errCallback) {
  if (PathTooLong(inPath) || PathTooLong(outPath)) return kOpenFailed;
  return TextToFile(PathInput(inPath), outPath, options, charset, errCallback);
}

extern "C" int GetTextFromMemoryWithErrCallback(const void *data, size_t size, const char *outPath,
                                                const FilterOptions *options, const KlnCharsetInfo *charset,
                                                void *errCallback) {
  if ((!data && size > 0) || PathTooLong(outPath)) return kOpenFailed;
  return TextToFile(MemoryInput(data, size), outPath, options, charset, errCallback);
}

// ==== Style table ====

// After "FNTM" the document holds the FNTM body, the "CUTS", "DSUM" and
// "HDNI" sections and then, keyed "STYL", the style table: a run of
// records whose bodies open with an entry count, an entry size and a tag.

namespace {
constexpr uint32_t kSectionMax = 8191;
constexpr int kMaxStyleRecords = 257;
constexpr size_t kRecordTag = 12;

// A u32 length and, when it lies in [min, 8191], the body of that length
// less `counted` (bytes of the length word the length counts).
int SkipSection(ConvContext *ctx, VtqBuffer &buf, uint32_t min, uint32_t counted) {
  uint8_t b[4];
  if (!ReadWord(ctx, b)) return kFormatError;
  const uint32_t len = Get4wc(b, ctx);
  if (len < min || len > kSectionMax) return kOk;
  return ReadGrowing(ctx, buf, 0, len - counted) < 1 ? kFormatError : kOk;
}

int ExpectKey(ConvContext *ctx, const char *key) {
  uint8_t b[4];
  return ReadWord(ctx, b) && IsTag(b, key) ? kOk : kFormatError;
}

// Walks FNTM, CUTS, DSUM and HDNI to the key of the next table; passes
// over at most two more sections when that key is not "STYL".
int FindStyleTable(ConvContext *ctx, VtqBuffer &buf) {
  int r = SkipSection(ctx, buf, 1, 0);
  if (r == kOk) r = ExpectKey(ctx, "CUTS");
  if (r == kOk) r = SkipSection(ctx, buf, 1, 0);
  if (r == kOk) r = ExpectKey(ctx, "DSUM");
  if (r == kOk) r = SkipSection(ctx, buf, 1, 0);
  if (r == kOk) r = ExpectKey(ctx, "HDNI");
  if (r == kOk) r = SkipSection(ctx, buf, 5, 4);  // the HDNI length counts itself
  if (r != kOk) return r;
  uint8_t key[4];
  if (!ReadWord(ctx, key)) return kFormatError;
  for (int section = 0; section < 2 && !IsTag(key, "STYL"); ++section) {
    if (!ReadWord(ctx, key)) return kFormatError;
    const uint32_t len = Get4wc(key, ctx);
    if (len >= 1 && len <= kSectionMax) {
      const long got = ReadGrowing(ctx, buf, 0, len);
      if (got < 1) return kFormatError;
      // The key is the last four bytes read.
      std::memset(key, 0, 4);
      std::memcpy(key + (got < 4 ? 4 - got : 0), buf.data() + (got < 4 ? 0 : got - 4), got < 4 ? size_t(got) : 4);
    }
  }
  return kOk;
}
}  // namespace

int GetStyleInfo(ConvContext *ctx) {
  VtqBuffer buf;
  if (!buf.alloc(4 + 8192)) return kNoMemory;
  int r = FindStyleTable(ctx, buf);
  if (r != kOk) return r;
  for (int n = 0; n < kMaxStyleRecords; ++n) {
    uint8_t *rec = buf.data();
    if (!ReadWord(ctx, rec)) return kFormatError;
    const uint32_t l = Get4wc(rec, ctx);
    if (l == 0) return kFormatError;
    const long got = ReadGrowing(ctx, buf, 4, l);
    if (got < 0) return kNoMemory;
    if (got == 0) return kFormatError;
    rec = buf.data();
    const ByteView body(rec + 4, size_t(got));
    // Checks use the declared length; bytes beyond those read count as 0.
    const int32_t bodyLen = l > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(l);
    if (n == 0) {
      if (!body.tagIs(kRecordTag, "STYL")) return kFormatError;
      r = GetStyle(ctx, rec, bodyLen, size_t(got));
      if (r != kOk) return r;
      continue;
    }
    if ((ctx->docKind == 2 || ctx->docKind == 3) && body.tagIs(kRecordTag, "CELL")) return GetCellStyle(ctx, rec, bodyLen, size_t(got));
    if (body.tagIs(kRecordTag, "NAME")) return kOk;
  }
  return kFormatError;
}

int GetStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen, size_t held) {
  const ByteView body(record + 4, held);
  const uint32_t n = body.u16(0), size = body.u16(6);
  VTQ_free(ctx->styleMap);
  ctx->styleMapCount = int32_t(n);
  ctx->styleMap = static_cast<uint16_t *>(VTQ_calloc(n ? n : 1, sizeof(uint16_t)));
  if (!ctx->styleMap) return kNoMemory;
  if (bodyLen < 82) return kFormatError;
  for (uint32_t i = 0; i < n; ++i) {
    const size_t e = 90 + size_t(i) * size;
    const uint32_t style = body.u16(e);
    if (int64_t(style) >= ctx->styleMapCount) {
      // A style number beyond the count grows the map; new slots read as 0.
      auto *map = static_cast<uint16_t *>(VTQ_realloc(ctx->styleMap, (size_t(style) + 1) * sizeof(uint16_t)));
      if (!map) return kNoMemory;
      std::memset(map + ctx->styleMapCount, 0, (size_t(style) + 1 - size_t(ctx->styleMapCount)) * sizeof(uint16_t));
      ctx->styleMap = map;
      ctx->styleMapCount = int32_t(style) + 1;
    }
    ctx->styleMap[style] = body.u16(e + 12);
    if (82 + int64_t(i + 1) * size > bodyLen) return kFormatError;
  }
  return kOk;
}

// ==== Cell-writing stage ====

int GetVtqTxt(ConvContext *ctx) {
  if (ctx->docKind == 1) return kOk;
  if (ctx->docKind == 2 || ctx->docKind == 3) return ctx->events ? PutTableEvents(ctx) : PutSSVtqTxt(ctx);
  return kFormatError;
}

// ==== Properties ====

// Where each of the header's text records, in file order, goes in the
// caller's property record.
namespace {
constexpr size_t kTextRecordOffsets[kHeaderTextRecords] = {KLN_PROP_TITLE,  KLN_PROP_CLASS,   KLN_PROP_DESCRIPTION,
                                                           KLN_PROP_AUTHOR, KLN_PROP_VERSION, KLN_PROP_KEYWORDS};
constexpr size_t kSmallestRoom = 1028;

// Converts the text into the record at `at`; a text that cannot be
// converted leaves the field empty.
void StoreProperty(ConvContext *ctx, uint8_t *record, size_t at, const uint8_t *text, uint32_t len) {
  if (CodeConv(ctx, text, len, 3) != kOk) return;
  const size_t n = ctx->outLen < kSmallestRoom - 1 ? ctx->outLen : kSmallestRoom - 1;
  std::memcpy(record + at, ctx->outBuf, n);
  record[at + n] = 0;
}
}  // namespace

int GetKlnPropertyInfo(uint8_t *record, ConvContext *ctx) {
  VtqPtr<uint8_t> buf;
  if (!buf.alloc(kHeaderBufSize)) return kNoMemory;
  if (!ReadHeaderFixedPart(ctx, buf.get())) return kFormatError;
  bool lastAbsent = false;
  for (size_t at : kTextRecordOffsets) {
    ByteView text;
    if (!ReadHeaderTextRecord(ctx, buf.get(), &text, &lastAbsent)) return kFormatError;
    // A text of 255 bytes is read and left empty.
    if (text.size() > 0 && text.size() < 255) StoreProperty(ctx, record, at, text.data(), uint32_t(text.size()));
  }
  // An absent keywords record is followed by four more bytes.
  if (lastAbsent && !ReadWord(ctx, buf.get())) return kFormatError;
  return kOk;
}

namespace {
int PropertiesOf(const KlnInput &in, const FilterOptions *options, void *record, const KlnCharsetInfo *charset) {
  if (!options || !record || !charset) return kFormatError;
  ConvContext *ctx = nullptr;
  if (initial(&ctx) != kOk) {
    closeall(ctx);
    return kNoMemory;
  }
  ctx->flags |= kCtxPropertyMode;
  ctx->options = options;
  ctx->charsetInfo = charset;
  if (!OpenInput(ctx, in)) {
    closeall(ctx);
    return kFormatError;  // the record is left as it was
  }
  std::memset(record, 0, KLN_PROPERTY_RECORD_SIZE);
  const int result = GetKlnPropertyInfo(static_cast<uint8_t *>(record), ctx);
  VTQ_FileClose(ctx->inFile);
  closeall(ctx);
  return result;
}
}  // namespace

extern "C" int GetProperty(const char *path, const FilterOptions *options, void *record,
                           const KlnCharsetInfo *charset) {
  if (PathTooLong(path)) return kFormatError;
  return PropertiesOf(PathInput(path), options, record, charset);
}

extern "C" int GetPropertyFromMemory(const void *data, size_t size, const FilterOptions *options, void *record,
                                     const KlnCharsetInfo *charset) {
  if (!data && size > 0) return kFormatError;
  return PropertiesOf(MemoryInput(data, size), options, record, charset);
}
