// Whole-market packages: every snapshot of a market in one message.
#include <cstring>
#include <mutex>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"
#include "market/record_reader.h"
#include "realtime/l1_convert.h"
#include "utils/utils.h"

namespace tavr {

namespace {
const char kFunction[] = "DvDataMgr::on_reply_data";
const char* YesNo(bool value) { return value ? "True" : "False"; }
}  // namespace

void DvDataMgr::on_reply_data(const ApiMarketPushHead* data, size_t size) {
  ReplyReader<ApiMarketPushHead, ApiL1Tick> reply(data, size);
  if (!reply.ok()) return;
  const int32_t market_id = reply.head().market_id;
  const int32_t count = reply.head().count;
  std::string name = get_market_name_by_id(market_id);
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiMarketPushResp] 市场[%s-%d]不存在.....", name.c_str(), market_id);
    return;
  }
  double start_ms = utils::getTime() * 1000;
  uint32_t code_count;
  {
    std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
    code_count = market->code_count;
  }
  bool full = (count > 3000 || static_cast<uint32_t>(count) == code_count) && name != "HK";
  if (full) {
    CMyLog::PrintLog(LOG_INFO, kFunction, "[ApiMarketPushResp] Start market [%s] package[%d, %.0f].....",
                     name.c_str(), count, start_ms);
  }
  const bool stocks = name == "SH" || name == "SZ";
  QuoteMap primary, secondary;
  size_t available = reply.available(count);
  // The instrument table's lock is taken once per group of records, not per
  // record, and never held across the host's call below.
  constexpr size_t kLookupsPerLock = 64;
  std::unique_lock<std::mutex> codes_lock(markets_.codes_mu.read_only(), std::defer_lock);
  for (size_t i = 0; i < available; ++i) {
    if (i % kLookupsPerLock == 0) {
      if (codes_lock.owns_lock()) codes_lock.unlock();
      codes_lock.lock();
    }
    bool initialised = market->initialised.load(std::memory_order_acquire);
    bool available_flag = market->ref_info_ready.load(std::memory_order_acquire);
    if (!initialised || !available_flag) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiMarketPushResp]市场[%s]正在初始化，忽略该组tick数据[%s,%s]...",
                       name.c_str(), YesNo(initialised), YesNo(available_flag));
      return;
    }
    ApiL1Tick tick = reply.item(i);
    std::string code = field_text(tick.code);
    InstrumentView view;
    int where = instrument_view_locked(*market, code, view);
    if (where == 0) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiMarketPushResp] Code %s.%s not exist...", code.c_str(),
                       name.c_str());
      continue;
    }
    CMyLog::PrintLog(LOG_TRACE, kFunction, "[ApiMarketPushResp] Code %s info [%d, %d]...", code.c_str(), view.digits,
                     view.unit);
    auto a = convert_snapshot(tick, code, view, name, "[ApiMarketPushResp]");
    if (a == nullptr) continue;
    bool after_hours = false;
    if (tick.board_kind == 8 && tick.after_hours_time >= 150456 && tick.after_hours_time <= 153005) {
      auto b = after_hours_record(*a, tick, code, view, name, nullptr);
      if (tick.after_hours_time < 153000) {
        CMyLog::PrintLog(LOG_TRACE, kFunction, "[ApiMarketPushResp] return %s.%s after hour data[%.2f, %.2f].....",
                         code.c_str(), name.c_str(), b->lastPrice, b->askPrice[0]);
        after_hours = true;
      }
    }
    if (after_hours) continue;
    QuoteMap& target = stocks && where != 1 ? secondary : primary;
    // Packages come in code order: the hint makes each insert constant time.
    target.insert_or_assign(target.end(), code, std::move(a));
    CMyLog::PrintLog(LOG_TRACE, kFunction, "[ApiMarketPushResp] Insert data[%s.%s][%d].....", code.c_str(),
                     name.c_str(), where);
  }

  if (codes_lock.owns_lock()) codes_lock.unlock();
  KelQuoteClient* host = client();
  if (!primary.empty()) {
    short serial = static_cast<short>(market_id);
    host->onWholeSub(serial, primary);
    CMyLog::PrintLog(LOG_DEBUG, kFunction, "[ApiMarketPushResp] Complete market [%s][%d] package[%d].....",
                     name.c_str(), market_id, static_cast<int>(primary.size()));
    if (name == "HK") {
      short second = static_cast<short>(market_id + 100);
      host->onWholeSub(second, primary);
      CMyLog::PrintLog(LOG_DEBUG, kFunction, "[ApiMarketPushResp] Once more for market SGT[%d] package[%d].....",
                       market_id + 100, count);
    }
  }
  if (!secondary.empty()) {
    short serial = static_cast<short>(market_id + 100);
    host->onWholeSub(serial, secondary);
    CMyLog::PrintLog(LOG_DEBUG, kFunction, "[ApiMarketPushResp] Complete market [%s][%d] package[%d].....",
                     name.c_str(), market_id + 100, static_cast<int>(secondary.size()));
  }
  if (full) {
    CMyLog::PrintLog(LOG_INFO, kFunction, "[ApiMarketPushResp] Complete market [%s] package[%d], cost [%.0f] .....",
                     name.c_str(), count, utils::getTime() * 1000 - start_ms);
  }
}

}  // namespace tavr
