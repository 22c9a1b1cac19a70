// Reader layer: word-processing and drawing data sets.
#pragma once

#include "kln_context.h"

// Reads one word-processing data set and writes its text; answers 0x9700,
// 0x9800 or an error code.
int GetWpRtfDSET(ConvContext *ctx);
// Reads a drawing data set as far as its embedded objects need; `record`
// is the data set's header record (its length word first).
// Answers 0 (the walk skips the rest), 0x9700 or an error code.
int GetWpGrphDSET(ConvContext *ctx, const uint8_t *record, size_t recordSize);
// Reads the OLE object whose n bytes are next in the input, reports it to
// the host in events mode, and extracts its text into the output when the
// caller asks for that, through a temporary file that is removed before it
// returns. Answers 0, 12, 3000, the runtime's error code or the host's
// stop code.
int WrtOLEFile(int32_t n, ConvContext *ctx);
