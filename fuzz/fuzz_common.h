// Shared by the harnesses: the input's last bytes choose the options, the
// rest is the document, written to a private temporary file because the
// filter reads by path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "vtq_txkln.h"

namespace klnfuzz {

struct Input {
  const uint8_t *doc;
  size_t docSize;
  FilterOptions options;
  KlnCharsetInfo charset;
  bool fileMode;
};

// Splits data into the document and the options taken from its last 6 bytes.
Input Split(const uint8_t *data, size_t size);

// A file of this process holding the bytes; removed by the destructor.
class DocFile {
 public:
  DocFile(const uint8_t *data, size_t size);
  ~DocFile();
  const std::string &path() const { return path_; }
  std::string sibling(const char *suffix) const { return path_ + suffix; }

 private:
  std::string path_;
};

}  // namespace klnfuzz
