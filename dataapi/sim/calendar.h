// The exchanges' calendar as the simulated service knows it: dates as
// yyyymmdd integers, the public holidays on which the Shanghai and Shenzhen
// exchanges (and with them every market served here) are closed, and the
// trading days that follow from them.
#ifndef KELQUOTE_DATAAPI_SIM_CALENDAR_H_
#define KELQUOTE_DATAAPI_SIM_CALENDAR_H_

#include <cstdint>
#include <vector>

namespace sim {

// Years for which the holiday list is complete. From 2000 to 2007 it holds
// New Year's Day and the three golden weeks only.
constexpr int kFirstHolidayYear = 2008;
constexpr int kFirstListedHolidayYear = 2000;
constexpr int kLastHolidayYear = 2026;

// Days since 1970-01-01 of a yyyymmdd date, and back (proleptic Gregorian).
// Integer arithmetic only, so that every platform agrees.
int64_t days_from_date(int32_t date);
int32_t date_from_days(int64_t days);
int32_t add_days(int32_t date, int64_t days);
// 0 Sunday .. 6 Saturday.
int weekday(int32_t date);
bool is_weekend(int32_t date);

// Every calendar day inside an announced holiday period, ascending. Weekend
// days of a period are listed too: the exchanges are closed on them anyway.
const std::vector<int32_t>& exchange_holidays();
bool is_holiday(int32_t date);
// A weekday that is not a holiday.
bool is_trading_day(int32_t date);
int32_t trading_day_on_or_before(int32_t date);
int32_t previous_trading_day(int32_t date);
int32_t next_trading_day(int32_t date);
// Trading days from first to last, both included.
std::vector<int32_t> trading_days(int32_t first, int32_t last);

// The Hong Kong connect's calendar: a connect day is a trading day of the
// mainland exchanges on which Hong Kong's is open too (its holidays known
// from the connect's start to kLastHolidayYear).
bool is_hk_holiday(int32_t date);
bool is_connect_day(int32_t date);
int32_t connect_day_on_or_before(int32_t date);
std::vector<int32_t> connect_days(int32_t first, int32_t last);

// The process's local date.
int32_t local_today();

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_CALENDAR_H_
