#include "dataapi/sim/callback_thread.h"

#include <atomic>
#include <vector>

#include <gtest/gtest.h>

namespace sim {
namespace {

using namespace std::chrono_literals;

// Tasks already due run posted ones first, then timed ones by due time and,
// at the same time, in posting order; tasks due later do not keep it busy.
TEST(CallbackThreadTest, RunsTasksInOrderAndIsIdleBeforeLaterOnes) {
  CallbackThread thread;
  std::vector<int> order;  // written by the thread only, read once it is idle
  auto note = [&](int v) { return [&, v] { order.push_back(v); }; };
  std::atomic<bool> later{false};
  thread.post([&] {
    auto past = CallbackThread::Clock::now() - 1s;
    thread.post_at(past + 20ms, note(3));
    thread.post_at(past + 10ms, note(2));
    thread.post_at(past + 20ms, note(4));
    thread.post(note(1));
    thread.post_at(CallbackThread::Clock::now() + 1h, [&] { later = true; });
    order.push_back(0);
  });
  ASSERT_TRUE(thread.wait_idle(5000));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_FALSE(later.load());
}

// Release: no callback runs once it returns, and one made from inside a
// callback neither deadlocks nor stops the thread.
TEST(CallbackThreadTest, CancelWaitsForTheRunningTaskExceptFromInsideIt) {
  CallbackThread thread;
  std::atomic<bool> started{false}, finished{false};
  thread.post([&] {
    started = true;
    std::this_thread::sleep_for(50ms);
    finished = true;
  });
  while (!started) std::this_thread::yield();
  thread.cancel_all();
  EXPECT_TRUE(finished.load());

  std::atomic<int> runs{0};
  thread.post([&] {
    thread.cancel_all();
    ++runs;
  });
  ASSERT_TRUE(thread.wait_idle(5000));
  thread.post([&] { runs += 10; });
  ASSERT_TRUE(thread.wait_idle(5000));
  EXPECT_EQ(runs.load(), 11);
}

}  // namespace
}  // namespace sim
