// Temporary files and embedded OLE documents: not available yet. Every
// operation answers failure, which the drawing reader reports.
#include "vtq_rt.h"

extern "C" {

int VTQ_ASC_tmpnam(char *) { return 0; }
int VTQ_ASC_tmpnam1(const char *, char *) { return 0; }
VTQ_OLE *VTQ_2OLEopen(const char *) { return nullptr; }
void VTQ_2OLEclose(VTQ_OLE *) {}
int VTQ_GetOleTextWithErrCallback(VTQ_OLE *, VTQ_FILE *, const FilterOptions *, unsigned char *, void *) {
  return KLN_ERR_FORMAT;
}
int VTQ_GetOleTextStreamWithErrCallback(VTQ_OLE *, VTQ_STREAM *, const FilterOptions *, unsigned char *,
                                        void *) {
  return KLN_ERR_FORMAT;
}

}  // extern "C"
