#include <chrono>
#include <thread>

#include "history/his_convert.h"
#include "history/history_test.h"
#include "realtime/l1_convert.h"

namespace tavr {
namespace {

ApiHisBar Bar(int32_t date, int32_t time, int32_t close, int64_t volume = 100) {
  ApiHisBar bar{};
  bar.date = date;
  bar.time = time;
  bar.open = bar.high = bar.low = bar.close = close;
  bar.volume = volume;
  return bar;
}

ApiHisTickL1 Level1(int32_t time, int32_t last, int64_t volume) {
  ApiHisTickL1 e{};
  e.date = 20240919;
  e.time = time;
  e.last = e.open = e.high = e.low = last;
  e.volume = volume;
  return e;
}

template <typename Record>
const Record& As(const QuoteRecords& records, size_t i) {
  return dynamic_cast<const Record&>(*records.at(i));
}

// Through the vendor callback and the queue, with the service threads running.
TEST_F(HistoryTest, BlocksReachTheHostInArrivalOrderAndTheLastEndsTheRequest) {
  int16_t id = host_request("SH", "600000", 3001, kMinute, ms(20240919, 93000), ms(20240919, 150000));
  const int kBlocks = 12;
  for (int b = 0; b <= kBlocks; ++b) {  // the one after the last is a stray
    std::vector<ApiHisBar> bars(20, Bar(20240919, 93000 + b * 100, 100000));
    auto bytes = testkit::his_bars(id, 2, "600000", 7, b >= kBlocks - 1, bars);
    ASSERT_EQ(fx_.mgr().callback()->OnRespHisData(bytes.data()), 0);
  }
  ASSERT_TRUE(fx_.mgr().wait_idle(5000));
  auto d = deliveries();
  ASSERT_EQ(d.size(), static_cast<size_t>(kBlocks));
  for (int b = 0; b < kBlocks; ++b) {
    EXPECT_EQ(d[b].status, se::kQuoteData);
    EXPECT_EQ(d[b].tag, b == kBlocks - 1 ? se::kArrivedLast : se::kArrivedPartial);
    ASSERT_EQ(d[b].records.size(), 20u);
    EXPECT_EQ(As<quoter::KLineData>(d[b].records, 19).time, ms(20240919, 93100 + b * 100));
  }
  std::string n = std::to_string(id);
  EXPECT_EQ(fx_.log().count("[DvDataMgr::on_reply_data]: [ApiL1NewHisTickResp][id=" + n + "] info 1, 1!"), 11u);
  EXPECT_TRUE(logged(LOG_INFO, "[ApiHisDataRsp] [id=" + n + "] Received 600000.SH Kline data 20 bars[Last], cost (0 ms)"));
  EXPECT_TRUE(logged(LOG_INFO, "[ApiHisDataRsp] [id=" + n + "] Return 600000.SH Kline data 20 bars...."));
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiHisDataRsp][id=" + n + "] not found corresponding record!"));
  // The tick handlers speak with their own tags.
  fx_.deliver(12, testkit::his_ticks<ApiHisTickKcbResp>(999, 1, "300001", true, std::vector<ApiHisTickKcb>{{}}));
  fx_.deliver(11, testkit::his_ticks<ApiL1NewHisTickResp>(999, 1, "300001", true, std::vector<ApiHisTickL1>{{}}));
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiHisTickKcbResp][id=999] not found corresponding record!"));
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiL1NewHisTickResp][id=999] not found corresponding record!"));
}

