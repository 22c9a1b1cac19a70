// Writes the seed corpus: documents of every kind from the test builder,
// each followed by the option bytes the harnesses read from the end.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kln_builder.h"

namespace {

struct Seed {
  std::string name;
  kln::Bytes doc;
};

std::vector<Seed> Documents() {
  std::vector<Seed> seeds;
  kln::Document wp;
  wp.header.title = "title";
  wp.header.author = "\x93\xfa\x96\x7b";
  seeds.push_back({"header", wp.build()});

  kln::Document sheet;
  sheet.header.docKind = 2;
  sheet.trailer = kln::StyleChain{{{0, 0}, {1, 1}}, {{0, 0, 0, 0}, {4, 2, 1, 1}}}.build();
  seeds.push_back({"style_chain", sheet.build()});

  kln::Document variant1;
  variant1.header.mark1 = 0x07;
  variant1.header.printTableFirst = 121;
  kln::DataSet unknown;
  unknown.kind = 9;
  unknown.content = kln::Block(kln::Bytes(8, 1));
  variant1.dataSets = {unknown, unknown};
  seeds.push_back({"variant1", variant1.build()});
  return seeds;
}

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
  for (const Seed &s : Documents()) {
    for (size_t t = 0; t < kTails.size(); ++t) {
      kln::Bytes bytes = s.doc;
      bytes.insert(bytes.end(), kTails[t].begin(), kTails[t].end());
      kln::WriteFile(dir + "/" + s.name + "_" + std::to_string(t), bytes);
      ++n;
    }
  }
  std::printf("wrote %d seeds to %s\n", n, dir.c_str());
  return 0;
}
