#include "sschange.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "filecomm.h"
#include "kln_blocks.h"

// ==== Cell table and spreadsheet data sets ====
//
// A spreadsheet data set is a run of length-prefixed buffers; the third
// holds the cell table: a CTAB record marking the present columns, then
// for each of them a COLM record marking its present chunks (64 rows
// each) followed by one CHNK record per present chunk.

int LinkColumn(ConvContext *ctx, uint16_t column) {
  if (ctx->columnHeadCount == kMaxColumnHeads) return kFormatError;
  CellNode *spare = NewCellNode(ctx);
  if (!spare) return kFormatError;
  ctx->columnHeads[ctx->columnHeadCount - 1]->column = column;
  ctx->columnHeads[ctx->columnHeadCount++] = spare;
  return kOk;
}

char *OwnedText(const ByteView &v, size_t at, size_t n) {
  auto *t = static_cast<char *>(VTQ_malloc(n + 1));
  if (!t) return nullptr;
  v.copy(at, reinterpret_cast<uint8_t *>(t), n);
  t[n] = '\0';
  return t;
}

namespace {
constexpr int kCellTableBuffer = 3;
constexpr int kMaxSsBuffers = 257;
constexpr size_t kCtabAt = 6, kCtabSize = 1036, kColumnsAt = 1042;
constexpr uint32_t kCtabLength = 1032;
constexpr int kMaxColumns = 256, kMaxChunks = 257;

// Reads the chunks of the column at `p`; answers 0 or an error code and
// advances p and remaining past them.
int ReadColumnChunks(ConvContext *ctx, const ByteView &buf, size_t *p, int64_t *remaining, int32_t column,
                     const int32_t *chunks, int chunkCount) {
  CellNode *tail = nullptr;  // the column's last node while its chunks ascend
  int32_t lastChunk = -1;
  for (int m = 0; m < chunkCount; ++m) {
    if (buf.tagIs(*p + 4, "COLM")) return kOk;
    if (!buf.tagIs(*p + 4, "CHNK")) return kFormatError;
    const int64_t len = int64_t(buf.u32(*p)) + 4;
    const ByteView chunk = buf.sub(*p + 4, len - 4);
    if (chunks[m] <= lastChunk) tail = nullptr;
    lastChunk = chunks[m];
    const int r = ssGetCellData(chunk, ctx, column, static_cast<uint32_t>(chunks[m]), &tail);
    if (r != kOk) return r;
    if (len > *remaining) return kFormatError;
    *remaining -= len;
    *p += static_cast<size_t>(len);
    if (*remaining == 0) return kOk;
  }
  return kOk;
}
}  // namespace

int ssCtabcov(const ByteView &buf, int64_t length, ConvContext *ctx) {
  VtqPtr<int32_t> columns, chunks;
  if (!columns.alloc(kMaxColumns + 1) || !chunks.alloc(kMaxChunks)) return kNoMemory;
  int64_t remaining = length - 6;
  if (remaining < 0) return kFormatError;
  if (!buf.tagIs(kCtabAt + 4, "CTAB") || buf.u32(kCtabAt) != kCtabLength) return kFormatError;
  const uint32_t lastColumn = buf.u16(kCtabAt + 8);
  if (lastColumn >= kMaxColumns) return kFormatError;  // the CTAB holds 256 column entries
  ctx->colCount = static_cast<uint16_t>(lastColumn + 1);
  ctx->rowCount = static_cast<uint16_t>(buf.u16(kCtabAt + 10) + 1);

  int present = 0;
  for (uint32_t i = 0; i <= lastColumn; ++i) {
    if (buf.u32(kCtabAt + 12 + 4 * i) == 0) continue;
    columns[size_t(present++)] = static_cast<int32_t>(i);
    if (LinkColumn(ctx, static_cast<uint16_t>(i)) != kOk) return kFormatError;
  }
  if (int64_t(kCtabSize) > remaining) return kFormatError;
  remaining -= kCtabSize;

  size_t p = kColumnsAt;
  // One COLM record may follow the last present column; it has no column
  // of its own and ends the walk, its chunks unread.
  for (int n = 0; remaining > 0 && n < present; ++n) {
    if (!buf.tagIs(p + 4, "COLM")) return kFormatError;
    const uint32_t first = buf.u16(p + 8), last = buf.u16(p + 10);
    int chunkCount = 0;
    for (uint32_t i = 0; first + i <= last; ++i) {
      if (buf.u32(p + 12 + 4 * size_t(i)) == 0) continue;
      if (chunkCount == kMaxChunks) return kFormatError;
      chunks[size_t(chunkCount++)] = static_cast<int32_t>(first + i);
    }
    const int64_t len = int64_t(buf.u32(p)) + 4;
    if (len > remaining) return kFormatError;
    remaining -= len;
    p += static_cast<size_t>(len);
    if (chunkCount > 0 && remaining > 0) {
      const int r = ReadColumnChunks(ctx, buf, &p, &remaining, columns[size_t(n)], chunks.get(), chunkCount);
      if (r != kOk) return r;
    }
  }
  return kOk;
}

