#include "dataapi/sim/quotes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace sim {

namespace {

using State = QuoteBook::State;

// splitmix64: neighbouring inputs give unrelated outputs, on every platform.
uint64_t Mix(uint64_t a, uint64_t b) {
  uint64_t z = a + 0x9E3779B97F4A7C15ULL * (b + 1);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

uint64_t Next(State& s) {
  s.rng += 0x9E3779B97F4A7C15ULL;
  return Mix(s.rng, 0);
}

// 0 .. n-1.
int64_t Below(State& s, int64_t n) { return static_cast<int64_t>(Next(s) % static_cast<uint64_t>(n)); }

uint64_t HashCode(const std::string& code) {
  uint64_t h = 14695981039346656037ULL;
  for (char c : code) {
    h ^= static_cast<uint8_t>(c);
    h *= 1099511628211ULL;
  }
  return h;
}

int64_t FloorTo(int64_t units, int64_t tick) { return units / tick * tick; }
int64_t CeilTo(int64_t units, int64_t tick) { return (units + tick - 1) / tick * tick; }

bool IsIndex(const Instrument& item) { return item.type_code == kTypeIndex || item.type_code == kTypeHKIndex; }
bool IsFutures(const Market& market) { return market.market_type == 2; }
bool InAfterHours(int32_t hhmmss) { return hhmmss >= kAfterHoursFirst && hhmmss <= kAfterHoursLast; }

// Ten-thousandths per price unit of digits (at most 4 digits are used).
int64_t TenThousandthsPerUnit(int digits) {
  int64_t factor = 1;
  for (int i = digits; i < 4; ++i) factor *= 10;
  return factor;
}

int32_t ClampInt32(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, 0, std::numeric_limits<int32_t>::max()));
}

// Best prices first; a price of 0 is an empty level.
struct Book {
  int64_t bid_price[10] = {};
  int64_t bid_volume[10] = {};
  int64_t ask_price[10] = {};
  int64_t ask_volume[10] = {};
};

// The depth around the latest price: no offers at the upper limit, no bids
// at the lower one, and no level beyond a limit. An index and a suspended
// share have none.
Book DepthOf(const Instrument& item, const State& s, int levels) {
  Book book;
  if (IsIndex(item) || item.suspended) return book;
  int64_t bid1 = s.last;
  int64_t ask1 = s.last + s.tick;
  if (s.limited && s.last >= s.ceiling) {
    ask1 = 0;
  } else if (s.limited && s.last <= s.floor) {
    ask1 = s.last;
    bid1 = 0;
  }
  for (int i = 0; i < levels; ++i) {
    int64_t bid = bid1 - i * s.tick;
    if (bid1 > 0 && bid >= s.tick && (!s.limited || bid >= s.floor)) {
      book.bid_price[i] = bid;
      book.bid_volume[i] = static_cast<int64_t>(1 + Mix(s.depth_seed, 2 * i) % 50) * s.lot;
    }
    int64_t ask = ask1 + i * s.tick;
    if (ask1 > 0 && (!s.limited || ask <= s.ceiling)) {
      book.ask_price[i] = ask;
      book.ask_volume[i] = static_cast<int64_t>(1 + Mix(s.depth_seed, 2 * i + 1) % 50) * s.lot;
    }
  }
  return book;
}

void PutFloat(uint8_t (&field)[4], float value) { std::memcpy(field, &value, sizeof(value)); }
void PutInt(uint8_t (&field)[4], int32_t value) { std::memcpy(field, &value, sizeof(value)); }
void PutUint(uint8_t (&field)[4], uint32_t value) { std::memcpy(field, &value, sizeof(value)); }

