// Level-1 at market breadth: 5,000 SH instruments subscribed and ticking
// round-robin, as at the open, through the real pipeline.
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include "bench/pipeline.h"
#include "port/port.h"
#include "testkit/process_status.h"

namespace bench {
namespace {

constexpr int kInstruments = 5000;

// The pipeline with every instrument subscribed once, every tenth twice when
// doubled; the snapshots to send round-robin, each stamped with its index.
struct Breadth {
  explicit Breadth(bool doubled) : pipeline(kInstruments) {
    auto count = [this](se::EQuoteSubStatus, const tavr::QuoteRecords& records, se::EDataArrivedTag) {
      auto* a = static_cast<const quoter::QuoterAllData*>(records.back().get());
      if (on_record) on_record(a->tradeCount);
      received.fetch_add(1, std::memory_order_release);
    };
    for (int i = 0; i < kInstruments; ++i) {
      std::string code = std::to_string(600000 + i);
      pipeline.subscribe(code, 3000, count);
      if (doubled && i % 10 == 0) pipeline.subscribe(code, 3000, count);
      ticks.push_back(testkit::l1_tick(2, code, 100000, 10.0f + static_cast<float>(i % 7) * 0.01f, 1000.0f));
    }
    deliveries_per_round = doubled ? kInstruments + kInstruments / 10 : kInstruments;
  }
  // Sends snapshot number seq (of instrument seq % 5,000); false when the
  // queue, at its limit, refused it.
  bool send(uint32_t seq) {
    ApiL1Tick& tick = ticks[seq % kInstruments];
    tick.trade_count = seq;
    return pipeline.vendor()->OnTickL1(&tick) == 0;
  }
  // Deliveries that count snapshots sent so far.
  int64_t deliveries(int64_t sent) const {
    return sent / kInstruments * deliveries_per_round + (sent % kInstruments) * deliveries_per_round / kInstruments;
  }

  Pipeline pipeline;
  std::vector<ApiL1Tick> ticks;
  std::atomic<int64_t> received{0};
  std::function<void(uint32_t)> on_record;
  int64_t deliveries_per_round = kInstruments;
};

// Snapshots per second end to end, sent round-robin in bursts of 10,000.
void BM_BreadthThroughput(benchmark::State& state) {
  Breadth breadth(state.range(0) != 0);
  const int64_t batch = 10000;
  int64_t sent = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < batch; ++i) breadth.send(static_cast<uint32_t>(sent + i));
    sent += batch;
    if (!Pipeline::WaitFor(breadth.received, breadth.deliveries(sent))) state.SkipWithError("deliveries stalled");
  }
  state.SetItemsProcessed(sent);
}
BENCHMARK(BM_BreadthThroughput)->ArgName("doubled")->Arg(0)->Arg(1)->MinTime(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Callback return time and vendor-to-host latency at a steady 100,000
// snapshots per second spread over the 5,000 instruments.
void BM_BreadthLatency(benchmark::State& state) {
  Breadth breadth(false);
  const int64_t per_second = 100000;
  const int64_t count = state.range(0);
  std::vector<int64_t> sent_at(static_cast<size_t>(count)), latency(static_cast<size_t>(count));
  std::vector<int64_t> returns(static_cast<size_t>(count));
  breadth.on_record = [&](uint32_t seq) {
    if (seq < sent_at.size()) latency[seq] = NowNs() - sent_at[seq];
  };
  for (auto _ : state) {
    auto start = Clock::now();
    for (int64_t i = 0; i < count; ++i) {
      auto due = start + std::chrono::nanoseconds(i * 1000000000 / per_second);
      while (Clock::now() < due) port::CpuRelax();
      int64_t before = NowNs();
      sent_at[i] = before;
      breadth.send(static_cast<uint32_t>(i));
      returns[i] = NowNs() - before;
    }
    if (!Pipeline::WaitFor(breadth.received, count)) state.SkipWithError("deliveries stalled");
  }
  state.counters["return_p50_ns"] = static_cast<double>(Quantile(returns, 0.5));
  state.counters["return_p99_ns"] = static_cast<double>(Quantile(returns, 0.99));
  state.counters["host_p50_ns"] = static_cast<double>(Quantile(latency, 0.5));
  state.counters["host_p99_ns"] = static_cast<double>(Quantile(latency, 0.99));
}
BENCHMARK(BM_BreadthLatency)->Arg(200000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Memory a burst of 1,000,000 snapshots over the 5,000 instruments takes at
// its peak, above what the process held before it.
void BM_BreadthBurstMemory(benchmark::State& state) {
  Breadth breadth(false);
  const int64_t count = state.range(0);
  long before_kb = 0, peak_kb = 0;
  int64_t accepted = 0;
  for (auto _ : state) {
    before_kb = testkit::StatusKb("VmRSS");
    std::ofstream("/proc/self/clear_refs") << "5";  // peak back to the present
    for (int64_t i = 0; i < count; ++i) accepted += breadth.send(static_cast<uint32_t>(i)) ? 1 : 0;
    if (!Pipeline::WaitFor(breadth.received, accepted)) state.SkipWithError("deliveries stalled");
    peak_kb = testkit::StatusKb("VmHWM");
  }
  // Beyond the queue's limit the burst is refused, not held.
  state.counters["refused"] = static_cast<double>(count - accepted);
  state.counters["peak_growth_mb"] = static_cast<double>(peak_kb - before_kb) / 1024;
  state.counters["peak_mb"] = static_cast<double>(peak_kb) / 1024;
}
BENCHMARK(BM_BreadthBurstMemory)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace bench
