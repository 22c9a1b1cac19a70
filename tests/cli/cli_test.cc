// kln2txt end to end: outputs, messages and exit statuses, the batch runner
// with a crashing and a hanging worker; and the JSON string writer.
#include <gtest/gtest.h>
#include <iconv.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "kln2txt.h"
#include "ole_builder.h"
#include "test_support.h"
#include "wp_builder.h"

namespace {

struct Ran {
  int status = -1;
  std::string out, err;
};

// Runs kln2txt with `args` (shell words) in dir, standard input from
// `input` when given; with `stop`, sends it that signal once a file shows
// in its TMPDIR "tmp" (the private copy of a piped input; 10 s at most).
Ran RunIn(const kln::TempDir &dir, const std::string &args, const std::string &env = {},
          const std::string &input = "/dev/null", const std::string &stop = {}) {
  // The redirections in args come last and win.
  std::string cmd = env + " '" KLN2TXT_PATH "' <" + input + " >stdout.bin 2>stderr.txt " + args;
  if (!stop.empty())
    cmd = "{ " + cmd + " & p=$!; for i in $(seq 100); do find tmp -type f | grep -q . && break; sleep 0.1; done; kill -" +
          stop + " $p; wait $p; } 2>/dev/null";
  cmd = "cd '" + dir.path() + "' && " + cmd;
  const int w = std::system(cmd.c_str());
  Ran r;
  r.status = WIFEXITED(w) ? WEXITSTATUS(w) : -1;
  r.out = kln::ReadAll(dir.file("stdout.bin"));
  r.err = kln::ReadAll(dir.file("stderr.txt"));
  return r;
}

const std::string kSamples = KLN_SAMPLES_DIR;

// Documents of every outcome in a test folder: the two samples, one without
// text, one that is no KLN document, one that cannot be opened.
class Kln2txtTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kln::WriteFile(dir.file("letter.kln"), Load(kSamples + "/letter.kln"));
    kln::WriteFile(dir.file("budget.kln"), Load(kSamples + "/budget.kln"));
    kln::WriteFile(dir.file("notice.kln"), Load(kSamples + "/notice.kln"));
    kln::Header header;
    header.title = "empty";
    kln::Document empty;
    empty.header = header;
    kln::WriteFile(dir.file("empty.kln"), empty.build());
    std::ofstream(dir.file("notes.kln")) << "shopping list: milk, eggs\n";
    // Text, an object without readable text, a packaged text, text.
    kln::WpDataSet before, after;
    before.blocks = {{"abc"}};
    after.blocks = {{"xyz"}};
    kln::DrawingDataSet drawing;
    drawing.objects = {kln::DrawingObject::Ole(kln::CompoundFile({{"Other", kln::Str("x")}})),
                       kln::DrawingObject::Ole(kln::PackagedObject(kln::Str("good")))};
    kln::Document objects;
    objects.dataSets = {before.build(1), drawing.build(2), after.build(3)};
    kln::WriteFile(dir.file("object.kln"), objects.build());
    ASSERT_EQ(mkdir(dir.file("tmp").c_str(), 0700), 0);
  }
  // A pipe `name` that delivers letter.kln once.
  void Pipe(const std::string &name) {
    const std::string pipe = "'" + dir.file(name) + "'";
    // The FIFO exists before this returns; its writer runs on, bounded in time and holding
    // none of the test's own outputs, until the tool opens the FIFO.
    ASSERT_EQ(system(("mkfifo " + pipe + " && (timeout 30 sh -c \"cat '" + dir.file("letter.kln") + "' >" + pipe +
                      "\" </dev/null >/dev/null 2>&1 &)").c_str()),
              0);
  }
  // The names in a folder of the test's, sorted (hidden ones included).
  std::vector<std::string> Names(const std::string &folder) {
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir.file(folder))) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  // The test's files after a run but the tool's standard output and error;
  // "tmp" (the tool's TMPDIR) must be empty.
  std::vector<std::string> Files() {
    EXPECT_EQ(Names("tmp"), std::vector<std::string>{});
    std::vector<std::string> names = Names(".");
    std::erase_if(names, [](const std::string &n) { return n == "stdout.bin" || n == "stderr.txt"; });
    return names;
  }
  static kln::Bytes Load(const std::string &path) {
    const std::string s = kln::ReadAll(path);
    return {s.begin(), s.end()};
  }
  Ran Tool(const std::string &args, const std::string &env = {}, const std::string &input = "/dev/null",
           const std::string &stop = {}) {
    return RunIn(dir, args, "TMPDIR=tmp " + env, input, stop);
  }
  kln::TempDir dir;
};

