#include <cstring>

#include <gtest/gtest.h>

#include "testkit/market_fixture.h"
#include "utils/utils.h"

namespace tavr {
namespace {

class Level2Test : public ::testing::Test {
 protected:
  Level2Test() {
    fx_.init_market(2, {testkit::code_init("600000", "浦发银行", 2, 100), testkit::code_init("600001", "x", 2, 100)}, 10, 2);
  }

  ApiL2Snapshot Snapshot(int64_t last) {
    auto s = testkit::level2_record<ApiL2Snapshot>(2, "600000", 20240102, 100000);
    s.last = last;
    s.high = last + 10000;
    s.open = s.low = s.pre_close = last;
    for (int i = 0; i < 10; ++i) {
      s.ask_price[i] = last + 100 * (i + 1);
      s.ask_volume[i] = 50 + 100 * i;
      s.bid_price[i] = last - 100 * (i + 1);
      s.bid_volume[i] = 250;
    }
    s.volume = 12345;
    s.turnover = 999;
    s.trade_count = 3;
    return s;
  }
  ApiL2Transaction Trade(int64_t price, int32_t time) {
    auto t = testkit::level2_record<ApiL2Transaction>(2, "600000", 20240102, time);
    t.price = price;
    t.volume = 300;
    t.amount = price * 300;
    t.flag1 = 'B';
    t.flag2 = 1;
    t.number1 = 11;
    t.number2 = 22;
    return t;
  }

  testkit::MarketFixture fx_;
};

TEST_F(Level2Test, SnapshotsTruncateTenThousandthsAndGoToDepthSubscribersOnly) {
  int depth = fx_.subscribe("SH", "600000", 1010);
  fx_.subscribe("SH", "600000", 1801);
  fx_.subscribe("SH", "600000", 1011);
  fx_.subscribe("SH", "600000", 3000);
  fx_.deliver(6, testkit::level2(std::vector<ApiL2Snapshot>{Snapshot(105500)}));
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].id, depth);
  auto r = std::dynamic_pointer_cast<quoter::QuoterDepthData>(got[0].records.at(0));
  ASSERT_NE(r, nullptr);
  EXPECT_DOUBLE_EQ(r->lastPrice, 10.0);  // 105500 -> 10, not 10.55
  EXPECT_DOUBLE_EQ(r->highPrice, 11.0);
  EXPECT_DOUBLE_EQ(r->askPrice[0], 10.0);
  EXPECT_EQ(r->askVol[0], 0);  // below one lot: 0, no minimum
  EXPECT_EQ(r->askVol[1], 1);
  EXPECT_EQ(r->bidVol[9], 2);
  EXPECT_EQ(r->volume, 123);
  EXPECT_EQ(r->rawVolume, 12345);
  EXPECT_EQ(r->tradeCount, 3u);
  EXPECT_DOUBLE_EQ(r->pe, 5.0);

  // Index snapshots: the same conversion without depth, under their own name.
  auto index = testkit::level2_record<ApiL2Index>(2, "600000", 20240102, 100000);
  index.last = 123456789;
  index.volume = 500;
  fx_.deliver(7, testkit::level2(std::vector<ApiL2Index>{index}));
  got = fx_.received();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1].id, depth);
  auto i = std::dynamic_pointer_cast<quoter::QuoterDepthData>(got[1].records.at(0));
  ASSERT_NE(i, nullptr);
  EXPECT_DOUBLE_EQ(i->lastPrice, 12345.0);
  EXPECT_EQ(i->volume, 5);
  EXPECT_DOUBLE_EQ(i->pe, 6172.5);
  EXPECT_TRUE(fx_.log().contains("[DvDataMgr::on_reply_data_l2_tick_index]: [100000]返回600000.SH 数据: price[0.00, 0.00, 0.00, 12345.00"));
}

TEST_F(Level2Test, InvalidPricesFallBackToTheReferenceClose) {
  fx_.subscribe("SH", "600000", 1010);
  ApiL2Snapshot s = Snapshot(0);
  s.high = 0;
  fx_.deliver(6, testkit::level2(std::vector<ApiL2Snapshot>{s}));
  auto r = std::dynamic_pointer_cast<quoter::QuoterDepthData>(fx_.received().at(0).records.at(0));
  // The reference close, then the first-side price (100 ten-thousandths -> 0).
  EXPECT_DOUBLE_EQ(r->lastPrice, 10.0);
  EXPECT_DOUBLE_EQ(r->lastClose, 0.0);
}

