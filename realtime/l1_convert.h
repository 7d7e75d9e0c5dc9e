// Conversion of a vendor level-1 snapshot into the quote library's record,
// shared by the level-1 tick handler and the whole-market package handler.
#ifndef KELQUOTE_REALTIME_L1_CONVERT_H_
#define KELQUOTE_REALTIME_L1_CONVERT_H_

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "dataapi/ApiRecords.h"
#include "quoter/quoter.h"

namespace tavr {

// The library's own snapshot record, so that records made here carry their type.
class DravikQuoterAllData : public quoter::QuoterAllData {
 public:
  DravikQuoterAllData() = default;
  ~DravikQuoterAllData() override = default;
  DravikQuoterAllData(const DravikQuoterAllData&) = default;
  DravikQuoterAllData& operator=(const DravikQuoterAllData&) = default;
};

// What a conversion needs of the instrument, read under the instrument lock.
struct InstrumentView {
  int digits = 2;
  int unit = 1;
  float ref_close = 0;
  float eps = 0;
};

// x rounded to digits decimals.
inline double round_to(double x, int digits) {
  static const double kPowers[] = {1, 10, 100, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10};
  double p = digits >= 0 && digits <= 10 ? kPowers[digits] : std::pow(10.0, digits);
  return std::round(x * p) / p;
}

// Truncation of a float to an integer type that never overflows: NaN is 0,
// values beyond the type's range stop at its limits.
template <typename Int>
Int truncate_to(double x) {
  if (!(x == x)) return 0;
  if (x >= static_cast<double>(std::numeric_limits<Int>::max())) return std::numeric_limits<Int>::max();
  if (x <= static_cast<double>(std::numeric_limits<Int>::min())) return std::numeric_limits<Int>::min();
  return static_cast<Int>(x);
}

// Shares to lots: 0 when not positive, at least one lot otherwise.
inline int32_t to_lots(double shares, int unit) {
  if (!(shares > 0)) return 0;
  if (shares <= unit) return 1;
  return truncate_to<int32_t>(shares / unit);
}

// Session phase at the exchange's time of day t (HHMMSS): 11 before the
// opening call, 12 in it, 13 trading, 15 closed; by the SH/SZ clock, or the
// HK one.
uint32_t session_phase(int32_t t, bool hk);

// Record A of a snapshot (time, prices, depth, latest-price replacement,
// session phase, board rules). Null, after its DEBUG line, when the snapshot
// has no usable price. tag prefixes every log line ("[ApiL1Tick]").
std::shared_ptr<DravikQuoterAllData> convert_snapshot(const ApiL1Tick& tick, const std::string& code,
                                                      const InstrumentView& instrument, const std::string& market,
                                                      const char* tag);

// The after-hours record B made from A and the snapshot's after-hours fields.
std::shared_ptr<DravikQuoterAllData> after_hours_record(const DravikQuoterAllData& a, const ApiL1Tick& tick,
                                                        const std::string& code, const InstrumentView& instrument,
                                                        const std::string& market, const char* tag);

}  // namespace tavr

#endif  // KELQUOTE_REALTIME_L1_CONVERT_H_
