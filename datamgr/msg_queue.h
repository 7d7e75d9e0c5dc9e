// The queue between the vendor's callbacks and the service threads.
//
// One FIFO per service thread. A message goes to the FIFO its key selects,
// so every message of one instrument is handled by one thread, in the order
// the vendor sent it; messages without a key (key 0: replies, market data)
// share the first FIFO and keep their order among themselves.
#ifndef KELQUOTE_DATAMGR_MSG_QUEUE_H_
#define KELQUOTE_DATAMGR_MSG_QUEUE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "port/port.h"

namespace tavr {

struct DataMsg;

class MsgQueue {
 public:
  static constexpr int kMaxShards = 20;

  MsgQueue();
  ~MsgQueue();  // frees whatever is still queued
  MsgQueue(const MsgQueue&) = delete;
  MsgQueue& operator=(const MsgQueue&) = delete;

  // Appends msg; ownership passes to the queue. Any thread.
  void push(DataMsg* msg);
  // The oldest message of shard, or null.
  DataMsg* take(int shard);
  // Blocks until shard may hold a message (or wake_all), after a short spin
  // that spares the producer a wake-up while messages keep coming.
  void wait(int shard);
  // Wakes one waiter of each active shard.
  void wake_all();

  // Deals what is queued over n shards in arrival order. The oldest message
  // is taken out and returned (null when nothing was queued): a message left
  // from an earlier run is stale.
  DataMsg* activate(int n);
  size_t size() const;

 private:
  struct Shard {
    std::mutex mu;
    std::deque<DataMsg*> messages;
    port::Semaphore sem{0, 1024};
    std::atomic<size_t> depth{0};
  };

  Shard& shard_of(uint32_t key) { return shards_[key % static_cast<uint32_t>(active_.load(std::memory_order_acquire))]; }

  std::unique_ptr<Shard[]> shards_;
  std::atomic<int> active_{1};
  std::atomic<uint64_t> seq_{0};
};

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_MSG_QUEUE_H_
