#include "dataapi/sim/history.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/quotes.h"

namespace sim {
namespace {

constexpr int32_t kToday = 20240920;  // a Friday

template <typename T>
T Read(const Bytes& bytes, size_t offset = 0) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

// The elements of every block, checking the blocks' heads on the way.
template <typename Head, typename Element>
std::vector<Element> Elements(const std::vector<Bytes>& blocks, int16_t id) {
  std::vector<Element> all;
  for (size_t b = 0; b < blocks.size(); ++b) {
    auto head = Read<Head>(blocks[b]);
    EXPECT_EQ(+head.request_id, id);
    EXPECT_EQ(+head.last != 0, b + 1 == blocks.size());
    EXPECT_LE(+head.count, static_cast<int32_t>(kHistoryBlockElements));
    EXPECT_GE(blocks[b].size(), sizeof(Head) + std::max(+head.count, 1) * sizeof(Element));
    for (int32_t i = 0; i < head.count; ++i) all.push_back(Read<Element>(blocks[b], sizeof(Head) + i * sizeof(Element)));
  }
  return all;
}

class SimHistoryTest : public ::testing::Test {
 protected:
  const Instrument* First(int market_id, uint16_t type) {
    for (const Instrument& item : universe_.market(market_id)->instruments) {
      if (item.type_code == type && !item.suspended) return &item;
    }
    return nullptr;
  }
  template <typename Request>
  static Request Make(uint16_t id, int market_id, const std::string& code, int32_t first, int32_t last) {
    Request r{};
    r.request_id = id;
    r.market = market_id;
    std::strncpy(r.code, code.c_str(), sizeof(r.code) - 1);
    r.start_date = first;
    r.end_date = last;
    return r;
  }
  std::vector<Bytes> Bars(int market_id, const std::string& code, int32_t type, int32_t first, int32_t last) {
    auto r = Make<HisBarRequest>(42, market_id, code, first, last);
    r.kline_type = type;
    return history_blocks(universe_, HistoryKind::kBars, &r);
  }
  std::vector<Bytes> Ticks(HistoryKind kind, int market_id, const std::string& code, int32_t first, int32_t last) {
    auto r = Make<HisTickRequest>(43, market_id, code, first, last);
    return history_blocks(universe_, kind, &r);
  }

