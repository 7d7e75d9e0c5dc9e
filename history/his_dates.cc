#include "history/his_dates.h"

#include <chrono>
#include <mutex>

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

// Saturday, Sunday or a holiday; the caller holds the calendar lock.
bool Closed(const Calendar& calendar, const year_month_day& ymd) {
  std::chrono::weekday wd{std::chrono::sys_days(ymd)};
  return wd == std::chrono::Saturday || wd == std::chrono::Sunday || calendar.holidays.count(Date(ymd)) != 0;
}

}  // namespace

bool valid_date(int32_t date) {
  // Years the calendar types hold without doubt; no exchange date lies outside.
  return date >= 10000101 && date <= 99991231 && Ymd(date).ok();
}

int32_t days_before(int32_t date, int days) {
  if (!valid_date(date)) return date;
  return Date(year_month_day(std::chrono::sys_days(Ymd(date)) - std::chrono::days(days)));
}

int32_t months_before(int32_t date, int months) {
  if (!valid_date(date)) return date;
  year_month_day ymd = Ymd(date);
  auto ym = std::chrono::year_month(ymd.year(), ymd.month()) - std::chrono::months(months);
  unsigned day = static_cast<unsigned>(ymd.day());
  for (int lowered = 0; lowered <= 3; ++lowered, --day) {
    year_month_day target(ym.year(), ym.month(), std::chrono::day(day));
    if (target.ok()) return Date(target);
  }
  return date;
}

bool is_trade_date(const Calendar& calendar, int32_t date) {
  if (!valid_date(date)) return false;
  std::lock_guard<std::mutex> lock(calendar.mu);
  return !Closed(calendar, Ymd(date));
}

int32_t next_trade_date(const Calendar& calendar, int32_t date) {
  if (!valid_date(date)) return -1;
  std::chrono::sys_days day(Ymd(date));
  std::lock_guard<std::mutex> lock(calendar.mu);
  for (int step = 0; step < 366; ++step) {
    day += std::chrono::days(1);
    year_month_day ymd(day);
    if (!Closed(calendar, ymd)) return Date(ymd);
  }
  return -1;
}

}  // namespace tavr