// One-minute bars take the end of their minute; trades of a bar block run
// the day's volume and amount on, and start again with a new date.
TEST_F(HistoryTest, BarBlocksConvertByTheirType) {
  int16_t id = host_request("SH", "600000", 3001, kMinute, ms(20240919, 93000), ms(20240919, 150000));
  const int32_t starts[] = {93000, 112900, 113000, 125900, 130000, 145900, 235900};
  const int32_t stamps[] = {93100, 113000, 130100, 130100, 130100, 150000, 240000};
  std::vector<ApiHisBar> bars;
  for (int32_t t : starts) bars.push_back(Bar(20240919, t, 100000));
  bars[0].open = 123456;
  bars[0].low = -5;
  bars[0].volume = 12345;
  bars[0].amount = 987654321;
  bars[0].extra = -7;
  fx_.deliver(13, testkit::his_bars(id, 2, "600000", 7, false, bars));

  std::vector<ApiHisBarTick> ticks(3);
  const int32_t dates[] = {20240918, 20240918, 20240919};
  const uint32_t volumes[] = {100, 200, 50};
  for (int i = 0; i < 3; ++i) ticks[i] = ApiHisBarTick{dates[i], 93000 + i, 0, 100000 + 10000 * i, 13 + i, volumes[i]};
  fx_.deliver(13, testkit::his_bars(id, 2, "600000", 14, true, ticks));

  auto d = deliveries();
  ASSERT_EQ(d.size(), 2u);
  ASSERT_EQ(d[0].records.size(), bars.size());
  for (size_t i = 0; i < bars.size(); ++i) {
    EXPECT_EQ(As<quoter::KLineData>(d[0].records, i).time, ms(20240919, stamps[i])) << starts[i];
  }
  const auto& k = As<quoter::KLineData>(d[0].records, 0);
  EXPECT_DOUBLE_EQ(k.open, 12.3456);  // bars are not rounded
  EXPECT_DOUBLE_EQ(k.low, -0.0005);
  EXPECT_EQ(k.volume, 123);
  EXPECT_EQ(k.amount, 987654321.0);
  EXPECT_EQ(k.extValue, -7);
  EXPECT_TRUE(logged(LOG_DEBUG, "[ApiHisDataRsp] id(" + std::to_string(id) +
                                    ") insert line #3[7]: 20240919113000(130100) [20240919093000 - 20240919150000]...."));

  ASSERT_EQ(d[1].records.size(), 3u);
  const int64_t raw[] = {100, 300, 50}, lots[] = {1, 3, 0};
  const double amounts[] = {1000, 1000 + 300 * 11.0, 50 * 12.0};
  for (int i = 0; i < 3; ++i) {
    const auto& r = As<DravikQuoterAllData>(d[1].records, i);
    EXPECT_EQ(r.time, ms(dates[i], 93000 + i));
    EXPECT_EQ(r.rawVolume, raw[i]);
    EXPECT_EQ(r.volume, lots[i]);
    EXPECT_DOUBLE_EQ(r.amount, amounts[i]);
    EXPECT_EQ(r.lowPrice, 10 + i);
    EXPECT_EQ(r.tradingPhase, static_cast<uint32_t>(13 + i));
    EXPECT_EQ(r.extValue1, 13.0 + i);
  }
}

