// Output layer, structure events: what the readers and the writer hand to
// the host's handlers in document order (streamMode 2, ctx->events set).
#pragma once

#include "kln_context.h"

// Whether the host takes embedded objects as events.
inline bool ReportsObjects(const ConvContext *ctx) {
  return ctx->events && (ctx->events->objectStart || ctx->events->objectEnd);
}

// The start of the next embedded object (numbered from 1) with its stored
// bytes, found at `position` of the document, and its end with the
// extraction's result. 0 or the host's stop code.
int EmitObjectStart(ConvContext *ctx, int64_t position, const uint8_t *data, size_t size);
int EmitObjectEnd(ConvContext *ctx, int32_t result);
