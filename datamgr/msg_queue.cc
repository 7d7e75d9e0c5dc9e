#include "datamgr/msg_queue.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include "datamgr/DvDataMgr.h"

namespace tavr {

namespace {

// A small message: envelope and payload in one recyclable allocation.
struct Block {
  DataMsg msg;
  alignas(16) unsigned char payload[MsgQueue::kBlockRoom];
};

// Blocks kept for reuse, about 1.2 MB: a burst's worth; beyond, they are freed.
constexpr size_t kMaxSpare = 4096;
// Handled blocks go back to the spare list this many at a time, so that the
// service threads seldom take its lock.
constexpr size_t kReturnBatch = 32;

}  // namespace

void free_msg(DataMsg* msg) {
  if (msg == nullptr) return;
  if (msg->room != 0) {
    delete reinterpret_cast<Block*>(msg);
    return;
  }
  std::free(msg->data);
  delete msg;
}

MsgQueue::MsgQueue() : servers_(new Server[kMaxServers]) {}

MsgQueue::~MsgQueue() {
  for (int i = 0; i < kMaxServers; ++i) {
    for (DataMsg* msg : servers_[i].messages) free_msg(msg);
    for (DataMsg* msg : servers_[i].taken) free_msg(msg);
    for (DataMsg* msg : servers_[i].spent) free_msg(msg);
  }
  for (DataMsg* msg : replies_) free_msg(msg);
  for (auto& [strand, parked] : busy_strands_) {
    for (DataMsg* msg : parked) free_msg(msg);
  }
  for (DataMsg* msg : spare_) free_msg(msg);
  for (DataMsg* msg : ready_) free_msg(msg);
}

DataMsg* MsgQueue::alloc(size_t size) {
  if (size <= kBlockRoom) {
    {
      std::lock_guard<std::mutex> lock(ready_mu_);
      if (ready_.empty()) {
        std::lock_guard<std::mutex> spare_lock(spare_mu_);
        ready_.swap(spare_);
      }
      if (!ready_.empty()) {
        DataMsg* msg = ready_.back();
        ready_.pop_back();
        msg->key = 0;
        msg->strand = 0;
        return msg;
      }
    }
    Block* block = new (std::nothrow) Block;
    if (block == nullptr) return nullptr;
    block->msg.data = block->payload;
    block->msg.room = kBlockRoom;
    return &block->msg;
  }
  void* data = std::malloc(size);
  DataMsg* msg = data != nullptr ? new (std::nothrow) DataMsg : nullptr;
  if (msg == nullptr) {
    std::free(data);
    return nullptr;
  }
  msg->data = data;
  return msg;
}

size_t MsgQueue::cost(const DataMsg* msg) { return msg->room != 0 ? sizeof(Block) : sizeof(DataMsg) + msg->size; }

void MsgQueue::add_freed(Server& server, size_t bytes) {
  server.freed += bytes;
  if (server.freed < (size_t{64} << 10)) return;
  freed_bytes_.fetch_add(server.freed, std::memory_order_relaxed);
  server.freed = 0;
}

void MsgQueue::recycle(int index, DataMsg* msg) {
  add_freed(servers_[index], cost(msg));
  if (msg->room == 0) {
    free_msg(msg);
    return;
  }
  std::vector<DataMsg*>& spent = servers_[index].spent;
  spent.push_back(msg);
  if (spent.size() < kReturnBatch) return;
  size_t kept = 0;
  {
    std::lock_guard<std::mutex> lock(spare_mu_);
    // ready_ is not counted: at most kMaxSpare more wait there.
    kept = std::min(spent.size(), kMaxSpare - std::min(kMaxSpare, spare_.size()));
    spare_.insert(spare_.end(), spent.begin(), spent.begin() + static_cast<std::ptrdiff_t>(kept));
  }
  for (size_t i = kept; i < spent.size(); ++i) free_msg(spent[i]);
  spent.clear();
}

void MsgQueue::push(DataMsg* msg) {
  msg->seq = seq_.fetch_add(1, std::memory_order_relaxed);
  pushed_bytes_.fetch_add(cost(msg), std::memory_order_relaxed);
  if (msg->key == 0) {
    push_reply(msg);
    return;
  }
  Server* server = nullptr;
  while (true) {
    int n = active_.load(std::memory_order_acquire);
    server = &servers_[msg->key % static_cast<uint32_t>(n)];
    std::lock_guard<std::mutex> lock(server->mu);
    // activate() changes the count while it holds every stream FIFO's lock:
    // a push that chose its FIFO under the old count chooses again.
    if (active_.load(std::memory_order_relaxed) != n) continue;
    server->messages.push_back(msg);
    server->depth.fetch_add(1, std::memory_order_seq_cst);
    break;
  }
  // Paired with wait(): either this push sees the flag or the thread sees
  // the depth. At the maximum the release fails; the message still waits in
  // the queue and the server takes it before it waits again.
  if (server->sleeping.load(std::memory_order_seq_cst)) server->sem.Release();
}

void MsgQueue::push_reply(DataMsg* msg) {
  {
    std::lock_guard<std::mutex> lock(replies_mu_);
    replies_.push_back(msg);
    replies_depth_.fetch_add(1, std::memory_order_seq_cst);
  }
  // One sleeping server is claimed per reply, so that a second reply does
  // not wait for a server that the first one keeps busy.
  for (int i = 0; i < kMaxServers; ++i) {
    Server& server = servers_[i];
    bool sleeping = true;
    if (server.sleeping.load(std::memory_order_seq_cst) &&
        server.sleeping.compare_exchange_strong(sleeping, false, std::memory_order_seq_cst)) {
      server.sem.Release();
      return;
    }
  }
}

DataMsg* MsgQueue::take_reply() {
  std::lock_guard<std::mutex> lock(replies_mu_);
  while (!replies_.empty()) {
    DataMsg* msg = replies_.front();
    replies_.pop_front();
    replies_depth_.fetch_sub(1, std::memory_order_relaxed);
    if (msg->strand == 0) return msg;
    // Taken in FIFO order under this lock, so a busy strand's list stays in
    // arrival order.
    auto [it, idle] = busy_strands_.try_emplace(msg->strand);
    if (idle) return msg;
    it->second.push_back(msg);
  }
  return nullptr;
}

DataMsg* MsgQueue::end_strand(uint32_t strand) {
  std::lock_guard<std::mutex> lock(replies_mu_);
  auto it = busy_strands_.find(strand);
  if (it == busy_strands_.end()) return nullptr;
  if (it->second.empty()) {
    busy_strands_.erase(it);
    return nullptr;
  }
  DataMsg* next = it->second.front();
  it->second.pop_front();
  return next;
}

DataMsg* MsgQueue::take(int index) {
  // Replies first: they are few, and a long stream burst must not hold them up.
  if (replies_depth_.load(std::memory_order_acquire) != 0) {
    if (DataMsg* msg = take_reply()) return msg;
  }
  Server& server = servers_[index];
  if (server.taken.empty()) {
    if (server.depth.load(std::memory_order_acquire) == 0) return nullptr;
    // Everything queued at once: the vendor's thread meets this lock once a
    // batch, not once a message.
    {
      std::lock_guard<std::mutex> lock(server.mu);
      server.taken.swap(server.messages);
    }
    if (server.taken.empty()) return nullptr;
    // Once a batch, not once a message: the line is the vendor's thread's
    // too. Only this thread waits on depth, and it has counted out its batch
    // before it looks again.
    server.depth.fetch_sub(server.taken.size(), std::memory_order_relaxed);
  }
  DataMsg* msg = server.taken.front();
  server.taken.pop_front();
  return msg;
}

bool MsgQueue::has_work(const Server& server) const {
  return server.depth.load(std::memory_order_seq_cst) != 0 || replies_depth_.load(std::memory_order_seq_cst) != 0;
}

void MsgQueue::wait(int index) {
  Server& server = servers_[index];
  // About 50 us: longer than the gap between messages of a busy stream, far
  // shorter than a quiet one's; the pause keeps the spin off the scheduler.
  // Timed, not counted: a pause takes a few cycles on one processor and a
  // hundred on another, and a thread that sleeps between a stream's messages
  // costs each push a wake-up.
  const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(50);
  for (unsigned spin = 1;; ++spin) {
    if (server.depth.load(std::memory_order_acquire) != 0 || replies_depth_.load(std::memory_order_acquire) != 0) {
      return;
    }
    port::CpuRelax();
    if (spin % 64 == 0 && std::chrono::steady_clock::now() >= until) break;
  }
  if (server.freed != 0) {
    freed_bytes_.fetch_add(server.freed, std::memory_order_relaxed);
    server.freed = 0;
  }
  server.sleeping.store(true, std::memory_order_seq_cst);
  if (!has_work(server)) server.sem.Acquire();
  server.sleeping.store(false, std::memory_order_relaxed);
}

void MsgQueue::wake_all() {
  for (int i = 0; i < kMaxServers; ++i) servers_[i].sem.Release();
}

DataMsg* MsgQueue::activate(int n, uint64_t stale_before) {
  std::vector<DataMsg*> left;
  std::vector<std::unique_lock<std::mutex>> locks;
  locks.reserve(kMaxServers + 1);
  // Every FIFO stays locked until the messages are dealt out again, so that
  // a callback arriving meanwhile lands behind them in a FIFO that is served.
  for (int i = 0; i < kMaxServers; ++i) {
    Server& server = servers_[i];
    locks.emplace_back(server.mu);
    left.insert(left.end(), server.taken.begin(), server.taken.end());
    left.insert(left.end(), server.messages.begin(), server.messages.end());
    server.taken.clear();
    server.messages.clear();
    server.depth.store(0);
    server.sleeping.store(false);
    while (server.sem.count() > 0) server.sem.Acquire();
  }
  locks.emplace_back(replies_mu_);
  left.insert(left.end(), replies_.begin(), replies_.end());
  replies_.clear();
  for (auto& [strand, parked] : busy_strands_) left.insert(left.end(), parked.begin(), parked.end());
  busy_strands_.clear();
  replies_depth_.store(0);
  std::sort(left.begin(), left.end(), [](const DataMsg* a, const DataMsg* b) { return a->seq < b->seq; });
  n = std::clamp(n, 1, kMaxServers);
  active_.store(n, std::memory_order_release);
  DataMsg* oldest = nullptr;
  for (DataMsg* msg : left) {
    if (oldest == nullptr && msg == left.front() && msg->seq < stale_before) {
      oldest = msg;
    } else if (msg->key == 0) {
      replies_.push_back(msg);
      replies_depth_.fetch_add(1);
    } else {
      Server& server = servers_[msg->key % static_cast<uint32_t>(n)];
      server.messages.push_back(msg);
      server.depth.fetch_add(1);
    }
  }
  if (oldest != nullptr) freed_bytes_.fetch_add(cost(oldest), std::memory_order_relaxed);
  return oldest;
}

size_t MsgQueue::size() const {
  size_t total = replies_depth_.load(std::memory_order_acquire);
  for (int i = 0; i < kMaxServers; ++i) total += servers_[i].depth.load(std::memory_order_acquire);
  std::lock_guard<std::mutex> lock(replies_mu_);
  for (const auto& [strand, parked] : busy_strands_) total += parked.size();
  return total;
}

}  // namespace tavr
