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

  const Market& sq = *universe_.market(kSQ);
  ASSERT_NE(sq.flag_a, 0);
  const Instrument& future = sq.instruments.front();
  // Friday's night session opens Wednesday's trading day (Monday and Tuesday are holidays).
  auto night = Elements<ApiHisDataRsp, ApiHisBar>(Bars(kSQ, future.code, 7, 20240918, 20240918), 42);
  ASSERT_EQ(night.size(), 120u + 225u);
  EXPECT_EQ(+night.front().date * 1000000LL + night.front().time, 20240913210000);
  EXPECT_EQ(+night[120].date * 1000000LL + night[120].time, 20240918090000);

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

}  // namespace
}  // namespace sim
