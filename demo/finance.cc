#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dataapi/sim/finance.h"
#include "demo/demo.h"
#include "utils/utils.h"

namespace demo {

namespace {

int DateOf(int64_t ms) { return static_cast<int>(utils::millisecondsToTime(ms) / 1000000); }

// The records of one kind, as their class: the key names the class.
template <typename Record>
std::vector<std::shared_ptr<Record>> Records(const tavr::FinanceResult& data, int key) {
  std::vector<std::shared_ptr<Record>> records;
  auto it = data.find(key);
  if (it == data.end()) return records;
  for (const auto& record : it->second) records.push_back(std::static_pointer_cast<Record>(record));
  return records;
}

}  // namespace

void ShowFinance(tavr::BaseQuoteClient& client) {
  std::string code = "000001", name = "?";
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
  client.getStockList("SZ", 0, list);
  for (const auto& detail : list) {
    if (detail->code.compare(0, 3, "000") == 0) {
      code = detail->code;
      name = Utf8(detail->name);
      break;
    }
  }
  tavr::FinanceDataParam param;
  param.market = "SZ";
  param.code = code;
  param.types = {24501, 24506, 24510, 24509};  // balance sheet, share capital, holder count, top ten holders

  std::mutex mu;
  std::condition_variable cv;
  bool done = false;
  tavr::FinanceResult data;
  se::EQuoteSubStatus status = se::kQuoteFailure;
  std::printf("\n[demo] financial data of %s %s...\n", code.c_str(), name.c_str());
  client.requestFinanceData(param, [&](std::string, const tavr::FinanceDataParam&, const tavr::FinanceResult& got,
                                       se::EQuoteSubStatus result) {
    std::lock_guard<std::mutex> lock(mu);
    data = got;  // the records are shared; the map is the callback's
    status = result;
    done = true;
    cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(mu);
  if (!cv.wait_for(lock, std::chrono::seconds(5), [&] { return done; })) {
    std::printf("[finance] no answer\n");
    return;
  }
  std::printf("[finance] status %d, %zu kinds\n", static_cast<int>(status), data.size());

  std::printf("%-10s %-10s %14s %14s %14s\n", "period", "published", "assets(1e8)", "liabs(1e8)", "equity(1e8)");
  for (const auto& b : Records<tavr::DravikCBalanceSheet>(data, 24501)) {
    std::printf("%-10d %-10d %14.2f %14.2f %14.2f\n", DateOf(b->report_date), DateOf(b->announce_date),
                b->item[sim::balance::kTotalAssets] / 1e4, b->item[sim::balance::kTotalLiabilities] / 1e4,
                b->item[sim::balance::kParentEquity] / 1e4);
  }
  auto capital = Records<tavr::DravikCCapitalStructure>(data, 24506);
  if (!capital.empty()) {
    std::printf("[share capital %d] total %.0f, tradable %.0f shares\n", DateOf(capital[0]->report_date),
                capital[0]->item[sim::capital::kTotalShares], capital[0]->item[sim::capital::kTradableShares]);
  }
  std::printf("[holders]");
  for (const auto& h : Records<tavr::Dravik_Cshare_holder_number>(data, 24510)) {
    std::printf(" %d: %d", DateOf(h->report_date), h->item[0]);
  }
  std::printf("\n");
  auto top = Records<tavr::Dravik_Ctop10_share_holder>(data, 24509);
  if (!top.empty()) {
    std::printf("[top ten holders %d]\n", DateOf(top[0]->report_date));
    for (const auto& h : top[0]->holders) {
      std::printf("  %2d %14lld %6.2f%%  %s %s\n", h.rank, static_cast<long long>(h.shares), h.ratio,
                  Pad(Utf8(h.change), 16).c_str(), Utf8(h.name).c_str());
    }
  }
  std::fflush(stdout);
}

}  // namespace demo
