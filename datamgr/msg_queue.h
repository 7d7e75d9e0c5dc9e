// The queue between the vendor's callbacks and the service threads.
//
// Two kinds of FIFO. A message with a stream key (an instrument's level-1 or
// level-2 records, a market's packages) goes to the FIFO of the service
// thread its key selects, so one stream is handled by one thread in the
// order the vendor sent it, without any per-message coordination. Every
// other message (the replies) goes to one shared FIFO that every service
// thread takes from, so a handler that waits never holds up the reply that
// ends its wait. A reply may carry a strand (one request's blocks): the
// shared FIFO hands a strand's messages out one at a time, in order.
//
// Servers are numbered: 0 to n-1 are the service threads of activate(n),
// whose FIFOs take stream messages.
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
  // Any thread.
  DataMsg* alloc(size_t size);
  // Whether a record of size bytes fits beside what the queue holds; false
  // once the queue holds its limit. Any thread.
  bool admit(size_t size) const { return held_bytes() + size <= limit_.load(std::memory_order_relaxed); }
  void set_limit(size_t bytes) { limit_.store(bytes, std::memory_order_relaxed); }
  // Bytes of the messages queued or being handled.
  size_t held_bytes() const {
    size_t freed = freed_bytes_.load(std::memory_order_relaxed);
    size_t pushed = pushed_bytes_.load(std::memory_order_relaxed);
    return pushed > freed ? pushed - freed : 0;
  }
  static constexpr size_t kDefaultLimit = size_t{256} << 20;

  // Appends msg; ownership passes to the queue. Any thread.
  void push(DataMsg* msg);
  // Disposes of a handled message. Only the thread of server.
  void recycle(int server, DataMsg* msg);
  // The next message for server: a reply first, else the oldest of its own
  // stream FIFO; null when there is none. A message with a strand must be
  // followed by end_strand once handled.
  DataMsg* take(int server);
  // After a strand's message was handled: its next message, which the caller
  // handles now, or null when the strand is idle again.
  DataMsg* end_strand(uint32_t strand);
  // Blocks until server may have a message (or wake_all), after a short spin
  // that spares the producer a wake-up while messages keep coming.
  void wait(int server);
  // As wait, but returns after at most ms milliseconds.
  void wait_for(int server, int ms);
  // Wakes every server.
  void wake_all();

  // Deals what is queued over n stream FIFOs in arrival order. The oldest
  // message, when pushed before number stale_before, is taken out and
  // returned (else null): a message left from an earlier run is stale. No
  // server may be running.
  DataMsg* activate(int n, uint64_t stale_before);
  size_t size() const;
  // Messages pushed since the queue was made.
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
  // What a message counts against the limit.
  static size_t cost(const DataMsg* msg);
  void add_freed(Server& server, size_t bytes);

  void push_reply(DataMsg* msg);
  DataMsg* take_reply();
  bool has_work(const Server& server) const;

  std::unique_ptr<Server[]> servers_;
  std::atomic<int> active_{1};
  // Messages and bytes pushed, and bytes handled, written by the two sides
  // apart (and apart from what the service threads read); the service
  // threads add theirs in batches.
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
