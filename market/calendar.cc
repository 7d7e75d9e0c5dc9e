#include "market/calendar.h"

#include <chrono>

namespace tavr {

namespace {

using std::chrono::year_month_day;

year_month_day Ymd(int32_t date) {
  return year_month_day(std::chrono::year(date / 10000), std::chrono::month(static_cast<unsigned>(date / 100 % 100)),
                        std::chrono::day(static_cast<unsigned>(date % 100)));
}

int32_t Date(const year_month_day& ymd) {
  return static_cast<int>(ymd.year()) * 10000 + static_cast<int>(static_cast<unsigned>(ymd.month())) * 100 +
         static_cast<int>(static_cast<unsigned>(ymd.day()));
}

bool Weekend(std::chrono::sys_days day) {
  std::chrono::weekday wd(day);
  return wd == std::chrono::Saturday || wd == std::chrono::Sunday;
}

// The caller holds the calendar lock.
bool Closed(const Calendar& calendar, std::chrono::sys_days day) {
  return Weekend(day) || calendar.holidays.count(Date(year_month_day(day))) != 0;
}

}  // namespace

void Calendar::reset() {
  std::lock_guard<std::mutex> lock(mu);
  earliest_date = kEarliestDate;
  max_trade_date = 0;
}

bool valid_date(int32_t date) {
  // Years the calendar types hold without doubt; no exchange date lies outside.
  return date >= 10000101 && date <= 99991231 && Ymd(date).ok();
}

bool is_weekend(int32_t date) { return valid_date(date) && Weekend(std::chrono::sys_days(Ymd(date))); }

int32_t add_days(int32_t date, int days) {
  if (!valid_date(date)) return date;
  return Date(year_month_day(std::chrono::sys_days(Ymd(date)) + std::chrono::days(days)));
}

bool is_trade_date(const Calendar& calendar, int32_t date) {
  if (!valid_date(date)) return false;
  std::lock_guard<std::mutex> lock(calendar.mu);
  return !Closed(calendar, std::chrono::sys_days(Ymd(date)));
}

int32_t next_trade_date(const Calendar& calendar, int32_t date) {
  if (!valid_date(date)) return -1;
  std::chrono::sys_days day(Ymd(date));
  std::lock_guard<std::mutex> lock(calendar.mu);
  for (int step = 0; step < 366; ++step) {
    day += std::chrono::days(1);
    if (!Closed(calendar, day)) return Date(year_month_day(day));
  }
  return -1;
}

}  // namespace tavr
