// With KLN_BENCH_DOCS set to a folder, a benchmark also copies each
// document it generates there, so bench/compare.sh can run kln2txt on it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace kln {

inline void KeepDocument(const std::string &path) {
  const char *dir = std::getenv("KLN_BENCH_DOCS");
  if (!dir || !*dir) return;
  const std::filesystem::path from(path);
  std::filesystem::copy_file(from, std::filesystem::path(dir) / from.filename(),
                             std::filesystem::copy_options::overwrite_existing);
}

}  // namespace kln
