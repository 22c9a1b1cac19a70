// The file and property entry points, the style table readers and the
// cell-writing stage.
#include "filecomm.h"
#include "klnmain.h"
#include "sschange.h"

// ==== File entry point ====

extern "C" int GetTextWithErrCallback(const char *inPath, const char *outPath, const FilterOptions *options,
                                      const KlnCharsetInfo *charset, void *errCallback) {
  if (PathTooLong(inPath) || PathTooLong(outPath)) return kOpenFailed;
  if (!options || !charset) return kFormatError;
  ConvContext *ctx;
  const int r = OpenTextContext(&ctx, inPath, options, charset, errCallback);
  if (r != kOk) return r;
  std::memcpy(ctx->outPath, outPath, std::strlen(outPath) + 1);
  ctx->fileMode = 1;
  ctx->outFile = VTQ_FileOpen(ctx->outPath, "wb");
  if (!ctx->outFile) {
    VTQ_FileClose(ctx->inFile);
    closeall(ctx);
    return kOpenFailed;
  }
  const int result = RunTextConversion(ctx, ctx->outPath);
  closeall(ctx);
  return result;
}

// ==== Style table ====

int GetStyleInfo(ConvContext *) { return kOk; }

int GetStyle(ConvContext *, const uint8_t *, int32_t) { return kOk; }

// ==== Cell-writing stage ====

int GetVtqTxt(ConvContext *) { return kOk; }

// ==== Properties ====

int GetKlnPropertyInfo(uint8_t *, ConvContext *) { return kFormatError; }

extern "C" int GetProperty(const char *, const FilterOptions *, void *, const KlnCharsetInfo *) {
  return kFormatError;
}
