// The simulated service's real-time streams: the subscriptions, their
// schedule on the callback thread, and the control of their pace and clock.
#include <chrono>
#include <cstring>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/sessions.h"
#include "dataapi/sim/sim_api.h"
#include "dataapi/sim/sim_control.h"
#include "utils/utils.h"

namespace sim {

namespace {

int64_t NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string CodeOf(const ApiCodeItem& item) { return std::string(item.code, strnlen(item.code, sizeof(item.code))); }

}  // namespace

int SimDataApi::SubscribeL1(const ApiCodeItem* items, int32_t count) {
  return change_streams(StreamKind::kLevel1, items, count, true);
}

int SimDataApi::UnsubscribeL1(const ApiCodeItem* items, int32_t count) {
  return change_streams(StreamKind::kLevel1, items, count, false);
}

int SimDataApi::SubscribeL2(const ApiCodeItem* items, int32_t count) {
  return change_streams(StreamKind::kLevel2, items, count, true);
}

int SimDataApi::UnsubscribeL2(const ApiCodeItem* items, int32_t count) {
  return change_streams(StreamKind::kLevel2, items, count, false);
}

int SimDataApi::change_streams(StreamKind kind, const ApiCodeItem* items, int32_t count, bool start) {
  if (items == nullptr || count <= 0) return -1;
  std::vector<ApiCodeItem> copies(static_cast<size_t>(count));
  std::memcpy(copies.data(), items, copies.size() * sizeof(ApiCodeItem));
  std::lock_guard<std::mutex> lock(mu_);
  if (!serving()) return -1;
  std::vector<StreamKey> keys;
  for (const ApiCodeItem& item : copies) {
    const Market* market = universe().market(item.market);
    std::string code = CodeOf(item);
    if (market == nullptr || find_instrument(*market, code) < 0) return -1;
    keys.push_back(StreamKey{kind, market->id, std::move(code)});
  }
  if (!start) {
    for (const StreamKey& key : keys) stop_stream(key);
    return 0;
  }
  for (StreamKey& key : keys) start_stream(std::move(key));
  schedule();
  return 0;
}

int SimDataApi::SubscribeMarketPush(const ApiMarketItem* item) {
  if (item == nullptr) return -1;
  ApiMarketItem copy;
  std::memcpy(&copy, item, sizeof(copy));
  std::lock_guard<std::mutex> lock(mu_);
  if (!serving() || universe().market(copy.market) == nullptr) return -1;
  start_stream(StreamKey{StreamKind::kMarket, copy.market, std::string()});
  schedule();
  return 0;
}

int SimDataApi::UnsubscribeMarketPush(const ApiMarketItem* item) {
  if (item == nullptr) return -1;
  ApiMarketItem copy;
  std::memcpy(&copy, item, sizeof(copy));
  std::lock_guard<std::mutex> lock(mu_);
  if (!serving() || universe().market(copy.market) == nullptr) return -1;
  stop_stream(StreamKey{StreamKind::kMarket, copy.market, std::string()});
  return 0;
}

void SimDataApi::start_stream(StreamKey key) {
  if (streams_.count(key) != 0) return;
  // The first send goes out at once.
  Clock::time_point now = Clock::now();
  streams_.emplace(std::move(key), Stream{now, Clock::time_point(), std::make_shared<std::atomic<bool>>(true)});
}

void SimDataApi::stop_stream(const StreamKey& key) {
  auto it = streams_.find(key);
  if (it == streams_.end()) return;
  it->second.live->store(false, std::memory_order_release);
  streams_.erase(it);
}

void SimDataApi::stop_streams() {
  for (auto& [key, stream] : streams_) stream.live->store(false, std::memory_order_release);
  streams_.clear();
  // A scheduler task still queued or running must not post itself again.
  ++tick_token_;
  tick_at_ = Clock::time_point::max();
}

void SimDataApi::schedule() {
  if (!serving() || streams_.empty()) return;
  Clock::time_point earliest = Clock::time_point::max();
  for (const auto& [key, stream] : streams_) earliest = std::min(earliest, stream.due);
  if (earliest >= tick_at_) return;
  tick_at_ = earliest;
  uint64_t token = ++tick_token_;
  callbacks_.post_at(earliest, [this, token] { run_streams(token); });
}

int SimDataApi::interval_ms(StreamKind kind) const {
  return kind == StreamKind::kMarket ? push_interval_ms_ : stream_interval_ms_;
}

void SimDataApi::retime(StreamKind kind) {
  bool market = kind == StreamKind::kMarket;
  for (auto& [key, stream] : streams_) {
    if ((key.kind == StreamKind::kMarket) != market || stream.sent == Clock::time_point()) continue;
    stream.due = stream.sent + std::chrono::milliseconds(interval_ms(key.kind));
  }
  // The pending task may now be late; a new one goes in for the earliest.
  tick_at_ = Clock::time_point::max();
  ++tick_token_;
  schedule();
}

Stamp SimDataApi::stamp() {
  int64_t real = NowMs();
  // The clock steps once per stream interval, whatever reads it.
  if (step_at_ms_ == 0) step_at_ms_ = real;
  int64_t due = (real - step_at_ms_) / stream_interval_ms_;
  if (due > 0) {
    clock_steps_ += due;
    step_at_ms_ += due * stream_interval_ms_;
  }
  int64_t ms = real + clock_offset_ms_;
  int64_t time = utils::millisecondsToTime(ms);
  Stamp stamp;
  stamp.date = static_cast<int32_t>(time / 1000000);
  stamp.hhmmss = static_cast<int32_t>(time % 1000000);
  stamp.millis = static_cast<int32_t>((ms % 1000 + 1000) % 1000);
  stamp.step = clock_steps_;
  return stamp;
}

void SimDataApi::build(const StreamKey& key, const Stamp& now, std::vector<Send>& sends) {
  const Market* market = universe().market(key.market);
  if (market == nullptr) return;
  if (key.kind == StreamKind::kMarket) {
    sends.push_back(Send{&CDataApiCallBack::OnRespMarketPushData, quotes_->market_package(*market, now), nullptr});
    return;
  }
  int index = find_instrument(*market, key.code);
  if (index < 0) return;
  if (key.kind == StreamKind::kLevel1) {
    ApiL1Tick tick = quotes_->level1(*market, static_cast<size_t>(index), now);
    std::vector<uint8_t> bytes(sizeof(tick));
    std::memcpy(bytes.data(), &tick, sizeof(tick));
    sends.push_back(Send{&CDataApiCallBack::OnTickL1, std::move(bytes), nullptr});
    return;
  }
  Level2Messages messages = quotes_->level2(*market, static_cast<size_t>(index), now);
  auto add = [&sends](Handler handler, Bytes& bytes) {
    if (!bytes.empty()) sends.push_back(Send{handler, std::move(bytes), nullptr});
  };
  add(messages.index ? &CDataApiCallBack::OnIndexL2 : &CDataApiCallBack::OnTickL2, messages.snapshot);
  add(&CDataApiCallBack::OnTransL2, messages.transactions);
  add(&CDataApiCallBack::OnOrderL2, messages.orders);
  add(&CDataApiCallBack::OnOrderQueueL2, messages.queues);
}

void SimDataApi::run_streams(uint64_t token) {
  std::vector<Send> sends;
  CDataApiCallBack* callback = nullptr;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (token != tick_token_) return;
    tick_at_ = Clock::time_point::max();
    if (!serving()) return;  // a restored connection schedules again
    const Clock::time_point now = Clock::now();
    const Stamp at = stamp();
    for (auto& [key, stream] : streams_) {
      if (stream.due > now) continue;
      size_t first = sends.size();
      build(key, at, sends);
      for (size_t i = first; i < sends.size(); ++i) sends[i].live = stream.live;
      // A late task does not make up for the sends it missed.
      auto interval = std::chrono::milliseconds(interval_ms(key.kind));
      stream.sent = now;
      stream.due += interval;
      if (stream.due <= now) stream.due = now + interval;
    }
    schedule();
    callback = callback_;
  }
  // Outside the lock: a callback may subscribe, cancel or release.
  for (const Send& send : sends) {
    if (!send.live->load(std::memory_order_acquire)) continue;
    (callback->*send.handler)(send.bytes.data());
  }
}