constexpr char kLetterStart[] = "株式会社ロンドン商事\n山田太郎様\n\n拝啓";

TEST_F(Kln2txtTest, TextToStandardOutputIntoAFileAndFromStandardInput) {
  const Ran out = Tool("letter.kln");
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.err, "");
  EXPECT_EQ(out.out.rfind(kLetterStart, 0), 0u) << out.out;
  EXPECT_NE(out.out.find("Dear Mr. Brown,\n"), std::string::npos);

  EXPECT_EQ(Tool("-o letter.txt letter.kln").status, 0);
  EXPECT_EQ(kln::ReadAll(dir.file("letter.txt")), out.out);

  const Ran in = Tool("-", "", "letter.kln");
  EXPECT_EQ(in.status, 0);
  EXPECT_EQ(in.out, out.out);
}

TEST_F(Kln2txtTest, OptionsReachTheFilter) {
  const Ran tab = Tool("--tab --no-quote --line-ends crlf budget.kln");
  EXPECT_EQ(tab.out.rfind("費目\t予算\t実績\t差額\t達成率\r\n家賃\t\\360,000\t", 0), 0u) << tab.out;
  const Ran sjis = Tool("-e WINDOWS-31J --bom letter.kln");  // no BOM outside UTF-8
  EXPECT_EQ(sjis.out.rfind("\x8a\x94\x8e\xae", 0), 0u);
  EXPECT_EQ(Tool("--bom letter.kln")
                .out.rfind("\xEF\xBB\xBF"
                           "株式会社",
                           0),
            0u);
  EXPECT_EQ(Tool("--separator ';' budget.kln").out.rfind("\"費目\";\"予算\";", 0), 0u);
  // The same bytes read as ISO-8859-1: one character each.
  EXPECT_EQ(Tool("--latin1 letter.kln").out.rfind("\xC2\x8A\xC2\x94\xC2\x8E\xC2\xAE", 0), 0u);
  EXPECT_EQ(Tool("--log -o letter.txt letter.kln").status, 0);
  EXPECT_NE(kln::ReadAll(dir.file("letter.kln.KLN.log")).find("letter.kln"), std::string::npos);
}

TEST_F(Kln2txtTest, PropertiesAsNameValueLines) {
  const Ran r = Tool("--properties letter.kln");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "title: 新年のご挨拶 / New Year greetings\nauthor: 佐藤 花子\nkeywords: 挨拶状, letter, 2019\n"
            "description: 取引先への年始の挨拶 (a greeting to a business partner)\nclass: correspondence\n"
            "version: 1.0\n");
  // Sets whose characters hold zero bytes: the whole listing in that set.
  for (const char *set : {"UTF-16", "UTF-32BE"}) {
    std::string in = r.out, want(4 * in.size() + 4, '\0');
    iconv_t cd = iconv_open(set, "UTF-8");
    char *from = in.data(), *to = want.data();
    size_t inLeft = in.size(), outLeft = want.size();
    ASSERT_NE(iconv(cd, &from, &inLeft, &to, &outLeft), size_t(-1));
    iconv_close(cd);
    want.resize(want.size() - outLeft);
    EXPECT_EQ(Tool(std::string("--properties -e ") + set + " letter.kln").out, want) << set;
  }
}