// An ApiL2Head and the records, each at stride bytes, in room bytes each.
template <typename Record>
Bytes Level2Message(const std::vector<Record>& records, size_t stride = sizeof(Record), size_t room = sizeof(Record)) {
  if (records.empty()) return {};
  Bytes bytes(sizeof(ApiL2Head) + records.size() * room, 0);
  ApiL2Head head{0, static_cast<int32_t>(records.size())};
  std::memcpy(bytes.data(), &head, sizeof(head));
  for (size_t i = 0; i < records.size(); ++i) {
    std::memcpy(bytes.data() + sizeof(head) + i * stride, &records[i], sizeof(Record));
  }
  return bytes;
}

template <typename Record>
Record Zeroed() {
  Record record;
  std::memset(&record, 0, sizeof(record));
  return record;
}

// The head shared by the level-2 records.
template <typename Record>
void PutHead(Record& r, const Market& market, const Instrument& item) {
  r.market_id = market.id;
  put_text(r.code, item.code);
  r.date = market.trade_date;
}

}  // namespace

int futures_phase(const Market& market, int32_t t) {
  if (market.id == kZJ) {
    if (t < 92500) return kPhasePreOpen;
    if (t < 93000) return kPhaseAuction;
    if (t < 113000) return kPhaseTrading;
    if (t < 130000) return kPhaseBreak;
    return t < 150000 ? kPhaseTrading : kPhaseClosed;
  }
  if (market.flag_a != 0 && t >= 205500) {
    if (t < 210000) return kPhaseAuction;
    return t < 230000 ? kPhaseTrading : kPhaseClosed;
  }
  if (t < 85500) return kPhasePreOpen;
  if (t < 90000) return kPhaseAuction;
  if (t < 101500) return kPhaseTrading;
  if (t < 103000) return kPhaseBreak;
  if (t < 113000) return kPhaseTrading;
  if (t < 133000) return kPhaseBreak;
  return t < 150000 ? kPhaseTrading : kPhaseClosed;
}

int find_instrument(const Market& market, std::string_view code) {
  const auto& items = market.instruments;
  auto at = std::lower_bound(items.begin(), items.end(), code,
                             [](const Instrument& item, std::string_view c) { return item.code < c; });
  if (at == items.end() || at->code != code) return -1;
  return static_cast<int>(at - items.begin());
}

QuoteBook::State& QuoteBook::state(const Market& market, size_t index) {
  std::vector<State>& states = states_[market.id];
  if (states.size() != market.instruments.size()) states.assign(market.instruments.size(), State());
  State& s = states[index];
  if (s.started) return s;
  const Instrument& item = market.instruments[index];
  s.started = true;
  s.rng = Mix(Mix(Mix(seed_, market.id), HashCode(item.code)), static_cast<uint64_t>(market.trade_date));
  s.tick = std::max<int64_t>(1, item.tick_units);
  int64_t pre = std::max(s.tick, item.pre_close_units);
  s.limited = item.upper_units > 0 && item.lower_units > 0;
  if (s.limited) {
    s.floor = CeilTo(item.lower_units, s.tick);
    s.ceiling = FloorTo(item.upper_units, s.tick);
    s.limited = s.floor <= s.ceiling;
  }
  if (!s.limited) {
    // No daily limit: the walk keeps to a band of 30% either side.
    s.floor = std::max(s.tick, CeilTo(pre * 7 / 10, s.tick));
    s.ceiling = std::max(s.floor, FloorTo(pre * 13 / 10, s.tick));
  }
  s.move = std::max(s.tick, FloorTo(pre * 5 / 10000, s.tick));
  s.lot = item.volume_unit > 0 ? item.volume_unit : IsIndex(item) ? 100000 : 1;
  s.depth_seed = Next(s);
  if (item.suspended) {
    s.last = item.pre_close_units;
    return s;
  }
  int64_t open = pre + (Below(s, 7) - 3) * s.move;
  s.open = s.last = s.high = s.low = FloorTo(std::clamp(open, s.floor, s.ceiling), s.tick);
  // The day so far: some volume at the open.
  s.volume = static_cast<double>((1000 + Below(s, 50000)) * s.lot);
  s.turnover = s.volume * static_cast<double>(s.open) / item.scale();
  s.trade_count = static_cast<uint32_t>(s.volume / static_cast<double>(s.lot) / 8) + 1;
  if (IsFutures(market)) s.open_interest = static_cast<double>(5000 + Below(s, 200000));
  return s;
}

