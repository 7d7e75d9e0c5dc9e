// The simulated service's own callback thread: every callback into the
// library runs on it, as a vendor's network thread would run them.
#ifndef KELQUOTE_DATAAPI_SIM_CALLBACK_THREAD_H_
#define KELQUOTE_DATAAPI_SIM_CALLBACK_THREAD_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace sim {

class CallbackThread {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  CallbackThread();
  ~CallbackThread();
  CallbackThread(const CallbackThread&) = delete;
  CallbackThread& operator=(const CallbackThread&) = delete;

  // Runs task on the thread, after everything posted before it.
  void post(Task task);
  // Runs task at (or soon after) when, in due-time order.
  void post_at(Clock::time_point when, Task task);
  // Drops every task not yet started and waits for the running one to end,
  // unless called from the thread itself. Later posts run normally.
  void cancel_all();
  // Waits until nothing is queued or running; false on time-out.
  bool wait_idle(int timeout_ms);
  bool on_this_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  void run();

  struct Timed {
    Clock::time_point when;
    uint64_t seq;
    Task task;
  };

  std::mutex mu_;
  std::condition_variable cv_;
  std::condition_variable idle_cv_;
  std::deque<Task> tasks_;
  std::deque<Timed> timed_;  // sorted by (when, seq)
  uint64_t seq_ = 0;
  bool running_task_ = false;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_CALLBACK_THREAD_H_
