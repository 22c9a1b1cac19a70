// Files over buffered stdio: the readers fetch one byte at a time while
// skipping, which must cost a buffer access rather than a system call.
#include <cstdio>

#include "vtq_rt.h"

namespace {
FILE *AsFile(VTQ_FILE *f) { return reinterpret_cast<FILE *>(f); }
}  // namespace

extern "C" {

VTQ_FILE *VTQ_FileOpen(const char *path, const char *mode) {
  if (!path || !mode) return nullptr;
  return reinterpret_cast<VTQ_FILE *>(std::fopen(path, mode));
}

size_t VTQ_FileRead(void *buf, size_t size, size_t count, VTQ_FILE *f) {
  if (!f || !buf) return 0;
  FILE *fp = AsFile(f);
  if (size == 1 && count == 1) {
    int c = getc_unlocked(fp);
    if (c == EOF) return 0;
    *static_cast<unsigned char *>(buf) = static_cast<unsigned char>(c);
    return 1;
  }
  return fread_unlocked(buf, size, count, fp);
}

size_t VTQ_FileWrite(const void *buf, size_t size, size_t count, VTQ_FILE *f) {
  if (!f || !buf) return 0;
  return fwrite_unlocked(buf, size, count, AsFile(f));
}

int VTQ_FileSeek(VTQ_FILE *f, long offset, int whence) {
  if (!f) return -1;
  return std::fseek(AsFile(f), offset, whence);
}

// Non-zero when closing fails or any earlier read or write on f failed, so
// that a caller checking only the close misses no failed write.
int VTQ_FileClose(VTQ_FILE *f) {
  if (!f) return -1;
  const bool failedBefore = std::ferror(AsFile(f)) != 0;
  return std::fclose(AsFile(f)) != 0 || failedBefore ? EOF : 0;
}

int VTQ_ASC_remove(const char *path) { return path ? std::remove(path) : -1; }

}  // extern "C"
