// What the level-1 handler looks up for an instrument, kept by each service
// thread between its snapshots. At market breadth the lookups (market,
// instrument under the instrument lock, subscriber list under the table's
// lock) cost more than the conversion, and their locks are shared by every
// service thread; a kept route costs two reads of generations instead.
#ifndef KELQUOTE_REALTIME_TICK_ROUTES_H_
#define KELQUOTE_REALTIME_TICK_ROUTES_H_

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
  // The generations the route was looked up under: the instrument tables'
  // for everything but the subscribers, the subscription table's for them.
  uint64_t codes_generation = 0;
  uint64_t subscriptions_generation = 0;
};

// One service thread's routes, by market id and code. A route is used only
// while the generation it was filled under stands.
class TickRoutes {
 public:
  // The route of code in market id, null when none is kept.
  TickRoute* find(uint8_t market_id, const std::string& code) {
    auto it = routes_.find(Key(market_id, code));
    return it == routes_.end() ? nullptr : &it->second;
  }
  TickRoute& put(uint8_t market_id, const std::string& code, TickRoute route) {
    return routes_.insert_or_assign(Key(market_id, code), std::move(route)).first->second;
  }
  void erase(uint8_t market_id, const std::string& code) { routes_.erase(Key(market_id, code)); }

  // The routes of the running thread; null outside a service thread.
  static TickRoutes*& current();

 private:
  static std::string Key(uint8_t market_id, const std::string& code) {
    std::string key = code;
    key.push_back(static_cast<char>(market_id));
    return key;
  }
  std::unordered_map<std::string, TickRoute> routes_;
};

}  // namespace tavr

#endif  // KELQUOTE_REALTIME_TICK_ROUTES_H_
