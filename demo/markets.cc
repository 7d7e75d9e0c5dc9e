#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dataapi/sim/sim_control.h"
#include "demo/demo.h"
#include "utils/utils.h"

namespace demo {

namespace {

int DateOf(int64_t ms) { return static_cast<int>(utils::millisecondsToTime(ms) / 1000000); }

}  // namespace

void ShowMarkets(tavr::BaseQuoteClient& client) {
  const char* markets[] = {"SH", "SZ", "SHO", "SZO", "IF", "SF", "INE", "DF", "ZF", "HGT", "SGT"};
  std::printf("\n%-5s %6s  %-34s %s\n", "host", "count", "first instruments (code name tick unit)", "trading days");
  for (const char* market : markets) {
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
    client.getStockList(market, 0, list);
    std::vector<int64_t> days;
    client.getTradeDateList(market, days);
    std::printf("%-5s %6zu  ", market, list.size());
    // The library keeps a second instrument table for the stock markets'
    // options only; the connect shares are listed under HGT.
    if (list.empty() && std::string(market) == "SGT") std::printf("%-34s", "(HK has no second table)");
    for (size_t i = 0; i < list.size() && i < 3; ++i) {
      std::printf("%s%s %s %g %d", i == 0 ? "" : " | ", list[i]->code.c_str(), Utf8(list[i]->name).c_str(),
                  list[i]->priceTick, list[i]->volumeUnit);
    }
    if (!days.empty()) {
      std::printf("  [%d .. %d, %zu days]", DateOf(days.front()), DateOf(days.back()), days.size());
    }
    std::printf("\n");
  }

  // A market's data change during the day: the library re-initialises it
  // and tells the host, once per host market that maps to it.
  std::mutex mu;
  std::vector<std::string> notes;
  client.registerTradeDateAndStockListChangeCallBack([&](int kind, std::string host) {
    std::lock_guard<std::mutex> lock(mu);
    notes.push_back(std::string(kind == 0 ? "trading day" : "instrument list") + " of " + host);
  });
  std::printf("\n[demo] the service changes market SZ...\n");
  SimChangeMarket(1);
  for (int i = 0; i < 50; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::lock_guard<std::mutex> lock(mu);
    if (notes.size() >= 4) break;
  }
  std::lock_guard<std::mutex> lock(mu);
  for (const std::string& note : notes) std::printf("[market info] %s changed\n", note.c_str());
  std::fflush(stdout);
}

}  // namespace demo
