#include "tools/record/recorder.h"

#include <chrono>
#include <set>

#include "utils/utils.h"

namespace record {
namespace {

constexpr int64_t kDay = 86400000;
constexpr int32_t kTicks = 3000, kBars = 3001, kLevel2Trades = 1801;

int64_t DayStart(int64_t time) {
  return utils::timeToMilliseconds(static_cast<int>(utils::millisecondsToTime(time) / 1000000), 0);
}

kqstore::Tick TickOf(const std::string& code, const std::string& market, const quoter::QuoterAllData& d) {
  kqstore::Tick t;
  t.symbol = code;
  t.market = market;
  t.time = d.time;
  t.last = d.lastPrice;
  t.volume = d.volume;
  t.amount = d.amount;
  for (int i = 0; i < 5; ++i) {
    t.bid[i] = d.bidPrice[i];
    t.ask[i] = d.askPrice[i];
    t.bid_vol[i] = d.bidVol[i];
    t.ask_vol[i] = d.askVol[i];
  }
  t.phase = static_cast<int32_t>(d.tradingPhase);
  return t;
}

void Name(kqstore::Bar* bar, const std::string& code, const std::string& market, const char* interval) {
  bar->symbol = code;
  bar->market = market;
  bar->interval = interval;
}

}  // namespace

Recorder::Recorder(tavr::BaseQuoteClient* client, const Settings& settings, Writer* writer)
    : client_(client), settings_(settings), writer_(writer) {}

Recorder::~Recorder() { Stop(); }

bool Recorder::Start(std::string* error) {
  if (settings_.symbols.empty() && settings_.markets.empty()) {
    *error = "nothing to record: name symbols (--symbols 600000.SH) or markets (--markets SH)";
    return false;
  }
  // Every name is checked before anything is subscribed.
  std::unordered_map<std::string, std::set<std::string>> lists;
  auto list_of = [&](const std::string& market) -> const std::set<std::string>& {
    auto it = lists.find(market);
    if (it != lists.end()) return it->second;
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> items;
    client_->getStockList(market, 0, items);
    std::set<std::string>& codes = lists[market];
    for (const auto& item : items) codes.insert(item->code);
    return codes;
  };
  for (const std::string& market : settings_.markets) {
    if (list_of(market).empty()) {
      *error = "unknown market " + market + " (host market codes: SH, SZ, SHO, SZO, IF, SF, INE, DF, ZF, HGT, SGT)";
      return false;
    }
  }
  for (const std::string& symbol : settings_.symbols) {
    std::string code, market;
    kqstore::SplitSymbol(symbol, &code, &market);
    if (list_of(market).empty()) {
      *error = "unknown market in symbol " + symbol;
      return false;
    }
    if (list_of(market).count(code) == 0) {
      *error = "unknown symbol " + symbol + ": market " + market + " lists no instrument " + code;
      return false;
    }
    backfill_allowed_[symbol] = true;
  }

  if (settings_.backfill && !settings_.symbols.empty()) backfill_ = std::thread([this] { Backfill(); });
  for (const std::string& symbol : settings_.symbols) {
    std::string code, market;
    kqstore::SplitSymbol(symbol, &code, &market);
    quoter::TSMetaInfo meta;
    meta.market = market;
    meta.code = code;
    meta.metaId = kTicks;
    int id = client_->subscribeQuote(meta, {}, "", [this, code, market](se::EQuoteSubStatus status,
                                                                        const tavr::QuoteRecords& records,
                                                                        se::EDataArrivedTag) {
      if (status != se::kQuoteData) return;
      kqstore::Batch batch;
      for (const auto& r : records) {
        if (r && r->kind() == quoter::RecordKind::kAllData) {
          OnSnapshot(code, market, static_cast<const quoter::QuoterAllData&>(*r), true, &batch);
        }
      }
      writer_->Add(std::move(batch));
    });
    if (id < 0) {
      *error = "cannot subscribe " + symbol;
      Stop();
      return false;
    }
    subscriptions_.push_back(id);
    if (!settings_.trades) continue;
    meta.metaId = kLevel2Trades;
    id = client_->subscribeQuote(meta, {}, "", [this, code, market](se::EQuoteSubStatus status,
                                                                    const tavr::QuoteRecords& records,
                                                                    se::EDataArrivedTag) {
      if (status == se::kQuoteData) OnTrades(code, market, records);
    });
    if (id < 0) {
      *error = "cannot subscribe the level-2 trades of " + symbol;
      Stop();
      return false;
    }
    subscriptions_.push_back(id);
  }
  for (const std::string& market : settings_.markets) {
    int id = client_->subWholeQuote(market, [this, market](const tavr::QuoteMap& records) {
      kqstore::Batch batch;
      batch.ticks.reserve(records.size());
      for (const auto& [code, r] : records) {
        if (r && r->kind() == quoter::RecordKind::kAllData) {
          OnSnapshot(code, market, static_cast<const quoter::QuoterAllData&>(*r), false, &batch);
        }
      }
      writer_->Add(std::move(batch));
    });
    if (id < 0) {
      *error = "cannot subscribe the whole market " + market;
      Stop();
      return false;
    }
    whole_.push_back(id);
  }
  return true;
}

void Recorder::OnSnapshot(const std::string& code, const std::string& market, const quoter::QuoterAllData& d,
                          bool backfill, kqstore::Batch* out) {
  // The after-hours slot of a level-1 delivery is empty outside its session.
  if (d.time <= 0 || d.lastPrice <= 0) return;
  received_.fetch_add(1, std::memory_order_relaxed);
  Snapshot snap{d.time, d.lastPrice, d.openPrice, d.highPrice, d.lowPrice, d.volume, d.amount,
                static_cast<int32_t>(d.tradingPhase)};
  std::optional<Gap> gap;
  {
    std::lock_guard<std::mutex> lock(mu_);
    Symbol& s = symbols_[code + "." + market];
    s.seq = d.time == s.last_time ? s.seq + 1 : 0;
    s.last_time = d.time;
    if (settings_.ticks) {
      out->ticks.push_back(TickOf(code, market, d));
      out->ticks.back().seq = s.seq;
    }
    if (settings_.bars_1m) {
      if (std::optional<kqstore::Bar> bar = s.bars.Add(snap)) {
        Name(&*bar, code, market, "1m");
        out->bars.push_back(std::move(*bar));
      }
    }
    // The daily bar goes out once a minute and at the end.
    if (settings_.bars_1d) {
      if (std::optional<kqstore::Bar> day = DailyBar(snap)) {
        Name(&*day, code, market, "1d");
        int64_t minute = d.time / 60000;
        if (minute != s.daily_minute) {
          s.daily_minute = minute;
          out->bars.push_back(*day);
        }
        s.daily = std::move(day);
      }
    }
    if (s.need_backfill && backfill && settings_.backfill) {
      s.need_backfill = false;
      int64_t until = s.bars.base_minute_end() != 0 ? s.bars.base_minute_end() : BarBuilder::MinuteEnd(d.time, 0);
      gap = Gap{code, market, d.time, until};
    }
  }
  if (gap) {
    std::lock_guard<std::mutex> lock(gaps_mu_);
    gaps_.push_back(std::move(*gap));
    gaps_cv_.notify_all();
  }
}

void Recorder::OnTrades(const std::string& code, const std::string& market, const tavr::QuoteRecords& records) {
  kqstore::Batch batch;
  {
    std::lock_guard<std::mutex> lock(mu_);
    Symbol& s = symbols_[code + "." + market];
    for (const auto& r : records) {
      if (!r || r->kind() != quoter::RecordKind::kTransaction) continue;
      const auto& t = static_cast<const quoter::TransactionData&>(*r);
      s.trade_seq = t.time == s.trade_time ? s.trade_seq + 1 : 0;
      s.trade_time = t.time;
      batch.trades.push_back(kqstore::Trade{code, market, t.time, s.trade_seq, t.price, t.volume, t.amount,
                                            t.flag1 == 'B' ? "B" : t.flag1 == 'S' ? "S" : "", t.number1});
    }
  }
  received_.fetch_add(batch.trades.size(), std::memory_order_relaxed);
  writer_->Add(std::move(batch));
}

void Recorder::OnConnection(int code) {
  if (code != 0) return;
  kqstore::Batch batch;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto& [key, s] : symbols_) {
      if (std::optional<kqstore::Bar> bar = s.bars.Reset()) {
        std::string c, m;
        kqstore::SplitSymbol(key, &c, &m);
        Name(&*bar, c, m, "1m");
        batch.bars.push_back(std::move(*bar));
      }
      s.need_backfill = true;
    }
  }
  writer_->Add(std::move(batch));
}

