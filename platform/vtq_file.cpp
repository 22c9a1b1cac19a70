// Files over buffered stdio: the readers fetch one byte at a time while
// skipping, which must cost a buffer access rather than a system call. A
// document held in memory is read through the same buffered stream.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vtq_rt.h"

namespace {
FILE *AsFile(VTQ_FILE *f) { return reinterpret_cast<FILE *>(f); }

// The bytes behind a memory file and the reading position, which may
// stand beyond the end as a regular file's may.
struct MemoryFile {
  const unsigned char *data;
  size_t size;
  off64_t pos;
};

ssize_t ReadMemory(void *cookie, char *buf, size_t n) {
  auto *m = static_cast<MemoryFile *>(cookie);
  if (m->pos >= static_cast<off64_t>(m->size)) return 0;
  const size_t left = m->size - static_cast<size_t>(m->pos);
  if (n > left) n = left;
  std::memcpy(buf, m->data + m->pos, n);
  m->pos += static_cast<off64_t>(n);
  return static_cast<ssize_t>(n);
}

int SeekMemory(void *cookie, off64_t *offset, int whence) {
  auto *m = static_cast<MemoryFile *>(cookie);
  const off64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m->pos : static_cast<off64_t>(m->size);
  if (*offset < -base) return -1;  // before the start, as lseek refuses it
  m->pos = base + *offset;
  *offset = m->pos;
  return 0;
}

int CloseMemory(void *cookie) {
  std::free(cookie);
  return 0;
}
}  // namespace

extern "C" {

VTQ_FILE *VTQ_FileOpen(const char *path, const char *mode) {
  if (!path || !mode) return nullptr;
  return reinterpret_cast<VTQ_FILE *>(std::fopen(path, mode));
}

VTQ_FILE *VTQ_FileOpenMemory(const void *data, size_t size) {
  if (!data && size > 0) return nullptr;
  auto *m = static_cast<MemoryFile *>(std::malloc(sizeof(MemoryFile)));
  if (!m) return nullptr;
  *m = {static_cast<const unsigned char *>(data), size, 0};
  // No write function: the stream is read-only and data is never written.
  FILE *fp = fopencookie(m, "rb", cookie_io_functions_t{ReadMemory, nullptr, SeekMemory, CloseMemory});
  if (!fp) std::free(m);
  return reinterpret_cast<VTQ_FILE *>(fp);
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

long VTQ_FileTell(VTQ_FILE *f) { return f ? std::ftell(AsFile(f)) : -1; }

int VTQ_FileClose(VTQ_FILE *f) {
  if (!f) return -1;
  return std::fclose(AsFile(f));
}

int VTQ_ASC_remove(const char *path) { return path ? std::remove(path) : -1; }

}  // extern "C"
