#include "tools/record/bars.h"

#include <algorithm>

#include "utils/utils.h"

namespace record {
namespace {

constexpr int64_t kMinute = 60000;

bool BeforeOpen(int32_t phase) { return phase == 11 || phase == 12; }

}  // namespace

int64_t BarBuilder::MinuteEnd(int64_t time, int32_t phase) {
  if (time % kMinute == 0 && (phase == 14 || phase == 15)) return time;
  return time - time % kMinute + kMinute;
}

std::optional<kqstore::Bar> BarBuilder::Add(const Snapshot& s) {
  // A falling cumulative volume is a new trading day: start from it.
  if (!has_base_ || s.volume < base_volume_) {
    std::optional<kqstore::Bar> closed = Flush();
    has_base_ = true;
    base_volume_ = s.volume;
    base_amount_ = s.amount;
    base_minute_end_ = MinuteEnd(s.time, s.phase);
    carry_volume_ = 0;
    carry_amount_ = 0;
    return closed;
  }
  int64_t traded = s.volume - base_volume_;
  double turnover = s.amount - base_amount_;
  base_volume_ = s.volume;
  base_amount_ = s.amount;
  int64_t end = MinuteEnd(s.time, s.phase);
  std::optional<kqstore::Bar> closed;
  if (open_ && open_->time != end) closed = Flush();
  if (traded <= 0) return closed;
  if (BeforeOpen(s.phase)) {
    carry_volume_ += traded;
    carry_amount_ += turnover;
    return closed;
  }
  if (end == base_minute_end_) return closed;  // history fills the base's minute
  if (!open_) {
    open_ = kqstore::Bar{};
    open_->time = end;
    open_->open = open_->high = open_->low = s.last;
    open_->volume = carry_volume_;
    open_->amount = carry_amount_;
    carry_volume_ = 0;
    carry_amount_ = 0;
  }
  open_->high = std::max(open_->high, s.last);
  open_->low = std::min(open_->low, s.last);
  open_->close = s.last;
  open_->volume += traded;
  open_->amount += turnover;
  return closed;
}

std::optional<kqstore::Bar> BarBuilder::Flush() {
  std::optional<kqstore::Bar> bar = std::move(open_);
  open_.reset();
  return bar;
}

std::optional<kqstore::Bar> BarBuilder::Reset() {
  has_base_ = false;
  return Flush();
}

std::optional<kqstore::Bar> DailyBar(const Snapshot& s) {
  if (s.volume <= 0 || s.open <= 0) return std::nullopt;
  kqstore::Bar bar;
  bar.time = utils::timeToMilliseconds(static_cast<int>(utils::millisecondsToTime(s.time) / 1000000), 0);
  bar.open = s.open;
  bar.high = s.high;
  bar.low = s.low;
  bar.close = s.last;
  bar.volume = s.volume;
  bar.amount = s.amount;
  return bar;
}

}  // namespace record