void Recorder::Stop() {
  for (int id : subscriptions_) client_->unsubscribe(id);
  for (int id : whole_) client_->unWholeQuote(id);
  subscriptions_.clear();
  whole_.clear();
  {
    std::lock_guard<std::mutex> lock(gaps_mu_);
    stopping_ = true;
    gaps_cv_.notify_all();
  }
  if (backfill_.joinable()) backfill_.join();
  kqstore::Batch batch;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto& [key, s] : symbols_) {
      std::string c, m;
      kqstore::SplitSymbol(key, &c, &m);
      if (std::optional<kqstore::Bar> bar = s.bars.Flush()) {
        Name(&*bar, c, m, "1m");
        batch.bars.push_back(std::move(*bar));
      }
      if (s.daily) batch.bars.push_back(*s.daily);
      s.daily.reset();
    }
  }
  writer_->Add(std::move(batch));
}

size_t Recorder::backfills_waiting() {
  std::lock_guard<std::mutex> lock(gaps_mu_);
  return gaps_.size() + (filling_ ? 1 : 0);
}

void Recorder::Backfill() {
  // A connection of its own: the writer's is the writer thread's alone.
  std::string error;
  std::unique_ptr<kqstore::Store> store = kqstore::Store::Open(settings_.url, &error);
  std::unique_lock<std::mutex> lock(gaps_mu_);
  for (;;) {
    gaps_cv_.wait(lock, [this] { return stopping_ || !gaps_.empty(); });
    if (stopping_) return;
    Gap gap = std::move(gaps_.front());
    gaps_.pop_front();
    filling_ = true;
    lock.unlock();
    FillGap(store.get(), gap);
    lock.lock();
    filling_ = false;
  }
}

