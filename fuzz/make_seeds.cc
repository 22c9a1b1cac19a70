// Writes the seed corpus: documents of every kind from the document writer,
// each followed by the option bytes the harnesses read from the end.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "corpus.h"

namespace {

// Option tails: stream and file mode, a few output sets, limits, OLE bits.
const std::vector<kln::Bytes> kTails = {
    {0, 0, 0, 0, 0x00, 0x00},
    {0, 0x40, 0x10, 0x10, 0x42, 0x81},
    {0x03, 0x20, 0x90, 0x28, 0x3A, 0x00},
};

}  // namespace

int main(int argc, char **argv) {
  const std::string dir = argc > 1 ? argv[1] : "seeds";
  mkdir(dir.c_str(), 0755);
  int n = 0;
  for (const kln::NamedDocument &s : kln::Corpus()) {
    for (size_t t = 0; t < kTails.size(); ++t) {
      kln::Bytes bytes = s.bytes, tail = kTails[t];
      for (int i = 0; i < 4; ++i) tail[i] |= static_cast<uint8_t>(s.flags >> (24 - 8 * i));
      bytes.insert(bytes.end(), tail.begin(), tail.end());
      kln::WriteFile(dir + "/" + s.name + "_" + std::to_string(t), bytes);
      ++n;
    }
  }
  std::printf("wrote %d seeds to %s\n", n, dir.c_str());
  return 0;
}
