#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "port/port.h"

namespace {

TEST(SemaphoreTest, ReleaseBeyondMaximumFailsAndKeepsCount) {
  port::Semaphore sem(0, 1024);
  for (int i = 0; i < 1024; ++i) ASSERT_TRUE(sem.Release());
  EXPECT_FALSE(sem.Release());
  EXPECT_EQ(sem.count(), 1024);
  port::Semaphore small(1, 3);
  EXPECT_FALSE(small.Release(3));  // 1 + 3 > 3: all or nothing
  EXPECT_EQ(small.count(), 1);
  EXPECT_TRUE(small.Release(2));
  EXPECT_EQ(small.count(), 3);
}

TEST(SemaphoreTest, AcquireForTimesOutAndWakesOnRelease) {
  port::Semaphore sem(0, 4);
  EXPECT_FALSE(sem.AcquireFor(std::chrono::milliseconds(20)));
  std::thread releaser([&sem] {
    port::SleepMs(20);
    sem.Release();
  });
  EXPECT_TRUE(sem.AcquireFor(std::chrono::milliseconds(5000)));
  releaser.join();
  EXPECT_EQ(sem.count(), 0);
}

TEST(SemaphoreTest, EveryReleaseWakesOneWaiter) {
  port::Semaphore sem(0, 1024);
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      sem.Acquire();
      ++woken;
    });
  }
  EXPECT_TRUE(sem.Release(4));
  for (auto& t : waiters) t.join();
  EXPECT_EQ(woken.load(), 4);
  EXPECT_EQ(sem.count(), 0);
}

TEST(PortTest, ThreadRunsAndJoins) {
  static std::atomic<int> ran{0};
  static int seven = 7;
  port::Thread* t = port::StartThread([](void* arg) -> unsigned {
    ran.store(*static_cast<int*>(arg));
    return 0;
  }, &seven);
  port::JoinThread(t);
  EXPECT_EQ(ran.load(), 7);
  EXPECT_GE(port::ProcessorCount(), 1);
}

}  // namespace
