// kelquote._kelquote: the library's client for Python.
//
// No Python code runs on a library or vendor thread: their callbacks copy
// records into fixed-size rows of a bounded buffer per subscription (or an
// event queue) and wake whoever waits; Python takes rows in batches, on its
// own threads. Every call that can wait releases the interpreter lock and
// wakes every 100 ms to let Ctrl-C through.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include <iconv.h>

#include "kelquote/KelQuoteClient.h"
#include "python/src/row_buffer.h"
#include "python/src/rows.h"
#include "utils/utils.h"

namespace py = pybind11;

namespace kqpy {
namespace {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct LoginFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct RequestFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct ClosedFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

tavr::KelQuoteClient& Lib() { return tavr::KelQuoteClient::get(); }

// Library text (GBK; GB18030 is its superset) as UTF-8 through iconv, never
// a locale; a byte it cannot read becomes U+FFFD, so the result is always
// valid UTF-8.
std::string Utf8(const std::string& gbk) {
  if (std::all_of(gbk.begin(), gbk.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) return gbk;
  static_assert(std::is_trivially_destructible_v<iconv_t>);  // a handle per thread, never closed
  thread_local iconv_t cd = iconv_open("UTF-8", "GB18030");
  if (cd == reinterpret_cast<iconv_t>(-1)) return std::string(gbk.size(), '?');
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  std::string out(gbk.size() * 2 + 8, '\0');
  char* in = const_cast<char*>(gbk.data());
  size_t in_left = gbk.size();
  char* to = out.data();
  size_t to_left = out.size();
  while (in_left > 0) {
    if (iconv(cd, &in, &in_left, &to, &to_left) != static_cast<size_t>(-1)) break;
    if (errno == E2BIG) {
      size_t used = static_cast<size_t>(to - out.data());
      out.resize(out.size() * 2);
      to = out.data() + used;
      to_left = out.size() - used;
      continue;
    }
    // An invalid or cut sequence: one replacement character for its first byte.
    if (to_left < 3) {
      size_t used = static_cast<size_t>(to - out.data());
      out.resize(out.size() + 16);
      to = out.data() + used;
      to_left = out.size() - used;
    }
    std::memcpy(to, "\xEF\xBF\xBD", 3);
    to += 3;
    to_left -= 3;
    ++in;
    --in_left;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
  }
  out.resize(static_cast<size_t>(to - out.data()));
  return out;
}

// Library time (ms since the epoch, stamped from the exchange's local wall
// clock in the process's time zone) to that wall clock counted as UTC.
int64_t LocalMs(int64_t ms) {
  thread_local int64_t hour = std::numeric_limits<int64_t>::min();
  thread_local int64_t offset = 0;
  int64_t h = ms >= 0 ? ms / 3600000 : (ms - 3599999) / 3600000;
  if (h != hour) {
    std::time_t t = static_cast<std::time_t>(h * 3600);
    std::tm tm{};
    localtime_r(&t, &tm);
    offset = static_cast<int64_t>(tm.tm_gmtoff) * 1000;
    hour = h;
  }
  return ms + offset;
}

void CopySymbol(char (&to)[kSymbolSize], const std::string& symbol) {
  std::memset(to, 0, kSymbolSize);
  std::memcpy(to, symbol.data(), std::min(symbol.size(), kSymbolSize));
}

// A daemon thread that takes the interpreter lock once the interpreter is
// finalizing is ended on the spot, which inside a C++ destructor ends the
// process: such a thread waits here instead for the process to end.
// The interpreter finalizes on its main thread, which goes on.
unsigned long g_main_thread = 0;

void StayIfFinalizing() {
  if (!_Py_IsFinalizing() || PyThread_get_thread_ident() == g_main_thread) return;
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

// Releases the interpreter lock for its scope.
class Unlocked {
 public:
  Unlocked() : state_(PyEval_SaveThread()) {}
  ~Unlocked() {
    StayIfFinalizing();
    PyEval_RestoreThread(state_);
  }
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;

 private:
  PyThreadState* state_;
};

// Waits on cv (lock held, interpreter lock released) until done() or the
// timeout (seconds; negative: none); every 100 ms it lets Python handle
// signals, so that Ctrl-C raises KeyboardInterrupt. Returns done().
template <typename Done>
bool Wait(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, double timeout, Done done) {
  using Clock = std::chrono::steady_clock;
  const bool forever = timeout < 0;
  const auto deadline =
      forever ? Clock::time_point::max()
              : Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
  while (!done()) {
    auto now = Clock::now();
    if (now >= deadline) return false;
    auto slice = forever ? now + std::chrono::milliseconds(100)
                         : std::min(deadline, now + std::chrono::milliseconds(100));
    if (cv.wait_until(lock, slice, done)) return true;
    lock.unlock();
    StayIfFinalizing();
    {
      py::gil_scoped_acquire gil;
      if (PyErr_CheckSignals() != 0) {
        lock.lock();
        throw py::error_already_set();
      }
    }
    lock.lock();
  }
  return true;
}

void FillSnapshot(L1Row& row, const quoter::QuoterAllData& a) {
  row.time = LocalMs(a.time);
  row.last = a.lastPrice;
  row.open = a.openPrice;
  row.high = a.highPrice;
  row.low = a.lowPrice;
  row.prev_close = a.lastClose;
  row.amount = a.amount;
  row.volume = a.volume;
  for (int i = 0; i < 5; ++i) {
    row.bid[i] = a.bidPrice[i];
    row.ask[i] = a.askPrice[i];
    row.bid_vol[i] = a.bidVol[i];
    row.ask_vol[i] = a.askVol[i];
  }
  row.upper_limit = a.upperLimit;
  row.lower_limit = a.lowerLimit;
  row.phase = a.tradingPhase;
  row.trade_count = a.tradeCount;
}

// Copies one library record into a row of its kind.
void Fill(char* slot, const quoter::QuoterBase& record) {
  using quoter::RecordKind;
  switch (record.kind()) {
    case RecordKind::kAllData: {
      FillSnapshot(*reinterpret_cast<L1Row*>(slot), static_cast<const quoter::QuoterAllData&>(record));
      return;
    }
    case RecordKind::kDepth: {
      const auto& d = static_cast<const quoter::QuoterDepthData&>(record);
      auto& row = *reinterpret_cast<DepthRow*>(slot);
      row.time = LocalMs(d.time);
      row.last = d.lastPrice;
      row.open = d.openPrice;
      row.high = d.highPrice;
      row.low = d.lowPrice;
      row.prev_close = d.lastClose;
      row.amount = d.amount;
      row.volume = d.volume;
      for (int i = 0; i < 10; ++i) {
        row.bid[i] = d.bidPrice[i];
        row.ask[i] = d.askPrice[i];
        row.bid_vol[i] = d.bidVol[i];
        row.ask_vol[i] = d.askVol[i];
      }
      row.upper_limit = d.upperLimit;
      row.lower_limit = d.lowerLimit;
      row.phase = d.tradingPhase;
      row.trade_count = d.tradeCount;
      return;
    }
    case RecordKind::kTransaction: {
      const auto& t = static_cast<const quoter::TransactionData&>(record);
      auto& row = *reinterpret_cast<TradeRow*>(slot);
      row.time = LocalMs(t.time);
      row.price = t.price;
      row.amount = t.amount;
      row.volume = t.volume;
      row.index = t.number1;
      row.channel = t.number2;
      row.side = static_cast<char>(t.flag1);
      row.kind = static_cast<char>(t.flag2);
      return;
    }
    case RecordKind::kOrder: {
      const auto& o = static_cast<const quoter::OrderData&>(record);
      auto& row = *reinterpret_cast<OrderRow*>(slot);
      row.time = LocalMs(o.time);
      row.price = o.price;
      row.volume = o.volume;
      row.index = o.number1;
      row.side = static_cast<char>(o.flag1);
      row.kind = static_cast<char>(o.flag2);
      return;
    }
    case RecordKind::kLevelOrder: {
      const auto& q = static_cast<const quoter::LevelOrderData&>(record);
      auto& row = *reinterpret_cast<QueueRow*>(slot);
      row.time = LocalMs(q.time);
      row.price = q.price;
      row.volume = q.volume;
      row.side = q.side;
      row.order_count = q.orderCount;
      row.listed = q.listed;
      std::memcpy(row.orders, q.orders, sizeof(row.orders));
      return;
    }
    default:
      return;
  }
}

// The library's record class that each subscription kind receives.
quoter::RecordKind RecordKindOf(const std::string& kind) {
  using quoter::RecordKind;
  if (kind == "depth") return RecordKind::kDepth;
  if (kind == "trades") return RecordKind::kTransaction;
  if (kind == "orders") return RecordKind::kOrder;
  if (kind == "queues") return RecordKind::kLevelOrder;
  return RecordKind::kAllData;
}

py::dtype DtypeOf(const std::string& kind) {
  const Layout& layout = LayoutOf(kind);
  py::list names, formats, offsets;
  for (const Field& f : layout.fields) {
    names.append(f.name);
    formats.append(f.count == 1 ? py::str(f.format) : py::str("(" + std::to_string(f.count) + ",)" + f.format));
    offsets.append(f.offset);
  }
  py::dict fields;
  fields["names"] = names;
  fields["formats"] = formats;
  fields["offsets"] = offsets;
  fields["itemsize"] = layout.size;
  return py::dtype::from_args(fields);
}

// The dtypes live as long as the process: they outlast the interpreter's
// last use of them at exit.
const py::dtype& CachedDtype(const std::string& kind) {
  static auto* cache = new std::unordered_map<std::string, py::dtype>();
  auto it = cache->find(kind);
  if (it == cache->end()) it = cache->emplace(kind, DtypeOf(kind)).first;
  return it->second;
}

class Sub;

// Connection and market reports and subscriptions with rows for the one
// dispatcher thread of the client.
class Hub {
 public:
  struct Event {
    int type;  // 0 connection, 1 market change
    int code;
    std::string text;
  };

  void post(Event event) {
    std::lock_guard<std::mutex> lock(mu_);
    events_.push_back(std::move(event));
    cv_.notify_one();
  }
  void ready(std::shared_ptr<Sub> sub) {
    std::lock_guard<std::mutex> lock(mu_);
    subs_.push_back(std::move(sub));
    cv_.notify_one();
  }
  void stop() {
    std::lock_guard<std::mutex> lock(mu_);
    stopped_ = true;
    cv_.notify_all();
  }
  // Events as (type, code, text) tuples and the subscriptions with rows.
  py::tuple wait(double timeout);

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<Event> events_;
  std::vector<std::shared_ptr<Sub>> subs_;
  bool stopped_ = false;
};

// One subscription: its library registrations and its row buffer.
class Sub : public std::enable_shared_from_this<Sub> {
 public:
  Sub(std::string kind, size_t capacity, std::shared_ptr<Hub> hub)
      : kind_(std::move(kind)),
        record_kind_(RecordKindOf(kind_)),
        buffer_(LayoutOf(kind_).size, capacity),
        hub_(std::move(hub)) {}

  // The library's records of one instrument (its index among the symbols).
  void on_records(int32_t index, const tavr::QuoteRecords& records) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (closed_) return;
      for (const auto& record : records) {
        // A level-1 snapshot comes with an after-hours record, left empty
        // (no time) outside after-hours trading.
        if (!record || record->time <= 0 || record->kind() != record_kind_) continue;
        char* slot = buffer_.slot(index);
        std::memcpy(slot, symbols_[index].data(), kSymbolSize);
        Fill(slot, *record);
      }
      if (waiters_ > 0) cv_.notify_all();
    }
    wake_dispatcher();
  }

  // One whole-market package: code to snapshot.
  void on_package(const tavr::QuoteMap& map) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (closed_) return;
      for (const auto& [code, record] : map) {
        if (!record || record->kind() != quoter::RecordKind::kAllData) continue;
        auto it = code_ids_.find(code);
        if (it == code_ids_.end()) {
          it = code_ids_.emplace(code, static_cast<int32_t>(symbols_.size())).first;
          std::array<char, kSymbolSize> s{};
          std::string symbol = code + "." + market_;
          std::memcpy(s.data(), symbol.data(), std::min(symbol.size(), kSymbolSize));
          symbols_.push_back(s);
        }
        auto& row = *reinterpret_cast<L1Row*>(buffer_.slot(it->second));
        std::memcpy(row.symbol, symbols_[it->second].data(), kSymbolSize);
        FillSnapshot(row, static_cast<const quoter::QuoterAllData&>(*record));
      }
      if (waiters_ > 0) cv_.notify_all();
    }
    wake_dispatcher();
  }