QuoteBook::Step QuoteBook::step(const Market& market, size_t index, State& s, const Stamp& now) {
  const Instrument& item = market.instruments[index];
  Step out;
  if (item.suspended) return out;
  if (item.type_code == kTypeStarStock && InAfterHours(now.hhmmss)) {
    // Continuous trading is over: orders wait at the close and match now and then.
    if (!s.after_hours) {
      s.after_hours = true;
      s.close = s.last;
      s.after_volume = 0;
      s.after_turnover = 0;
      s.after_trades = 0;
    }
    s.after_bid = static_cast<int32_t>(Below(s, 40) * 100);
    s.after_ask = static_cast<int32_t>(Below(s, 40) * 100);
    if (now.hhmmss >= kAfterHoursMatch && now.hhmmss < kAfterHoursEnd && Below(s, 3) != 0) {
      int32_t shares = static_cast<int32_t>((2 + Below(s, 20)) * 100);
      s.after_volume += shares;
      s.after_turnover += static_cast<double>(s.close) * shares / item.scale();
      ++s.after_trades;
    }
    return out;
  }
  s.after_hours = false;

  // Up to two moves either way, turned back towards the reference close the
  // more likely the further the price has gone.
  int64_t moves = Below(s, 5) - 2;
  int64_t pre = std::clamp(item.pre_close_units, s.floor, s.ceiling);
  int64_t away = s.last - pre;
  int64_t half_band = std::max<int64_t>(1, std::max(s.ceiling - pre, pre - s.floor));
  if (away != 0 && Below(s, half_band) < (away < 0 ? -away : away)) {
    int64_t size = moves < 0 ? -moves : moves;
    moves = away > 0 ? -size : size;
  }
  int64_t target = FloorTo(std::clamp(s.last + moves * s.move, s.floor, s.ceiling), s.tick);

  out.count = static_cast<int>(1 + Below(s, 4));
  int64_t from = s.last;
  int64_t previous = s.last;
  double total = 0;
  for (int k = 0; k < out.count; ++k) {
    Trade& trade = out.trades[k];
    trade.price = FloorTo(from + (target - from) * (k + 1) / out.count, s.tick);
    trade.price = std::clamp(trade.price, s.floor, s.ceiling);
    trade.shares = (1 + Below(s, 20)) * s.lot;
    trade.buy = trade.price > previous || (trade.price == previous && (Next(s) & 1) != 0);
    previous = trade.price;
    s.volume += static_cast<double>(trade.shares);
    s.turnover += static_cast<double>(trade.price) * static_cast<double>(trade.shares) / item.scale();
    s.high = std::max(s.high, trade.price);
    s.low = std::min(s.low, trade.price);
    total += static_cast<double>(trade.shares);
  }
  s.last = target;
  s.trade_count += static_cast<uint32_t>(out.count) * (IsIndex(item) ? 37u : 1u);
  s.depth_seed = Next(s);
  if (IsFutures(market)) {
    double change = (Next(s) & 1) != 0 ? total / 2 : -total / 2;
    s.open_interest = std::max(0.0, s.open_interest + change);
  }
  return out;
}

