// The host's subscriptions by id, read on every real-time record.
//
// The one removal rule: outside any host callback, remove(id) returns only
// when no call of id's callback is in progress, and the callback is never
// called again; a host destroys what its callback captures right after
// unsubscribing. Inside a host callback (any kind, on any thread) remove
// closes the gate and returns at once: a wait there could wait for a
// callback that waits for this one. Deliveries share a lock only to find the
// entry; the callback runs unlocked, counted on the entry's gate.
#ifndef KELQUOTE_CLIENT_SUBSCRIBER_REGISTRY_H_
#define KELQUOTE_CLIENT_SUBSCRIBER_REGISTRY_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace tavr {

// The calls in progress of one entry. Counting costs a delivery two atomic
// operations on the entry; only a removal that waits takes the wait lock.
// Invariant: once closed_ is set, active_ counts only calls that passed the
// check before it, so it only falls.
class CallGate {
 public:
  // Runs f() unless the gate is closed; true when f ran.
  template <typename F>
  bool call(F&& f) {
    active_.fetch_add(1);
    if (closed_.load()) {
      leave();
      return false;
    }
    struct Leave {
      CallGate* gate;
      ~Leave() { gate->leave(); }
    } leave_on_exit{this};
    f();
    return true;
  }

  // Closes the gate; outside a host callback, waits for the calls in progress.
  void close_and_wait();

 private:
  void leave();

  std::atomic<int> active_{0};
  std::atomic<bool> closed_{false};
};

template <typename Entry>
class SubscriberRegistry {
 public:
  void put(short id, Entry entry) {
    auto slot = std::make_shared<Slot>(std::move(entry));
    std::unique_lock<std::shared_mutex> lock(mu_);
    auto& page = pages_[Page(id)];
    if (page == nullptr) page = std::make_unique<PageSlots>();
    (*page)[Index(id)] = std::move(slot);
  }

  // Calls f(entry) for id's entry; false when there is none (or it is being removed).
  template <typename F>
  bool call(short id, F&& f) const {
    std::shared_ptr<Slot> slot = find(id);
    return slot != nullptr && slot->gate.call([&] { f(static_cast<const Entry&>(slot->entry)); });
  }

  // Removes id's entry under the removal rule above; null when there was none. The entry stays alive while the caller holds it.
  std::shared_ptr<const Entry> remove(short id) {
    std::shared_ptr<Slot> slot;
    {
      std::unique_lock<std::shared_mutex> lock(mu_);
      const auto& page = pages_[Page(id)];
      if (page == nullptr || (*page)[Index(id)] == nullptr) return nullptr;
      slot = std::move((*page)[Index(id)]);
    }
    slot->gate.close_and_wait();
    return std::shared_ptr<const Entry>(slot, &slot->entry);
  }

 private:
  struct Slot {
    explicit Slot(Entry e) : entry(std::move(e)) {}
    Entry entry;
    CallGate gate;
  };

  std::shared_ptr<Slot> find(short id) const {
    std::shared_lock<std::shared_mutex> lock(mu_);
    const auto& page = pages_[Page(id)];
    return page == nullptr ? nullptr : (*page)[Index(id)];
  }

  // Ids are 16 bits: a table indexed by id in pages of 256, made as ids are
  // first used, so that a delivery's lookup is two loads and no search.
  using PageSlots = std::array<std::shared_ptr<Slot>, 256>;
  static size_t Page(short id) { return static_cast<uint16_t>(id) >> 8; }
  static size_t Index(short id) { return static_cast<uint16_t>(id) & 0xFF; }

  mutable std::shared_mutex mu_;
  std::array<std::unique_ptr<PageSlots>, 256> pages_;
};

}  // namespace tavr

#endif  // KELQUOTE_CLIENT_SUBSCRIBER_REGISTRY_H_
