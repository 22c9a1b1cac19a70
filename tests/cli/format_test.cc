// kln2txt --format: the samples against their golden outputs, every format
// checked against the others and the delimited text (formats_check.py),
// hostile cell texts escaped, and embedded objects written out. A golden
// file is `kln2txt --format FORMAT build/samples/NAME.kln`, checked by eye.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "kln2txt.h"
#include "ss_builder.h"
#include "test_support.h"
#include "vtq_txkln_ext.h"

namespace {

const std::string kTool = KLN2TXT_PATH, kSamples = KLN_SAMPLES_DIR, kHere = KLN_CLI_TESTS_DIR;

std::string Tool(const std::string &args) {
  kln::TempDir dir;
  const int w = std::system((kTool + " " + args + " >" + dir.file("out") + " 2>/dev/null").c_str());
  EXPECT_TRUE(WIFEXITED(w) && WEXITSTATUS(w) == 0) << args;
  return kln::ReadAll(dir.file("out"));
}

bool FormatsAgree(const std::string &docs) {
  return std::system(("python3 " + kHere + "/formats_check.py " + kTool + " " + docs).c_str()) == 0;
}

TEST(Formats, SamplesMatchTheirGoldenOutputsAndAgree) {
  for (const char *name : {"letter", "budget", "notice", "addresses"}) {
    for (const char *format : {"markdown", "html", "jsonl"}) {
      const std::string golden = kHere + "/golden/" + name + "." + (format[0] == 'm' ? "md" : format);
      EXPECT_EQ(Tool(std::string("--format ") + format + " " + kSamples + "/" + name + ".kln"), kln::ReadAll(golden))
          << golden;
    }
  }
  EXPECT_TRUE(FormatsAgree(kSamples + "/*.kln"));
}

// The cell texts of the library's events, in UTF-8.
std::vector<std::string> EventCells(const kln::Bytes &doc) {
  std::vector<std::string> cells;
  KlnEventHandlers h{};
  h.structSize = sizeof h;
  h.row = [](void *user, uint32_t, const KlnCell *c, size_t n) {
    for (size_t i = 0; i < n; ++i) static_cast<std::vector<std::string> *>(user)->emplace_back(c[i].text, c[i].length);
    return 0;
  };
  const FilterOptions opt = kln::Options("UTF-8", KLN_FLAG_LINE_LF);
  const KlnCharsetInfo cs = kln::Charset();
  EXPECT_EQ(GetEventsFromMemoryWithErrCallback(doc.data(), doc.size(), &h, &cells, &opt, &cs, nullptr), 0);
  return cells;
}

TEST(Formats, HostileCellTextsAreEscaped) {
  const std::vector<std::string> hostile = {"a|b\\|c", "<td>&amp;\"'</td>", "line 1\r\nline 2\n|", "ctl\x01\x1f\x7f",
                                            "cut\x81", "]]>--"};
  kln::SsSheet sheet;
  for (uint16_t i = 0; i < hostile.size(); ++i) sheet.cells.push_back(kln::SsCell::Text(0, i, hostile[i]));
  const kln::Bytes doc = kln::SsDocument(sheet).build();
  kln::TempDir dir;
  const std::string path = dir.file("hostile.kln");
  kln::WriteFile(path, doc);

  const std::vector<std::string> cells = EventCells(doc);
  ASSERT_EQ(cells.size(), hostile.size());
  std::string row = "{\"table\":1,\"row\":0,\"cells\":[";
  for (size_t i = 0; i < cells.size(); ++i) row += (i ? "," : "") + kln2txt::JsonString(cells[i]);
  EXPECT_NE(Tool("--format jsonl " + path).find(row + "]}\n"), std::string::npos);
  EXPECT_TRUE(FormatsAgree(path));

  const std::string md = Tool("--format markdown --header-row " + path);
  EXPECT_EQ(md.substr(0, md.find('\n')),
            "| a\\|b\\\\\\|c | &lt;td>&amp;amp;\"'&lt;/td> | line 1<br>line 2<br>\\| | ctl | "
            "cut\xEF\xBF\xBD | ]]>-- |");
  const std::string html = Tool("--format html " + path);
  EXPECT_NE(html.find("<td>&lt;td&gt;&amp;amp;&quot;'&lt;/td&gt;</td><td>line 1<br/>line 2<br/>|</td>"),
            std::string::npos);
}

TEST(Formats, ExtractObjectsWritesEachObjectsBytes) {
  kln::TempDir dir;
  const std::string text = Tool("--extract-objects " + dir.path() + " " + kSamples + "/notice.kln");
  EXPECT_EQ(text, Tool(kSamples + "/notice.kln"));
  ASSERT_EQ(dir.list(), (std::vector<std::string>{"notice-1.ole", "notice-2.ole"}));
  EXPECT_EQ(kln::ReadAll(dir.file("notice-1.ole")).substr(0, 4), "\xD0\xCF\x11\xE0");
}

TEST(Formats, JsonCarriesTheTables) {
  const std::string json = Tool("--json " + kSamples + "/addresses.kln");
  EXPECT_NE(json.find("\"tables\":[{\"number\":1,\"kind\":\"database\",\"columns\":[\"氏名\","), std::string::npos);
  EXPECT_NE(json.find("[\"高橋 美咲\",\"\",\"090-1111-2222\""), std::string::npos);
}

}  // namespace