  void add_symbol(const std::string& symbol) {
    std::array<char, kSymbolSize> s{};
    std::memcpy(s.data(), symbol.data(), std::min(symbol.size(), kSymbolSize));
    symbols_.push_back(s);
  }

  // Rows since the last poll, at most max_rows; waits up to timeout seconds
  // for the first (negative: without end). Raises when closed.
  py::array poll(size_t max_rows, double timeout) {
    size_t n = 0;
    {
      Unlocked nogil;
      poll_mu_.lock();
    }
    std::unique_lock<std::mutex> poller(poll_mu_, std::adopt_lock);
    {
      Unlocked nogil;
      std::unique_lock<std::mutex> lock(mu_);
      ++waiters_;
      try {
        Wait(lock, cv_, timeout, [&] { return closed_ || buffer_.size() > 0; });
      } catch (...) {
        --waiters_;
        throw;
      }
      --waiters_;
      if (closed_) throw ClosedFailure("the subscription is closed");
      n = std::min(buffer_.size(), max_rows);
    }
    py::array out(CachedDtype(kind_), static_cast<py::ssize_t>(n));
    if (n == 0) return out;
    char* data = static_cast<char*>(out.mutable_data());
    {
      Unlocked nogil;
      std::lock_guard<std::mutex> lock(mu_);
      // Only a poll takes rows and polls take turns: the n rows are still there.
      if (closed_) throw ClosedFailure("the subscription is closed");
      buffer_.take(data, n);
    }
    return out;
  }

