// The top layer: the file and property entry points, the set-up and the
// judgement shared with the other entry points, and the driver with its
// stages (header, data-set walk, style table, cell writing).
#include "klnfile.h"

#include <initializer_list>

#include "dbchange.h"
#include "filecomm.h"
#include "kln_blocks.h"
#include "kln_conv.h"
#include "sschange.h"
#include "wpchange.h"

// ==== Entry-point set-up ====

bool OpenInput(ConvContext *ctx, const KlnInput &in) {
  if (!in.path) {
    ctx->inFile = VTQ_FileOpenMemory(in.data, in.size);
    return ctx->inFile != nullptr;
  }
  std::memcpy(ctx->inPath, in.path, std::strlen(in.path) + 1);
  ctx->inFile = VTQ_FileOpen(ctx->inPath, "rb");
  return ctx->inFile != nullptr;
}

int OpenTextContext(ConvContext **out, const KlnInput &in, const FilterOptions *options,
                    const KlnCharsetInfo *charset, void *errCallback) {
  ConvContext *ctx = nullptr;
  if (initial(&ctx) != kOk) {
    closeall(ctx);
    *out = nullptr;
    return kNoMemory;
  }
  ctx->options = options;
  ctx->charsetInfo = charset;
  ctx->errCallback = errCallback;
  if (!OpenInput(ctx, in)) {
    closeall(ctx);
    *out = nullptr;
    return kOpenFailed;
  }
  *out = ctx;
  return kOk;
}

// ==== Driver ====

namespace {
void Log(const ConvContext *ctx, const char *text) {
  const uint32_t flags = ctx->options->flags;
  if ((flags & KLN_FLAG_LOG) && ctx->logFile) vtq_logfprintf(flags, ctx->logFile, text, 0);
}
}  // namespace

int convertFile(ConvContext *ctx) {
  Log(ctx, "\nNow Get Global Information.");
  int r = GetGlobalInfo(ctx);
  if (r != kOk) return r;
  Log(ctx, "\nNow Get DSET Information.");
  r = GetDSetInfo(ctx);
  if (r != kOk) return r;
  if (ctx->docKind == 1) return kOk;  // word-processing text is written as it is read
  Log(ctx, "\nNow Get STYLE Information.");
  r = GetStyleInfo(ctx);
  if (r != kOk) return r;
  Log(ctx, "\nNow Wrtie File begin.");
  r = GetVtqTxt(ctx);
  if (r != kOk) return r;
  Log(ctx, "\nNow Wrtie File End.");
  return kOk;
}

int RunTextConversion(ConvContext *ctx, const char *logBase) {
  const uint32_t flags = ctx->options->flags;
  int result;
  if (flags & KLN_FLAG_LOG) {
    if (*logBase) GetLogFileName(logBase, "KLN", ctx->logName);
    ctx->logFile = vtq_logfopen(flags, ctx->logName);
    if (!ctx->logFile) {
      result = kOpenFailed;
    } else {
      Log(ctx, "\nVTQ_KLN FILE BEGIN:\n\nThe File Name is:\n");
      vtq_logfprint_path(flags, ctx->logFile, ctx->inPath);
      result = convertFile(ctx);
    }
  } else {
    result = convertFile(ctx);
  }

  VTQ_FileClose(ctx->inFile);
  ctx->inFile = nullptr;
  if (ctx->fileMode == 1) {
    // Buffered text that cannot be written fails only here.
    if (VTQ_FileClose(ctx->outFile) != 0) ctx->writeFailed = 1;
    ctx->outFile = nullptr;
  }
  if ((flags & KLN_FLAG_LOG) && ctx->logFile) {
    Log(ctx, "\n\nVTQ_KLN FILE CLOSED.");
    vtq_logfclose(flags, ctx->logFile);
    ctx->logFile = nullptr;
  }

  // Text that did not reach the output is a failure whatever else happened.
  if (ctx->writeFailed) return kFormatError;
  const bool nothingProduced = ctx->totalOut == 0 && OleStateTotal(ctx) == 0;
  if (ctx->fileMode == 1) {
    if (result == kOleRefused || result == kOleFailed) {
      RemoveOutput(ctx);
    } else if (nothingProduced) {
      RemoveOutput(ctx);
      if (result == kOk) result = kNoText;
    }
  } else if (nothingProduced && result == kOk) {
    result = kNoText;
  }
  if (ctx->writeState == kWriteStopped) result = ctx->options->sizeLimit < ctx->totalOut ? kSizeLimit : kOk;
  return result;
}

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

namespace {
constexpr uint32_t kMaxHeaderTable = kHeaderBufSize;

// The tables after the text records.
class HeaderWalk {
 public:
  HeaderWalk(ConvContext *ctx, uint8_t *buf) : ctx_(ctx), buf_(buf) {}

