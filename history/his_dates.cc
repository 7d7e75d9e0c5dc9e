#include "history/his_dates.h"

#include <chrono>

namespace tavr {

int32_t months_before(int32_t date, int months) {
  if (!valid_date(date)) return date;
  std::chrono::year_month_day ymd(std::chrono::year(date / 10000),
                                  std::chrono::month(static_cast<unsigned>(date / 100 % 100)),
                                  std::chrono::day(static_cast<unsigned>(date % 100)));
  auto ym = std::chrono::year_month(ymd.year(), ymd.month()) - std::chrono::months(months);
  unsigned day = static_cast<unsigned>(ymd.day());
  for (int lowered = 0; lowered <= 3; ++lowered, --day) {
    std::chrono::year_month_day target(ym.year(), ym.month(), std::chrono::day(day));
    if (target.ok()) {
      return static_cast<int>(target.year()) * 10000 + static_cast<int>(static_cast<unsigned>(target.month())) * 100 +
             static_cast<int>(day);
    }
  }
  return date;
}

}  // namespace tavr
