// The stream entry point: the text goes to the host's stream instead of a
// file; nothing is ever removed, and the log is named after the input.
#include "klnmain.h"

extern "C" int GetTextStreamWithErrCallback(const char *inPath, VTQ_STREAM *stream, const FilterOptions *options,
                                            const KlnCharsetInfo *charset, void *errCallback) {
  if (PathTooLong(inPath)) return kOpenFailed;
  if (!options || !charset) return kFormatError;
  ConvContext *ctx;
  const int r = OpenTextContext(&ctx, inPath, options, charset, errCallback);
  if (r != kOk) return r;
  ctx->streamMode = 1;
  ctx->outStream = stream;
  const int result = RunTextConversion(ctx, ctx->inPath);
  closeall(ctx);
  return result;
}
