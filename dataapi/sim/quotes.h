// Real-time quotes of the simulated service: every instrument's price walks
// from its reference close, on its tick grid and inside its daily limits,
// and trades while its product's session is in continuous trading, with the
// auctions matching at their ends. The level-1 snapshots, whole-market
// packages and level-2 messages are built from the same walk, so that they
// agree with each other.
//
// A walk is a function of the universe's seed, the market, the code and the
// trading day, and of the clock: it takes one step per step of the clock,
// however many streams read it. The same clock gives the same quotes.
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

// The simulator's clock at a send: the local date and time of day, and the
// number of steps the clock has taken (the walks catch up to it).
struct Stamp {
  int32_t hhmmss = 0;
  int32_t millis = 0;  // 0 to 999
  int32_t date = 0;    // 0: the market's trading day
  int64_t step = 0;
};

// Steps a walk takes at most to catch up with the clock; a walk read less
// often skips the rest.
constexpr int64_t kMaxCatchUp = 64;

// STAR and ChiNext shares' after-hours fixed-price trading: orders from the
// first time on, matches from kAfterHoursMatch until kAfterHoursEnd, the
// window closed after the last time.
constexpr int32_t kAfterHoursFirst = 150001;
constexpr int32_t kAfterHoursMatch = 150500;
constexpr int32_t kAfterHoursEnd = 153000;
constexpr int32_t kAfterHoursLast = 153005;

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
  void reset_market(int market_id) {
    states_.erase(market_id);
    constituents_.erase(market_id);
  }

  // The instrument's walk (market.instruments[index]) caught up with the
  // clock, then its snapshot.
  ApiL1Tick level1(const Market& market, size_t index, const Stamp& now);
  // Every instrument of the market caught up, then an ApiMarketPushHead and
  // every instrument's snapshot.
  Bytes market_package(const Market& market, const Stamp& now);
  // The walk caught up, then the level-2 messages: the snapshot (an index's
  // for an index), the trades since the last level-2 send, a few new orders
  // and the best prices' queues.
  Level2Messages level2(const Market& market, size_t index, const Stamp& now);

  struct Trade {
    int64_t price;  // units of the instrument's digits
    int64_t shares;
    bool buy;  // the buyer took the offer
    int32_t hhmmss;  // when it traded
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
    int64_t lot = 1;  // shares of the depth's and orders' unit
    int64_t min_order = 1;  // an order's least shares
    int64_t last = 0, open = 0, high = 0, low = 0;
    double volume = 0;  // shares
    double turnover = 0;
    uint32_t trade_count = 0;
    uint64_t depth_seed = 0;  // the depth of the latest step
    double open_interest = 0;
    uint32_t trade_number = 0;
    uint32_t order_number = 0;
    int64_t at_step = 0;  // the clock step the walk has reached
    int64_t read_step = -1;  // the moment of the latest read
    int32_t read_date = 0;
    int32_t read_time = -1;
    int64_t planned_open = 0;  // the opening auction's price
    bool open_done = false;   // the opening auction has matched
    bool close_done = false;  // the closing auction has matched
    bool in_auction = false;  // the latest read fell in the opening auction
    int phase_code = 15;      // of the latest read
    bool level2 = false;      // a level-2 stream reads the trades
    std::vector<Trade> unsent;  // trades since the last level-2 send
    // After-hours trading of a STAR or ChiNext share; close is fixed when the window opens.
    bool after_hours = false;
    int64_t close = 0;
    int32_t after_volume = 0;
    double after_turnover = 0;
    uint32_t after_trades = 0;
    int32_t after_bid = 0;
    int32_t after_ask = 0;
  };

 private:
  State& state(const Market& market, size_t index, const Stamp& now);
  // Brings the walk to the clock: the auctions' matches and the continuous
  // steps due; an index's volume and turnover from its constituents.
  State& advance(const Market& market, size_t index, const Stamp& now);
  void step(const Instrument& item, State& s, const Stamp& now);
  void trade(const Instrument& item, State& s, const Trade& t);
  void after_hours(const Instrument& item, State& s, const Stamp& now);
  const std::vector<size_t>& constituents(const Market& market, size_t index);
  ApiL1Tick snapshot(const Market& market, const Instrument& item, const State& s, const Stamp& now) const;

  uint64_t seed_;
  // Per market, a state per instrument, started at its first read.
  std::map<int, std::vector<State>> states_;
  // Per market, each index's constituents (positions of shares).
  std::map<int, std::map<size_t, std::vector<size_t>>> constituents_;
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_QUOTES_H_
