#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "realtime/l1_convert.h"
#include "testkit/market_fixture.h"

namespace tavr {
namespace {

const quoter::QuoterAllData& AllData(const std::shared_ptr<quoter::QuoterBase>& record) {
  return dynamic_cast<const quoter::QuoterAllData&>(*record);
}

void SetFloat(uint8_t (&field)[4], float v) { std::memcpy(field, &v, 4); }
void SetInt(uint8_t (&field)[4], int32_t v) { std::memcpy(field, &v, 4); }

class L1TickTest : public ::testing::Test {
 protected:
  L1TickTest() {
    fx_.init_market(2, {testkit::code_init("600000", "浦发银行", 2, 100), testkit::code_init("10004567", "期权", 4, 1)},
                    /*pre_close=*/0, /*eps=*/2);
    fx_.init_market(10, {testkit::code_init("00700", "腾讯控股", 3, 100)}, 0, 0);
  }
  void Tick(const ApiL1Tick& tick) { fx_.deliver(4, testkit::bytes_of(tick)); }

  testkit::MarketFixture fx_;
};

TEST_F(L1TickTest, SubscribersGetTheRecordsTheirDataTypeAsksFor) {
  // First in line, a host callback that throws: the others still get theirs.
  quoter::TSMetaInfo meta;
  meta.market = "SH";
  meta.code = "600000";
  meta.metaId = 3000;
  fx_.client().subscribeQuote(meta, {}, "", [](auto&&...) { throw std::runtime_error("host failure"); });
  int quote = fx_.subscribe("SH", "600000", 3000);
  int totals = fx_.subscribe("SH", "600000", 4002);
  int depth = fx_.subscribe("SH", "600000", 1010);
  ASSERT_GT(quote, 0);
  Tick(testkit::l1_tick(2, "600000", 100000, 10.0f, 5000));
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].id, quote);
  ASSERT_EQ(got[0].records.size(), 2u);  // B (empty outside after hours), then A
  EXPECT_EQ(got[0].records[0]->time, 0);
  const auto& a = AllData(got[0].records[1]);
  EXPECT_NE(dynamic_cast<const DravikQuoterAllData*>(got[0].records[1].get()), nullptr);
  EXPECT_DOUBLE_EQ(a.lastPrice, 10.0);
  EXPECT_EQ(a.volume, 50);
  EXPECT_EQ(a.rawVolume, 5000);
  EXPECT_EQ(a.tradingPhase, 13u);
  EXPECT_DOUBLE_EQ(a.pe, 5.0);
  EXPECT_EQ(a.dataFlag, 1u);
  EXPECT_EQ(got[1].id, totals);
  ASSERT_EQ(got[1].records.size(), 1u);
  auto buy_sell = std::dynamic_pointer_cast<quoter::BuySellData>(got[1].records[0]);
  ASSERT_NE(buy_sell, nullptr);
  EXPECT_EQ(buy_sell->buyVolume, 50);  // stored last price 0 < 10: a buy
  EXPECT_EQ(buy_sell->time, 0);        // the two volumes only
  EXPECT_EQ(got[2].id, depth);
  EXPECT_TRUE(got[2].records.empty());  // level-2 entries get an empty vector

  // Totals add the cumulative volume each time; a lower price counts as a sell.
  fx_.clear_received();
  Tick(testkit::l1_tick(2, "600000", 100003, 9.0f, 6000));
  Tick(testkit::l1_tick(2, "600000", 100006, 9.5f, 7000));
  got = fx_.received();
  auto second = std::dynamic_pointer_cast<quoter::BuySellData>(got[1].records[0]);
  auto third = std::dynamic_pointer_cast<quoter::BuySellData>(got[4].records[0]);
  EXPECT_EQ(second->sellVolume, 60);
  EXPECT_EQ(second->buyVolume, 50);
  EXPECT_EQ(third->buyVolume, 120);
  EXPECT_EQ(fx_.log().count("[DvDataMgr::DataServiceThread]: 数据服务线程, do bussiness catch Exception!!!..."), 3u);
}

