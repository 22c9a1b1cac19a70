// Character conversion.
//
// Document text (Windows-31J or ISO-8859-1; embedded texts also UTF-8 or
// Windows-1252) is decoded to code points through tables made from iconv
// at build time; the code points are encoded by hand for the UTF forms and
// ISO-8859-1, and through iconv for every other output set. The filter
// sets a converter up for every write, so converters are cached per thread
// by output set.
#include <errno.h>
#include <iconv.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "vtq_charset_name.h"
#include "vtq_rt.h"

namespace {

constexpr uint32_t kInvalid = 0xFFFFFFFFu;  // no character of the set
constexpr uint32_t kReplacement = 0xFFFD;

// ---- Decoding the document set ----

// kW31JSingle, kW31JPairs ((lead << 8) | trail) and kCp1252: 16-bit code
// points, kNoChar for no character, kLeadByte for a byte that only begins
// one.
#include "vtq_decode_tables.inc"
constexpr uint16_t kNoChar = 0xFFFF;
constexpr uint16_t kLeadByte = 0xFFFE;

bool IsTrail(uint8_t b) { return (b >= 0x40 && b <= 0x7E) || (b >= 0x80 && b <= 0xFC); }

// The document's decoder: byte and pair tables for Windows-31J, a byte
// table for Windows-1252, UTF-8 by hand, and bytes as code points for
// ISO-8859-1.
struct Decoder {
  const uint16_t *single;
  const uint16_t *pairs;
  bool utf8;
};
const Decoder kW31JDecoder{kW31JSingle, kW31JPairs, false};
const Decoder kCp1252Decoder{kCp1252, nullptr, false};
const Decoder kLatin1Decoder{nullptr, nullptr, false};
const Decoder kUtf8Decoder{nullptr, nullptr, true};

uint32_t FromTable(uint16_t v) { return v == kNoChar ? kInvalid : v; }

// One UTF-8 sequence as VTQ_Utf8Length judges it; a byte that starts no
// valid sequence is invalid and taken alone.
uint32_t DecodeUtf8(const uint8_t *in, size_t n, size_t *used) {
  const size_t len = VTQ_Utf8Length(in, n);
  if (len == 0) return kInvalid;
  uint32_t cp = len == 1 ? in[0] : in[0] & (0x7Fu >> len);  // the lead byte's payload bits
  for (size_t i = 1; i < len; ++i) cp = cp << 6 | (in[i] & 0x3F);
  *used = len;
  return cp;
}

// Decodes the character at in[0..n); answers its code point (kInvalid for
// a byte or pair that is no character) and sets *used. A lead byte takes
// the next byte when it lies in the trail range: an unassigned pair stands
// for one character; a lead byte before any other byte, or at the end,
// stands alone.
inline uint32_t DecodeChar(const Decoder &d, const uint8_t *in, size_t n, size_t *used) {
  *used = 1;
  if (d.pairs) {
    const uint16_t cp = d.single[in[0]];
    if (cp != kLeadByte) return FromTable(cp);
    if (n < 2 || !IsTrail(in[1])) return kInvalid;
    *used = 2;
    return FromTable(d.pairs[(uint32_t(in[0]) << 8) | in[1]]);
  }
  if (d.utf8) return DecodeUtf8(in, n, used);
  return d.single ? FromTable(d.single[in[0]]) : in[0];
}

// ---- Encoding the output set ----

// iconv knows the document set by its registered name.
const char *IconvName(const char *name) { return std::strcmp(name, "WINDOWS31J") == 0 ? "WINDOWS-31J" : name; }

enum class Form { kUtf8, kUtf16LE, kUtf16BE, kUtf32LE, kUtf32BE, kLatin1, kIconv };

struct Encoder {
  char name[33];        // the name as given (the cache key)
  bool valid;           // iconv knows it and it keeps no shift state
  Form form;
  bool bomForm;         // "UTF-16" / "UTF-32": little-endian, with a byte-order mark
  uint32_t defaultSubst;
  iconv_t to;           // UTF-32LE -> output (kIconv)
  iconv_t from;         // output -> UTF-32LE, for finding character boundaries (kIconv)
  uint8_t ascii[128][4];  // kIconv: the bytes of each ASCII character
  uint8_t asciiLen[128];  // 0: not representable
};

bool FastForm(const char *norm, Form *form, bool *bomForm) {
  static const struct {
    const char *name;
    Form form;
    bool bom;
  } kForms[] = {{"UTF8", Form::kUtf8, false},        {"UTF16", Form::kUtf16LE, true},
                {"UTF16LE", Form::kUtf16LE, false},  {"UTF16BE", Form::kUtf16BE, false},
                {"UTF32", Form::kUtf32LE, true},     {"UTF32LE", Form::kUtf32LE, false},
                {"UTF32BE", Form::kUtf32BE, false},  {"ISO88591", Form::kLatin1, false},
                {"LATIN1", Form::kLatin1, false}};
  for (const auto &f : kForms) {
    if (std::strcmp(norm, f.name) == 0) {
      *form = f.form;
      *bomForm = f.bom;
      return true;
    }
  }
  return false;
}

// Converts one code point with cd; answers the byte count (0 when the set
// cannot hold it). With checkReset, a set whose reset emits bytes (one
// that keeps shift state) answers 0 as well.
size_t IconvEncode(iconv_t cd, uint32_t cp, uint8_t *out, size_t cap, bool *stateful = nullptr) {
  uint8_t in[4] = {uint8_t(cp), uint8_t(cp >> 8), uint8_t(cp >> 16), uint8_t(cp >> 24)};
  char *i = reinterpret_cast<char *>(in);
  char *o = reinterpret_cast<char *>(out);
  size_t inLeft = 4, outLeft = cap;
  if (iconv(cd, &i, &inLeft, &o, &outLeft) == size_t(-1)) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    return 0;
  }
  if (stateful) {
    char *before = o;
    iconv(cd, nullptr, nullptr, &o, &outLeft);
    *stateful = o != before;
  }
  return cap - outLeft;
}

