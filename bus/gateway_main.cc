// kelquote_gateway --nats URL[,URL...] [--settings FILE] [--name NAME]
//                  [--gateway NAME --markets SH,SZ [--common]]
//                  [--sim-interval MS] [--sim-clock YYYYMMDD HHMMSS]
// Runs in a folder laid out as a terminal's (dravikcfg.dat, ini/, beside
// ../userdata/log/), logs in to the quote service it loads as a host would,
// and shares that one connection on the bus until SIGINT or SIGTERM.
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bus/gateway.h"
#include "datamgr/config.h"
#include "log/MyLog.h"

namespace {

std::atomic<bool> g_stop{false};

void OnSignal(int) { g_stop.store(true); }

void CopyText(char* dest, size_t size, const std::string& text) {
  size_t n = std::min(text.size(), size - 1);
  std::memcpy(dest, text.data(), n);
  dest[n] = '\0';
}

// The server table a host's login makes of ./dravikcfg.dat.
bool ServerTableOf(bool real, ServerTable* table) {
  tavr::ServerAddress lists[3][tavr::kMaxServers];
  if (!tavr::GetIPPort(lists[0], lists[1], lists[2], real, "./dravikcfg.dat")) return false;
  static const char* const kUsers[3] = {"9999", "9001", "9002"};
  ServerLoginConfig config;
  std::memset(&config, 0, sizeof(config));
  for (int role = 0; role < 3; ++role) {
    for (int i = 0; i < tavr::kMaxServers; ++i) {
      CopyText(config.servers[i].host, sizeof(config.servers[i].host), lists[role][i].ip);
      CopyText(config.servers[i].port, sizeof(config.servers[i].port), lists[role][i].port);
      if (lists[0][i].ip.empty()) break;
    }
    CopyText(config.user, sizeof(config.user), kUsers[role]);
    CopyText(config.password, sizeof(config.password), "590316");
    config.setting_a = 5;
    config.setting_b = 180;
    config.setting_c = 10;
    table->emplace(role, config);
  }
  return true;
}

// A control of the simulated service, when the loaded service is ours.
template <typename Fn>
Fn SimControl(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

int Usage() {
  std::fprintf(stderr,
               "usage: kelquote_gateway --nats URL[,URL...] [--settings FILE] [--name NAME]\n"
               "                        [--gateway NAME --markets SH,SZ [--common]]\n"
               "                        [--sim-interval MS] [--sim-clock YYYYMMDD HHMMSS]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bus::Settings settings;
  std::string urls, name, error;
  std::vector<std::pair<std::string, std::string>> split;  // settings given as options
  bool settings_file = false;
  int sim_interval = 0, sim_date = -1, sim_time = -1;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (a == "--nats" && (v = value())) {
      urls = v;
    } else if (a == "--settings" && (v = value())) {
      settings_file = true;
      if (!bus::read_settings_file(v, &settings, &error)) {
        std::fprintf(stderr, "kelquote_gateway: %s\n", error.c_str());
        return 2;
      }
    } else if (a == "--name" && (v = value())) {
      name = v;
    } else if ((a == "--gateway" || a == "--markets") && (v = value())) {
      split.emplace_back(a.substr(2), v);
    } else if (a == "--common") {
      split.emplace_back("common", "true");
    } else if (a == "--sim-interval" && (v = value())) {
      sim_interval = std::atoi(v);
    } else if (a == "--sim-clock" && i + 2 < argc) {
      sim_date = std::atoi(argv[++i]);
      sim_time = std::atoi(argv[++i]);
    } else {
      return Usage();
    }
  }
  // The environment's credentials serve the gateway as they serve a host;
  // a file named on the command line stands for the host's settings file.
  if (!bus::settings_from_environment(&settings, &error, !settings_file)) {
    std::fprintf(stderr, "kelquote_gateway: %s\n", error.c_str());
    return 2;
  }
  if (!urls.empty()) settings.urls = urls;
  if (!name.empty()) settings.name = name;
  for (const auto& [key, text] : split) {
    if (!bus::apply_setting(&settings, key, text, &error)) {
      std::fprintf(stderr, "kelquote_gateway: --%s: %s\n", key.c_str(), error.c_str());
      return 2;
    }
  }

  tavr::CMyLog::InitLog();
  ServerTable table;
  if (!ServerTableOf(true, &table)) {
    std::fprintf(stderr, "kelquote_gateway: ./dravikcfg.dat cannot be read (see the log)\n");
    return 1;
  }
  CDataApi* api = GetApiInstance();
  if (api == nullptr) {
    std::fprintf(stderr, "kelquote_gateway: the quote service gives no API object\n");
    return 1;
  }
  bus::Gateway gateway(api, settings);
  api->RegisterServer(&table, &gateway);
  if (!gateway.start(&error)) {
    std::fprintf(stderr, "kelquote_gateway: %s\n", error.c_str());
    return 1;
  }
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  if (sim_interval > 0) {
    if (auto fn = SimControl<int (*)(int)>("SimSetStreamInterval")) fn(sim_interval);
    if (auto fn = SimControl<int (*)(int)>("SimSetPushInterval")) fn(sim_interval);
  }
  if (sim_time >= 0) {
    if (auto fn = SimControl<int (*)(int, int)>("SimSetClock")) fn(sim_date, sim_time);
  }

  // Connected while the service lets it: a failed connection (the vendor
  // gave up) is made again every few seconds.
  bool connected = false;
  auto next_try = std::chrono::steady_clock::now();
  while (!g_stop.load()) {
    auto now = std::chrono::steady_clock::now();
    if (connected && gateway.take_failure()) {
      api->Release();
      connected = false;
      next_try = now + std::chrono::seconds(3);
    }
    if (!connected && now >= next_try) {
      ConnectResult result{0, 0, 0};
      int rc = api->Connect(&result);
      gateway.set_connect_result(result);
      connected = rc == 0;
      gateway.set_service_up(connected);
      bus::log_line("gateway", connected ? "connected to the quote service"
                                         : "quote service connect failed (" + std::to_string(result.code) +
                                               "), trying again in 3 s");
      next_try = now + std::chrono::seconds(3);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  bus::log_line("gateway", "stopping");
  api->Release();
  gateway.stop();
  return 0;
}