TEST_F(L1TickTest, PricesFallBackAndInvalidOnesDrop) {
  fx_.subscribe("SH", "600000", 3000);
  ApiL1Tick tick = testkit::l1_tick(2, "600000", 100000, 0.0f);
  tick.pre_close = 12.5f;
  tick.high = 0;
  Tick(tick);
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 1u);
  // No trade yet: the previous close, then replaced by the best ask.
  EXPECT_DOUBLE_EQ(AllData(got[0].records[1]).lastClose, 12.5);
  EXPECT_DOUBLE_EQ(AllData(got[0].records[1]).lastPrice, 0.01);
  tick.ask_price[0] = 0;
  fx_.clear_received();
  Tick(tick);
  EXPECT_DOUBLE_EQ(AllData(fx_.received()[0].records[1]).lastPrice, 12.5);

  tick.pre_close = 0;
  fx_.clear_received();
  Tick(tick);
  EXPECT_TRUE(fx_.received().empty());
  EXPECT_TRUE(fx_.log().contains("[ApiL1Tick] Code 600000 receive invalide price [0.00, 0.00]..."));
}

TEST_F(L1TickTest, DepthVolumesBecomeLotsWithAOneLotMinimum) {
  fx_.subscribe("SH", "600000", 3000);
  ApiL1Tick tick = testkit::l1_tick(2, "600000", 93500, 10.0f);
  tick.ask_volume[0] = 50;
  tick.ask_volume[1] = 0;
  tick.ask_volume[2] = 250;
  tick.ask_volume[3] = -5;
  tick.ask_volume[4] = 1e30f;  // absurd: clamped, not undefined
  Tick(tick);
  const auto& a = AllData(fx_.received().at(0).records[1]);
  EXPECT_EQ(a.askVol[0], 1);
  EXPECT_EQ(a.askVol[1], 0);
  EXPECT_EQ(a.askVol[2], 2);
  EXPECT_EQ(a.askVol[3], 0);
  EXPECT_EQ(a.askVol[4], INT32_MAX);
  EXPECT_DOUBLE_EQ(a.askPrice[0], 10.01);
}

TEST_F(L1TickTest, HongKongLimitsAndSessionPhases) {
  fx_.subscribe("HGT", "00700", 3000);
  // Kind 2 keeps the Hong Kong hours; kinds 0 and 1 apply the SH/SZ hours on any market.
  const struct {
    uint32_t kind;
    int32_t time;
    uint32_t phase;
  } cases[] = {{2, 85900, 11}, {2, 92000, 12}, {2, 160959, 13}, {2, 161000, 15},
               {0, 91000, 11}, {1, 155000, 15}, {0, 120000, 13}};
  for (const auto& c : cases) {
    ApiL1Tick tick = testkit::l1_tick(10, "00700", c.time, 300.0f);
    tick.board_kind = c.kind;
    Tick(tick);
  }
  auto got = fx_.received();
  ASSERT_EQ(got.size(), std::size(cases));
  for (size_t i = 0; i < got.size(); ++i) {
    const auto& a = AllData(got[i].records[1]);
    EXPECT_EQ(a.tradingPhase, cases[i].phase) << i;
    EXPECT_DOUBLE_EQ(a.upperLimit, 9999.99);
    EXPECT_DOUBLE_EQ(a.lowerLimit, 0.01);
  }
}

TEST_F(L1TickTest, BoardKinds) {
  fx_.subscribe("SH", "600000", 3000);
  ApiL1Tick tick = testkit::l1_tick(2, "600000", 100000, 10.0f);
  tick.board_kind = 3;
  SetFloat(tick.board_value1, 18.0f);
  SetFloat(tick.board_value2, 1.5f);
  SetFloat(tick.board_value3, 2.5f);
  Tick(tick);
  tick.board_kind = 5;
  Tick(tick);
  auto got = fx_.received();
  const auto& kind3 = AllData(got[0].records[1]);
  EXPECT_EQ(kind3.tradingPhase, 18u);
  EXPECT_DOUBLE_EQ(kind3.extValue1, 1.5);
  EXPECT_DOUBLE_EQ(kind3.extValue2, 2.5);
  EXPECT_DOUBLE_EQ(AllData(got[1].records[1]).pe, 1.5);
}