  // Ends the library's registrations; rows not yet taken are given up.
  // Call with the interpreter lock released.
  void close() {
    std::vector<int> ids;
    int whole;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (closed_) return;
      closed_ = true;
      buffer_.clear();
      cv_.notify_all();
      ids.swap(ids_);
      whole = whole_id_;
      whole_id_ = -1;
    }
    for (int id : ids) Lib().unsubscribe(id);
    if (whole >= 0) Lib().unWholeQuote(whole);
  }

  bool closed() {
    std::lock_guard<std::mutex> lock(mu_);
    return closed_;
  }
  size_t pending() {
    std::lock_guard<std::mutex> lock(mu_);
    return buffer_.size();
  }
  uint64_t dropped() {
    std::lock_guard<std::mutex> lock(mu_);
    return buffer_.dropped();
  }
  size_t capacity() const { return buffer_.capacity(); }
  const std::string& kind() const { return kind_; }
  void clear_queued() { queued_.store(false); }

  std::string market_;
  std::vector<int> ids_;
  int whole_id_ = -1;

 private:
  void wake_dispatcher() {
    if (hub_ && !queued_.load(std::memory_order_relaxed) && !queued_.exchange(true)) hub_->ready(shared_from_this());
  }

  std::string kind_;
  quoter::RecordKind record_kind_;
  std::mutex mu_;
  std::mutex poll_mu_;
  std::condition_variable cv_;
  RowBuffer buffer_;
  int waiters_ = 0;
  bool closed_ = false;
  std::vector<std::array<char, kSymbolSize>> symbols_;
  std::unordered_map<std::string, int32_t> code_ids_;
  std::shared_ptr<Hub> hub_;
  std::atomic<bool> queued_{false};
};