// Opens the iconv side of an output set and checks that it keeps no
// shift state: a character followed by a reset must emit nothing more.
bool OpenIconvForm(Encoder *e) {
  e->to = iconv_open(IconvName(e->name), "UTF-32LE");
  if (e->to == iconv_t(-1)) return false;
  e->from = iconv_open("UTF-32LE", IconvName(e->name));
  if (e->from == iconv_t(-1)) return false;
  static const uint32_t kProbes[] = {'A', 0x3042, 0x4E2D, 0x00E9, 0x03A9, 0xAC00, 0x0416};
  for (uint32_t cp : kProbes) {
    uint8_t out[32];
    bool stateful = false;
    if (IconvEncode(e->to, cp, out, sizeof out, &stateful) && stateful) return false;
    iconv(e->to, nullptr, nullptr, nullptr, nullptr);
  }
  for (uint32_t c = 0; c < 128; ++c) e->asciiLen[c] = static_cast<uint8_t>(IconvEncode(e->to, c, e->ascii[c], 4));
  return true;
}

void CloseEncoder(Encoder *e) {
  if (e->to != iconv_t(-1)) iconv_close(e->to);
  if (e->from != iconv_t(-1)) iconv_close(e->from);
}

void OpenEncoder(Encoder *e, const char *name) {
  std::memset(e, 0, sizeof *e);
  std::strncpy(e->name, name, 32);
  e->to = e->from = iconv_t(-1);
  char norm[40];
  vtq::NormaliseCharsetName(name, norm, sizeof norm);
  e->defaultSubst = (std::strncmp(norm, "UTF", 3) == 0 || std::strncmp(norm, "UCS", 3) == 0) ? kReplacement : '?';
  if (FastForm(norm, &e->form, &e->bomForm)) {
    e->valid = true;
    return;
  }
  e->form = Form::kIconv;
  e->valid = OpenIconvForm(e);
}

// The encoders of this thread, by output-set name. The runtime's own
// memory: not counted by the allocator's failure hook.
class EncoderCache {
 public:
  ~EncoderCache() {
    for (int i = 0; i < count_; ++i) {
      CloseEncoder(entries_[i]);
      std::free(entries_[i]);
    }
  }
  const Encoder *get(const char *name) {
    for (int i = 0; i < count_; ++i) {
      if (std::strncmp(entries_[i]->name, name, 32) == 0) return entries_[i];
    }
    Encoder *e;
    if (count_ < kSize) {
      e = static_cast<Encoder *>(std::malloc(sizeof(Encoder)));
      if (!e) return nullptr;
      entries_[count_++] = e;
    } else {
      e = entries_[next_];  // the oldest entry makes room
      next_ = (next_ + 1) % kSize;
      CloseEncoder(e);
    }
    OpenEncoder(e, name);
    return e;
  }

