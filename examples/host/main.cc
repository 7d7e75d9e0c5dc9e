// A host of kelquote: logs in against the simulated quote service, subscribes
// the level-1 snapshots of one instrument, prints a few and ends the session.
// Run it from a folder holding dravikcfg.dat, beside ../userdata/log/.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dataapi/sim/sim_control.h"
#include "kelquote/KelQuoteClient.h"
#include "utils/utils.h"

namespace {

const char kMarket[] = "SH";
const char kCode[] = "600000";
constexpr int kQuotes = 3;
constexpr auto kPatience = std::chrono::seconds(5);

// What the library's threads report, for main to wait on.
struct Events {
  std::mutex mu;
  std::condition_variable cv;
  int quotes = 0;
  int connection = -1;  // the last connection status reported

  template <typename Done>
  bool wait(Done done) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, kPatience, done);
  }
};

std::string NameOf(tavr::BaseQuoteClient& client) {
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
  client.getStockList(kMarket, 0, list);
  for (const auto& detail : list) {
    if (detail->code == kCode) return utils::safeGbk2Utf8(detail->name);
  }
  return "?";
}

}  // namespace

int main() {
  Events events;
  tavr::BaseQuoteClient* client = getKelClient();
  client->registerQuoterConnectCallBack([&](int code, std::string) {
    std::lock_guard<std::mutex> lock(events.mu);
    events.connection = code;
    events.cv.notify_all();
  });

  bool logged_in = false;
  client->goLogin(tavr::LoginParam{}, [&](bool ok, std::string reason) {
    logged_in = ok;
    std::printf(ok ? "[host] logged in\n" : "[host] login failed: %s\n", utils::safeGbk2Utf8(reason).c_str());
  });
  if (!logged_in) return 1;

  std::printf("[host] %s %s %s\n", kMarket, kCode, NameOf(*client).c_str());
  quoter::TSMetaInfo meta;
  meta.market = kMarket;
  meta.code = kCode;
  meta.metaId = 3000;  // level-1 snapshots
  int id = client->subscribeQuote(meta, {}, "", [&](se::EQuoteSubStatus status, const tavr::QuoteRecords& records,
                                                    se::EDataArrivedTag) {
    if (status != se::kQuoteData || records.empty()) return;
    // The last record is the regular snapshot.
    const quoter::QuoterBase& record = *records.back();
    if (record.kind() != quoter::RecordKind::kAllData) return;
    const auto& quote = static_cast<const quoter::QuoterAllData&>(record);
    std::lock_guard<std::mutex> lock(events.mu);
    if (events.quotes == kQuotes) return;
    ++events.quotes;
    std::printf("[quote] %06lld last %.2f bid %.2f ask %.2f volume %lld\n",
                static_cast<long long>(utils::millisecondsToTime(quote.time) % 1000000), quote.lastPrice,
                quote.bidPrice[0], quote.askPrice[0], static_cast<long long>(quote.volume));
    std::fflush(stdout);
    events.cv.notify_all();
  });
  if (id < 0) {
    std::printf("[host] subscription refused: %d\n", id);
    return 1;
  }
  bool got = events.wait([&] { return events.quotes == kQuotes; });
  client->unsubscribe(id);

  // The library has no logout: the service ends the session, which also
  // ends the library's threads before the process exits.
  SimReportConnection(0, 2);
  events.wait([&] { return events.connection == 2; });
  SimWaitIdle(5000);
  std::printf(got ? "[host] done\n" : "[host] too few quotes\n");
  return got ? 0 : 1;
}