TEST_F(L1TickTest, AfterHoursRecordsAndTheClosingPeriod) {
  fx_.subscribe("SH", "600000", 3000);
  ApiL1Tick tick = testkit::l1_tick(2, "600000", 150000, 10.0f);
  tick.board_kind = 8;
  SetFloat(tick.board_value1, 10.123f);
  SetInt(tick.board_value2, 7);
  SetInt(tick.board_value3, 1234);
  tick.after_hours_turnover = 12345.0f;
  tick.after_hours_ask_volume = 50;
  tick.after_hours_bid_volume = 250;
  for (uint32_t t : {150005u, 150010u, 150011u, 152959u, 153000u, 153005u, 153006u}) {
    tick.after_hours_time = t;
    Tick(tick);
  }
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 7u);
  const size_t sizes[] = {2, 2, 1, 1, 2, 2, 2};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(got[i].records.size(), sizes[i]) << i;
  const auto& b = AllData(got[2].records[0]);
  EXPECT_EQ(b.tradingPhase, 22u);
  EXPECT_EQ(b.volume, 12);
  EXPECT_EQ(b.rawVolume, 1234);
  EXPECT_EQ(b.tradeCount, 7u);
  EXPECT_DOUBLE_EQ(b.amount, 12345.0);
  EXPECT_DOUBLE_EQ(b.askPrice[0], 10.12);
  EXPECT_DOUBLE_EQ(b.bidPrice[0], 10.12);
  EXPECT_EQ(b.askVol[0], 1);
  EXPECT_EQ(b.bidVol[0], 2);
  EXPECT_EQ(b.askVol[1], 0);
  EXPECT_DOUBLE_EQ(b.lastPrice, 10.0);  // the regular fields come from A
  EXPECT_EQ(AllData(got[6].records[0]).time, 0);  // out of the window: empty B
}

TEST_F(L1TickTest, DroppedSnapshotsChangeNothing) {
  fx_.subscribe("SH", "600000", 3000);
  Tick(testkit::l1_tick(2, "999999", 100000, 10.0f));
  Tick(testkit::l1_tick(3, "600000", 100000, 10.0f));
  Tick(testkit::l1_tick(5, "cu2401", 100000, 10.0f));  // SQ not initialised
  EXPECT_TRUE(fx_.received().empty());
  EXPECT_TRUE(fx_.log().contains("[ApiL1Tick] Code 999999 not exist..."));
  EXPECT_TRUE(fx_.log().contains("[ApiL1Tick] 市场[]不存在....."));
  EXPECT_TRUE(fx_.log().contains("[ApiL1Tick]市场[SQ]正在初始化，忽略该条tick数据..."));
}

// Whole-market packages.
std::vector<uint8_t> Package(uint16_t market, const std::vector<ApiL1Tick>& ticks) {
  return testkit::reply(ApiMarketPushHead{market, static_cast<int32_t>(ticks.size())}, ticks);
}

TEST_F(L1TickTest, PackagesSplitMainAndOptionInstruments) {
  std::vector<std::pair<int, size_t>> got;
  QuoteMap last_primary;
  fx_.client().add_mkt_push_info(2, [&](const QuoteMap& map) {
    got.push_back({2, map.size()});
    last_primary = map;
  });
  fx_.client().add_mkt_push_info(102, [&](const QuoteMap& map) { got.push_back({102, map.size()}); });
  fx_.deliver(5, Package(2, {testkit::l1_tick(2, "600000", 100000, 10.0f), testkit::l1_tick(2, "10004567", 100000, 0.5f),
                             testkit::l1_tick(2, "700000", 100000, 1.0f)}));
  EXPECT_EQ(got, (std::vector<std::pair<int, size_t>>{{2, 1}, {102, 1}}));
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp] Code 700000.SH not exist..."));
  EXPECT_DOUBLE_EQ(AllData(last_primary.at("600000")).lastPrice, 10.0);
  EXPECT_FALSE(fx_.log().contains("Start market"));

  got.clear();
  ApiL1Tick invalid = testkit::l1_tick(2, "600000", 100000, 0.0f);
  invalid.pre_close = 0;
  fx_.deliver(5, Package(2, {invalid}));
  EXPECT_TRUE(got.empty());
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp] Code 600000 receive invalide price [0.00, 0.00]..."));
}

TEST_F(L1TickTest, HongKongPackagesReachBothConnectMarketsWhateverTheFirstHostDoes) {
  std::vector<int> ids;
  fx_.client().add_mkt_push_info(10, [&](const QuoteMap&) {
    ids.push_back(10);
    throw std::runtime_error("host failure");
  });
  fx_.client().add_mkt_push_info(110, [&](const QuoteMap&) { ids.push_back(110); });
  fx_.deliver(5, Package(10, {testkit::l1_tick(10, "00700", 100000, 300.0f)}));
  EXPECT_EQ(ids, (std::vector<int>{10, 110}));
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp] Once more for market SGT[110] package[1]....."));
  EXPECT_TRUE(fx_.log().contains("数据服务线程, do bussiness catch Exception!!!..."));
  // A count equal to the market's instrument count is a full package, but not on HK.
  EXPECT_FALSE(fx_.log().contains("Start market"));
}

