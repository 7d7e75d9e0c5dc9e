// What the level-1 handler looks up for an instrument, kept by each service
// thread between its snapshots. At market breadth the lookups (market,
// instrument under the instrument lock, subscriber list under the table's
// lock) cost more than the conversion, and their locks are shared by every
// service thread; a kept route costs two reads of generations instead.
#ifndef KELQUOTE_REALTIME_TICK_ROUTES_H_
#define KELQUOTE_REALTIME_TICK_ROUTES_H_

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "market/base_code_info.h"
#include "market/market_info.h"
#include "realtime/l1_convert.h"
#include "realtime/subscription_table.h"

namespace tavr {

struct TickRoute {
  std::shared_ptr<MarketInfo> market;
  std::shared_ptr<BaseCodeInfo> record;
  InstrumentView view;
  std::string key;  // "code.market", the subscription key
  std::shared_ptr<const SubscriptionTable::List> subscribers;
  // The subscription table's generation the subscribers were fetched under.
  uint64_t subscriptions_generation = 0;
};

// One service thread's routes, by market id and code, all looked up under
// one generation of the instrument tables: when it moves, every route goes,
// so that none outlives its instrument.
class TickRoutes {
 public:
  // Drops every route unless they were looked up under generation.
  void hold(uint64_t generation) {
    if (generation == generation_) return;
    for (auto& routes : by_market_) routes.clear();
    generation_ = generation;
  }
  // The route of code in market id, null when none is kept.
  TickRoute* find(uint8_t market_id, const std::string& code) {
    auto& routes = by_market_[market_id];
    auto it = routes.find(code);
    return it == routes.end() ? nullptr : &it->second;
  }
  TickRoute& put(uint8_t market_id, const std::string& code, TickRoute route) {
    return by_market_[market_id].insert_or_assign(code, std::move(route)).first->second;
  }

  // The routes of the running thread; null outside a service thread.
  static TickRoutes*& current();

 private:
  // A table per market id: a lookup keys by the code the snapshot already
  // carries, with no key of its own to build.
  std::array<std::unordered_map<std::string, TickRoute>, 256> by_market_;
  uint64_t generation_ = 0;
};

}  // namespace tavr

#endif  // KELQUOTE_REALTIME_TICK_ROUTES_H_