int GetSsDSET(ConvContext *ctx) {
  VtqBuffer buf;
  for (int k = 1;; ++k) {
    // Every length word is a length; the cell-table buffer's counts its
    // own four bytes.
    Block block;
    const int tag = NextBlock(ctx, buf, &block, kUnsignedLength | (k == kCellTableBuffer ? kCountsItself : 0));
    if (tag != kOk) return tag;
    if (k == kCellTableBuffer && block.bodyLength > 4 && ctx->docKind == 2 && ctx->hasSheet == 0) {
      const int r = ssCtabcov(block.bytes, int64_t(block.bodyLength) + 4, ctx);
      if (r != kOk) return r;
    }
    if (k == kMaxSsBuffers) return kFormatError;
  }
}

// ==== Cell values ====

// Error texts by error number; numbers 10 and above show the first.
const char *const ssERR[10] = {"#ERROR!", "#N/A!", "#DIV/0!", "#VALUE!", "#NUM!",
                               "#REF!",   "#ARG!", "#USER!",  "#DATE!",  "#TIME!"};

namespace {
constexpr size_t kSlotsAt = 12;
constexpr int kSlots = 64;


// A cached formula result of the given kind; `at` is where it starts in
// the record and `len` its length.
int DecodeCachedResult(CellNode *node, const ByteView &rec, size_t at, int64_t len, uint8_t kind, ConvContext *ctx) {
  switch (kind) {
    case 0:
    case 1: {
      const size_t width = kind == 0 ? 2 : 4;
      if (ctx->headerVariant == 0) {
        // Least significant byte first; longer results are read from their start.
        if (len < int64_t(width)) return kFormatError;
        uint32_t v = 0;
        for (size_t i = 0; i < width; ++i) v |= uint32_t(rec.u8(at + i)) << (8 * i);
        node->value = kind == 0 ? double(int16_t(v)) : double(int32_t(v));
      } else if (ctx->headerVariant == 1) {
        node->value = kind == 0 ? double(int16_t(rec.u16(at))) : double(int32_t(rec.u32(at)));
      }
      return kOk;
    }
    case 2:
      if (ctx->headerVariant == 0) {
        uint8_t le[8];
        rec.copy(at, le, 8);
        double d;
        std::memcpy(&d, le, 8);  // the host stores doubles least significant byte first
        node->value = d;
      } else if (ctx->headerVariant == 1) {
        uint8_t ext[10];
        rec.copy(at, ext, 10);
        node->value = getfloat(ext, ctx);
      }
      return kOk;
    case 3:
      return SetCellText(ctx, node, rec, at + 1, rec.u8(at));
    case 5:
      return SetFixedCellText(ctx, node, rec.u8(at) ? "TRUE" : "FALSE");
    case 6:
      return SetFixedCellText(ctx, node, ssERR[rec.u8(at) < 10 ? rec.u8(at) : 0]);
    default:
      return kFormatError;
  }
}

// Decodes one cell record (`rec`: its length field first) into node.
int DecodeCell(CellNode *node, const ByteView &rec, uint32_t l, ConvContext *ctx) {
  const uint8_t kind = rec.u8(2);
  switch (kind) {
    case 0:
      node->value = int16_t(rec.u16(6));
      return kOk;
    case 1:
      node->value = int32_t(rec.u32(6));
      return kOk;
    case 2: {
      if (l > 14) return kFormatError;
      uint8_t ext[10];
      rec.copy(6, ext, 10);  // a shorter record reads its missing bytes as 0
      node->value = getfloat(ext, ctx);
      return kOk;
    }
    case 4: {
      const uint8_t resultKind = rec.u8(6);
      const uint8_t f = rec.u8(8);
      if (resultKind == 4 || resultKind > 6) return kFormatError;
      node->kind = resultKind;
      return DecodeCachedResult(node, rec, 10 + size_t(f), int64_t(l) - f - 8, resultKind, ctx);
    }
    default:  // 3, 5, 6: text, boolean, error
      return DecodeCachedResult(node, rec, 6, int64_t(l) - 4, kind, ctx);
  }
}

// The node a chunk of `column` fills first: the column's head, then along
// the chain past the rows before the chunk.
CellNode *FindFillNode(ConvContext *ctx, int32_t column, uint32_t chunk) {
  uint32_t k = 0;
  while (ctx->columnHeads[k]->column < column && k + 1 < ctx->columnHeadCount) ++k;
  CellNode *node = ctx->columnHeads[k];
  while (node->row < chunk * 64 && node->next) node = NextInColumn(ctx, node);
  return node;
}
}  // namespace