TEST_F(Level2Test, TradesOfAMessageGoOutTogether) {
  int trades = fx_.subscribe("SH", "600000", 1801);
  fx_.subscribe("SH", "600000", 1802);
  int other = fx_.subscribe("SH", "600001", 1801);
  ApiL2Transaction b = Trade(106000, 93001000);
  testkit::set_text(b.code, "600001");
  fx_.deliver(8, testkit::level2(std::vector<ApiL2Transaction>{Trade(105500, 93000123), b, Trade(107000, 93002000)}));
  // One vector of the whole message, once to each instrument's subscribers.
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].id, trades);
  EXPECT_EQ(got[1].id, other);
  ASSERT_EQ(got[0].records.size(), 3u);
  EXPECT_EQ(got[1].records, got[0].records);
  auto t = std::dynamic_pointer_cast<quoter::TransactionData>(got[0].records[0]);
  EXPECT_DOUBLE_EQ(t->price, 10.0);
  EXPECT_EQ(t->volume, 300);
  EXPECT_DOUBLE_EQ(t->amount, 3165.0);  // 31650000 / 10000, whole
  EXPECT_EQ(t->time, utils::timeToMilliseconds(20240102, 93000) + 123);
  EXPECT_EQ(t->number1, 11u);
  EXPECT_EQ(t->flag1, 'B');
  EXPECT_TRUE(fx_.log().contains("[DvDataMgr::on_reply_data_l2_transaction]: #[2]:10.000000,300,3180.000000,11,22,1,66,time="));
}

TEST_F(Level2Test, OrdersAndQueuesReachTheirOwnDataTypes) {
  int orders = fx_.subscribe("SH", "600000", 1802);
  int queues = fx_.subscribe("SH", "600000", 1804);
  fx_.subscribe("SH", "600000", 1803);
  auto order = testkit::level2_record<ApiL2Order>(2, "600000", 20240102, 93000500);
  order.number1 = -7;
  order.price = 99999;
  order.volume = 100;
  fx_.deliver(9, testkit::level2(std::vector<ApiL2Order>{order}));
  auto queue = testkit::level2_record<ApiL2OrderQueue>(2, "600000", 20240102, 93000500);
  queue.side = 1;
  queue.price = 100000;
  queue.volume = 5000;
  queue.order_count = 40;
  queue.listed = 99;  // more than a record holds: clamped
  queue.orders[35] = 77;
  fx_.deliver(10, testkit::level2(std::vector<ApiL2OrderQueue>{queue}));
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].id, orders);
  auto o = std::dynamic_pointer_cast<quoter::OrderData>(got[0].records.at(0));
  EXPECT_DOUBLE_EQ(o->price, 9.0);
  EXPECT_EQ(o->number1, -7);
  EXPECT_EQ(got[1].id, queues);
  auto q = std::dynamic_pointer_cast<quoter::LevelOrderData>(got[1].records.at(0));
  EXPECT_EQ(q->listed, 36);
  EXPECT_EQ(q->orders[35], 77);
  EXPECT_DOUBLE_EQ(q->volume, 5000.0);
  EXPECT_TRUE(fx_.log().contains("[DvDataMgr::on_reply_data_l2_order_queue]: #[1]:10.000000,5000.000000,40,36,time="));
}

TEST_F(Level2Test, BadRecordsAreSkippedOneByOne) {
  fx_.subscribe("SH", "600000", 1801);
  ApiL2Transaction unknown_market = Trade(105500, 93000000);
  unknown_market.market_id = 4;
  ApiL2Transaction unknown_code = Trade(105500, 93000000);
  testkit::set_text(unknown_code.code, "000000");
  auto bytes = testkit::level2(std::vector<ApiL2Transaction>{unknown_market, unknown_code, Trade(105500, 93000000)});
  int32_t claimed = 1000;  // more than the copy holds
  std::memcpy(bytes.data() + 4, &claimed, 4);
  fx_.deliver(8, bytes);
  auto got = fx_.received();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].records.size(), 1u);
  EXPECT_TRUE(fx_.log().contains("Not found market:,iMarketID=4"));
  EXPECT_TRUE(fx_.log().contains("[DvDataMgr::on_reply_data_l2_transaction]: Code 000000 not exist..."));
}

}  // namespace
}  // namespace tavr