 private:
  static constexpr int kSize = 8;
  Encoder *entries_[kSize] = {};
  int count_ = 0;
  int next_ = 0;
};

thread_local EncoderCache t_encoders;

// UTF-8 of a code point below U+10000 that is no surrogate: 1 to 3 bytes
// into out; answers the count.
inline uint32_t PutUtf8Bmp(uint32_t cp, uint8_t *out) {
  if (cp < 0x80) {
    out[0] = static_cast<uint8_t>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<uint8_t>(0xC0 | cp >> 6);
    out[1] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
    return 2;
  }
  out[0] = static_cast<uint8_t>(0xE0 | cp >> 12);
  out[1] = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
  out[2] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
  return 3;
}

// Writes the encoding of cp into out (room for 8 bytes); answers the byte
// count, 0 when the set cannot hold it.
size_t Encode(const Encoder *e, uint32_t cp, uint8_t *out) {
  switch (e->form) {
    case Form::kUtf8:
      if (cp >= 0xD800 && cp < 0xE000) return 0;
      if (cp < 0x10000) return PutUtf8Bmp(cp, out);
      if (cp > 0x10FFFF) return 0;
      out[0] = static_cast<uint8_t>(0xF0 | cp >> 18);
      out[1] = static_cast<uint8_t>(0x80 | ((cp >> 12) & 0x3F));
      out[2] = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
      out[3] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
      return 4;
    case Form::kUtf16LE:
    case Form::kUtf16BE: {
      if ((cp >= 0xD800 && cp < 0xE000) || cp > 0x10FFFF) return 0;
      uint16_t units[2];
      size_t n = 1;
      if (cp < 0x10000) {
        units[0] = static_cast<uint16_t>(cp);
      } else {
        units[0] = static_cast<uint16_t>(0xD800 + ((cp - 0x10000) >> 10));
        units[1] = static_cast<uint16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        n = 2;
      }
      const bool le = e->form == Form::kUtf16LE;
      for (size_t i = 0; i < n; ++i) {
        out[2 * i + (le ? 0 : 1)] = static_cast<uint8_t>(units[i]);
        out[2 * i + (le ? 1 : 0)] = static_cast<uint8_t>(units[i] >> 8);
      }
      return 2 * n;
    }
    case Form::kUtf32LE:
    case Form::kUtf32BE: {
      if ((cp >= 0xD800 && cp < 0xE000) || cp > 0x10FFFF) return 0;
      const bool le = e->form == Form::kUtf32LE;
      for (int i = 0; i < 4; ++i) out[le ? i : 3 - i] = static_cast<uint8_t>(cp >> (8 * i));
      return 4;
    }
    case Form::kLatin1:
      if (cp > 0xFF) return 0;
      out[0] = static_cast<uint8_t>(cp);
      return 1;
    case Form::kIconv:
      if (cp < 0x80) {
        std::memcpy(out, e->ascii[cp], 4);
        return e->asciiLen[cp];
      }
      return IconvEncode(e->to, cp, out, 8);
  }
  return 0;
}

// The encoding of cp, or of the substitution character when the set
// cannot hold it (nothing when it cannot hold that either).
size_t EncodeOrSubstitute(const CconvState *st, const Encoder *e, uint32_t cp, uint8_t *out) {
  if (cp != kInvalid) {
    const size_t n = Encode(e, cp, out);
    if (n) return n;
  }
  const uint32_t subst = st->subst ? st->subst : e->defaultSubst;
  size_t n = Encode(e, subst, out);
  if (!n && subst != '?') n = Encode(e, '?', out);
  return n;
}

size_t ByteOrderMark(const CconvState *st, const Encoder *e, uint8_t *out) {
  if (!st->firstOutput || st->bomDone) return 0;
  if (e->bomForm || (e->form == Form::kUtf8 && st->utf8Bom)) return Encode(e, 0xFEFF, out);
  return 0;
}

