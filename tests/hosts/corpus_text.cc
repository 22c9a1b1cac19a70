// A host program that converts every document of the shared corpus and
// prints what the filter answered. Run as it is under memcheck, and built
// a second time with interposers.cc, whose symbols share the names of the
// filter's own: both builds must print the same.
#include <cstdio>

#include "corpus.h"
#include "test_support.h"

int main() {
  for (const kln::NamedDocument &doc : kln::Corpus()) {
    const std::string t = kln::Transcript(doc);
    std::fwrite(t.data(), 1, t.size(), stdout);
  }
  return std::fclose(stdout) == 0 ? 0 : 1;
}