int ssGetCellData(const ByteView &chunk, ConvContext *ctx, int32_t column, uint32_t chunkNo, CellNode **tail) {
  CellNode *node = *tail ? *tail : FindFillNode(ctx, column, chunkNo);
  const uint32_t count = chunk.u16(4);
  if (count > kSlots) return kFormatError;
  uint32_t stored = 0;
  int result = kOk;
  for (int s = 0; s < kSlots && stored < count && result == kOk; ++s) {
    const uint32_t off = chunk.u16(kSlotsAt + 2 * size_t(s));
    if (off == 0) continue;
    const uint32_t l = chunk.u16(off);
    if (!chunk.has(off, 2 + size_t(l))) return kFormatError;  // the cell runs past its chunk
    const ByteView rec = chunk.sub(off, 2 + size_t(l));
    node->column = static_cast<uint16_t>(column);
    node->row = static_cast<uint16_t>(chunkNo * 64 + uint32_t(s));
    node->kind = rec.u8(2);
    node->style = rec.u16(4);
    if (node->kind > 6) continue;  // not counted; the next cell takes the node
    result = DecodeCell(node, rec, l, ctx);
    node->present = 1;
    if (result != kOk) break;
    CellNode *next = NewCellNode(ctx, &node->next);
    if (!next) {
      result = kNoMemory;  // the chunk's later cells would be lost
      break;
    }
    node = next;
    ++stored;
  }
  *tail = node;
  return result;
}

// ==== Style table: cell styles ====

int GetCellStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen, size_t held) {
  const ByteView body(record + 4, held);
  const uint32_t n = body.u16(0), size = body.u16(6);
  ctx->cellStyleCount = int32_t(n);
  if (bodyLen < 22) return kFormatError;
  VTQ_free(ctx->cellStyles);
  ctx->cellStyles = static_cast<CellStyle *>(VTQ_calloc(n ? n : 1, sizeof(CellStyle)));
  if (!ctx->cellStyles) return kNoMemory;
  for (uint32_t i = 0; i < n; ++i) {
    const size_t e = 28 + size_t(i) * size;
    CellStyle &c = ctx->cellStyles[i];
    body.copy(e, c.styleHead, 4);
    c.formatCode = body.u8(e + 4);
    c.decimals = body.u8(e + 5);
    c.thousandsSep = body.u8(e + 8);
    c.negativeInParens = body.u8(e + 9);
    if (22 + int64_t(i + 1) * size > bodyLen) return kFormatError;
  }
  return kOk;
}

const CellStyle *LookupCellStyle(const ConvContext *ctx, uint16_t styleNo) {
  // A style number beyond the map reads as an unset slot: cell style 0.
  const uint32_t idx = int32_t(styleNo) < ctx->styleMapCount && ctx->styleMap ? ctx->styleMap[styleNo] : 0;
  if (!ctx->cellStyles || ctx->cellStyleCount < 1) return nullptr;
  if (int64_t(idx) < ctx->cellStyleCount) return &ctx->cellStyles[idx];
  return &ctx->cellStyles[ctx->cellStyleCount - 1];
}

// ==== Date serials and the Japanese calendar ====
//
// Serial 1 is 1900-01-01 and 1900 counts 366 days, so that from serial 61
// (1900-03-01) on serial n is 1899-12-30 plus n days. The fraction is the
// time of day. Texts are Windows-31J, converted with the rest of the output.

const char JapanYear[4][10] = {"\x96\xbe\x8e\xa1", "\x91\xe5\x90\xb3", "\x8f\xba\x98\x61", "\x95\xbd\x90\xac"};
const char BJapanYear[4][10] = {"M", "T", "S", "H"};
const int16_t jpnyear[4] = {-33, 11, 25, 88};
const int32_t jpndate[3] = {4595, 9856, 32516};
const char JapanWeek[7][10] = {"\x93\xfa\x97\x6a\x93\xfa", "\x8c\x8e\x97\x6a\x93\xfa", "\x89\xce\x97\x6a\x93\xfa",
                               "\x90\x85\x97\x6a\x93\xfa", "\x96\xd8\x97\x6a\x93\xfa", "\x8b\xe0\x97\x6a\x93\xfa",
                               "\x93\x79\x97\x6a\x93\xfa"};
