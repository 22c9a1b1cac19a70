// make_samples: builds the sample documents from their readable
// descriptions in samples/, with the document writer (tools/builder/).
//
//   make_samples OUTDIR DESCRIPTION...
//
// writes OUTDIR/NAME.kln for every DESCRIPTION named NAME.desc. The format
// of the descriptions is told in samples/README.md. Texts are written in
// UTF-8 and stored in the document's character set, Windows-31J.
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "db_builder.h"
#include "kln_builder.h"
#include "ole_builder.h"
#include "ss_builder.h"
#include "wp_builder.h"

namespace {

// One description: its "key value" lines in order, and the lines after
// "text" (the body of a text document).
struct Description {
  std::string file;
  std::string kind;
  std::vector<std::pair<std::string, std::string>> entries;  // with their line numbers below
  std::vector<int> entryLines;
  std::vector<std::string> body;
  int bodyLine = 0;  // line number of the first body line
};

// Ends the run with a message naming the description and its line.
[[noreturn]] void Fail(const Description &d, int line, const std::string &what) {
  std::fprintf(stderr, "make_samples: %s:%d: %s\n", d.file.c_str(), line, what.c_str());
  std::exit(1);
}

std::string Trim(const std::string &s) {
  const size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// UTF-8 text as Windows-31J bytes, as the document stores its texts.
std::string ToDocumentSet(const Description &d, int line, const std::string &utf8) {
  iconv_t cd = iconv_open("WINDOWS-31J", "UTF-8");
  if (cd == reinterpret_cast<iconv_t>(-1)) Fail(d, line, "no UTF-8 to Windows-31J conversion on this system");
  std::string in = utf8, out(utf8.size() * 2 + 4, '\0');
  char *ip = in.data(), *op = out.data();
  size_t il = in.size(), ol = out.size();
  const size_t r = iconv(cd, &ip, &il, &op, &ol);
  iconv_close(cd);
  if (r == static_cast<size_t>(-1)) Fail(d, line, "text not representable in Windows-31J: " + utf8);
  out.resize(out.size() - ol);
  return out;
}

Description Read(const std::string &path) {
  Description d;
  d.file = path;
  std::ifstream in(path);
  if (!in) Fail(d, 0, "cannot read the description");
  bool inBody = false;
  int n = 0;
  for (std::string line; std::getline(in, line);) {
    ++n;
    if (inBody) {
      d.body.push_back(line);
      continue;
    }
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    if (line == "text") {
      inBody = true;
      d.bodyLine = n + 1;
      continue;
    }
    const size_t space = line.find_first_of(" \t");
    const std::string key = line.substr(0, space);
    const std::string value = space == std::string::npos ? std::string() : Trim(line.substr(space));
    if (key == "kind")
      d.kind = value;
    else
      d.entries.emplace_back(key, value), d.entryLines.push_back(n);
  }
  return d;
}

// The six descriptive records of the header, from the entries of those names.
kln::Header HeaderOf(const Description &d) {
  kln::Header h;
  const std::map<std::string, std::optional<std::string> kln::Header::*> fields = {
      {"title", &kln::Header::title},       {"author", &kln::Header::author},
      {"keywords", &kln::Header::keywords}, {"description", &kln::Header::description},
      {"class", &kln::Header::docClass},    {"version", &kln::Header::version}};
  for (size_t i = 0; i < d.entries.size(); ++i) {
    const auto f = fields.find(d.entries[i].first);
    if (f == fields.end()) continue;
    std::string text = ToDocumentSet(d, d.entryLines[i], d.entries[i].second);
    // The header keeps texts of at most 254 bytes.
    if (text.size() > 254) Fail(d, d.entryLines[i], "a property holds at most 254 bytes");
    h.*(f->second) = std::move(text);
  }
  return h;
}

// The trimmed pieces of v between the separators.
std::vector<std::string> Split(const std::string &v, char separator) {
  std::vector<std::string> pieces;
  for (size_t b = 0; b <= v.size();) {
    const size_t e = std::min(v.find(separator, b), v.size());
    pieces.push_back(Trim(v.substr(b, e - b)));
    b = e + 1;
  }
  return pieces;
}

// Calls fn(value, line) for every entry called `key`.
void ForEach(const Description &d, const std::string &key, const std::function<void(const std::string &, int)> &fn) {
  for (size_t i = 0; i < d.entries.size(); ++i)
    if (d.entries[i].first == key) fn(d.entries[i].second, d.entryLines[i]);
}

// ---- kind "text": a word-processing document -----------------------------

// Control bytes of word-processing text.
constexpr char kLineEnd = '\x01';
constexpr char kInlineAnchor = '\x06';
constexpr size_t kInlineTextMax = 11;  // bytes a reader keeps of an inline text

// The page of text of a description. Entries: "inline TEXT" (the texts
// shown at each {} of the text, in order). Body: one document line per
// line; a blank line ends a text block; a tab is a layout space.
kln::WpDataSet TextPage(const Description &d) {
  kln::WpDataSet page;
  ForEach(d, "inline", [&](const std::string &v, int line) {
    std::string text = ToDocumentSet(d, line, v);
    if (text.size() > kInlineTextMax) Fail(d, line, "an inline text holds at most 11 bytes");
    page.objects.emplace_back(4, text);
  });
  std::string block;
  for (size_t i = 0; i < d.body.size(); ++i) {
    std::string line = d.body[i];
    for (size_t at; (at = line.find("{}")) != std::string::npos;) line.replace(at, 2, 1, kInlineAnchor);
    block += ToDocumentSet(d, d.bodyLine + static_cast<int>(i), line);
    // The reader ends the data set with a line end of its own.
    if (i + 1 < d.body.size()) block += kLineEnd;
    if (line.empty() || i + 1 == d.body.size()) {
      if (!block.empty()) page.blocks.emplace_back(block);
      block.clear();
    }
  }
  if (page.blocks.empty()) Fail(d, 0, "this kind of document needs a text section");
  return page;
}

// The document with the description's properties in its header.
kln::Document WithProperties(kln::Document doc, const Description &d) {
  const uint8_t kind = doc.header.docKind;
  doc.header = HeaderOf(d);
  doc.header.docKind = kind;
  return doc;
}

kln::Document BuildText(const Description &d) { return WithProperties(kln::WpDocument({TextPage(d)}), d); }

// ---- kind "drawing": a page of text and a drawing with embedded objects --

// Entries: those of a text document, and "object LABEL | TEXT": an embedded
// object packaging the text file LABEL, in which "\n" ends a line (as does
// the end of the text).
kln::Document BuildDrawing(const Description &d) {
  kln::DrawingDataSet drawing;
  ForEach(d, "object", [&](const std::string &v, int line) {
    const size_t bar = v.find('|');
    if (bar == std::string::npos) Fail(d, line, "object LABEL | TEXT");
    std::string text = Trim(v.substr(bar + 1)) + "\\n";
    for (size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, "\r\n");
    drawing.objects.push_back(
        kln::DrawingObject::Ole(kln::PackagedObject(kln::Str(ToDocumentSet(d, line, text)), Trim(v.substr(0, bar)))));
  });
  if (drawing.objects.empty()) Fail(d, 0, "a drawing needs at least one object");
  kln::Document doc = kln::WpDocument({TextPage(d)});
  doc.dataSets.push_back(drawing.build(2));
  return WithProperties(std::move(doc), d);
}

// ---- kind "sheet": a spreadsheet document --------------------------------

// Format codes of the cell styles, by the names descriptions use.
// clang-format off
const std::map<std::string, uint8_t> kFormats = {
    {"general", 0}, {"currency", 1}, {"percent", 2}, {"scientific", 3}, {"fixed", 4},
    {"date-short", 5}, {"date", 6}, {"date-weekday", 8}, {"date-long-weekday", 9},
    {"era-short", 10}, {"era", 11}, {"era-weekday", 12}, {"era-long-weekday", 13},
    {"time-12", 14}, {"time-12-seconds", 15}, {"time", 16}, {"time-seconds", 17}};
// clang-format on

// "style NAME FORMAT [decimals N] [thousands] [parens]"
void ParseStyle(const Description &d, int line, const std::string &v, std::map<std::string, uint16_t> &names,
                kln::StyleChain &chain) {
  std::vector<std::string> words;
  for (size_t b = 0, e; b < v.size(); b = e) {
    b = v.find_first_not_of(" \t", b);
    if (b == std::string::npos) break;
    e = std::min(v.find_first_of(" \t", b), v.size());
    words.push_back(v.substr(b, e - b));
  }
  if (words.size() < 2 || !kFormats.count(words[1]))
    Fail(d, line, "style NAME FORMAT [decimals N] [thousands] [parens]");
  kln::CellStyleSpec style;
  style.formatCode = kFormats.at(words[1]);
  for (size_t i = 2; i < words.size(); ++i) {
    if (words[i] == "thousands")
      style.thousandsSep = 1;
    else if (words[i] == "parens")
      style.negativeInParens = 1;
    else if (words[i] == "decimals" && i + 1 < words.size())
      style.decimals = static_cast<uint8_t>(std::atoi(words[++i].c_str()));
    else
      Fail(d, line, "unknown style word '" + words[i] + "'");
  }
  const auto number = static_cast<uint16_t>(chain.cellStyles.size());
  names[words[0]] = number;
  chain.styles.push_back({number, number});
  chain.cellStyles.push_back(style);
}

// The style chain of the "style" entries; style 0 writes general numbers.
kln::StyleChain StylesOf(const Description &d, std::map<std::string, uint16_t> &names) {
  kln::StyleChain chain{{{0, 0}}, {{}}};
  ForEach(d, "style", [&](const std::string &v, int line) { ParseStyle(d, line, v, names, chain); });
  return chain;
}

// Days from 1904-01-01, the day a cell's date value counts from.
int32_t DaysSince1904(int y, int m, int d) {
  // Days from 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
  y -= m <= 2;
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int yoe = y - era * 400;
  const int doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468 + 24107;  // 1904-01-01 is day -24107
}

// A date YYYY-MM-DD as days from 1904-01-01.
bool ParseDate(const std::string &v, int32_t &days) {
  int y = 0, m = 0, d = 0, used = 0;
  if (std::sscanf(v.c_str(), "%4d-%2d-%2d%n", &y, &m, &d, &used) != 3 || used != static_cast<int>(v.size()))
    return false;
  days = DaysSince1904(y, m, d);
  return true;
}

// A time HH:MM[:SS] as the fraction of a day.
bool ParseTime(const std::string &v, double &dayFraction) {
  int h = 0, m = 0, s = 0, used = 0;
  if ((std::sscanf(v.c_str(), "%2d:%2d:%2d%n", &h, &m, &s, &used) != 3 &&
       std::sscanf(v.c_str(), "%2d:%2d%n", &h, &m, &used) != 2) ||
      used != static_cast<int>(v.size()))
    return false;
  dayFraction = (h * 3600 + m * 60 + s) / 86400.0;
  return true;
}

// One cell of a row: text, "quoted text", TRUE/FALSE, a number, a date
// YYYY-MM-DD, a time HH:MM[:SS], or =NUMBER (a formula and its cached
// result); " @STYLE" after it names its style.
std::optional<kln::SsCell> ParseCell(const Description &d, int line, uint16_t row, uint16_t col, std::string v,
                                     const std::map<std::string, uint16_t> &styles) {
  uint16_t style = 0;
  const size_t at = v.rfind(" @");
  if (at != std::string::npos) {
    const auto s = styles.find(Trim(v.substr(at + 2)));
    if (s == styles.end()) Fail(d, line, "no style called '" + Trim(v.substr(at + 2)) + "'");
    style = s->second;
    v = Trim(v.substr(0, at));
  }
  if (v.empty()) return std::nullopt;
  int32_t days = 0;
  double dayFraction = 0;
  char *end = nullptr;
  const double number = std::strtod(v.c_str() + (v[0] == '=' ? 1 : 0), &end);
  const bool isNumber = *end == '\0' && end != v.c_str() + (v[0] == '=' ? 1 : 0);
  if (v.size() >= 2 && v.front() == '"' && v.back() == '"')
    return kln::SsCell::Text(row, col, ToDocumentSet(d, line, v.substr(1, v.size() - 2)), style);
  if (v == "TRUE" || v == "FALSE") return kln::SsCell::Bool(row, col, v == "TRUE");
  if (v[0] == '=' && isNumber) return kln::SsCell::Formula(row, col, 2, kln::LeDouble(number), style);
  if (ParseDate(v, days)) return kln::SsCell::Int32(row, col, days, style);
  if (ParseTime(v, dayFraction)) return kln::SsCell::Float(row, col, dayFraction, style);
  if (isNumber && number == std::floor(number) && std::fabs(number) <= 32767)
    return kln::SsCell::Int16(row, col, static_cast<int16_t>(number), style);
  if (isNumber && number == std::floor(number) && std::fabs(number) <= 2147483647.0)
    return kln::SsCell::Int32(row, col, static_cast<int32_t>(number), style);
  if (isNumber) return kln::SsCell::Float(row, col, number, style);
  const std::string text = ToDocumentSet(d, line, v);
  if (text.size() > 255) Fail(d, line, "a text cell holds at most 255 bytes");
  return kln::SsCell::Text(row, col, text, style);
}

// Entries: "style …" (number formats, above) and "row CELL | CELL | …",
// one per row from the first.
kln::Document BuildSheet(const Description &d) {
  std::map<std::string, uint16_t> styleNames;
  const kln::StyleChain chain = StylesOf(d, styleNames);
  kln::SsSheet sheet;
  uint16_t row = 0;
  ForEach(d, "row", [&](const std::string &v, int line) {
    const std::vector<std::string> cells = Split(v, '|');
    for (size_t col = 0; col < cells.size(); ++col)
      if (auto cell = ParseCell(d, line, row, static_cast<uint16_t>(col), cells[col], styleNames))
        sheet.cells.push_back(*cell);
    ++row;
  });
  if (sheet.cells.empty()) Fail(d, 0, "a sheet needs at least one row with a cell");
  return WithProperties(kln::SsDocument(sheet, chain), d);
}

// ---- kind "database": a table of fields and records ----------------------

// Field types by the names descriptions use.
const std::map<std::string, uint8_t> kFieldTypes = {{"text", 0}, {"number", 1}, {"date", 2},
                                                    {"time", 3}, {"choice", 4}, {"yesno", 5}};

// "field NAME TYPE [@STYLE]", for a choice "field NAME choice A, B, … [@STYLE]".
void ParseField(const Description &d, int line, std::string v, const std::map<std::string, uint16_t> &styles,
                kln::DbTable &table, std::vector<std::vector<std::string>> &choices) {
  const size_t at = v.rfind(" @");
  const auto field = static_cast<uint16_t>(table.fields.size());
  if (at != std::string::npos) {
    const auto style = styles.find(Trim(v.substr(at + 2)));
    if (style == styles.end()) Fail(d, line, "no style called '" + Trim(v.substr(at + 2)) + "'");
    table.styles.emplace_back(field, style->second);
    v = Trim(v.substr(0, at));
  }
  const size_t nameEnd = std::min(v.find_first_of(" \t"), v.size());
  const std::string rest = Trim(v.substr(nameEnd));
  const size_t typeEnd = std::min(rest.find_first_of(" \t"), rest.size());
  const auto type = kFieldTypes.find(rest.substr(0, typeEnd));
  if (type == kFieldTypes.end()) Fail(d, line, "field NAME text|number|date|time|choice|yesno [@STYLE]");
  kln::DbFieldSpec definition(ToDocumentSet(d, line, v.substr(0, nameEnd)), type->second);
  choices.emplace_back();
  if (type->first == "choice") {
    for (const std::string &entry : Split(rest.substr(typeEnd), ','))
      choices.back().push_back(ToDocumentSet(d, line, entry));
    definition.pieces = {kln::ChoiceList(choices.back()), kln::Piece({})};
  }
  table.fields.push_back(definition);
}

// One stored value of a record, as its field's type reads it: a choice by
// its text, yes/no as TRUE or FALSE, dates and times as in a sheet.
kln::Bytes DbValue(const Description &d, int line, const std::string &v, uint8_t type,
                   const std::vector<std::string> &choices) {
  int32_t days = 0;
  double number = 0;
  switch (type) {
    case 1: number = std::strtod(v.c_str(), nullptr); break;
    case 2:
      if (!ParseDate(v, days)) Fail(d, line, "a date is YYYY-MM-DD: " + v);
      number = days;
      break;
    case 3:
      if (!ParseTime(v, number)) Fail(d, line, "a time is HH:MM[:SS]: " + v);
      break;
    case 4: {
      const auto entry = std::find(choices.begin(), choices.end(), ToDocumentSet(d, line, v));
      if (entry == choices.end()) Fail(d, line, "not one of the field's choices: " + v);
      number = static_cast<double>(entry - choices.begin() + 1);  // the list counts from 1
      break;
    }
    case 5: number = v == "TRUE"; break;
    default: return kln::DbText(ToDocumentSet(d, line, v));
  }
  return kln::DbNumber(number);
}

// Entries: "style …" as in a sheet, "field …" (above), one per column, and
// "record VALUE | VALUE | …", one per record in field order; an empty value
// is left out.
kln::Document BuildDatabase(const Description &d) {
  std::map<std::string, uint16_t> styleNames;
  const kln::StyleChain chain = StylesOf(d, styleNames);
  kln::DbTable table;
  std::vector<std::vector<std::string>> choices;  // per field
  ForEach(d, "field", [&](const std::string &v, int line) { ParseField(d, line, v, styleNames, table, choices); });
  uint16_t record = 0;
  ForEach(d, "record", [&](const std::string &v, int line) {
    const std::vector<std::string> values = Split(v, '|');
    if (values.size() > table.fields.size()) Fail(d, line, "more values than fields");
    for (size_t f = 0; f < values.size(); ++f)
      if (!values[f].empty())
        table.values[static_cast<uint16_t>(f)][record] = DbValue(d, line, values[f], table.fields[f].type, choices[f]);
    table.records.push_back(record++);
  });
  if (table.fields.empty() || table.records.empty()) Fail(d, 0, "a database needs fields and records");
  return WithProperties(kln::DbDocument(table, chain), d);
}

// Builders by the "kind" of a description. A new kind of sample is one
// function above and one line here.
const std::map<std::string, kln::Document (*)(const Description &)> kBuilders = {
    {"text", BuildText},
    {"sheet", BuildSheet},
    {"drawing", BuildDrawing},
    {"database", BuildDatabase},
};

std::string Stem(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  return base.substr(0, base.find_last_of('.'));
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::fputs("usage: make_samples OUTDIR DESCRIPTION...\n", stderr);
    return 2;
  }
  for (int i = 2; i < argc; ++i) {
    const Description d = Read(argv[i]);
    const auto builder = kBuilders.find(d.kind);
    if (builder == kBuilders.end()) Fail(d, 0, "unknown kind '" + d.kind + "' (text, sheet, drawing or database)");
    kln::WriteFile(std::string(argv[1]) + "/" + Stem(argv[i]) + ".kln", builder->second(d).build());
  }
  return 0;
}
