// Start-up requests of the market tables. Their replies are handled by the
// market initialisation and instrument handlers.
#include "datamgr/DvDataMgr.h"

namespace tavr {

// The service's base data of every market.
void DvDataMgr::request_base_data() {}

// Asks for every market's status, which decides on initialisation.
void DvDataMgr::prepare_markets() {}

// Asks for the initialisation data of one market, or of all with 0.
void DvDataMgr::request_market_data(int32_t) {}

}  // namespace tavr
