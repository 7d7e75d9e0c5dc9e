// Writes the seed corpus of the record target: the first record of every
// slot that the simulated quote service sends for a few requests and
// subscriptions of SH, trimmed to at most two elements (one for large ones).
//   make_seeds <folder>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dataapi/DataApi.h"
#include "dataapi/sim/sim_control.h"
#include "fuzz/fuzz_entry.h"

namespace {

class Recorder final : public CDataApiCallBack {
 public:
#define KQ_SLOT(name) \
  int name(const void* r) override { return Keep(#name, r); }
  KQ_SLOT(OnMarketInit) KQ_SLOT(OnMarketOtherBase) KQ_SLOT(OnRespRefInfo) KQ_SLOT(OnTickL1)
  KQ_SLOT(OnRespHisData) KQ_SLOT(OnRespHolidayInfo) KQ_SLOT(OnMarketStatus) KQ_SLOT(OnRespSharedFields)
  KQ_SLOT(OnRespNewIssueList) KQ_SLOT(OnTickL2) KQ_SLOT(OnIndexL2) KQ_SLOT(OnTransL2) KQ_SLOT(OnOrderL2)
  KQ_SLOT(OnOrderQueueL2) KQ_SLOT(OnRespShareData) KQ_SLOT(OnRespHKRateData) KQ_SLOT(OnRespLatestShareData)
  KQ_SLOT(OnRespFinancialData) KQ_SLOT(OnRespIncomeStatData) KQ_SLOT(OnRespCashFlowData)
  KQ_SLOT(OnRespBalanceSheetData) KQ_SLOT(OnRespSHNumberData) KQ_SLOT(OnRespMostShareHolderData)
  KQ_SLOT(OnRespNegotiableShareHolderData) KQ_SLOT(OnRespHisTickKcbData) KQ_SLOT(OnRespL1HisTickData)
  KQ_SLOT(OnRespMarketPushData)
#undef KQ_SLOT

  // slot index -> seed bytes
  std::map<size_t, std::vector<uint8_t>> seeds;
  std::mutex mu;

 private:
  int Keep(const char* name, const void* record) {
    const auto& slots = kqfuzz::record_slots();
    auto it = std::find_if(slots.begin(), slots.end(), [&](const auto& s) { return std::strcmp(s.name, name) == 0; });
    if (it == slots.end()) return 0;
    size_t index = static_cast<size_t>(it - slots.begin());
    std::lock_guard<std::mutex> lock(mu);
    if (seeds.count(index) != 0) return 0;
    const auto* bytes = static_cast<const uint8_t*>(record);
    std::vector<uint8_t> copy(bytes, bytes + kqfuzz::record_size(*it, bytes));
    size_t elements = it->elem > 600 ? 1 : 2;
    size_t keep = it->head + (it->shape == kqfuzz::RecordSlot::kHeadPlus ? elements - 1 : elements) * it->elem;
    keep = std::min(copy.size(), std::max(keep, kqfuzz::min_size(*it)));
    copy.resize(kqfuzz::fit_count(*it, copy.data(), keep));
    std::vector<uint8_t> seed{static_cast<uint8_t>(index), static_cast<uint8_t>(copy.size()),
                              static_cast<uint8_t>(copy.size() >> 8)};
    seed.insert(seed.end(), copy.begin(), copy.end());
    seeds[index] = std::move(seed);
    return 0;
  }
};

template <typename T>
T Request(uint16_t id, const char* code) {
  T r{};
  r.request_id = id;
  r.market = 2;
  std::strncpy(r.code, code, sizeof(r.code) - 1);
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds <folder>\n");
    return 2;
  }
  Recorder recorder;
  CDataApi* api = GetApiInstance();
  ServerTable servers;
  ServerLoginConfig config{};
  std::strcpy(config.servers[0].host, "127.0.0.1");
  std::strcpy(config.servers[0].port, "9000");
  servers.emplace(0, config);
  api->RegisterServer(&servers, &recorder);
  ConnectResult result{};
  if (api->Connect(&result) != 0) return 1;
  SimSetStreamInterval(5);
  SimSetPushInterval(5);
  api->ReqMarketInit(2);
  api->ReqMarketStatus(2);
  api->ReqBaseData();
  api->ReqMarketOtherBase(2);
  api->ReqRefInfo(2);
  api->ReqLatestShare(2);
  api->ReqHoliday(2);
  HKRateRequest rate{0, 20240101, 20240131};
  api->ReqHKRate(&rate);
  auto bars = Request<HisBarRequest>(21, "600000");
  bars.kline_type = 1;
  bars.start_date = 20240102;
  bars.end_date = 20240110;
  api->ReqHisData(&bars);
  auto ticks = Request<HisTickRequest>(22, "600000");
  ticks.start_date = ticks.end_date = 20240103;
  api->ReqL1NewHisTick(&ticks);
  auto star = Request<HisTickRequest>(23, "688012");
  star.start_date = star.end_date = 20240103;
  api->ReqHisTickKcb(&star);
  auto finance = Request<FinanceRequest>(24, "600000");
  api->ReqShareData(&finance);
  api->ReqFinancialData(&finance);
  api->ReqIncomeStatement(&finance);
  api->ReqCashFlowStatement(&finance);
  api->ReqBalanceSheet(&finance);
  api->ReqSHNumber(&finance);
  api->ReqMostShareHolder(&finance);
  api->ReqNegotiableShareHolder(&finance);
  for (const char* code : {"600000", "688012", "000001"}) {
    ApiCodeItem item{};
    std::strcpy(item.code, code);
    item.market = 2;
    api->SubscribeL1(&item, 1);
    api->SubscribeL2(&item, 1);
  }
  ApiMarketItem market{2, 2};
  api->SubscribeMarketPush(&market);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  api->Release();
  SimWaitIdle(5000);

  std::lock_guard<std::mutex> lock(recorder.mu);
  for (const auto& [index, seed] : recorder.seeds) {
    std::ofstream out(std::string(argv[1]) + "/" + kqfuzz::record_slots()[index].name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(seed.data()), static_cast<std::streamsize>(seed.size()));
  }
  std::printf("%zu seeds\n", recorder.seeds.size());
  return 0;
}
