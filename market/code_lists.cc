// Instrument and trading-day lists for the client. Not served yet: every
// list comes back empty.
#include "datamgr/DvDataMgr.h"

namespace tavr {

void DvDataMgr::get_market_code_list(const std::string&, const std::string&, char,
                                     std::vector<std::shared_ptr<ttservice::CInstrumentDetail>>&) {}

void DvDataMgr::get_market_trade_day_list(const std::string&, char, std::vector<int64_t>&) {}

void DvDataMgr::get_HKC_trade_day_list(char, std::vector<int64_t>&) {}

}  // namespace tavr
