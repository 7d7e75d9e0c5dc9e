// Holiday and exchange-rate replies, and the trading-day lists built from them.
#include <cstring>

#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"
#include "market/record_reader.h"
#include "utils/utils.h"

namespace tavr {

namespace {

// The last date a rate may carry.
constexpr int32_t kLatestDate = 21001231;

int32_t Today() { return static_cast<int32_t>(utils::millisecondsToTime(static_cast<int64_t>(utils::getTime() * 1000)) / 1000000); }

}  // namespace

void DvDataMgr::on_reply_data(const ApiHolidayHead* data, size_t size) {
  ReplyReader<ApiHolidayHead, int32_t> reply(data, size);
  if (!reply.ok()) return;
  const char* function = "DvDataMgr::on_reply_data";
  CMyLog::PrintLog(LOG_INFO, function, "[ApiHolidayRsp] Receive holiday information.....");
  std::set<int32_t> holidays;
  size_t count = reply.available(reply.head().count);
  for (size_t i = 0; i < count; ++i) holidays.insert(reply.item(i));
  {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    calendar_.holidays = std::move(holidays);
    // Rebuilt once after start: until then the set holds only the days the
    // market initialisations added.
    if (calendar_.trade_days.size() <= 100) {
      calendar_.trade_days.clear();
      int32_t first = calendar_.max_trade_date != 0 ? calendar_.max_trade_date : Today();
      // A date the calendar cannot represent leaves only the earliest date.
      if (first / 10000 > 1900 && first / 10000 < 3000 && valid_date(first)) {
        for (int32_t date = first; date > calendar_.earliest_date; date = add_days(date, -1)) {
          if (!is_weekend(date) && calendar_.holidays.count(date) == 0) calendar_.trade_days.insert(date);
        }
      }
      calendar_.trade_days.insert(calendar_.earliest_date);
    }
    calendar_.trade_days_ready = true;
  }
  CMyLog::PrintLog(LOG_INFO, function, "[ApiHolidayRsp] Holiday information end.....");
}

void DvDataMgr::on_reply_data(const ApiHKRateHead* data, size_t size) {
  ReplyReader<ApiHKRateHead, ApiHKRateItem> reply(data, size);
  if (!reply.ok()) return;
  const ApiHKRateHead& head = reply.head();
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::on_reply_data", "[ApiHKRateRsp] Got HongKong Connect Rate[%d - %d][%d]...",
                   head.begin, head.end, static_cast<int>(head.count));
  size_t count = reply.available(head.count);
  int refused = 0;
  int32_t first_refused = 0;
  {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    for (size_t i = 0; i < count; ++i) {
      ApiHKRateItem item = reply.item(i);
      // Copied out: the packed fields cannot be bound to references.
      const int32_t date = item.date;
      const float rate_a = item.rate_a, rate_b = item.rate_b;
      // Only exchange dates are kept: the table must not grow with whatever
      // the service sends.
      if (date < calendar_.earliest_date || date > kLatestDate || !valid_date(date)) {
        if (refused++ == 0) first_refused = date;
        continue;
      }
      calendar_.hk_rates.emplace(date, std::make_pair(rate_a, rate_b));  // the first entry wins
    }
    calendar_.hk_rates_ready = true;
  }
  if (refused != 0) {
    CMyLog::PrintLog(LOG_WARN, "DvDataMgr::on_reply_data", "[ApiHKRateRsp] %d rates of invalid dates refused, first [%d]...",
                     refused, first_refused);
  }
}

void DvDataMgr::get_market_trade_day_list(const std::string& name, char variant, std::vector<int64_t>& days) {
  const char* function = "DvDataMgr::get_market_trade_day_list";
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "市场[%s]不存在...", name.c_str());
    return;
  }
  if (variant != 2) variant = 1;
  int32_t first, last = 0;
  bool has_last;
  {
    std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
    first = variant == 1 ? market->start_date : market->second_date;
    has_last = variant == 1 ? market->initialised.load() : market->other_base_ready.load();
    if (has_last) last = market->trade_date;
  }
  auto ready = [this] {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    return calendar_.trade_days_ready;
  };
  for (int attempt = 1; !ready() && attempt <= 10; ++attempt) waitDynamicTime(attempt, function, name, variant);
  if (!ready()) {
    CMyLog::PrintLog(LOG_ERROR, function, "市场[%s-%d]节假日初始化失败，无法获取交易日列表...", name.c_str(), variant);
    return;
  }
  std::vector<int32_t> dates;
  size_t total;
  {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    total = calendar_.trade_days.size();
    for (auto it = calendar_.trade_days.lower_bound(first); it != calendar_.trade_days.end(); ++it) {
      if (has_last && *it > last) break;
      dates.push_back(*it);
    }
  }
  size_t before = days.size();
  days.reserve(before + dates.size());
  for (int32_t date : dates) days.push_back(utils::timeToMilliseconds(date, 0));
  CMyLog::PrintLog(LOG_INFO, function, "Return %d[%d] trading days for market [%s][%d]....",
                   static_cast<int>(days.size() - before), static_cast<int>(total), name.c_str(), variant);
}

void DvDataMgr::get_HKC_trade_day_list(char variant, std::vector<int64_t>& days) {
  const char* function = "DvDataMgr::get_HKC_trade_day_list";
  int32_t first = variant == 1 ? 20141117 : 20161205;
  if (auto hk = markets_.find("HK")) {
    std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
    first = variant == 1 ? hk->start_date : hk->second_date;
  }
  auto ready = [this] {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    return calendar_.hk_rates_ready;
  };
  for (int attempt = 1; !ready() && attempt <= 20; ++attempt) {
    if (attempt == 10) request_hkc_rate(0, 0);
    waitDynamicTime(attempt, function, "HKC", variant);
  }
  if (!ready()) {
    CMyLog::PrintLog(LOG_ERROR, function, "港股汇率初始化失败，无法获取交易日列表...");
    return;
  }
  std::vector<int32_t> dates;
  {
    std::lock_guard<std::mutex> lock(calendar_.mu);
    for (auto it = calendar_.hk_rates.lower_bound(first); it != calendar_.hk_rates.end(); ++it) {
      dates.push_back(it->first);
    }
  }
  size_t before = days.size();
  for (int32_t date : dates) days.push_back(utils::timeToMilliseconds(date, 0));
  CMyLog::PrintLog(LOG_INFO, function, "Return %d trading days for market HK[%d]....",
                   static_cast<int>(days.size() - before), variant);
}

}  // namespace tavr
