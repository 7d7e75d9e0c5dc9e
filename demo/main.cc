// A host of the library: logs in against the simulated quote service and
// prints what the library reports. See --help.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "dataapi/sim/sim_control.h"
#include "demo/demo.h"
#include "kelquote/KelQuoteClient.h"
#include "utils/utils.h"


namespace {

const char kUsage[] =
    "usage: kelquote_demo [--fail-connect] [--outage] [--seconds N] [--wall-clock] [--capture]\n"
    "  Run from a folder holding dravikcfg.dat and ini/, beside ../userdata/log/.\n"
    "  --fail-connect  the simulated service refuses the connection: the login fails\n"
    "  --outage        after login the quote connection drops for a second and comes back\n"
    "  --seconds N     how long the live table runs (default 5)\n"
    "  --wall-clock    the simulated markets follow the wall clock, closed outside their\n"
    "                  sessions (by default, outside every session they run at 10:00 of\n"
    "                  the last trading day)\n"
    "  --capture       record the session in ../userdata/capture/ (turns the setting\n"
    "                  ini/KELQuoteCapture.config on; without the flag an existing one is\n"
    "                  turned off)\n";

// The library reads its capture setting at login; the demo writes it first.
void SetCapture(bool on) {
  const char* path = "ini/KELQuoteCapture.config";
  if (!on && !std::filesystem::exists(path)) return;
  std::ofstream out(path, std::ios::binary);
  out << "# Written by kelquote_demo.\nenabled = " << (on ? "true" : "false") << "\nfolder = ../userdata/capture\n";
  out.close();
  if (!out) {
    std::printf("[demo] cannot write %s: the session is not recorded\n", path);
  } else if (on) {
    std::printf("[demo] the session is recorded in ../userdata/capture/\n");
  }
}

// Outside every session of the simulated markets, their clock starts at
// 10:00 of the last trading day, so that the live table shows trading.
void PickClock(bool wall_clock) {
  int64_t now = utils::millisecondsToTime(static_cast<int64_t>(utils::getTime() * 1000.0));
  int date = static_cast<int>(now / 1000000);
  int time = static_cast<int>(now % 1000000);
  if (wall_clock || SimMarketsTrading(date, time) != 0) {
    std::printf("[demo] the simulated markets run on the wall clock (%d %06d)\n", date, time);
    return;
  }
  int day = SimLastTradingDay(date);
  SimSetClock(day, 100000);
  std::printf("[demo] no market trades at %d %06d: the simulated clock starts at 10:00:00 of the last trading day, "
              "%d (--wall-clock keeps the wall clock)\n",
              date, time, day);
}

// Connection reports arrive on the service's thread; main waits for them.
class Reports {
 public:
  void add(int code, const std::string& gbk_text) {
    std::printf("[connection] %d: %s\n", code, utils::safeGbk2Utf8(gbk_text).c_str());
    std::fflush(stdout);
    std::lock_guard<std::mutex> lock(mu_);
    last_ = code;
    ++count_;
    cv_.notify_all();
  }
  // Waits for the next report with the given code; false after 5 s.
  bool wait_for(int code, int seen_before) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(5), [&] { return count_ > seen_before && last_ == code; });
  }
  int count() {
    std::lock_guard<std::mutex> lock(mu_);
    return count_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int last_ = -1;
  int count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  bool fail_connect = false, outage = false, wall_clock = false, capture = false;
  int seconds = 5;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--fail-connect") == 0) {
      fail_connect = true;
    } else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      seconds = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--outage") == 0) {
      outage = true;
    } else if (std::strcmp(argv[i], "--wall-clock") == 0) {
      wall_clock = true;
    } else if (std::strcmp(argv[i], "--capture") == 0) {
      capture = true;
    } else {
      std::fputs(kUsage, std::strcmp(argv[i], "--help") == 0 ? stdout : stderr);
      return std::strcmp(argv[i], "--help") == 0 ? 0 : 2;
    }
  }
  PickClock(wall_clock);
  SetCapture(capture);
  std::fflush(stdout);
  if (fail_connect) SimRefuseConnect(1);

  tavr::BaseQuoteClient* client = getKelClient();
  Reports reports;
  client->registerQuoterConnectCallBack([&](int code, std::string text) { reports.add(code, text); });

  std::printf("[demo] logging in...\n");
  std::fflush(stdout);
  bool logged_in = false;
  client->goLogin(tavr::LoginParam{}, [&](bool ok, std::string text) {
    logged_in = ok;
    if (ok) {
      std::printf("[login] ok\n");
    } else {
      std::printf("[login] failed: %s\n", utils::safeGbk2Utf8(text).c_str());
    }
  });
  if (!logged_in) return 1;

  if (outage) {
    int seen = reports.count();
    std::printf("[demo] the quote connection drops...\n");
    SimReportConnection(0, 0);
    if (!reports.wait_for(1, seen)) std::printf("[demo] no report of the loss\n");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    seen = reports.count();
    std::printf("[demo] ...and comes back\n");
    SimReportConnection(0, 1);
    if (!reports.wait_for(0, seen)) std::printf("[demo] no report of the restore\n");
  }

  demo::ShowMarkets(*client);
  demo::ShowRealtime(*client, seconds);
  demo::ShowHistory(*client);
  demo::ShowFinance(*client);

  // The library has no logout: a session ends when the service closes it,
  // which also ends the library's threads before the process exits.
  int seen = reports.count();
  std::printf("[demo] the service ends the session\n");
  SimReportConnection(0, 2);
  reports.wait_for(2, seen);
  SimWaitIdle(5000);
  std::printf("[demo] done\n");
  return 0;
}
