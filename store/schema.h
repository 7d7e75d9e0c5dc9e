// Table definitions and column lists shared by the two back ends.
#ifndef KELQUOTE_STORE_SCHEMA_H_
#define KELQUOTE_STORE_SCHEMA_H_

#include <set>
#include <string>
#include <tuple>

#include "store/store.h"

namespace kqstore {

// The tick columns after the key, in table order.
inline const char* TickValueColumns() {
  return "last,volume,amount,bid1,bid2,bid3,bid4,bid5,ask1,ask2,ask3,ask4,ask5,"
         "bid_vol1,bid_vol2,bid_vol3,bid_vol4,bid_vol5,ask_vol1,ask_vol2,ask_vol3,ask_vol4,ask_vol5,phase";
}
constexpr int kTickColumns = 28;  // key (4) and values (24)
inline const char* BarValueColumns() { return "open,high,low,close,volume,amount,open_interest"; }
constexpr int kBarColumns = 11;

// The (symbol, market, interval) keys a batch's bars touch, for the overview.
using SeriesKey = std::tuple<std::string, std::string, std::string>;
inline std::set<SeriesKey> TouchedSeries(const Batch& batch) {
  std::set<SeriesKey> keys;
  for (const Bar& b : batch.bars) keys.emplace(b.symbol, b.market, b.interval);
  return keys;
}

}  // namespace kqstore

#endif  // KELQUOTE_STORE_SCHEMA_H_
