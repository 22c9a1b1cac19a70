// Property extraction of arbitrary bytes.
#include <vector>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const klnfuzz::Input in = klnfuzz::Split(data, size);
  klnfuzz::DocFile doc(in.doc, in.docSize);
  std::vector<unsigned char> record(KLN_PROPERTY_RECORD_SIZE);
  GetProperty(doc.path().c_str(), &in.options, record.data(), &in.charset);
  return 0;
}