const char JWeek[7][10] = {"(\x93\xfa)", "(\x8c\x8e)", "(\x89\xce)", "(\x90\x85)",
                           "(\x96\xd8)", "(\x8b\xe0)", "(\x93\x79)"};

namespace {
namespace chr = std::chrono;
constexpr char kMorning[] = "\x8c\xdf\x91\x4f";
constexpr char kAfternoon[] = "\x8c\xdf\x8c\xe3";
// Serials beyond this many days are taken as this many (about 5.8 million
// years): the year stays within an int.
constexpr double kLastSerial = 2147483647.0;
constexpr int64_t kFirstCivilSerial = 61;
constexpr chr::sys_days kDayZero{chr::year{1899} / chr::December / 30};
// The civil calendar repeats every 400 years; the standard calendar's
// years end at 32767, so whole cycles are counted aside.
constexpr int64_t kDaysPer400Years = 146097;

struct Day {
  int64_t year;  // years since 1900
  int month, day;
  bool leap;  // 1900 counts as a leap year
};

// The day of a whole serial. Before March 1900 the count has a day 0 of
// January (serial 0) and a 29 February (serial 60).
Day DayOf(int64_t serial) {
  if (serial < kFirstCivilSerial) return serial <= 31 ? Day{0, 1, int(serial), true} : Day{0, 2, int(serial - 31), true};
  const int64_t cycles = (serial - kFirstCivilSerial) / kDaysPer400Years;
  const chr::year_month_day ymd{kDayZero + chr::days{serial - cycles * kDaysPer400Years}};
  const int64_t year = int(ymd.year()) - 1900 + 400 * cycles;
  return {year, int(unsigned(ymd.month())), int(unsigned(ymd.day())), year == 0 || ymd.year().is_leap()};
}
}  // namespace

void caldate(CalDate *cd) {
  double s = std::fabs(cd->serial);
  if (!(s <= kLastSerial)) s = kLastSerial;  // also for not-a-number
  cd->serial = s;
  cd->era = s < jpndate[0] ? 0 : s < jpndate[1] ? 1 : s < jpndate[2] ? 2 : 3;
  const int64_t d0 = static_cast<int64_t>(s);
  // The weekdays run on unbroken through the 29 February 1900.
  cd->weekday = static_cast<int32_t>(chr::weekday{kDayZero + chr::days{d0}}.c_encoding());
  Day date = DayOf(d0);
  cd->leapYear = date.leap ? 1 : 0;

  const double f = s - double(d0);
  const double h = 24 * f;
  int32_t hour = static_cast<int32_t>(h);
  const double mf = 60 * (h - hour);
  int32_t minute = static_cast<int32_t>(mf);
  int32_t second = static_cast<int32_t>(60 * (mf - minute) + 0.499999);
  if (second > 59) ++minute, second -= 60;
  if (minute > 59) ++hour, minute -= 60;
  if (hour > 23) hour -= 24, date = DayOf(d0 + 1);  // rounded up to the next day's midnight

  cd->year = static_cast<int32_t>(date.year);
  cd->month = date.month;
  cd->day = date.day;
  cd->hour = hour;
  cd->minute = minute;
  cd->second = second;
  std::memcpy(cd->ampm, hour > 11 ? kAfternoon : kMorning, 5);
  cd->yearInCentury = cd->year % 100;
}

// ==== Cell value formatting ====

namespace {
constexpr size_t kMaxFormatted = 49;

// The formatted text while it is built; any step that makes it longer
// than 49 bytes fails the cell.
class FormatText {
 public:
  bool ok() const { return len_ <= kMaxFormatted; }
  size_t size() const { return len_; }
  const char *data() const { return buf_; }
  char &operator[](size_t i) { return buf_[i]; }
  void assign(const char *s, size_t n) {
    len_ = n < sizeof buf_ ? n : sizeof buf_;
    std::memcpy(buf_, s, len_);
  }
  void append(const char *s, size_t n) {
    const size_t room = sizeof buf_ - len_;
    if (n > room) n = room, len_ = sizeof buf_;  // already too long: stays too long
    std::memcpy(buf_ + len_, s, n);
    len_ += n;
  }
  void append(char c) { append(&c, 1); }
  void insert(size_t at, char c) {
    if (len_ == sizeof buf_) return;
    std::memmove(buf_ + at + 1, buf_ + at, len_ - at);
    buf_[at] = c;
    ++len_;
  }
  void erase(size_t at, size_t n) {
    std::memmove(buf_ + at, buf_ + at + n, len_ - at - n);
    len_ -= n;
  }
  void truncate(size_t n) {
    if (n < len_) len_ = n;
  }
  size_t find(char c) const {
    const void *p = std::memchr(buf_, c, len_);
    return p ? size_t(static_cast<const char *>(p) - buf_) : len_;
  }