TEST_F(Kln2txtTest, JsonHoldsPropertiesTextAndOutcome) {
  const Ran r = Tool("--json empty.kln notes.kln budget.kln");
  EXPECT_EQ(r.status, 1);
  const std::string budget =
      "{\"file\":\"budget.kln\",\"properties\":{\"title\":\"2018年度 第1四半期 予算\",\"author\":\"経理部 鈴木\","
      "\"keywords\":\"予算, budget, Q1\",\"description\":\"事務所経費の予算と実績 (office expenses, budget and "
      "actual)\",\"class\":\"finance\",\"version\":\"3\"},\"text\":\"\\\"費目\\\",\\\"予算\\\",\\\"実績\\\","
      "\\\"差額\\\",\\\"達成率\\\"\\n\\\"家賃\\\",\\\"\\\\360,000\\\",";
  EXPECT_EQ(r.out.substr(0, r.out.find(budget)),
            "{\"file\":\"empty.kln\",\"properties\":{\"title\":\"empty\",\"author\":\"\",\"keywords\":\"\","
            "\"description\":\"\",\"class\":\"\",\"version\":\"\"},\"text\":\"\",\"tables\":[],\"result\":3003,"
            "\"message\":\"no text in document\"}\n"
            "{\"file\":\"notes.kln\",\"properties\":null,\"text\":\"\",\"tables\":[],\"result\":3000,"
            "\"message\":\"not a KLN document\"}\n");
  const std::string end = "\\\"FALSE\\\"\",\"tables\":[{\"number\":1,\"kind\":\"sheet\","
                          "\"columns\":[\"A\",\"B\",\"C\",\"D\",\"E\"],\"rows\":[[\"費目\",";
  EXPECT_NE(r.out.find(end), std::string::npos);
  const std::string last = "\"FALSE\"]]}],\"result\":0,\"message\":\"converted\"}\n";
  EXPECT_EQ(r.out.substr(r.out.size() - last.size()), last);
}

// A drawing's embedded objects: extracted by default, skipped, or the
// document refused (and its output file removed).
TEST_F(Kln2txtTest, EmbeddedObjects) {
  const std::string page = "大阪会議のご案内 / Osaka meeting\n";
  const std::string objects = "会場: 大阪国際会議場 10階 1001号室\n";
  const Ran extracted = Tool("notice.kln");
  EXPECT_EQ(extracted.status, 0);
  EXPECT_EQ(extracted.out.rfind(page, 0), 0u);
  EXPECT_NE(extracted.out.find("below.\n" + objects), std::string::npos) << extracted.out;
  const Ran skipped = Tool("--ole skip notice.kln");
  EXPECT_EQ(skipped.status, 0);
  EXPECT_EQ(skipped.out.substr(skipped.out.size() - 7), "below.\n");
  const Ran refused = Tool("--ole refuse -o notice.txt notice.kln");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "kln2txt: notice.kln: refused: the document holds an embedded object (--ole refuse)\n");
  EXPECT_NE(access(dir.file("notice.txt").c_str(), F_OK), 0);
  // The size limit holds inside the objects as well.
  const Ran cut = Tool("--max-bytes 250 notice.kln");
  EXPECT_EQ(cut.status, 3);
  EXPECT_EQ(cut.out, extracted.out.substr(0, 250));
}

// An object without readable text is passed over with a warning, unless
// --ole-strict asks for the document to fail (its output removed).
TEST_F(Kln2txtTest, ObjectsWithoutReadableText) {
  const std::string warning =
      "kln2txt: object.kln: an embedded object without readable text was passed over (--ole-strict fails the "
      "document)\n";
  const Ran passed = Tool("object.kln"), quiet = Tool("--ole-continue object.kln"), file = Tool("-o o.txt object.kln");
  EXPECT_EQ(passed.status + quiet.status + file.status, 0);
  EXPECT_EQ(passed.out, "abc\ngoodxyz\n");
  EXPECT_EQ(quiet.out, passed.out);
  EXPECT_EQ(kln::ReadAll(dir.file("o.txt")), passed.out);
  EXPECT_EQ(passed.err, warning);
  EXPECT_EQ(file.err, warning);
  EXPECT_EQ(quiet.err, "");
  EXPECT_NE(Tool("--json object.kln").out.find("\"text\":\"abc\\ngoodxyz\\n\",\"tables\":[],\"result\":0,"), std::string::npos);
  const Ran strict = Tool("--ole-strict -o strict.txt object.kln");
  EXPECT_EQ(strict.status, 1);
  EXPECT_EQ(strict.err, "kln2txt: object.kln: an embedded object could not be converted (--ole-strict)\n");
  EXPECT_NE(access(dir.file("strict.txt").c_str(), F_OK), 0);
}