  // Reads n (at most kMaxHeaderTable) bytes into the buffer; false on failure.
  bool read(uint32_t n) { return ReadHeaderBytes(ctx_, buf_, n); }
  // Skips n bytes of any size as one read: fails only when nothing came.
  bool skip(uint32_t n) {
    bool first = true;
    while (n > 0) {
      const uint32_t part = n < kMaxHeaderTable ? n : kMaxHeaderTable;
      const size_t got = comm_read(buf_, 1, part, ctx_->inFile);
      if (got < 1) return !first;
      first = false;
      if (got < part) return true;
      n -= part;
    }
    return true;
  }
  bool word(uint32_t *v) {
    if (!read(4)) return false;
    *v = Get4wc(buf_, ctx_);
    return true;
  }
  // A u32 length N (at most 8192) and N bytes.
  bool sizedTable(uint32_t *n) {
    if (!word(n) || *n > kMaxHeaderTable) return false;
    return read(*n);
  }
  // Table6&Table7&macro: N bytes, a word M with M bytes when 1..8191, and
  // (N - 16) / 4 pairs of sized pieces. A failed piece is noted and the
  // remaining entries are still attempted.
  bool macroTable() {
    uint32_t n;
    if (!sizedTable(&n)) return false;
    if (n == 0) return true;
    uint32_t m;
    if (!word(&m)) return false;
    if (m >= 1 && m <= kMaxHeaderTable - 1 && !read(m)) return false;
    bool ok = true;
    const uint32_t entries = n >= 16 ? (n - 16) / 4 : 0;
    for (uint32_t k = 0; k < entries; ++k) {
      for (int piece = 0; piece < 2; ++piece) {
        uint32_t len;
        if (!word(&len)) {
          ok = false;
          continue;
        }
        if (!skip(len)) ok = false;
      }
    }
    return ok;
  }
  uint8_t *buf() const { return buf_; }

 private:
  ConvContext *ctx_;
  uint8_t *buf_;
};

// Walks the header; true when it ended normally (also early at the Print
// Table), false at the first error.
bool WalkHeader(ConvContext *ctx, HeaderWalk &w) {
  uint8_t *buf = w.buf();
  bool lastAbsent;
  if (!ReadHeaderStart(ctx, buf, nullptr, nullptr, &lastAbsent)) return false;
  uint32_t n;
  if (!w.sizedTable(&n)) return false;  // LenDbPath
  if (!w.read(124)) return false;  // Print Table
  if (static_cast<int32_t>(Get4wc(buf, ctx)) > 120) return true;
  if (!w.sizedTable(&n) || !w.sizedTable(&n)) return false;  // Table3, Palette
  if (!w.read(32)) return false;                              // table5
  if (!w.macroTable()) return false;
  for (uint32_t size : {26u, 2u, 20u, 324u}) {
    if (!w.read(size)) return false;
  }
  return true;
}
}  // namespace

int GetGlobalInfo(ConvContext *ctx) {
  VtqPtr<uint8_t> buf;
  if (!buf.alloc(kMaxHeaderTable)) return kNoMemory;
  HeaderWalk walk(ctx, buf.get());
  if (WalkHeader(ctx, walk)) return kOk;
  // A header whose mark names the second variant is not checked: the
  // data-set walk finds the data sets by their tag instead.
  return ctx->headerVariant == 1 ? kOk : kFormatError;
}

