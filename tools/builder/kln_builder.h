// The project's document writer: builds KLN documents from readable
// descriptions. It writes the shipped samples (tools/make_samples), the fuzz
// seeds and the benchmark documents, and the tests build theirs with it.
// Each description mirrors the format's own tables; build() lays the bytes
// out exactly as the reader expects them.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kln {

using Bytes = std::vector<uint8_t>;

// Appends big-endian fields, tags and raw bytes.
class Out {
 public:
  Out &u8(uint32_t v);
  Out &u16(uint32_t v);
  Out &u32(uint32_t v);
  Out &tag(std::string_view four);  // 4 ASCII bytes
  Out &str(std::string_view s);     // the bytes of s, no terminator
  Out &raw(const Bytes &b);
  Out &zeros(size_t n);
  // A u32 length followed by body.
  Out &block(const Bytes &body);
  size_t size() const { return b_.size(); }
  Bytes &bytes() { return b_; }
  Bytes done() { return std::move(b_); }

 private:
  Bytes b_;
};

Bytes Block(const Bytes &body);  // u32 length + body
Bytes Cat(std::initializer_list<Bytes> parts);
Bytes Str(std::string_view s);  // the bytes of s

// The global header. Defaults make a valid word-processing header.
struct Header {
  uint8_t mark0 = 0x04, mark1 = 0x02;  // KlnMark: 04 02 -> headerVariant 0
  std::string signature = "RVZT";
  uint8_t docKind = 1;
  // Descriptive records; nullopt = absent (P = 0).
  std::optional<std::string> title, docClass, description, author, version, keywords;
  Bytes dbPath;                  // LenDbPath: its bytes
  int32_t printTableFirst = 0;   // above 120 ends the header walk early
  Bytes table3, palette;         // Table3, Palette
  Bytes table6;                  // Table6&Table7&macro: N bytes (M = 0, K zero entries)
  Bytes build() const;
};

// One data set: its header record and its content.
struct DataSet {
  uint8_t kind = 1;        // 0 drawing, 1 word processing, 2 spreadsheet, 3 database
  uint8_t variant = ' ';
  uint16_t seq = 1;
  Bytes recordBody;        // record body (after the length word); grown to hold
                           // variant, kind and seq when shorter than 16 bytes
  Bytes content;           // what follows the record: blocks, already framed
  Bytes record() const;    // u32 length + body with variant/kind/seq in place
};

// A style of the style table: style number -> cell style.
struct StyleEntry {
  uint16_t styleNo;
  uint16_t cellStyle;  // index into the cell styles
};
struct CellStyleSpec {
  uint8_t formatCode = 0;
  uint8_t decimals = 0;
  uint8_t thousandsSep = 0;
  uint8_t negativeInParens = 0;
};

// The section chain after "FNTM": FNTM body, CUTS, DSUM, HDNI, then the
// "STYL" key and the records STYL, CELL (when withCell), NAME.
struct StyleChain {
  StyleChain(std::vector<StyleEntry> s = {}, std::vector<CellStyleSpec> c = {})
      : styles(std::move(s)), cellStyles(std::move(c)) {}
  std::vector<StyleEntry> styles;
  std::vector<CellStyleSpec> cellStyles;
  bool withCell = true;
  uint16_t stylEntrySize = 16;
  uint16_t cellEntrySize = 16;
  std::string keyNextTable = "STYL";  // the key after the HDNI section
  Bytes beforeRecords;                // sections passed over before the records
  std::vector<Bytes> extraRecords;    // records between STYL and CELL
  std::optional<uint16_t> stylCount, cellCount;  // entry counts claimed (default: the entries)
  Bytes build() const;
};

// A record of the style table: u32 length + body whose header carries the
// entry count, entry size and tag.
Bytes StyleRecord(std::string_view tag, uint16_t count, uint16_t entrySize, const Bytes &entries,
                  size_t entriesAt);

struct Document {
  Header header;
  std::optional<uint16_t> dsetCount;  // default: number of data sets
  std::vector<DataSet> dataSets;
  bool endWithFntm = true;
  Bytes trailer;  // after "FNTM" (e.g. StyleChain().build())
  Bytes build() const;
};

// A document of docKind holding one data set and the style chain after it.
Document TableDocument(uint8_t docKind, DataSet set, const StyleChain &styles);

void WriteFile(const std::string &path, const Bytes &bytes);

}  // namespace kln
