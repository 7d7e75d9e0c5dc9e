// Instrument lists for the client.
#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"

namespace tavr {

namespace {

bool ListReady(const MarketInfo& market, char variant) {
  if (variant == 2) return market.other_base_ready.load();
  return market.initialised.load() && market.ref_info_ready.load();
}

}  // namespace

void DvDataMgr::get_market_code_list(const std::string& host_market, const std::string& name, char variant,
                                     std::vector<std::shared_ptr<ttservice::CInstrumentDetail>>& list) {
  const char* function = "DvDataMgr::get_market_code_list";
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "市场[%s-%d]不存在...", name.c_str(), variant);
    return;
  }
  for (int attempt = 1; !ListReady(*market, variant) && attempt <= 10; ++attempt) {
    waitDynamicTime(attempt, function, name, variant);
  }
  if (!ListReady(*market, variant)) {
    CMyLog::PrintLog(LOG_ERROR, function, "市场[%s-%d]初始化失败，无法获取代码列表...", name.c_str(), variant);
    return;
  }
  CMyLog::PrintLog(LOG_INFO, function, "市场[%s-%d]合约信息打包开始.....", name.c_str(), variant);

  // Only the shared pointers are copied under the instrument lock; the
  // details are built after it is released, so a whole market holds the
  // service threads up for a map walk, not for thousands of allocations.
  std::vector<std::shared_ptr<BaseCodeInfo>> records;
  {
    std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
    const CodeTable& table = variant == 2 ? market->other_codes : market->base_codes;
    records.reserve(table.size());
    for (const auto& entry : table) records.push_back(entry.second);
  }
  const std::string detail_market = variant == 2 ? std::string("SH") : host_market;
  list.reserve(list.size() + records.size());
  for (const auto& record : records) {
    auto detail = std::make_shared<ttservice::CInstrumentDetail>();
    auto extend = std::make_shared<ttservice::CInstrumentExtendInfo>();
    double tick;
    int digits;
    {
      // Reference replies may update the tick while we read it.
      std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
      detail->code = record->code;
      detail->name = record->name2;
      tick = record->price_tick;
      digits = record->price_digits;
      detail->volumeUnit = record->volume_unit;
      detail->listDate = record->list_date;
      extend->typeCode = record->type_code;
      extend->codeFlag = record->code_flag;
      extend->newListing = record->is_new_listing;
      extend->productCode = record->product_code;
    }
    detail->market = detail_market;
    detail->priceTick = tick;
    detail->priceDigits = digits;
    if (!(tick > 0.0) || digits > 8) {
      CMyLog::PrintLog(LOG_ERROR, function, "Code [%s.%s] minmove[%0.4f][%d]", record->code.c_str(), name.c_str(),
                       tick, digits);
    }
    detail->extendInfo = std::move(extend);
    list.push_back(std::move(detail));
  }
  CMyLog::PrintLog(LOG_INFO, function, "市场[%s-%d]合约信息打包结束[%d].....", name.c_str(), variant,
                   static_cast<int>(records.size()));
}

}  // namespace tavr
