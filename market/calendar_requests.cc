// Requests that fill the calendar: holidays and Hong Kong connect rates.
#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"

namespace tavr {

void DvDataMgr::request_holidays() {
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, "DvDataMgr::request_holidays", "Missing DataApi handler!!!");
    return;
  }
  api_->ReqHoliday(2);
}

void DvDataMgr::request_hkc_rate(int32_t begin, int32_t end) {
  if (api_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, "DvDataMgr::request_hkc_rate", "Missing DataApi handler!!!");
    return;
  }
  HKRateRequest request{};
  request.begin = begin;
  request.end = end;
  api_->ReqHKRate(&request);
}

}  // namespace tavr