// Decodes the unit at in[0..n): one character, or one line end as the
// separator code makes it. Writes up to two code points.
size_t DecodeUnit(const CconvState *st, const uint8_t *in, size_t n, uint32_t cps[2], size_t *used) {
  const uint8_t b = in[0];
  if ((b == '\r' || b == '\n') && st->lineEnds >= 2 && st->lineEnds <= 5) {
    *used = (b == '\r' && n > 1 && in[1] == '\n') ? 2 : 1;
    switch (st->lineEnds) {
      case 2:
        cps[0] = '\n';
        return 1;
      case 3:
        cps[0] = '\r';
        cps[1] = '\n';
        return 2;
      case 4:
        cps[0] = '\r';
        return 1;
      default:
        cps[0] = ' ';
        return 1;
    }
  }
  cps[0] = DecodeChar(*static_cast<const Decoder *>(st->decoder), in, n, used);
  return 1;
}

constexpr uint64_t kOneBits = 0x0101010101010101u, kHighBits = 0x8080808080808080u;

// Whether one of the eight bytes of w is b.
bool HasByte(uint64_t w, uint8_t b) {
  const uint64_t x = w ^ (b * kOneBits);
  return ((x - kOneBits) & ~x & kHighBits) != 0;
}

// Windows-31J into UTF-8, the bulk of a piece: converts from *p while
// *p < end and stops where SameFormRun would. The caller's end leaves a
// pair's second byte in the input and three bytes of output per input
// byte, the most a character takes, so the loop needs no other check.
void W31JToUtf8(const uint8_t *in, uint32_t *p, uint32_t end, bool mapsLineEnds, uint8_t *out, uint32_t *o) {
  uint32_t i = *p, k = *o;
  while (i < end) {
    const uint8_t b = in[i];
    if (b < 0x80) {
      if ((b == '\r' || b == '\n') && mapsLineEnds) break;
      out[k++] = b;
      ++i;
      continue;
    }
    uint32_t cp = kW31JSingle[b], used = 1;
    if (cp == kLeadByte) {  // a second byte outside the trail range has no entry either
      cp = kW31JPairs[uint32_t(b) << 8 | in[i + 1]];
      used = 2;
    }
    if (cp < 0x800 || (cp >= 0xD800 && cp < 0xE000) || cp >= kLeadByte) break;
    k += PutUtf8Bmp(cp, out + k);
    i += used;
  }
  *p = i;
  *o = k;
}

// The common case of UTF-8 and ISO-8859-1 output, after the byte-order
// mark: converts from *pos while 4 bytes of room remain, and stops before
// the first unit that needs more care: a line end to map, a character to
// substitute (or, for ISO-8859-1, any beyond ASCII), a 4-byte character.
// The general path then takes that one unit, so the pieces are the same.
void SameFormRun(const Decoder d, bool utf8, bool mapsLineEnds, const uint8_t *in, uint32_t inLen, uint32_t *pos,
                 uint8_t *out, uint32_t cap, uint32_t *outLen) {
  uint32_t p = *pos, o = *outLen;
  if (utf8 && d.pairs == kW31JPairs && inLen - p > 1 && cap - o >= 6)
    W31JToUtf8(in, &p, p + std::min(inLen - p - 1, (cap - o) / 3 - 1), mapsLineEnds, out, &o);
  while (p < inLen && cap - o >= 4) {
    const uint8_t b = in[p];
    if (b < 0x80) {  // the same byte in both forms, in every document set
      if ((b == '\r' || b == '\n') && mapsLineEnds) break;
      out[o++] = b;
      ++p;
      // The rest of an ASCII run eight bytes at a time.
      while (inLen - p >= 8 && cap - o >= 8) {
        uint64_t w;
        std::memcpy(&w, in + p, 8);
        if ((w & kHighBits) || (mapsLineEnds && (HasByte(w, '\r') || HasByte(w, '\n')))) break;
        std::memcpy(out + o, &w, 8);
        p += 8;
        o += 8;
      }
      continue;
    }
    if (!utf8) break;
    size_t used;
    const uint32_t cp = DecodeChar(d, in + p, inLen - p, &used);
    if (cp >= 0x10000 || (cp >= 0xD800 && cp < 0xE000)) break;  // no character, or one of 4 bytes
    o += PutUtf8Bmp(cp, out + o);
    p += static_cast<uint32_t>(used);
  }
  *pos = p;
  *outLen = o;
}

// ---- Character boundaries of converted text ----