bool SimDataApi::set_stream_interval(int ms) {
  if (ms < 1 || ms > kMaxIntervalMs) return false;
  std::lock_guard<std::mutex> lock(mu_);
  stream_interval_ms_ = ms;
  retime(StreamKind::kLevel1);
  return true;
}

bool SimDataApi::set_push_interval(int ms) {
  if (ms < 1 || ms > kMaxIntervalMs) return false;
  std::lock_guard<std::mutex> lock(mu_);
  push_interval_ms_ = ms;
  retime(StreamKind::kMarket);
  return true;
}

bool SimDataApi::set_clock(int date, int hhmmss) {
  if (hhmmss >= 0 && (hhmmss > 235959 || hhmmss / 100 % 100 > 59 || hhmmss % 100 > 59)) return false;
  if (date != 0 && (date < 19900101 || date > 20991231 || add_days(date, 0) != date)) return false;
  int64_t offset = 0;
  if (hhmmss >= 0) {
    int64_t now = NowMs();
    int day = date != 0 ? date : static_cast<int>(utils::millisecondsToTime(now) / 1000000);
    offset = utils::timeToMilliseconds(day, hhmmss) - now;
  }
  std::lock_guard<std::mutex> lock(mu_);
  clock_offset_ms_ = offset;
  return true;
}

}  // namespace sim

int SimSetStreamInterval(int ms) { return sim::SimDataApi::instance().set_stream_interval(ms) ? 0 : -1; }

int SimSetPushInterval(int ms) { return sim::SimDataApi::instance().set_push_interval(ms) ? 0 : -1; }

int SimSetTimeOfDay(int hhmmss) { return sim::SimDataApi::instance().set_clock(0, hhmmss) ? 0 : -1; }

int SimSetClock(int yyyymmdd, int hhmmss) {
  if (yyyymmdd < 0 || hhmmss < 0) return -1;
  if (yyyymmdd == 0) yyyymmdd = sim::trading_day_on_or_before(sim::local_today());
  return sim::SimDataApi::instance().set_clock(yyyymmdd, hhmmss) ? 0 : -1;
}

int SimMarketsTrading(int yyyymmdd, int hhmmss) { return sim::any_market_trading(yyyymmdd, hhmmss) ? 1 : 0; }

int SimLastTradingDay(int yyyymmdd) { return sim::trading_day_on_or_before(yyyymmdd); }