ApiL1Tick QuoteBook::snapshot(const Market& market, const Instrument& item, const State& s, const Stamp& now) const {
  auto t = Zeroed<ApiL1Tick>();
  const double scale = item.scale();
  auto price = [scale](int64_t units) { return static_cast<float>(static_cast<double>(units) / scale); };
  t.market_id = market.id;
  put_text(t.code, item.code);
  t.date = market.trade_date;
  t.time = now.hhmmss;
  t.volume = static_cast<float>(s.volume);
  t.turnover = static_cast<float>(s.turnover);
  t.trade_count = s.trade_count;
  t.high = price(s.high);
  t.last = price(s.last);
  t.open = price(s.open);
  t.low = price(s.low);
  t.upper_limit = price(item.upper_units);
  t.lower_limit = price(item.lower_units);
  t.pre_close = price(item.pre_close_units);
  Book book = DepthOf(item, s, 5);
  for (int i = 0; i < 5; ++i) {
    t.bid_price[i] = price(book.bid_price[i]);
    t.bid_volume[i] = static_cast<float>(book.bid_volume[i]);
    t.ask_price[i] = price(book.ask_price[i]);
    t.ask_volume[i] = static_cast<float>(book.ask_volume[i]);
  }
  if (IsFutures(market)) {
    t.board_kind = 3;
    double settlement = s.volume > 0 ? s.turnover / s.volume : static_cast<double>(s.last) / scale;
    PutFloat(t.board_value1, static_cast<float>(futures_phase(market, now.hhmmss)));
    PutFloat(t.board_value2, static_cast<float>(settlement));
    PutFloat(t.board_value3, static_cast<float>(s.open_interest));
  } else if (market.id == kHK) {
    t.board_kind = 2;
  } else if (s.after_hours && item.type_code == kTypeStarStock && InAfterHours(now.hhmmss)) {
    t.board_kind = 8;
    t.after_hours_time = static_cast<uint32_t>(now.hhmmss);
    PutFloat(t.board_value1, price(s.close));
    PutUint(t.board_value2, s.after_trades);
    PutInt(t.board_value3, s.after_volume);
    t.after_hours_turnover = static_cast<float>(s.after_turnover);
    t.after_hours_bid_volume = s.after_bid;
    t.after_hours_ask_volume = s.after_ask;
  }
  return t;
}

ApiL1Tick QuoteBook::level1(const Market& market, size_t index, const Stamp& now) {
  State& s = state(market, index);
  step(market, index, s, now);
  return snapshot(market, market.instruments[index], s, now);
}

Bytes QuoteBook::market_package(const Market& market, const Stamp& now) {
  const size_t count = market.instruments.size();
  // The adapter copies at least a head and one snapshot.
  Bytes bytes(std::max(sizeof(ApiMarketPushHead) + count * sizeof(ApiL1Tick),
                       sizeof(ApiMarketPushHead) + sizeof(ApiL1Tick)),
              0);
  ApiMarketPushHead head{market.id, static_cast<int32_t>(count)};
  std::memcpy(bytes.data(), &head, sizeof(head));
  for (size_t i = 0; i < count; ++i) {
    ApiL1Tick tick = level1(market, i, now);
    std::memcpy(bytes.data() + sizeof(head) + i * sizeof(tick), &tick, sizeof(tick));
  }
  return bytes;
}

