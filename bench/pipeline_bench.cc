// End-to-end figures of the real-time pipeline: vendor callback on its own
// thread -> queue -> service threads -> host callback.
#include <benchmark/benchmark.h>

#include <memory>
#include <thread>

#include "bench/pipeline.h"
#include "log/MyLog.h"
#include "port/port.h"

namespace bench {
namespace {

ApiL1Tick Tick(const std::string& code, uint32_t seq) {
  ApiL1Tick tick = testkit::l1_tick(2, code, 100000, 10.0f + static_cast<float>(seq % 7) * 0.01f, 1000.0f + seq);
  tick.trade_count = seq;  // carried into the record: which send it was
  return tick;
}

// Level-1 snapshots per second, one subscriber, as fast as the vendor sends;
// the second argument turns capture on.
void BM_L1Throughput(benchmark::State& state) {
  Pipeline pipeline(1, state.range(1) != 0);
  std::atomic<int64_t> received{0};
  pipeline.subscribe("600000", 3000, [&](se::EQuoteSubStatus, const tavr::QuoteRecords&, se::EDataArrivedTag) {
    received.fetch_add(1, std::memory_order_release);
  });
  const int64_t batch = state.range(0);
  ApiL1Tick tick = Tick("600000", 0);
  int64_t sent = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < batch; ++i) pipeline.vendor()->OnTickL1(&tick);
    sent += batch;
    if (!Pipeline::WaitFor(received, sent)) state.SkipWithError("deliveries stalled");
  }
  state.SetItemsProcessed(sent);
}
BENCHMARK(BM_L1Throughput)
    ->ArgNames({"n", "capture"})
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Callback return time and vendor-to-host latency at a steady 100,000
// snapshots per second; the second argument turns capture on.
void BM_L1Latency(benchmark::State& state) {
  Pipeline pipeline(1, state.range(1) != 0);
  const int64_t per_second = 100000;
  const int64_t count = state.range(0);
  std::vector<int64_t> sent_at(static_cast<size_t>(count));
  std::vector<int64_t> latency(static_cast<size_t>(count));
  std::atomic<int64_t> received{0};
  pipeline.subscribe("600000", 3000, [&](se::EQuoteSubStatus, const tavr::QuoteRecords& records, se::EDataArrivedTag) {
    int64_t now = NowNs();
    auto* a = static_cast<const quoter::QuoterAllData*>(records.back().get());
    if (a->tradeCount < sent_at.size()) latency[a->tradeCount] = now - sent_at[a->tradeCount];
    received.fetch_add(1, std::memory_order_release);
  });
  std::vector<int64_t> returns(static_cast<size_t>(count));
  for (auto _ : state) {
    received = 0;
    auto start = Clock::now();
    for (int64_t i = 0; i < count; ++i) {
      auto due = start + std::chrono::nanoseconds(i * 1000000000 / per_second);
      while (Clock::now() < due) port::CpuRelax();
      ApiL1Tick tick = Tick("600000", static_cast<uint32_t>(i));
      int64_t before = NowNs();
      sent_at[i] = before;
      pipeline.vendor()->OnTickL1(&tick);
      returns[i] = NowNs() - before;
    }
    if (!Pipeline::WaitFor(received, count)) state.SkipWithError("deliveries stalled");
  }
  state.counters["return_p50_ns"] = static_cast<double>(Quantile(returns, 0.5));
  state.counters["return_p99_ns"] = static_cast<double>(Quantile(returns, 0.99));
  state.counters["return_max_ns"] = static_cast<double>(*std::max_element(returns.begin(), returns.end()));
  state.counters["host_p50_ns"] = static_cast<double>(Quantile(latency, 0.5));
  state.counters["host_p99_ns"] = static_cast<double>(Quantile(latency, 0.99));
}
BENCHMARK(BM_L1Latency)
    ->ArgNames({"n", "capture"})
    ->Args({200000, 0})
    ->Args({200000, 1})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// One whole-market package of 5,000 SH snapshots.
