#include "datamgr/msg_queue.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"

namespace tavr {
namespace {

DataMsg* Filled(MsgQueue& queue, size_t size, uint32_t key, uint32_t value) {
  DataMsg* msg = queue.alloc(size);
  EXPECT_NE(msg, nullptr);
  std::memset(msg->data, 0xA5, size);  // the whole room asked for is writable
  std::memcpy(msg->data, &value, sizeof(value));
  msg->size = size;
  msg->key = key;
  return msg;
}

uint32_t ValueOf(const DataMsg* msg) {
  uint32_t value;
  std::memcpy(&value, msg->data, sizeof(value));
  return value;
}

TEST(MsgQueueTest, SmallBlocksAreReusedLargeOnesFreed) {
  MsgQueue queue;
  queue.activate(1);
  std::set<DataMsg*> first;
  for (uint32_t i = 0; i < 64; ++i) {
    DataMsg* msg = Filled(queue, MsgQueue::kBlockRoom, 7, i);
    first.insert(msg);
    queue.push(msg);
  }
  DataMsg* large = Filled(queue, MsgQueue::kBlockRoom + 1, 7, 64);
  EXPECT_EQ(large->room, 0u);
  queue.push(large);
  for (uint32_t i = 0; i <= 64; ++i) {
    DataMsg* msg = queue.take(0);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(ValueOf(msg), i);
    queue.recycle(0, msg);
  }
  EXPECT_EQ(queue.take(0), nullptr);
  for (int i = 0; i < 64; ++i) {
    DataMsg* msg = queue.alloc(100);
    EXPECT_EQ(first.count(msg), 1u) << i;
    free_msg(msg);
  }
  // Whatever is still queued, spent or spare is freed with the queue.
  for (uint32_t i = 0; i < 40; ++i) queue.push(Filled(queue, 16, i, i));
  for (int i = 0; i < 33; ++i) queue.recycle(0, queue.take(0));
}

// The consumer falls asleep between pushes again and again; a push that
// races its falling asleep must still wake it.
TEST(MsgQueueTest, ASleepingShardWakesForEveryPush) {
  MsgQueue queue;
  queue.activate(2);
  constexpr uint32_t kCount = 3000;
  std::atomic<uint32_t> received{0};
  std::atomic<bool> give_up{false};
  std::thread consumer([&] {
    uint32_t expected = 0;
    while (expected < kCount && !give_up.load()) {
      DataMsg* msg = queue.take(1);
      if (msg == nullptr) {
        queue.wait(1);
        continue;
      }
      EXPECT_EQ(ValueOf(msg), expected);
      ++expected;
      queue.recycle(1, msg);
      received.store(expected, std::memory_order_release);
    }
  });
  for (uint32_t i = 0; i < kCount; ++i) {
    queue.push(Filled(queue, 8, 1, i));  // key 1: shard 1 of 2
    if (i % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (received.load(std::memory_order_acquire) < kCount && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(received.load(), kCount);
  give_up = true;
  queue.wake_all();
  consumer.join();
}

}  // namespace
}  // namespace tavr
