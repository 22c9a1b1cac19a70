// Spreadsheet data sets, cell values, formatting, dates, the cell writer.
#pragma once

#include "klnmain.h"

// Loads the first spreadsheet data set of a spreadsheet document into the
// CellTable; answers 0x9700, 0x9800 or an error code.
int GetSsDSET(ConvContext *ctx);
int GetCellStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen);
// Writes the CellTable as delimited text.
int PutSSVtqTxt(ConvContext *ctx);
