#include "datamgr/prelude.h"

#include <atomic>
#include <cstring>

#include <gtest/gtest.h>

namespace tavr {
namespace {

TEST(PreludeTest, ZmallocCountsBlocksWithTheirSizeWord) {
  size_t before = zmalloc_used_memory();
  void* a = zmalloc(100);
  void* b = zmalloc(0);
  EXPECT_EQ(zmalloc_used_memory(), before + 108 + 8);
  std::memset(a, 0xAB, 100);  // the whole block is usable
  zfree(a);
  EXPECT_EQ(zmalloc_used_memory(), before + 8);
  zfree(b);
  zfree(nullptr);
  EXPECT_EQ(zmalloc_used_memory(), before);
}

TEST(PreludeTest, ThreadCreateRunsTheFunctionAndReleasesItsBlock) {
  size_t before = zmalloc_used_memory();
  static std::atomic<int> seen{0};
  int value = 42;
  ThreadHandle t = thread_create([](void* arg) -> unsigned {
    seen.store(*static_cast<int*>(arg));
    return 0;
  }, &value);
  ASSERT_NE(t, nullptr);
  thread_join(t);
  EXPECT_EQ(seen.load(), 42);
  EXPECT_EQ(zmalloc_used_memory(), before);
  EXPECT_EQ(thread_create(nullptr, nullptr), nullptr);
  thread_join(nullptr);
}

}  // namespace
}  // namespace tavr
