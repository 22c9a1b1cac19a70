// The conversion log: a text file beside the output named
// <base>.<tag>.log, opened for appending.
#include <cstdio>
#include <cstring>

#include "vtq_rt.h"

extern "C" {

int GetLogFileName(const char *base, const char *tag, char *buf) {
  if (!buf) return -1;
  buf[0] = '\0';
  if (!base || !tag) return -1;
  size_t nb = std::strlen(base), nt = std::strlen(tag);
  if (nb + 1 + nt + 4 >= KLN_MAX_PATH) return -1;  // would not fit: no log name at all
  std::memcpy(buf, base, nb);
  buf[nb] = '.';
  std::memcpy(buf + nb + 1, tag, nt);
  std::memcpy(buf + nb + 1 + nt, ".log", 5);
  return 0;
}

VTQ_LOG *vtq_logfopen(uint32_t, const char *name) {
  if (!name || !name[0]) return nullptr;
  return reinterpret_cast<VTQ_LOG *>(std::fopen(name, "a"));
}

int vtq_logfprintf(uint32_t, VTQ_LOG *log, const char *text, int) {
  if (!log || !text) return -1;
  return std::fputs(text, reinterpret_cast<FILE *>(log)) < 0 ? -1 : 0;
}

int vtq_logfprint_path(uint32_t, VTQ_LOG *log, const char *path) {
  if (!log || !path) return -1;
  return std::fputs(path, reinterpret_cast<FILE *>(log)) < 0 ? -1 : 0;
}

int vtq_logfclose(uint32_t, VTQ_LOG *log) { return log ? std::fclose(reinterpret_cast<FILE *>(log)) : -1; }

}  // extern "C"
