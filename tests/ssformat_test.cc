// Formatting cell values by their styles, and the calendar behind dates.
#include <gtest/gtest.h>

#include <cmath>

#include "sschange.h"
#include "test_support.h"

namespace {

const std::string kYear = "\x94\x4e", kMonth = "\x8c\x8e", kDay = "\x93\xfa";
const std::string kAm = "\x8c\xdf\x91\x4f", kPm = "\x8c\xdf\x8c\xe3";
const std::string kHeisei = "\x95\xbd\x90\xac", kShowa = "\x8f\xba\x98\x61";
const std::string kSunShort = "(\x93\xfa)", kSunLong = "\x93\xfa\x97\x6a\x93\xfa";

struct FormatCase {
  double value;
  uint8_t code, decimals, grouping, parens;
  std::string expected;
};

// Formats one value through a context holding one cell style.
std::string Format(const FormatCase &c, uint32_t flags = KLN_FLAG_NO_QUOTE, int *result = nullptr) {
  kln::OpenedContext ctx(kln::Document().build(), kln::Options("UTF-8", flags));
  CellStyle style{{0, 0, 0, 0}, c.code, c.decimals, c.grouping, c.parens};
  ctx->cellStyles = static_cast<CellStyle *>(VTQ_calloc(1, sizeof style));
  *ctx->cellStyles = style;
  ctx->cellStyleCount = 1;
  char out[64];
  size_t len = 0;
  const int r = GetSSFormat(ctx.get(), c.value, 0, 0, out, &len);
  if (result) *result = r;
  return r == 0 ? std::string(out, len) : "<" + std::to_string(r) + ">";
}

TEST(Formatting, Numbers) {
  const FormatCase cases[] = {
      // general
      {0, 0, 0, 0, 0, "0"},
      {-1234.5678, 0, 2, 0, 0, "-1234.5678"},
      {1.0 / 3, 0, 0, 0, 0, "0.333333333333"},
      {2.0 / 3, 0, 0, 0, 0, "0.666666666667"},
      {1234567, 0, 0, 1, 0, "1,234,567"},
      {1234567.5, 0, 0, 1, 0, "1,234,567.5"},
      {123, 0, 0, 1, 0, "123"},
      {1e16, 0, 0, 0, 0, "1e+16"},
      {123456789012.5, 0, 0, 0, 0, "123456789012"},  // more than 11 integer digits: integer part
      {12345678901.25, 0, 0, 0, 0, "12345678901.2"},  // 13 characters
      {1e-13, 0, 0, 0, 0, "0"},
      {-5, 0, 0, 0, 1, "(5)"},
      {-0.0, 0, 0, 0, 0, "0"},
      // currency
      {-1234.5678, 1, 2, 0, 0, "-\\1234.56"},
      {1234567, 1, 0, 1, 0, "\\1,234,567"},
      {1e16, 1, 2, 0, 0, "\\1.00e+16"},
      {1e16, 1, 0, 0, 0, "\\1e+16"},
      // percent: 100 x 1234.5678 is 123456.779999... as a double
      {-1234.5678, 2, 2, 0, 0, "-123456.77%"},
      {0.5, 2, 0, 0, 0, "50%"},
      {0.5, 2, 1, 0, 0, "50.0%"},
      // scientific
      {-1234.5678, 3, 2, 0, 0, "-1.23e+3"},
      {0, 3, 2, 0, 0, "0.00e+0"},
      {0.5, 3, 1, 0, 0, "0.5e+0"},
      {0.5, 3, 0, 0, 0, "0.e+0"},
      {0.05, 3, 0, 0, 0, "5e-2"},
      {0.0123, 3, 3, 0, 0, "1.230e-2"},
      {12345, 3, 2, 0, 0, "1.23e+4"},
      {2.5, 3, 0, 0, 0, "2.e+0"},  // the point stays in scientific notation
      // fixed: digits are cut, never rounded
      {-1234.5678, 4, 2, 0, 0, "-1234.56"},
      {0, 4, 2, 0, 0, "0.00"},
      {2.675, 4, 2, 0, 0, "2.67"},
      {0.999, 4, 0, 0, 0, "0"},
      {1e16, 4, 2, 0, 0, "#Precision!"},
      {-1e15, 4, 2, 0, 1, "#Precision!"},
      {1.5, 4, 60, 0, 0, "<3000>"},  // longer than 49 bytes
  };
  for (const FormatCase &c : cases) EXPECT_EQ(Format(c), c.expected) << c.value << " code " << int(c.code);
}

TEST(Formatting, DatesAndTimes) {
  // 1989-01-08 13:05:09 counted from 1904-01-01.
  const double heisei1 = 31054 + (13 * 3600 + 5 * 60 + 9) / 86400.0;
  const FormatCase cases[] = {
      {heisei1, 5, 0, 0, 0, "89/01/08"},
      {heisei1, 6, 0, 0, 0, "1989" + kYear + "1" + kMonth + "8" + kDay},
      {heisei1, 8, 0, 0, 0, "1989" + kYear + "1" + kMonth + "8" + kDay + " " + kSunShort},
      {heisei1, 9, 0, 0, 0, "1989" + kYear + "1" + kMonth + "8" + kDay + " " + kSunLong},
      {heisei1, 10, 0, 0, 0, "H1/01/08"},
      {heisei1, 11, 0, 0, 0, kHeisei + "1" + kYear + "1" + kMonth + "8" + kDay},
      {heisei1, 12, 0, 0, 0, kHeisei + "1" + kYear + "1" + kMonth + "8" + kDay + " " + kSunShort},
      {heisei1, 14, 0, 0, 0, "1:05" + kPm},
      {heisei1, 15, 0, 0, 0, "1:05:09" + kPm},
      {heisei1, 16, 0, 0, 0, "13:05"},
      {heisei1, 17, 0, 0, 0, "13:05:09"},
      {heisei1 - 1, 10, 0, 0, 0, "S64/01/07"},
      {heisei1 - 1, 11, 0, 0, 0, kShowa + "64" + kYear + "1" + kMonth + "7" + kDay},
      {0, 6, 0, 0, 0, "1904" + kYear + "1" + kMonth + "1" + kDay},
      {-1401, 6, 0, 0, 0, "1900" + kYear + "3" + kMonth + "1" + kDay},
      {-1402, 6, 0, 0, 0, "1900" + kYear + "2" + kMonth + "28" + kDay},
      {0.5, 14, 0, 0, 0, "12:00" + kPm},
      {0.0, 14, 0, 0, 0, "12:00" + kAm},
      {0.5, 16, 0, 0, 0, "12:00"},
      {0.0, 16, 0, 0, 0, "0:00"},
      {-0.75, 17, 0, 0, 1, "6:00:00"},  // dates and times take no sign
      {1, 18, 0, 0, 0, "<3000>"},
  };
  for (const FormatCase &c : cases) EXPECT_EQ(Format(c), c.expected) << c.value << " code " << int(c.code);
}

TEST(Calendar, EdgesErasAndCarries) {
  struct Case {
    double serial;
    int year, month, day, hour, minute, second, weekday, era;
  };
  const Case cases[] = {
      {59, 0, 2, 28, 0, 0, 0, 2, 0},        {60, 0, 2, 29, 0, 0, 0, 3, 0},
      {61, 0, 3, 1, 0, 0, 0, 4, 0},         {1462, 4, 1, 1, 0, 0, 0, 5, 0},
      {4594.99, 12, 7, 29, 23, 45, 36, 1, 0}, {4595, 12, 7, 30, 0, 0, 0, 2, 1},
      {32515, 89, 1, 7, 0, 0, 0, 6, 2},     {32516, 89, 1, 8, 0, 0, 0, 0, 3},
      {36526.5, 100, 1, 1, 12, 0, 0, 6, 3}, {73051, 200, 1, 1, 0, 0, 0, 5, 3},
      {-36526.5, 100, 1, 1, 12, 0, 0, 6, 3},
      // 23:59:59.6 on the last day of a year carries into the next year,
      // keeping the weekday and the era of the day before.
      {36525 + (86399.6 / 86400), 100, 1, 1, 0, 0, 0, 5, 3},
  };
  for (const Case &c : cases) {
    CalDate cd{};
    cd.serial = c.serial;
    caldate(&cd);
    EXPECT_EQ(std::vector<int>({cd.year, cd.month, cd.day, cd.hour, cd.minute, cd.second, cd.weekday, cd.era}),
              std::vector<int>({c.year, c.month, c.day, c.hour, c.minute, c.second, c.weekday, c.era}))
        << c.serial;
  }
  CalDate huge{};
  huge.serial = 1e300;  // far beyond any calendar: answered quickly
  caldate(&huge);
  EXPECT_GT(huge.year, 5000000);
  CalDate nan{};
  nan.serial = std::nan("");
  caldate(&nan);
  EXPECT_EQ(nan.era, 3);
}

}  // namespace
