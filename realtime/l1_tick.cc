// Level-1 snapshots of subscribed instruments.
#include <cstdint>
#include <cstring>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"
#include "realtime/l1_convert.h"
#include "realtime/tick_routes.h"

namespace tavr {

namespace {
const char kFunction[] = "DvDataMgr::on_reply_data";
}  // namespace

int DvDataMgr::instrument_view(const MarketInfo& market, const std::string& code, InstrumentView& view,
                               std::shared_ptr<BaseCodeInfo>* record) {
  std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
  return instrument_view_locked(market, code, view, record);
}

int DvDataMgr::instrument_view_locked(const MarketInfo& market, const std::string& code, InstrumentView& view,
                                      std::shared_ptr<BaseCodeInfo>* record) {
  std::shared_ptr<BaseCodeInfo> info;
  int where = find_code(market, code, info);
  if (where == 0) return 0;
  view.digits = info->price_digits;
  view.unit = info->volume_unit == 0 ? 1 : info->volume_unit;
  view.ref_close = static_cast<float>(info->ref_b);
  view.eps = static_cast<float>(info->ref_a);
  if (record != nullptr) *record = std::move(info);
  return where;
}

const TickRoute* DvDataMgr::l1_route(uint8_t market_id, const std::string& code, TickRoute& scratch) {
  TickRoutes* routes = TickRoutes::current();
  // Read before any lookup: a change made meanwhile leaves the route stale.
  uint64_t codes_generation = markets_.codes_mu.generation();
  uint64_t subscriptions_generation = subscriptions_.generation();
  if (routes != nullptr) routes->hold(codes_generation);
  TickRoute* route = routes != nullptr ? routes->find(market_id, code) : nullptr;
  if (route != nullptr) {
    if (!route->market->initialised.load(std::memory_order_acquire)) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiL1Tick]市场[%s]正在初始化，忽略该条tick数据...",
                       route->market->name.c_str());
      return nullptr;
    }
  } else {
    std::string name = get_market_name_by_id(market_id);
    auto market = markets_.find(name);
    if (market == nullptr) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiL1Tick] 市场[%s]不存在.....", name.c_str());
      return nullptr;
    }
    if (!market->initialised.load(std::memory_order_acquire)) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiL1Tick]市场[%s]正在初始化，忽略该条tick数据...", name.c_str());
      return nullptr;
    }
    TickRoute fresh;
    if (instrument_view(*market, code, fresh.view, &fresh.record) == 0) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiL1Tick] Code %s not exist...", code.c_str());
      return nullptr;
    }
    fresh.market = std::move(market);
    fresh.key = code + "." + name;
    fresh.subscriptions_generation = 0;  // fetched below
    route = routes != nullptr ? &routes->put(market_id, code, std::move(fresh)) : &(scratch = std::move(fresh));
  }
  if (route->subscriptions_generation != subscriptions_generation) {
    route->subscribers = subscriptions_.subscribers(route->key);
    route->subscriptions_generation = subscriptions_generation;
  }
  return route;
}

void DvDataMgr::on_reply_data(const ApiL1Tick* data, size_t size) {
  ApiL1Tick tick;
  if (data == nullptr || size < sizeof(tick)) return;
  std::memcpy(&tick, data, sizeof(tick));
  std::string code = field_text(tick.code);
  TickRoute scratch;
  const TickRoute* route = l1_route(tick.market_id, code, scratch);
  if (route == nullptr) return;
  const std::string& name = route->market->name;
  const InstrumentView& view = route->view;
  BaseCodeInfo* record = route->record.get();
  CMyLog::PrintLog(LOG_TRACE, kFunction, "[ApiL1Tick] Code %s info [%d, %d]...", code.c_str(), view.digits, view.unit);

  auto a = convert_snapshot(tick, code, view, name, "[ApiL1Tick]");
  if (a == nullptr) return;
  std::shared_ptr<DravikQuoterAllData> b;
  bool closing = false;
  if (tick.board_kind == 8 && tick.after_hours_time >= 150001 && tick.after_hours_time <= 153005) {
    closing = tick.after_hours_time > 150010 && tick.after_hours_time < 153000;
    b = after_hours_record(*a, tick, code, view, name, "[ApiL1Tick]");
  } else {
    b = std::make_shared<DravikQuoterAllData>();
  }

  // One instrument's snapshots are handled by one service thread (the queue
  // keys them by instrument), so the totals never see two writers.
  // A vendor's volume can be anything: the totals stop at int64's bounds
  // rather than overflow.
  int64_t& total = record->last_price >= a->lastPrice ? record->sell_volume_total : record->buy_volume_total;
  int64_t volume = static_cast<int64_t>(a->volume);
  if (__builtin_add_overflow(total, volume, &total)) total = volume > 0 ? INT64_MAX : INT64_MIN;
  record->last_price = static_cast<float>(a->lastPrice);
  std::shared_ptr<quoter::BuySellData> buy_sell;  // made once a subscriber wants it

  // A copy: the host's callbacks below may change the subscriptions.
  std::shared_ptr<const SubscriptionTable::List> subscribers = route->subscribers;
  CMyLog::PrintLog(LOG_TRACE, kFunction, "[ApiL1Tick] Start return data[%s][%d].....", route->key.c_str(),
                   static_cast<int>(subscribers->size()));
  KelQuoteClient* host = client();
  for (const TickSubscription& entry : *subscribers) {
    QuoteRecords records;
    records.reserve(2);
    if (entry.level == 0) {
      if (entry.data_type == 4002) {
        if (buy_sell == nullptr) {
          buy_sell = std::make_shared<quoter::BuySellData>();
          buy_sell->buyVolume = record->buy_volume_total;
          buy_sell->sellVolume = record->sell_volume_total;
        }
        records.push_back(buy_sell);
      } else {
        records.push_back(b);
        if (!closing) records.push_back(a);
      }
    }
    short serial = static_cast<short>(entry.serial);
    host->onSubscribe(serial, records);
  }
  CMyLog::PrintLog(LOG_TRACE, kFunction, "[ApiL1Tick] Return data end.....");
}

}  // namespace tavr
