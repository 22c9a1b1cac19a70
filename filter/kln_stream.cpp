#include "klnmain.h"

extern "C" int GetTextStreamWithErrCallback(const char *, VTQ_STREAM *, const FilterOptions *,
                                            const KlnCharsetInfo *, void *) {
  return kFormatError;
}
