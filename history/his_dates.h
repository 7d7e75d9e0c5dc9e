// The default start of a long history range; the rest of the calendar
// arithmetic is the calendar's (market/calendar.h).
#ifndef KELQUOTE_HISTORY_HIS_DATES_H_
#define KELQUOTE_HISTORY_HIS_DATES_H_

#include <cstdint>

#include "market/calendar.h"

namespace tavr {

// The date months months before date with its day kept, lowered by one at
// most three times where the target month is shorter (31 -> 28 at the
// lowest); date itself when it is not valid or no valid day is reached.
int32_t months_before(int32_t date, int months);

}  // namespace tavr

#endif  // KELQUOTE_HISTORY_HIS_DATES_H_
