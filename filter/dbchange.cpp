#include "dbchange.h"

// Databases are not read yet: the data set is skipped by the walk.
int GetDbDSET(ConvContext *) { return kOk; }
