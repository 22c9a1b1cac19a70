// Streams: a host's write callback, a FILE*, or a growing buffer behind one
// handle.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vtq_stream.h"

struct VTQ_STREAM {
  VTQ_StreamWriteFn fn;
  void *user;
  // A buffer stream's bytes (fn is AppendToBuffer, user the stream).
  char *data;
  size_t length;
  size_t capacity;
};

namespace {
long WriteToFile(void *user, const void *data, long len) {
  return static_cast<long>(std::fwrite(data, 1, static_cast<size_t>(len), static_cast<FILE *>(user)));
}

// Grows the buffer geometrically, so collecting n bytes costs O(n).
long AppendToBuffer(void *user, const void *data, long len) {
  auto *s = static_cast<VTQ_STREAM *>(user);
  const size_t n = static_cast<size_t>(len);
  if (n > s->capacity - s->length) {
    size_t cap = s->capacity ? s->capacity : 4096;
    while (cap - s->length < n) {
      if (cap > SIZE_MAX / 2) return 0;
      cap *= 2;
    }
    char *grown = static_cast<char *>(std::realloc(s->data, cap));
    if (!grown) return 0;
    s->data = grown;
    s->capacity = cap;
  }
  std::memcpy(s->data + s->length, data, n);
  s->length += n;
  return len;
}
}  // namespace

extern "C" {

VTQ_STREAM *VTQ_StreamCreate(VTQ_StreamWriteFn fn, void *user) {
  if (!fn) return nullptr;
  auto *s = static_cast<VTQ_STREAM *>(std::malloc(sizeof(VTQ_STREAM)));
  if (s) *s = {fn, user, nullptr, 0, 0};
  return s;
}

VTQ_STREAM *VTQ_StreamCreateFile(FILE *fp) { return fp ? VTQ_StreamCreate(WriteToFile, fp) : nullptr; }

VTQ_STREAM *VTQ_StreamCreateBuffer(void) {
  VTQ_STREAM *s = VTQ_StreamCreate(AppendToBuffer, nullptr);
  if (s) s->user = s;
  return s;
}

const void *VTQ_StreamBufferData(VTQ_STREAM *stream, size_t *length) {
  const bool buffer = stream && stream->fn == AppendToBuffer;
  if (length) *length = buffer ? stream->length : 0;
  return buffer ? stream->data : nullptr;
}

void VTQ_StreamDestroy(VTQ_STREAM *stream) {
  if (stream) std::free(stream->data);
  std::free(stream);
}

long VTQ_WriteStream(VTQ_STREAM *stream, long len, const void *buf) {
  if (!stream || len < 0 || (len > 0 && !buf)) return -1;
  if (len == 0) return 0;
  return stream->fn(stream->user, buf, len) < len ? -1 : len;
}

}  // extern "C"
