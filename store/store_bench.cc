// Throughput of the store and the recorder's cost to the library's hosts:
//   kelquote_store_bench write URL [ROWS]   level-1 rows through the writer into URL
//   kelquote_store_bench side URL [SECONDS] whole-market delivery to a counting host,
//                                           alone and then beside the recorder
// Run from a host folder (dravikcfg.dat, ini/, ../userdata/log/) for "side".
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "dataapi/sim/sim_control.h"
#include "kelquote/KelQuoteClient.h"
#include "tools/record/recorder.h"
#include "tools/record/writer.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// CPU seconds of this process so far: on a shared machine the wall clock
// says as much about the others as about the store.
double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// A package of level-1 rows as the recorder's callbacks make them: one row
// per instrument of 2,000, at second number k of a fresh time range.
kqstore::Batch Package(int64_t t0, long k) {
  const int kSymbols = 2000;
  kqstore::Batch package;
  package.ticks.reserve(kSymbols);
  for (int s = 0; s < kSymbols; ++s) {
    kqstore::Tick t;
    t.symbol = std::to_string(600000 + s);
    t.market = "SH";
    t.time = t0 + k * 1000;
    t.last = 10 + ((k + s) % 97) * 0.01;
    t.volume = k * 100;
    t.amount = t.last * t.volume;
    for (int i = 0; i < 5; ++i) {
      t.bid[i] = t.last - 0.01 * (i + 1);
      t.ask[i] = t.last + 0.01 * (i + 1);
      t.bid_vol[i] = t.ask_vol[i] = 100 + i;
    }
    t.phase = 13;
    package.ticks.push_back(std::move(t));
  }
  return package;
}

// ROWS rows through the writer (packages handed over as fast as they are
// made), then as many straight into Store::Write in batches of 50,000.
int Write(const std::string& url, long rows) {
  std::string error;
  auto store = kqstore::Store::Open(url, &error);
  if (!store) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
  fs::path spool_dir = fs::temp_directory_path() / "kq-bench-spool";
  fs::remove_all(spool_dir);
  record::Spool spool(spool_dir, uint64_t{4} << 30);
  spool.Open(&error);
  record::Writer writer(store.get(), &spool, std::chrono::milliseconds(200), [](const std::string& s) {
    std::printf("  note: %s\n", s.c_str());
  });
  // A fresh time range for every run, so that rows are inserted, not replaced.
  int64_t t0 = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
  long packages = rows / 2000;
  std::vector<kqstore::Batch> made;
  for (long k = 0; k < packages; ++k) made.push_back(Package(t0, k));
  writer.Start();
  auto start = Clock::now();
  double cpu = CpuSeconds();
  for (auto& p : made) writer.Add(std::move(p));
  writer.Stop();
  double took = Seconds(start);
  cpu = CpuSeconds() - cpu;
  std::printf("%-10s through the writer: %ld rows in %.2f s: %8.0f rows/s (%.0f rows per CPU second of this process)\n",
              url.substr(0, url.find(':')).c_str(), packages * 2000, took, packages * 2000 / took, packages * 2000 / cpu);

  made.clear();
  for (long k = 0; k < packages; ++k) made.push_back(Package(t0 + 86400000, k));
  start = Clock::now();
  cpu = CpuSeconds();
  for (size_t k = 0; k < made.size(); k += 25) {
    kqstore::Batch batch;
    for (size_t j = k; j < made.size() && j < k + 25; ++j) {
      std::move(made[j].ticks.begin(), made[j].ticks.end(), std::back_inserter(batch.ticks));
    }
    if (!store->Write(batch, &error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
  }
  took = Seconds(start);
  cpu = CpuSeconds() - cpu;
  std::printf("%-10s straight into the store: %ld rows in %.2f s: %8.0f rows/s (%.0f rows per CPU second of this process)\n",
              url.substr(0, url.find(':')).c_str(), packages * 2000, took, packages * 2000 / took, packages * 2000 / cpu);
  fs::remove_all(spool_dir);
  return 0;
}

// Whole-market packages of SH to a host that counts them, for SECONDS
// alone, then as long beside the recorder of market SZ (the library keeps
// one whole-market subscriber per market) on the same service threads.
int Side(const std::string& url, int seconds) {
  SimSetClock(0, 100000);
  SimSetPushInterval(100);
  tavr::BaseQuoteClient* client = getKelClient();
  bool ok = false;
  client->goLogin(tavr::LoginParam{}, [&](bool good, std::string) { ok = good; });
  if (!ok) return std::fprintf(stderr, "login failed\n"), 1;
  std::atomic<long> snapshots{0};
  auto host = [&](const tavr::QuoteMap& map) { snapshots += static_cast<long>(map.size()); };
  int sh = client->subWholeQuote("SH", host);
  auto measure = [&](const char* what) {
    std::this_thread::sleep_for(std::chrono::seconds(1));  // past the first packages
    long before = snapshots.load();
    auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    double rate = (snapshots.load() - before) / Seconds(start);
    std::printf("%-40s %10.0f snapshots/s to the counting host\n", what, rate);
    return rate;
  };
  double alone = measure("host alone:");
  std::string error;
  auto store = kqstore::Store::Open(url, &error);
  if (!store) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
  fs::path spool_dir = fs::temp_directory_path() / "kq-bench-spool";
  record::Spool spool(spool_dir, uint64_t{4} << 30);
  spool.Open(&error);
  record::Writer writer(store.get(), &spool, std::chrono::milliseconds(200), [](const std::string&) {});
  writer.Start();
  record::Settings settings;
  settings.url = url;
  settings.markets = {"SZ"};
  record::Recorder recorder(client, settings, &writer);
  if (!recorder.Start(&error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
  double beside = measure("host beside the recorder:");
  recorder.Stop();
  writer.Stop();
  record::WriterStatus s = writer.status();
  std::printf("recorder: %llu snapshots received, %llu rows written; host rate beside it %.1f%% of alone\n",
              static_cast<unsigned long long>(recorder.received()), static_cast<unsigned long long>(s.written),
              100.0 * beside / alone);
  client->unWholeQuote(sh);
  SimReportConnection(0, 2);
  SimWaitIdle(5000);
  fs::remove_all(spool_dir);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::string(argv[1]) == "write") return Write(argv[2], argc > 3 ? std::atol(argv[3]) : 2000000);
  if (argc >= 3 && std::string(argv[1]) == "side") return Side(argv[2], argc > 3 ? std::atoi(argv[3]) : 10);
  std::fputs("usage: kelquote_store_bench write URL [ROWS] | side URL [SECONDS]\n", stderr);
  return 2;
}
