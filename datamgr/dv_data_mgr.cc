#include "datamgr/DvDataMgr.h"

#include <algorithm>

#include "capture/capture_api.h"
#include "client/host_call.h"
#include "capture/capture_settings.h"
#include "capture/recorder.h"
#include "log/MyLog.h"
#include "log/sized_rolling_appender.h"
#include "realtime/tick_routes.h"
#include "utils/utils.h"

namespace tavr {

int service_thread_count(int processors) { return std::clamp(processors, 2, 20); }

namespace {

// The data manager whose queue the calling thread serves, if any.
thread_local DvDataMgr* t_serving = nullptr;
thread_local uint32_t t_message_key = 0;
// The run the calling service thread belongs to.
thread_local uint64_t t_run = 0;

struct ServiceArgs {
  DvDataMgr* mgr;
  uint64_t run;
  int server;
};

}  // namespace

bool daily_job_due(int64_t now, int last_date) {
  int date = static_cast<int>(now / 1000000);
  int time = static_cast<int>(now % 1000000);
  if (time < 83000 || time >= 83010 || date == last_date) return false;
  return !is_weekend(date);  // an unreadable date counts as a weekday
}

DvDataMgr::DvDataMgr() : callback_(this), clock_(&utils::getTime) {}

DvDataMgr::~DvDataMgr() {
  stop();
  wait_ended_runs();
}

void DvDataMgr::init_capture() {
  CaptureSettings settings = read_capture_settings(port::CaptureConfigPath());
  if (!settings.enabled || api_ == nullptr) return;
  capture_owned_ = std::make_unique<CaptureRecorder>(settings);
  capture_api_ = std::make_unique<CaptureApi>(api_, capture_owned_.get());
  api_ = capture_api_.get();
  capture_.store(capture_owned_.get(), std::memory_order_release);
}

void DvDataMgr::seed_markets() {
  markets_.add_market("SH", 19901219, 20170222);
  markets_.add_market("SZ", 19901219, 0);
  markets_.add_market("SQ", 20120316, 0);
  markets_.add_market("SN", 20180326, 0);
  markets_.add_market("DL", 20120319, 0);
  markets_.add_market("ZZ", 20120320, 0);
  markets_.add_market("ZJ", 20100416, 0);
  markets_.add_market("HK", 20141117, 20161205);
  calendar_.reset();
}

bool DvDataMgr::init(bool isReal) {
  std::lock_guard<std::mutex> lock(init_mu_);
  if (inited_) {
    CMyLog::PrintLog(LOG_INFO, "DvDataMgr::init", "Already inited, do nothing....");
    return true;
  }
  CMyLog::InitLog();
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::init",
                   "=================================Dravik Data Service[%s], Logs "
                   "init===================================",
                   kVersion);
  if (api_ == nullptr) api_ = GetApiInstance();
  if (capture_api_ == nullptr) init_capture();
  if (!init_cfg(isReal)) {
    CMyLog::PrintLog(LOG_ERROR, "DvDataMgr::init", "Fail to initialize Dravik config....");
    return false;
  }
  if (api_ != nullptr) api_->RegisterServer(&servers_, &callback_);
  seed_markets();
  inited_ = true;
  return true;
}

bool DvDataMgr::start() {
  // A start from a library thread or a host callback does not wait for
  // another start's Connect, which may wait for the thread it runs on.
  std::unique_lock<std::mutex> start_lock(start_mu_, std::defer_lock);
  if (!start_lock.try_lock()) {
    if (!may_join()) return false;
    start_lock.lock();
  }
  if (may_join()) {
    // A stop still releasing the vendor's API would undo this start's connect.
    std::unique_lock<std::mutex> lock(serve_mu_);
    serve_cv_.wait(lock, [this] { return stopping_ == 0; });
  }
  uint64_t run = 0;
  bool threads_run = false;
  {
    std::lock_guard<std::mutex> lock(lifecycle_mu_);
    run = current_run_.load();
    // Started before (the connection may have gone since): connect again with
    // the service and timer threads that run.
    threads_run = run != 0;
    if (!threads_run) {
      run = ++runs_;
      int count = service_thread_count(processors_ > 0 ? processors_ : port::ProcessorCount());
      {
        std::lock_guard<std::mutex> serve_lock(serve_mu_);
        in_loop_[run] = count;
        stale_before_ = queue_.pushed();
      }
      current_run_.store(run, std::memory_order_release);
      thread_count_.store(count);
      threads_ = static_cast<ThreadHandle*>(zmalloc(sizeof(ThreadHandle) * count));
      for (int i = 0; i < count; ++i) {
        threads_[i] = thread_create(&DvDataMgr::DataServiceThread, new ServiceArgs{this, run, i});
      }
      // A session's capture runs from its first connect to its stop.
      if (capture() != nullptr) capture()->begin();
    }
  }

  ConnectResult result{0, 0, 0};
  int rc = api_ != nullptr ? api_->Connect(&result) : -1;
  if (rc != 0) {
    CMyLog::PrintLog(LOG_ERROR, "DvDataMgr::start", "ThreadId[%lu] %s API建立连接失败[%d, %d, %d]...",
                     port::CurrentThreadId(), "DvDataMgr::start", result.code, result.server,
                     result.detail);
    if (end_run()) {
      if (capture() != nullptr) capture()->end();
      stopped();
    }
  }
  // Failed, or a stop meanwhile (the vendor giving up inside Connect) ended the run.
  if (!run_current(run)) {
    if (may_join()) wait_ended_runs();
    return false;
  }
  set_connected(true);
  request_base_data();
  prepare_markets();
  request_market_data(0);
  request_holidays();
  request_hkc_rate(0, 0);
  if (!threads_run) {
    std::lock_guard<std::mutex> lock(lifecycle_mu_);
    if (run_current(run)) start_timer_thread();
  }
  return true;
}

