// Soak run of the real-time pipeline: two vendor threads stream level-1
// snapshots and level-2 transactions at full speed (held back only by the
// queue's limit), host threads subscribe and unsubscribe a few instruments
// at random, and the connection status is stormed (lost and restored all
// along; failed, then a new login, every few rounds). Checks:
//   - each subscription receives its stream's records exactly once and in
//     order, without a gap, for as long as it lives;
//   - no callback after its unsubscribe returned;
//   - at every pause, what the vendor was last told of each instrument and
//     level matches whether a host holds a subscription of it;
//   - threads and memory do not grow; nothing hangs (a watchdog fails the
//     run when a stage outlasts its limit).
//   kelquote_soak [seconds, default 5]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "kelquote/LoginParam.h"
#include "testkit/fake_api.h"
#include "testkit/process_status.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kInstruments = 4;  // few, so that hosts meet on the same ones
constexpr int kHosts = 3;
constexpr uint8_t kSH = 2;
constexpr auto kHangLimit = 30s;
constexpr size_t kQueueLimit = size_t{16} << 20;

// ASan keeps freed blocks in quarantine (256 MB) before reusing them, so
// the process grows under it whatever the library does.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryCheck = false;
#else
constexpr bool kMemoryCheck = true;
#endif

std::string Code(int i) { return std::to_string(600000 + i); }

