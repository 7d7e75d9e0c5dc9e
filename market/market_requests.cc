// Start-up requests of the market tables. Their replies are handled by the
// market initialisation and instrument handlers.
#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"

namespace tavr {

namespace {

bool HaveApi(CDataApi* api, const char* function) {
  if (api == nullptr) CMyLog::PrintLog(LOG_ERROR, function, "Missing DataApi handler!!!");
  return api != nullptr;
}

}  // namespace

// Shared fields and the new-issue list.
void DvDataMgr::request_base_data() {
  if (HaveApi(api_, "DvDataMgr::request_base_data")) api_->ReqBaseData();
}

// Every market's status, whose first report is recorded without initialising.
void DvDataMgr::prepare_markets() {
  if (HaveApi(api_, "DvDataMgr::prepare_markets")) api_->ReqMarketStatus(0);
}

// The initialisation data of one market, or of all with 0.
void DvDataMgr::request_market_data(int32_t market_id) {
  if (HaveApi(api_, "DvDataMgr::request_market_data")) api_->ReqMarketInit(market_id);
}

}  // namespace tavr