// A file output appears whole or not at all; a failure, an interrupted
// run or an output without text leaves nothing, temporary files included.
TEST_F(Kln2txtTest, OutputsAppearWholeOrNotAtAll) {
  const std::vector<std::string> start = Files();
  for (const char *args : {"--properties -o p.txt missing.kln", "--properties --out-dir . missing.kln",
                           "--max-bytes 0 -o x.txt letter.kln", "-o x.txt notes.kln", "-o x.txt empty.kln"}) {
    SCOPED_TRACE(args);
    Tool(args);
    EXPECT_EQ(Files(), start);
  }
  // Stopped while writing: from a file, and from standard input (a copy).
  EXPECT_EQ(Tool("-o x.txt -", "KLN2TXT_TEST_FAULT=hang:-", "letter.kln", "HUP").status, 129);
  EXPECT_EQ(Tool("--json -o x.json -", "KLN2TXT_TEST_FAULT=hang:-", "letter.kln", "TERM").status, 143);
  EXPECT_EQ(Files(), start);

  EXPECT_EQ(Tool("-o - letter.kln").out, Tool("letter.kln").out);
  Pipe("pipe.kln");
  const Ran piped = Tool("--json pipe.kln");
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.out, Tool("--json letter.kln").out.replace(9, 10, "pipe.kln"));
}