// Threads of the process, from /proc.
int Threads() {
  int n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

// One host subscription and what it received.
struct Sub {
  int instrument = 0;
  bool level2 = false;
  int id = -1;
  std::atomic<bool> closed{false};  // set once unsubscribe returned
  std::mutex mu;
  int64_t last = -1;  // the last sequence number received
};

class Soak {
 public:
  explicit Soak(int seconds) : seconds_(seconds) {}

  int Run();

 private:
  void Fault(const char* kind, const std::string& text);
  void Stage(const char* name) {
    stage_.store(name);
    stage_since_.store(Clock::now().time_since_epoch().count());
  }
  void Received(Sub& sub, const tavr::QuoteRecords& records);
  void Stream(bool level2);
  void Host(int index);
  void Storm();
  void Watchdog();
  void InitMarket();
  void PauseStreams(bool pause);
  void ParkHosts(bool park);
  void CheckVendorState();
  void FailAndLogin();
  bool Idle(const char* stage);

  int seconds_;
  testkit::WorkDir dir_;
  testkit::FakeDataApi api_;
  tavr::KelQuoteClient client_;
  tavr::DvDataMgr mgr_;

  std::atomic<bool> stop_{false};
  std::atomic<const char*> stage_{"start"};
  std::atomic<int64_t> stage_since_{0};

  // Streams pause for a failure; hosts park for a check.
  std::mutex gate_mu_;
  std::condition_variable gate_cv_;
  bool pause_ = false;
  int paused_ = 0;
  bool park_ = false;
  int parked_ = 0;
  std::shared_mutex storm_mu_;  // the status storm holds it shared; a failure exclusive

  // Live subscriptions per instrument and level, changed only by hosts.
  std::mutex live_mu_;
  int live_[kInstruments][2] = {};
  bool vendor_on_[kInstruments][2] = {};  // what the vendor was last told

  std::atomic<int64_t> sent_[2] = {};
  std::atomic<int64_t> delivered_{0};
  std::atomic<int64_t> full_{0};  // sends the full queue refused (then retried)
  std::atomic<int64_t> subscriptions_{0};
  std::atomic<int64_t> flaps_{0};
  int failures_ = 0;

  std::mutex fault_mu_;
  std::map<std::string, int64_t> faults_;
};

void Soak::Fault(const char* kind, const std::string& text) {
  std::lock_guard<std::mutex> lock(fault_mu_);
  if (faults_[kind]++ < 3) std::fprintf(stderr, "soak: %s: %s\n", kind, text.c_str());
}

// Level 1 carries its sequence number in the trade count, level 2 in each
// transaction's number.
void Soak::Received(Sub& sub, const tavr::QuoteRecords& records) {
  if (sub.closed.load()) Fault("callback after unsubscribe", "subscription " + std::to_string(sub.id));
  std::lock_guard<std::mutex> lock(sub.mu);
  for (const auto& record : records) {
    int64_t seq = -1;
    if (sub.level2) {
      if (auto t = std::dynamic_pointer_cast<quoter::TransactionData>(record)) seq = t->number1;
    } else if (record == records.back()) {
      if (auto a = std::dynamic_pointer_cast<quoter::QuoterAllData>(record)) seq = a->tradeCount;
    }
    if (seq < 0) continue;
    if (sub.last >= 0 && seq != sub.last + 1) {
      Fault(seq <= sub.last ? "repeated or out of order" : "gap",
            Code(sub.instrument) + (sub.level2 ? " L2" : " L1") + ": " + std::to_string(seq) + " after " +
                std::to_string(sub.last));
    }
    sub.last = seq;
    delivered_.fetch_add(1, std::memory_order_relaxed);
  }
}

void Soak::Stream(bool level2) {
  CDataApiCallBack* vendor = mgr_.callback();
  std::vector<uint32_t> seq(kInstruments, 0);
  while (!stop_.load()) {
    {
      std::unique_lock<std::mutex> lock(gate_mu_);
      if (pause_) {
        ++paused_;
        gate_cv_.notify_all();
        gate_cv_.wait(lock, [&] { return !pause_ || stop_.load(); });
        --paused_;
        continue;
      }
    }
    for (int i = 0; i < kInstruments; ++i) {
      std::vector<uint8_t> bytes;
      if (level2) {
        auto t = testkit::level2_record<ApiL2Transaction>(kSH, Code(i).c_str(), 20240102, 100000000);
        t.price = 100000;
        t.volume = 100;
        std::vector<ApiL2Transaction> records(2, t);
        for (auto& r : records) r.number1 = ++seq[i];
        bytes = testkit::level2(records);
      } else {
        ApiL1Tick t = testkit::l1_tick(kSH, Code(i), 100000, 10.0f);
        t.trade_count = ++seq[i];
        bytes = testkit::bytes_of(t);
      }
      // The queue refuses beyond its limit: the vendor sends again, as a
      // network stream holds back, so that nothing is lost on our side.
      while ((level2 ? vendor->OnTransL2(bytes.data()) : vendor->OnTickL1(bytes.data())) != 0) {
        full_.fetch_add(1, std::memory_order_relaxed);
        if (stop_.load()) return;
        std::this_thread::sleep_for(100us);
      }
      sent_[level2].fetch_add(level2 ? 2 : 1, std::memory_order_relaxed);
    }
  }
}

void Soak::Host(int index) {
  std::mt19937 rng(index * 7919 + 1);
  std::vector<std::shared_ptr<Sub>> held;
  auto unsubscribe = [&](size_t at) {
    auto sub = held[at];
    held.erase(held.begin() + static_cast<long>(at));
    client_.unsubscribe(sub->id);
    sub->closed.store(true);
    std::lock_guard<std::mutex> lock(live_mu_);
    --live_[sub->instrument][sub->level2];
  };
  while (true) {
    {
      std::unique_lock<std::mutex> lock(gate_mu_);
      if (park_) {
        ++parked_;
        gate_cv_.notify_all();
        gate_cv_.wait(lock, [&] { return !park_; });
        --parked_;
      }
    }
    if (stop_.load()) break;
    if (held.size() < 2 && (held.empty() || rng() % 2 == 0)) {
      auto sub = std::make_shared<Sub>();
      sub->instrument = static_cast<int>(rng() % kInstruments);
      sub->level2 = rng() % 2 == 0;
      quoter::TSMetaInfo meta;
      meta.market = "SH";
      meta.code = Code(sub->instrument);
      meta.metaId = sub->level2 ? 1801 : 3000;
      // The host owns what its callback captures and frees it after unsubscribing.
      std::weak_ptr<Sub> weak = sub;
      sub->id = client_.subscribeQuote(meta, {}, "", [this, weak](se::EQuoteSubStatus,
                                                                  const tavr::QuoteRecords& records,
                                                                  se::EDataArrivedTag) {
        if (auto s = weak.lock()) {
          Received(*s, records);
        } else {
          Fault("callback after unsubscribe", "its subscription is gone");
        }
      });
      if (sub->id < 0) {
        Fault("subscribe refused", Code(sub->instrument));
        continue;
      }
      subscriptions_.fetch_add(1);
      {
        std::lock_guard<std::mutex> lock(live_mu_);
        ++live_[sub->instrument][sub->level2];
      }
      held.push_back(std::move(sub));
    } else {
      unsubscribe(rng() % held.size());
    }
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
  }
  while (!held.empty()) unsubscribe(0);
}

// Lost and restored all along; the history server's reports now and then.
void Soak::Storm() {
  std::mt19937 rng(17);
  CDataApiCallBack* vendor = mgr_.callback();
  while (!stop_.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1 + rng() % 20));
    std::shared_lock<std::shared_mutex> lock(storm_mu_);
    vendor->OnConnectStatus(0, 0);
    vendor->OnConnectStatus(0, 1);
    if (rng() % 4 == 0) vendor->OnConnectStatus(1, static_cast<int>(rng() % 3));
    flaps_.fetch_add(1);
  }
}