TEST_F(L1TickTest, FullPackagesLogStartAndCostAndAfterHoursStayOut) {
  int packages = 0;
  fx_.client().add_mkt_push_info(2, [&](const QuoteMap& map) {
    ++packages;
    EXPECT_EQ(map.size(), 1u);
  });
  ApiL1Tick late = testkit::l1_tick(2, "600000", 150000, 10.0f);
  late.board_kind = 8;
  late.after_hours_time = 150500;
  ApiL1Tick option = testkit::l1_tick(2, "10004567", 100000, 0.5f);
  fx_.deliver(5, Package(2, {late, option}));  // 2 == the market's instrument count
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp] Start market [SH] package[2, "));
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp] Complete market [SH] package[2], cost ["));
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp] return 600000.SH after hour data["));
  EXPECT_EQ(fx_.log().count("[ApiMarketPushResp] 返回600000.SH #"), 5u);  // record A's levels, none of B's
  EXPECT_EQ(packages, 0);  // the main instrument was left out, the option went to 102

  late.after_hours_time = 153001;  // from 153000 on: inserted as the regular record
  fx_.deliver(5, Package(2, {late}));
  EXPECT_EQ(packages, 1);
}

TEST_F(L1TickTest, APackageMeetingAnInitialisingMarketDeliversNothing) {
  int packages = 0;
  fx_.client().add_mkt_push_info(2, [&](const QuoteMap&) { ++packages; });
  fx_.mgr().markets().find("SH")->ref_info_ready = false;
  fx_.deliver(5, Package(2, {testkit::l1_tick(2, "600000", 100000, 10.0f)}));
  EXPECT_EQ(packages, 0);
  EXPECT_TRUE(fx_.log().contains("[ApiMarketPushResp]市场[SH]正在初始化，忽略该组tick数据[True,False]..."));
}

// Snapshots of one instrument reach each of its subscribers exactly once and
// in the vendor's order, at market breadth and however many service threads
// run, and the totals stay exact. The instruments tick once before anyone
// subscribes, so what the service threads kept of them must see the
// subscriptions that follow.
TEST(L1OrderingTest, EachInstrumentKeepsTheVendorsOrder) {
  testkit::MarketFixture fx;
  constexpr int kInstruments = 5000;
  constexpr int kTicks = 6;
  std::vector<ApiCodeInit> codes;
  for (int i = 0; i < kInstruments; ++i) codes.push_back(testkit::code_init(std::to_string(600000 + i), "x", 2, 100));
  fx.init_market(2, codes, 10, 1);
  fx.mgr().set_processor_count(4);
  ASSERT_TRUE(fx.mgr().start());
  // Cumulative volume grows by 100 shares (one lot) per snapshot; none before the first.
  auto round = [&](int n) {
    for (int i = 0; i < kInstruments; ++i) {
      ApiL1Tick tick = testkit::l1_tick(2, std::to_string(600000 + i), 93000 + n % 60, 10.0f + n % 3, 100.0f * n);
      fx.mgr().callback()->OnTickL1(&tick);
    }
  };
  round(0);
  ASSERT_TRUE(fx.mgr().wait_idle(20000));
  std::map<int, int> instrument_of;
  for (int i = 0; i < kInstruments; ++i) {
    for (int twice = 0; twice < 2; ++twice) instrument_of[fx.subscribe("SH", std::to_string(600000 + i), 4002)] = i;
  }
  std::thread vendor([&] {
    for (int n = 1; n <= kTicks; ++n) round(n);
  });
  vendor.join();
  // Generous: under ThreadSanitizer the 60,000 deliveries take many seconds.
  ASSERT_TRUE(fx.mgr().wait_idle(120000));
  std::map<int, std::vector<int64_t>> totals;
  for (const auto& r : fx.received()) {
    auto bs = std::dynamic_pointer_cast<quoter::BuySellData>(r.records.at(0));
    totals[r.id].push_back(bs->buyVolume + bs->sellVolume);
  }
  ASSERT_EQ(totals.size(), instrument_of.size());
  for (auto& [id, sums] : totals) {
    ASSERT_EQ(sums.size(), static_cast<size_t>(kTicks)) << id;
    // Totals add the cumulative lots n at snapshot n: 1, 3, 6, ... in order.
    for (int n = 1; n <= kTicks; ++n) ASSERT_EQ(sums[n - 1], int64_t{n} * (n + 1) / 2) << instrument_of[id] << " " << n;
  }
}

