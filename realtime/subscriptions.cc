// Per-instrument and whole-market subscriptions at the quote service.
#include <cstring>
#include <memory>

#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"

namespace tavr {

namespace {

// Level of a data type: 0 level 1, 1 level 2, -1 not served.
int LevelOf(int32_t data_type) {
  if (data_type == 3000 || data_type == 4002) return 0;
  if (data_type == 1010 || data_type == 1011 || (data_type >= 1801 && data_type <= 1806)) return 1;
  return -1;
}

ApiCodeItem CodeItem(const std::string& code, const std::string& market) {
  ApiCodeItem item{};
  std::strncpy(item.code, code.c_str(), sizeof(item.code) - 1);
  item.market = static_cast<uint8_t>(DvDataMgr::get_market_id_by_name(market));
  return item;
}

}  // namespace

uint16_t DvDataMgr::next_serial() {
  std::lock_guard<std::mutex> lock(serial_mu_);
  do {
    ++serial_counter_;
    if (static_cast<int16_t>(serial_counter_) > 30000) serial_counter_ = 20;
  } while (serial_in_use(serial_counter_));
  return serial_counter_;
}

bool DvDataMgr::serial_in_use(uint16_t serial) const {
  if (subscriptions_.holds_serial(serial)) return true;
  std::lock_guard<std::mutex> lock(his_request_mu_);
  // A financial request answers under its id plus each kind's bit.
  for (const auto& [id, request] : his_request_infos) {
    int offset = static_cast<int>(serial) - static_cast<int>(id);
    if (offset == 0 || (request.size() == 3 && offset > 0 && offset <= 0xFF && (request[2] & offset) == offset &&
                        (offset & (offset - 1)) == 0)) {
      return true;
    }
  }
  return false;
}

uint16_t DvDataMgr::request_tick_push(const quoter::TSMetaInfo& request, const std::string& market) {
  const char* function = "DvDataMgr::request_tick_push";
  uint16_t serial = next_serial();
  ApiCodeItem item = CodeItem(request.code, market);
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "Missing DataApi handler!!!");
    return kRequestFailed;
  }
  int level = LevelOf(request.metaId);
  const std::string key = request.code + "." + market;
  std::lock_guard<std::mutex> change(subscriptions_.change_lock(key));
  int rc = -1;
  if (level == 0) rc = api_->SubscribeL1(&item, 1);
  if (level == 1) rc = api_->SubscribeL2(&item, 1);
  if (rc < 0) {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to send subscrib!!!");
    return kRequestFailed;
  }
  TickSubscription entry{serial, static_cast<uint16_t>(request.metaId), static_cast<uint8_t>(level)};
  if (subscriptions_.add(key, entry)) {
    CMyLog::PrintLog(LOG_INFO, function, "Sub %s.%s[%s], count[%d]!", request.code.c_str(), market.c_str(),
                     level == 1 ? "L2" : "L1", static_cast<int>(subscriptions_.subscribed_count.load()));
  }
  return serial;
}

void DvDataMgr::release_tick_push(const std::string& code, const std::string& market, uint16_t serial) {
  const char* function = "DvDataMgr::release_tick_push";
  uint8_t level = 0;
  const std::string key = code + "." + market;
  std::lock_guard<std::mutex> change(subscriptions_.change_lock(key));
  if (!subscriptions_.remove(key, serial, level)) return;
  subscriptions_.subscribed_count.fetch_sub(1);
  ApiCodeItem item = CodeItem(code, market);
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "Missing DataApi handler!!!");
    return;
  }
  int count = static_cast<int>(subscriptions_.subscribed_count.load());
  if (level == 1) {
    if (api_->UnsubscribeL2(&item, 1) == 0) {
      CMyLog::PrintLog(LOG_INFO, function, "Cancel sub L2 %s.%s, count[%d]!", code.c_str(), market.c_str(), count);
    }
  } else if (api_->UnsubscribeL1(&item, 1) == 0) {
    CMyLog::PrintLog(LOG_INFO, function, "Cancel sub L1 %s.%s, count[%d]!", code.c_str(), market.c_str(), count);
  }
}

int32_t DvDataMgr::request_mkt_tick_push(const std::string& market, int8_t mode) {
  const char* function = "DvDataMgr::request_mkt_tick_push";
  int32_t id = get_market_id_by_name(market);
  if (mode == 100) {
    CMyLog::PrintLog(LOG_INFO, function, "Subscribed market[%s], return serid directly!", market.c_str());
    return id + 100;
  }
  ApiMarketItem item{};
  item.market_short = static_cast<uint16_t>(id);
  item.market = id;
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "Missing DataApi handler!!!");
    return -1;
  }
  if (api_->SubscribeMarketPush(&item) < 0) {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to send subscrib!!!");
    return -1;
  }
  CMyLog::PrintLog(LOG_INFO, function, "Success to send subscrib %s!!!", market.c_str());
  return id;
}

void DvDataMgr::release_mkt_tick_push(int16_t serial) {
  const char* function = "DvDataMgr::release_mkt_tick_push";
  if (serial >= 100) return;
  ApiMarketItem item{};
  item.market = serial;
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "Missing DataApi handler!!!");
    return;
  }
  if (api_->UnsubscribeMarketPush(&item) < 0) {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to send unsubscrib!!!");
    return;
  }
  CMyLog::PrintLog(LOG_INFO, function, "Success to send unsubscrib %s!!!", get_market_name_by_id(serial).c_str());
}

}  // namespace tavr
