// The stream entry point: the text goes to the host's stream instead of a
// file; nothing is ever removed, and the log is named after the input.
#include "klnfile.h"

namespace {
int TextToStream(const KlnInput &in, VTQ_STREAM *stream, const FilterOptions *options, const KlnCharsetInfo *charset,
                 void *errCallback) {
  if (!options || !charset) return kFormatError;
  ConvContext *ctx;
  const int r = OpenTextContext(&ctx, in, options, charset, errCallback);
  if (r != kOk) return r;
  ctx->streamMode = 1;
  ctx->outStream = stream;
  const int result = RunTextConversion(ctx, ctx->inPath);
  closeall(ctx);
  return result;
}
}  // namespace

extern "C" int GetTextStreamWithErrCallback(const char *inPath, VTQ_STREAM *stream, const FilterOptions *options,
                                            const KlnCharsetInfo *charset, void *errCallback) {
  if (PathTooLong(inPath)) return kOpenFailed;
  return TextToStream(PathInput(inPath), stream, options, charset, errCallback);
}

extern "C" int GetTextStreamFromMemoryWithErrCallback(const void *data, size_t size, VTQ_STREAM *stream,
                                                      const FilterOptions *options, const KlnCharsetInfo *charset,
                                                      void *errCallback) {
  if (!data && size > 0) return kOpenFailed;
  return TextToStream(MemoryInput(data, size), stream, options, charset, errCallback);
}
