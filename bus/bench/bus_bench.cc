// The bus's figures: level-1 snapshots from the service's callback through
// the gateway, a NATS server with the JetStream stream, and the bus service
// to hosts' callbacks; one host, then four at once; and the time from the
// service's callback to the host's at a steady pace.
//   kelquote_bus_bench --nats URL [--count N] [--rate R] [--instruments K]
// The gateway and the hosts run in this process, each host on a connection
// of its own, as remote hosts would be.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus/gateway.h"
#include "dataapi/bus/bus_api.h"
#include "testkit/fake_api.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t Now() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

// A host's callback: counts snapshots and, while asked to, keeps their
// times from the service's callback.
class Host final : public CDataApiCallBack {
 public:
  int OnTickL1(const void* record) override {
    int64_t sent;
    std::memcpy(&sent, static_cast<const uint8_t*>(record) + 213, 8);
    int64_t n = count.fetch_add(1, std::memory_order_relaxed) + 1;
    last_ns.store(Now(), std::memory_order_relaxed);
    if (sampling.load(std::memory_order_relaxed) && latencies.size() < latencies.capacity()) {
      latencies.push_back(Now() - sent);
    }
    (void)n;
    return 0;
  }
  std::atomic<int64_t> count{0};
  std::atomic<int64_t> last_ns{0};
  std::atomic<bool> sampling{false};
  std::vector<int64_t> latencies;  // written by the host's delivery thread only
};

struct Bus {
  std::unique_ptr<busapi::BusApi> api;
  std::unique_ptr<Host> host;
};

ApiL1Tick Snapshot(int i) {
  ApiL1Tick t{};
  t.market_id = 2;
  std::snprintf(t.code, sizeof(t.code), "%06d", 600000 + i);
  t.date = 20261125;
  t.time = 100000;
  t.last = 10.0f;
  return t;
}

