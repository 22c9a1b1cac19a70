// Word-processing and drawing data sets.
#pragma once

#include "klnmain.h"

// Reads one word-processing data set and writes its text; answers 0x9700,
// 0x9800 or an error code.
int GetWpRtfDSET(ConvContext *ctx);
// Reads a drawing data set as far as its embedded objects need; `record`
// is the data set's header record (its length word first).
// Answers 0 (the walk skips the rest), 0x9700 or an error code.
int GetWpGrphDSET(ConvContext *ctx, const uint8_t *record, size_t recordSize);
// Extracts the text of the OLE object whose n bytes are next in the input
// into the output, through a temporary file that is removed before it
// returns. scratch holds scratchSize bytes. Answers 0, 3000 or the
// runtime's error code.
int WrtOLEFile(uint8_t *scratch, size_t scratchSize, int32_t n, ConvContext *ctx);
// A reader no data-set kind leads to; reads nothing.
int GetWptblDSET();