 private:
  char buf_[kMaxFormatted + 8];
  size_t len_ = 0;
};

// printf's "%.12f" / "%.12g", whatever locale the host has set.
void PrintFixed(FormatText &t, double a) {
  char buf[400];
  const auto r = std::to_chars(buf, buf + sizeof buf, a, std::chars_format::fixed, 12);
  t.assign(buf, size_t(r.ptr - buf));
}
void PrintGeneral(FormatText &t, double a) {
  char buf[64];
  const auto r = std::to_chars(buf, buf + sizeof buf, a, std::chars_format::general, 12);
  t.assign(buf, size_t(r.ptr - buf));
}

void TrimZeros(FormatText &t) {
  if (t.find('.') == t.size()) return;
  while (t.size() > 0 && t[t.size() - 1] == '0') t.truncate(t.size() - 1);
  if (t.size() > 0 && t[t.size() - 1] == '.') t.truncate(t.size() - 1);
}

// Scientific notation from the cut fixed text: a mantissa and an exponent.
void Normalise(FormatText &t, size_t p, char *exponent) {
  const size_t dot = t.find('.');
  if (p >= 2) {
    FormatText m;
    m.append(t[0]);
    m.append('.');
    for (size_t i = 1; i < t.size(); ++i) {
      if (i != dot) m.append(t[i]);
    }
    t = m;
    std::snprintf(exponent, 8, "e+%i", int(p - 1));
    return;
  }
  if (dot < t.size() && t.size() - dot - 1 > 1 && t[0] == '0') {
    size_t k = 0;
    while (k < t.size() && (t[k] == '0' || t[k] == '.')) ++k;
    FormatText m;
    m.append(t[k]);
    if (t.size() - k > 1) {
      m.append('.');
      m.append(t.data() + k + 1, t.size() - k - 1);
    }
    t = m;
    std::snprintf(exponent, 8, "e-%i", int(k - 1));
    return;
  }
  std::memcpy(exponent, "e+0", 4);
}

void GroupThousands(FormatText &t) {
  const size_t intDigits = t.find('.');
  if (intDigits <= 3) return;
  for (size_t at = intDigits - 3; at > 0; at -= 3) {
    t.insert(at, ',');
    if (at <= 3) break;
  }
}

void ApplyDecimals(FormatText &t, size_t decimals, bool keepPoint) {
  const size_t dot = t.find('.');
  const size_t have = dot < t.size() ? t.size() - dot - 1 : 0;
  if (have > decimals) {
    t.truncate(dot + 1 + decimals);
    if (!keepPoint && t[t.size() - 1] == '.') t.truncate(t.size() - 1);
    return;
  }
  if (have == decimals) return;
  if (dot == t.size()) t.append('.');
  for (size_t i = have; i < decimals && t.ok(); ++i) t.append('0');
}

// Codes 0 to 4: general, currency, percent, scientific and fixed numbers.
int FormatNumber(FormatText &t, double value, const CellStyle &style, int code) {
  double a = std::fabs(value);
  if (code == 2) a = 100 * a;
  char exponent[8] = "";
  if (a >= 1e15 || !(a == a)) {
    if (code == 4) {
      t.assign("#Precision!", 11);
      return kOk;
    }
    PrintGeneral(t, a);
    const size_t e = t.find('e');
    if (code >= 1 && code <= 3 && e < t.size()) {
      const size_t n = std::min<size_t>(t.size() - e, 5);
      std::memcpy(exponent, t.data() + e, n);
      exponent[n] = '\0';
      t.erase(e, n);
    }
  } else if (a >= 1e-12) {
    PrintFixed(t, a);
    const size_t p = t.find('.');
    if (p > 11)
      t.truncate(p);
    else
      t.truncate(a > 1 ? 13 : 14);
    TrimZeros(t);
    if (code == 3) Normalise(t, p, exponent);
  } else {
    t.assign("0", 1);
    if (code == 3) std::memcpy(exponent, "e+0", 4);
  }
  if (code != 3 && style.thousandsSep && a < 1e15) GroupThousands(t);
  if (!t.ok()) return kFormatError;
  if (code == 1) {
    t.insert(0, '\\');
    if (!t.ok()) return kFormatError;
  }
  if (code >= 1) {
    ApplyDecimals(t, style.decimals, code == 3);
    t.append(exponent, std::strlen(exponent));
    if (code == 2) t.append('%');
    if (!t.ok()) return kFormatError;
  }
  if (value < 0) {
    if (style.negativeInParens) {
      t.insert(0, '(');
      t.append(')');
    } else {
      t.insert(0, '-');
    }
  }
  return t.ok() ? kOk : kFormatError;
}

// Codes 5 to 17: dates and times of the cell value (days from 1904-01-01).
int FormatDate(FormatText &t, double value, int code) {
  CalDate cd{};
  cd.serial = value >= -1401 ? value + 1462 : value + 1461;
  caldate(&cd);
  const int eraYear = cd.yearInCentury - jpnyear[cd.era] + (cd.yearInCentury - jpnyear[cd.era] < 0 ? 100 : 0);
  int hour12 = cd.hour > 12 ? cd.hour - 12 : cd.hour;
  if (cd.hour == 0) hour12 = 12;  // midnight is 12 in the morning
  char buf[160];
  int n = 0;
  switch (code) {
    case 5:
      n = std::snprintf(buf, sizeof buf, "%02i/%02i/%02i", cd.yearInCentury, cd.month, cd.day);
      break;
    case 6:
    case 7:
      n = std::snprintf(buf, sizeof buf, "%04i\x94\x4e%i\x8c\x8e%i\x93\xfa", 1900 + cd.year, cd.month, cd.day);
      break;
    case 8:
    case 9:
      n = std::snprintf(buf, sizeof buf, "%04i\x94\x4e%i\x8c\x8e%i\x93\xfa %s", 1900 + cd.year, cd.month, cd.day,
                        code == 8 ? JWeek[cd.weekday] : JapanWeek[cd.weekday]);
      break;
    case 10:
      n = std::snprintf(buf, sizeof buf, "%s%i/%02i/%02i", BJapanYear[cd.era], eraYear, cd.month, cd.day);
      break;
    case 11:
      n = std::snprintf(buf, sizeof buf, "%s%i\x94\x4e%i\x8c\x8e%i\x93\xfa", JapanYear[cd.era], eraYear, cd.month,
                        cd.day);
      break;
    case 12:
    case 13:
      n = std::snprintf(buf, sizeof buf, "%s%i\x94\x4e%i\x8c\x8e%i\x93\xfa %s", JapanYear[cd.era], eraYear, cd.month,
                        cd.day, code == 12 ? JWeek[cd.weekday] : JapanWeek[cd.weekday]);
      break;
    case 14:
      n = std::snprintf(buf, sizeof buf, "%i:%02i%s", hour12, cd.minute, cd.ampm);
      break;
    case 15:
      n = std::snprintf(buf, sizeof buf, "%i:%02i:%02i%s", hour12, cd.minute, cd.second, cd.ampm);
      break;
    case 16:
      n = std::snprintf(buf, sizeof buf, "%i:%02i", cd.hour, cd.minute);
      break;
    default:
      n = std::snprintf(buf, sizeof buf, "%i:%02i:%02i", cd.hour, cd.minute, cd.second);
      break;
  }
  if (n < 0 || size_t(n) > kMaxFormatted) return kFormatError;
  t.assign(buf, size_t(n));
  return kOk;
}

// Database cells take the format their kind calls for.
int EffectiveCode(const ConvContext *ctx, int code, uint16_t kind) {
  if (ctx->docKind != 3) return code;
  if ((kind == 11 || kind == 12) && code >= 5 && code <= 17) return 0;
  if (kind == 13 && code <= 4) return 5;
  if (kind == 14 && code <= 13) return 14;
  return code;
}
}  // namespace

