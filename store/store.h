// The store the recorder writes and hosts read: level-1 ticks and bars of
// instruments, in SQLite (sqlite:///path) or PostgreSQL
// (postgresql://user@host:port/db). Writes are upserts on each table's key,
// so a batch written twice leaves the same rows.
#ifndef KELQUOTE_STORE_STORE_H_
#define KELQUOTE_STORE_STORE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kqstore {

// Key: symbol, market, time, seq. Prices as delivered, volumes in lots,
// volume and amount cumulative over the day.
struct Tick {
  std::string symbol;  // the code alone
  std::string market;  // host market code
  int64_t time = 0;    // milliseconds since the epoch
  int32_t seq = 0;     // order among the symbol's ticks of the same time
  double last = 0;
  int64_t volume = 0;
  double amount = 0;
  double bid[5] = {}, ask[5] = {};
  int64_t bid_vol[5] = {}, ask_vol[5] = {};
  int32_t phase = 0;
};

// Key: symbol, market, interval ("1m" or "1d"), time (the bar's end; a
// daily bar carries its day's midnight, as the client's history does).
struct Bar {
  std::string symbol;
  std::string market;
  std::string interval;
  int64_t time = 0;
  double open = 0, high = 0, low = 0, close = 0;
  int64_t volume = 0;
  double amount = 0;
  int64_t open_interest = 0;
};

// One level-2 trade. Key: symbol, market, time, seq.
struct Trade {
  std::string symbol;
  std::string market;
  int64_t time = 0;
  int32_t seq = 0;  // order among the symbol's trades of the same time
  double price = 0;
  int64_t volume = 0;  // shares
  double amount = 0;
  std::string side;  // "B" buyer-initiated, "S" seller-initiated, as the exchange marks it
  int64_t number = 0;  // the exchange's trade number
};

struct Batch {
  std::vector<Tick> ticks;
  std::vector<Bar> bars;
  std::vector<Trade> trades;
  size_t size() const { return ticks.size() + bars.size() + trades.size(); }
  bool empty() const { return ticks.empty() && bars.empty() && trades.empty(); }
};

// One row of the overview: what the store holds of a symbol's interval.
struct Overview {
  std::string symbol, market, interval;
  int64_t count = 0, first = 0, last = 0;
};

class Store {
 public:
  virtual ~Store() = default;

  // Opens (and creates the tables of) the store at url; null with *error
  // set when the url is malformed or the database cannot be reached.
  static std::unique_ptr<Store> Open(const std::string& url, std::string* error);

  // One transaction: everything or nothing. False with *error set; a store
  // whose connection broke tries to reconnect at the next call.
  virtual bool Write(const Batch& batch, std::string* error) = 0;

  // Rows of a symbol with from <= time <= to, in time order.
  virtual bool Bars(const std::string& symbol, const std::string& market, const std::string& interval,
                    int64_t from, int64_t to, std::vector<Bar>* out, std::string* error) = 0;
  virtual bool Ticks(const std::string& symbol, const std::string& market, int64_t from, int64_t to,
                     std::vector<Tick>* out, std::string* error) = 0;
  virtual bool Trades(const std::string& symbol, const std::string& market, int64_t from, int64_t to,
                      std::vector<Trade>* out, std::string* error) = 0;
  virtual bool Overviews(std::vector<Overview>* out, std::string* error) = 0;

  // The time of the symbol's latest row of an interval ("tick" for ticks)
  // before a time; 0 when there is none.
  virtual bool LatestTime(const std::string& symbol, const std::string& market, const std::string& interval,
                          int64_t before, int64_t* time, std::string* error) = 0;
};

// "600000.SH" into its code and market; false when either part is empty.
bool SplitSymbol(const std::string& symbol, std::string* code, std::string* market);

}  // namespace kqstore

#endif  // KELQUOTE_STORE_STORE_H_
