#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "demo/demo.h"

namespace demo {

namespace {

struct Row {
  std::string host_market;
  std::string code;
  std::string name;
  double last = 0, close = 0;
  int64_t volume = 0;
  int32_t lot = 1;  // shares of a lot (a Hong Kong share's board lot)
  uint32_t phase = 0;
  int updates = 0;
};

// The first instrument of the market whose code begins with prefix, with
// its name and lot, from the market's list.
std::tuple<std::string, std::string, int32_t> Find(tavr::BaseQuoteClient& client, const std::string& market,
                                                   const std::string& prefix) {
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
  client.getStockList(market, 0, list);
  for (const auto& detail : list) {
    if (detail->code.compare(0, prefix.size(), prefix) == 0) {
      return {detail->code, Utf8(detail->name), detail->volumeUnit};
    }
  }
  return {prefix, "?", 1};
}

}  // namespace

void ShowRealtime(tavr::BaseQuoteClient& client, int seconds) {
  const std::pair<const char*, const char*> wanted[] = {
      {"SH", "600000"}, {"SH", "688"}, {"SZ", "000001"}, {"IF", "IF"}, {"HGT", "00700"}};
  std::mutex mu;
  std::vector<Row> rows;
  std::vector<int> ids;
  for (const auto& [market, code] : wanted) {
    Row row;
    row.host_market = market;
    std::tie(row.code, row.name, row.lot) = Find(client, market, code);
    rows.push_back(row);
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    quoter::TSMetaInfo meta;
    meta.market = rows[i].host_market;
    meta.code = rows[i].code;
    meta.metaId = 3000;
    int id = client.subscribeQuote(meta, {}, "", [&, i](se::EQuoteSubStatus status, const tavr::QuoteRecords& records,
                                                         se::EDataArrivedTag) {
      if (status != se::kQuoteData || records.empty()) return;
      // The last record is the regular snapshot; the first one the after-hours record.
      const auto* a = dynamic_cast<const quoter::QuoterAllData*>(records.back().get());
      if (a == nullptr) return;
      std::lock_guard<std::mutex> lock(mu);
      rows[i].last = a->lastPrice;
      rows[i].close = a->lastClose;
      rows[i].volume = a->volume;
      rows[i].phase = a->tradingPhase;
      ++rows[i].updates;
    });
    ids.push_back(id);
  }
  size_t packages = 0, package_size = 0;
  int whole = client.subWholeQuote("SH", [&](const tavr::QuoteMap& map) {
    std::lock_guard<std::mutex> lock(mu);
    ++packages;
    package_size = map.size();
  });

  for (int s = 1; s <= seconds; ++s) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::lock_guard<std::mutex> lock(mu);
    std::printf("\n[live %ds] %-4s %-8s %-16s %10s %8s %10s %5s %5s %4s\n", s, "mkt", "code", "name", "last", "chg%",
                "volume", "lot", "phase", "upd");
    for (const Row& row : rows) {
      double change = row.close > 0 ? (row.last - row.close) / row.close * 100 : 0;
      std::printf("          %-4s %-8s %s %10.3f %+8.2f %10lld %5d %5u %4d\n", row.host_market.c_str(),
                  row.code.c_str(), Pad(row.name, 16).c_str(), row.last, change, static_cast<long long>(row.volume),
                  row.lot, row.phase, row.updates);
    }
    std::printf("          SH whole market: %zu packages, the last of %zu instruments\n", packages, package_size);
    std::fflush(stdout);
  }
  for (int id : ids) client.unsubscribe(id);
  client.unWholeQuote(whole);
  std::printf("[demo] unsubscribed\n");
}

}  // namespace demo
