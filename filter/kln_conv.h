// Bottom layer, character conversion: document text into the caller's
// output set through the runtime's converter, into the context's outBuf.
#pragma once

#include "kln_context.h"

int GetSeparator(uint32_t flags);
int GetString_kln(char *name33, uint32_t *flag, uint32_t code);
// Converts len bytes of document text into outBuf / outLen (one piece: the
// text must fit outBuf, as property texts do). 0 or 3000.
int CodeConv(ConvContext *ctx, const uint8_t *text, uint32_t len, int mode);

// One conversion of a whole text, possibly in several pieces.
struct ConvRun {
  CconvState state{};
  CconvOptions options{};
  bool firstOutput = false;
  bool active = false;
  ~ConvRun() {
    if (active) cconvTermConvert(&state);
  }
};
// Sets the run up for len bytes of text (mode 3: document set from
// charsetInfo). The stripped copy goes to `scratch` when given (grown,
// kept for the next run), else to the context's buffer. 0, 12 or 3000.
int CodeConvStart(ConvContext *ctx, ConvRun &run, const uint8_t *text, uint32_t len, int mode,
                  VtqBuffer *scratch = nullptr);
// Converts the next piece into outBuf (outLen set). 0 or 3000.
int CodeConvPiece(ConvContext *ctx, ConvRun &run);
// Whether input remains after the last piece.
inline bool CodeConvMore(const ConvRun &run) { return run.state.inPos < run.state.inLen; }
// Ends the run; when it produced nothing, the next conversion counts as
// the first again.
void CodeConvEnd(ConvContext *ctx, ConvRun &run, uint32_t totalProduced);
