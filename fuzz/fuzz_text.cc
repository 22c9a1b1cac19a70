// Text conversion of arbitrary bytes, in file or stream mode, under
// option bits taken from the input's end; in stream mode also as
// structure events from memory.
#include <cstdio>

#include "fuzz_common.h"
#include "vtq_txkln_ext.h"

namespace {
long Discard(void *, const void *, long len) { return len; }

// Handlers that read every byte they are given, so that the sanitizer
// sees a pointer or length that is wrong; they never stop the conversion.
int Touch(const void *data, size_t n) {
  volatile uint8_t sink = 0;
  for (size_t i = 0; i < n; ++i) sink = sink ^ static_cast<const uint8_t *>(data)[i];
  return 0;
}
int Text(void *, const char *text, size_t n) { return Touch(text, n); }
int Row(void *, uint32_t, const KlnCell *cells, size_t n) {
  for (size_t i = 0; i < n; ++i) Touch(cells[i].text, cells[i].length);
  return 0;
}
int Object(void *, const KlnObjectInfo *o) { return Touch(o->data, o->size); }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const klnfuzz::Input in = klnfuzz::Split(data, size);
  klnfuzz::DocFile doc(in.doc, in.docSize);
  if (in.fileMode) {
    const std::string out = doc.sibling(".txt");
    GetTextWithErrCallback(doc.path().c_str(), out.c_str(), &in.options, &in.charset, nullptr);
    std::remove(out.c_str());
  } else {
    VTQ_STREAM *s = VTQ_StreamCreate(Discard, nullptr);
    GetTextStreamWithErrCallback(doc.path().c_str(), s, &in.options, &in.charset, nullptr);
    VTQ_StreamDestroy(s);
    const KlnEventHandlers h{sizeof h, Text, nullptr, Row, nullptr, Object, nullptr};
    GetEventsFromMemoryWithErrCallback(in.doc, in.docSize, &h, nullptr, &in.options, &in.charset, nullptr);
  }
  return 0;
}
