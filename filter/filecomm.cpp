// The filter's single reading and writing paths.
#include "filecomm.h"

#include <sys/stat.h>

#include "kln_blocks.h"
#include "kln_conv.h"

size_t comm_read(void *buf, size_t size, size_t count, VTQ_FILE *f) { return VTQ_FileRead(buf, size, count, f); }

namespace {
// Writes n bytes of outBuf to the file or the stream: the host's, or the
// one through which the events entry point hands text to the host's text
// handler. Answers the bytes written (0 on failure).
size_t WriteOut(ConvContext *ctx, VTQ_FILE *f, uint32_t n) {
  if (ctx->streamMode != 0) return VTQ_WriteStream(ctx->outStream, static_cast<long>(n), ctx->outBuf) == -1 ? 0 : n;
  return VTQ_FileWrite(ctx->outBuf, 1, n, f);
}
}  // namespace

// A text is converted piece by piece when its converted form exceeds
// outBuf; the pieces count as one write for the size limit and totalOut.
// A failed conversion answers 0, so that every caller ends with 3000.
int comm_write(const void *text, size_t size, size_t count, VTQ_FILE *f, ConvContext *ctx) {
  if (ctx->writeState == kWriteStopped) return -1;
  if (ctx->writeFailed) return 0;
  ConvRun run;
  if (CodeConvStart(ctx, run, static_cast<const uint8_t *>(text), static_cast<uint32_t>(size * count), 3) != kOk)
    return 0;
  const FilterOptions *opt = ctx->options;
  const bool limitOn = (opt->flags & KLN_FLAG_SIZE_LIMIT) != 0;
  uint64_t produced = 0, written = 0;
  bool stopped = false;  // cut at the limit
  do {
    if (CodeConvPiece(ctx, run) != kOk) {
      CodeConvEnd(ctx, run, static_cast<uint32_t>(produced));
      return 0;
    }
    uint32_t n = stopped ? 0 : ctx->outLen;
    if (!stopped && limitOn && ctx->totalOut + produced + n > opt->sizeLimit) {
      const uint64_t used = ctx->totalOut + produced;
      const uint32_t allowance = used >= opt->sizeLimit ? 0 : static_cast<uint32_t>(opt->sizeLimit - used);
      n = CutStr(ctx->outBuf, n, allowance, opt);
      stopped = true;
    }
    produced += ctx->outLen;
    if (n > 0 && WriteOut(ctx, f, n) < n) {
      ctx->writeFailed = 1;
      CodeConvEnd(ctx, run, static_cast<uint32_t>(produced));
      return 0;
    }
    written += n;
  } while (CodeConvMore(run));
  CodeConvEnd(ctx, run, static_cast<uint32_t>(produced));

  ctx->totalOut += produced;
  if (limitOn && ctx->totalOut > opt->sizeLimit) {
    ctx->writeState = kWriteStopped;
    return -1;
  }
  if (produced == 0) return 1;
  return static_cast<int>(written > 0x7FFFFFFF ? 0x7FFFFFFF : written);
}

bool SameFile(const char *a, const char *b) {
  struct stat sa, sb;
  return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

void RemoveOutput(const ConvContext *ctx) {
  struct stat st;
  if (stat(ctx->outPath, &st) == 0 && S_ISREG(st.st_mode)) VTQ_ASC_remove(ctx->outPath);
}
