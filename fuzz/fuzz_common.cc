#include "fuzz_common.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace klnfuzz {

namespace {
const char *const kOutSets[] = {"UTF-8", "ISO-8859-1", "UTF-16", "EUC-JP", "SHIFT_JIS", "UTF-16BE", "UTF-32",
                                "WINDOWS31J"};
// Every option bit the filter reads, except the log.
constexpr uint32_t kFlagMask = 0xF8u | 0x1000u | 0x2000u | 0x4000u | 0x8000u | 0x200000u | 0x400000u |
                               0x1000000u | 0x2000000u;
}  // namespace

Input Split(const uint8_t *data, size_t size) {
  Input in{};
  uint8_t tail[6] = {0, 0, 0, 0, 0, 0};
  const size_t n = size < 6 ? size : 6;
  std::memcpy(tail + (6 - n), data + size - n, n);
  in.doc = data;
  in.docSize = size - n;
  const uint32_t bits = (uint32_t(tail[0]) << 24) | (uint32_t(tail[1]) << 16) | (uint32_t(tail[2]) << 8) | tail[3];
  std::snprintf(in.options.outCharset, sizeof in.options.outCharset, "%s", kOutSets[tail[4] & 7]);
  in.options.flags = bits & kFlagMask;
  in.options.convOption = (tail[4] >> 3) & 1;
  in.options.sizeLimit = tail[5] & 0x80 ? 64u * (tail[5] & 0x7F) : 1u << 20;
  in.options.cellSeparator = ';';
  in.options.tempFlags = (tail[4] >> 4) & 1;
  in.charset.charsetCode = (tail[4] & 0x20) ? 1 : KLN_CHARSET_WINDOWS31J;
  in.fileMode = (tail[4] & 0x40) != 0;
  return in;
}

DocFile::DocFile(const uint8_t *data, size_t size) {
  const char *dir = std::getenv("TMPDIR");
  path_ = std::string(dir && *dir ? dir : "/tmp") + "/kln_fuzz_" + std::to_string(getpid()) + ".kln";
  if (FILE *f = std::fopen(path_.c_str(), "wb")) {
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
}

DocFile::~DocFile() { std::remove(path_.c_str()); }

}  // namespace klnfuzz
