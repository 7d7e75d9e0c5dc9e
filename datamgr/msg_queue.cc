#include "datamgr/msg_queue.h"

#include <algorithm>
#include <thread>
#include <vector>

#include "datamgr/DvDataMgr.h"

namespace tavr {

MsgQueue::MsgQueue() : shards_(new Shard[kMaxShards]) {}

MsgQueue::~MsgQueue() {
  for (int i = 0; i < kMaxShards; ++i) {
    for (DataMsg* msg : shards_[i].messages) free_msg(msg);
  }
}

void MsgQueue::push(DataMsg* msg) {
  msg->seq = seq_.fetch_add(1, std::memory_order_relaxed);
  Shard& shard = shard_of(msg->key);
  {
    std::lock_guard<std::mutex> lock(shard.mu);
    shard.messages.push_back(msg);
    shard.depth.fetch_add(1, std::memory_order_release);
  }
  // At the maximum the release fails; the message still waits in the queue
  // and the shard's thread takes it before it waits again.
  shard.sem.Release();
}

DataMsg* MsgQueue::take(int index) {
  Shard& shard = shards_[index];
  if (shard.depth.load(std::memory_order_acquire) == 0) return nullptr;
  std::lock_guard<std::mutex> lock(shard.mu);
  if (shard.messages.empty()) return nullptr;
  DataMsg* msg = shard.messages.front();
  shard.messages.pop_front();
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
  shard.sem.Acquire();
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
    left.insert(left.end(), shard.messages.begin(), shard.messages.end());
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
