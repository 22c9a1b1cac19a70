// Spreadsheets: a generated 256 x 16384 sheet of mixed numbers, dates and
// texts written as delimited text (cells per second), and the memory the
// cell table takes per cell at its peak.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include "keep_doc.h"
#include "klnfile.h"
#include "ss_builder.h"
#include "test_support.h"

namespace {

constexpr int kColumns = 256, kRows = 16384;

struct Fixture {
  kln::TempDir dir;
  std::string mixed, numeric;
  Fixture() {
    kln::SsSheet sheet, numbers;
    for (int c = 0; c < kColumns; ++c) {
      for (int r = 0; r < kRows; ++r) {
        const uint16_t row = uint16_t(r), col = uint16_t(c);
        numbers.cells.push_back(kln::SsCell::Float(row, col, r * 1.25 + c));
        switch ((r + c) % 4) {
          case 0: sheet.cells.push_back(kln::SsCell::Float(row, col, r * 1.25 + c, 1)); break;
          case 1: sheet.cells.push_back(kln::SsCell::Int32(row, col, 30000 + r, 2)); break;
          case 2: sheet.cells.push_back(kln::SsCell::Int16(row, col, int16_t(r), 3)); break;
          default: sheet.cells.push_back(kln::SsCell::Text(row, col, "\x97\x5c\x8e\x5a item")); break;
        }
      }
    }
    const kln::StyleChain styles{{{0, 0}, {1, 1}, {2, 2}, {3, 3}},
                                 {{0, 0, 0, 0}, {1, 2, 1, 0}, {11, 0, 0, 0}, {4, 1, 0, 1}}};
    mixed = dir.file("mixed.kln");
    numeric = dir.file("numeric.kln");
    kln::WriteFile(mixed, kln::SsDocument(sheet, styles).build());
    kln::WriteFile(numeric, kln::SsDocument(numbers, styles).build());
    kln::KeepDocument(mixed);
    kln::KeepDocument(numeric);
  }
};

Fixture &Doc() {
  static Fixture f;
  return f;
}

long Discard(void *, const void *, long len) { return len; }

void BM_SpreadsheetToText(benchmark::State &state) {
  Fixture &f = Doc();
  const FilterOptions opt = kln::Options("UTF-8");
  const KlnCharsetInfo cs = kln::Charset();
  for (auto _ : state) {
    VTQ_STREAM *s = VTQ_StreamCreate(Discard, nullptr);
    if (GetTextStreamWithErrCallback(f.mixed.c_str(), s, &opt, &cs, nullptr) != 0) state.SkipWithError("failed");
    VTQ_StreamDestroy(s);
  }
  state.counters["cells_per_second"] =
      benchmark::Counter(double(kColumns) * kRows * double(state.iterations()), benchmark::Counter::kIsRate);
}

// Loads the numeric sheet and measures the heap the table holds at its peak.
void BM_NumericCellMemory(benchmark::State &state) {
  Fixture &f = Doc();
  double perCell = 0;
  for (auto _ : state) {
    const size_t before = mallinfo2().uordblks;
    kln::OpenedContext ctx(kln::Bytes{});
    VTQ_FileClose(ctx->inFile);
    ctx->inFile = VTQ_FileOpen(f.numeric.c_str(), "rb");
    GetGlobalInfo(ctx.get());
    GetDSetInfo(ctx.get());
    perCell = double(mallinfo2().uordblks - before) / (double(kColumns) * kRows);
  }
  state.counters["heap_bytes_per_numeric_cell"] = perCell;
}

BENCHMARK(BM_SpreadsheetToText)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_NumericCellMemory)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
