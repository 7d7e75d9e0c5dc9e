#include "dataapi/sim/quotes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "dataapi/sim/sessions.h"

namespace sim {

namespace {

using State = QuoteBook::State;

// splitmix64: neighbouring inputs give unrelated outputs, on every platform.
uint64_t QuoteMix(uint64_t a, uint64_t b) {
  uint64_t z = a + 0x9E3779B97F4A7C15ULL * (b + 1);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

uint64_t Next(State& s) {
  s.rng += 0x9E3779B97F4A7C15ULL;
  return QuoteMix(s.rng, 0);
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

// The depth around price: no offers at the upper limit, no bids at the
// lower one, and no level beyond a limit, each level a tick of the grid from
// the next. An index and a suspended share have none, nor a share before
// its opening auction.
Book DepthOf(const Instrument& item, const State& s, int64_t price, int levels) {
  Book book;
  if (IsIndex(item) || item.suspended || price <= 0) return book;
  int64_t bid1 = price;
  int64_t ask1 = price + item.tick_above(price);
  if (s.limited && price >= s.ceiling) {
    ask1 = 0;
  } else if (s.limited && price <= s.floor) {
    ask1 = price;
    bid1 = 0;
  }
  auto size = [&](uint64_t salt) {
    int64_t lots = static_cast<int64_t>(1 + QuoteMix(s.depth_seed, salt) % 50);
    // Orders of any size from the least on a board that trades in steps of one.
    return s.min_order != s.lot ? s.min_order + lots * 37 + static_cast<int64_t>(QuoteMix(s.depth_seed, salt + 99) % 100)
                                : lots * s.lot;
  };
  int64_t bid = bid1, ask = ask1;
  for (int i = 0; i < levels; ++i) {
    if (bid > 0 && (!s.limited || bid >= s.floor)) {
      book.bid_price[i] = bid;
      book.bid_volume[i] = size(2 * i);
      bid = bid > item.tick_at(bid) ? bid - item.tick_at(bid) : 0;
    }
    if (ask > 0 && (!s.limited || ask <= s.ceiling)) {
      book.ask_price[i] = ask;
      book.ask_volume[i] = size(2 * i + 1);
      ask += item.tick_above(ask);
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
Record Blank() {
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

int find_instrument(const Market& market, std::string_view code) {
  const auto& items = market.instruments;
  auto at = std::lower_bound(items.begin(), items.end(), code,
                             [](const Instrument& item, std::string_view c) { return item.code < c; });
  if (at == items.end() || at->code != code) return -1;
  return static_cast<int>(at - items.begin());
}

QuoteBook::State& QuoteBook::state(const Market& market, size_t index, const Stamp& now) {
  std::vector<State>& states = states_[market.id];
  if (states.size() != market.instruments.size()) states.assign(market.instruments.size(), State());
  State& s = states[index];
  if (s.started) return s;
  const Instrument& item = market.instruments[index];
  s.started = true;
  s.at_step = now.step;
  s.rng = QuoteMix(QuoteMix(QuoteMix(seed_, market.id), HashCode(item.code)), static_cast<uint64_t>(market.trade_date));
  s.tick = item.tick_at(item.pre_close_units);
  int64_t pre = item.snap(item.pre_close_units);
  s.limited = item.upper_units > 0 && item.lower_units > 0;
  if (s.limited) {
    s.floor = item.snap(item.lower_units);
    if (s.floor < item.lower_units) s.floor += item.tick_above(s.floor);
    s.ceiling = item.snap(item.upper_units);
    s.limited = s.floor <= s.ceiling;
  }
  if (!s.limited) {
    // No daily limit: the walk keeps to a band of 30% either side.
    s.floor = item.snap(pre * 7 / 10);
    if (s.floor < pre * 7 / 10) s.floor += item.tick_above(s.floor);
    s.ceiling = std::max(s.floor, item.snap(pre * 13 / 10));
  }
  s.move = std::max(s.tick, FloorTo(pre * 5 / 10000, s.tick));
  s.lot = item.order_step();
  s.min_order = item.min_order();
  if (IsIndex(item)) s.lot = s.min_order = 1;
  s.depth_seed = Next(s);
  s.planned_open = item.snap(std::clamp(pre + (Below(s, 7) - 3) * s.move, s.floor, s.ceiling));
  if (item.suspended) {
    s.last = item.pre_close_units;
    s.open_done = s.close_done = true;
    return s;
  }
  Moment moment = moment_at(schedule_of(market, item), now.date != 0 ? now.date : market.trade_date, now.hhmmss);
  s.open_done = moment.opened;
  s.close_done = moment.closed;
  if (IsFutures(market)) s.open_interest = static_cast<double>(5000 + Below(s, 200000));
  if (!moment.opened) return s;  // nothing traded yet today
  // Read after the open: the day so far.
  s.open = s.last = s.high = s.low = s.planned_open;
  s.volume = static_cast<double>((1000 + Below(s, 50000)) * std::max<int64_t>(item.volume_unit, 1));
  s.turnover = s.volume * static_cast<double>(s.open) * static_cast<double>(item.multiplier) / item.scale();
  s.trade_count = static_cast<uint32_t>(s.volume / static_cast<double>(s.min_order) / 8) + 1;
  return s;
}

void QuoteBook::trade(const Instrument& item, State& s, const Trade& t) {
  s.volume += static_cast<double>(t.shares);
  s.turnover += static_cast<double>(t.price) * static_cast<double>(t.shares) * static_cast<double>(item.multiplier) /
                item.scale();
  s.high = s.high == 0 ? t.price : std::max(s.high, t.price);
  s.low = s.low == 0 ? t.price : std::min(s.low, t.price);
  s.last = t.price;
  ++s.trade_count;
  if (s.level2 && s.unsent.size() < 256) s.unsent.push_back(t);
}

// Shares of one trade or order: whole lots, or any number from the least
// order on a board that trades in steps of one.
static int64_t Shares(State& s, int64_t most_lots) {
  if (s.min_order != s.lot) return s.min_order + Below(s, most_lots * 100);
  return (1 + Below(s, most_lots)) * s.lot;
}

// One continuous step: up to two moves either way, turned back towards the
// reference close the more likely the further the price has gone, reached
// in a few trades.
void QuoteBook::step(const Instrument& item, State& s, const Stamp& now) {
  int64_t moves = Below(s, 5) - 2;
  int64_t pre = std::clamp(item.pre_close_units, s.floor, s.ceiling);
  int64_t away = s.last - pre;
  int64_t half_band = std::max<int64_t>(1, std::max(s.ceiling - pre, pre - s.floor));
  if (away != 0 && Below(s, half_band) < (away < 0 ? -away : away)) {
    int64_t size = moves < 0 ? -moves : moves;
    moves = away > 0 ? -size : size;
  }
  int64_t target = item.snap(std::clamp(s.last + moves * s.move, s.floor, s.ceiling));
  int count = static_cast<int>(1 + Below(s, 4));
  int64_t from = s.last;
  int64_t previous = s.last;
  int64_t total = 0;
  for (int k = 0; k < count; ++k) {
    Trade t{};
    t.price = std::clamp(item.snap(from + (target - from) * (k + 1) / count), s.floor, s.ceiling);
    t.shares = IsIndex(item) ? 0 : Shares(s, 20);
    t.buy = t.price > previous || (t.price == previous && (Next(s) & 1) != 0);
    t.hhmmss = now.hhmmss;
    previous = t.price;
    total += t.shares;
    if (IsIndex(item)) {
      s.last = t.price;
      s.high = std::max(s.high, t.price);
      s.low = std::min(s.low, t.price);
    } else {
      trade(item, s, t);
    }
  }
  s.last = target;
  s.depth_seed = Next(s);
  if (s.open_interest > 0) {
    double change = (Next(s) & 1) != 0 ? static_cast<double>(total) / 2 : -static_cast<double>(total) / 2;
    s.open_interest = std::max(1.0, s.open_interest + change);
  }
}

// After-hours fixed-price trading: orders wait at the close and match now
// and then in the matching window.
void QuoteBook::after_hours(const Instrument& item, State& s, const Stamp& now) {
  if (!s.after_hours) {
    s.after_hours = true;
    s.close = s.last;
    s.after_volume = 0;
    s.after_turnover = 0;
    s.after_trades = 0;
    return;
  }
  s.after_bid = static_cast<int32_t>(Below(s, 40) * 100);
  s.after_ask = static_cast<int32_t>(Below(s, 40) * 100);
  if (now.hhmmss >= kAfterHoursMatch && now.hhmmss < kAfterHoursEnd && Below(s, 3) != 0) {
    int32_t shares = static_cast<int32_t>(Shares(s, 20));
    s.after_volume += shares;
    s.after_turnover += static_cast<double>(s.close) * shares / item.scale();
    ++s.after_trades;
  }
}

// An index's shares: every share of the market for a composite index, else
// as many as its name says (50 when it says none), picked by the codes.
const std::vector<size_t>& QuoteBook::constituents(const Market& market, size_t index) {
  auto& of_market = constituents_[market.id];
  auto found = of_market.find(index);
  if (found != of_market.end()) return found->second;
  const Instrument& item = market.instruments[index];
  std::vector<std::pair<uint64_t, size_t>> shares;
  for (size_t i = 0; i < market.instruments.size(); ++i) {
    const Instrument& share = market.instruments[i];
    if (share.is_stock() || share.type_code == kTypeHKStock) {
      shares.push_back({QuoteMix(HashCode(item.code), HashCode(share.code)), i});
    }
  }
  size_t count = 50;
  const std::string& name = item.name;
  const bool composite = item.code == "000001" || item.code == "000002" || item.code == "399106" ||
                         item.code == "HSI" || name.find("综") != std::string::npos;
  if (composite) {
    count = shares.size();
  } else {
    for (size_t n : {1000u, 800u, 500u, 380u, 300u, 180u, 100u}) {
      if (name.find(std::to_string(n)) != std::string::npos) {
        count = n;
        break;
      }
    }
  }
  std::sort(shares.begin(), shares.end());
  std::vector<size_t> picked;
  for (size_t i = 0; i < std::min(count, shares.size()); ++i) picked.push_back(shares[i].second);
  std::sort(picked.begin(), picked.end());
  return of_market[index] = std::move(picked);
}

QuoteBook::State& QuoteBook::advance(const Market& market, size_t index, const Stamp& now) {
  State& s = state(market, index, now);
  // Read again at the same moment (an index's shares, a second stream): as it is.
  if (s.read_step == now.step && s.read_date == now.date && s.read_time == now.hhmmss) return s;
  s.read_step = now.step;
  s.read_date = now.date;
  s.read_time = now.hhmmss;
  const Instrument& item = market.instruments[index];
  const Schedule& schedule = schedule_of(market, item);
  Moment moment = moment_at(schedule, now.date != 0 ? now.date : market.trade_date, now.hhmmss);
  s.phase_code = phase_code(moment.phase);
  s.in_auction = moment.phase == Phase::kOpeningAuction && !s.open_done;
  int64_t steps = std::clamp<int64_t>(now.step - s.at_step, 0, kMaxCatchUp);
  s.at_step = std::max(s.at_step, now.step);
  if (item.suspended) return s;
  if (moment.opened && !s.open_done) {
    // The opening call auction matches at one price.
    s.open_done = true;
    s.open = s.planned_open;
    Trade t{s.open, IsIndex(item) ? 0 : Shares(s, 400), true, now.hhmmss};
    if (IsIndex(item)) {
      s.last = s.high = s.low = s.open;
    } else {
      trade(item, s, t);
    }
  }
  if (moment.phase == Phase::kContinuous) {
    for (int64_t i = 0; i < steps; ++i) step(item, s, now);
  }
  if (moment.closed && !s.close_done) {
    // The closing call auction matches at the last price.
    s.close_done = true;
    bool auction = std::any_of(schedule.day.begin(), schedule.day.end(),
                               [](const Segment& segment) { return segment.phase == Phase::kClosingAuction; });
    if (!IsIndex(item) && auction) {
      trade(item, s, Trade{s.last, Shares(s, 200), (Next(s) & 1) != 0, now.hhmmss});
    }
  }
  if ((item.type_code == kTypeStarStock || item.type_code == kTypeChiNextStock) && moment.session_day &&
      moment.closed && InAfterHours(now.hhmmss)) {
    if (!s.after_hours) after_hours(item, s, now);
    for (int64_t i = 0; i < steps; ++i) after_hours(item, s, now);
  } else {
    s.after_hours = false;
  }
  if (IsIndex(item)) {
    // An index trades nothing of its own: its shares' volume and turnover.
    double volume = 0, turnover = 0;
    uint32_t trades = 0;
    for (size_t i : constituents(market, index)) {
      const State& share = advance(market, i, now);
      volume += share.volume;
      turnover += share.turnover;
      trades += share.trade_count;
    }
    s.volume = volume;
    s.turnover = turnover;
    s.trade_count = trades;
  }
  return s;
}

ApiL1Tick QuoteBook::snapshot(const Market& market, const Instrument& item, const State& s, const Stamp& now) const {
  auto t = Blank<ApiL1Tick>();
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
  // Before the open, the call auction shows its matching price on both sides.
  Book book = DepthOf(item, s, s.in_auction ? s.planned_open : s.last, 5);
  for (int i = 0; i < 5; ++i) {
    t.bid_price[i] = price(book.bid_price[i]);
    t.bid_volume[i] = static_cast<float>(book.bid_volume[i]);
    t.ask_price[i] = price(book.ask_price[i]);
    t.ask_volume[i] = static_cast<float>(book.ask_volume[i]);
  }
  if (IsFutures(market)) {
    t.board_kind = 3;
    double lots = s.volume * static_cast<double>(item.multiplier);
    double settlement = lots > 0 ? s.turnover / lots : static_cast<double>(s.last) / scale;
    PutFloat(t.board_value1, static_cast<float>(s.phase_code));
    PutFloat(t.board_value2, static_cast<float>(settlement));
    PutFloat(t.board_value3, static_cast<float>(s.open_interest));
  } else if (market.id == kHK) {
    t.board_kind = 2;
  } else if (s.after_hours && InAfterHours(now.hhmmss)) {
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
  State& s = advance(market, index, now);
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
  State& s = advance(market, index, now);
  std::vector<Trade> made;
  made.swap(s.unsent);
  s.level2 = true;
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
    auto r = Blank<ApiL2Index>();
    put_prices(r);
    r.volume = static_cast<int64_t>(s.volume);
    r.turnover = std::llround(s.turnover);
    out.index = true;
    out.snapshot = Level2Message(std::vector<ApiL2Index>{r});
    return out;
  }

  Book book = DepthOf(item, s, s.in_auction ? s.planned_open : s.last, 10);
  auto snap = Blank<ApiL2Snapshot>();
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

  // The trades since the last send, a millisecond apart.
  std::vector<ApiL2Transaction> trades;
  for (size_t k = 0; k < made.size(); ++k) {
    const Trade& made_trade = made[k];
    auto t = Blank<ApiL2Transaction>();
    PutHead(t, market, item);
    t.time = made_trade.hhmmss * 1000 + (made_trade.hhmmss == now.hhmmss ? now.millis : 0);
    t.time += static_cast<int32_t>(std::min<size_t>(k, 999 - (t.time % 1000)));
    t.price = made_trade.price * factor;
    t.volume = ClampInt32(made_trade.shares);
    t.amount = made_trade.price * factor * made_trade.shares * item.multiplier;
    t.flag1 = made_trade.buy ? 'B' : 'S';
    t.flag2 = 'F';
    t.number1 = ++s.trade_number;
    t.number2 = static_cast<uint32_t>(1 + index % 8);  // the exchange's channel
    trades.push_back(t);
  }
  out.transactions = Level2Message(trades);

  // New limit orders at the prices of the book's first levels.
  std::vector<ApiL2Order> orders;
  // Draws of their own: a read takes nothing from the walk's.
  State d;
  d.rng = QuoteMix(s.depth_seed, s.order_number + 1);
  d.lot = s.lot;
  d.min_order = s.min_order;
  if (book.bid_price[0] > 0 || book.ask_price[0] > 0) {
    int64_t count = 1 + Below(d, 3);
    for (int64_t k = 0; k < count; ++k) {
      bool buy = (Next(d) & 1) != 0;
      if (book.bid_price[0] == 0) buy = false;
      if (book.ask_price[0] == 0) buy = true;
      const int64_t* prices = buy ? book.bid_price : book.ask_price;
      int64_t level = Below(d, 5);
      while (level > 0 && prices[level] == 0) --level;
      auto o = Blank<ApiL2Order>();
      PutHead(o, market, item);
      o.time = hhmmssmmm + static_cast<int32_t>(std::min<int64_t>(k, 999 - now.millis));
      o.number1 = static_cast<int32_t>(++s.order_number);
      o.price = prices[level] * factor;
      o.volume = ClampInt32(Shares(d, 30));
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
    auto q = Blank<ApiL2OrderQueue>();
    PutHead(q, market, item);
    q.time = hhmmssmmm;
    q.side = side;
    q.price = price * factor;
    q.volume = volume;
    // Whole units of at least the least order each.
    int64_t lots = volume / s.lot;
    int64_t orders_queued = std::min<int64_t>(volume / s.min_order,
                                              1 + static_cast<int64_t>(QuoteMix(s.depth_seed, 100 + side) % 60));
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