void Soak::Watchdog() {
  while (!stop_.load()) {
    std::this_thread::sleep_for(200ms);
    auto since = Clock::time_point(Clock::duration(stage_since_.load()));
    if (Clock::now() - since > kHangLimit) {
      std::fprintf(stderr, "soak: hung: stage \"%s\" has not ended after %lld s\n", stage_.load(),
                   static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(kHangLimit).count()));
      std::fflush(stderr);
      std::_Exit(3);
    }
  }
}

void Soak::InitMarket() {
  std::vector<ApiCodeInit> codes;
  for (int i = 0; i < kInstruments; ++i) codes.push_back(testkit::code_init(Code(i), "SOAK"));
  auto init = testkit::market_init(kSH, 20240102, codes);
  auto ref = testkit::ref_info(kSH, codes, 10.0f, 0.5f);
  mgr_.callback()->OnMarketInit(init.data());
  mgr_.callback()->OnRespRefInfo(ref.data());
}

void Soak::PauseStreams(bool pause) {
  std::unique_lock<std::mutex> lock(gate_mu_);
  pause_ = pause;
  gate_cv_.notify_all();
  if (pause) gate_cv_.wait(lock, [&] { return paused_ == 2; });
}

void Soak::ParkHosts(bool park) {
  std::unique_lock<std::mutex> lock(gate_mu_);
  park_ = park;
  gate_cv_.notify_all();
  if (park) gate_cv_.wait(lock, [&] { return parked_ == kHosts; });
}

bool Soak::Idle(const char* stage) {
  Stage(stage);
  if (mgr_.wait_idle(static_cast<int>(std::chrono::milliseconds(kHangLimit).count()))) return true;
  Fault("hang", std::string("the service threads did not finish the queue: ") + stage);
  return false;
}

// Hosts are parked: no subscribe or unsubscribe is under way.
void Soak::CheckVendorState() {
  for (const testkit::ApiCall& call : api_.calls()) {
    bool on = call.op == "SubscribeL1" || call.op == "SubscribeL2";
    bool off = call.op == "UnsubscribeL1" || call.op == "UnsubscribeL2";
    if (!on && !off) continue;
    auto item = testkit::record_of<ApiCodeItem>(call);
    int i = std::atoi(item.code) - 600000;
    if (i >= 0 && i < kInstruments) vendor_on_[i][call.op.back() == '2'] = on;
  }
  api_.clear_calls();
  std::lock_guard<std::mutex> lock(live_mu_);
  for (int i = 0; i < kInstruments; ++i) {
    for (int level = 0; level < 2; ++level) {
      if ((live_[i][level] > 0) != vendor_on_[i][level]) {
        Fault("vendor state differs from the subscriptions",
              Code(i) + " L" + std::to_string(level + 1) + ": " + std::to_string(live_[i][level]) +
                  " held, vendor last told " + (vendor_on_[i][level] ? "subscribe" : "unsubscribe"));
      }
    }
  }
}

// The vendor gives up (status 2) and the host logs in again; the vendor
// then sends the market's data anew, which the stop dropped.
void Soak::FailAndLogin() {
  std::unique_lock<std::shared_mutex> storm(storm_mu_);
  Stage("failure: pausing the streams");
  PauseStreams(true);
  if (!Idle("failure: draining")) return;
  Stage("failure: status 2");
  mgr_.callback()->OnConnectStatus(0, 2);
  if (mgr_.is_started()) Fault("status 2", "the data manager still runs");
  Stage("failure: login");
  bool ok = false;
  client_.goLogin(tavr::LoginParam{}, [&](bool result, std::string) { ok = result; });
  if (!ok) Fault("login", "the login after status 2 failed");
  InitMarket();
  Idle("failure: market data");
  PauseStreams(false);
  ++failures_;
}

