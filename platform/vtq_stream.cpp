// Streams: a host's write callback, or a FILE*, behind one handle.
#include <cstdio>
#include <cstdlib>

#include "vtq_stream.h"

struct VTQ_STREAM {
  VTQ_StreamWriteFn fn;
  void *user;
};

namespace {
long WriteToFile(void *user, const void *data, long len) {
  return static_cast<long>(std::fwrite(data, 1, static_cast<size_t>(len), static_cast<FILE *>(user)));
}
}  // namespace

extern "C" {

VTQ_STREAM *VTQ_StreamCreate(VTQ_StreamWriteFn fn, void *user) {
  if (!fn) return nullptr;
  auto *s = static_cast<VTQ_STREAM *>(std::malloc(sizeof(VTQ_STREAM)));
  if (s) *s = {fn, user};
  return s;
}

VTQ_STREAM *VTQ_StreamCreateFile(FILE *fp) { return fp ? VTQ_StreamCreate(WriteToFile, fp) : nullptr; }

void VTQ_StreamDestroy(VTQ_STREAM *stream) { std::free(stream); }

long VTQ_WriteStream(VTQ_STREAM *stream, long len, const void *buf) {
  if (!stream || len < 0 || (len > 0 && !buf)) return -1;
  if (len == 0) return 0;
  return stream->fn(stream->user, buf, len) < len ? -1 : len;
}

}  // extern "C"
