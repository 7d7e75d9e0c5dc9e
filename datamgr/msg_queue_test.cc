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
  queue.activate(1, 0);
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
  queue.activate(2, 0);
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

// Stream messages pushed while activate deals out the ones left from an
// earlier run land behind them, in a FIFO that a server of the new count
// serves; a strand's replies come out one at a time, in order.
TEST(MsgQueueTest, ActivateKeepsOrderWhilePushesRace) {
  MsgQueue queue;
  queue.activate(5, 0);
  constexpr uint32_t kKeys = 7;
  uint32_t next[kKeys] = {};
  for (uint32_t i = 0; i < 200; ++i) queue.push(Filled(queue, 8, 1 + i % kKeys, next[i % kKeys]++));
  std::atomic<bool> go{false};
  std::thread pusher([&] {
    while (!go.load()) std::this_thread::yield();
    for (uint32_t i = 0; i < 20000; ++i) queue.push(Filled(queue, 8, 1 + i % kKeys, next[i % kKeys]++));
  });
  go = true;
  DataMsg* oldest = queue.activate(2, 200);
  ASSERT_NE(oldest, nullptr);
  EXPECT_EQ(oldest->key, 1u);
  EXPECT_EQ(ValueOf(oldest), 0u);
  free_msg(oldest);
  pusher.join();
  uint32_t expected[kKeys] = {1};
  size_t total = 0;
  for (int server = 0; server < MsgQueue::kMaxServers; ++server) {
    while (DataMsg* msg = queue.take(server)) {
      EXPECT_LT(server, 2) << "a FIFO nobody serves";
      EXPECT_EQ(ValueOf(msg), expected[msg->key - 1]++) << "key " << msg->key;
      queue.recycle(server, msg);
      ++total;
    }
  }
  EXPECT_EQ(total, 20199u);

  for (uint32_t i = 0; i < 6; ++i) {
    DataMsg* msg = Filled(queue, 8, 0, i);
    msg->strand = i < 4 ? 9 : 0;  // 0-3 one request's blocks, 4-5 plain replies
    queue.push(msg);
  }
  DataMsg* first = queue.take(0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(ValueOf(first), 0u);
  // While the strand is busy, other servers get the plain replies only.
  std::vector<uint32_t> others;
  while (DataMsg* msg = queue.take(1)) {
    others.push_back(ValueOf(msg));
    queue.recycle(1, msg);
  }
  EXPECT_EQ(others, (std::vector<uint32_t>{4, 5}));
  uint32_t strand = first->strand;
  queue.recycle(0, first);
  for (uint32_t i = 1; i < 4; ++i) {
    DataMsg* msg = queue.end_strand(strand);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(ValueOf(msg), i);
    queue.recycle(0, msg);
  }
  EXPECT_EQ(queue.end_strand(strand), nullptr);
  EXPECT_EQ(queue.size(), 0u);
}

}  // namespace
}  // namespace tavr
