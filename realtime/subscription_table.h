// The per-instrument subscription tables. Each instrument key has its own
// subscriber list, which is never changed once published: a subscribe or
// unsubscribe builds that one instrument's next list and swaps the pointer,
// so a change costs the instrument's subscribers, not the whole table. The
// tick handlers on the service threads hold the lock only to find the key
// and copy the pointer, so a delivery never waits for a subscribe and never
// sees a list half changed.
#ifndef KELQUOTE_REALTIME_SUBSCRIPTION_TABLE_H_
#define KELQUOTE_REALTIME_SUBSCRIPTION_TABLE_H_

#include <array>
#include <atomic>
#include <functional>
#include <bitset>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavr {

struct TickSubscription {
  uint16_t serial;
  uint16_t data_type;
  uint8_t level;  // 0 level 1, 1 level 2
};

class SubscriptionTable {
 public:
  // One instrument's entries in subscription order.
  using List = std::vector<TickSubscription>;

  // Adds an entry; true when no entry of the same key and level existed.
  bool add(const std::string& key, TickSubscription entry);
  // Removes serial's entry under key and its serial; true when the service
  // subscription of key and level must be cancelled, which includes a serial
  // that was never entered (level is then left as passed).
  bool remove(const std::string& key, uint16_t serial, uint8_t& level);

  // The entries of key (empty when none); a list never changes while held.
  std::shared_ptr<const List> subscribers(const std::string& key) const;
  bool holds_serial(uint16_t serial) const;
  // Advances whenever a list changes: a service thread may keep a list it
  // fetched for as long as the generation stands.
  uint64_t generation() const { return generation_.load(std::memory_order_acquire); }
  // Instrument keys with at least one entry.
  size_t keys() const;

  // Held across a change of key's entries and the matching call to the
  // service, so that what the service was last told for an instrument agrees
  // with the table whatever the interleaving of subscribes and unsubscribes.
  std::mutex& change_lock(const std::string& key) {
    return change_mu_[std::hash<std::string>()(key) % change_mu_.size()];
  }

  std::atomic<uint32_t> subscribed_count{0};  // distinct (key, level) pairs subscribed

 private:
  // Publishes next as key's list (dropping the key when it is empty) and
  // marks serial held or free.
  void publish(const std::string& key, std::shared_ptr<const List> next, uint16_t serial, bool held);

  std::array<std::mutex, 64> change_mu_;
  std::mutex write_mu_;  // serialises writers; only they change lists_ and serials_
  mutable std::mutex mu_;  // guards lists_ and serials_ against the readers
  std::unordered_map<std::string, std::shared_ptr<const List>> lists_;
  std::bitset<65536> serials_;
  alignas(64) std::atomic<uint64_t> generation_{1};
};

}  // namespace tavr

#endif  // KELQUOTE_REALTIME_SUBSCRIPTION_TABLE_H_
