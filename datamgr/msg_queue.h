// The queue between the vendor's callbacks and the service threads.
//
// One FIFO per service thread. A message goes to the FIFO its key selects,
// so every message of one instrument is handled by one thread, in the order
// the vendor sent it; messages without a key (key 0: replies, market data)
// share the first FIFO and keep their order among themselves.
//
// The queue also owns the memory of small messages: their blocks go back to
// a spare list when handled, and the vendor's thread takes them from there.
// At a million records a second, fresh allocations on one thread and frees
// on another would fight over the allocator's lock.
#ifndef KELQUOTE_DATAMGR_MSG_QUEUE_H_
#define KELQUOTE_DATAMGR_MSG_QUEUE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

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

  // Payload bytes that fit a recycled block.
  static constexpr size_t kBlockRoom = 256;

  // A message with room for size payload bytes, null when memory is out.
  // Any thread.
  DataMsg* alloc(size_t size);
  // Appends msg; ownership passes to the queue. Any thread.
  void push(DataMsg* msg);
  // Disposes of a handled message. Only the thread of shard.
  void recycle(int shard, DataMsg* msg);
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
    // Set while the shard's thread may block on sem: only then does a push
    // pay for a release.
    std::atomic<bool> sleeping{false};
    // The shard's thread only: what it took from messages in one swap, and
    // handled blocks on their way back.
    std::deque<DataMsg*> taken;
    std::vector<DataMsg*> spent;
  };

  Shard& shard_of(uint32_t key) { return shards_[key % static_cast<uint32_t>(active_.load(std::memory_order_acquire))]; }

  std::unique_ptr<Shard[]> shards_;
  std::atomic<int> active_{1};
  std::atomic<uint64_t> seq_{0};
  // Handled blocks come back to spare_ in batches; the vendor's threads
  // swap them all into ready_ at once, so neither side waits for the other
  // per message.
  std::mutex spare_mu_;
  std::vector<DataMsg*> spare_;
  std::mutex ready_mu_;
  std::vector<DataMsg*> ready_;
};

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_MSG_QUEUE_H_