TEST_F(HistoryTest, TicksAreRoundedHalfAwayFromZeroAndTheFirstSkippedOneEndsTheBlock) {
  int16_t id = host_request("SH", "600000", 3000, 0, ms(20240919, 93000), ms(20240919, 150000));
  ApiHisTickL1 first = Level1(93000123, 100050, 12345);
  first.open = 99950;
  first.pre_close = -100050;
  first.settle = 123456;
  first.trade_count = 77;
  const int32_t depth[] = {50, 0, 250, 100, 101}, lots[] = {1, 0, 2, 1, 1};
  for (int l = 0; l < 5; ++l) {
    first.bid_volume[l] = depth[l];
    first.bid_price[l] = 100000 - 100 * l;
  }
  ApiHisTickL1 repeat = Level1(150030000, 101000, 20000 + (int64_t{1} << 32));  // the same low 32 bits
  std::vector<ApiHisTickL1> block1 = {first, Level1(145959000, 101000, 20000), repeat, Level1(100000000, 1, 1)};
  fx_.deliver(11, testkit::his_ticks<ApiL1NewHisTickResp>(id, 2, "600000", false, block1));
  ApiHisTickL1 given = Level1(93500000, 101500, 20500);
  given.status = 12;
  std::vector<ApiHisTickL1> block2 = {Level1(150030000, 101500, 20500), given, Level1(170000000, 1, 1),
                                      Level1(100000000, 1, 1)};
  fx_.deliver(11, testkit::his_ticks<ApiL1NewHisTickResp>(id, 2, "600000", true, block2));

  auto d = deliveries();
  ASSERT_EQ(d.size(), 2u);
  ASSERT_EQ(d[0].records.size(), 2u);
  ASSERT_EQ(d[1].records.size(), 2u);
  const auto& r = As<DravikQuoterAllData>(d[0].records, 0);
  EXPECT_EQ(r.time, ms(20240919, 93000));
  EXPECT_DOUBLE_EQ(r.lastPrice, 10.01);
  EXPECT_DOUBLE_EQ(r.openPrice, 10.0);
  EXPECT_DOUBLE_EQ(r.lastClose, -10.01);
  EXPECT_DOUBLE_EQ(r.settlePrice, 12.35);
  EXPECT_EQ(r.volume, 123);
  EXPECT_EQ(r.rawVolume, 12345);
  EXPECT_EQ(r.tradeCount, 77u);
  EXPECT_EQ(r.tradingPhase, 13u);
  for (int l = 0; l < 5; ++l) {
    EXPECT_EQ(r.bidVol[l], lots[l]);
    EXPECT_DOUBLE_EQ(r.bidPrice[l], 10.0 - 0.01 * l);
  }
  // After the close a tick that changed is stamped 15:00:00.
  EXPECT_EQ(As<DravikQuoterAllData>(d[1].records, 0).time, ms(20240919, 150000));
  EXPECT_EQ(As<DravikQuoterAllData>(d[1].records, 0).tradingPhase, 15u);
  EXPECT_EQ(As<DravikQuoterAllData>(d[1].records, 1).tradingPhase, 12u);

  id = host_request("SZ", "300001", 3000, 0, ms(20240919, 150000), ms(20240919, 153000));
  std::vector<ApiHisTickKcb> late(2);
  const int32_t bids[] = {50, 0}, bid_lots[] = {1, 0};
  for (int i = 0; i < 2; ++i) {
    late[i].date = 20240919;
    late[i].time = 150500123;
    late[i].price = 123455;
    late[i].volume = 12345;
    late[i].bid_volume = bids[i];
    late[i].ask_volume = 250;
  }
  fx_.deliver(12, testkit::his_ticks<ApiHisTickKcbResp>(id, 1, "300001", true, late));
  d = deliveries();
  ASSERT_EQ(d.size(), 3u);
  ASSERT_EQ(d[2].records.size(), 2u);
  for (int i = 0; i < 2; ++i) {
    const auto& a = As<DravikQuoterAllData>(d[2].records, i);
    EXPECT_EQ(a.time, ms(20240919, 150500));
    EXPECT_DOUBLE_EQ(a.lastPrice, 12.346);  // three decimals
    EXPECT_EQ(a.bidPrice[0], a.lastPrice);
    EXPECT_EQ(a.bidVol[0], bid_lots[i]);
    EXPECT_EQ(a.askVol[0], 2);
    EXPECT_EQ(a.volume, 123);
    EXPECT_EQ(a.tradingPhase, 22u);
  }
}

TEST(HistoryPriceTest, RoundsHalfAwayFromZeroAtEveryPrecision) {
  const struct {
    int64_t units;
    int digits;
    double price;
  } cases[] = {{125000, 0, 13},       {-125000, 0, -13},      {124999, 0, 12},        {123500, 1, 12.4},
               {-123500, 1, -12.4},   {123499, 1, 12.3},      {123450, 2, 12.35},     {-123450, 2, -12.35},
               {123449, 2, 12.34},    {123455, 3, 12.346},    {-123455, 3, -12.346},  {123454, 3, 12.345},
               {-123455, 4, -12.3455}, {123455, 5, 12.3455}};
  for (const auto& c : cases) EXPECT_EQ(his_price(c.units, c.digits), c.price) << c.units << " to " << c.digits;
}

