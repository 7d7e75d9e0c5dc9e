// Financial data requests. Not served yet: every request is refused.
#include "datamgr/DvDataMgr.h"

namespace tavr {

uint16_t DvDataMgr::request_finance_data(const std::string&, const std::string&, const std::vector<int32_t>&,
                                         int32_t, int32_t) {
  return kRequestFailed;
}

}  // namespace tavr