int GetSSFormat(ConvContext *ctx, double value, uint16_t kind, uint16_t style, char *out, size_t *outLen) {
  const CellStyle *cs = LookupCellStyle(ctx, style);
  if (!cs) return kFormatError;
  const bool quote = !(ctx->options->flags & KLN_FLAG_NO_QUOTE);
  if (quote) out[(*outLen)++] = '"';
  const int code = EffectiveCode(ctx, cs->formatCode, kind);
  if (code > 17) return kFormatError;
  FormatText t;
  const int r = code >= 5 ? FormatDate(t, value, code) : FormatNumber(t, value, *cs, code);
  if (r != kOk) return r;
  std::memcpy(out + *outLen, t.data(), t.size());
  *outLen += t.size();
  if (quote) out[(*outLen)++] = '"';
  return kOk;
}

int CellFormatCode(const ConvContext *ctx, uint16_t kind, uint16_t style) {
  const CellStyle *cs = LookupCellStyle(ctx, style);
  return cs ? EffectiveCode(ctx, cs->formatCode, kind) : -1;
}

// ==== Cell rows and the delimited writer ====
//
// The table is walked row by row. Each row's cells are formatted once, as
// the delimited writer writes them, and the row is handed to a consumer:
// the delimited writer, or the structure events (which pass it on to the
// delimited writer as well, so both always hold the same texts).
//
// The delimited writer writes rows as lines (a gap of rows as that many
// line feeds), cells separated by the separator, empty cells before a cell
// standing as empty fields unless blank fill is off. Nothing follows the
// last cell.

