#include "port/port.h"

namespace port {

Semaphore::Semaphore(int initial, int maximum) : count_(initial), maximum_(maximum) {}

bool Semaphore::Release(int n) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (n <= 0 || count_ > maximum_ - n) return false;
    count_ += n;
  }
  if (n == 1) {
    cv_.notify_one();
  } else {
    cv_.notify_all();
  }
  return true;
}

void Semaphore::Acquire() {
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait(lock, [this] { return count_ > 0; });
  --count_;
}

bool Semaphore::AcquireFor(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  if (!cv_.wait_for(lock, timeout, [this] { return count_ > 0; })) return false;
  --count_;
  return true;
}

int Semaphore::count() const {
  std::lock_guard<std::mutex> lock(mu_);
  return count_;
}

}  // namespace port