  Universe universe_{Universe::kDefaultSeed, kToday};
};

TEST_F(SimHistoryTest, DailyBarsRunFromTheListingToTheReferenceClose) {
  const Market& sh = *universe_.market(kSH);
  const Instrument* share = First(kSH, kTypeMainStock);
  ASSERT_NE(share, nullptr);
  auto blocks = Bars(kSH, share->code, 1, 19900101, 20991231);
  EXPECT_EQ(blocks, Bars(kSH, share->code, 1, 19900101, 20991231));  // the same bytes again
  auto bars = Elements<ApiHisDataRsp, ApiHisBar>(blocks, 42);
  auto days = trading_days(std::max<int32_t>(share->list_date, 19900101), sh.trade_date);
  ASSERT_EQ(bars.size(), days.size());
  EXPECT_GT(blocks.size(), 1u);
  const int64_t per_unit = share->price_digits == 2 ? 100 : 1;
  for (size_t i = 0; i < bars.size(); ++i) {
    ASSERT_EQ(+bars[i].date, days[i]);
    EXPECT_LE(+bars[i].low, std::min(+bars[i].open, +bars[i].close));
    EXPECT_GE(+bars[i].high, std::max(+bars[i].open, +bars[i].close));
    EXPECT_GT(+bars[i].low, 0);
    EXPECT_GT(+bars[i].volume, 0);
  }
  // History ends where the real-time walk starts.
  EXPECT_EQ(bars[bars.size() - 2].close, share->pre_close_units * per_unit);
}

TEST_F(SimHistoryTest, MinutesFollowEachMarketsSessions) {
  const Instrument* share = First(kSH, kTypeMainStock);
  auto bars = Elements<ApiHisDataRsp, ApiHisBar>(Bars(kSH, share->code, 7, 20240919, 20240919), 42);
  ASSERT_EQ(bars.size(), 240u);
  EXPECT_EQ(+bars[119].time, 112900);
  EXPECT_EQ(+bars[120].time, 130000);

  // Silver's night session runs to 2:30 past midnight, on the evening before
  // a trading day; none came before the first day after the Mid-Autumn
  // holiday (Wednesday), which opens at 9:00.
  const Market& sq = *universe_.market(kSQ);
  const Instrument& silver = sq.instruments.front();
  ASSERT_EQ(silver.code.rfind("ag", 0), 0u);
  auto after_holiday = Elements<ApiHisDataRsp, ApiHisBar>(Bars(kSQ, silver.code, 7, 20240918, 20240918), 42);
  ASSERT_EQ(after_holiday.size(), 225u);
  EXPECT_EQ(+after_holiday.front().date * 1000000LL + after_holiday.front().time, 20240918090000);
  auto night = Elements<ApiHisDataRsp, ApiHisBar>(Bars(kSQ, silver.code, 7, 20240920, 20240920), 42);
  ASSERT_EQ(night.size(), 180u + 150u + 225u);
  EXPECT_EQ(+night.front().date * 1000000LL + night.front().time, 20240919210000);
  EXPECT_EQ(+night[180].date * 1000000LL + night[180].time, 20240920000000);
  EXPECT_EQ(+night[329].time, 22900);
  EXPECT_EQ(+night[330].time, 90000);

  // Bond futures from 9:15 to 15:15; Hong Kong to 16:00 and its closing auction.
  struct Day {
    int market;
    std::string code;
    size_t minutes;
    int32_t first;
  };
  const Market& zj = *universe_.market(kZJ);
  std::string bond;
  for (const Instrument& item : zj.instruments) {
    if (item.code.rfind("T2", 0) == 0 && bond.empty()) bond = item.code;
  }
  for (const Day& day : {Day{kZJ, bond, 270, 91500}, Day{kHK, "00700", 340, 93000}}) {
    auto bars = Elements<ApiHisDataRsp, ApiHisBar>(Bars(day.market, day.code, 7, 20240919, 20240919), 42);
    ASSERT_EQ(bars.size(), day.minutes) << day.code;
    EXPECT_EQ(+bars.front().time, day.first) << day.code;
  }

  EXPECT_TRUE(Bars(kSH, share->code, 5, 20240919, 20240919).empty());  // no such K-line type
  EXPECT_TRUE(Bars(kSH, "999999", 1, 20240919, 20240919).empty());
}

TEST_F(SimHistoryTest, TicksEveryThreeSecondsAndAfterHoursOnTheBoardsThatTradeThen) {
  const Instrument* share = First(kSH, kTypeMainStock);
  auto ticks = Elements<ApiL1NewHisTickResp, ApiHisTickL1>(
      Ticks(HistoryKind::kLevel1Ticks, kSH, share->code, 20240919, 20240919), 43);
  ASSERT_EQ(ticks.size(), 240u * 20u);
  EXPECT_EQ(+ticks[1].time, 93003000);
  for (size_t i = 1; i < ticks.size(); ++i) ASSERT_GE(+ticks[i].volume, +ticks[i - 1].volume);

  const Instrument* star = First(kSH, kTypeStarStock);
  ASSERT_NE(star, nullptr);
  auto late = Elements<ApiHisTickKcbResp, ApiHisTickKcb>(
      Ticks(HistoryKind::kAfterHoursTicks, kSH, star->code, 20240918, 20240919), 43);
  ASSERT_EQ(late.size(), 2u * 51u);
  EXPECT_EQ(+late.front().time, 150500000);
  EXPECT_EQ(+late[50].time, 153000000);
  EXPECT_EQ(+late[51].date, 20240919);
  // A main-board share trades no after hours: one empty last block.
  auto none = Ticks(HistoryKind::kAfterHoursTicks, kSH, share->code, 20240918, 20240919);
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ(+Read<ApiHisTickKcbResp>(none[0]).count, 0);
  EXPECT_NE(+Read<ApiHisTickKcbResp>(none[0]).last, 0);
  EXPECT_GE(none[0].size(), sizeof(ApiHisTickKcbResp) + sizeof(ApiHisTickKcb));
}

TEST_F(SimHistoryTest, FaultsLoseDoubleOrMisaddressABlock) {
  const Instrument* share = First(kSH, kTypeMainStock);
  auto blocks = Bars(kSH, share->code, 7, 20240902, 20240920);
  ASSERT_GE(blocks.size(), 3u);
  EXPECT_EQ(with_fault(HistoryFault::kNone, blocks), blocks);
  EXPECT_EQ(with_fault(HistoryFault::kDelay, blocks), blocks);
  EXPECT_EQ(with_fault(HistoryFault::kLoseLast, blocks), std::vector<Bytes>(blocks.begin(), blocks.end() - 1));

  auto twice = with_fault(HistoryFault::kDuplicate, blocks);
  ASSERT_EQ(twice.size(), blocks.size() + 1);
  EXPECT_EQ(twice.front(), blocks.front());
  EXPECT_EQ(std::vector<Bytes>(twice.begin() + 1, twice.end()), blocks);

  auto stray = with_fault(HistoryFault::kUnknownId, blocks);
  ASSERT_EQ(stray.size(), blocks.size() + 1);
  EXPECT_EQ(Read<int16_t>(stray.front()), kStrayHistoryId);
  EXPECT_EQ(Bytes(stray.front().begin() + 2, stray.front().end()), Bytes(blocks.front().begin() + 2, blocks.front().end()));
  EXPECT_EQ(std::vector<Bytes>(stray.begin() + 1, stray.end()), blocks);

  // A one-block answer loses everything, or comes twice as its last block.
  auto one = Bars(kSH, share->code, 1, 20240918, 20240920);
  ASSERT_EQ(one.size(), 1u);
  EXPECT_TRUE(with_fault(HistoryFault::kLoseLast, one).empty());
  EXPECT_EQ(with_fault(HistoryFault::kDuplicate, one), std::vector<Bytes>(2, one.front()));
}

}  // namespace
}  // namespace sim
