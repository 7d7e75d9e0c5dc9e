// End-to-end figures of history replies: each request's blocks through the
// vendor callback, the queue and a service thread to the host callback, on
// the default log configuration.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "bench/pipeline.h"
#include "utils/utils.h"

namespace bench {
namespace {

using Bytes = std::vector<uint8_t>;
using VendorCall = int (CDataApiCallBack::*)(const void*);

// 100,000 elements in the simulated service's blocks: 99 "Continue" and one
// "Last" of 1000 each.
constexpr size_t kElements = 100000;
constexpr size_t kBlockElements = 1000;

int32_t NextWeekday(int32_t date) {
  using namespace std::chrono;
  sys_days d{year_month_day{year{date / 10000}, month{static_cast<unsigned>(date / 100 % 100)},
                            day{static_cast<unsigned>(date % 100)}}};
  do {
    d += days{1};
  } while (weekday{d} == Saturday || weekday{d} == Sunday);
  year_month_day ymd{d};
  return static_cast<int>(ymd.year()) * 10000 + static_cast<int>(static_cast<unsigned>(ymd.month())) * 100 +
         static_cast<int>(static_cast<unsigned>(ymd.day()));
}

// The first n session minutes (date, HHMMSS) of the weekdays from 2023-01-02.
std::vector<std::pair<int32_t, int32_t>> Minutes(size_t n) {
  std::vector<std::pair<int32_t, int32_t>> minutes;
  for (int32_t date = 20230102; minutes.size() < n; date = NextWeekday(date)) {
    for (int32_t hhmm : {930, 1300}) {
      for (int32_t m = hhmm; m < hhmm + 200 && minutes.size() < n; m = m % 100 == 59 ? m + 41 : m + 1) {
        minutes.push_back({date, m * 100});
      }
    }
  }
  return minutes;
}

std::vector<ApiHisBar> MinuteBars() {
  std::vector<ApiHisBar> bars;
  for (auto [date, time] : Minutes(kElements)) {
    ApiHisBar b{};
    b.date = date;
    b.time = time;
    b.open = 105000 + static_cast<int32_t>(bars.size() % 17) * 100;
    b.close = b.open + 200;
    b.high = b.close + 100;
    b.low = b.open - 100;
    b.volume = 12300 + static_cast<int64_t>(bars.size() % 50) * 100;
    b.amount = b.volume * 10;
    bars.push_back(b);
  }
  return bars;
}

// A snapshot every three seconds of the sessions.
std::vector<ApiHisTickL1> Level1Ticks() {
  std::vector<ApiHisTickL1> ticks;
  int64_t volume = 0;
  for (auto [date, time] : Minutes(kElements / 20)) {
    for (int s = 0; s < 60; s += 3) {
      ApiHisTickL1 t{};
      t.date = date;
      t.time = (time + s) * 1000;
      t.last = 105000 + static_cast<int32_t>(ticks.size() % 13) * 100;
      t.open = t.pre_close = 105000;
      t.high = 107000;
      t.low = 104000;
      volume += 1000;
      t.volume = volume;
      t.amount = volume * 10;
      t.trade_count = static_cast<int32_t>(ticks.size());
      for (int l = 0; l < 5; ++l) {
        t.bid_price[l] = t.last - l * 100;
        t.ask_price[l] = t.last + (l + 1) * 100;
        t.bid_volume[l] = (l + 1) * 1000;
        t.ask_volume[l] = (l + 2) * 1000 + 50;
      }
      ticks.push_back(t);
    }
  }
  return ticks;
}

// The elements in blocks of kBlockElements, the last one flagged.
template <typename Element, typename Make>
std::vector<Bytes> Blocks(const std::vector<Element>& elements, Make make) {
  std::vector<Bytes> blocks;
  for (size_t at = 0; at < elements.size(); at += kBlockElements) {
    size_t end = std::min(elements.size(), at + kBlockElements);
    blocks.push_back(make(std::vector<Element>(elements.begin() + at, elements.begin() + end), end == elements.size()));
  }
  return blocks;
}

// Per iteration: one host request of 600000.SH, then its blocks from the
// vendor's side under the id it went out with, until the host has every
// element.
void Run(benchmark::State& state, int32_t meta_id, int64_t period, const char* operation, std::vector<Bytes> blocks,
         VendorCall call) {
  // Before the pipeline: its service threads stop before these go.
  std::atomic<int64_t> received{0};
  std::atomic<int64_t> lasts{0};
  Pipeline pipeline;
  auto host = [&](se::EQuoteSubStatus, const tavr::QuoteRecords& records, se::EDataArrivedTag tag) {
    if (tag == se::kArrivedLast) lasts.fetch_add(1, std::memory_order_relaxed);
    received.fetch_add(static_cast<int64_t>(records.size()), std::memory_order_release);
  };
  const int64_t now = static_cast<int64_t>(utils::getTime() * 1000);
  int64_t delivered = 0;
  int64_t requests = 0;
  for (auto _ : state) {
    state.PauseTiming();
    pipeline.api().clear_calls();
    pipeline.client().requestHistoryQuote({"SH", "600000", meta_id, period}, {now - 86400000, now, 0}, "", host);
    auto calls = pipeline.api().calls(operation);
    if (calls.size() != 1) {
      state.SkipWithError("request refused");
      break;
    }
    Bytes id(calls[0].bytes.begin(), calls[0].bytes.begin() + 2);  // the id leads every request and block
    for (Bytes& block : blocks) std::memcpy(block.data(), id.data(), id.size());
    ++requests;
    state.ResumeTiming();
    for (const Bytes& block : blocks) (pipeline.vendor()->*call)(block.data());
    delivered += static_cast<int64_t>(kElements);
    if (!Pipeline::WaitFor(received, delivered)) state.SkipWithError("deliveries stalled");
  }
  if (lasts.load() != requests || received.load() != delivered) state.SkipWithError("an answer went astray");
  state.SetItemsProcessed(delivered);
}

// One-minute bars converted and delivered per second.
void BM_HistoryMinuteBars(benchmark::State& state) {
  auto blocks = Blocks(MinuteBars(), [](const std::vector<ApiHisBar>& part, bool last) {
    return testkit::his_bars(0, 2, "600000", 7, last, part);
  });
  Run(state, 3001, 60000, "ReqHisData", std::move(blocks), &CDataApiCallBack::OnRespHisData);
}
BENCHMARK(BM_HistoryMinuteBars)->Unit(benchmark::kMillisecond)->UseRealTime();

// Level-1 history ticks converted and delivered per second.
void BM_HistoryLevel1Ticks(benchmark::State& state) {
  auto blocks = Blocks(Level1Ticks(), [](const std::vector<ApiHisTickL1>& part, bool last) {
    return testkit::his_ticks<ApiL1NewHisTickResp>(0, 2, "600000", last, part);
  });
  Run(state, 3000, 0, "ReqL1NewHisTick", std::move(blocks), &CDataApiCallBack::OnRespL1HisTickData);
}
BENCHMARK(BM_HistoryLevel1Ticks)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace bench
