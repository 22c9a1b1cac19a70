// Drawing data sets and the embedded objects they carry: compound files
// with a packaged file or a CONTENTS stream.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kln_builder.h"

namespace kln {

// A compound file holding the named streams, in the root storage.
Bytes CompoundFile(const std::vector<std::pair<std::string, Bytes>> &streams);

// The "\x01Ole10Native" stream that packages a file: size, type, label,
// source path, type word, temporary path with its length, data with its
// length (little-endian).
Bytes PackageStream(const Bytes &data, const std::string &label = "note.txt");
// A compound file that packages data.
Bytes PackagedObject(const Bytes &data, const std::string &label = "note.txt");

// One drawing object entry.
struct DrawingObject {
  uint8_t kind = 1, subkind = 0;  // 8/5 OLE object, 8/0 framed, 1/1 header only
  Bytes object;                   // 8/5: the object's bytes after its 28-byte head
  std::optional<uint32_t> oleLength;  // the head's length word (default: object size + 24)
  static DrawingObject Ole(Bytes object) { return {8, 5, std::move(object), {}}; }
};

struct DrawingDataSet {
  std::vector<DrawingObject> objects;
  uint16_t entryStride = 24;
  std::optional<uint16_t> objectCount;  // default: objects.size()
  int32_t leadingLength = 10;           // the leading block's length word
  uint16_t pairs = 1;                   // the leading block's count n: 2n blocks follow
  bool blocks = true;                   // false: only the header record
  DataSet build(uint16_t seq = 1) const;
};

}  // namespace kln