namespace {
constexpr int kCursorSlots = 257;
constexpr size_t kPrefixSize = 20481;
constexpr int kMaxLineFeeds = 20480;

bool Accepted(const ConvContext *ctx, uint16_t kind) {
  return ctx->docKind == 2 ? kind <= 6 : (kind >= 11 && kind <= 16);
}

int Write(ConvContext *ctx, const void *text, size_t n) {
  return comm_write(text, 1, n, ctx->outFile, ctx) < 1 ? kFormatError : kOk;
}

// Appends the cell's text, or its value formatted by its style, to `text`
// at cell->at (quotes included when the writer quotes); sets cell->length.
int FormatCell(ConvContext *ctx, const CellNode &node, bool quote, VtqBuffer &text, RowCell *cell) {
  const uint16_t kind = node.kind;
  if (CellHoldsText(node.kind)) {
    if (!node.text) return kFormatError;
    const size_t len = CellTextLength(node.text);
    if (!text.grow(cell->at + len + 2)) return kNoMemory;
    uint8_t *out = text.data() + cell->at;
    size_t o = 0;
    if (quote) out[o++] = '"';
    for (size_t i = 0; i < len; ++i) {
      if (node.text[i] != '\r') out[o++] = uint8_t(node.text[i]);  // carriage returns are removed
    }
    if (quote) out[o++] = '"';
    cell->length = o;
    return kOk;
  }
  if (kind <= 2 || (kind >= 11 && kind <= 15)) {
    if (!text.grow(cell->at + kMaxFormatted + 3)) return kNoMemory;
    size_t len = 0;
    char *out = reinterpret_cast<char *>(text.data() + cell->at);
    const int r = GetSSFormat(ctx, node.value, kind, cell->style, out, &len);
    cell->length = r == kOk ? len : 0;
    return r;
  }
  return kFormatError;  // 4, 7 to 10, and beyond 16
}
}  // namespace

int WalkCellRows(ConvContext *ctx, RowConsumer &out) {
  VtqPtr<CellNode *> cursor;
  VtqPtr<RowCell> cells;
  VtqBuffer text;
  if (!cursor.alloc(kCursorSlots) || !cells.alloc(kCursorSlots) || !text.alloc(256)) return kNoMemory;
  // Each column's next node: the head first. The list ends with the spare
  // node, which heads no column.
  for (uint32_t k = 0; k + 1 < ctx->columnHeadCount; ++k) {
    CellNode *head = ctx->columnHeads[k];
    if (head->column < kCursorSlots) cursor[head->column] = head;
  }
  const bool quote = !(ctx->options->flags & KLN_FLAG_NO_QUOTE);
  int result = out.start();
  CellRow row{0, cells.get(), 0, nullptr};
  size_t used = 0;  // bytes of `text` the row's cells take
  // Hands the row collected so far to the consumer and starts the next.
  auto flush = [&] {
    row.text = text.data();
    const int r = row.count ? out.row(row) : kOk;
    row.count = 0;
    used = 0;
    return r;
  };
  for (int r = 0; r < ctx->rowCount && result == kOk; ++r) {
    for (int c = 0; c < ctx->colCount && c < kCursorSlots && result == kOk; ++c) {
      CellNode *node = cursor[size_t(c)];
      if (!node || node->row != r) continue;  // the column's next cell comes later, or never
      if (Accepted(ctx, node->kind) && node->present == 1) {
        if (node->row != row.number) result = flush();
        row.number = node->row;
        RowCell &cell = cells[row.count++];
        cell = {node->column, node->kind, node->style, kOk, used, 0};
        if (ctx->docKind == 3 && c < ctx->dbFieldCount) cell.style = ctx->dbFields[c].styleNo;
        if (result == kOk) cell.failed = FormatCell(ctx, *node, quote, text, &cell);
        used += cell.length;
        // A failed cell ends the table after the row so far is written.
        if (result == kOk && cell.failed != kOk) result = flush();
      }
      CellNode *next = NextInColumn(ctx, node);
      cursor[size_t(c)] = next && next->present ? next : nullptr;
      // The column's next text is read a row later; the texts of a table
      // shown in another order than stored lie far apart: fetch it now.
      if (next && CellHoldsText(next->kind)) __builtin_prefetch(next->text);
    }
  }
  return result == kOk ? flush() : result;
}

