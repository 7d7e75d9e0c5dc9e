// Calendar arithmetic on yyyymmdd dates for history requests: the default
// start of a long range and the night-session move to the next trade date.
#ifndef KELQUOTE_HISTORY_HIS_DATES_H_
#define KELQUOTE_HISTORY_HIS_DATES_H_

#include <cstdint>

#include "market/calendar.h"

namespace tavr {

// Whether yyyymmdd is a Gregorian calendar date.
bool valid_date(int32_t date);

// The date days calendar days before date; date itself when it is not a
// valid date.
int32_t days_before(int32_t date, int days);

// The date months months before date with its day kept, lowered by one at
// most three times where the target month is shorter (31 -> 28 at the
// lowest); date itself when it is not valid or no valid day is reached.
int32_t months_before(int32_t date, int months);

// A valid date that is neither a Saturday, a Sunday nor a holiday of the
// calendar. Takes the calendar lock.
bool is_trade_date(const Calendar& calendar, int32_t date);

// The first trade date after date; -1 when date is not valid or no trade
// date follows within a year. Takes the calendar lock.
int32_t next_trade_date(const Calendar& calendar, int32_t date);

}  // namespace tavr

#endif  // KELQUOTE_HISTORY_HIS_DATES_H_
