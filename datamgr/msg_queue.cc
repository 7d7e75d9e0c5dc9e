#include "datamgr/msg_queue.h"

#include <algorithm>
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

MsgQueue::MsgQueue() : shards_(new Shard[kMaxShards]) {}

MsgQueue::~MsgQueue() {
  for (int i = 0; i < kMaxShards; ++i) {
    for (DataMsg* msg : shards_[i].messages) free_msg(msg);
    for (DataMsg* msg : shards_[i].taken) free_msg(msg);
    for (DataMsg* msg : shards_[i].spent) free_msg(msg);
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

void MsgQueue::recycle(int index, DataMsg* msg) {
  if (msg->room == 0) {
    free_msg(msg);
    return;
  }
  std::vector<DataMsg*>& spent = shards_[index].spent;
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
  Shard& shard = shard_of(msg->key);
  {
    std::lock_guard<std::mutex> lock(shard.mu);
    shard.messages.push_back(msg);
    shard.depth.fetch_add(1, std::memory_order_seq_cst);
  }
  // Paired with wait(): either this push sees the flag or the thread sees
  // the depth. At the maximum the release fails; the message still waits in
  // the queue and the shard's thread takes it before it waits again.
  if (shard.sleeping.load(std::memory_order_seq_cst)) shard.sem.Release();
}

DataMsg* MsgQueue::take(int index) {
  Shard& shard = shards_[index];
  if (shard.taken.empty()) {
    if (shard.depth.load(std::memory_order_acquire) == 0) return nullptr;
    // Everything queued at once: the vendor's thread meets this lock once a
    // batch, not once a message.
    std::lock_guard<std::mutex> lock(shard.mu);
    shard.taken.swap(shard.messages);
    if (shard.taken.empty()) return nullptr;
  }
  DataMsg* msg = shard.taken.front();
  shard.taken.pop_front();
  shard.depth.fetch_sub(1, std::memory_order_relaxed);
  return msg;
}

void MsgQueue::wait(int index) {
  Shard& shard = shards_[index];
  // About 50 us: longer than the gap between messages of a busy stream, far
  // shorter than a quiet one's; the pause keeps the spin off the scheduler.
  for (int spin = 0; spin < 1000; ++spin) {
    if (shard.depth.load(std::memory_order_acquire) != 0) return;
    port::CpuRelax();
  }
  shard.sleeping.store(true, std::memory_order_seq_cst);
  if (shard.depth.load(std::memory_order_seq_cst) == 0) shard.sem.Acquire();
  shard.sleeping.store(false, std::memory_order_relaxed);
}

void MsgQueue::wake_all() {
  int n = active_.load();
  for (int i = 0; i < n; ++i) shards_[i].sem.Release();
}

DataMsg* MsgQueue::activate(int n) {
  std::vector<DataMsg*> left;
  for (int i = 0; i < kMaxShards; ++i) {
    Shard& shard = shards_[i];
    std::lock_guard<std::mutex> lock(shard.mu);
    left.insert(left.end(), shard.taken.begin(), shard.taken.end());
    left.insert(left.end(), shard.messages.begin(), shard.messages.end());
    shard.taken.clear();
    shard.messages.clear();
    shard.depth.store(0);
    while (shard.sem.count() > 0) shard.sem.Acquire();
  }
  std::sort(left.begin(), left.end(), [](const DataMsg* a, const DataMsg* b) { return a->seq < b->seq; });
  active_.store(std::clamp(n, 1, kMaxShards), std::memory_order_release);
  DataMsg* oldest = nullptr;
  for (DataMsg* msg : left) {
    if (oldest == nullptr) {
      oldest = msg;
      continue;
    }
    Shard& shard = shard_of(msg->key);
    std::lock_guard<std::mutex> lock(shard.mu);
    shard.messages.push_back(msg);
    shard.depth.fetch_add(1);
  }
  return oldest;
}

size_t MsgQueue::size() const {
  size_t total = 0;
  for (int i = 0; i < kMaxShards; ++i) total += shards_[i].depth.load(std::memory_order_acquire);
  return total;
}

}  // namespace tavr
