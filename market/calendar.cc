#include "market/calendar.h"

namespace tavr {

void Calendar::reset() {
  std::lock_guard<std::mutex> lock(mu);
  earliest_date = kEarliestDate;
  max_trade_date = 0;
}

}  // namespace tavr
