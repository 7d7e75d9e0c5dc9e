// Conversion of the elements of history reply blocks into quote records.
#ifndef KELQUOTE_HISTORY_HIS_CONVERT_H_
#define KELQUOTE_HISTORY_HIS_CONVERT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "kelquote/BaseQuoteClient.h"
#include "realtime/l1_convert.h"

namespace tavr {

// What the conversion of one block knows besides its elements.
struct HisBlock {
  int id = 0;
  int count = 0;  // as the block's head gives it, for the log
  std::string code;
  std::string market;
  InstrumentView instrument;
  int64_t range_start = 0;  // yyyymmddHHMMSS of the request, for the log
  int64_t range_end = 0;
};

// A price of the service (ten-thousandths) rounded to digits decimals, half
// away from zero, computed on the integer so that no binary fraction tips it.
double his_price(int64_t units, int digits);

// Shares to lots: 0 stays 0, more than a lot is divided by it, else 1.
int32_t his_lots(int64_t shares, int unit);

// The stamp of a one-minute bar from the time of its first minute: the end
// of the minute (no wrap at midnight), and 13:01:00 for the bars after 11:30
// up to 13:00, so that the 11:30 bar joins the first bar of the afternoon.
int32_t minute_bar_end(int32_t hhmmss);

// n elements from elements, appended to out. Bars of K-line type 1, 7 or 14
// (an unknown type converts nothing); after-hours ticks; level-1 ticks, whose
// time filter may end the block early.
void convert_bars(int32_t kline_type, const uint8_t* elements, size_t n, const HisBlock& block, QuoteRecords& out);
void convert_after_hours_ticks(const uint8_t* elements, size_t n, const HisBlock& block, QuoteRecords& out);
void convert_level1_ticks(const uint8_t* elements, size_t n, const HisBlock& block, QuoteRecords& out);

}  // namespace tavr

#endif  // KELQUOTE_HISTORY_HIS_CONVERT_H_
