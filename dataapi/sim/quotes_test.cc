#include "dataapi/sim/quotes.h"

#include <cmath>
#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace sim {
namespace {

constexpr int32_t kToday = 20261123;

template <typename T>
T Read(const Bytes& bytes, size_t offset = 0) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

// What is wrong with a snapshot of item, or nothing.
std::string Problem(const ApiL1Tick& t, const Instrument& item) {
  bool limited = item.upper_units > 0;
  auto units = [&](float price) -> int64_t {
    double u = static_cast<double>(price) * item.scale();
    auto r = static_cast<int64_t>(std::llround(u));
    return std::fabs(u - static_cast<double>(r)) < 0.2 && r % item.tick_units == 0 ? r : -1;
  };
  auto fits = [&](float price) {
    int64_t u = units(price);
    return u > 0 && (!limited || (u >= item.lower_units && u <= item.upper_units));
  };
  if (std::string(t.code) != item.code) return "code";
  if (item.suspended) return t.volume == 0 && units(t.last) == item.pre_close_units ? "" : "suspended";
  if (!fits(t.last) || !fits(t.open) || !fits(t.high) || !fits(t.low)) return "price off the tick or limits";
  if (t.low > t.last || t.last > t.high || t.low > t.open || t.open > t.high) return "range";
  int64_t lot = item.volume_unit == 0 ? 1 : item.volume_unit;
  for (int i = 0; i < 5; ++i) {
    for (auto [price, volume, step] : {std::tuple{+t.bid_price[i], +t.bid_volume[i], -1},
                                       std::tuple{+t.ask_price[i], +t.ask_volume[i], 1}}) {
      if (price == 0) continue;
      if (!fits(price) || volume <= 0 || std::fmod(volume, static_cast<float>(lot)) != 0) return "depth";
      float before = i == 0 ? 0 : step < 0 ? t.bid_price[i - 1] : t.ask_price[i - 1];
      if (i > 0 && units(price) != units(before) + step * item.tick_units) return "depth order";
    }
  }
  if (t.bid_price[0] > 0 && t.ask_price[0] > 0 && units(t.ask_price[0]) - units(t.bid_price[0]) != item.tick_units) {
    return "spread";
  }
  if (limited && units(t.last) == item.upper_units && t.ask_price[0] != 0) return "offers at the upper limit";
  if (limited && units(t.last) == item.lower_units && t.bid_price[0] != 0) return "bids at the lower limit";
  return "";
}

Market OneShare(uint8_t market_id, uint16_t type, int64_t pre, int64_t lower, int64_t upper) {
  Market market;
  market.id = market_id;
  market.market_type = 1;
  market.trade_date = kToday;
  Instrument item;
  item.code = type == kTypeStarStock ? "688001" : "600001";
  item.type_code = type;
  item.volume_unit = 100;
  item.pre_close_units = pre;
  item.lower_units = lower;
  item.upper_units = upper;
  market.instruments.push_back(item);
  return market;
}

TEST(QuotesTest, EveryInstrumentWalksOnItsTickInsideItsLimits) {
  const Universe universe(Universe::kDefaultSeed, kToday);
  QuoteBook book(universe.seed());
  QuoteBook twin(universe.seed());
  for (const Market& market : universe.markets()) {
    const size_t n = market.instruments.size();
    std::vector<float> volumes(n, -1);
    for (int32_t second = 0; second < 30; ++second) {
      Bytes package = book.market_package(market, Stamp{100000 + second, 0});
      ASSERT_EQ(package, twin.market_package(market, Stamp{100000 + second, 0}));  // the same walk
      auto head = Read<ApiMarketPushHead>(package);
      ASSERT_EQ(+head.market_id, market.id);
      ASSERT_EQ(package.size(), sizeof(head) + n * sizeof(ApiL1Tick));
      for (size_t i = 0; i < n; ++i) {
        const Instrument& item = market.instruments[i];
        auto t = Read<ApiL1Tick>(package, sizeof(head) + i * sizeof(ApiL1Tick));
        std::string problem = Problem(t, item);
        ASSERT_EQ(problem, "") << market.name << " " << item.code << " step " << second;
        ASSERT_EQ(+t.time, 100000 + second);
        ASSERT_EQ(+t.date, market.trade_date);
        ASSERT_EQ(+t.board_kind, market.market_type == 2 ? 3u : market.id == kHK ? 2u : 0u);
        if (!item.suspended) {
          ASSERT_GT(+t.volume, volumes[i]) << item.code;
        }
        volumes[i] = t.volume;
      }
    }
  }
  EXPECT_NE(QuoteBook(1).market_package(*universe.market(kZJ), Stamp{100000, 0}),
            QuoteBook(2).market_package(*universe.market(kZJ), Stamp{100000, 0}));
}

TEST(QuotesTest, TheWalkReachesBothLimitsAndStopsThere) {
  Market market = OneShare(kSZ, kTypeMainStock, 100, 95, 105);  // 1.00, 5% either side
  QuoteBook book(7);
  bool up = false, down = false;
  for (int i = 0; i < 3000; ++i) {
    ApiL1Tick t = book.level1(market, 0, Stamp{100000, 0});
    ASSERT_EQ(Problem(t, market.instruments[0]), "") << i;
    up = up || std::lround(t.last * 100) == 105;
    down = down || std::lround(t.last * 100) == 95;
  }
  EXPECT_TRUE(up);
  EXPECT_TRUE(down);
}

TEST(QuotesTest, FuturesPhasesChangeAtTheSessionEdges) {
  Market financial, night;
  financial.id = kZJ;
  night.id = kSQ;
  night.flag_a = 1;
  const std::pair<int32_t, int> zj[] = {{92459, 11}, {92500, 12}, {93000, 13}, {112959, 13}, {113000, 14},
                                        {130000, 13}, {145959, 13}, {150000, 15}, {210000, 15}};
  for (auto [time, phase] : zj) EXPECT_EQ(futures_phase(financial, time), phase) << time;
  const std::pair<int32_t, int> sq[] = {{85459, 11}, {85500, 12}, {90000, 13}, {101500, 14}, {103000, 13},
                                        {113000, 14}, {133000, 13}, {150000, 15}, {205459, 15}, {205500, 12},
                                        {210000, 13}, {225959, 13}, {230000, 15}};
  for (auto [time, phase] : sq) EXPECT_EQ(futures_phase(night, time), phase) << time;
}

TEST(QuotesTest, AStarShareTradesAfterHoursOnlyInItsWindow) {
  Market market = OneShare(kSH, kTypeStarStock, 5000, 4000, 6000);
  QuoteBook book(3);
  auto value = [](const uint8_t (&field)[4]) {
    int32_t v;
    std::memcpy(&v, field, 4);
    return v;
  };
  ApiL1Tick day = book.level1(market, 0, Stamp{145959, 0});
  EXPECT_EQ(+day.board_kind, 0u);
  ApiL1Tick orders = book.level1(market, 0, Stamp{150001, 0});
  ASSERT_EQ(+orders.board_kind, 8u);
  EXPECT_EQ(+orders.after_hours_time, 150001u);
  EXPECT_EQ(value(orders.board_value3), 0);  // no matches before 15:05
  EXPECT_EQ(+orders.last, +day.last);
  EXPECT_EQ(+orders.volume, +day.volume);
  float close;
  std::memcpy(&close, orders.board_value1, 4);
  EXPECT_EQ(close, +day.last);
  ApiL1Tick matched = orders;
  for (int32_t time = 150500; time < 150540; ++time) matched = book.level1(market, 0, Stamp{time, 0});
  EXPECT_GT(value(matched.board_value3), 0);
  EXPECT_GT(value(matched.board_value2), 0);
  EXPECT_EQ(value(matched.board_value3) % 100, 0);
  EXPECT_EQ(+matched.volume, +day.volume);
  ApiL1Tick closed = book.level1(market, 0, Stamp{153001, 0});
  EXPECT_EQ(value(closed.board_value3), value(matched.board_value3));
  ApiL1Tick after = book.level1(market, 0, Stamp{153006, 0});
  EXPECT_EQ(+after.board_kind, 0u);
  EXPECT_GT(+after.volume, +day.volume);
}

}  // namespace
}  // namespace sim
