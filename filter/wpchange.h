// Word-processing and drawing data sets.
#pragma once

#include "klnmain.h"

// Reads one word-processing data set and writes its text; answers 0x9700,
// 0x9800 or an error code.
int GetWpRtfDSET(ConvContext *ctx);
// Reads a drawing data set as far as its embedded objects need; `record`
// is the data set's header record (its length word first).
int GetWpGrphDSET(ConvContext *ctx, const uint8_t *record, size_t recordSize);
