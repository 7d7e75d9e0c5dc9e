#include "realtime/subscription_table.h"

#include <utility>

namespace tavr {

SubscriptionTable::SubscriptionTable() : current_(std::make_shared<const Snapshot>()) {}

bool SubscriptionTable::add(const std::string& key, TickSubscription entry) {
  std::lock_guard<std::mutex> lock(mu_);
  auto next = std::make_shared<Snapshot>(*snapshot());
  bool fresh = true;
  auto [begin, end] = next->subscribers.equal_range(key);
  for (auto it = begin; it != end; ++it) {
    if (it->second.level == entry.level) fresh = false;
  }
  if (fresh) subscribed_count.fetch_add(1);
  next->subscribers.emplace(key, entry);  // after equal keys: insertion order
  next->serials.emplace(entry.serial, 1);
  std::shared_ptr<const Snapshot> old;
  {
    std::lock_guard<std::mutex> lock(current_mu_);
    old = std::exchange(current_, std::move(next));
  }
  return fresh;
}

bool SubscriptionTable::remove(const std::string& key, uint16_t serial, uint8_t& level) {
  std::lock_guard<std::mutex> lock(mu_);
  auto next = std::make_shared<Snapshot>(*snapshot());
  bool cancel = true;
  auto [begin, end] = next->subscribers.equal_range(key);
  for (auto it = begin; it != end; ++it) {
    if (it->second.serial != serial) continue;
    level = it->second.level;
    next->subscribers.erase(it);
    auto [rest, rest_end] = next->subscribers.equal_range(key);
    for (auto r = rest; r != rest_end; ++r) {
      if (r->second.level == level) cancel = false;
    }
    break;
  }
  next->serials.erase(serial);
  std::shared_ptr<const Snapshot> old;
  {
    std::lock_guard<std::mutex> lock(current_mu_);
    old = std::exchange(current_, std::move(next));
  }
  return cancel;
}

}  // namespace tavr
