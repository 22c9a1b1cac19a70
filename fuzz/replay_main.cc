// Runs a harness over files and folders of inputs without libFuzzer, so
// that the seed corpus and the regression inputs replay as a plain test.
//
// With --mutate first, each input's document is instead cut at every
// length up to 4 KiB and has 0xFF and 0x80 flipped into every byte up to
// 4 KiB; each mutant runs in file and in stream mode with the input's
// options, and must answer a code of the result table, leave no output
// file where the code removes it and leave no temporary file behind.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "test_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {
using Bytes = std::vector<uint8_t>;

constexpr size_t kMutateSpan = 4096;

bool ReadFile(const std::string &path, Bytes *bytes) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes->insert(bytes->end(), buf, buf + n);
  std::fclose(f);
  return true;
}

bool Exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

long Discard(void *, const void *, long len) { return len; }

// The mutants of one input, run against a private TMPDIR that must be
// empty again after every run.
class Mutator {
 public:
  explicit Mutator(const kln::ScopedTmpDir *tmp) : tmp_(tmp) {}

  // Answers the number of failed checks over every mutant of the input.
  int run(const std::string &name, const Bytes &input) {
    const klnfuzz::Input in = klnfuzz::Split(input.data(), input.size());
    const Bytes doc(in.doc, in.doc + in.docSize);
    const size_t end = doc.size() < kMutateSpan ? doc.size() : kMutateSpan;
    int failures = 0;
    for (size_t len = 0; len < end; ++len) {
      failures += check(Bytes(doc.begin(), doc.begin() + static_cast<long>(len)), in,
                        name + " cut at " + std::to_string(len));
    }
    for (size_t at = 0; at < end; ++at) {
      for (uint8_t mask : {uint8_t(0xFF), uint8_t(0x80)}) {
        Bytes flipped = doc;
        flipped[at] ^= mask;
        failures += check(flipped, in, name + " flipped with " + std::to_string(mask) + " at " + std::to_string(at));
      }
    }
    return failures;
  }

 private:
  int check(const Bytes &doc, const klnfuzz::Input &in, const std::string &what) {
    int failures = 0;
    {
      klnfuzz::DocFile file(doc.data(), doc.size());
      const std::string out = file.sibling(".txt");
      const int code = GetTextWithErrCallback(file.path().c_str(), out.c_str(), &in.options, &in.charset, nullptr);
      if (!kln::IsResultCode(code)) failures += fail(what, "file mode gave " + std::to_string(code));
      const bool removes = code == KLN_ERR_NO_TEXT || code == KLN_ERR_OLE_REFUSED || code == KLN_ERR_OLE_FAILED;
      if (removes && Exists(out)) failures += fail(what, "left its output behind");
      std::remove(out.c_str());
      VTQ_STREAM *s = VTQ_StreamCreate(Discard, nullptr);
      const int streamCode = GetTextStreamWithErrCallback(file.path().c_str(), s, &in.options, &in.charset, nullptr);
      VTQ_StreamDestroy(s);
      if (!kln::IsResultCode(streamCode)) failures += fail(what, "stream mode gave " + std::to_string(streamCode));
    }
    for (const std::string &name : tmp_->leftovers()) {
      failures += fail(what, "left the temporary file " + name);
      std::remove((tmp_->path() + "/" + name).c_str());
    }
    return failures;
  }

  static int fail(const std::string &what, const std::string &problem) {
    std::fprintf(stderr, "%s: %s\n", what.c_str(), problem.c_str());
    return 1;
  }

  const kln::ScopedTmpDir *tmp_;
};

// Replays the file, or each mutant of it when mutator is set.
int ReplayFile(const std::string &path, Mutator *mutator) {
  Bytes bytes;
  if (!ReadFile(path, &bytes)) return 1;
  if (mutator) return mutator->run(path, bytes);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 0;
}

int Replay(const std::string &path, Mutator *mutator, int *count) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;  // an absent folder holds nothing to replay
  if (!S_ISDIR(st.st_mode)) {
    ++*count;
    return ReplayFile(path, mutator);
  }
  int failures = 0;
  if (DIR *d = opendir(path.c_str())) {
    while (dirent *e = readdir(d)) {
      if (e->d_name[0] != '.') failures += Replay(path + "/" + e->d_name, mutator, count);
    }
    closedir(d);
  }
  return failures;
}

}  // namespace

int main(int argc, char **argv) {
  const bool mutate = argc > 1 && std::strcmp(argv[1], "--mutate") == 0;
  std::optional<kln::ScopedTmpDir> tmp;  // the mutants' own TMPDIR
  if (mutate) tmp.emplace();
  Mutator mutator(tmp ? &*tmp : nullptr);
  int count = 0, failures = 0;
  for (int i = mutate ? 2 : 1; i < argc; ++i) failures += Replay(argv[i], mutate ? &mutator : nullptr, &count);
  std::printf("%s %d inputs, %d failed checks\n", mutate ? "mutated" : "replayed", count, failures);
  return failures ? 1 : 0;
}
