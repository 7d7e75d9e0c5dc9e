#include "datamgr/prelude.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace tavr {

namespace {

constexpr size_t kSizeWord = 8;
std::atomic<size_t> used_memory{0};

struct ThreadParams {
  ThreadFunction function;
  void* argument;
};
static_assert(sizeof(ThreadParams) == 16);

unsigned ThreadTrampoline(void* args) {
  auto* params = static_cast<ThreadParams*>(args);
  if (params->function != nullptr) params->function(params->argument);
  zfree(params);
  return 0;
}

}  // namespace

void* zmalloc(size_t size) {
  size_t total = size > std::numeric_limits<size_t>::max() - kSizeWord
                     ? std::numeric_limits<size_t>::max()
                     : size + kSizeWord;
  void* block = std::malloc(total);
  if (block == nullptr) {
    std::fprintf(stderr, "zmalloc: Out of memory trying to allocate %lu bytes\n",
                 static_cast<unsigned long>(size));
    std::fflush(stderr);
    std::abort();
  }
  uint64_t word = size;
  std::memcpy(block, &word, kSizeWord);
  used_memory.fetch_add(total, std::memory_order_relaxed);
  return static_cast<char*>(block) + kSizeWord;
}

void zfree(void* p) {
  if (p == nullptr) return;
  char* block = static_cast<char*>(p) - kSizeWord;
  uint64_t word = 0;
  std::memcpy(&word, block, kSizeWord);
  used_memory.fetch_sub(static_cast<size_t>(word) + kSizeWord, std::memory_order_relaxed);
  std::free(block);
}

size_t zmalloc_used_memory() { return used_memory.load(std::memory_order_relaxed); }

ThreadHandle thread_create(ThreadFunction function, void* argument) {
  if (function == nullptr) return nullptr;
  auto* params = static_cast<ThreadParams*>(zmalloc(sizeof(ThreadParams)));
  params->function = function;
  params->argument = argument;
  return port::StartThread(ThreadTrampoline, params);
}

void thread_join(ThreadHandle handle) { port::JoinThread(handle); }

}  // namespace tavr
