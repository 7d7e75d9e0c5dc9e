// The quote record library shared with the host: the records the library
// hands over and the request descriptions the host passes in.
#ifndef KELQUOTE_QUOTER_QUOTER_H_
#define KELQUOTE_QUOTER_QUOTER_H_

#include <cstdint>
#include <string>

#include "kelquote/export.h"

namespace se {

enum EQuoteSubStatus : int32_t {
  kQuoteData = 0,
  kQuoteFailure = 1,
};

enum EDataArrivedTag : int32_t {
  kArrivedNone = 0,      // with failures of subscriptions
  kArrivedPartial = 1,   // a history block with more to come
  kArrivedLast = 2,      // the last history block, or a failed history request
  kArrivedRealTime = 3,  // real-time data
};

}  // namespace se

namespace quoter {

// Base of every quote record; records are always held by shared pointers.
class QUOTER_API QuoterBase {
 public:
  QuoterBase();
  virtual ~QuoterBase();
  QuoterBase(const QuoterBase&) = default;
  QuoterBase& operator=(const QuoterBase&) = default;
};

// What is asked for: market (host code), instrument, kind of data and period.
struct QUOTER_API TSMetaInfo {
  std::string market;
  std::string code;
  int32_t metaId = 0;   // 3000 ticks (or a real-time data type), 3001 bars
  int64_t period = 0;   // milliseconds
};

// The time range asked for, in milliseconds since the epoch.
struct QUOTER_API TRegionInfo {
  int64_t startTime = 0;  // 0 or less: none
  int64_t endTime = 0;    // below 1: none
  int32_t count = 0;
};

}  // namespace quoter

#endif  // KELQUOTE_QUOTER_QUOTER_H_
