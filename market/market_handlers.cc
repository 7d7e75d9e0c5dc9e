// Market status and initialisation: when a market is (re-)initialised and
// what its initialisation data puts in place.
#include <algorithm>
#include <cstring>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"
#include "market/record_reader.h"

namespace tavr {

void DvDataMgr::on_reply_data(const ApiMarketStatus* data, size_t size) {
  ApiMarketStatus status;
  if (data == nullptr || size < sizeof(status)) return;
  std::memcpy(&status, data, sizeof(status));
  const char* function = "DvDataMgr::on_reply_data";
  std::string name = get_market_name_by_id(status.market_id);
  CMyLog::PrintLog(LOG_INFO, function, "收到市场[%s]的状态信息[%d].....", name.c_str(), status.date);
  auto market = markets_.find(name);
  if (market == nullptr) return;

  std::unique_lock<CodesMutex> lock(markets_.codes_mu);
  bool recorded = market->status_checksum != 0 && market->trade_date != 0;
  bool storable = status.date != 0 && status.checksum != 0;
  if (!recorded) {
    if (storable) {
      market->status_checksum = status.checksum;
      market->trade_date = status.date;
      lock.unlock();
      CMyLog::PrintLog(LOG_INFO, function, "首次启动记录市场[%s]的状态,无需重新初始化[Date: %d][CheckSum: %d].....",
                       name.c_str(), status.date, static_cast<int>(status.checksum));
    }
    return;
  }
  if (status.changed == 0 || (status.date == market->trade_date && status.checksum == market->status_checksum)) {
    int32_t trade_date = market->trade_date;
    lock.unlock();
    CMyLog::PrintLog(LOG_INFO, function, "市场[%s]的状态未更新,无需重新初始化%d[%d].....", name.c_str(), trade_date,
                     status.date);
    return;
  }
  if (storable) {
    market->status_checksum = status.checksum;
    market->trade_date = status.date;
  }
  uint8_t market_id = market->market_id != 0 ? market->market_id : status.market_id;
  lock.unlock();
  if (storable) {
    CMyLog::PrintLog(LOG_INFO, function, "市场[%s]的状态有更新,开始重新初始化[Date: %d][CheckSum: %d].....",
                     name.c_str(), status.date, static_cast<int>(status.checksum));
  }
  market->reinit_pending.store(true);
  if (api_ != nullptr) api_->ReqMarketInit(market_id);
}

void DvDataMgr::on_reply_data(const ApiMarketInitHead* data, size_t size) {
  ReplyReader<ApiMarketInitHead, ApiCodeInit> reply(data, size);
  if (!reply.ok()) return;
  const ApiMarketInitHead& head = reply.head();
  const char* function = "DvDataMgr::on_reply_data";
  std::string name = get_market_name_by_id(head.market_id);
  std::string desc = field_text(head.market_desc);
  CMyLog::PrintLog(LOG_INFO, function, "收到市场[%s:%s]的初始化数据[%u],Status[%d].....", name.c_str(), desc.c_str(),
                   head.code_count, head.market_type);
  auto market = markets_.find(name);
  if (market == nullptr || head.code_count == 0) {
    CMyLog::PrintLog(LOG_ERROR, function, "收到无效市场[%s][%d],直接过滤.....", name.c_str(),
                     static_cast<int>(head.code_count));
    return;
  }
  if (market->initialised.load()) {
    CMyLog::PrintLog(LOG_INFO, function, "市场[%s]已初始化,需先清空原始数据.....", name.c_str());
    market->initialised.store(false);
    market->other_base_ready.store(false);
    market->ref_info_ready.store(false);
    std::lock_guard<CodesMutex> lock(markets_.codes_mu);
    market->base_codes.clear();
    market->other_codes.clear();
  }
  {
    std::lock_guard<CodesMutex> lock(markets_.codes_mu);
    market->market_id = head.market_id;
    market->market_type = head.market_type;
    std::memcpy(market->market_desc, head.market_desc, sizeof(market->market_desc));
    market->market_desc[sizeof(market->market_desc) - 1] = '\0';
    market->flag_a = head.flag_a;
    market->flag_b = head.flag_b;
    market->trade_date = head.trade_date;
    market->trade_date_extra = head.trade_date_extra;
    market->code_count = head.code_count;
  }
  {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    const int32_t trade_date = head.trade_date;  // packed: not bindable to a reference
    calendar_.max_trade_date = std::max(calendar_.max_trade_date, trade_date);
    if (name != "HK") {
      calendar_.trade_days.insert(trade_date);
    } else {
      calendar_.hk_rates.emplace(trade_date, std::make_pair(0.0f, 0.0f));
    }
  }
  bool notify = market->reinit_pending.load();
  if (notify) client()->onMarketInfoChange(0, name, 0);

  // Built outside the lock; the lock is held only to insert.
  size_t count = reply.available(head.code_count);
  std::vector<std::pair<bool, std::shared_ptr<BaseCodeInfo>>> records;
  records.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    auto info = make_base_code(reply.item(i), name);
    records.emplace_back(in_other_codes(head.market_id, info->code), std::move(info));
  }
  {
    std::lock_guard<CodesMutex> lock(markets_.codes_mu);
    for (auto& [other, info] : records) {
      CodeTable& table = other ? market->other_codes : market->base_codes;
      table[info->code] = std::move(info);
    }
  }
  request_follow_ups(*market);
  market->initialised.store(true);
  if (notify) client()->onMarketInfoChange(1, name, 0);

  size_t base_size, other_size;
  {
    std::lock_guard<CodesMutex> lock(markets_.codes_mu);
    base_size = market->base_codes.size();
    other_size = market->other_codes.size();
  }
  CMyLog::PrintLog(LOG_INFO, function, "收到市场[%s:%s]的初始化数据[%d, %d],处理完成.....", name.c_str(), desc.c_str(),
                   static_cast<int>(base_size), static_cast<int>(other_size));
  release_parked(*market);
}

// Stock markets carry trading attributes, reference data and share capital;
// the other markets only reference data, whose tick and reference close
// every quote conversion needs.
void DvDataMgr::request_follow_ups(MarketInfo& market) {
  int32_t id = market.market_id;
  bool stocks = id == 1 || id == 2;
  if (!stocks) market.other_base_ready.store(true);
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, "DvDataMgr::request_follow_ups", "Missing DataApi handler!!!");
    return;
  }
  if (stocks) api_->ReqMarketOtherBase(id);
  api_->ReqRefInfo(id);
  if (stocks) api_->ReqLatestShare(id);
}

}  // namespace tavr