int Soak::Run() {
  dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                  testkit::servers_xml(1) + "</history>"));
  mgr_.set_api(&api_);
  mgr_.set_queue_limit(kQueueLimit);
  // Subscribing takes the vendor a while, as a network send does: races
  // between hosts on one instrument get a window to show in.
  for (const char* op : {"SubscribeL1", "UnsubscribeL1", "SubscribeL2", "UnsubscribeL2"}) api_.set_delay(op, 300);
  client_.attach_data_manager(&mgr_);
  std::atomic<int64_t> statuses{0};
  client_.registerQuoterConnectCallBack([&](int, std::string) { statuses.fetch_add(1); });
  Stage("login");
  std::thread watchdog(&Soak::Watchdog, this);
  bool ok = false;
  client_.goLogin(tavr::LoginParam{}, [&](bool result, std::string) { ok = result; });
  if (!ok) {
    std::fprintf(stderr, "soak: login failed\n");
    stop_.store(true);
    watchdog.join();
    return 1;
  }
  InitMarket();
  Idle("market data");

  std::vector<std::thread> threads;
  threads.emplace_back(&Soak::Stream, this, false);
  threads.emplace_back(&Soak::Stream, this, true);
  for (int h = 0; h < kHosts; ++h) threads.emplace_back(&Soak::Host, this, h);
  threads.emplace_back(&Soak::Storm, this);

  const auto start = Clock::now();
  const auto end = start + std::chrono::seconds(seconds_);
  const auto warm = start + std::chrono::milliseconds(std::min(2000, seconds_ * 250));
  int base_threads = -1, max_threads = 0;
  long base_rss = -1, end_rss = 0;
  int rounds = 0;
  while (Clock::now() < end) {
    Stage("round");
    std::this_thread::sleep_for(200ms);
    Stage("parking the hosts");
    ParkHosts(true);
    CheckVendorState();
    if (++rounds % 10 == 0) FailAndLogin();
    int threads_now = Threads();
    max_threads = std::max(max_threads, threads_now);
    if (base_threads < 0 && Clock::now() >= warm) {
      base_threads = threads_now - static_cast<int>(threads.size());
      base_rss = testkit::StatusKb("VmRSS");
    }
    ParkHosts(false);
  }
  Stage("stopping");
  stop_.store(true);
  {
    std::lock_guard<std::mutex> lock(gate_mu_);
    gate_cv_.notify_all();
  }
  for (auto& t : threads) t.join();
  Idle("final drain");
  CheckVendorState();
  int end_threads = Threads();
  end_rss = testkit::StatusKb("VmRSS");
  if (end_threads > base_threads) {
    Fault("threads grew", std::to_string(base_threads) + " after warm-up, " + std::to_string(end_threads) + " at the end");
  }
  // The queue may hold its limit at any time; beyond that nothing may stay.
  long slack_kb = static_cast<long>(kQueueLimit / 1024) + 32 * 1024;
  if (kMemoryCheck && end_rss > base_rss + slack_kb) {
    Fault("memory grew", std::to_string(base_rss / 1024) + " MB after warm-up, " + std::to_string(end_rss / 1024) +
                             " MB at the end");
  }
  stop_.store(true);
  Stage("exit");
  watchdog.join();

  double secs = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf(
      "soak: %.0f s, records sent L1 %lld L2 %lld, delivered %lld, queue-full resends %lld, subscriptions %lld, "
      "status flaps %lld, failures and logins %d, host status callbacks %lld\n",
      secs, static_cast<long long>(sent_[0].load()), static_cast<long long>(sent_[1].load()),
      static_cast<long long>(delivered_.load()), static_cast<long long>(full_.load()),
      static_cast<long long>(subscriptions_.load()), static_cast<long long>(flaps_.load()), failures_,
      static_cast<long long>(statuses.load()));
  std::printf("soak: memory %ld MB after warm-up, %ld MB at the end, peak %ld MB; library threads %d after warm-up, "
              "%d at the end (peak of the process %d)\n",
              base_rss / 1024, end_rss / 1024, testkit::StatusKb("VmHWM") / 1024, base_threads, end_threads,
              max_threads);
  if (delivered_.load() == 0) Fault("no delivery", "no record reached a host");
  std::lock_guard<std::mutex> lock(fault_mu_);
  for (const auto& [kind, count] : faults_) std::printf("soak: FAULT %s: %lld\n", kind.c_str(), static_cast<long long>(count));
  return faults_.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = argc > 1 ? std::atoi(argv[1]) : 5;
  if (seconds <= 0) {
    std::fprintf(stderr, "usage: kelquote_soak [seconds]\n");
    return 2;
  }
  Soak soak(seconds);
  return soak.Run();
}
