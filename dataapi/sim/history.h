// History of the simulated service: daily and one-minute bars, level-1 ticks
// and after-hours ticks of every instrument, answered in blocks.
//
// A day's bar is a function of the universe's seed, the market, the code and
// the date: closes walk back from the reference close of the trading day
// before the market's one (where the real-time walk starts), so that history
// ends where the real-time quotes begin. Minutes and ticks of a day run from
// its open to its close inside its high and low. The same request gives the
// same bytes.
#ifndef KELQUOTE_DATAAPI_SIM_HISTORY_H_
#define KELQUOTE_DATAAPI_SIM_HISTORY_H_

#include <cstddef>
#include <vector>

#include "dataapi/ApiRecords.h"
#include "dataapi/sim/replies.h"
#include "dataapi/sim/universe.h"

namespace sim {

// Elements of one block at the most; a longer answer comes in several
// blocks, the last one flagged.
constexpr size_t kHistoryBlockElements = 1000;

enum class HistoryKind { kBars, kLevel1Ticks, kAfterHoursTicks };

// The blocks that answer a request (a HisBarRequest for kBars, else a
// HisTickRequest), in order; at least one, the last flagged. Empty for an
// unknown market or code, or a K-line type other than 1 and 7: the request
// is refused. Days run from the start date, or the listing when later, to
// the end date, or the market's trading day when earlier.
std::vector<Bytes> history_blocks(const Universe& universe, HistoryKind kind, const void* request);

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_HISTORY_H_