// The longest prefix of out[0..len) that is whole characters and at most
// allowance bytes, for sets whose characters iconv can tell apart.
uint32_t IconvBoundary(const Encoder *e, const unsigned char *out, uint32_t len, uint32_t allowance) {
  iconv(e->from, nullptr, nullptr, nullptr, nullptr);
  char *in = reinterpret_cast<char *>(const_cast<unsigned char *>(out));
  size_t inLeft = len;
  uint32_t done = 0;
  while (inLeft > 0) {
    uint8_t cp[4];
    char *o = reinterpret_cast<char *>(cp);
    size_t outLeft = 4;  // room for one character: iconv converts one at a time
    const size_t r = iconv(e->from, &in, &inLeft, &o, &outLeft);
    const uint32_t at = len - static_cast<uint32_t>(inLeft);
    if (at > allowance) break;
    if (at == done && r == size_t(-1)) break;  // not a character of the set: stop before it
    done = at;
  }
  return done;
}

}  // namespace

extern "C" {

// The second byte's range rules out overlong forms (after E0, F0),
// surrogates (after ED) and code points beyond U+10FFFF (after F4).
size_t VTQ_Utf8Length(const void *text, size_t n) {
  const auto *s = static_cast<const uint8_t *>(text);
  if (n == 0) return 0;
  const uint8_t b = s[0];
  if (b < 0x80) return 1;
  size_t len;
  uint8_t lo = 0x80, hi = 0xBF;
  if (b >= 0xC2 && b <= 0xDF) {
    len = 2;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3, lo = b == 0xE0 ? 0xA0 : 0x80, hi = b == 0xED ? 0x9F : 0xBF;
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4, lo = b == 0xF0 ? 0x90 : 0x80, hi = b == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (n < len || s[1] < lo || s[1] > hi) return 0;
  for (size_t i = 2; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
  }
  return len;
}

int cconvInitConvert(CconvState *st, const CconvOptions *opt, const char *outName) {
  if (!st || !opt || !outName) return -1;
  const Encoder *e = t_encoders.get(outName);
  if (!e || !e->valid) return -1;
  st->encoder = e;
  st->decoder = nullptr;
  st->firstOutput = opt->firstOutput;
  st->utf8Bom = opt->convOption & KLN_CONV_UTF8_BOM;
  st->lineEnds = opt->separatorCode;
  st->subst = opt->subst;
  st->bomDone = 0;
  return 0;
}

int cconvChgCharset(CconvState *st, const CconvCharsetRecord *, const char *docName) {
  if (!st || !docName) return -1;
  static const struct {
    const char *name;
    const Decoder *decoder;
  } kSets[] = {{"WINDOWS31J", &kW31JDecoder},
               {"ISO-8859-1", &kLatin1Decoder},
               {"UTF-8", &kUtf8Decoder},
               {"WINDOWS-1252", &kCp1252Decoder}};
  for (const auto &set : kSets) {
    if (std::strcmp(docName, set.name) == 0) {
      st->decoder = set.decoder;
      return 0;
    }
  }
  return -1;
}

int cconvConvert(CconvState *st) {
  if (!st || !st->encoder || !st->decoder) return -1;
  const Encoder *e = static_cast<const Encoder *>(st->encoder);
  const Decoder d = *static_cast<const Decoder *>(st->decoder);
  const uint8_t *in = st->in;
  uint8_t *out = st->out;
  const uint32_t inLen = st->inLen, cap = st->outCap;
  const bool mapsLineEnds = st->lineEnds >= 2 && st->lineEnds <= 5;
  uint32_t pos = st->inPos, outLen = st->outLen;
  while (pos < inLen) {
    if (st->bomDone && (e->form == Form::kUtf8 || e->form == Form::kLatin1)) {
      SameFormRun(d, e->form == Form::kUtf8, mapsLineEnds, in, inLen, &pos, out, cap, &outLen);
      if (pos == inLen) break;
    }
    // One unit: the byte-order mark before the first, then up to two code
    // points of at most 8 bytes each. Written in place when it surely fits.
    uint8_t buf[32];
    const bool direct = cap - outLen >= sizeof buf;
    uint8_t *dst = direct ? out + outLen : buf;
    size_t n = ByteOrderMark(st, e, dst);
    uint32_t cps[2];
    size_t used;
    const size_t count = DecodeUnit(st, in + pos, inLen - pos, cps, &used);
    for (size_t i = 0; i < count; ++i) n += EncodeOrSubstitute(st, e, cps[i], dst + n);
    if (!direct) {
      if (n > cap - outLen) break;  // the next piece starts with this unit
      std::memcpy(out + outLen, buf, n);
    }
    outLen += static_cast<uint32_t>(n);
    st->bomDone = 1;
    pos += static_cast<uint32_t>(used);
  }
  st->inPos = pos;
  st->outLen = outLen;
  return 0;
}

uint32_t VTQ_LineEndCode(uint32_t flags) {
  static constexpr uint32_t kBits[] = {KLN_FLAG_LINE_KEEP, KLN_FLAG_LINE_LF, KLN_FLAG_LINE_CRLF, KLN_FLAG_LINE_CR,
                                       KLN_FLAG_LINE_SPACE};
  for (uint32_t i = 0; i < 5; ++i) {
    if (flags & kBits[i]) return i + 1;
  }
  return 1;
}

void cconvTermConvert(CconvState *st) {
  if (!st) return;
  st->encoder = nullptr;
  st->decoder = nullptr;
}

int VTQ_GetResouceString(int, char *buf, int size) {
  if (!buf || size <= 0) return -1;
  std::strncpy(buf, "ISO-8859-1", static_cast<size_t>(size) - 1);
  buf[size - 1] = '\0';
  return 0;
}

int VTQ_GetGroupCharWidth(const char *docName) {
  return docName && std::strcmp(docName, "WINDOWS31J") == 0 ? 2 : 1;
}

// A control byte of the text stands alone even after a lead byte: no
// control byte is a valid second byte, so the lead bytes need no care.
// Sixteen bytes with nothing to drop, the common case, are copied whole;
// the others byte by byte.
uint32_t VTQ_CopyStripControlCode(unsigned char *dst, const unsigned char *src, uint32_t len, int, uint32_t) {
  static constexpr struct Keep {
    uint8_t keep[256] = {};
    constexpr Keep() {
      for (int b = 0; b < 256; ++b) keep[b] = (b < 0x20 ? (b == '\t' || b == '\n' || b == '\r') : b != 0x7F) ? 1 : 0;
    }
  } kKeep;
  uint32_t i = 0, j = 0;
#ifdef __SSE2__
  for (; len - i >= 16; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v);
    const __m128i kept = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\t')),
                                                   _mm_cmpeq_epi8(v, _mm_set1_epi8('\n'))),
                                      _mm_cmpeq_epi8(v, _mm_set1_epi8('\r')));
    const __m128i drop = _mm_or_si128(_mm_andnot_si128(kept, control), _mm_cmpeq_epi8(v, _mm_set1_epi8(0x7F)));
    if (_mm_movemask_epi8(drop) == 0) {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + j), v);
      j += 16;
      continue;
    }
    for (uint32_t k = i; k < i + 16; ++k) {
      dst[j] = src[k];
      j += kKeep.keep[src[k]];
    }
  }