py::tuple Hub::wait(double timeout) {
  std::deque<Event> events;
  std::vector<std::shared_ptr<Sub>> subs;
  {
    Unlocked nogil;
    std::unique_lock<std::mutex> lock(mu_);
    Wait(lock, cv_, timeout, [&] { return stopped_ || !events_.empty() || !subs_.empty(); });
    events.swap(events_);
    subs.swap(subs_);
  }
  py::list e, s;
  for (auto& event : events) e.append(py::make_tuple(event.type, event.code, event.text));
  for (auto& sub : subs) {
    sub->clear_queued();
    s.append(py::cast(sub));
  }
  return py::make_tuple(e, s);
}

int32_t MetaIdOf(const std::string& kind) {
  if (kind == "l1") return 3000;
  if (kind == "depth") return 1010;
  if (kind == "trades") return 1801;
  if (kind == "orders") return 1802;
  if (kind == "queues") return 1804;
  throw py::value_error("unknown subscription kind '" + kind + "': l1, depth, trades, orders or queues");
}

void CheckMarket(const std::string& market) {
  std::string name;
  char variant;
  if (!tavr::KelQuoteClient::market_id_transfer_to_dravik(market, name, variant)) {
    throw py::value_error("unknown market code '" + market + "'");
  }
}

void CheckLoggedIn() {
  if (!Lib().logged_in()) throw Failure("not logged in: call login() first");
}

// The process's client, as Python sees it.
class Core {
 public:
  Core() : hub_(std::make_shared<Hub>()) {
    auto hub = hub_;
    Lib().registerQuoterConnectCallBack([hub](int code, std::string text) { hub->post({0, code, Utf8(text)}); });
    Lib().registerTradeDateAndStockListChangeCallBack(
        [hub](int kind, std::string market) { hub->post({1, kind, market}); });
  }

