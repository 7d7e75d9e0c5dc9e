// Financial data requests: one quote API request per kind of data asked for,
// all under sub-request ids of one base id.
#include <cstdio>

#include "datamgr/DvDataMgr.h"
#include "finance/finance_kinds.h"
#include "log/MyLog.h"

namespace tavr {

namespace {
// A request naming this many type ids or more is refused.
constexpr size_t kMaxTypeIds = 21;
}  // namespace

uint16_t DvDataMgr::request_finance_data(const std::string& market, const std::string& code,
                                         const std::vector<int32_t>& types, int32_t begin, int32_t end) {
  const char* function = "DvDataMgr::request_finance_data";
  if (!pass_request_gate(function)) return kRequestFailed;
  if (types.size() >= kMaxTypeIds) {
    CMyLog::PrintLog(LOG_INFO, function, "Finance request ids vector size[%lld] error....",
                     static_cast<long long>(types.size()));
    return kRequestFailed;
  }
  uint16_t base = next_serial();
  uint8_t mask = finance_mask_of(types, function);
  if (mask == 0) {
    CMyLog::PrintLog(LOG_INFO, function, "NO valid file id exist....");
    return kRequestFailed;
  }
  {
    std::lock_guard<std::mutex> lock(his_request_mu_);
    // An id comes round again only after some 30000 others: whatever still
    // waits under it has been given up.
    his_request_infos.insert_or_assign(base, std::vector<int32_t>{begin, end, mask});
    finance_results_.insert_or_assign(base, FinanceCollect());
  }
  FinanceRequest request{};
  request.market = get_market_id_by_name(market);
  std::snprintf(request.code, sizeof(request.code), "%s", code.c_str());
  for (const FinanceKind& kind : kFinanceKinds) {
    if ((mask & kind.bit) == 0) continue;
    request.request_id = static_cast<uint16_t>(base + kind.bit);
    if (api_ == nullptr) {
      CMyLog::PrintLog(LOG_ERROR, function, "Missing DataApi handler!!!");
      continue;
    }
    // Whether the service took it shows only in its replies.
    (api_->*kind.request)(&request);
  }
  CMyLog::PrintLog(LOG_INFO, function, "[id=%d]Finance request is processing[%x]....", base, mask);
  return base;
}

}  // namespace tavr
