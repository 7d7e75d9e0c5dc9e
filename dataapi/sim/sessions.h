// Trading sessions of the simulated markets: one schedule per product (the
// share boards, indices, funds and options of Shanghai and Shenzhen, Hong
// Kong, each futures product), built once. The live streams trade, match
// their auctions and report their phases by it, and the history's minute
// bars and ticks cover its minutes.
#ifndef KELQUOTE_DATAAPI_SIM_SESSIONS_H_
#define KELQUOTE_DATAAPI_SIM_SESSIONS_H_

#include <cstdint>
#include <utility>
#include <vector>

#include "dataapi/sim/universe.h"

namespace sim {

enum class Phase : uint8_t {
  kPreOpen,
  kOpeningAuction,  // orders, no trades; they match at its end
  kPreTrading,      // between the opening match and continuous trading
  kContinuous,
  kBreak,
  kClosingAuction,  // orders, no trades; they match at its end
  kAfterHours,      // fixed-price trading at the close (STAR and ChiNext)
  kClosed,
};

// One part of a trading day, hhmmss, from included, to excluded.
struct Segment {
  int32_t from;
  int32_t to;
  Phase phase;
};

struct Schedule {
  // Segments of the day part, in order; what they leave out is pre-open
  // before the first and closed after the last.
  std::vector<Segment> day;
  // The night session on the evening before a trading day (futures only):
  // its auction from 20:55, trading from 21:00 to night_end (past
  // midnight when below 210000). 0: none.
  int32_t night_end = 0;
  // The day part's own opening auction, used when there is no night
  // session before it.
  Segment day_auction{0, 0, Phase::kOpeningAuction};
  bool connect = false;  // Hong Kong connect calendar
};

// The schedule of an instrument of the market, shared by every instrument
// of its product.
const Schedule& schedule_of(const Market& market, const Instrument& item);

// Whether the trading day's night session runs on the evening of date:
// date is a trading day and only a weekend lies before the next one.
bool night_session_on(int32_t date);

// What the product does at the local moment date, hhmmss. The day part
// runs on trading days of its calendar, a night session on the evenings
// night_session_on allows and past midnight into the next morning.
struct Moment {
  Phase phase = Phase::kClosed;
  // The trading day's opening match (and closing match) has happened; a
  // day without a session counts as over.
  bool opened = true;
  bool closed = true;
  bool session_day = false;  // a session of the product runs on the day
};
Moment moment_at(const Schedule& schedule, int32_t date, int32_t hhmmss);

// Session phase code of a futures snapshot (11 pre-open, 12 auction, 13
// trading, 14 break, 15 closed).
int phase_code(Phase phase);

// Whether any product of the markets trades continuously at the moment.
bool any_market_trading(int32_t date, int32_t hhmmss);

// The minutes of a trading day that bars cover (continuous trading and the
// closing auction): element date and hhmmss of each minute's first second,
// the night session's first, dated on the evening and past midnight.
std::vector<std::pair<int32_t, int32_t>> session_minutes(const Schedule& schedule, int32_t trading_day);

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_SESSIONS_H_
