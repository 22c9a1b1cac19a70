// --format markdown|html|jsonl, the "tables" of --json and
// --extract-objects: the document taken as structure events (always UTF-8)
// and written as paragraphs and tables.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kln2txt.h"
#include "vtq_txkln_ext.h"

namespace kln2txt {

namespace {

struct Table {
  int32_t kind = KLN_TABLE_SHEET;
  std::vector<std::string> fields;  // a database's field names
  std::vector<uint32_t> rowNumbers;
  std::vector<std::vector<std::string>> rows;
};

// One block of the document in order: a paragraph, or a table.
struct Block {
  std::string text;
  int table = -1;  // index into Model::tables
};

// The document as the events gave it: paragraphs (the lines of its runs
// of text) and tables.
struct Model {
  std::vector<Block> blocks;
  std::vector<Table> tables;
  std::string pending;  // text not yet ended by a line end

  static Model &Of(void *user) { return *static_cast<Model *>(user); }
  // Ends the paragraphs of the text so far; a last line without its end
  // is kept until the next run or table.
  void paragraphs(bool all) {
    size_t from = 0;
    for (size_t nl; (nl = pending.find('\n', from)) != std::string::npos; from = nl + 1)
      add(pending.substr(from, nl - from));
    pending.erase(0, from);
    if (all) {
      add(pending);
      pending.clear();
    }
  }
  void add(const std::string &line) {
    if (line.find_first_not_of(" \t") != std::string::npos) blocks.push_back({line, -1});
  }
  static int Text(void *user, const char *text, size_t n) {
    Of(user).pending.append(text, n);
    Of(user).paragraphs(false);
    return 0;
  }
  static int TableStart(void *user, const KlnTableInfo *info) {
    Model &m = Of(user);
    m.paragraphs(true);
    m.tables.emplace_back();
    m.tables.back().kind = info->kind;
    for (uint32_t i = 0; i < info->fieldCount; ++i) m.tables.back().fields.emplace_back(info->fieldNames[i]);
    m.blocks.push_back({"", int(m.tables.size()) - 1});
    return 0;
  }
  static int Row(void *user, uint32_t row, const KlnCell *cells, size_t n) {
    Table &t = Of(user).tables.back();
    t.rowNumbers.push_back(row);
    t.rows.emplace_back();
    for (size_t i = 0; i < n; ++i) t.rows.back().emplace_back(cells[i].text, cells[i].length);
    return 0;
  }
};

FilterOptions StructureOptions(const Settings &s) {
  FilterOptions o = InUtf8(s.filter);
  o.flags = (o.flags & ~(KLN_FLAG_LINE_KEEP | KLN_FLAG_LINE_CRLF | KLN_FLAG_LINE_CR | KLN_FLAG_LINE_SPACE |
                         KLN_FLAG_LOG)) | KLN_FLAG_LINE_LF;
  return o;
}

int ReadModel(const std::string &path, const Settings &s, Model &m) {
  const KlnEventHandlers h{sizeof h, Model::Text, Model::TableStart, Model::Row, nullptr, nullptr, nullptr};
  const FilterOptions o = StructureOptions(s);
  const int code = GetEventsWithErrCallback(path.c_str(), &h, &m, &o, &s.charset, nullptr);
  m.paragraphs(true);
  return code;
}

size_t Width(const Table &t) {
  size_t w = t.fields.size();
  for (const auto &row : t.rows) w = std::max(w, row.size());
  return w;
}

// The header of a table: the field names, the first row with
// --header-row, else the column letters. *first is the first body row.
std::vector<std::string> Header(const Table &t, const Settings &s, size_t *first) {
  *first = 0;
  std::vector<std::string> head = t.fields;
  if (head.empty() && s.headerRow && !t.rows.empty()) {
    head = t.rows[0];
    *first = 1;
  }
  const size_t width = Width(t);
  for (size_t i = head.size(); i < width; ++i) head.push_back(t.fields.empty() && !s.headerRow ? ColumnName(i) : "");
  return head;
}

// Well-formed UTF-8 of s, each character handed to put(s, at, length) as
// a byte range, U+FFFD (an empty range) for a byte that starts none.
template <class Put>
void EachCharacter(const std::string &s, Put put) {
  for (size_t i = 0; i < s.size();) {
    const size_t n = Utf8SequenceAt(s, i);
    put(i, n);
    i += n ? n : 1;
  }
}

// Text for Markdown: pipes and backslashes escaped, markup characters as
// references, line ends as <br>, controls as spaces, U+FFFD for a byte that
// starts no UTF-8 character.
std::string MarkdownCell(const std::string &s) {
  std::string out;
  EachCharacter(s, [&](size_t at, size_t n) {
    const char c = n ? s[at] : 0;
    if (n == 0) {
      out += "\xEF\xBF\xBD";
    } else if (n > 1) {
      out.append(s, at, n);
    } else if (c == '|' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '<') {
      out += "&lt;";  // no markup of the text's own
    } else if (c == '&') {
      out += "&amp;";
    } else if (c == '\n') {
      out += "<br>";
    } else if (uint8_t(c) < 0x20 || c == 0x7F) {
      out += ' ';  // tabs, carriage returns and other controls
    } else {
      out += c;
    }
  });
  return out;
}

std::string MarkdownRow(const std::vector<std::string> &cells, size_t width) {
  std::string line = "|";
  for (size_t i = 0; i < width; ++i) line += " " + (i < cells.size() ? MarkdownCell(cells[i]) : "") + " |";
  return line + "\n";
}

std::string Markdown(const Model &m, const Settings &s) {
  std::string out;
  for (const Block &b : m.blocks) {
    if (!out.empty()) out += "\n";
    if (b.table < 0) {
      out += MarkdownCell(b.text) + "\n";
      continue;
    }
    const Table &t = m.tables[size_t(b.table)];
    size_t first;
    const std::vector<std::string> head = Header(t, s, &first);
    out += MarkdownRow(head, head.size()) + "|" ;
    for (size_t i = 0; i < head.size(); ++i) out += " --- |";
    out += "\n";
    for (size_t r = first; r < t.rows.size(); ++r) out += MarkdownRow(t.rows[r], head.size());
  }
  return out;
}

// Text for XML: markup characters as references, line ends as <br/> when
// asked, characters XML cannot hold (controls, bytes that start no UTF-8
// character) as U+FFFD.
std::string XmlText(const std::string &s, bool breaks = false) {
  std::string out;
  EachCharacter(s, [&](size_t at, size_t n) {
    const char c = n ? s[at] : 0;
    if (n > 1) {
      out.append(s, at, n);
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else if (c == '&') {
      out += "&amp;";
    } else if (c == '"') {
      out += "&quot;";
    } else if (c == '\n') {
      out += breaks ? "<br/>" : "\n";
    } else if (n == 0 || (uint8_t(c) < 0x20 && c != '\t') || c == 0x7F) {
      out += "\xEF\xBF\xBD";
    } else {
      out += c;
    }
  });
  return out;
}

std::string HtmlRow(const std::vector<std::string> &cells, size_t width, const char *tag) {
  std::string line = "<tr>";
  for (size_t i = 0; i < width; ++i)
    line += std::string("<") + tag + ">" + (i < cells.size() ? XmlText(cells[i], true) : "") + "</" + tag + ">";
  return line + "</tr>\n";
}

std::string Html(const Model &m, const Settings &s, const std::vector<std::string> &properties,
                 const std::string &name) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\">\n"
      "<head>\n<meta http-equiv=\"Content-Type\" content=\"text/html; charset=UTF-8\"/>\n<title>" +
      XmlText(!properties.empty() && !properties[0].empty() ? properties[0] : name) + "</title>\n";
  for (size_t i = 0; i < properties.size(); ++i)
    out += std::string("<meta name=\"") + kProperties[i].name + "\" content=\"" + XmlText(properties[i]) + "\"/>\n";
  out += "</head>\n<body>\n";
  for (const Block &b : m.blocks) {
    if (b.table < 0) {
      out += "<p>" + XmlText(b.text) + "</p>\n";
      continue;
    }
    const Table &t = m.tables[size_t(b.table)];
    size_t first;
    const std::vector<std::string> head = Header(t, s, &first);
    out += "<table>\n<thead>\n" + HtmlRow(head, head.size(), "th") + "</thead>\n<tbody>\n";
    for (size_t r = first; r < t.rows.size(); ++r) out += HtmlRow(t.rows[r], head.size(), "td");
    out += "</tbody>\n</table>\n";
  }
  return out + "</body>\n</html>\n";
}

std::string JsonCells(const Table &t, const std::vector<std::string> &row) {
  const bool keyed = !t.fields.empty();
  std::string out = keyed ? "{" : "[";
  for (size_t i = 0; i < row.size(); ++i) {
    if (i) out += ",";
    if (keyed) out += JsonString(i < t.fields.size() ? t.fields[i] : ColumnName(i)) + ":";
    out += JsonString(row[i]);
  }
  return out + (keyed ? "}" : "]");
}

std::string JsonProperties(const std::vector<std::string> &properties) {
  if (properties.empty()) return "null";
  std::string out = "{";
  for (size_t i = 0; i < properties.size(); ++i)
    out += std::string(i ? "," : "") + "\"" + kProperties[i].name + "\":" + JsonString(properties[i]);
  return out + "}";
}

std::string JsonLines(const Model &m, const std::vector<std::string> &properties) {
  std::string out = "{\"properties\":" + JsonProperties(properties) + "}\n";
  for (const Block &b : m.blocks) {
    if (b.table < 0) {
      out += "{\"text\":" + JsonString(b.text) + "}\n";
      continue;
    }
    const Table &t = m.tables[size_t(b.table)];
    for (size_t r = 0; r < t.rows.size(); ++r)
      out += "{\"table\":" + std::to_string(b.table + 1) + ",\"row\":" + std::to_string(t.rowNumbers[r]) +
             ",\"cells\":" + JsonCells(t, t.rows[r]) + "}\n";
  }
  return out;
}

// Where --extract-objects puts the objects of `input`: DIR/NAME-N.ole.
struct ObjectFiles {
  std::string prefix;
  int failed = 0;
  static int Write(void *user, const KlnObjectInfo *o) {
    auto *f = static_cast<ObjectFiles *>(user);
    const std::string path = f->prefix + std::to_string(o->number) + ".ole";
    FILE *out = std::fopen(path.c_str(), "wb");
    const bool ok = out && std::fwrite(o->data, 1, o->size, out) == o->size;
    if ((out && std::fclose(out) != 0) || !ok) {
      std::fprintf(stderr, "kln2txt: %s: %s\n", path.c_str(), std::strerror(errno));
      ++f->failed;
    }
    return 0;
  }
};

}  // namespace

std::string ColumnName(size_t i) {
  std::string name;
  for (size_t n = i + 1; n > 0; n = (n - 1) / 26) name.insert(name.begin(), char('A' + (n - 1) % 26));
  return name;
}

std::string TablesJson(const std::string &path, const Settings &s) {
  Model m;
  ReadModel(path, s, m);
  std::string out = "[";
  for (size_t i = 0; i < m.tables.size(); ++i) {
    const Table &t = m.tables[i];
    std::string columns, rows;
    const size_t width = Width(t);
    for (size_t c = 0; c < width; ++c)
      columns += (c ? "," : "") + JsonString(c < t.fields.size() ? t.fields[c] : t.fields.empty() ? ColumnName(c) : "");
    for (size_t r = 0; r < t.rows.size(); ++r) {
      rows += r ? ",[" : "[";
      for (size_t c = 0; c < t.rows[r].size(); ++c) rows += (c ? "," : "") + JsonString(t.rows[r][c]);
      rows += "]";
    }
    out += std::string(i ? "," : "") + "{\"number\":" + std::to_string(i + 1) + ",\"kind\":\"" +
           (t.kind == KLN_TABLE_DATABASE ? "database" : "sheet") + "\",\"columns\":[" + columns + "],\"rows\":[" +
           rows + "]}";
  }
  return out + "]";
}

int WriteStructured(const std::string &path, const std::string &name, const Settings &s, FILE *out) {
  Model m;
  const int code = ReadModel(path, s, m);
  std::vector<std::string> properties;
  if (s.format != Format::kMarkdown) ReadProperties(path, InUtf8(s.filter), s.charset, properties);
  std::string text;
  switch (s.format) {
    case Format::kMarkdown: text = Markdown(m, s); break;
    case Format::kHtml: text = Html(m, s, properties, name); break;
    default: text = JsonLines(m, properties); break;
  }
  std::fwrite(text.data(), 1, text.size(), out);
  return code;
}

bool ExtractObjects(const std::string &path, const std::string &input, const Settings &s) {
  std::string base = input == "-" ? "stdin" : input.substr(input.find_last_of('/') + 1);
  if (const size_t dot = base.find_last_of('.'); dot != std::string::npos && dot > 0) base.erase(dot);
  ObjectFiles files{s.extractDir + "/" + base + "-"};
  KlnEventHandlers h{};
  h.structSize = sizeof h;
  h.objectStart = ObjectFiles::Write;
  FilterOptions o = StructureOptions(s);
  o.flags &= ~(KLN_FLAG_OLE_EXTRACT | KLN_FLAG_SIZE_LIMIT);  // the bytes are wanted, not their text
  GetEventsWithErrCallback(path.c_str(), &h, &files, &o, &s.charset, nullptr);
  return files.failed == 0;
}

}  // namespace kln2txt
