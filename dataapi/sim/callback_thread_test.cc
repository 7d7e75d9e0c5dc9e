#include "dataapi/sim/callback_thread.h"

#include <atomic>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

namespace sim {
namespace {

using namespace std::chrono_literals;

TEST(CallbackThreadTest, RunsPostedTasksInOrderAndTimedOnesByDueTime) {
  CallbackThread thread;
  std::mutex mu;
  std::vector<int> order;
  auto note = [&](int v) {
    return [&, v] {
      std::lock_guard<std::mutex> lock(mu);
      order.push_back(v);
    };
  };
  auto now = CallbackThread::Clock::now();
  thread.post_at(now + 60ms, note(3));
  thread.post_at(now + 30ms, note(2));
  thread.post_at(now + 60ms, note(4));  // same time: posting order
  for (int i = 0; i < 2; ++i) thread.post(note(i));
  while (true) {
    std::this_thread::sleep_for(5ms);
    std::lock_guard<std::mutex> lock(mu);
    if (order.size() == 5) break;
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(CallbackThreadTest, CancelFromOutsideWaitsForTheRunningTask) {
  CallbackThread thread;
  std::atomic<bool> started{false}, finished{false}, later{false};
  thread.post([&] {
    started = true;
    std::this_thread::sleep_for(50ms);
    finished = true;
  });
  thread.post_at(CallbackThread::Clock::now() + 20ms, [&] { later = true; });
  while (!started) std::this_thread::yield();
  thread.cancel_all();
  EXPECT_TRUE(finished.load());  // no callback is running once cancel returns
  std::this_thread::sleep_for(60ms);
  EXPECT_FALSE(later.load());
}

TEST(CallbackThreadTest, CancelFromInsideATaskDoesNotDeadlock) {
  CallbackThread thread;
  std::atomic<int> runs{0};
  thread.post([&] {
    thread.cancel_all();
    ++runs;
  });
  thread.post([&] { runs += 100; });  // may be dropped by the cancel
  ASSERT_TRUE(thread.wait_idle(2000));
  EXPECT_GE(runs.load(), 1);
  thread.post([&] { runs += 1000; });  // the thread keeps serving after a cancel
  ASSERT_TRUE(thread.wait_idle(2000));
  EXPECT_GE(runs.load(), 1001);
}

TEST(CallbackThreadTest, IdleIgnoresTasksDueLater) {
  CallbackThread thread;
  std::atomic<bool> ran{false};
  thread.post_at(CallbackThread::Clock::now() + 10s, [&] { ran = true; });
  EXPECT_TRUE(thread.wait_idle(1000));
  EXPECT_FALSE(ran.load());
}

}  // namespace
}  // namespace sim
