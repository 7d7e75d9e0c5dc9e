// The fixed-size rows that subscriptions and tick requests hand to Python,
// one struct per kind, and their numpy layouts.
//
// Times are milliseconds of the exchange's local wall clock counted as if it
// were UTC, so that numpy's datetime64[ms] shows the exchange's own time.
#ifndef KELQUOTE_PYTHON_ROWS_H_
#define KELQUOTE_PYTHON_ROWS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kqpy {

constexpr size_t kSymbolSize = 16;

struct L1Row {
  char symbol[kSymbolSize];
  int64_t time;
  double last, open, high, low, prev_close, amount;
  int64_t volume;
  double bid[5], ask[5];
  int64_t bid_vol[5], ask_vol[5];
  double upper_limit, lower_limit;
  uint32_t phase, trade_count;
};

struct DepthRow {
  char symbol[kSymbolSize];
  int64_t time;
  double last, open, high, low, prev_close, amount;
  int64_t volume;
  double bid[10], ask[10];
  int64_t bid_vol[10], ask_vol[10];
  double upper_limit, lower_limit;
  uint32_t phase, trade_count;
};

// The exchange's one-byte codes of side ('B' buy, 'S' sell) and of kind stay
// bytes (numpy's S1): comparing with b"B" reads better than with 66.
struct TradeRow {
  char symbol[kSymbolSize];
  int64_t time;
  double price, amount;
  int64_t volume;
  int64_t index;    // the trade's number in its channel
  int64_t channel;  // the exchange's channel
  char side, kind;
};

struct OrderRow {
  char symbol[kSymbolSize];
  int64_t time;
  double price;
  int64_t volume;
  int64_t index;  // the order's number
  char side, kind;
};

struct QueueRow {
  char symbol[kSymbolSize];
  int64_t time;
  double price, volume;
  int32_t side, order_count, listed;
  int32_t orders[36];
};

// One field of a row: name, byte offset, numpy format, count (1: a scalar).
struct Field {
  const char* name;
  size_t offset;
  const char* format;
  int count;
};

struct Layout {
  size_t size;
  std::vector<Field> fields;
};

#define KQ_F(Row, name, format, count) \
  Field { #name, offsetof(Row, name), format, count }
#define KQ_SNAPSHOT_FIELDS(Row, levels)                                                                           \
  KQ_F(Row, symbol, "S16", 1), KQ_F(Row, time, "M8[ms]", 1), KQ_F(Row, last, "f8", 1), KQ_F(Row, open, "f8", 1), \
      KQ_F(Row, high, "f8", 1), KQ_F(Row, low, "f8", 1), KQ_F(Row, prev_close, "f8", 1),                        \
      KQ_F(Row, volume, "i8", 1), KQ_F(Row, amount, "f8", 1), KQ_F(Row, bid, "f8", levels),                      \
      KQ_F(Row, ask, "f8", levels), KQ_F(Row, bid_vol, "i8", levels), KQ_F(Row, ask_vol, "i8", levels),         \
      KQ_F(Row, upper_limit, "f8", 1), KQ_F(Row, lower_limit, "f8", 1), KQ_F(Row, phase, "u4", 1),               \
      KQ_F(Row, trade_count, "u4", 1)

inline const Layout& LayoutOf(const std::string& kind) {
  static const Layout l1{sizeof(L1Row), {KQ_SNAPSHOT_FIELDS(L1Row, 5)}};
  static const Layout depth{sizeof(DepthRow), {KQ_SNAPSHOT_FIELDS(DepthRow, 10)}};
  static const Layout trades{sizeof(TradeRow),
                             {KQ_F(TradeRow, symbol, "S16", 1), KQ_F(TradeRow, time, "M8[ms]", 1),
                              KQ_F(TradeRow, price, "f8", 1), KQ_F(TradeRow, volume, "i8", 1),
                              KQ_F(TradeRow, amount, "f8", 1), KQ_F(TradeRow, side, "S1", 1),
                              KQ_F(TradeRow, kind, "S1", 1), KQ_F(TradeRow, index, "i8", 1),
                              KQ_F(TradeRow, channel, "i8", 1)}};
  static const Layout orders{sizeof(OrderRow),
                             {KQ_F(OrderRow, symbol, "S16", 1), KQ_F(OrderRow, time, "M8[ms]", 1),
                              KQ_F(OrderRow, price, "f8", 1), KQ_F(OrderRow, volume, "i8", 1),
                              KQ_F(OrderRow, side, "S1", 1), KQ_F(OrderRow, kind, "S1", 1),
                              KQ_F(OrderRow, index, "i8", 1)}};
  static const Layout queues{sizeof(QueueRow),
                             {KQ_F(QueueRow, symbol, "S16", 1), KQ_F(QueueRow, time, "M8[ms]", 1),
                              KQ_F(QueueRow, price, "f8", 1), KQ_F(QueueRow, volume, "f8", 1),
                              KQ_F(QueueRow, side, "i4", 1), KQ_F(QueueRow, order_count, "i4", 1),
                              KQ_F(QueueRow, listed, "i4", 1), KQ_F(QueueRow, orders, "i4", 36)}};
  if (kind == "depth") return depth;
  if (kind == "trades") return trades;
  if (kind == "orders") return orders;
  if (kind == "queues") return queues;
  return l1;
}

#undef KQ_SNAPSHOT_FIELDS
#undef KQ_F

}  // namespace kqpy

#endif  // KELQUOTE_PYTHON_ROWS_H_
