// Runs a harness over files and folders of inputs without libFuzzer, so
// that the seed corpus and the regression inputs replay as a plain test.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {
int ReplayFile(const std::string &path) {
  std::vector<uint8_t> bytes;
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes.insert(bytes.end(), buf, buf + n);
  std::fclose(f);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 0;
}

int Replay(const std::string &path, int *count) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;  // an absent folder holds nothing to replay
  if (!S_ISDIR(st.st_mode)) {
    ++*count;
    return ReplayFile(path);
  }
  int failures = 0;
  if (DIR *d = opendir(path.c_str())) {
    while (dirent *e = readdir(d)) {
      if (e->d_name[0] != '.') failures += Replay(path + "/" + e->d_name, count);
    }
    closedir(d);
  }
  return failures;
}
}  // namespace

int main(int argc, char **argv) {
  int count = 0, failures = 0;
  for (int i = 1; i < argc; ++i) failures += Replay(argv[i], &count);
  std::printf("replayed %d inputs\n", count);
  return failures ? 1 : 0;
}
