#include "dataapi/sim/quotes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/sessions.h"

namespace sim {
namespace {

constexpr int32_t kToday = 20261123;  // a Monday

template <typename T>
T Read(const Bytes& bytes, size_t offset = 0) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

// The realism check: one simulated day of a sample of every market against
// the markets' rules, stated here on their own. Hong Kong's spread table:
// the top of each price band (0.001 HKD) and its tick.
int64_t HKTick(int64_t units) {
  const std::pair<int64_t, int64_t> bands[] = {{250, 1},       {500, 5},        {10000, 10},     {20000, 20},
                                               {100000, 50},   {200000, 100},   {500000, 200},   {1000000, 500},
                                               {2000000, 1000}, {5000000, 2000}, {9995000, 5000}};
  for (auto [top, tick] : bands) {
    if (units <= top) return tick;
  }
  return 5000;
}

// When an instrument may trade on a Monday: continuous trading (from
// included, to excluded) and the auctions' matches.
struct Hours {
  std::vector<std::pair<int32_t, int32_t>> trading;
  std::vector<int32_t> matches;
  bool allows(int32_t t) const {
    for (auto [from, to] : trading) {
      if (t >= from && t < to) return true;
    }
    return std::find(matches.begin(), matches.end(), t) != matches.end();
  }
};

Hours HoursOf(const Market& market, const Instrument& item) {
  if (market.id == kSH || market.id == kSZ) return {{{93000, 113000}, {130000, 145700}}, {92500, 150000}};
  if (market.id == kHK) return {{{93000, 120000}, {130000, 160000}}, {92000, 161000}};
  if (market.id == kZJ && item.code[0] == 'T') return {{{91500, 113000}, {130000, 151500}}, {}};
  if (market.id == kZJ) return {{{93000, 113000}, {130000, 150000}}, {}};
  Hours hours{{{90000, 101500}, {103000, 113000}, {133000, 150000}}, {}};
  // Monday evening's night session, for the products that have one.
  const std::string product = item.code.substr(0, item.code.find_first_of("0123456789"));
  const char* const without[] = {"ec", "jd", "lh", "AP", "CJ", "SF", "SM", "UR", "PK"};
  bool none = std::find(std::begin(without), std::end(without), product) != std::end(without);
  int32_t end = product == "rb" || product == "m" || product == "SR" ? 230000 : 240000;
  if (!none) hours.trading.push_back({210000, end});
  return hours;
}

// What is wrong with the book of a level-1 snapshot, or nothing: prices on
// the grid inside the limits, the levels one tick apart on either side and
// one tick between the best bid and offer, orders in whole lots.
std::string BookProblem(const ApiL1Tick& t, const Market& market, const Instrument& item) {
  auto units = [&](float price) { return static_cast<int64_t>(std::llround(static_cast<double>(price) * item.scale())); };
  auto tick = [&](int64_t at) { return market.id == kHK ? HKTick(at) : item.tick_units; };  // below at, inclusive
  const int64_t lot = item.type_code == kTypeStarStock ? 1 : std::max<int64_t>(1, item.volume_unit);
  for (int i = 0; i < 5; ++i) {
    for (int side : {-1, 1}) {
      const float price = side < 0 ? t.bid_price[i] : t.ask_price[i];
      const auto volume = static_cast<int64_t>(side < 0 ? t.bid_volume[i] : t.ask_volume[i]);
      if (price == 0) continue;
      const int64_t u = units(price);
      if (u <= 0 || u % tick(u) != 0) return "price off the grid";
      if (item.upper_units > 0 && (u < item.lower_units || u > item.upper_units)) return "price beyond the limits";
      if (volume <= 0 || volume % lot != 0) return "volume not in lots";
      if (i == 0) continue;
      const int64_t before = units(side < 0 ? t.bid_price[i - 1] : t.ask_price[i - 1]);
      if (u != (side < 0 ? before - tick(before) : before + tick(before + 1))) return "levels not a tick apart";
    }
  }
  const int64_t bid = units(t.bid_price[0]);
  if (bid > 0 && t.ask_price[0] > 0 && units(t.ask_price[0]) != bid + tick(bid + 1)) return "spread not one tick";
  return "";
}

// The daily price limit of a Shanghai or Shenzhen share: 20% on STAR and
// ChiNext, 5% under special treatment, else 10%.
double LimitOf(const Instrument& item) {
  if (item.type_code == kTypeStarStock || item.type_code == kTypeChiNextStock) return 0.2;
  return item.st ? 0.05 : 0.1;
}

// The contract multiplier that turnover counts with, where the exchanges
// fix one (0: not checked).
int64_t MultiplierOf(const Market& market, const Instrument& item) {
  if (item.type_code == kTypeEtfOption) return 10000;
  if (market.id == kSH || market.id == kSZ || market.id == kHK) return 1;
  const std::map<std::string, int64_t> contracts = {{"IF", 300},  {"IH", 300},  {"IC", 200},   {"IM", 200},
                                                    {"T", 10000}, {"TF", 10000}, {"TS", 20000}, {"cu", 5}};
  auto it = contracts.find(item.code.substr(0, item.code.find_first_of("0123456789")));
  return it == contracts.end() ? 0 : it->second;
}

// A sample of every market and board: a few of each kind, a contract of
// every futures product, a Hong Kong share in every price band and the
// instruments the rows of the review named.
std::vector<size_t> Sample(const Market& market) {
  std::set<size_t> picked;
  std::map<uint16_t, int> kinds;
  std::set<std::string> products;
  std::set<int64_t> bands;
  for (size_t i = 0; i < market.instruments.size(); ++i) {
    const Instrument& item = market.instruments[i];
    if (item.suspended) continue;
    if (kinds[item.type_code]++ < 3 && item.type_code != kTypeIndex) picked.insert(i);
    if (item.type_code == kTypeFuture && products.insert(item.code.substr(0, item.code.size() - 3)).second) {
      picked.insert(i);
    }
    if (item.type_code == kTypeHKStock && bands.insert(HKTick(item.pre_close_units)).second) picked.insert(i);
  }
  for (const char* code : {"000001", "600519", "688981", "588000", "002415", "300750", "159915", "00700", "09618"}) {
    int at = find_instrument(market, code);
    if (at >= 0) picked.insert(static_cast<size_t>(at));
  }
  return {picked.begin(), picked.end()};
}

TEST(QuotesTest, OneSimulatedDayTradesOnTheGridInsideLimitsAndSessions) {
  const Universe universe(Universe::kDefaultSeed, kToday);
  QuoteBook book(universe.seed());
  for (const Market& market : universe.markets()) {
    const std::vector<size_t> sample = Sample(market);
    struct Seen {
      int trades = 0;
      int64_t shares = 0;
      double turnover = 0;
      ApiL1Tick first{};
    };
    std::vector<Seen> seen(sample.size());
    for (size_t k : sample) {
      const Instrument& item = market.instruments[k];
      const int64_t multiplier = MultiplierOf(market, item);
      if (multiplier != 0) {
        EXPECT_EQ(item.multiplier, multiplier) << item.code;
      }
      if (!item.is_stock() || item.upper_units == 0 || (market.id != kSH && market.id != kSZ)) continue;
      const double pre = static_cast<double>(item.pre_close_units);
      EXPECT_NEAR(item.upper_units, pre * (1 + LimitOf(item)), item.tick_units) << item.code;
      EXPECT_NEAR(item.lower_units, pre * (1 - LimitOf(item)), item.tick_units) << item.code;
    }
    for (size_t k = 0; k < sample.size(); ++k) seen[k].first = book.level1(market, sample[k], Stamp{0, 0, kToday, 0});
    int64_t step = 0;
    for (int32_t second = 0; second < 86400; second += 20, ++step) {
      const int32_t t = second / 3600 * 10000 + second / 60 % 60 * 100 + second % 60;
      const Stamp at{t, 0, kToday, step};
      for (size_t k = 0; k < sample.size(); ++k) {
        const Instrument& item = market.instruments[sample[k]];
        if (t % 1800 == 0 && item.type_code != kTypeIndex && item.type_code != kTypeHKIndex) {
          ASSERT_EQ(BookProblem(book.level1(market, sample[k], at), market, item), "") << item.code << " at " << t;
        }
        if (t == 151000) {  // after-hours fixed-price trading: STAR and ChiNext only
          bool after = item.type_code == kTypeStarStock || item.type_code == kTypeChiNextStock;
          ASSERT_EQ(+book.level1(market, sample[k], at).board_kind, after ? 8u : market.id == kHK ? 2u : market.market_type == 2 ? 3u : 0u)
              << item.code;
        }
        Level2Messages messages = book.level2(market, sample[k], at);
        if (messages.transactions.empty()) continue;
        auto head = Read<ApiL2Head>(messages.transactions);
        int64_t factor = 1;
        for (int d = item.price_digits; d < 4; ++d) factor *= 10;
        const Hours hours = HoursOf(market, item);
        for (int32_t n = 0; n < head.count; ++n) {
          auto trade = Read<ApiL2Transaction>(messages.transactions, sizeof(ApiL2Head) + n * sizeof(ApiL2Transaction));
          const int64_t units = trade.price / factor;
          const std::string where = market.name + " " + item.code + " at " + std::to_string(t);
          ASSERT_EQ(units * factor, +trade.price) << where;
          ASSERT_EQ(units % (market.id == kHK ? HKTick(units) : item.tick_units), 0) << where << " price " << units;
          if (item.upper_units > 0) {
            ASSERT_TRUE(units >= item.lower_units && units <= item.upper_units) << where << " price " << units;
          }
          ASSERT_TRUE(hours.allows(+trade.time / 1000)) << where;
          ASSERT_EQ(+trade.amount, +trade.price * trade.volume * item.multiplier) << where;
          if (item.type_code == kTypeStarStock) {
            ASSERT_GE(+trade.volume, 200) << where;
          } else {
            ASSERT_EQ(+trade.volume % std::max<int>(1, item.volume_unit), 0) << where;
          }
          ++seen[k].trades;
          seen[k].shares += trade.volume;
          seen[k].turnover += static_cast<double>(units) * trade.volume * static_cast<double>(item.multiplier) / item.scale();
        }
      }
    }
    const Stamp end{235940, 0, kToday, step - 1};
    for (size_t k = 0; k < sample.size(); ++k) {
      const Instrument& item = market.instruments[sample[k]];
      ApiL1Tick last = book.level1(market, sample[k], end);
      if (item.type_code == kTypeIndex || item.type_code == kTypeHKIndex) continue;
      EXPECT_GT(seen[k].trades, 0) << item.code;
      EXPECT_EQ(static_cast<int64_t>(last.volume - seen[k].first.volume), seen[k].shares) << item.code;
      EXPECT_NEAR(last.turnover - seen[k].first.turnover, seen[k].turnover, 1e-4 * seen[k].turnover + 1) << item.code;
    }
    // A composite index's volume and turnover are its shares'.
    for (const char* composite : {"000001", "399106"}) {
      int at = find_instrument(market, composite);
      if (at < 0 || market.instruments[static_cast<size_t>(at)].type_code != kTypeIndex) continue;
      Bytes package = book.market_package(market, end);
      double volume = 0, turnover = 0;
      ApiL1Tick index{};
      for (size_t i = 0; i < market.instruments.size(); ++i) {
        auto tick = Read<ApiL1Tick>(package, sizeof(ApiMarketPushHead) + i * sizeof(ApiL1Tick));
        if (market.instruments[i].is_stock()) {
          volume += tick.volume;
          turnover += tick.turnover;
        }
        if (static_cast<int>(i) == at) index = tick;
      }
      EXPECT_NEAR(+index.volume, volume, volume * 1e-4) << composite;
      EXPECT_NEAR(+index.turnover, turnover, turnover * 1e-4) << composite;
      EXPECT_GT(index.turnover / index.volume, 2.0) << composite;  // yuan a share, not index points
      EXPECT_LT(index.turnover / index.volume, 200.0) << composite;
    }
  }
}

// The exchanges' calendar: closed through their holidays, open either side;
// the connect also closes on Hong Kong's holidays, while Shanghai trades.
TEST(QuotesTest, TradingDaysFollowTheExchangesCalendar) {
  for (int32_t day : {20241001, 20241004, 20241007, 20240209, 20130211, 20130215, 20121005, 20081001, 20050210,
                      20011005}) {
    EXPECT_FALSE(is_trading_day(day)) << day;
  }
  for (int32_t day : {20240930, 20241008, 20130218, 20121008, 20081006, 20241224}) {
    EXPECT_TRUE(is_trading_day(day) && is_connect_day(day)) << day;
  }
  for (int32_t day : {20241225, 20241226, 20250418, 20250421, 20240701, 20231023}) {
    EXPECT_TRUE(is_trading_day(day) && !is_connect_day(day)) << day;
  }
}

// Phase codes by product at the edges of their sessions: a Monday (no
// session past Sunday midnight) and a Tuesday, a Saturday (Friday's night
// session past midnight only), the eve of the National Day holiday (no
// night session) and the first day after it (the day's own auction).
TEST(QuotesTest, FuturesPhasesFollowEachProductsSessions) {
  const Universe universe(Universe::kDefaultSeed, kToday);
  auto code = [&](int market_id, const char* product, int32_t date, int32_t time) {
    const Market& market = *universe.market(market_id);
    return phase_code(moment_at(schedule_of(market, market.instruments[find_instrument(market, product)]), date,
                                time)
                          .phase);
  };
  struct Edge {
    int market;
    const char* product;
    int32_t date;
    int32_t time;
    int phase;
  };
  const Edge edges[] = {
      {kZJ, "IF", kToday, 92459, 11},    {kZJ, "IF", kToday, 92500, 12},   {kZJ, "IF", kToday, 93000, 13},
      {kZJ, "IF", kToday, 113000, 14},   {kZJ, "IF", kToday, 150000, 15},  {kZJ, "T", kToday, 91000, 12},
      {kZJ, "T", kToday, 91500, 13},     {kZJ, "T", kToday, 151459, 13},   {kZJ, "T", kToday, 151500, 15},
      {kSQ, "cu", kToday, 3000, 11},     {kSQ, "cu", 20261124, 3000, 13},  {kSQ, "cu", 20261124, 10000, 15},
      {kSQ, "cu", kToday, 85500, 11},    {kSQ, "cu", kToday, 90000, 13},   {kSQ, "cu", kToday, 101500, 14},
      {kSQ, "cu", kToday, 133000, 13},   {kSQ, "cu", kToday, 205500, 12},  {kSQ, "cu", kToday, 235959, 13},
      {kSQ, "au", 20261124, 22959, 13},  {kSQ, "au", 20261124, 23000, 15}, {kSQ, "rb", kToday, 230000, 15},
      {kSN, "sc", 20261124, 20000, 13},  {kSN, "ec", kToday, 213000, 15},  {kDL, "jd", kToday, 213000, 15},
      {kDL, "jd", kToday, 85500, 12},    {kDL, "lh", kToday, 213000, 15},  {kDL, "m", kToday, 225959, 13},
      {kZZ, "AP", kToday, 213000, 15},   {kZZ, "SR", kToday, 213000, 13},  {kSQ, "rb", 20260930, 213000, 15},
      {kSQ, "rb", 20261121, 100000, 15}, {kSQ, "au", 20261121, 10000, 13}, {kSQ, "rb", 20261008, 85500, 12},
  };
  for (const Edge& e : edges) EXPECT_EQ(code(e.market, e.product, e.date, e.time), e.phase) << e.product << " " << e.date << " " << e.time;
}

// A share with a narrow band (1.00, 5% either side) reaches both limits
// within a few thousand steps, and never passes them.
TEST(QuotesTest, TheWalkReachesBothLimitsAndStopsThere) {
  Market market;
  market.id = kSZ;
  market.market_type = 1;
  market.trade_date = kToday;
  Instrument item;
  item.code = "000001";
  item.type_code = kTypeMainStock;
  item.volume_unit = 100;
  item.pre_close_units = 100;
  item.lower_units = 95;
  item.upper_units = 105;
  market.instruments.push_back(item);
  QuoteBook book(7);
  bool up = false, down = false;
  for (int i = 0; i < 3000; ++i) {
    ApiL1Tick t = book.level1(market, 0, Stamp{100000, 0, kToday, i});
    ASSERT_EQ(BookProblem(t, market, item), "") << i;
    const long last = std::lround(t.last * 100);
    ASSERT_TRUE(last >= 95 && last <= 105) << i;
    up = up || last == 105;
    down = down || last == 95;
  }
  EXPECT_TRUE(up);
  EXPECT_TRUE(down);
}

}  // namespace
}  // namespace sim
