// The reply dispatcher: one message type, one handler.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"
#include "utils/utils.h"

namespace tavr {

namespace {

// What the dispatcher does with each type code: route it to its handler,
// accept and ignore it, or log it as invalid.
enum class Route : uint8_t { kInvalid, kIgnore, kHandler };

using Handler = void (*)(DvDataMgr&, const void*, size_t);

// Adapts a handler that takes its own payload type to the table's form.
template <typename Payload>
void Handle(DvDataMgr& mgr, const void* data, size_t size) {
  mgr.on_reply_data(static_cast<const Payload*>(data), size);
}

template <void (DvDataMgr::*Member)(const void*, size_t)>
void HandleRaw(DvDataMgr& mgr, const void* data, size_t size) {
  (mgr.*Member)(data, size);
}

struct Entry {
  Route route = Route::kInvalid;
  Handler handler = nullptr;
};

constexpr int kMaxType = 40;

}  // namespace

// The table of message types. Types whose subsystem does not serve them yet
// are accepted and dropped, as the ignored types are.
static const std::array<Entry, kMaxType + 1>& RouteTable() {
  static const std::array<Entry, kMaxType + 1> table = [] {
    std::array<Entry, kMaxType + 1> t{};
    for (int type = 0; type <= kMaxType; ++type) t[type].route = Route::kIgnore;
    t[29].route = Route::kInvalid;
    t[0] = {Route::kHandler, &Handle<ApiMarketInitHead>};
    t[1] = {Route::kHandler, &Handle<ApiMarketOtherBaseHead>};
    t[2] = {Route::kHandler, &Handle<ApiMarketStatus>};
    t[3] = {Route::kHandler, &Handle<ApiRefInfoHead>};
    t[4] = {Route::kHandler, &Handle<ApiL1Tick>};
    t[5] = {Route::kHandler, &Handle<ApiMarketPushHead>};
    t[6] = {Route::kHandler, &HandleRaw<&DvDataMgr::on_reply_data_l2_tick>};
    t[7] = {Route::kHandler, &HandleRaw<&DvDataMgr::on_reply_data_l2_tick_index>};
    t[8] = {Route::kHandler, &HandleRaw<&DvDataMgr::on_reply_data_l2_transaction>};
    t[9] = {Route::kHandler, &HandleRaw<&DvDataMgr::on_reply_data_l2_order>};
    t[10] = {Route::kHandler, &HandleRaw<&DvDataMgr::on_reply_data_l2_order_queue>};
    t[11] = {Route::kHandler, &Handle<ApiL1NewHisTickResp>};
    t[12] = {Route::kHandler, &Handle<ApiHisTickKcbResp>};
    t[13] = {Route::kHandler, &Handle<ApiHisDataRsp>};
    t[15] = {Route::kHandler, &Handle<ApiHolidayHead>};
    t[16] = {Route::kHandler, &HandleRaw<&DvDataMgr::on_reply_power>};
    t[24] = {Route::kHandler, &Handle<ApiSharedFields>};
    t[25] = {Route::kHandler, &Handle<ApiNewIssueHead>};
    t[31] = {Route::kHandler, &Handle<ApiHKRateHead>};
    t[33] = {Route::kHandler, &Handle<ApiLatestShareHead>};
    t[30] = {Route::kHandler, &Handle<ApiShareRsp>};
    t[34] = {Route::kHandler, &Handle<ApiFinancialDataRsp>};
    t[35] = {Route::kHandler, &Handle<ApiIncomeStatementRsp>};
    t[36] = {Route::kHandler, &Handle<ApiCashFlowStatementRsp>};
    t[37] = {Route::kHandler, &Handle<ApiBalanceSheetRsp>};
    t[38] = {Route::kHandler, &Handle<ApiSHNumberResp>};
    t[39] = {Route::kHandler, &Handle<ApiMostShareHolderResp>};
    t[40] = {Route::kHandler, &Handle<ApiNegotiableShareHolderRsp>};
    return t;
  }();
  return table;
}

void DvDataMgr::on_reply_data(int msg_type, void* data, size_t size) {
  if (msg_type >= 0 && msg_type <= kMaxType) {
    const Entry& entry = RouteTable()[msg_type];
    if (entry.route == Route::kHandler) {
      entry.handler(*this, data, size);
      return;
    }
    if (entry.route == Route::kIgnore) return;
  }
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::on_reply_data", "收到无效[%d]类型数据.....", msg_type);
}

// Dividend records are read and consumed; nothing keeps them.
void DvDataMgr::on_reply_power(const void* data, size_t size) {
  ApiPowerRsp head;
  if (data == nullptr || size < sizeof(head)) return;
  std::memcpy(&head, data, sizeof(head));
  size_t available = (size - sizeof(head)) / sizeof(ApiPowerItem);
  size_t count = std::min<size_t>(head.count, available);
  const auto* items = static_cast<const uint8_t*>(data) + sizeof(head);
  std::vector<std::shared_ptr<quoter::DividData>> records;
  records.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    ApiPowerItem item;
    std::memcpy(&item, items + i * sizeof(item), sizeof(item));
    auto record = std::make_shared<quoter::DividData>();
    record->time = utils::timeToMilliseconds(item.date, item.time);
    record->cashDividend = item.cash_dividend / 10.0;
    record->bonusShares = item.bonus_shares / 10.0;
    record->rightsShares = item.rights_shares / 10.0;
    record->rightsPrice = item.rights_price / 10.0;
    records.push_back(std::move(record));
  }
}

}  // namespace tavr
