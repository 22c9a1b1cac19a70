// Structure events: rebuilt into delimited text they give exactly the text
// output, over the corpus; a handler's answer stops the conversion.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "corpus.h"
#include "test_support.h"
#include "vtq_rt.h"
#include "vtq_txkln_ext.h"

namespace {

// The delimited text of the events, written as the text output writes a
// table: field names, rows as lines with gaps as line feeds, cells
// separated, quoted unless told otherwise.
struct Rebuild {
  std::string text, separator = ",", quote = "\"";
  int32_t prevRow = -1, objects = 0, tables = 0, failedObjects = 0;
  std::vector<std::string> objectBytes;

  static Rebuild &Of(void *user) { return *static_cast<Rebuild *>(user); }
  static int Text(void *user, const char *t, size_t n) {
    Of(user).text.append(t, n);
    return 0;
  }
  static int TableStart(void *user, const KlnTableInfo *t) {
    Rebuild &b = Of(user);
    b.prevRow = -1;
    ++b.tables;
    for (uint32_t i = 0; i < t->fieldCount; ++i)
      b.text += (i ? b.separator : "") + b.quote + t->fieldNames[i] + b.quote;
    if (t->kind == KLN_TABLE_DATABASE && t->fieldCount) b.text += "\n";
    return 0;
  }
  static int Row(void *user, uint32_t row, const KlnCell *cells, size_t n) {
    Rebuild &b = Of(user);
    if (b.prevRow >= 0) b.text.append(std::min<size_t>(row - uint32_t(b.prevRow), 20480), '\n');
    b.prevRow = int32_t(row);
    for (size_t i = 0; i < n; ++i) {
      if (i) b.text += b.separator;
      if (cells[i].kind != KLN_CELL_EMPTY) b.text += b.quote + std::string(cells[i].text, cells[i].length) + b.quote;
    }
    return 0;
  }
  static int ObjectStart(void *user, const KlnObjectInfo *o) {
    Rebuild &b = Of(user);
    EXPECT_EQ(o->number, ++b.objects);
    b.objectBytes.emplace_back(reinterpret_cast<const char *>(o->data), o->size);
    return 0;
  }
  static int ObjectEnd(void *user, int32_t object, int32_t result) {
    EXPECT_EQ(object, Of(user).objects);
    Of(user).failedObjects += result != 0;
    return 0;
  }
};

KlnEventHandlers AllHandlers() {
  return {sizeof(KlnEventHandlers), Rebuild::Text, Rebuild::TableStart, Rebuild::Row, nullptr, Rebuild::ObjectStart,
          Rebuild::ObjectEnd};
}

int Events(const kln::Bytes &doc, const FilterOptions &opt, const KlnEventHandlers &h, void *user) {
  const KlnCharsetInfo cs = kln::Charset();
  return GetEventsFromMemoryWithErrCallback(doc.data(), doc.size(), &h, user, &opt, &cs, nullptr);
}

TEST(Events, RebuiltTheyAreTheTextOutputOverTheCorpus) {
  kln::ScopedTmpDir tmp;
  struct Case {
    const char *set;
    uint32_t flags;
    const char *separator, *quote;
  };
  const Case cases[] = {{"UTF-8", 0, ",", "\""},
                        {"UTF-8", KLN_FLAG_OLE_EXTRACT | KLN_FLAG_NO_QUOTE | KLN_FLAG_NO_FILL, ",", ""},
                        {"WINDOWS-31J", KLN_FLAG_SEPARATOR, ";", "\""},
                        {"ISO-8859-1", KLN_FLAG_OLE_EXTRACT | KLN_FLAG_OLE_CONTINUE, ",", "\""}};
  const KlnEventHandlers h = AllHandlers();
  for (const kln::NamedDocument &d : kln::Corpus()) {
    for (const Case &c : cases) {
      FilterOptions opt = kln::Options(c.set, d.flags | c.flags);
      opt.cellSeparator = ';';
      const kln::Result text = kln::RunStream(d.bytes, opt);
      Rebuild b;
      b.separator = c.separator;
      b.quote = c.quote;
      EXPECT_EQ(Events(d.bytes, opt, h, &b), text.code) << d.name << " " << c.set;
      EXPECT_EQ(b.text, text.text) << d.name << " " << c.set;
      EXPECT_EQ(b.tables, d.name == "budget" || d.name == "members" ? 1 : 0) << d.name;
    }
    // The size limit cuts the events where it cuts the text.
    FilterOptions limited = kln::Options("UTF-8", d.flags | KLN_FLAG_SIZE_LIMIT);
    limited.sizeLimit = 30;
    Rebuild b;
    EXPECT_EQ(Events(d.bytes, limited, h, &b), kln::RunStream(d.bytes, limited).code) << d.name;
  }
  EXPECT_TRUE(tmp.leftovers().empty());
}

TEST(Events, ObjectsCarryTheirStoredBytesAlsoWhenNotExtracted) {
  const kln::NamedDocument drawing = kln::Corpus().back();
  const KlnEventHandlers h = AllHandlers();
  for (uint32_t flags : {0u, unsigned(KLN_FLAG_OLE_EXTRACT)}) {
    Rebuild b;
    Events(drawing.bytes, kln::Options("UTF-8", flags), h, &b);
    ASSERT_EQ(b.objects, 3);
    for (const std::string &o : b.objectBytes) EXPECT_EQ(o.substr(0, 4), "\xD0\xCF\x11\xE0");
    EXPECT_EQ(b.failedObjects, 0);
  }
}

// Every failed allocation of an events run gives a code of the result
// table (leaks are caught by LeakSanitizer in the sanitizer build).
TEST(Events, EveryAllocationFailureGivesATableCode) {
  const KlnEventHandlers h = AllHandlers();
  for (const kln::NamedDocument &d : kln::Corpus()) {
    const FilterOptions opt = kln::Options("UTF-8", d.flags);
    const bool ended = kln::SweepAllocationFailures(
        [&] {
          Rebuild b;
          return Events(d.bytes, opt, h, &b);
        },
        [&](long n, int code) { EXPECT_TRUE(kln::IsResultCode(code)) << d.name << ": allocation " << n; });
    EXPECT_TRUE(ended) << d.name;
  }
}

// Each handler in turn answers 77 at its first call: the conversion ends
// with 77 and no event follows.
TEST(Events, AHandlersAnswerStopsTheConversion) {
  const std::vector<kln::NamedDocument> corpus = kln::Corpus();
  struct Stop {
    int calls = 0;
    static int Any(void *user) { return ++static_cast<Stop *>(user)->calls == 1 ? 77 : 0; }
  };
  KlnEventHandlers h{};
  h.structSize = sizeof h;
  const FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_OLE_EXTRACT);
  const auto check = [&](const char *doc, const char *what) {
    const auto d = std::find_if(corpus.begin(), corpus.end(), [&](const auto &n) { return n.name == doc; });
    Stop s;
    EXPECT_EQ(Events(d->bytes, opt, h, &s), 77) << what;
    EXPECT_EQ(s.calls, 1) << what;
    h = KlnEventHandlers{};
    h.structSize = sizeof h;
  };
  h.text = [](void *u, const char *, size_t) { return Stop::Any(u); };
  check("letter", "text");
  h.tableStart = [](void *u, const KlnTableInfo *) { return Stop::Any(u); };
  check("members", "tableStart");
  h.row = [](void *u, uint32_t, const KlnCell *, size_t) { return Stop::Any(u); };
  check("budget", "row");
  h.tableEnd = [](void *u, int32_t) { return Stop::Any(u); };
  check("budget", "tableEnd");
  h.objectStart = [](void *u, const KlnObjectInfo *) { return Stop::Any(u); };
  check("drawing", "objectStart");
  h.text = [](void *u, const char *, size_t) { return Stop::Any(u); };
  h.structSize = offsetof(KlnEventHandlers, tableStart);  // an older host knows only the text handler
  check("drawing", "text in an object");
}

}  // namespace
