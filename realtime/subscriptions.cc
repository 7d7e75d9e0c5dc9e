// Per-instrument and whole-market subscriptions. Not served yet: every
// request is refused.
#include "datamgr/DvDataMgr.h"

namespace tavr {

uint16_t DvDataMgr::request_tick_push(const quoter::TSMetaInfo&, const std::string&) { return kRequestFailed; }

void DvDataMgr::release_tick_push(const std::string&, const std::string&, uint16_t) {}

int32_t DvDataMgr::request_mkt_tick_push(const std::string&, int8_t) { return -1; }

void DvDataMgr::release_mkt_tick_push(int16_t) {}

}  // namespace tavr