namespace {
// Scans for the first "DSET" tag and reads the data-set count before it.
int FindDSET(ConvContext *ctx) {
  uint8_t b[4];
  for (;;) {
    do {
      if (comm_read(b, 1, 1, ctx->inFile) < 1) return kFormatError;
    } while (b[0] != 'D');
    // The three bytes after a 'D' are compared and not examined again;
    // fewer than three means the file ended inside them.
    const size_t got = comm_read(b + 1, 1, 3, ctx->inFile);
    if (got < 1) return kFormatError;
    if (got == 3 && IsTag(b, "DSET")) break;
  }
  if (VTQ_FileSeek(ctx->inFile, -6, 1) != 0) return kFormatError;
  b[0] = b[1] = 0;
  if (comm_read(b, 1, 2, ctx->inFile) < 1) return kFormatError;
  ctx->dsetCount = static_cast<int32_t>(Get2wc(b, ctx));
  if (VTQ_FileSeek(ctx->inFile, 4, 1) != 0) return kFormatError;
  return kOk;
}

constexpr size_t kRecordKind = 16, kRecordVariant = 14, kRecordSeq = 18;

bool WpReadInDatabase(uint8_t variant) { return variant == 0x20 || variant == 0x40 || variant == 0x60; }

// Hands the data set whose header record is `rec` to the reader of its
// kind. Answers the reader's result, or 0 when no reader takes it.
int DispatchDataSet(ConvContext *ctx, const ByteView &rec) {
  switch (static_cast<int8_t>(rec.u8(kRecordKind))) {
    case 0:
      return GetWpGrphDSET(ctx, rec.data(), rec.size());
    case 1:
      if (ctx->docKind == 3 && !WpReadInDatabase(rec.u8(kRecordVariant))) return kOk;
      return GetWpRtfDSET(ctx);
    case 2: {
      const int r = GetSsDSET(ctx);
      if (ctx->hasSheet == 0) ctx->hasSheet = 1;
      return r;
    }
    case 3:
      return GetDbDSET(ctx);
    default:
      return kOk;
  }
}

// The loop over the data sets once the first "DSET" has been passed.
int WalkDataSets(ConvContext *ctx) {
  VtqBuffer rec;
  for (int32_t handled = 0; handled < ctx->dsetCount;) {
    // A header record's length word is a length (above 15), never a tag.
    Block block;
    const int head = NextBlock(ctx, rec, &block, kNoTags);
    if (head != kOk) return head;
    if (block.bodyLength <= 15 || block.bodyMissing()) return kFormatError;
    const ByteView &view = block.bytes;
    if (static_cast<int32_t>(view.u16(kRecordSeq)) > ctx->dsetCount) return kFormatError;

    int r = DispatchDataSet(ctx, view);
    if (r == kOk) r = SkipCurDSET(ctx);
    if (r == kFntmRead) return kOk;
    if (r != kNextDset) return r;
    ++handled;
  }
  return kOk;
}
}  // namespace

int GetDSetInfo(ConvContext *ctx) {
  uint8_t b[4] = {0, 0, 0, 0};
  int status = comm_read(b, 1, 2, ctx->inFile) < 1 ? kFormatError : kOk;
  ctx->dsetCount = static_cast<int32_t>(Get2wc(b, ctx));
  if (!ReadWord(ctx, b))
    status = kFormatError;
  else if (!IsTag(b, "DSET"))
    status = FindDSET(ctx);
  ctx->dsetSeen += 1;
  if (ctx->dsetCount <= 0 || status != kOk) return status;
  return WalkDataSets(ctx);
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
  int r = FindStyleTable(ctx, buf);
  if (r != kOk) return r;
  for (int n = 0; n < kMaxStyleRecords; ++n) {
    // The records' length words are plain lengths; none may be empty.
    Block block;
    r = NextBlock(ctx, buf, &block, kNoTags | kUnsignedLength);
    if (r != kOk) return r;
    if (block.bodyLength == 0 || block.bodyMissing()) return kFormatError;
    const uint8_t *rec = block.bytes.data();
    const size_t held = block.bytes.size() - 4;
    const ByteView body = block.bytes.sub(4, held);
    // Checks use the declared length; bytes beyond those read count as 0.
    const int32_t bodyLen = block.bodyLength > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(block.bodyLength);
    if (n == 0) {
      if (!body.tagIs(kRecordTag, "STYL")) return kFormatError;
      r = GetStyle(ctx, rec, bodyLen, held);
      if (r != kOk) return r;
      continue;
    }
    if ((ctx->docKind == 2 || ctx->docKind == 3) && body.tagIs(kRecordTag, "CELL")) return GetCellStyle(ctx, rec, bodyLen, held);
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

struct PropertyTarget {
  ConvContext *ctx;
  uint8_t *record;
};

// Converts a header text into its field of the property record; a text
// that cannot be converted, or one of 255 bytes, leaves the field empty.
void StoreProperty(void *user, int index, const ByteView &text) {
  const auto *target = static_cast<const PropertyTarget *>(user);
  ConvContext *ctx = target->ctx;
  if (text.size() == 0 || text.size() >= 255) return;
  if (CodeConv(ctx, text.data(), uint32_t(text.size()), 3) != kOk) return;
  const size_t n = ctx->outLen < kSmallestRoom - 1 ? ctx->outLen : kSmallestRoom - 1;
  uint8_t *field = target->record + kTextRecordOffsets[index];
  std::memcpy(field, ctx->outBuf, n);
  field[n] = 0;
}
}  // namespace

int GetKlnPropertyInfo(uint8_t *record, ConvContext *ctx) {
  VtqPtr<uint8_t> buf;
  if (!buf.alloc(kHeaderBufSize)) return kNoMemory;
  PropertyTarget target{ctx, record};
  bool lastAbsent = false;
  if (!ReadHeaderStart(ctx, buf.get(), StoreProperty, &target, &lastAbsent)) return kFormatError;
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
