// One-minute bars built from an instrument's level-1 snapshots.
//
// The snapshots carry the day's cumulative volume and turnover, so a bar is
// the difference between the last snapshot before its minute and the last
// one in it; a minute whose volume does not move has no bar, which is how
// breaks, nights without a session and holidays stay empty. A bar carries
// its minute's end. Two session edges need the snapshot's phase:
// - trades of the opening auction (phase 11 or 12) go into the first bar of
//   continuous trading, as the exchanges' own bars do;
// - a closing match stamped on the minute (15:00:00 closed, or a futures
//   break or night end) belongs to the minute it ends, not to the next.
// The first snapshot after a start or a reconnect is only a base: trades of
// its minute before it are unknown, so that minute comes from history.
#ifndef KELQUOTE_TOOLS_RECORD_BARS_H_
#define KELQUOTE_TOOLS_RECORD_BARS_H_

#include <cstdint>
#include <optional>

#include "store/store.h"

namespace record {

struct Snapshot {
  int64_t time = 0;  // milliseconds since the epoch
  double last = 0, open = 0, high = 0, low = 0;
  int64_t volume = 0;  // cumulative, lots
  double amount = 0;   // cumulative
  int32_t phase = 0;
};

class BarBuilder {
 public:
  // Takes the next snapshot; returns the bar of an earlier minute that it
  // closes, if any. Bars carry no symbol, market or interval.
  std::optional<kqstore::Bar> Add(const Snapshot& s);
  // The bar still open (at the end of a run).
  std::optional<kqstore::Bar> Flush();
  // Forgets the base, so that the next snapshot starts again (after a
  // reconnect); returns the bar that was open.
  std::optional<kqstore::Bar> Reset();
  // The end of the minute history must fill (that of the base), 0 before one.
  int64_t base_minute_end() const { return base_minute_end_; }

  static int64_t MinuteEnd(int64_t time, int32_t phase);

 private:
  bool has_base_ = false;
  int64_t base_volume_ = 0;
  double base_amount_ = 0;
  int64_t base_minute_end_ = 0;
  int64_t carry_volume_ = 0;  // the opening auction's trades
  double carry_amount_ = 0;
  std::optional<kqstore::Bar> open_;
};

// The daily bar a snapshot shows (its day's midnight, open to last); none
// before the day's first trade.
std::optional<kqstore::Bar> DailyBar(const Snapshot& s);

}  // namespace record

#endif  // KELQUOTE_TOOLS_RECORD_BARS_H_