void DvDataMgr::start_timer_thread() {
  {
    std::lock_guard<std::mutex> lock(serve_mu_);
    ++in_loop_[current_run_.load()];
  }
  timer_thread_ = thread_create(&DvDataMgr::TimerTaskThread, new ServiceArgs{this, current_run_.load(), -1});
}

bool DvDataMgr::end_run() {
  {
    std::lock_guard<std::mutex> lock(lifecycle_mu_);
    if (current_run_.load() == 0) return false;
    current_run_.store(0, std::memory_order_release);
    for (int i = 0; i < thread_count_.load(); ++i) port::DetachThread(threads_[i]);
    zfree(threads_);
    threads_ = nullptr;
    thread_count_.store(0);
    {
      // The timer's wait reads the run under this lock: it cannot miss the end.
      std::lock_guard<std::mutex> timer_lock(timer_mu_);
    }
    timer_cv_.notify_all();
    port::DetachThread(timer_thread_);
    timer_thread_ = nullptr;
  }
  queue_.wake_all();
  std::lock_guard<std::mutex> serve_lock(serve_mu_);
  ++stopping_;
  serve_cv_.notify_all();
  return true;
}

void DvDataMgr::wait_ended_runs() {
  std::unique_lock<std::mutex> lock(serve_mu_);
  serve_cv_.wait(lock, [this] {
    return stopping_ == 0 &&
           (in_loop_.empty() || (in_loop_.size() == 1 && run_current(in_loop_.begin()->first)));
  });
}

bool DvDataMgr::enter_run(uint64_t run) {
  std::unique_lock<std::mutex> lock(serve_mu_);
  serve_cv_.wait(lock, [&] { return !run_current(run) || in_loop_.begin()->first == run; });
  if (!run_current(run)) return false;
  if (activated_run_ != run) {
    activated_run_ = run;
    // A message left from an earlier run is stale; only the oldest goes.
    if (DataMsg* stale = queue_.activate(thread_count_.load(), stale_before_)) {
      free_msg(stale);
      handled_[MsgQueue::kMaxServers].value.fetch_add(1);
    }
  }
  return true;
}

void DvDataMgr::leave_run(uint64_t run) {
  std::lock_guard<std::mutex> lock(serve_mu_);
  if (--in_loop_[run] == 0) in_loop_.erase(run);
  serve_cv_.notify_all();
}

bool DvDataMgr::may_join() const { return t_serving != this && host_call_depth() == 0; }

bool DvDataMgr::stop() {
  stop_from_vendor();
  if (may_join()) wait_ended_runs();
  return true;
}

void DvDataMgr::stop_from_vendor() {
  if (!end_run()) return;
  if (api_ != nullptr) api_->Release();
  set_connected(false);
  if (capture() != nullptr) capture()->end();
  {
    // No reply comes for a financial request of an ended session: what it
    // collected goes.
    std::lock_guard<std::mutex> lock(his_request_mu_);
    for (const auto& [id, collect] : finance_results_) his_request_infos.erase(id);
    finance_results_.clear();
  }
  markets_.clear_codes();
  {
    std::lock_guard<std::mutex> calendar_lock(calendar_.mu);
    calendar_.hk_rates.clear();
  }
  stopped();
}

void DvDataMgr::stopped() {
  std::lock_guard<std::mutex> lock(serve_mu_);
  --stopping_;
  serve_cv_.notify_all();
}

void DvDataMgr::handle_msg(int server, DataMsg* msg) {
  CMyLog::PrintLog(LOG_DEBUG, "DvDataMgr::DataServiceThread",
                   "数据服务线程 处理消息包,数据指针地址为%p...", msg->data);
  try {
    // The lines of one message reach the log file together.
    SizedRollingFileAppender::FlushBatch batch;
    if (message_hook_) message_hook_(msg->msg_type, msg->data, msg->size);
    t_message_key = msg->key;
    on_reply_data(static_cast<int>(msg->msg_type), msg->data, msg->size);
  } catch (...) {
    CMyLog::PrintLog(LOG_FATAL, "DvDataMgr::DataServiceThread",
                     "数据服务线程, do bussiness catch Exception!!!...");
  }
  t_message_key = 0;
  queue_.recycle(server, msg);
  handled_[server].value.fetch_add(1);
  if (idle_waiters_.load() > 0 && pending() == 0) {
    std::lock_guard<std::mutex> lock(idle_mu_);
    idle_cv_.notify_all();
  }
}

