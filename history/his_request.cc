// History requests. Not served yet: every request is refused.
#include "datamgr/DvDataMgr.h"

namespace tavr {

uint16_t DvDataMgr::request_his_kline(const quoter::TSMetaInfo&, const quoter::TRegionInfo&, const std::string&,
                                      char) {
  return kRequestFailed;
}

}  // namespace tavr