tavr::QuoteRecords Recorder::History(const std::string& code, const std::string& market, int32_t meta_id,
                                     int64_t period, int64_t from, int64_t to, bool* ok) {
  struct Reply {
    std::mutex mu;
    std::condition_variable cv;
    tavr::QuoteRecords records;
    bool done = false, failed = false;
  };
  auto reply = std::make_shared<Reply>();
  quoter::TSMetaInfo meta;
  meta.market = market;
  meta.code = code;
  meta.metaId = meta_id;
  meta.period = period;
  quoter::TRegionInfo region;
  region.startTime = from;
  region.endTime = to;
  client_->requestHistoryQuote(meta, region, "", [reply](se::EQuoteSubStatus status, const tavr::QuoteRecords& records,
                                                         se::EDataArrivedTag tag) {
    std::lock_guard<std::mutex> lock(reply->mu);
    if (status != se::kQuoteData) reply->failed = true;
    reply->records.insert(reply->records.end(), records.begin(), records.end());
    if (tag == se::kArrivedLast || status != se::kQuoteData) reply->done = true;
    reply->cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(reply->mu);
  *ok = reply->cv.wait_for(lock, std::chrono::seconds(60), [&] { return reply->done; }) && !reply->failed;
  return reply->records;
}

void Recorder::FillGap(kqstore::Store* store, const Gap& gap) {
  std::string symbol = gap.code + "." + gap.market, error;
  kqstore::Batch batch;
  bool ok = true;
  if (settings_.bars_1m) {
    int64_t latest = 0;
    if (store != nullptr && !store->LatestTime(gap.code, gap.market, "1m", gap.bars_until, &latest, &error)) latest = 0;
    // From the latest bar before the gap (it may have been cut short), at
    // most five days back: older holes are a matter for a deliberate fill.
    int64_t from = std::max(latest, DayStart(gap.first_live) - 5 * kDay);
    tavr::QuoteRecords records;
    if (from <= gap.bars_until) records = History(gap.code, gap.market, kBars, 60000, from, gap.bars_until, &ok);
    for (const auto& r : records) {
      const auto* k = r && r->kind() == quoter::RecordKind::kKLine ? static_cast<const quoter::KLineData*>(r.get()) : nullptr;
      if (k == nullptr || k->time < from || k->time > gap.bars_until) continue;
      kqstore::Bar bar;
      Name(&bar, gap.code, gap.market, "1m");
      bar.time = k->time;
      bar.open = k->open;
      bar.high = k->high;
      bar.low = k->low;
      bar.close = k->close;
      bar.volume = k->volume;
      bar.amount = k->amount;
      bar.open_interest = k->openInterest;
      batch.bars.push_back(std::move(bar));
    }
    if (!ok) note_("backfill of " + symbol + ": the history of its bars did not come");
  }
  if (settings_.ticks) {
    int64_t latest = 0;
    if (store != nullptr && !store->LatestTime(gap.code, gap.market, "tick", gap.first_live, &latest, &error)) latest = 0;
    int64_t from = std::max(latest + 1, DayStart(gap.first_live));
    int64_t last_time = -1;
    int32_t seq = 0;
    tavr::QuoteRecords records;
    if (from < gap.first_live) records = History(gap.code, gap.market, kTicks, 0, from, gap.first_live - 1, &ok);
    for (const auto& r : records) {
      const auto* d = r && r->kind() == quoter::RecordKind::kAllData ? static_cast<const quoter::QuoterAllData*>(r.get()) : nullptr;
      if (d == nullptr || d->time < from || d->time >= gap.first_live) continue;
      seq = d->time == last_time ? seq + 1 : 0;
      last_time = d->time;
      batch.ticks.push_back(TickOf(gap.code, gap.market, *d));
      batch.ticks.back().seq = seq;
    }
    if (!ok) note_("backfill of " + symbol + ": the history of its ticks did not come");
  }
  backfilled_.fetch_add(batch.size(), std::memory_order_relaxed);
  writer_->Add(std::move(batch));
}

}  // namespace record
