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

}  // namespace tavr

#endif  // KELQUOTE_MARKET_CALENDAR_H_
