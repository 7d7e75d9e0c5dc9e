// A host on the bus for the tests and the benchmark: logs in through the
// quote service it loads (bin/bus/), subscribes level-1 snapshots of the
// given instruments, optionally asks for one-minute bars, and after the
// given time prints what came and whether it came in order.
//   kelquote_bus_probe [--seconds S] [--codes SH:600000,SZ:000001] [--history]
//                      [--min N] [--expect-restore] [--quiet-after-login]
// Exit 0 when at least N snapshots came per instrument, none out of order,
// bars came when asked, and a lost connection was restored when expected.
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelquote/KelQuoteClient.h"

namespace {

struct Seen {
  std::atomic<int64_t> count{0};
  std::atomic<int64_t> disorder{0};
  std::atomic<int64_t> last_volume{-1};
};

}  // namespace

int main(int argc, char** argv) {
  int seconds = 3;
  int64_t min_count = 1;
  bool history = false, expect_restore = false;
  std::string codes = "SH:600000,SZ:000001";
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--seconds" && i + 1 < argc) {
      seconds = std::atoi(argv[++i]);
    } else if (a == "--codes" && i + 1 < argc) {
      codes = argv[++i];
    } else if (a == "--min" && i + 1 < argc) {
      min_count = std::atoll(argv[++i]);
    } else if (a == "--history") {
      history = true;
    } else if (a == "--expect-restore") {
      expect_restore = true;
    } else {
      std::fprintf(stderr, "usage: kelquote_bus_probe [--seconds S] [--codes M:C,...] [--history] [--min N] [--expect-restore]\n");
      return 2;
    }
  }
  tavr::BaseQuoteClient* client = getKelClient();
  std::atomic<int> lost{0}, restored{0};
  std::map<std::string, Seen> seen;
  std::vector<std::pair<std::string, std::string>> list;
  for (size_t at = 0; at < codes.size();) {
    size_t comma = codes.find(',', at);
    if (comma == std::string::npos) comma = codes.size();
    std::string item = codes.substr(at, comma - at);
    size_t colon = item.find(':');
    if (colon != std::string::npos) list.emplace_back(item.substr(0, colon), item.substr(colon + 1));
    at = comma + 1;
  }
  for (auto& [market, code] : list) seen[market + code];
  client->registerQuoterConnectCallBack([&](int code, std::string) {
    if (code == 1) lost.fetch_add(1);
    if (code == 0) restored.fetch_add(1);
    // A new session of the service starts its day's figures afresh.
    if (code == 0) {
      for (auto& [key, s] : seen) s.last_volume.store(-1);
    }
    std::printf("[probe] connection report %d\n", code);
    std::fflush(stdout);
  });
  bool ok = false;
  tavr::LoginParam login;
  login.environment = 2;
  client->goLogin(login, [&](bool good, std::string) { ok = good; });
  if (!ok) {
    std::printf("[probe] login failed\n");
    return 1;
  }
  std::printf("[probe] logged in\n");
  std::fflush(stdout);

  std::vector<int> ids;
  for (auto& [market, code] : list) {
    quoter::TSMetaInfo meta;
    meta.market = market;
    meta.code = code;
    meta.metaId = 3000;
    Seen* s = &seen[market + code];
    ids.push_back(client->subscribeQuote(meta, {}, "", [s](se::EQuoteSubStatus, const tavr::QuoteRecords& records,
                                                           se::EDataArrivedTag) {
      // The snapshot is the last record of a delivery.
      if (!records.empty()) {
        const auto* q = dynamic_cast<const quoter::QuoterAllData*>(records.back().get());
        if (q == nullptr) return;
        // Cumulative volume never falls within a day: a repeat or a
        // reordering of snapshots would show as a fall.
        if (q->rawVolume < s->last_volume.load()) s->disorder.fetch_add(1);
        s->last_volume.store(q->rawVolume);
        s->count.fetch_add(1);
      }
    }));
  }
  std::atomic<int64_t> bars{0};
  std::atomic<bool> bars_done{false};
  if (history) {
    quoter::TSMetaInfo meta;
    meta.market = list.empty() ? "SH" : list[0].first;
    meta.code = list.empty() ? "600000" : list[0].second;
    meta.metaId = 3001;
    meta.period = 86400000;
    quoter::TRegionInfo range;
    int64_t now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch()).count();
    range.startTime = now_ms - int64_t{60} * 86400000;
    range.endTime = now_ms;
    client->requestHistoryQuote(meta, range, "", [&](se::EQuoteSubStatus, const tavr::QuoteRecords& records,
                                                     se::EDataArrivedTag tag) {
      bars.fetch_add(static_cast<int64_t>(records.size()));
      if (tag == se::kArrivedLast) bars_done.store(true);
    });
  }
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  bool good = true;
  // What the stream holds over the span this host received, it received.
  if (auto verify = reinterpret_cast<int64_t (*)()>(dlsym(RTLD_DEFAULT, "KqBusVerify"))) {
    int64_t missing = verify();
    std::printf("[probe] missing against the stream %lld\n", static_cast<long long>(missing));
    if (missing != 0) good = false;
  }
  for (int id : ids) client->unsubscribe(id);

  for (auto& [key, s] : seen) {
    std::printf("[probe] %s snapshots %lld out of order %lld\n", key.c_str(), static_cast<long long>(s.count.load()),
                static_cast<long long>(s.disorder.load()));
    if (s.count.load() < min_count || s.disorder.load() != 0) good = false;
  }
  if (history) {
    std::printf("[probe] daily bars %lld%s\n", static_cast<long long>(bars.load()), bars_done.load() ? " (complete)" : "");
    if (bars.load() == 0 || !bars_done.load()) good = false;
  }
  if (expect_restore) {
    std::printf("[probe] lost %d restored %d\n", lost.load(), restored.load());
    if (lost.load() == 0 || restored.load() == 0) good = false;
  }
  if (auto stats = reinterpret_cast<void (*)(int64_t*)>(dlsym(RTLD_DEFAULT, "KqBusStats"))) {
    int64_t v[7];
    stats(v);
    std::printf("[probe] bus: delivered %lld caught up %lld duplicates dropped %lld refused %lld restores %lld"
                " gaps %lld lost %lld\n",
                static_cast<long long>(v[0]), static_cast<long long>(v[1]), static_cast<long long>(v[2]),
                static_cast<long long>(v[3]), static_cast<long long>(v[4]), static_cast<long long>(v[5]),
                static_cast<long long>(v[6]));
    // A record the gateway numbered that came neither live nor from the stream.
    if (v[6] != 0) good = false;
  }
  std::printf("[probe] %s\n", good ? "ok" : "FAILED");
  std::fflush(stdout);
  std::_Exit(good ? 0 : 1);  // the library's threads end with the process
}
