// Trading calendars and Hong Kong connect exchange rates.
#ifndef KELQUOTE_MARKET_CALENDAR_H_
#define KELQUOTE_MARKET_CALENDAR_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace tavr {

struct Calendar {
  static constexpr int32_t kEarliestDate = 19901219;

  // Back to the state after init: earliest date 19901219, nothing else known.
  void reset();

  mutable std::mutex mu;  // the calendar lock: guards every field below
  int32_t earliest_date = kEarliestDate;
  int32_t max_trade_date = 0;
  std::set<int32_t> holidays;
  std::set<int32_t> trade_days;
  std::map<int32_t, std::pair<float, float>> hk_rates;
  bool trade_days_ready = false;
  bool hk_rates_ready = false;
};

// Calendar arithmetic on yyyymmdd dates (proleptic Gregorian).
// Whether date is a calendar date of the years 1000 to 9999.
bool valid_date(int32_t date);
// Saturday or Sunday; false for an invalid date.
bool is_weekend(int32_t date);
// The date days calendar days after date (before, when negative); date
// itself when it is not valid.
int32_t add_days(int32_t date, int days);

// A valid date that is neither a Saturday, a Sunday nor a holiday of the
// calendar. Takes the calendar lock.
bool is_trade_date(const Calendar& calendar, int32_t date);
// The first trade date after date; -1 when date is not valid or no trade
// date follows within a year. Takes the calendar lock.
int32_t next_trade_date(const Calendar& calendar, int32_t date);

}  // namespace tavr

#endif  // KELQUOTE_MARKET_CALENDAR_H_
