// Database data sets: field definitions and records.
#pragma once

#include "klnmain.h"

// Reads one database data set; answers 0x9700, 0x9800 or an error code.
int GetDbDSET(ConvContext *ctx);
