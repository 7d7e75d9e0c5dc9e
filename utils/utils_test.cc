#include <gtest/gtest.h>

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

TEST(UtilsTimeTest, CachedDateGivesSameResultAsFreshConversion) {
  int64_t first = utils::timeToMilliseconds(20230615, 150000);
  utils::timeToMilliseconds(20230616, 100000);  // move the cache to another date
  EXPECT_EQ(utils::timeToMilliseconds(20230615, 150000), first);
  EXPECT_EQ(utils::timeToMilliseconds(20230615, 150001) - first, 1000);
  // An out-of-range time of day is normalised, not taken from the cache.
  EXPECT_EQ(utils::timeToMilliseconds(20230615, 246000), utils::timeToMilliseconds(20230616, 10000));
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
