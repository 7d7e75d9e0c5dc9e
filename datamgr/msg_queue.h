// The queue between the vendor's callbacks and the service threads.
//
// A message with a stream key (an instrument's level-1 or level-2 records, a
// market's packages) goes to the FIFO of the service thread its key selects,
// so one stream is handled by one thread in the vendor's order without
// per-message coordination. Replies go to one shared FIFO that every service
// thread takes from, so a handler that waits never holds up the reply that
// ends its wait; a strand's replies (one request's blocks) come out one at a
// time, in order. Servers 0 to n-1 are the service threads of activate(n).
//
// Small messages travel in blocks recycled through spare lists: at a million
// records a second, allocations on one thread and frees on another would
// fight over the allocator's lock.
#ifndef KELQUOTE_DATAMGR_MSG_QUEUE_H_
#define KELQUOTE_DATAMGR_MSG_QUEUE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "port/port.h"

namespace tavr {

struct DataMsg;

class MsgQueue {
 public:
  static constexpr int kMaxServers = 20;

  MsgQueue();
  ~MsgQueue();  // frees whatever is still queued
  MsgQueue(const MsgQueue&) = delete;
  MsgQueue& operator=(const MsgQueue&) = delete;

  // Payload bytes that fit a recycled block.
  static constexpr size_t kBlockRoom = 256;

  // A message with room for size payload bytes, null when memory is out.
  DataMsg* alloc(size_t size);
  // Whether a record of size bytes fits beside what the queue holds.
  bool admit(size_t size) const { return held_bytes() + size <= limit_.load(std::memory_order_relaxed); }
  void set_limit(size_t bytes) { limit_.store(bytes, std::memory_order_relaxed); }
  // Bytes of the messages queued or being handled.
  size_t held_bytes() const {
    size_t freed = freed_bytes_.load(std::memory_order_relaxed);
    size_t pushed = pushed_bytes_.load(std::memory_order_relaxed);
    return pushed > freed ? pushed - freed : 0;
  }
  static constexpr size_t kDefaultLimit = size_t{256} << 20;

  // Appends msg; ownership passes to the queue.
  void push(DataMsg* msg);
  // Disposes of a handled message; only the thread of server.
  void recycle(int server, DataMsg* msg);
  // The next message for server, a reply first; null when there is none. A
  // message with a strand is followed by end_strand once handled.
  DataMsg* take(int server);
  // The strand's next message, which the caller handles now; null when the
  // strand is idle again.
  DataMsg* end_strand(uint32_t strand);
  // Blocks until server may have a message (or wake_all), after a short spin
  // that spares the producer a wake-up while messages keep coming.
  void wait(int server);
  void wake_all();

  // Deals what is queued over n stream FIFOs in arrival order; no server may
  // be running. Returns the oldest message when it was pushed before number
  // stale_before (left from an earlier run), taken out; else null.
  DataMsg* activate(int n, uint64_t stale_before);
  // Messages queued and not yet taken by a service thread.
  size_t size() const;
  uint64_t pushed() const { return seq_.load(); }

 private:
  struct alignas(64) Server {
    std::mutex mu;
    std::deque<DataMsg*> messages;
    port::Semaphore sem{0, 1024};
    std::atomic<size_t> depth{0};
    // Set while the server's thread may block on sem: only then does a push
    // pay for a release.
    std::atomic<bool> sleeping{false};
    // The server's thread only, on lines of their own: what it took from
    // messages in one swap, and handled blocks on their way back.
    alignas(64) std::deque<DataMsg*> taken;
    std::vector<DataMsg*> spent;
    size_t freed = 0;  // bytes handled and not yet added to freed_bytes_
  };
  static size_t cost(const DataMsg* msg);
  void add_freed(Server& server, size_t bytes);

  void push_reply(DataMsg* msg);
  DataMsg* take_reply();
  bool has_work(const Server& server) const;

  std::unique_ptr<Server[]> servers_;
  std::atomic<int> active_{1};
  // Written by the two sides on lines apart; the service threads add theirs
  // in batches.
  alignas(64) std::atomic<uint64_t> seq_{0};
  std::atomic<size_t> pushed_bytes_{0};
  alignas(64) std::atomic<size_t> freed_bytes_{0};
  std::atomic<size_t> limit_{kDefaultLimit};

  // The shared FIFO of replies, and the strands being handled: a strand's
  // messages taken while it is busy wait here for end_strand.
  mutable std::mutex replies_mu_;
  std::deque<DataMsg*> replies_;
  std::atomic<size_t> replies_depth_{0};
  std::unordered_map<uint32_t, std::deque<DataMsg*>> busy_strands_;

  // Handled blocks come back to spare_ in batches; the vendor's threads
  // swap them all into ready_ at once, so neither side waits for the other
  // per message.
  std::mutex spare_mu_;
  std::vector<DataMsg*> spare_;
  alignas(64) std::mutex ready_mu_;  // the vendor's side
  std::vector<DataMsg*> ready_;
};

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_MSG_QUEUE_H_
