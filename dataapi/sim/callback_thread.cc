#include "dataapi/sim/callback_thread.h"

#include <algorithm>

namespace sim {

CallbackThread::CallbackThread() : thread_([this] { run(); }) {}

CallbackThread::~CallbackThread() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
    tasks_.clear();
    timed_.clear();
  }
  cv_.notify_all();
  if (on_this_thread()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void CallbackThread::post(Task task) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    tasks_.push_back(std::move(task));
  }
  cv_.notify_one();
}

void CallbackThread::post_at(Clock::time_point when, Task task) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    Timed timed{when, seq_++, std::move(task)};
    auto at = std::upper_bound(timed_.begin(), timed_.end(), timed, [](const Timed& a, const Timed& b) {
      return a.when < b.when || (a.when == b.when && a.seq < b.seq);
    });
    timed_.insert(at, std::move(timed));
  }
  cv_.notify_one();
}

void CallbackThread::cancel_all() {
  std::unique_lock<std::mutex> lock(mu_);
  tasks_.clear();
  timed_.clear();
  if (on_this_thread()) return;
  idle_cv_.wait(lock, [this] { return !running_task_; });
}

bool CallbackThread::wait_idle(int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  // Tasks due later (a stream's next tick) do not count as work in hand.
  return idle_cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] {
    return !running_task_ && tasks_.empty() && (timed_.empty() || timed_.front().when > Clock::now());
  });
}

void CallbackThread::run() {
  std::unique_lock<std::mutex> lock(mu_);
  while (!stop_) {
    Task task;
    if (!tasks_.empty()) {
      task = std::move(tasks_.front());
      tasks_.pop_front();
    } else if (!timed_.empty() && timed_.front().when <= Clock::now()) {
      task = std::move(timed_.front().task);
      timed_.pop_front();
    } else {
      idle_cv_.notify_all();
      if (timed_.empty()) {
        cv_.wait(lock);
      } else {
        cv_.wait_until(lock, timed_.front().when);
      }
      continue;
    }
    running_task_ = true;
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    running_task_ = false;
  }
  idle_cv_.notify_all();
}

}  // namespace sim
