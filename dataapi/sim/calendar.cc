#include "dataapi/sim/calendar.h"

#include <algorithm>
#include <iterator>

#include "utils/utils.h"

namespace sim {

namespace {

// Holiday periods as the exchanges announced them (first and last day of
// each closure, both included). Make-up working weekends do not open the
// exchanges and are left out.
struct Period {
  int32_t first;
  int32_t last;
};

constexpr Period kPeriods[] = {
    // 2000 to 2007: New Year's Day and the three golden weeks (Spring
    // Festival from its first day, Labour Day, National Day). The exchanges
    // closed for these at least; days they added around them are not known
    // here.
    {20000101, 20000101}, {20000205, 20000211}, {20000501, 20000507}, {20001001, 20001007},
    {20010101, 20010101}, {20010124, 20010130}, {20010501, 20010507}, {20011001, 20011007},
    {20020101, 20020101}, {20020212, 20020218}, {20020501, 20020507}, {20021001, 20021007},
    {20030101, 20030101}, {20030201, 20030207}, {20030501, 20030507}, {20031001, 20031007},
    {20040101, 20040101}, {20040122, 20040128}, {20040501, 20040507}, {20041001, 20041007},
    {20050101, 20050103}, {20050209, 20050215}, {20050501, 20050507}, {20051001, 20051007},
    {20060101, 20060103}, {20060129, 20060204}, {20060501, 20060507}, {20061001, 20061007},
    {20070101, 20070103}, {20070218, 20070224}, {20070501, 20070507}, {20071001, 20071007},
    // 2008, the first year with Qingming, Dragon Boat and Mid-Autumn
    {20071230, 20080101}, {20080206, 20080212}, {20080404, 20080406}, {20080501, 20080503},
    {20080607, 20080609}, {20080913, 20080915}, {20080929, 20081005},
    // 2009
    {20090101, 20090103}, {20090125, 20090131}, {20090404, 20090406}, {20090501, 20090503},
    {20090528, 20090530}, {20091001, 20091008},
    // 2010
    {20100101, 20100103}, {20100213, 20100219}, {20100403, 20100405}, {20100501, 20100503},
    {20100614, 20100616}, {20100922, 20100924}, {20101001, 20101007},
    // 2011
    {20110101, 20110103}, {20110202, 20110208}, {20110403, 20110405}, {20110430, 20110502},
    {20110604, 20110606}, {20110910, 20110912}, {20111001, 20111007},
    // 2012
    {20120101, 20120103}, {20120122, 20120128}, {20120402, 20120404}, {20120429, 20120501},
    {20120622, 20120624}, {20120930, 20121007},
    // 2013
    {20130101, 20130103}, {20130209, 20130215}, {20130404, 20130406}, {20130429, 20130501},
    {20130610, 20130612}, {20130919, 20130921}, {20131001, 20131007},
    // 2014
    {20140101, 20140101}, {20140131, 20140206}, {20140405, 20140407}, {20140501, 20140503},
    {20140531, 20140602}, {20140906, 20140908}, {20141001, 20141007},
    // 2015, with the closure for the victory anniversary in September
    {20150101, 20150103}, {20150218, 20150224}, {20150404, 20150406}, {20150501, 20150503},
    {20150620, 20150622}, {20150903, 20150905}, {20150926, 20150927}, {20151001, 20151007},
    // 2016
    {20160101, 20160103}, {20160207, 20160213}, {20160402, 20160404}, {20160430, 20160502},
    {20160609, 20160611}, {20160915, 20160917}, {20161001, 20161007},
    // 2017 (New Year's period starts in 2016)
    {20161231, 20170102}, {20170127, 20170202}, {20170402, 20170404}, {20170429, 20170501},
    {20170528, 20170530}, {20171001, 20171008},
    // 2018
    {20171230, 20180101}, {20180215, 20180221}, {20180405, 20180407}, {20180429, 20180501},
    {20180616, 20180618}, {20180922, 20180924}, {20181001, 20181007},
    // 2019
    {20181230, 20190101}, {20190204, 20190210}, {20190405, 20190407}, {20190501, 20190504},
    {20190607, 20190609}, {20190913, 20190915}, {20191001, 20191007},
    // 2020, Spring Festival closure extended to 2 February
    {20200101, 20200101}, {20200124, 20200202}, {20200404, 20200406}, {20200501, 20200505},
    {20200625, 20200627}, {20201001, 20201008},
    // 2021
    {20210101, 20210103}, {20210211, 20210217}, {20210403, 20210405}, {20210501, 20210505},
    {20210612, 20210614}, {20210919, 20210921}, {20211001, 20211007},
    // 2022
    {20220101, 20220103}, {20220131, 20220206}, {20220403, 20220405}, {20220430, 20220504},
    {20220603, 20220605}, {20220910, 20220912}, {20221001, 20221007},
    // 2023
    {20221231, 20230102}, {20230121, 20230127}, {20230405, 20230405}, {20230429, 20230503},
    {20230622, 20230624}, {20230929, 20231006},
    // 2024, the exchanges also closed on New Year's Eve (9 February)
    {20240101, 20240101}, {20240209, 20240217}, {20240404, 20240406}, {20240501, 20240505},
    {20240608, 20240610}, {20240915, 20240917}, {20241001, 20241007},
    // 2025
    {20250101, 20250101}, {20250128, 20250204}, {20250404, 20250406}, {20250501, 20250505},
    {20250531, 20250602}, {20251001, 20251008},
    // 2026
    {20260101, 20260103}, {20260215, 20260223}, {20260404, 20260406}, {20260501, 20260505},
    {20260619, 20260621}, {20260925, 20260927}, {20261001, 20261007},
};

// Hong Kong exchange holidays that follow the lunar calendar or move with
// it, from the connect's start: the Buddha's Birthday, the day after
// Mid-Autumn, Chung Yeung, and Ching Ming when Easter pushed it on (each as
// observed, a Sunday's moved to the Monday). The others follow from rules;
// the Lunar New Year's days fall inside the mainland's closure every year.
constexpr int32_t kHKLunarHolidays[] = {
    20141002, 20150407, 20150525, 20150928, 20151021, 20160514, 20160916, 20161010, 20170503, 20171005,
    20171028, 20180522, 20180925, 20181017, 20190513, 20190914, 20191007, 20200430, 20201002, 20201026,
    20210406, 20210519, 20210922, 20211014, 20220509, 20220912, 20221004, 20230526, 20230930, 20231023,
    20240515, 20240918, 20241011, 20250505, 20251007, 20251029, 20260407, 20260525, 20260926, 20261019,
};

// Easter Sunday of a year (the Gregorian computus).
int32_t EasterSunday(int y) {
  int a = y % 19, b = y / 100, c = y % 100, d = b / 4, e = b % 4, f = (b + 8) / 25, g = (b - f + 1) / 3;
  int h = (19 * a + b - d - g + 15) % 30, i = c / 4, k = c % 4, l = (32 + 2 * e + 2 * i - h - k) % 7;
  int m = (a + 11 * h + 22 * l) / 451;
  int month = (h + l - 7 * m + 114) / 31, day = (h + l - 7 * m + 114) % 31 + 1;
  return y * 10000 + month * 100 + day;
}

// The Hong Kong holidays fixed by rule: New Year, Good Friday and Easter
// Monday, Labour Day, the Establishment Day, National Day and Christmas (a
// Sunday's holiday moves to the Monday; Christmas takes two weekdays).
bool HKRuleHoliday(int32_t date) {
  int y = date / 10000, md = date % 10000;
  int32_t easter = EasterSunday(y);
  if (date == add_days(easter, -2) || date == add_days(easter, 1)) return true;
  for (int fixed : {101, 501, 701, 1001}) {
    int32_t day = y * 10000 + fixed;
    if (date == day || (weekday(day) == 0 && date == add_days(day, 1))) return true;
  }
  if (md == 1225 || md == 1226) return true;
  // Christmas on a Saturday or Sunday: the 27th too.
  return md == 1227 && (weekday(y * 10000 + 1225) == 0 || weekday(y * 10000 + 1225) == 6);
}

std::vector<int32_t> ExpandPeriods() {
  std::vector<int32_t> days;
  for (const Period& period : kPeriods) {
    for (int32_t day = period.first; day <= period.last; day = add_days(day, 1)) days.push_back(day);
  }
  std::sort(days.begin(), days.end());
  days.erase(std::unique(days.begin(), days.end()), days.end());
  return days;
}

}  // namespace

int64_t days_from_date(int32_t date) {
  int64_t y = date / 10000;
  int64_t m = date / 100 % 100;
  int64_t d = date % 100;
  y -= m <= 2 ? 1 : 0;
  int64_t era = (y >= 0 ? y : y - 399) / 400;
  int64_t yoe = y - era * 400;
  int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

int32_t date_from_days(int64_t days) {
  days += 719468;
  int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  int64_t doe = days - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int64_t d = doy - (153 * mp + 2) / 5 + 1;
  int64_t m = mp < 10 ? mp + 3 : mp - 9;
  int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);
  return static_cast<int32_t>(y * 10000 + m * 100 + d);
}

int32_t add_days(int32_t date, int64_t days) { return date_from_days(days_from_date(date) + days); }

int weekday(int32_t date) {
  // 1970-01-01 was a Thursday.
  int64_t w = (days_from_date(date) + 4) % 7;
  return static_cast<int>(w < 0 ? w + 7 : w);
}

bool is_weekend(int32_t date) {
  int w = weekday(date);
  return w == 0 || w == 6;
}

const std::vector<int32_t>& exchange_holidays() {
  static const std::vector<int32_t> days = ExpandPeriods();
  return days;
}

bool is_holiday(int32_t date) {
  const auto& days = exchange_holidays();
  return std::binary_search(days.begin(), days.end(), date);
}

bool is_trading_day(int32_t date) { return !is_weekend(date) && !is_holiday(date); }

int32_t trading_day_on_or_before(int32_t date) {
  while (!is_trading_day(date)) date = add_days(date, -1);
  return date;
}

int32_t previous_trading_day(int32_t date) { return trading_day_on_or_before(add_days(date, -1)); }

int32_t next_trading_day(int32_t date) {
  do {
    date = add_days(date, 1);
  } while (!is_trading_day(date));
  return date;
}

std::vector<int32_t> trading_days(int32_t first, int32_t last) {
  std::vector<int32_t> days;
  for (int32_t day = first; day <= last; day = add_days(day, 1)) {
    if (is_trading_day(day)) days.push_back(day);
  }
  return days;
}

bool is_hk_holiday(int32_t date) {
  return HKRuleHoliday(date) || std::binary_search(std::begin(kHKLunarHolidays), std::end(kHKLunarHolidays), date);
}

bool is_connect_day(int32_t date) { return is_trading_day(date) && !is_hk_holiday(date); }

int32_t connect_day_on_or_before(int32_t date) {
  while (!is_connect_day(date)) date = add_days(date, -1);
  return date;
}

std::vector<int32_t> connect_days(int32_t first, int32_t last) {
  std::vector<int32_t> days;
  for (int32_t day = first; day <= last; day = add_days(day, 1)) {
    if (is_connect_day(day)) days.push_back(day);
  }
  return days;
}

int32_t local_today() {
  auto ms = static_cast<int64_t>(utils::getTime() * 1000.0);
  return static_cast<int32_t>(utils::millisecondsToTime(ms) / 1000000);
}

}  // namespace sim
