// The file and property entry points, the style table readers and the
// cell-writing stage.
#include "filecomm.h"
#include "klnmain.h"
#include "sschange.h"

// ==== File entry point ====

extern "C" int GetTextWithErrCallback(const char *, const char *, const FilterOptions *, const KlnCharsetInfo *,
                                      void *) {
  return kFormatError;
}

// ==== Style table ====

int GetStyleInfo(ConvContext *) { return kOk; }

int GetStyle(ConvContext *, const uint8_t *, int32_t) { return kOk; }

// ==== Cell-writing stage ====

int GetVtqTxt(ConvContext *) { return kOk; }

// ==== Properties ====

int GetKlnPropertyInfo(uint8_t *, ConvContext *) { return kFormatError; }

extern "C" int GetProperty(const char *, const FilterOptions *, void *, const KlnCharsetInfo *) {
  return kFormatError;
}
