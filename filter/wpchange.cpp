#include "wpchange.h"

// Word-processing text is not read yet: the data set is skipped by the walk.
int GetWpRtfDSET(ConvContext *) { return kOk; }

// Drawings are not read yet: the data set is skipped by the walk.
int GetWpGrphDSET(ConvContext *, const uint8_t *, size_t) { return kOk; }
