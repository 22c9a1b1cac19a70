#include "klnmain.h"

extern "C" int GetTextWithErrCallback(const char *, const char *, const FilterOptions *, const KlnCharsetInfo *,
                                      void *) {
  return kFormatError;
}

extern "C" int GetProperty(const char *, const FilterOptions *, void *, const KlnCharsetInfo *) {
  return kFormatError;
}
