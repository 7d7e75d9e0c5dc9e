// The per-instrument subscription tables. Writers (host threads) copy,
// change and publish; readers (the tick handlers on the service threads)
// take the published snapshot under a lock held only for a pointer copy, so
// a delivery never waits for a subscribe and never sees a table half changed.
#ifndef KELQUOTE_REALTIME_SUBSCRIPTION_TABLE_H_
#define KELQUOTE_REALTIME_SUBSCRIPTION_TABLE_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavr {

struct TickSubscription {
  uint16_t serial;
  uint16_t data_type;
  uint8_t level;  // 0 level 1, 1 level 2
};

class SubscriptionTable {
 public:
  struct Snapshot {
    std::multimap<std::string, TickSubscription> subscribers;  // key "code.market"
    std::map<uint16_t, int32_t> serials;                         // serial -> 1
  };

  SubscriptionTable();

  // Adds an entry; true when no entry of the same key and level existed.
  bool add(const std::string& key, TickSubscription entry);
  // Removes serial's entry under key and its serial; true when the service
  // subscription of key and level must be cancelled, which includes a serial
  // that was never entered (level is then left as passed).
  bool remove(const std::string& key, uint16_t serial, uint8_t& level);

  std::shared_ptr<const Snapshot> snapshot() const {
    std::lock_guard<std::mutex> lock(current_mu_);
    return current_;
  }
  bool holds_serial(uint16_t serial) const { return snapshot()->serials.count(serial) != 0; }

  std::atomic<uint32_t> subscribed_count{0};  // distinct (key, level) pairs subscribed

 private:
  std::mutex mu_;                  // serialises writers
  mutable std::mutex current_mu_;  // guards the pointer, not the snapshot
  std::shared_ptr<const Snapshot> current_;
};

}  // namespace tavr

#endif  // KELQUOTE_REALTIME_SUBSCRIPTION_TABLE_H_
