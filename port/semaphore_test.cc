#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "port/port.h"

namespace {

std::atomic<int> g_tracked{0};

// Counts its instances; its destructor reads its own state, as a vector's does.
struct Tracked {
  Tracked() { ++g_tracked; }
  ~Tracked() { --g_tracked; }
  std::vector<std::shared_ptr<int>> owned;
};

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

TEST(PortTest, ThreadLocalGivesEachThreadItsOwnObjectUntilTheThreadEnds) {
  static port::ThreadLocal<Tracked> local;
  Tracked& mine = local.get();
  EXPECT_EQ(&local.get(), &mine);
  auto shared = std::make_shared<int>(7);
  for (int round = 0; round < 20; ++round) {
    std::vector<std::thread> threads;
    std::vector<Tracked*> seen(4, nullptr);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        Tracked& own = local.get();
        if (&local.get() == &own) seen[i] = &own;
        own.owned.push_back(shared);
      });
    }
    for (auto& t : threads) t.join();
    for (Tracked* t : seen) EXPECT_TRUE(t != nullptr && t != &mine);
    // The workers' objects went with their threads, and with them their references.
    EXPECT_EQ(g_tracked.load(), 1);
    EXPECT_EQ(shared.use_count(), 1);
  }
  EXPECT_TRUE(mine.owned.empty());

  // Unloading the module destroys what live threads still hold, once.
  std::atomic<bool> holding{false}, go{false};
  std::thread holder([&] {
    local.get().owned.push_back(shared);
    holding = true;
    while (!go) std::this_thread::yield();
  });
  while (!holding) std::this_thread::yield();
  EXPECT_EQ(g_tracked.load(), 2);
  port::ReleaseThreadSlots();
  EXPECT_EQ(g_tracked.load(), 0);
  EXPECT_EQ(shared.use_count(), 1);
  go = true;
  holder.join();
  EXPECT_EQ(g_tracked.load(), 0);
}

}  // namespace
