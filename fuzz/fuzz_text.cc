// Text conversion of arbitrary bytes, in file or stream mode, under
// option bits taken from the input's end.
#include <cstdio>

#include "fuzz_common.h"

namespace {
long Discard(void *, const void *, long len) { return len; }
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
  }
  return 0;
}
