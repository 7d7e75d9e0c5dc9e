// History requests: checks, range conversion and defaults, the request record
// and the send.
#include "history/his_request.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "datamgr/DvDataMgr.h"
#include "history/his_dates.h"
#include "log/MyLog.h"
#include "utils/utils.h"

namespace tavr {

namespace {

const char kFunction[] = "DvDataMgr::request_his_kline";

// The commodity futures markets trade a night session that belongs to the
// next trading day.
bool HasNightSession(const std::string& market) {
  return market == "SQ" || market == "SN" || market == "DL" || market == "ZZ";
}

template <typename Request>
Request RequestHead(uint16_t id, int32_t market_id, const std::string& code) {
  Request request;
  std::memset(&request, 0, sizeof(request));
  request.request_id = id;
  request.market = market_id;
  std::snprintf(request.code, sizeof(request.code), "%s", code.c_str());
  return request;
}

}  // namespace

bool GetKLineType(int32_t meta_id, int64_t period, int32_t& type, std::string& name) {
  CMyLog::PrintLog(LOG_DEBUG, "GetKLineType", "Request with MetaId[%d] is received....", meta_id);
  if (meta_id == 3000) {
    type = kKLineTick;
    name = "TICK";
    return true;
  }
  if (meta_id != 3001) return false;
  if (period >= 86400000) {
    type = kKLineDaily;
    name = "DAILY";
    return true;
  }
  if (period >= 60000) {
    type = kKLineMinute;
    name = "MINUTE_1";
    return true;
  }
  CMyLog::PrintLog(LOG_ERROR, "GetKLineType", "Request MetaId[%d]: Period[%lld] error....", meta_id,
                   static_cast<long long>(period));
  return false;
}

uint16_t DvDataMgr::request_his_kline(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                                      const std::string& market, char kind) {
  if (!pass_request_gate(kFunction)) return kRequestFailed;
  const std::string& code = meta.code;
  auto info = markets_.find(market);
  if (info == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "市场[%s]信息不存在...", market.c_str());
    return kRequestFailed;
  }
  uint32_t list_date = 0;
  uint16_t type_code = 0;
  {
    std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
    const CodeTable& table = kind == 1 ? info->base_codes : info->other_codes;
    auto it = table.find(code);
    if (it == table.end()) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, "代码[%s.%s]不存在(或者未上市)...", code.c_str(), market.c_str());
      return kRequestFailed;
    }
    list_date = it->second->list_date;
    type_code = it->second->type_code;
  }
  if (region.startTime >= region.endTime) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "Time range error: start[%lld] >= end[%lld]!",
                     static_cast<long long>(region.startTime), static_cast<long long>(region.endTime));
    return kRequestFailed;
  }

  uint16_t id = next_serial();
  const int64_t now_ms = static_cast<int64_t>(clock_() * 1000);
  const int64_t now = utils::millisecondsToTime(now_ms);
  int64_t start = region.startTime > 0 ? utils::millisecondsToTime(region.startTime) : 0;
  int64_t end = region.endTime >= 1 ? utils::millisecondsToTime(region.endTime) : now;
  end = std::min(end, now);  // the future is cut at the present
  int32_t start_date = static_cast<int32_t>(start / 1000000);
  int32_t end_date = static_cast<int32_t>(end / 1000000);
  const int32_t start_time = static_cast<int32_t>(start % 1000000);
  const int32_t end_time = static_cast<int32_t>(end % 1000000);
  const int32_t first_start_date = start_date;

  int32_t type = 0;
  std::string period;
  if (!GetKLineType(meta.metaId, meta.period, type, period)) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "GetKLineType[%d] failed!", meta.metaId);
    return kRequestFailed;
  }
  const char* c = code.c_str();
  const char* m = market.c_str();
  const char* p = period.c_str();
  CMyLog::PrintLog(LOG_DEBUG, kFunction, "%s.%s Original HisKline request %s bar information(id = %d): (%d)[%lld-%lld]....",
                   c, m, p, id, region.count, static_cast<long long>(region.startTime),
                   static_cast<long long>(region.endTime));
  int32_t market_id = get_market_id_by_name(market);
  if (market_id == -1) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "get_market_id_by_name failed! market:%s", m);
    return kRequestFailed;
  }

  // More than ten years by year number (always so without a start): a
  // shorter default range.
  if (end_date / 10000 - start_date / 10000 > 10) {
    CMyLog::PrintLog(LOG_INFO, kFunction, "%s.%s HisKline %s Request (id = %d):[%ld - %ld] ....", c, m, p, id,
                     static_cast<long>(start_date), static_cast<long>(end_date));
    if (type == kKLineTick) start_date = add_days(end_date, -5);
    if (type == kKLineMinute) start_date = months_before(end_date, 4);
    if (type == kKLineDaily) start_date = static_cast<int32_t>(list_date);
  }

  if (HasNightSession(market)) {
    if (start_time >= 210000) {
      int32_t next = next_trade_date(calendar_, start_date);
      CMyLog::PrintLog(LOG_INFO, kFunction,
                       "%s.%s HisKline request %s bar: begin time[%d] >= [210000], adjust date[%d] to next trade date "
                       "[%d]....",
                       c, m, p, start_time, start_date, next);
      start_date = next;
    }
    if (end_time >= 210000 || (valid_date(end_date) && !is_trade_date(calendar_, end_date))) {
      int32_t next = next_trade_date(calendar_, end_date);
      CMyLog::PrintLog(LOG_INFO, kFunction,
                       "%s.%s HisKline request %s bar: end time[%d] >= [210000], adjust date[%d] to [%d]....", c, m, p,
                       end_time, end_date, next);
      end_date = next;
    }
  }
  CMyLog::PrintLog(LOG_INFO, kFunction, "%s.%s HisKline request %s bar information(id = %d):[%d-%d]....", c, m, p, id,
                   start_date, end_date);
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "Missing DataApi handler!!!");
    return kRequestFailed;
  }
  // In place before the send, so that no reply can miss it.
  {
    std::lock_guard<std::mutex> lock(his_request_mu_);
    his_request_infos.emplace(id, std::vector<int32_t>{first_start_date, start_time, end_date, end_time, 0});
  }

  int rc;
  if (type == kKLineTick) {
    auto request = RequestHead<HisTickRequest>(id, market_id, code);
    request.start_date = start_date;
    request.end_date = end_date;
    request.zero = 0;
    request.one = 1;
    bool after_hours = start_time >= 150000 && ((market == "SH" && type_code == 539) ||
                                                (market == "SZ" && !code.empty() && code[0] == '3'));
    rc = after_hours ? api_->ReqHisTickKcb(&request) : api_->ReqL1NewHisTick(&request);
  } else {
    auto request = RequestHead<HisBarRequest>(id, market_id, code);
    request.kline_type = type;
    request.start_date = start_date;
    request.end_date = end_date;
    request.zero = 0;
    request.one = 1;
    rc = api_->ReqHisData(&request);
  }
  if (rc != 0) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "Failed to send request!!!");
    return kRequestFailed;
  }
  {
    std::lock_guard<std::mutex> lock(send_times_mu_);
    request_send_times[id] = static_cast<double>(now_ms);
  }
  CMyLog::PrintLog(LOG_TRACE, kFunction, "Return request info(id = %d)!!!", id);
  return id;
}

double DvDataMgr::since_sent(uint16_t id) {
  std::lock_guard<std::mutex> lock(send_times_mu_);
  auto it = request_send_times.find(id);
  return it == request_send_times.end() ? 0.0 : clock_() * 1000 - it->second;
}

}  // namespace tavr