void BM_MarketPackage(benchmark::State& state) {
  const int n = 5000;
  Pipeline pipeline(n);
  std::atomic<int64_t> packages{0};
  std::atomic<int64_t> delivered_at{0};
  pipeline.client().add_mkt_push_info(2, [&](const tavr::QuoteMap& map) {
    if (map.size() == static_cast<size_t>(n)) delivered_at.store(NowNs());
    packages.fetch_add(1, std::memory_order_release);
  });
  std::vector<ApiL1Tick> ticks;
  for (int i = 0; i < n; ++i) ticks.push_back(Tick(std::to_string(600000 + i), static_cast<uint32_t>(i)));
  auto package = testkit::reply(ApiMarketPushHead{2, n}, ticks);
  std::vector<int64_t> returns, deliveries;
  int64_t sent = 0;
  for (auto _ : state) {
    int64_t before = NowNs();
    pipeline.vendor()->OnRespMarketPushData(package.data());
    int64_t after = NowNs();
    ++sent;
    if (!Pipeline::WaitFor(packages, sent)) state.SkipWithError("package stalled");
    returns.push_back(after - before);
    deliveries.push_back(delivered_at.load() - before);
  }
  state.counters["return_p50_us"] = static_cast<double>(Quantile(returns, 0.5)) / 1000;
  state.counters["delivered_p50_us"] = static_cast<double>(Quantile(deliveries, 0.5)) / 1000;
  state.counters["delivered_p99_us"] = static_cast<double>(Quantile(deliveries, 0.99)) / 1000;
}
BENCHMARK(BM_MarketPackage)->Iterations(200)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Level-2 transaction records per second, each with its INFO line in the log file.
void BM_L2Transactions(benchmark::State& state) {
  Pipeline pipeline;
  std::atomic<int64_t> records{0};
  pipeline.subscribe("600000", 1801, [&](se::EQuoteSubStatus, const tavr::QuoteRecords& batch, se::EDataArrivedTag) {
    records.fetch_add(static_cast<int64_t>(batch.size()), std::memory_order_release);
  });
  const int per_message = static_cast<int>(state.range(0));
  std::vector<ApiL2Transaction> trades(static_cast<size_t>(per_message));
  for (int i = 0; i < per_message; ++i) {
    ApiL2Transaction& t = trades[i];
    t = testkit::level2_record<ApiL2Transaction>(2, "600000", 20240102, 93000000 + i);
    t.price = 105500;
    t.volume = 100;
    t.amount = 10550000;
  }
  auto message = testkit::level2(trades);
  const int messages = 2000;
  int64_t sent = 0;
  for (auto _ : state) {
    for (int m = 0; m < messages; ++m) pipeline.vendor()->OnTransL2(message.data());
    sent += int64_t{messages} * per_message;
    if (!Pipeline::WaitFor(records, sent)) state.SkipWithError("deliveries stalled");
  }
  state.SetItemsProcessed(sent);
}
BENCHMARK(BM_L2Transactions)->Arg(50)->Unit(benchmark::kMillisecond)->UseRealTime();

// getStockList of a 5,000-instrument market, and the longest time a service
// thread's instrument lookup waits for the instrument lock meanwhile.
void BM_StockList(benchmark::State& state) {
  const int n = 5000;
  Pipeline pipeline(n);
  auto market = pipeline.mgr().markets().find("SH");
  std::atomic<bool> done{false};
  std::atomic<int64_t> worst_lookup{0};
  std::thread service([&] {
    tavr::InstrumentView view;
    while (!done.load(std::memory_order_acquire)) {
      int64_t before = NowNs();
      pipeline.mgr().instrument_view(*market, "600123", view);
      int64_t took = NowNs() - before;
      if (took > worst_lookup.load()) worst_lookup.store(took);
    }
  });
  for (auto _ : state) {
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
    pipeline.client().getStockList("SH", 0, list);
    if (list.size() != static_cast<size_t>(n)) state.SkipWithError("short list");
  }
  done = true;
  service.join();
  state.counters["lookup_worst_us"] = static_cast<double>(worst_lookup.load()) / 1000;
}
BENCHMARK(BM_StockList)->Unit(benchmark::kMillisecond)->UseRealTime();

// 10,000 instruments subscribed one by one and then unsubscribed, on the
// host's thread, while level-1 snapshots of them keep arriving. The CPU
// column is the host thread's; the five log lines each instrument writes
// (subscribe and unsubscribe) cost most of it.
void BM_SubscribeMany(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Pipeline pipeline(n);
  std::vector<ApiL1Tick> ticks;
  for (int i = 0; i < n; ++i) ticks.push_back(Tick(std::to_string(600000 + i), static_cast<uint32_t>(i)));
  std::atomic<bool> done{false};
  std::atomic<int64_t> sent{0}, received{0};
  std::thread vendor([&] {
    for (size_t i = 0; !done.load(std::memory_order_acquire); ++i) {
      pipeline.vendor()->OnTickL1(&ticks[i % ticks.size()]);
      sent.fetch_add(1, std::memory_order_relaxed);
      // Paced (at most 100,000 a second) so that the vendor's thread leaves
      // the two cores to the service threads and the host.
      if (i % 10 == 9) std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  std::vector<int> ids(static_cast<size_t>(n));
  std::vector<int64_t> subscribe_ns, unsubscribe_ns;
  for (auto _ : state) {
    int64_t begin = NowNs();
    for (int i = 0; i < n; ++i) {
      ids[i] = pipeline.subscribe(std::to_string(600000 + i), 3000,
                                  [&](se::EQuoteSubStatus, const tavr::QuoteRecords&, se::EDataArrivedTag) {
                                    received.fetch_add(1, std::memory_order_relaxed);
                                  });
    }
    int64_t middle = NowNs();
    for (int i = 0; i < n; ++i) pipeline.client().unsubscribe(ids[i]);
    int64_t end = NowNs();
    subscribe_ns.push_back(middle - begin);
    unsubscribe_ns.push_back(end - middle);
    if (pipeline.mgr().subscriptions().keys() != 0) state.SkipWithError("entries left");
  }
  done = true;
  vendor.join();
  state.counters["subscribe_ms"] = static_cast<double>(Quantile(subscribe_ns, 0.5)) / 1e6;
  state.counters["unsubscribe_ms"] = static_cast<double>(Quantile(unsubscribe_ns, 0.5)) / 1e6;
  state.counters["ticks_sent"] = static_cast<double>(sent.load());
  state.counters["ticks_delivered"] = static_cast<double>(received.load());
}
BENCHMARK(BM_SubscribeMany)->Arg(10000)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace bench

BENCHMARK_MAIN();
