// History requests: the host's period as the service's K-line type.
#ifndef KELQUOTE_HISTORY_HIS_REQUEST_H_
#define KELQUOTE_HISTORY_HIS_REQUEST_H_

#include <cstdint>
#include <string>

namespace tavr {

// K-line type codes of the quote service.
constexpr int32_t kKLineDaily = 1;
constexpr int32_t kKLineMinute = 7;
constexpr int32_t kKLineTicks = 14;  // trades in a bar block
constexpr int32_t kKLineTick = 15;   // tick requests

// Meta id 3000 is ticks (15, "TICK"); 3001 bars: a period of a day or more is
// daily (1, "DAILY"), of a minute up to a day one-minute (7, "MINUTE_1").
// False for a shorter bar period (with its ERROR line) or another meta id.
bool GetKLineType(int32_t meta_id, int64_t period, int32_t& type, std::string& name);

}  // namespace tavr

#endif  // KELQUOTE_HISTORY_HIS_REQUEST_H_
