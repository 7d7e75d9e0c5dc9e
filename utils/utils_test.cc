#include <ctime>
#include <vector>

#include <gtest/gtest.h>

#include "port/port.h"

#include "utils/utils.h"

namespace {

// Tests run with TZ=CST-8 (China Standard Time).
TEST(UtilsTimeTest, MillisecondsRoundTripInLocalTime) {
  // 2024-01-02 09:30:15 +08:00 is 01:30:15 UTC.
  int64_t ms = utils::timeToMilliseconds(20240102, 93015);
  EXPECT_EQ(ms, 1704159015000LL);
  EXPECT_EQ(utils::millisecondsToTime(ms), 20240102093015LL);
  EXPECT_EQ(utils::millisecondsToTime(ms + 999), 20240102093015LL);
  EXPECT_EQ(utils::timeToMilliseconds(20240102, 0), 1704124800000LL);
  EXPECT_EQ(utils::timeToMilliseconds(20240229, 235959), utils::timeToMilliseconds(20240301, 0) - 1000);
}

// The conversion that skips mktime gives mktime's result for every date it
// meets, invalid ones (normalised) included, whatever its cache holds.
TEST(UtilsTimeTest, DatesConvertAsMktimeDoes) {
  auto reference = [](int date, int hhmmss) {
    std::tm tm{};
    tm.tm_year = date / 10000 - 1900;
    tm.tm_mon = date / 100 % 100 - 1;
    tm.tm_mday = date % 100;
    tm.tm_hour = hhmmss / 10000;
    tm.tm_min = hhmmss / 100 % 100;
    tm.tm_sec = hhmmss % 100;
    tm.tm_isdst = -1;
    return static_cast<int64_t>(port::MakeLocalTime(&tm)) * 1000;
  };
  std::vector<int> dates = {19700101, 19991231, 20000229, 20240229, 20240230, 20240000, 20241301,
                            20240100, 20239932, 21000301, 20380119, 20380120};
  for (int y = 1971; y <= 2099; y += 3) {
    for (int m = 1; m <= 12; m += 4) dates.push_back(y * 10000 + m * 100 + (y + m) % 31 + 1);
  }
  for (int round = 0; round < 2; ++round) {  // the second round is served from the cache
    for (int date : dates) {
      for (int hhmmss : {0, 93015, 235959, 246000, -1}) {
        ASSERT_EQ(utils::timeToMilliseconds(date, hhmmss), reference(date, hhmmss)) << date << " " << hhmmss;
      }
    }
  }
}

TEST(UtilsTextTest, SplitKeepsEmptyPieces) {
  EXPECT_EQ(utils::split("a-b--c", '-'), (std::vector<std::string>{"a", "b", "", "c"}));
  EXPECT_EQ(utils::split("", '-'), (std::vector<std::string>{""}));
  EXPECT_EQ(utils::split("IF-2106", '-').back(), "2106");
}

TEST(UtilsTextTest, TrimRemovesBlanksOnBothEnds) {
  EXPECT_EQ(utils::trimWhiteSpaces("  N 银行 \t\r\n"), "N 银行");
  EXPECT_EQ(utils::trimWhiteSpaces(" \t "), "");
  EXPECT_EQ(utils::trimWhiteSpaces("x"), "x");
}

TEST(UtilsTextTest, GbkToUtf8) {
  // "shu ju" (data): GBK in, UTF-8 out.
  EXPECT_EQ(utils::safeGbk2Utf8("\xCA\xFD\xBE\xDD"), "\xE6\x95\xB0\xE6\x8D\xAE");
  EXPECT_EQ(utils::safeGbk2Utf8("plain"), "plain");
  // An invalid sequence comes back unchanged rather than half-converted.
  EXPECT_EQ(utils::safeGbk2Utf8("ab\xFF"), "ab\xFF");
}

}  // namespace
