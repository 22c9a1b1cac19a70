// Database data sets: the field definitions with their extra pieces, the
// value table (CTAB, COLM and CHNK sections of stored values), the count
// block, the record list and the style block.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kln_builder.h"

namespace kln {

// Stored values, as a CHNK slot holds them: size, flags, text length,
// then the text or the 80-bit float.
Bytes DbText(const std::string &text);               // 9-bit length
Bytes DbNumber(double v);                            // number, date, time, choice, yes/no
Bytes DbComputedNumber(double v);                    // flags bit 7
Bytes DbComputedText(const std::string &text);       // value size above 2
Bytes DbComputedError();                             // value size 2: "#ERROR!"

// An extra piece: u32 length and its bytes.
Bytes Piece(const Bytes &bytes);
// The list of a choice field as its first piece: entries of one length
// byte and the text.
Bytes ChoiceList(const std::vector<std::string> &entries);

struct DbFieldSpec {
  DbFieldSpec(std::string n = "", uint8_t t = 0, uint8_t sub = 0, uint8_t result = 0, uint8_t f = 0)
      : name(std::move(n)), type(t), subKind(sub), resultType(result), flags(f) {}
  std::string name;
  uint8_t type;        // entry byte 64
  uint8_t subKind;     // entry byte 121
  uint8_t resultType;  // entry byte 70
  uint8_t flags;       // entry byte 118
  // The pieces after the field-definition block, written as they stand.
  // Default: what the type calls for (an empty piece each).
  std::optional<std::vector<Bytes>> pieces;
  std::optional<uint8_t> nameLen;  // default: the name's size
};

struct DbTable {
  std::vector<DbFieldSpec> fields;
  uint16_t fieldEntrySize = 122;
  // field -> record number -> stored value
  std::map<uint16_t, std::map<uint32_t, Bytes>> values;
  std::vector<uint16_t> records;  // the record list: row i shows records[i]
  uint16_t recordEntrySize = 4;
  std::vector<std::pair<uint16_t, uint16_t>> styles;  // field index, style number
  uint16_t styleEntrySize = 8;
  std::optional<uint16_t> styleCount;  // entry count claimed (default: the entries)
  uint16_t count = 1;                  // K of block 5: the record list is block 2K + 6
  uint32_t padChunkFlags = 0;          // zero chunk flags appended to every COLM
  std::map<int, Bytes> replace;        // block number -> body written in its place
                                       // (block 4's length word counts itself)

  Bytes fieldBlock() const;  // u32 length, body, then the extra pieces
  Bytes valueTable() const;  // u32 length (counting itself) and body
  Bytes recordList() const;  // u32 length and body
  Bytes styleBlock() const;  // u32 length and body
  DataSet build(uint16_t seq = 1) const;
};

// A database document: the table's data set, then the style chain.
Document DbDocument(const DbTable &table, const StyleChain &styles = StyleChain{{{0, 0}}, {{}}});

}  // namespace kln
