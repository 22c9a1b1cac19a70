// Word-processing data sets: object table, text index and text blocks.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kln_builder.h"

namespace kln {

// One entry of the object table.
struct WpObject {
  WpObject(uint8_t k = 0, std::string t = {}, std::optional<uint16_t> len = {}, Bytes d = {})
      : kind(k), text(std::move(t)), textLength(len), data(std::move(d)) {}
  uint8_t kind = 0;                     // 3: a data block follows the table; 4: inline text
  std::string text;                     // kind 4: the inline text (first 20 bytes stored)
  std::optional<uint16_t> textLength;   // default: text.size()
  Bytes data;                           // kind 3: the body of its data block
};

// One text block and its descriptor.
struct WpTextBlock {
  WpTextBlock(std::string t, std::optional<int32_t> pos = {}, std::optional<uint16_t> declared = {},
              std::optional<uint32_t> own = {})
      : text(std::move(t)), position(pos), declaredLength(declared), blockLength(own) {}
  std::string text;
  std::optional<int32_t> position;       // default: the running total
  std::optional<uint16_t> declaredLength;  // the descriptor's length (default: text size)
  std::optional<uint32_t> blockLength;     // the block's own length word (default: text size)
};

struct WpDataSet {
  Bytes first = Bytes(6, 0), second = Bytes(4, 0);  // not interpreted by the reader
  std::vector<WpObject> objects;
  std::vector<WpTextBlock> blocks;
  Bytes after;  // blocks after the text (framed), skipped by the reader
  DataSet build(uint16_t seq = 1) const;
};

// A word-processing document of these data sets (kind 1 unless docKind given).
Document WpDocument(const std::vector<WpDataSet> &sets, uint8_t docKind = 1);

}  // namespace kln