// Every outcome of a single document: its exit status and its message.
TEST_F(Kln2txtTest, ExitStatusesAndMessages) {
  ASSERT_EQ(symlink("letter.kln", dir.file("link.txt").c_str()), 0);
  ASSERT_EQ(link(dir.file("letter.kln").c_str(), dir.file("hard.txt").c_str()), 0);
  const struct {
    const char *args;
    int status;
    const char *message;  // on standard error; empty: nothing
  } cases[] = {
      {"letter.kln budget.kln", 0, ""},
      {"empty.kln", 0, "kln2txt: empty.kln: no text in document\n"},
      {"notes.kln", 1, "kln2txt: notes.kln: not a KLN document\n"},
      {"missing.kln", 1, "kln2txt: missing.kln: cannot open the input: No such file or directory\n"},
      {"tmp", 1, "kln2txt: tmp: cannot open the input: Is a directory\n"},
      {"--max-bytes 20 letter.kln", 3, "kln2txt: letter.kln: output cut at the size limit (20 bytes)\n"},
      {"letter.kln >/dev/full", 1, "kln2txt: standard output: cannot write: No space left on device\n"},
      {"--json letter.kln >/dev/full", 1, "kln2txt: standard output: cannot write: No space left on device\n"},
      {"-o /dev/full letter.kln", 1, "kln2txt: /dev/full: cannot write: No space left on device\n"},
      {"--properties -o /dev/full letter.kln", 1, "kln2txt: /dev/full: cannot write: No space left on device\n"},
      {"--max-bytes 20 notes.kln letter.kln", 1, "not a KLN document"},  // the gravest status
      {"-o nowhere/x.txt letter.kln", 1, "kln2txt: nowhere/x.txt: cannot open the output: No such file or directory\n"},
      {"-o letter.kln letter.kln", 1, "kln2txt: letter.kln: the output is the input\n"},
      {"-o link.txt letter.kln", 1, "kln2txt: link.txt: the output is the input\n"},
      {"-o hard.txt letter.kln", 1, "kln2txt: hard.txt: the output is the input\n"},
      {"--out-dir . hard.txt", 1, "kln2txt: ./hard.txt: the output is the input\n"},
      {"-e BOGUS missing.kln", 2, "kln2txt: unknown character set BOGUS\n"},
      {"--json -e UTF-16 letter.kln", 2, "--json writes UTF-8: -e and --bom do not go with it"},
      {"--json --bom letter.kln", 2, "--json writes UTF-8: -e and --bom do not go with it"},
      {"--out-dir '' letter.kln", 2, "kln2txt: --out-dir wants a folder\n"},
      {"--out-dir budget.kln letter.kln", 2, "kln2txt: --out-dir budget.kln is not a folder\n"},
      {"--bogus letter.kln", 2, "kln2txt: unknown option '--bogus'\n"},
      {"-o a.txt letter.kln budget.kln", 2, "-o takes one FILE"},
      {"--line-ends dos letter.kln", 2, "--line-ends is keep, lf, crlf, cr or space, not 'dos'"},
      {"-j 2 letter.kln", 2, "-j and --timeout go with --out-dir"},
      {"", 2, "no FILE given"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.args);
    const Ran r = Tool(c.args);
    EXPECT_EQ(r.status, c.status);
    if (!*c.message) {
      EXPECT_EQ(r.err, "");
    }
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
  // Nothing was written over the document, and nothing was left behind.
  EXPECT_EQ(kln::ReadAll(dir.file("letter.kln")), kln::ReadAll(kSamples + "/letter.kln"));
  EXPECT_EQ(Files(), (std::vector<std::string>{"budget.kln", "empty.kln", "hard.txt", "letter.kln", "link.txt",
                                               "notes.kln", "notice.kln", "object.kln", "tmp"}));
  EXPECT_EQ(Tool("--help").status, 0);
  EXPECT_EQ(Tool("--version").out, "kln2txt 5.0.0\n");
}

// The filter takes paths below 260 bytes: a longer input is read through a
// private copy (so its log has no place), a longer output is written by
// the tool itself.
TEST_F(Kln2txtTest, LongPaths) {
  const std::string deep = std::string(120, 'd') + "/" + std::string(120, 'e');
  ASSERT_EQ(system(("mkdir -p '" + dir.file(deep) + "' && cp '" + dir.file("letter.kln") + "' '" +
                    dir.file(deep + "/letter.kln") + "'")
                       .c_str()),
            0);
  ASSERT_GE(dir.file(deep + "/letter.kln").size(), size_t{KLN_MAX_PATH});
  const Ran in = Tool("'" + dir.file(deep + "/letter.kln") + "'");
  EXPECT_EQ(in.status, 0);
  EXPECT_EQ(in.out, Tool("letter.kln").out);
  EXPECT_EQ(Tool("-o '" + dir.file(deep + "/letter.txt") + "' letter.kln").status, 0);
  EXPECT_EQ(kln::ReadAll(dir.file(deep + "/letter.txt")), in.out);
  const Ran log = Tool("--log '" + dir.file(deep + "/letter.kln") + "'");
  EXPECT_EQ(log.status, 1);
  EXPECT_NE(log.err.find("letter.kln.KLN.log: cannot open the log: File name too long\n"), std::string::npos);
  Files();
}

// A batch in which one worker crashes and one hangs: both cost only
// themselves, and the names that clash get a suffix.
TEST_F(Kln2txtTest, BatchSurvivesACrashingAndAHangingDocument) {
  ASSERT_EQ(system(("mkdir '" + dir.file("more") + "' && cp '" + dir.file("letter.kln") + "' '" +
                    dir.file("more/letter.kln") + "' && cp '" + dir.file("letter.kln") + "' '" + dir.file("crash.kln") +
                    "' && cp '" + dir.file("letter.kln") + "' '" + dir.file("hang.kln") + "'")
                       .c_str()),
            0);
  const std::string files = "letter.kln budget.kln more/letter.kln empty.kln notes.kln crash.kln hang.kln";
  const Ran r = Tool("--out-dir out -j 3 --timeout 1 " + files, "KLN2TXT_TEST_FAULT=crash:crash.kln");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(kln::ReadAll(dir.file("out/letter.txt")).rfind(kLetterStart, 0), 0u);
  EXPECT_EQ(kln::ReadAll(dir.file("out/letter-2.txt")), kln::ReadAll(dir.file("out/letter.txt")));
  EXPECT_NE(kln::ReadAll(dir.file("out/budget.txt")), "");
  EXPECT_NE(r.err.find("kln2txt: crash.kln: crashed (signal 11"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("kln2txt: empty.kln: no text in document\n"), std::string::npos);
  EXPECT_NE(r.err.find("kln2txt: notes.kln: not a KLN document\n"), std::string::npos);
  EXPECT_NE(r.err.find("kln2txt: 7 documents: 4 converted, 1 without text, 0 cut at the size limit, 2 failed "
                       "(1 not a KLN document, 1 crashed)\n"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "");

  const Ran hung = Tool("--out-dir out --timeout 1 letter.kln hang.kln", "KLN2TXT_TEST_FAULT=hang:hang.kln");
  EXPECT_EQ(hung.status, 1);
  EXPECT_NE(hung.err.find("kln2txt: hang.kln: timed out (after 1 s)\n"), std::string::npos) << hung.err;
  EXPECT_EQ(Names("out"), (std::vector<std::string>{"budget.txt", "hang.txt", "letter-2.txt", "letter.txt"}));
  Files();
}

// A stop signal ends a batch: the hanging worker is killed, its partial
// output and its temporary files removed, and the summary counts it.
TEST_F(Kln2txtTest, BatchStopsAtASignal) {
  // Read from a pipe, the hanging document, last, has a private copy in
  // the worker's temporary folder.
  Pipe("hang.kln");
  const Ran r = Tool("--out-dir out letter.kln budget.kln empty.kln hang.kln", "KLN2TXT_TEST_FAULT=hang:hang.kln",
                     "/dev/null", "TERM");
  EXPECT_EQ(r.status, 143);
  EXPECT_NE(r.err.find("kln2txt: hang.kln: interrupted (Terminated)\n"
                       "kln2txt: 4 documents: 2 converted, 1 without text, 0 cut at the size limit, 1 failed "
                       "(1 interrupted)\n"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(Names("out"), (std::vector<std::string>{"budget.txt", "letter.txt"}));
  Files();
}

TEST_F(Kln2txtTest, BatchStatusIsTheGravestOfItsDocuments) {
  EXPECT_EQ(Tool("--out-dir out letter.kln empty.kln").status, 0);
  EXPECT_EQ(Tool("--out-dir out --max-bytes 20 letter.kln empty.kln").status, 3);
  EXPECT_EQ(Tool("--out-dir out --max-bytes 20 letter.kln notes.kln").status, 1);
  EXPECT_EQ(Tool("--json --out-dir js letter.kln").status, 0);
  EXPECT_EQ(kln::ReadAll(dir.file("js/letter.json")).rfind("{\"file\":\"letter.kln\",\"properties\":{", 0), 0u);
}

// --serve on hostile request lines: each gets its one answer and the
// worker goes on (the Python package tests the answers in depth).
TEST_F(Kln2txtTest, ServeAnswersEveryLine) {
  const std::string deep = std::string(200, '[') + std::string(200, ']');
  const struct {
    std::string line, answer;
  } kCases[] = {
      {deep, "\"bad_request\""},
      {"{\"id\":1,\"path\":\"letter.kln\",\"id\":\"\\ud800\"}", "\"bad_request\""},
      {"{\"id\":2,\"data\":\"QUJD=\"}", "\"status\":\"not_kln\""},
      {"{\"id\":3,\"data\":\"QUJDR\"}", "\"bad_request\""},
      {"{\"id\":4,\"path\":\"x\",\"options\":{\"max_bytes\":1e400}}", "\"bad_request\""},
      {"{\"id\":5,\"path\":\"budget.kln\",\"options\":{\"max_bytes\":9},\"objects\":true}",
       "\"truncated\":true"},
      {"{\"id\":6,\"path\":\"notice.kln\",\"objects\":true,\"text\":false}", "\"type\":\"object\""},
      {"{\"id\":\"\\u00e9\\ud83d\\ude00\",\"path\":\"empty.kln\"}", "\"no_text\""},
  };
  std::string input;
  for (const auto &c : kCases) input += c.line + "\n";
  std::ofstream(dir.file("requests.jsonl")) << input;
  const Ran r = Tool("--serve", {}, "requests.jsonl");
  EXPECT_EQ(r.status, 0);
  size_t at = 0;
  for (const auto &c : kCases) {
    const size_t end = r.out.find('\n', at);
    ASSERT_NE(end, std::string::npos) << c.line;
    EXPECT_NE(r.out.substr(at, end - at).find(c.answer), std::string::npos) << c.line;
    at = end + 1;
  }
  EXPECT_EQ(at, r.out.size());
}

TEST(JsonString, EscapesAndKeepsOnlyWellFormedUtf8) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"plain", "\"plain\""},
      {"a\"b\\c", "\"a\\\"b\\\\c\""},
      {"\n\r\t\x01\x1f", "\"\\n\\r\\t\\u0001\\u001f\""},
      {"日本 é 😀", "\"日本 é 😀\""},
      {"a\x80\xE6\x97", "\"a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},  // each byte that starts no character
      {std::string("a\0b", 3), "\"a\\u0000b\""},
  };
  for (const auto &c : cases) EXPECT_EQ(kln2txt::JsonString(c.in), c.out) << c.in;
}

}  // namespace