DelimitedWriter::DelimitedWriter(ConvContext *ctx)
    : ctx_(ctx),
      separator_((ctx->options->flags & KLN_FLAG_SEPARATOR) ? char(ctx->options->cellSeparator & 0xFF) : ','),
      quote_(!(ctx->options->flags & KLN_FLAG_NO_QUOTE)),
      fill_(!(ctx->options->flags & KLN_FLAG_NO_FILL)) {}

int DelimitedWriter::start() {
  if (!prefix_.alloc(kPrefixSize)) return kNoMemory;
  return ctx_->docKind == 3 && ctx_->dbFieldCount != 0 ? WriteFieldNames() : kOk;
}

// The database header: the field names, then one line feed.
int DelimitedWriter::WriteFieldNames() {
  int result = kOk;
  for (int i = 0; i < ctx_->dbFieldCount && result == kOk; ++i) {
    const DbField &f = ctx_->dbFields[i];
    char open[2];
    size_t n = 0;
    if (i > 0) open[n++] = separator_;
    if (quote_) open[n++] = '"';
    if (n && Write(ctx_, open, n) != kOk) result = kFormatError;
    if (result == kOk && (f.nameLen == 0 || !f.name || Write(ctx_, f.name, f.nameLen) != kOk)) result = kFormatError;
    if (result == kOk && quote_ && Write(ctx_, "\"", 1) != kOk) result = kFormatError;
  }
  if (Write(ctx_, "\n", 1) != kOk) result = kFormatError;
  return result;
}

// Writes the line feeds and separators that precede the cell at (row, column).
int DelimitedWriter::WrtSSBlank(int row, int column) {
  uint8_t *buf = prefix_.get();
  size_t n = 0;
  if (prevRow_ >= 0 && row > prevRow_) {
    const int feeds = std::min(row - prevRow_, kMaxLineFeeds);
    std::memset(buf, '\n', size_t(feeds));
    n = size_t(feeds);
  }
  const bool sameRow = row == prevRow_;
  int pos = sameRow ? prevColumn_ + 1 : 0;
  if (fill_ && pos < column) {
    if (pos > 256) return kFormatError;
    if (n + 3 <= kPrefixSize - 2) {
      for (; pos < column; ++pos) {
        if (pos >= 257) return kFormatError;
        if (n >= kPrefixSize - 4) break;
        if (sameRow || pos > 0) buf[n++] = uint8_t(separator_);
      }
    }
  }
  if (column != 0 && (fill_ || sameRow)) {
    if (n > kPrefixSize - 2) return kFormatError;
    buf[n++] = uint8_t(separator_);
  }
  return Append(buf, n);
}

// A row goes out in one write. Bytes are written on their own when what
// precedes them ends in a byte that could join them into one character
// or line end (a lead byte, a byte the conversion drops, a carriage
// return): the text then converts as if each piece were written alone.
int DelimitedWriter::Append(const uint8_t *bytes, size_t n) {
  if (n == 0) return kOk;
  if (pendingLen_ > 0) {
    const uint8_t last = pending_.data()[pendingLen_ - 1];
    if ((last >= 0x7F || (last < 0x20 && last != '\t' && last != '\n')) && Flush() != kOk) return kFormatError;
  }
  if (!pending_.grow(pendingLen_ + n)) return kNoMemory;
  std::memcpy(pending_.data() + pendingLen_, bytes, n);
  pendingLen_ += n;
  return kOk;
}

int DelimitedWriter::Flush() {
  const size_t n = pendingLen_;
  pendingLen_ = 0;
  return n == 0 ? kOk : Write(ctx_, pending_.data(), n);
}

int DelimitedWriter::row(const CellRow &row) {
  int r = kOk;
  for (size_t i = 0; i < row.count && r == kOk; ++i) {
    const RowCell &cell = row.cells[i];
    r = WrtSSBlank(row.number, cell.column);
    if (r == kOk) r = cell.failed;
    if (r == kOk) r = Append(row.text + cell.at, cell.length);
    prevRow_ = row.number;
    prevColumn_ = cell.column;
  }
  const int written = Flush();
  return r != kOk ? r : written;
}

int PutSSVtqTxt(ConvContext *ctx) {
  DelimitedWriter writer(ctx);
  return WalkCellRows(ctx, writer);
}
