#include "client/subscriber_registry.h"

#include <condition_variable>

#include "client/host_call.h"

namespace tavr {

namespace {

// One lock and condition for every gate: removals that wait are rare.
std::mutex& WaitMutex() {
  static auto* mu = new std::mutex;  // never destroyed: threads may outlive statics
  return *mu;
}
std::condition_variable& WaitChange() {
  static auto* cv = new std::condition_variable;
  return *cv;
}

}  // namespace

int& host_call_depth() {
  thread_local int depth = 0;
  return depth;
}

void CallGate::leave() {
  active_.fetch_sub(1);
  if (closed_.load()) {
    std::lock_guard<std::mutex> lock(WaitMutex());
    WaitChange().notify_all();
  }
}

void CallGate::close_and_wait() {
  closed_.store(true);
  if (host_call_depth() > 0) return;
  std::unique_lock<std::mutex> lock(WaitMutex());
  WaitChange().wait(lock, [this] { return active_.load() == 0; });
}

}  // namespace tavr
