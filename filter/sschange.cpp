#include "sschange.h"

// ==== Cell table and spreadsheet data sets ====

// Spreadsheets are not read yet: the data set is skipped by the walk.
int GetSsDSET(ConvContext *) { return kOk; }

// ==== Cell values ====

// ==== Style table: cell styles ====

int GetCellStyle(ConvContext *, const uint8_t *, int32_t) { return kOk; }

// ==== Date serials and the Japanese calendar ====

// ==== Cell value formatting ====

// ==== Cell text writer ====

int PutSSVtqTxt(ConvContext *) { return kOk; }