// Sends count snapshots round-robin over the instruments as fast as the
// gateway takes them and waits until the hosts have them (or 30 s more).
void Burst(bus::Gateway& gw, std::vector<Bus>& hosts, int instruments, int64_t count) {
  std::vector<ApiL1Tick> ticks;
  for (int i = 0; i < instruments; ++i) ticks.push_back(Snapshot(i));
  std::vector<int64_t> before;
  for (auto& h : hosts) before.push_back(h.host->count.load());
  int64_t start = Now();
  for (int64_t n = 0; n < count; ++n) {
    ApiL1Tick& t = ticks[static_cast<size_t>(n % instruments)];
    int64_t now = Now();
    std::memcpy(reinterpret_cast<uint8_t*>(&t) + 213, &now, 8);
    gw.OnTickL1(&t);
  }
  int64_t sent_ns = Now() - start;
  auto deadline = Clock::now() + std::chrono::seconds(30);
  for (;;) {
    bool all = true;
    for (size_t i = 0; i < hosts.size(); ++i) all = all && hosts[i].host->count.load() - before[i] >= count;
    if (all || Clock::now() > deadline) break;
    // A host that received nothing new for 2 s has what it will get.
    bool idle = true;
    for (auto& h : hosts) idle = idle && Now() - h.host->last_ns.load() > 2000000000;
    if (idle) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::printf("  gateway took %lld snapshots in %.3f s (%.0f a second)\n", static_cast<long long>(count), sent_ns / 1e9,
              count / (sent_ns / 1e9));
  for (size_t i = 0; i < hosts.size(); ++i) {
    int64_t got = hosts[i].host->count.load() - before[i];
    int64_t span = hosts[i].host->last_ns.load() - start;
    std::printf("  host %zu: %lld received in %.3f s: %.0f snapshots a second%s\n", i + 1, static_cast<long long>(got),
                span / 1e9, got / (span / 1e9), got < count ? " (the rest dropped as a slow consumer)" : "");
  }
}

void Steady(bus::Gateway& gw, Bus& h, int rate, int seconds) {
  ApiL1Tick t = Snapshot(0);
  h.host->latencies.clear();
  h.host->latencies.reserve(static_cast<size_t>(rate) * seconds);
  h.host->sampling.store(true);
  int64_t start = Now();
  int64_t period = 1000000000LL / rate;
  for (int64_t n = 0; n < static_cast<int64_t>(rate) * seconds; ++n) {
    // Paced by sleeping, not spinning: a spinning sender would take one of
    // the machine's two cores from the path it measures.
    std::this_thread::sleep_until(Clock::time_point(std::chrono::nanoseconds(start + n * period)));
    int64_t now = Now();
    std::memcpy(reinterpret_cast<uint8_t*>(&t) + 213, &now, 8);
    gw.OnTickL1(&t);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  h.host->sampling.store(false);
  std::vector<int64_t> v = h.host->latencies;
  if (v.empty()) {
    std::printf("  nothing received\n");
    return;
  }
  std::sort(v.begin(), v.end());
  std::printf("  %d a second for %d s: %zu received, service to host median %.1f us, 99th percentile %.1f us, max %.1f us\n",
              rate, seconds, v.size(), v[v.size() / 2] / 1e3, v[v.size() * 99 / 100] / 1e3, v.back() / 1e3);
}

}  // namespace

int main(int argc, char** argv) {
  std::string urls;
  int64_t count = 1000000;
  int rate = 2000, instruments = 100;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i];
    if (a == "--nats") urls = argv[i + 1];
    else if (a == "--count") count = std::atoll(argv[i + 1]);
    else if (a == "--rate") rate = std::atoi(argv[i + 1]);
    else if (a == "--instruments") instruments = std::atoi(argv[i + 1]);
  }
  if (urls.empty()) {
    std::fprintf(stderr, "usage: kelquote_bus_bench --nats URL [--count N] [--rate R] [--instruments K]\n");
    return 2;
  }
  bus::Settings settings;
  std::string error;
  if (!bus::settings_from_environment(&settings, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 2;
  }
  settings.urls = urls;
  settings.name = "bench";
  // A delivery thread for each of the four hosts, as four processes would have.
  nats_SetMessageDeliveryPoolSize(4);
  testkit::FakeDataApi service;
  bus::Gateway gw(&service, settings);
  if (!gw.start(&error)) {
    std::fprintf(stderr, "gateway: %s\n", error.c_str());
    return 1;
  }
  gw.set_service_up(true);
  std::vector<ApiCodeItem> items;
  for (int i = 0; i < instruments; ++i) {
    ApiCodeItem item{};
    std::snprintf(item.code, sizeof(item.code), "%06d", 600000 + i);
    item.market = 2;
    items.push_back(item);
  }
  std::vector<Bus> hosts;
  for (int i = 0; i < 4; ++i) {
    Bus b{std::make_unique<busapi::BusApi>(), std::make_unique<Host>()};
    b.api->use_settings(settings);
    b.api->RegisterServer(nullptr, b.host.get());
    ConnectResult r{};
    if (b.api->Connect(&r) != 0 || b.api->SubscribeL1(items.data(), instruments) != 0) {
      std::fprintf(stderr, "host %d could not connect or subscribe\n", i + 1);
      return 1;
    }
    hosts.push_back(std::move(b));
  }
  std::vector<Bus> one;
  // One host: the others leave their subscriptions first.
  for (int i = 1; i < 4; ++i) hosts[i].api->UnsubscribeL1(items.data(), instruments);
  std::printf("one host, %d instruments:\n", instruments);
  one.push_back(std::move(hosts[0]));
  Burst(gw, one, instruments, count);
  std::printf("latency, one host, one instrument:\n");
  Steady(gw, one[0], rate, 3);
  for (int i = 1; i < 4; ++i) hosts[i].api->SubscribeL1(items.data(), instruments);
  hosts[0] = std::move(one[0]);
  std::printf("four hosts at once, %d instruments:\n", instruments);
  Burst(gw, hosts, instruments, count);
  auto s = gw.stats();
  std::printf("gateway: %lld published, %lld refused\n", static_cast<long long>(s.published), static_cast<long long>(s.refused));
  for (auto& h : hosts) h.api->Release();
  gw.stop();
  return 0;
}