  void login(int environment, const std::string& user, const std::string& password, double timeout) {
    struct State {
      std::mutex mu;
      std::condition_variable cv;
      bool done = false, ok = false;
      std::string text;
    };
    auto state = std::make_shared<State>();
    tavr::LoginParam param;
    param.environment = environment;
    param.user = user;
    param.password = password;
    Unlocked nogil;
    // On a thread of its own, so that the wait can time out and Ctrl-C can end it.
    std::thread([state, param] {
      bool ok = false;
      std::string text;
      Lib().goLogin(param, [&](bool success, std::string reason) {
        ok = success;
        text = std::move(reason);
      });
      std::lock_guard<std::mutex> lock(state->mu);
      state->ok = ok;
      state->text = Utf8(text);
      state->done = true;
      state->cv.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(state->mu);
    if (!Wait(lock, state->cv, timeout, [&] { return state->done; })) {
      throw LoginFailure("no answer to the login within " + std::to_string(timeout) + " s");
    }
    if (!state->ok) throw LoginFailure(state->text.empty() ? "login failed" : state->text);
  }

  bool logged_in() { return Lib().logged_in(); }

  py::dict instruments(const std::string& market) {
    CheckMarket(market);
    CheckLoggedIn();
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
    {
      Unlocked nogil;
      Lib().getStockList(market, 0, list);
    }
    size_t n = list.size();
    py::list code, name, product;
    py::array_t<double> tick(n);
    py::array_t<int32_t> digits(n), lot(n), list_date(n), type_code(n);
    py::array_t<bool> new_listing(n);
    auto t = tick.mutable_unchecked<1>();
    auto d = digits.mutable_unchecked<1>();
    auto l = lot.mutable_unchecked<1>();
    auto ld = list_date.mutable_unchecked<1>();
    auto tc = type_code.mutable_unchecked<1>();
    auto nl = new_listing.mutable_unchecked<1>();
    for (size_t i = 0; i < n; ++i) {
      const auto& x = *list[i];
      code.append(Utf8(x.code));
      name.append(Utf8(x.name));
      t(i) = x.priceTick;
      d(i) = x.priceDigits;
      l(i) = x.volumeUnit;
      ld(i) = static_cast<int32_t>(x.listDate);
      tc(i) = x.extendInfo ? x.extendInfo->typeCode : 0;
      nl(i) = x.extendInfo ? x.extendInfo->newListing : false;
      product.append(x.extendInfo ? Utf8(x.extendInfo->productCode) : std::string());
    }
    py::dict out;
    out["code"] = code;
    out["name"] = name;
    out["price_tick"] = tick;
    out["price_digits"] = digits;
    out["lot"] = lot;
    out["list_date"] = list_date;
    out["type_code"] = type_code;
    out["product"] = product;
    out["new_listing"] = new_listing;
    return out;
  }

  // Trading days as local wall-clock milliseconds of their midnights.
  py::array_t<int64_t> trading_days(const std::string& market) {
    CheckMarket(market);
    CheckLoggedIn();
    std::vector<int64_t> days;
    {
      Unlocked nogil;
      Lib().getTradeDateList(market, days);
    }
    py::array_t<int64_t> out(days.size());
    auto o = out.mutable_unchecked<1>();
    for (size_t i = 0; i < days.size(); ++i) o(i) = LocalMs(days[i]);
    return out;
  }

  // History requests sent together and awaited together: one (market, code,
  // period_ms, start_ms, end_ms) each. Each answer is bars as columns
  // (period_ms > 0) or ticks as an l1 row array (period_ms 0).
  py::list history(const std::vector<std::tuple<std::string, std::string, int64_t, int64_t, int64_t>>& requests,
                   double timeout) {
    struct State {
      std::string symbol;
      bool done = false, failed = false;
      std::vector<int64_t> time, volume, open_interest;
      std::vector<double> open, high, low, close, amount;
      std::vector<L1Row> ticks;
    };
    struct Shared {
      std::mutex mu;
      std::condition_variable cv;
      size_t pending = 0;
      bool abandoned = false;
      std::vector<State> states;
    };
    for (const auto& r : requests) CheckMarket(std::get<0>(r));
    CheckLoggedIn();
    auto shared = std::make_shared<Shared>();
    shared->states.resize(requests.size());
    shared->pending = requests.size();
    {
      Unlocked nogil;
      for (size_t i = 0; i < requests.size(); ++i) {
        const auto& [market, code, period_ms, start_ms, end_ms] = requests[i];
        shared->states[i].symbol = code + "." + market;
        quoter::TSMetaInfo meta{market, code, period_ms > 0 ? 3001 : 3000, period_ms};
        quoter::TRegionInfo region{start_ms, end_ms, 0};
        Lib().requestHistoryQuote(meta, region, "", [shared, i](se::EQuoteSubStatus status,
                                                                const tavr::QuoteRecords& records,
                                                                se::EDataArrivedTag tag) {
          std::lock_guard<std::mutex> lock(shared->mu);
          State& state = shared->states[i];
          if (shared->abandoned || state.done) return;
          for (const auto& r : records) {
            if (!r) continue;
            if (r->kind() == quoter::RecordKind::kKLine) {
              const auto& b = static_cast<const quoter::KLineData&>(*r);
              state.time.push_back(LocalMs(b.time));
              state.open.push_back(b.open);
              state.high.push_back(b.high);
              state.low.push_back(b.low);
              state.close.push_back(b.close);
              state.volume.push_back(b.volume);
              state.amount.push_back(b.amount);
              state.open_interest.push_back(b.openInterest);
            } else if (r->kind() == quoter::RecordKind::kAllData) {
              L1Row row{};
              CopySymbol(row.symbol, state.symbol);
              FillSnapshot(row, static_cast<const quoter::QuoterAllData&>(*r));
              state.ticks.push_back(row);
            }
          }
          if (status != se::kQuoteData) state.failed = true;
          if (tag == se::kArrivedLast || status != se::kQuoteData) {
            state.done = true;
            if (--shared->pending == 0) shared->cv.notify_all();
          }
        });
      }
      std::unique_lock<std::mutex> lock(shared->mu);
      bool complete;
      try {
        complete = Wait(lock, shared->cv, timeout, [&] { return shared->pending == 0; });
      } catch (...) {
        shared->abandoned = true;  // blocks arriving later are ignored
        throw;
      }
      if (!complete) {
        shared->abandoned = true;
        for (const State& state : shared->states) {
          if (!state.done) {
            throw RequestFailure("no complete answer for " + state.symbol + " within " + std::to_string(timeout) +
                                 " s");
          }
        }
      }
      for (const State& state : shared->states) {
        if (state.failed) throw RequestFailure("the history request for " + state.symbol + " failed");
      }
    }
    // Every request is done: the callbacks no longer touch the states.
    py::list out;
    for (size_t i = 0; i < requests.size(); ++i) {
      State& state = shared->states[i];
      if (std::get<2>(requests[i]) == 0) {
        py::array rows(CachedDtype("l1"), static_cast<py::ssize_t>(state.ticks.size()));
        if (!state.ticks.empty()) std::memcpy(rows.mutable_data(), state.ticks.data(), state.ticks.size() * sizeof(L1Row));
        out.append(rows);
        continue;
      }
      py::dict bars;
      bars["time"] = py::array_t<int64_t>(state.time.size(), state.time.data());
      bars["open"] = py::array_t<double>(state.open.size(), state.open.data());
      bars["high"] = py::array_t<double>(state.high.size(), state.high.data());
      bars["low"] = py::array_t<double>(state.low.size(), state.low.data());
      bars["close"] = py::array_t<double>(state.close.size(), state.close.data());
      bars["volume"] = py::array_t<int64_t>(state.volume.size(), state.volume.data());
      bars["amount"] = py::array_t<double>(state.amount.size(), state.amount.data());
      bars["open_interest"] = py::array_t<int64_t>(state.open_interest.size(), state.open_interest.data());
      out.append(bars);
    }
    return out;
  }

  // Type id to its records as columns.
  py::dict finance(const std::string& market, const std::string& code, const std::vector<int32_t>& types,
                   double timeout) {
    CheckMarket(market);
    CheckLoggedIn();
    struct State {
      std::mutex mu;
      std::condition_variable cv;
      bool done = false, ok = false;
      tavr::FinanceResult data;
    };
    auto state = std::make_shared<State>();
    tavr::FinanceDataParam param;
    param.market = market;
    param.code = code;
    param.types = types;
    {
      Unlocked nogil;
      Lib().requestFinanceData(param, [state](std::string, const tavr::FinanceDataParam&,
                                              const tavr::FinanceResult& data, se::EQuoteSubStatus status) {
        std::lock_guard<std::mutex> lock(state->mu);
        if (state->done) return;
        state->data = data;
        state->ok = status == se::kQuoteData;
        state->done = true;
        state->cv.notify_all();
      });
      std::unique_lock<std::mutex> lock(state->mu);
      if (!Wait(lock, state->cv, timeout, [&] { return state->done; })) {
        state->done = true;
        throw RequestFailure("no answer to the financial request for " + code + "." + market + " within " +
                             std::to_string(timeout) + " s");
      }
      if (!state->ok) throw RequestFailure("the financial request for " + code + "." + market + " failed");
    }
    std::lock_guard<std::mutex> lock(state->mu);
    py::dict out;
    for (const auto& [type, records] : state->data) out[py::int_(type)] = Columns(type, records);
    return out;
  }

  std::shared_ptr<Sub> subscribe(const std::vector<std::pair<std::string, std::string>>& symbols,
                                 const std::string& kind, size_t capacity, bool dispatched) {
    int32_t meta_id = MetaIdOf(kind);
    for (const auto& s : symbols) CheckMarket(s.first);
    CheckLoggedIn();
    auto sub = std::make_shared<Sub>(kind, capacity, dispatched ? hub_ : nullptr);
    for (const auto& [market, code] : symbols) sub->add_symbol(code + "." + market);
    Unlocked nogil;
    for (size_t i = 0; i < symbols.size(); ++i) {
      quoter::TSMetaInfo meta{symbols[i].first, symbols[i].second, meta_id, 0};
      auto index = static_cast<int32_t>(i);
      int id = Lib().subscribeQuote(meta, {}, "",
                                    [sub, index](se::EQuoteSubStatus status, const tavr::QuoteRecords& records,
                                                 se::EDataArrivedTag) {
                                      if (status == se::kQuoteData) sub->on_records(index, records);
                                    });
      if (id < 0) {
        sub->close();
        throw RequestFailure("the library refused the subscription of " + symbols[i].second + "." +
                             symbols[i].first);
      }
      sub->ids_.push_back(id);
    }
    return sub;
  }

  std::shared_ptr<Sub> subscribe_market(const std::string& market, size_t capacity, bool dispatched) {
    CheckMarket(market);
    CheckLoggedIn();
    auto sub = std::make_shared<Sub>("l1", capacity, dispatched ? hub_ : nullptr);
    sub->market_ = market;
    Unlocked nogil;
    int id = Lib().subWholeQuote(market, [sub](const tavr::QuoteMap& map) { sub->on_package(map); });
    if (id < 0) throw RequestFailure("the library refused the whole-market subscription of " + market);
    sub->whole_id_ = id;
    return sub;
  }

  // The way popular wrappers deliver, kept for the benchmark's comparison:
  // one dict per snapshot, the interpreter lock taken for each, on the
  // library's thread. Not for use beyond the benchmark.
  int baseline_subscribe_market(const std::string& market, py::function fn) {
    CheckMarket(market);
    CheckLoggedIn();
    auto holder = std::shared_ptr<py::function>(new py::function(std::move(fn)), [](py::function* f) {
      py::gil_scoped_acquire gil;
      delete f;
    });
    std::string suffix = "." + market;
    Unlocked nogil;
    return Lib().subWholeQuote(market, [holder, suffix](const tavr::QuoteMap& map) {
      for (const auto& [code, record] : map) {
        if (!record || record->kind() != quoter::RecordKind::kAllData) continue;
        const auto& a = static_cast<const quoter::QuoterAllData&>(*record);
        py::gil_scoped_acquire gil;
        try {
          py::dict d;
          d["symbol"] = code + suffix;
          d["time"] = LocalMs(a.time);
          d["last"] = a.lastPrice;
          d["open"] = a.openPrice;
          d["high"] = a.highPrice;
          d["low"] = a.lowPrice;
          d["prev_close"] = a.lastClose;
          d["volume"] = a.volume;
          d["amount"] = a.amount;
          d["bid"] = py::make_tuple(a.bidPrice[0], a.bidPrice[1], a.bidPrice[2], a.bidPrice[3], a.bidPrice[4]);
          d["ask"] = py::make_tuple(a.askPrice[0], a.askPrice[1], a.askPrice[2], a.askPrice[3], a.askPrice[4]);
          d["bid_vol"] = py::make_tuple(a.bidVol[0], a.bidVol[1], a.bidVol[2], a.bidVol[3], a.bidVol[4]);
          d["ask_vol"] = py::make_tuple(a.askVol[0], a.askVol[1], a.askVol[2], a.askVol[3], a.askVol[4]);
          d["phase"] = a.tradingPhase;
          (*holder)(d);
        } catch (py::error_already_set& e) {
          e.discard_as_unraisable("kelquote baseline callback");
        }
      }
    });
  }

  void baseline_unsubscribe(int id) {
    Unlocked nogil;
    Lib().unWholeQuote(id);
  }

  Hub& hub() { return *hub_; }

 private:
  template <typename Record>
  static py::dict Statements(const std::vector<std::shared_ptr<tavr::DraVikIData>>& records) {
    size_t n = records.size();
    py::array_t<int64_t> report(n), announce(n);
    py::array_t<int32_t> type(n);
    py::array_t<double> items({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(Record::kItems)});
    auto r = report.mutable_unchecked<1>();
    auto a = announce.mutable_unchecked<1>();
    auto t = type.mutable_unchecked<1>();
    auto it = items.mutable_unchecked<2>();
    for (size_t i = 0; i < n; ++i) {
      const auto& x = static_cast<const Record&>(*records[i]);
      r(i) = LocalMs(x.report_date);
      a(i) = LocalMs(x.announce_date);
      t(i) = x.report_type;
      for (int k = 0; k < Record::kItems; ++k) it(i, k) = x.item[k];
    }
    py::dict out;
    out["report_date"] = report;
    out["announce_date"] = announce;
    out["report_type"] = type;
    out["items"] = items;
    return out;
  }

  template <typename Record>
  static py::dict Holders(const std::vector<std::shared_ptr<tavr::DraVikIData>>& records) {
    std::vector<int64_t> report, announce, shares;
    std::vector<int32_t> rank;
    std::vector<double> ratio;
    py::list name, kind, share_kind, change;
    for (const auto& p : records) {
      const auto& x = static_cast<const Record&>(*p);
      for (const auto& h : x.holders) {
        report.push_back(LocalMs(x.report_date));
        announce.push_back(LocalMs(x.announce_date));
        rank.push_back(h.rank);
        name.append(Utf8(h.name));
        kind.append(Utf8(h.kind));
        shares.push_back(h.shares);
        share_kind.append(Utf8(h.share_kind));
        ratio.push_back(h.ratio);
        change.append(Utf8(h.change));
      }
    }
    py::dict out;
    out["report_date"] = py::array_t<int64_t>(report.size(), report.data());
    out["announce_date"] = py::array_t<int64_t>(announce.size(), announce.data());
    out["rank"] = py::array_t<int32_t>(rank.size(), rank.data());
    out["holder"] = name;
    out["holder_kind"] = kind;
    out["shares"] = py::array_t<int64_t>(shares.size(), shares.data());
    out["share_kind"] = share_kind;
    out["ratio"] = py::array_t<double>(ratio.size(), ratio.data());
    out["change"] = change;
    return out;
  }

  static py::dict HolderCounts(const std::vector<std::shared_ptr<tavr::DraVikIData>>& records) {
    size_t n = records.size();
    constexpr size_t kItems = tavr::Dravik_Cshare_holder_number::kItems;
    py::array_t<int64_t> report(n), announce(n);
    py::array_t<int32_t> items({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(kItems)});
    auto r = report.mutable_unchecked<1>();
    auto a = announce.mutable_unchecked<1>();
    auto it = items.mutable_unchecked<2>();
    for (size_t i = 0; i < n; ++i) {
      const auto& x = static_cast<const tavr::Dravik_Cshare_holder_number&>(*records[i]);
      r(i) = LocalMs(x.report_date);
      a(i) = LocalMs(x.announce_date);
      for (size_t k = 0; k < kItems; ++k) it(i, k) = x.item[k];
    }
    py::dict out;
    out["report_date"] = report;
    out["announce_date"] = announce;
    out["items"] = items;
    return out;
  }

  static py::dict Columns(int type, const std::vector<std::shared_ptr<tavr::DraVikIData>>& records) {
    switch (type) {
      case 24501: return Statements<tavr::DravikCBalanceSheet>(records);
      case 24502: return Statements<tavr::DravikCShareIncome>(records);
      case 24503: return Statements<tavr::DravikCShareCashFlow>(records);
      case 24504: return Statements<tavr::DravikCPerShare>(records);
      case 24506: return Statements<tavr::DravikCCapitalStructure>(records);
      case 24508: return Holders<tavr::Dravik_Ctop10_flow_share_holder>(records);
      case 24509: return Holders<tavr::Dravik_Ctop10_share_holder>(records);
      case 24510: return HolderCounts(records);
      default: return py::dict();
    }
  }

  std::shared_ptr<Hub> hub_;
};

}  // namespace
}  // namespace kqpy

