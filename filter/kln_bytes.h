// Bottom layer, bytes: the checked record view and the fixed-width
// big-endian readers every reader decodes with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

struct ConvContext;

// Big-endian readers: the same value on every host.
uint32_t Get2wc(const uint8_t *p, const ConvContext *ctx = nullptr);
uint32_t Get4wc(const uint8_t *p, const ConvContext *ctx = nullptr);
// The 80-bit extended value at p (10 bytes, big-endian) as a double.
double getfloat(const uint8_t *p, const ConvContext *ctx);

// A checked view of a record: the fixed-width readers answer 0 for every
// byte that lies beyond the end, so no reader can step outside the record.
class ByteView {
 public:
  ByteView() = default;
  ByteView(const uint8_t *p, size_t n) : p_(p), n_(n) {}
  size_t size() const { return n_; }
  const uint8_t *data() const { return p_; }
  bool has(size_t off, size_t len) const { return off <= n_ && len <= n_ - off; }
  uint8_t u8(size_t off) const { return off < n_ ? p_[off] : 0; }
  uint16_t u16(size_t off) const { return static_cast<uint16_t>((u8(off) << 8) | u8(off + 1)); }
  uint32_t u32(size_t off) const {
    return (uint32_t(u8(off)) << 24) | (uint32_t(u8(off + 1)) << 16) | (uint32_t(u8(off + 2)) << 8) |
           u8(off + 3);
  }
  // Copies len bytes from off into dst, zeros for bytes beyond the end.
  void copy(size_t off, uint8_t *dst, size_t len) const {
    for (size_t i = 0; i < len; ++i) dst[i] = u8(off + i);
  }
  bool tagIs(size_t off, const char *tag4) const { return has(off, 4) && std::memcmp(p_ + off, tag4, 4) == 0; }
  ByteView sub(size_t off, size_t len) const {
    if (off > n_) return {};
    return {p_ + off, len < n_ - off ? len : n_ - off};
  }

 private:
  const uint8_t *p_ = nullptr;
  size_t n_ = 0;
};

inline bool IsTag(const uint8_t *p, const char *tag4) { return std::memcmp(p, tag4, 4) == 0; }