#endif
  for (; i < len; ++i) {
    dst[j] = src[i];
    j += kKeep.keep[src[i]];
  }
  return j;
}

uint32_t CutStr(const unsigned char *converted, uint32_t len, uint32_t allowance, const FilterOptions *options) {
  if (allowance >= len) return len;
  const Encoder *e = options ? t_encoders.get(options->outCharset) : nullptr;
  if (!e || !e->valid) return 0;
  switch (e->form) {
    case Form::kUtf8: {
      uint32_t n = allowance;
      while (n > 0 && (converted[n] & 0xC0) == 0x80) --n;  // step back to a lead byte
      return n;
    }
    case Form::kUtf16LE:
    case Form::kUtf16BE: {
      uint32_t n = allowance & ~1u;
      if (n >= 2) {
        const size_t hi = e->form == Form::kUtf16LE ? n - 1 : n - 2;
        if ((converted[hi] & 0xFC) == 0xD8) n -= 2;  // do not part a surrogate pair
      }
      return n;
    }
    case Form::kUtf32LE:
    case Form::kUtf32BE:
      return allowance & ~3u;
    case Form::kLatin1:
      return allowance;
    case Form::kIconv:
      return IconvBoundary(e, converted, len, allowance);
  }
  return 0;
}

}  // extern "C"
