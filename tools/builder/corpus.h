// Named documents of every kind, shared by the allocation sweep and the
// fuzz seeds (which the mutation mode replays): each reader's builder
// contributes its own.
#pragma once

#include <string>
#include <vector>

#include "kln_builder.h"

namespace kln {

struct NamedDocument {
  std::string name;
  Bytes bytes;
  uint32_t flags = 0;  // option bits the document is meant to be read with
};

std::vector<NamedDocument> Corpus();

}  // namespace kln
