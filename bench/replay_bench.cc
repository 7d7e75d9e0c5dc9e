// Replay as fast as the library takes it: a capture of level-1 snapshots
// played through the whole pipeline to the host.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>

#include "bench/pipeline.h"
#include "capture/catalog.h"
#include "dataapi/replay/replay_api.h"

namespace bench {
namespace {

// A session that connects, subscribes SH 600000 and receives n snapshots.
std::string WriteCapture(int64_t n) {
  std::string path = (std::filesystem::temp_directory_path() / "kq-replay-bench.kqcap").string();
  std::ofstream out(path, std::ios::binary);
  uint8_t header[capture::kHeaderBytes];
  capture::encode_header(capture::FileHeader{}, header);
  out.write(reinterpret_cast<const char*>(header), sizeof(header));
  uint64_t ns = 0;
  auto record = [&](capture::Kind kind, uint8_t code, const void* a, size_t an, const void* b, size_t bn) {
    uint8_t head[capture::kRecordHeadBytes];
    capture::encode_record_head(kind, code, ns += 1000, an + bn, head);
    out.write(reinterpret_cast<const char*>(head), sizeof(head));
    out.write(static_cast<const char*>(a), static_cast<std::streamsize>(an));
    out.write(static_cast<const char*>(b), static_cast<std::streamsize>(bn));
  };
  auto request = [&](uint8_t op, uint32_t number, const void* bytes, size_t size) {
    record(capture::Kind::kRequest, op, &number, 4, bytes, size);
    uint32_t result[2] = {number, 0};
    record(capture::Kind::kResult, op, result, sizeof(result), nullptr, 0);
  };
  request(capture::kConnect, 1, nullptr, 0);
  ApiCodeItem item{};
  testkit::set_text(item.code, "600000");
  item.market = 2;
  request(7, 2, &item, sizeof(item));
  ns += 1000000;  // the first snapshot a millisecond after the subscribe, as a service sends it
  for (int64_t i = 0; i < n; ++i) {
    ApiL1Tick tick = testkit::l1_tick(2, "600000", 100000, 10.0f + static_cast<float>(i % 7) * 0.01f, 1000.0f + i);
    record(capture::Kind::kCallback, 3, &tick, sizeof(tick), nullptr, 0);
  }
  return path;
}

void BM_ReplayL1Throughput(benchmark::State& state) {
  const int64_t n = state.range(0);
  std::string path = WriteCapture(n);
  replay::ReplayApi replay;
  std::string error;
  if (!replay.open(path, 0, &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::atomic<int64_t> received{0};
  for (auto _ : state) {
    Pipeline pipeline(1, false, &replay);
    auto start = Clock::now();
    pipeline.subscribe("600000", 3000, [&](se::EQuoteSubStatus, const tavr::QuoteRecords&, se::EDataArrivedTag) {
      received.fetch_add(1, std::memory_order_release);
    });
    if (!Pipeline::WaitFor(received, n)) state.SkipWithError("replay stalled");
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.SetItemsProcessed(n);
  std::filesystem::remove(path);
}
BENCHMARK(BM_ReplayL1Throughput)->Arg(1000000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The player alone, into a callback object that only counts: what the
// replay service can deliver when the library is not the limit.
class CountingSink final : public CDataApiCallBack {
 public:
  int OnTickL1(const void*) override {
    count.fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
  std::atomic<int64_t> count{0};
};

void BM_ReplayPlayerOnly(benchmark::State& state) {
  const int64_t n = state.range(0);
  std::string path = WriteCapture(n);
  for (auto _ : state) {
    replay::ReplayApi replay;
    std::string error;
    if (!replay.open(path, 0, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
    CountingSink sink;
    replay.RegisterServer(nullptr, &sink);
    ConnectResult result{};
    auto start = Clock::now();
    replay.Connect(&result);
    ApiCodeItem item{};
    testkit::set_text(item.code, "600000");
    item.market = 2;
    replay.SubscribeL1(&item, 1);
    if (!replay.wait_done(60000) || sink.count.load() != n) state.SkipWithError("replay stalled");
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    replay.Release();
  }
  state.SetItemsProcessed(n * state.iterations());
  std::filesystem::remove(path);
}
BENCHMARK(BM_ReplayPlayerOnly)->Arg(1000000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
