// Databases: a generated table of 30,000 records x 12 fields (texts,
// numbers, dates, times, choices, yes/no and computed values) whose record
// list is shuffled, written as delimited text (rows per second); and the
// reader alone at three sizes, to show that its cost grows in step with
// the record count.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <random>

#include "db_builder.h"
#include "keep_doc.h"
#include "klnfile.h"
#include "test_support.h"

namespace {

constexpr int kRecords = 30000, kFields = 12;

kln::DbTable Table(int records) {
  kln::DbTable t;
  kln::DbFieldSpec pick{"Plan", 4};
  pick.pieces = {kln::ChoiceList({"basic", "plus", "\x93\xc1\x95\xca"}), kln::Piece({})};
  t.fields = {{"Name"},    {"Fee", 1, 7}, {"Count", 1}, {"Joined", 2}, {"At", 3},        pick,
              {"Paid", 5}, {"Due", 7, 0, 2}, {"Note"}, {"Total", 8, 0, 0}, {"Score", 1}, {"City"}};
  std::mt19937 rng(7);
  for (int r = 0; r < records; ++r) {
    const uint32_t n = uint32_t(r);
    t.values[0][n] = kln::DbText("member " + std::to_string(r));
    t.values[1][n] = kln::DbNumber(12.5 * r);
    t.values[2][n] = kln::DbNumber(r % 977);
    t.values[3][n] = kln::DbNumber(30000 + r % 9000);
    t.values[4][n] = kln::DbNumber((r % 96) / 96.0);
    t.values[5][n] = kln::DbNumber(1 + r % 3);
    t.values[6][n] = kln::DbNumber(r % 2);
    t.values[7][n] = kln::DbComputedNumber(31000 + r % 5000);
    t.values[8][n] = kln::DbText("\x94\xf5\x8d\x6c " + std::to_string(rng() % 100000));
    t.values[9][n] = r % 50 ? kln::DbComputedNumber(r * 0.25) : kln::DbComputedError();
    t.values[10][n] = kln::DbNumber(double(rng() % 1000) / 8);
    t.values[11][n] = kln::DbText("\x93\x8c\x8b\x9e");
  }
  for (int r = 0; r < records; ++r) t.records.push_back(uint16_t(r));
  std::shuffle(t.records.begin(), t.records.end(), rng);
  t.styles = {{1, 1}, {3, 2}, {4, 3}, {10, 1}};
  return t;
}

struct Fixture {
  kln::TempDir dir;
  std::map<int, std::string> files;  // records -> document
  const std::string &file(int records) {
    auto it = files.find(records);
    if (it != files.end()) return it->second;
    const kln::StyleChain styles{{{0, 0}, {1, 1}, {2, 2}, {3, 3}},
                                 {{0, 0, 0, 0}, {4, 2, 1, 0}, {5, 0, 0, 0}, {16, 0, 0, 0}}};
    const std::string path = dir.file("db" + std::to_string(records) + ".kln");
    kln::WriteFile(path, kln::DbDocument(Table(records), styles).build());
    kln::KeepDocument(path);
    return files[records] = path;
  }
};

Fixture &Docs() {
  static Fixture f;
  return f;
}

long Discard(void *, const void *, long len) { return len; }

void BM_DatabaseToText(benchmark::State &state) {
  const std::string &path = Docs().file(kRecords);
  const FilterOptions opt = kln::Options("UTF-8");
  const KlnCharsetInfo cs = kln::Charset();
  for (auto _ : state) {
    VTQ_STREAM *s = VTQ_StreamCreate(Discard, nullptr);
    if (GetTextStreamWithErrCallback(path.c_str(), s, &opt, &cs, nullptr) != 0) state.SkipWithError("failed");
    VTQ_StreamDestroy(s);
  }
  state.counters["rows_per_second"] = benchmark::Counter(double(kRecords) * double(state.iterations()),
                                                         benchmark::Counter::kIsRate);
  state.counters["cells_per_second"] = benchmark::Counter(double(kRecords) * kFields * double(state.iterations()),
                                                          benchmark::Counter::kIsRate);
}

// The reader alone (header and data sets into the cell table).
void BM_DatabaseRead(benchmark::State &state) {
  const int records = int(state.range(0));
  const std::string &path = Docs().file(records);
  for (auto _ : state) {
    kln::OpenedContext ctx(kln::Bytes{});
    VTQ_FileClose(ctx->inFile);
    ctx->inFile = VTQ_FileOpen(path.c_str(), "rb");
    if (GetGlobalInfo(ctx.get()) != 0 || GetDSetInfo(ctx.get()) != 0) state.SkipWithError("failed");
  }
  state.counters["rows_per_second"] =
      benchmark::Counter(double(records) * double(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_DatabaseToText)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_DatabaseRead)->Arg(7500)->Arg(15000)->Arg(30000)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
