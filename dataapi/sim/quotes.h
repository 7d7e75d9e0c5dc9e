// Real-time quotes of the simulated service: every instrument's price walks
// from its reference close, on its tick and inside its daily limits, and
// each step trades. The level-1 snapshots, whole-market packages and level-2
// messages are built from the same walk, so that they agree with each other.
//
// A walk is a function of the universe's seed, the market, the code and the
// trading day, and of the number of steps taken: the same subscriptions give
// the same quotes. Prices move at any hour (a simulator serves hosts at any
// hour), except a STAR share's during its after-hours window, when trading
// is at the close.
#ifndef KELQUOTE_DATAAPI_SIM_QUOTES_H_
#define KELQUOTE_DATAAPI_SIM_QUOTES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "dataapi/ApiRecords.h"
#include "dataapi/sim/replies.h"
#include "dataapi/sim/universe.h"

namespace sim {

// The local time of day of a send.
struct Stamp {
  int32_t hhmmss = 0;
  int32_t millis = 0;  // 0 to 999
};

// STAR shares' after-hours fixed-price trading: orders from the first time
// on, matches from kAfterHoursMatch until kAfterHoursEnd, the window closed
// after the last time.
constexpr int32_t kAfterHoursFirst = 150001;
constexpr int32_t kAfterHoursMatch = 150500;
constexpr int32_t kAfterHoursEnd = 153000;
constexpr int32_t kAfterHoursLast = 153005;

// Session phase codes of the futures markets' snapshots.
enum FuturesPhase : int {
  kPhasePreOpen = 11,
  kPhaseAuction = 12,
  kPhaseTrading = 13,
  kPhaseBreak = 14,
  kPhaseClosed = 15,
};
int futures_phase(const Market& market, int32_t hhmmss);

// Position of code among the market's instruments, or -1.
int find_instrument(const Market& market, std::string_view code);

// The level-2 messages of one send, each an ApiL2Head and its records; an
// empty one is not sent.
struct Level2Messages {
  bool index = false;  // snapshot holds an ApiL2Index rather than an ApiL2Snapshot
  Bytes snapshot;
  Bytes transactions;
  Bytes orders;
  Bytes queues;  // ApiL2OrderQueue records at their own stride, in room for the adapter's
};

// The order-queue element as the library's adapter copies it per count.
constexpr size_t kQueueRoom = 864;

class QuoteBook {
 public:
  explicit QuoteBook(uint64_t seed) : seed_(seed) {}

  // Forgets the market's walks: its prices, limits or instruments changed.
  void reset_market(int market_id) { states_.erase(market_id); }

  // One step of the instrument's walk (market.instruments[index]), then its
  // snapshot.
  ApiL1Tick level1(const Market& market, size_t index, const Stamp& now);
  // One step of every instrument of the market, then an ApiMarketPushHead
  // and every instrument's snapshot.
  Bytes market_package(const Market& market, const Stamp& now);
  // One step, then the level-2 messages: the snapshot (an index's for an
  // index), the step's trades, a few new orders and the best prices' queues.
  Level2Messages level2(const Market& market, size_t index, const Stamp& now);

  struct Trade {
    int64_t price;  // units of the instrument's digits
    int64_t shares;
    bool buy;  // the buyer took the offer
  };
  struct Step {
    int count = 0;
    Trade trades[4];
  };

  // One instrument's walk; prices in units of 10^-price_digits.
  struct State {
    bool started = false;
    uint64_t rng = 0;
    int64_t tick = 1;
    int64_t move = 1;  // one move of the price, a whole number of ticks
    int64_t floor = 0;  // the walk's bounds: the limits, or a band for none
    int64_t ceiling = 0;
    bool limited = false;
    int64_t lot = 1;  // shares of a lot of the trades and the depth
    int64_t last = 0, open = 0, high = 0, low = 0;
    double volume = 0;  // shares
    double turnover = 0;
    uint32_t trade_count = 0;
    uint64_t depth_seed = 0;  // the depth of the latest step
    double open_interest = 0;
    uint32_t trade_number = 0;
    uint32_t order_number = 0;
    // After-hours trading of a STAR share; close is fixed when the window opens.
    bool after_hours = false;
    int64_t close = 0;
    int32_t after_volume = 0;
    double after_turnover = 0;
    uint32_t after_trades = 0;
    int32_t after_bid = 0;
    int32_t after_ask = 0;
  };

 private:
  State& state(const Market& market, size_t index);
  // Advances the walk one step; the trades it made.
  Step step(const Market& market, size_t index, State& s, const Stamp& now);
  ApiL1Tick snapshot(const Market& market, const Instrument& item, const State& s, const Stamp& now) const;

  uint64_t seed_;
  // Per market, a state per instrument, started at its first step.
  std::map<int, std::vector<State>> states_;
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_QUOTES_H_