Level2Messages QuoteBook::level2(const Market& market, size_t index, const Stamp& now) {
  State& s = state(market, index);
  Step made = step(market, index, s, now);
  const Instrument& item = market.instruments[index];
  const int64_t factor = TenThousandthsPerUnit(item.price_digits);
  const int32_t hhmmssmmm = now.hhmmss * 1000 + now.millis;
  Level2Messages out;
  // The fields an index and a snapshot share, in ten-thousandths.
  auto put_prices = [&](auto& r) {
    PutHead(r, market, item);
    r.time = now.hhmmss;
    r.high = s.high * factor;
    r.open = s.open * factor;
    r.low = s.low * factor;
    r.last = s.last * factor;
    r.pre_close = item.pre_close_units * factor;
  };

  if (IsIndex(item)) {
    auto r = Zeroed<ApiL2Index>();
    put_prices(r);
    r.volume = static_cast<int64_t>(s.volume);
    r.turnover = std::llround(s.turnover);
    out.index = true;
    out.snapshot = Level2Message(std::vector<ApiL2Index>{r});
    return out;
  }

  Book book = DepthOf(item, s, 10);
  auto snap = Zeroed<ApiL2Snapshot>();
  put_prices(snap);
  for (int i = 0; i < 10; ++i) {
    snap.ask_price[i] = book.ask_price[i] * factor;
    snap.ask_volume[i] = book.ask_volume[i];
    snap.bid_price[i] = book.bid_price[i] * factor;
    snap.bid_volume[i] = book.bid_volume[i];
  }
  snap.trade_count = s.trade_count;
  snap.volume = static_cast<int64_t>(s.volume);
  snap.turnover = std::llround(s.turnover);
  out.snapshot = Level2Message(std::vector<ApiL2Snapshot>{snap});

  // The step's trades, a millisecond apart.
  std::vector<ApiL2Transaction> trades;
  for (int k = 0; k < made.count; ++k) {
    const Trade& made_trade = made.trades[k];
    auto t = Zeroed<ApiL2Transaction>();
    PutHead(t, market, item);
    t.time = hhmmssmmm + std::min(k, 999 - now.millis);
    t.price = made_trade.price * factor;
    t.volume = ClampInt32(made_trade.shares);
    t.amount = made_trade.price * factor * made_trade.shares;
    t.flag1 = made_trade.buy ? 'B' : 'S';
    t.flag2 = 'F';
    t.number1 = ++s.trade_number;
    t.number2 = static_cast<uint32_t>(1 + index % 8);  // the exchange's channel
    trades.push_back(t);
  }
  out.transactions = Level2Message(trades);

  // New limit orders at the prices of the book's first levels.
  std::vector<ApiL2Order> orders;
  if (book.bid_price[0] > 0 || book.ask_price[0] > 0) {
    int64_t count = 1 + Below(s, 3);
    for (int64_t k = 0; k < count; ++k) {
      bool buy = (Next(s) & 1) != 0;
      if (book.bid_price[0] == 0) buy = false;
      if (book.ask_price[0] == 0) buy = true;
      const int64_t* prices = buy ? book.bid_price : book.ask_price;
      int64_t level = Below(s, 5);
      while (level > 0 && prices[level] == 0) --level;
      auto o = Zeroed<ApiL2Order>();
      PutHead(o, market, item);
      o.time = hhmmssmmm + static_cast<int32_t>(std::min<int64_t>(k, 999 - now.millis));
      o.number1 = static_cast<int32_t>(++s.order_number);
      o.price = prices[level] * factor;
      o.volume = ClampInt32((1 + Below(s, 30)) * s.lot);
      o.flag1 = buy ? 'B' : 'S';
      o.flag2 = 'A';
      orders.push_back(o);
    }
  }
  out.orders = Level2Message(orders);

  // The queues at the best bid and the best offer: the level's volume split
  // into whole lots over its orders.
  std::vector<ApiL2OrderQueue> queues;
  for (int8_t side : {int8_t{1}, int8_t{2}}) {
    int64_t price = side == 1 ? book.bid_price[0] : book.ask_price[0];
    int64_t volume = side == 1 ? book.bid_volume[0] : book.ask_volume[0];
    if (price == 0) continue;
    auto q = Zeroed<ApiL2OrderQueue>();
    PutHead(q, market, item);
    q.time = hhmmssmmm;
    q.side = side;
    q.price = price * factor;
    q.volume = volume;
    int64_t lots = volume / s.lot;
    int64_t orders_queued = std::min<int64_t>(lots, 1 + static_cast<int64_t>(Mix(s.depth_seed, 100 + side) % 60));
    int32_t listed = static_cast<int32_t>(std::min<int64_t>(orders_queued, ApiL2OrderQueue::kListedOrders));
    q.order_count = static_cast<int32_t>(orders_queued);
    q.listed = listed;
    for (int32_t i = 0; i < listed; ++i) {
      int64_t order_lots = lots / orders_queued + (i < lots % orders_queued ? 1 : 0);
      q.orders[i] = ClampInt32(order_lots * s.lot);
    }
    queues.push_back(q);
  }
  out.queues = Level2Message(queues, sizeof(ApiL2OrderQueue), kQueueRoom);
  return out;
}

}  // namespace sim
