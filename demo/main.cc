// A host of the library: logs in against the simulated quote service and
// prints what the library reports. See --help.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "dataapi/sim/sim_control.h"
#include "demo/demo.h"
#include "kelquote/KelQuoteClient.h"
#include "utils/utils.h"

namespace demo {

std::string Utf8(const std::string& gbk) { return utils::safeGbk2Utf8(gbk); }

namespace {

// Columns a code point takes on a terminal: two for the East Asian wide and
// full-width ranges, else one.
size_t Columns(char32_t c) {
  return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF && c != 0x303F) ||
                 (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) ||
                 (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x20000 && c <= 0x3FFFD)
             ? 2
             : 1;
}

}  // namespace

std::string Pad(const std::string& utf8, size_t width) {
  size_t columns = 0;
  for (size_t i = 0; i < utf8.size();) {
    auto lead = static_cast<unsigned char>(utf8[i]);
    size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length && i + k < utf8.size(); ++k) c = (c << 6) | (utf8[i + k] & 0x3F);
    columns += Columns(c);
    i += length;
  }
  return columns < width ? utf8 + std::string(width - columns, ' ') : utf8;
}

}  // namespace demo

namespace {

const char kUsage[] =
    "usage: kelquote_demo [--fail-connect] [--outage] [--seconds N] [--wall-clock]\n"
    "  Run from a folder holding dravikcfg.dat and ini/, beside ../userdata/log/.\n"
    "  --fail-connect  the simulated service refuses the connection: the login fails\n"
    "  --outage        after login the quote connection drops for a second and comes back\n"
    "  --seconds N     how long the live table runs (default 5)\n"
    "  --wall-clock    the simulated markets follow the wall clock, closed outside their\n"
    "                  sessions (by default, outside every session they run at 10:00 of\n"
    "                  the last trading day)\n";

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
  bool fail_connect = false, outage = false, wall_clock = false;
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
    } else {
      std::fputs(kUsage, std::strcmp(argv[i], "--help") == 0 ? stdout : stderr);
      return std::strcmp(argv[i], "--help") == 0 ? 0 : 2;
    }
  }
  PickClock(wall_clock);
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
