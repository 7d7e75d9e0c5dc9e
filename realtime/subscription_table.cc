#include "realtime/subscription_table.h"

#include <utility>

namespace tavr {

namespace {
const SubscriptionTable::List kNoSubscribers;
}  // namespace

std::shared_ptr<const SubscriptionTable::List> SubscriptionTable::subscribers(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = lists_.find(key);
  if (it != lists_.end()) return it->second;
  // Owns nothing: no count to touch for the many instruments nobody wants.
  return std::shared_ptr<const List>(std::shared_ptr<const List>(), &kNoSubscribers);
}

bool SubscriptionTable::holds_serial(uint16_t serial) const {
  std::lock_guard<std::mutex> lock(mu_);
  return serials_.test(serial);
}

size_t SubscriptionTable::keys() const {
  std::lock_guard<std::mutex> lock(mu_);
  return lists_.size();
}

void SubscriptionTable::publish(const std::string& key, std::shared_ptr<const List> next, uint16_t serial,
                                bool held) {
  std::shared_ptr<const List> old;  // freed after the lock is left
  std::lock_guard<std::mutex> lock(mu_);
  serials_.set(serial, held);
  auto it = lists_.find(key);
  if (next->empty()) {
    if (it != lists_.end()) {
      old = std::move(it->second);
      lists_.erase(it);
    }
  } else if (it != lists_.end()) {
    old = std::exchange(it->second, std::move(next));
  } else {
    lists_.emplace(key, std::move(next));
  }
  generation_.fetch_add(1, std::memory_order_acq_rel);
}

bool SubscriptionTable::add(const std::string& key, TickSubscription entry) {
  std::lock_guard<std::mutex> lock(write_mu_);
  auto it = lists_.find(key);  // writers are serialised: no reader changes lists_
  auto next = std::make_shared<List>();
  bool fresh = true;
  if (it != lists_.end()) {
    next->reserve(it->second->size() + 1);
    for (const TickSubscription& held : *it->second) {
      if (held.level == entry.level) fresh = false;
      next->push_back(held);
    }
  }
  if (fresh) subscribed_count.fetch_add(1);
  next->push_back(entry);
  publish(key, std::move(next), entry.serial, true);
  return fresh;
}

bool SubscriptionTable::remove(const std::string& key, uint16_t serial, uint8_t& level) {
  std::lock_guard<std::mutex> lock(write_mu_);
  auto it = lists_.find(key);
  std::shared_ptr<List> next;
  bool found = false;
  if (it != lists_.end()) {
    next = std::make_shared<List>();
    next->reserve(it->second->size());
    for (const TickSubscription& held : *it->second) {
      if (!found && held.serial == serial) {
        found = true;
        level = held.level;
        continue;
      }
      next->push_back(held);
    }
  }
  if (!found) {
    std::lock_guard<std::mutex> serials_lock(mu_);
    serials_.reset(serial);
    return true;
  }
  bool cancel = true;
  for (const TickSubscription& rest : *next) {
    if (rest.level == level) cancel = false;
  }
  publish(key, std::move(next), serial, false);
  return cancel;
}

}  // namespace tavr
