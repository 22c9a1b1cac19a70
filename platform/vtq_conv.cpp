// Character conversion: placeholder that copies bytes unchanged.
#include <cstring>

#include "vtq_rt.h"

extern "C" {

int cconvInitConvert(CconvState *, const CconvOptions *, const char *) { return 0; }
int cconvChgCharset(CconvState *, const CconvCharsetRecord *, const char *) { return 0; }
int cconvConvert(CconvState *st) {
  uint32_t n = st->inLen - st->inPos;
  if (n > st->outCap - st->outLen) n = st->outCap - st->outLen;
  std::memcpy(st->out + st->outLen, st->in + st->inPos, n);
  st->inPos += n;
  st->outLen += n;
  return 0;
}
void cconvTermConvert(CconvState *) {}
int VTQ_GetResouceString(int, char *buf, int size) {
  if (size > 0) buf[0] = 0;
  return 0;
}
int VTQ_GetGroupCharWidth(const char *) { return 1; }
uint32_t VTQ_CopyStripControlCode(unsigned char *dst, const unsigned char *src, uint32_t len, int, uint32_t) {
  std::memcpy(dst, src, len);
  return len;
}
uint32_t CutStr(const unsigned char *, uint32_t len, uint32_t allowance, const FilterOptions *) {
  return len < allowance ? len : allowance;
}

}  // extern "C"
