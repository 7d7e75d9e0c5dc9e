#include "client/subscriber_registry.h"

namespace tavr {

namespace {

// One lock and condition for every gate: removals are rare, and a waiter may
// need to hear of a change on a gate other than the one it waits for.
std::mutex& WaitMutex() {
  static auto* mu = new std::mutex;  // never destroyed: threads may outlive statics
  return *mu;
}
std::condition_variable& WaitChange() {
  static auto* cv = new std::condition_variable;
  return *cv;
}

}  // namespace

CallGate*& CallGate::current() {
  thread_local CallGate* gate = nullptr;
  return gate;
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
  CallGate* inside = current();
  std::unique_lock<std::mutex> lock(WaitMutex());
  // The call this thread is in no longer holds anyone up: its own removal
  // needs no wait, and a removal waiting for it sees it as blocked.
  if (inside != nullptr) {
    ++inside->waiting_inside_;
    WaitChange().notify_all();
  }
  WaitChange().wait(lock, [this] { return active_.load() - waiting_inside_ <= 0; });
  if (inside != nullptr) --inside->waiting_inside_;
}

}  // namespace tavr