// So do a market's packages and an instrument's level-2 messages, also when
// a vendor's message mixes instruments: instrument j < 3 comes in messages
// with j + 3, which comes alone too.
TEST(L1OrderingTest, PackagesAndLevel2KeepTheVendorsOrder) {
  testkit::MarketFixture fx;
  std::vector<ApiCodeInit> codes;
  for (int i = 0; i < 6; ++i) codes.push_back(testkit::code_init(std::to_string(600000 + i), "x", 2, 100));
  fx.init_market(2, codes, 10, 1);
  fx.init_market(1, {testkit::code_init("000001", "x", 2, 100)}, 10, 1);
  fx.mgr().set_processor_count(4);
  ASSERT_TRUE(fx.mgr().start());
  std::vector<int> trades;
  for (int i = 0; i < 6; ++i) trades.push_back(fx.subscribe("SH", std::to_string(600000 + i), 1801));
  std::mutex mu;
  std::map<int, std::vector<double>> packages;
  for (int market : {1, 2}) {
    fx.client().add_mkt_push_info(static_cast<short>(market), [&, market](const QuoteMap& map) {
      std::lock_guard<std::mutex> lock(mu);
      for (const auto& [code, record] : map) {
        packages[market].push_back(std::dynamic_pointer_cast<quoter::QuoterAllData>(record)->lastPrice);
      }
    });
  }
  constexpr int kRounds = 300;
  std::thread vendor([&] {
    auto trade = [](int j, int number) {
      auto t = testkit::level2_record<ApiL2Transaction>(2, std::to_string(600000 + j).c_str(), 20240102, 93000000);
      t.price = 100000;
      t.volume = 100;
      t.number1 = static_cast<uint32_t>(number * 10 + j);  // the sequence, then whose
      return t;
    };
    for (int n = 1; n <= kRounds; ++n) {
      for (int j = 0; j < 3; ++j) {
        auto mixed = testkit::level2(std::vector<ApiL2Transaction>{trade(j, 2 * n), trade(j + 3, 2 * n)});
        fx.mgr().callback()->OnTransL2(mixed.data());
        fx.mgr().callback()->OnTransL2(testkit::level2(std::vector<ApiL2Transaction>{trade(j + 3, 2 * n + 1)}).data());
      }
      auto sh = Package(2, {testkit::l1_tick(2, "600000", 100000, static_cast<float>(n))});
      auto sz = Package(1, {testkit::l1_tick(1, "000001", 100000, static_cast<float>(n))});
      fx.mgr().callback()->OnRespMarketPushData(sh.data());
      fx.mgr().callback()->OnRespMarketPushData(sz.data());
    }
  });
  vendor.join();
  ASSERT_TRUE(fx.mgr().wait_idle(20000));
  std::map<int, std::vector<uint32_t>> numbers;
  for (const auto& r : fx.received()) {
    for (const auto& record : r.records) {
      auto t = std::dynamic_pointer_cast<quoter::TransactionData>(record);
      if (t != nullptr && trades[t->number1 % 10] == r.id) numbers[r.id].push_back(t->number1 / 10);
    }
  }
  ASSERT_EQ(numbers.size(), trades.size());
  for (int j = 0; j < 6; ++j) {
    const std::vector<uint32_t>& seen = numbers[trades[j]];
    ASSERT_EQ(seen.size(), static_cast<size_t>(j < 3 ? kRounds : 2 * kRounds)) << j;
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end(), std::less_equal<uint32_t>())) << j;
  }
  std::lock_guard<std::mutex> lock(mu);
  for (int market : {1, 2}) {
    ASSERT_EQ(packages[market].size(), static_cast<size_t>(kRounds)) << market;
    for (int n = 1; n <= kRounds; ++n) ASSERT_DOUBLE_EQ(packages[market][n - 1], n) << market;
  }
}

}  // namespace
}  // namespace tavr