TEST_F(HistoryTest, BadBlocksAreLoggedAndReadNoFurtherThanTheirBytes) {
  int16_t id = host_request("SH", "600000", 3001, kDay, ms(20240101, 0), ms(20240201, 0));
  std::string n = std::to_string(id);
  // A count beyond the bytes: what is there is converted.
  auto bytes = testkit::his_bars(id, 2, "600000", 1, false, std::vector<ApiHisBar>(2, Bar(20240102, 0, 1)));
  bytes[50] = 5;
  fx_.deliver(13, bytes);
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiHisDataRsp] [id=" + n + "] Count 5 does not match the 2 elements received, 2 converted...."));
  bytes[50] = 0xFD;  // -3
  bytes[51] = bytes[52] = bytes[53] = 0xFF;
  fx_.deliver(13, bytes);
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiHisDataRsp] [id=" + n + "] Count -3 does not match the 2 elements received, 0 converted...."));
  fx_.deliver(13, testkit::his_bars(id, 2, "600000", 9, false, std::vector<ApiHisBar>{Bar(20240102, 0, 1)}));
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiHisDataRsp] [id=" + n + "] Unknown Kline type 9, no bar converted...."));
  // Dropped: unknown market, unknown code, a block shorter than its head.
  fx_.deliver(13, testkit::his_bars(id, 77, "600000", 1, true, std::vector<ApiHisBar>{Bar(20240102, 0, 1)}));
  fx_.deliver(12, testkit::his_ticks<ApiHisTickKcbResp>(id, 2, "999999", true, std::vector<ApiHisTickKcb>{{}}));
  fx_.deliver(11, std::vector<uint8_t>(10, 0));
  EXPECT_TRUE(logged(LOG_ERROR, "[DvDataMgr::on_reply_data]: [ApiHisDataRsp] 市场[]不存在....."));
  EXPECT_TRUE(logged(LOG_ERROR, "[DvDataMgr::on_reply_data]: [ApiHisTickKcbResp] Code 999999 not exist..."));
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiL1NewHisTickResp] Block of 10 bytes too short, dropped...."));
  // Nothing else was lost: the request still ends.
  fx_.deliver(13, testkit::his_bars(id, 2, "600000", 1, true, std::vector<ApiHisBar>{Bar(20240104, 0, 1)}));
  auto d = deliveries();
  ASSERT_EQ(d.size(), 4u);
  const size_t sizes[] = {2, 0, 0, 1};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(d[i].records.size(), sizes[i]);
  EXPECT_EQ(d[3].tag, se::kArrivedLast);
}

TEST_F(HistoryTest, ABlockWaitsForItsMarketAndGivesUpAfterTwentyWaits) {
  int16_t id = host_request("SH", "600000", 3001, kDay, ms(20240101, 0), ms(20240201, 0));
  auto block = testkit::his_bars(id, 7, "a2501", 1, false, std::vector<ApiHisBar>{Bar(20240102, 0, 1)});
  fx_.deliver(13, block);
  EXPECT_EQ(fx_.log().count("[[ApiHisDataRsp]]DL-0信息正初始化"), 1u);
  fx_.mgr().age_parked(std::chrono::steady_clock::time_point::max());
  EXPECT_EQ(fx_.log().count("[[ApiHisDataRsp]]DL-0信息正初始化"), 20u);
  EXPECT_EQ(fx_.log().count("[[ApiHisDataRsp]]DL-0信息正初始化，等待1000ms后开始处理![#20]"), 1u);
  EXPECT_TRUE(logged(LOG_ERROR, "[ApiHisDataRsp]市场[DL]初始化失败，无法获取代码信息..."));
  EXPECT_TRUE(deliveries().empty());

  // A block queued before its market's initialisation waits for it, while
  // the replies behind it initialise the market.
  const std::vector<ApiCodeInit> codes = {testkit::code_init("a2501", "A", 0, 10)};
  CMyCallBackPro& vendor = *fx_.mgr().callback();
  ASSERT_EQ(vendor.OnRespHisData(block.data()), 0);
  ASSERT_TRUE(fx_.log().wait_for("[[ApiHisDataRsp]]DL-0信息正初始化，等待400ms![#1]", 2));
  ASSERT_EQ(vendor.OnMarketInit(testkit::market_init(7, 20240919, codes).data()), 0);
  ASSERT_EQ(vendor.OnRespRefInfo(testkit::ref_info(7, codes, 0, 1).data()), 0);
  ASSERT_TRUE(fx_.mgr().wait_idle(10000));
  auto d = deliveries();
  ASSERT_EQ(d.size(), 1u);
  EXPECT_EQ(d[0].records.size(), 1u);
}

}  // namespace
}  // namespace tavr
