// Word-processing throughput: a generated document of 64 MiB of mostly
// Japanese text through the filter (stream mode, UTF-8), beside iconv
// converting the same text bytes from Windows-31J to UTF-8.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <string>

#include "keep_doc.h"
#include "test_support.h"
#include "wp_builder.h"

namespace {

constexpr size_t kTextBytes = 64u << 20;
constexpr size_t kBlockBytes = 32000;

// Japanese prose with some ASCII, line ends and layout bytes.
std::string Block(size_t i) {
  static const std::string kUnit =
      "\x93\xfa\x96\x7b\x8c\xea\x82\xcc\x95\xb6\x8f\xcd\x82\xc5\x82\xb7\x81\x42"  // a Japanese sentence
      "Report 2026\x02\x82\xa0\x82\xa2\x82\xa4\x83\x4a\x83\x5e\x83\x4a\x83\x69\x01";
  std::string b;
  while (b.size() + kUnit.size() <= kBlockBytes) b += kUnit;
  b += std::string(kBlockBytes - b.size(), 'a' + char(i % 26));
  return b;
}

struct Fixture {
  kln::TempDir dir;
  std::string path;
  std::string text;  // the text bytes of all blocks
  Fixture() {
    kln::WpDataSet set;
    while (text.size() < kTextBytes) {
      set.blocks.push_back({Block(set.blocks.size())});
      text += set.blocks.back().text;
    }
    path = dir.file("big.kln");
    kln::WriteFile(path, kln::WpDocument({set}).build());
    kln::KeepDocument(path);
  }
};

Fixture &Doc() {
  static Fixture f;
  return f;
}

long Discard(void *, const void *, long len) { return len; }

void BM_FilterWordProcessing(benchmark::State &state) {
  Fixture &f = Doc();
  const FilterOptions opt = kln::Options("UTF-8");
  const KlnCharsetInfo cs = kln::Charset();
  for (auto _ : state) {
    VTQ_STREAM *s = VTQ_StreamCreate(Discard, nullptr);
    const int r = GetTextStreamWithErrCallback(f.path.c_str(), s, &opt, &cs, nullptr);
    VTQ_StreamDestroy(s);
    if (r != 0) state.SkipWithError("conversion failed");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.text.size()));
}

void BM_IconvSameText(benchmark::State &state) {
  Fixture &f = Doc();
  std::string out(kBlockBytes * 3, '\0');
  for (auto _ : state) {
    iconv_t cd = iconv_open("UTF-8", "WINDOWS-31J");
    for (size_t at = 0; at < f.text.size(); at += kBlockBytes) {
      char *in = f.text.data() + at, *o = out.data();
      size_t inLeft = kBlockBytes, outLeft = out.size();
      iconv(cd, &in, &inLeft, &o, &outLeft);
      benchmark::DoNotOptimize(out.data());
    }
    iconv_close(cd);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.text.size()));
}

BENCHMARK(BM_FilterWordProcessing)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_IconvSameText)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