uint32_t DvDataMgr::message_key() { return t_message_key; }

void DvDataMgr::handle_chain(int server, DataMsg* msg) {
  while (msg != nullptr) {
    uint32_t strand = msg->strand;
    handle_msg(server, msg);
    // After the run ended, the strand's rest waits for the next run's deal.
    msg = strand != 0 && run_current(t_run) ? queue_.end_strand(strand) : nullptr;
  }
}

unsigned DvDataMgr::DataServiceThread(void* arg) {
  std::unique_ptr<ServiceArgs> args(static_cast<ServiceArgs*>(arg));
  args->mgr->service_loop(args->run, args->server);
  return 0;
}

void DvDataMgr::service_loop(uint64_t run, int server) {
  t_serving = this;
  t_run = run;
  TickRoutes routes;
  TickRoutes::current() = &routes;
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::DataServiceThread", "数据服务线程 begin...");
  bool serving = enter_run(run);
  while (serving && run_current(run)) {
    DataMsg* msg = nullptr;
    try {
      // Take before waiting: wake-ups beyond the semaphore's maximum are lost,
      // so a thread drains what is queued instead of waiting once per message.
      msg = queue_.take(server);
      if (msg == nullptr) {
        queue_.wait(server);
        msg = queue_.take(server);
      }
    } catch (...) {
      CMyLog::PrintLog(LOG_FATAL, "DvDataMgr::DataServiceThread", "数据服务线程, run Exception!!!...");
      continue;
    }
    handle_chain(server, msg);
  }
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::DataServiceThread", "数据服务线程 exit...");
  TickRoutes::current() = nullptr;
  t_serving = nullptr;
  leave_run(run);
}

int64_t DvDataMgr::pending() const {
  // Handled first: every message counted handled was counted pushed before,
  // so the difference is never below the truth.
  int64_t handled = 0;
  for (const Count& count : handled_) handled += count.value.load();
  return static_cast<int64_t>(queue_.pushed()) - handled;
}

bool DvDataMgr::wait_idle(int timeout_ms) {
  idle_waiters_.fetch_add(1);
  std::unique_lock<std::mutex> lock(idle_mu_);
  bool idle = idle_cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                [this] { return pending() == 0; });
  idle_waiters_.fetch_sub(1);
  return idle;
}

unsigned DvDataMgr::TimerTaskThread(void* arg) {
  std::unique_ptr<ServiceArgs> args(static_cast<ServiceArgs*>(arg));
  args->mgr->timer_loop(args->run);
  args->mgr->leave_run(args->run);
  return 0;
}

void DvDataMgr::timer_loop(uint64_t run) {
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::TimerTaskThread", "Daily job thread start......");
  int last_date = -1;
  using Clock = std::chrono::steady_clock;
  // The daily check keeps its period; parked history blocks wake the thread
  // for their wait steps in between.
  Clock::time_point daily = Clock::now() + std::chrono::milliseconds(timer_period_ms_);
  Clock::time_point parked = Clock::time_point::max();
  while (true) {
    {
      std::unique_lock<std::mutex> lock(timer_mu_);
      if (timer_cv_.wait_until(lock, std::min(daily, parked), [&] { return !run_current(run) || timer_poke_; }) &&
          !run_current(run)) {
        CMyLog::PrintLog(LOG_INFO, "DvDataMgr::TimerTaskThread", "Daily job thread end......");
        return;
      }
      timer_poke_ = false;
    }
    Clock::time_point woke = Clock::now();
    parked = age_parked(woke);
    if (woke < daily) continue;
    daily = woke + std::chrono::milliseconds(timer_period_ms_);
    int64_t seconds = static_cast<int64_t>(clock_());
    int64_t now = utils::millisecondsToTime(seconds * 1000);
    if (!daily_job_due(now, last_date)) continue;
    CMyLog::PrintLog(LOG_INFO, "DvDataMgr::TimerTaskThread", "Start daily job......");
    request_hkc_rate(0, 0);
    request_holidays();
    last_date = static_cast<int>(now / 1000000);
  }
}

int DvDataMgr::log_wait_step(int attempt, const char* function, const std::string& market, char kind) {
  if (attempt > 5) {
    CMyLog::PrintLog(LOG_INFO, "DvDataMgr::waitDynamicTime", "[%s]%s-%d信息正初始化，等待1000ms后开始处理![#%d]",
                     function, market.c_str(), kind, attempt);
    return 1000;
  }
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::waitDynamicTime", "[%s]%s-%d信息正初始化，等待400ms![#%d]", function,
                   market.c_str(), kind, attempt);
  return 400;
}

void DvDataMgr::waitDynamicTime(int attempt, const char* function, const std::string& market, char kind) {
  int ms = log_wait_step(attempt, function, market, kind);
  sleeper_ ? sleeper_(ms) : port::SleepMs(ms);
}

}  // namespace tavr