PYBIND11_MODULE(_kelquote, m) {
  using namespace kqpy;
  m.doc() = "The kelquote library's client; use the kelquote package, not this module.";
  g_main_thread = py::module_::import("threading").attr("main_thread")().attr("ident").cast<unsigned long>();

  auto& error = py::register_exception<Failure>(m, "Error");
  py::register_exception<LoginFailure>(m, "LoginError", error.ptr());
  py::register_exception<RequestFailure>(m, "RequestError", error.ptr());
  py::register_exception<ClosedFailure>(m, "SubscriptionClosed", error.ptr());

  m.def("dtype", [](const std::string& kind) { return CachedDtype(kind); }, py::arg("kind"),
        "The numpy dtype of a subscription kind's rows.");
  m.def("check_market", &CheckMarket, py::arg("market"));
  m.def("local_ms", &LocalMs, "Library milliseconds as the local wall clock's, counted as UTC.");
  m.def("time_to_ms", [](int date, int hhmmss) { return utils::timeToMilliseconds(date, hhmmss); },
        "Library milliseconds of a local date yyyymmdd and time of day hhmmss.");

  py::class_<Hub>(m, "Hub")
      .def("wait", &Hub::wait, py::arg("timeout"))
      .def("stop", &Hub::stop, py::call_guard<Unlocked>());

  py::class_<Sub, std::shared_ptr<Sub>>(m, "Sub")
      .def("poll", &Sub::poll, py::arg("max_rows"), py::arg("timeout"))
      .def("close", &Sub::close, py::call_guard<Unlocked>())
      .def_property_readonly("closed", &Sub::closed)
      .def_property_readonly("pending", &Sub::pending)
      .def_property_readonly("dropped", &Sub::dropped)
      .def_property_readonly("capacity", &Sub::capacity)
      .def_property_readonly("kind", &Sub::kind)
      .def_property_readonly("key", [](const Sub& s) { return reinterpret_cast<uintptr_t>(&s); });

  py::class_<Core>(m, "Core")
      .def(py::init<>())
      .def("login", &Core::login, py::arg("environment"), py::arg("user"), py::arg("password"), py::arg("timeout"))
      .def_property_readonly("logged_in", &Core::logged_in)
      .def("instruments", &Core::instruments)
      .def("trading_days", &Core::trading_days)
      .def("history", &Core::history)
      .def("finance", &Core::finance)
      .def("subscribe", &Core::subscribe)
      .def("subscribe_market", &Core::subscribe_market)
      .def("baseline_subscribe_market", &Core::baseline_subscribe_market)
      .def("baseline_unsubscribe", &Core::baseline_unsubscribe)
      .def_property_readonly("hub", &Core::hub, py::return_value_policy::reference_internal);
}
