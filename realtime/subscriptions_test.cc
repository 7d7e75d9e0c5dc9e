#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "testkit/fake_api.h"
#include "testkit/market_fixture.h"

namespace tavr {
namespace {

quoter::TSMetaInfo Request(const char* code, int32_t data_type) {
  quoter::TSMetaInfo meta;
  meta.code = code;
  meta.metaId = data_type;
  return meta;
}

class SubscriptionsTest : public ::testing::Test {
 protected:
  DvDataMgr& mgr() { return fx_.mgr(); }
  testkit::FakeDataApi& api() { return fx_.api(); }
  uint32_t count() { return mgr().subscriptions().subscribed_count.load(); }

  testkit::MarketFixture fx_;
};

TEST_F(SubscriptionsTest, SharedInstrumentsSubscribeEveryTimeAndCancelWithTheLast) {
  uint16_t first = mgr().request_tick_push(Request("600000", 3000), "SH");
  uint16_t second = mgr().request_tick_push(Request("600000", 3000), "SH");
  EXPECT_EQ(first, 21);
  EXPECT_EQ(second, 22);
  EXPECT_EQ(api().count("SubscribeL1"), 2u);
  EXPECT_EQ(count(), 1u);
  auto item = testkit::record_of<ApiCodeItem>(api().calls("SubscribeL1")[0]);
  EXPECT_STREQ(item.code, "600000");
  EXPECT_EQ(item.market, 2);
  EXPECT_EQ(api().calls("SubscribeL1")[0].arg, 1);
  EXPECT_TRUE(fx_.log().contains("Sub 600000.SH[L1], count[1]!"));

  mgr().release_tick_push("600000", "SH", first);
  EXPECT_EQ(api().count("UnsubscribeL1"), 0u);
  mgr().release_tick_push("600000", "SH", second);
  EXPECT_EQ(api().count("UnsubscribeL1"), 1u);
  EXPECT_EQ(count(), 0u);
  EXPECT_TRUE(fx_.log().contains("Cancel sub L1 600000.SH, count[0]!"));
}

TEST_F(SubscriptionsTest, LevelsAreCountedAndCancelledApart) {
  uint16_t l1 = mgr().request_tick_push(Request("600000", 3000), "SH");
  uint16_t l2 = mgr().request_tick_push(Request("600000", 1801), "SH");
  EXPECT_EQ(api().count("SubscribeL1"), 1u);
  EXPECT_EQ(api().count("SubscribeL2"), 1u);
  EXPECT_EQ(count(), 2u);
  mgr().release_tick_push("600000", "SH", l2);
  EXPECT_EQ(api().count("UnsubscribeL2"), 1u);
  EXPECT_EQ(api().count("UnsubscribeL1"), 0u);
  mgr().release_tick_push("600000", "SH", l1);
  EXPECT_EQ(api().count("UnsubscribeL1"), 1u);
}

TEST_F(SubscriptionsTest, RefusalsUseUpASerialAndLeaveNoEntry) {
  EXPECT_EQ(mgr().request_tick_push(Request("600000", 2000), "SH"), kRequestFailed);
  EXPECT_TRUE(fx_.log().contains("Failed to send subscrib!!!"));
  EXPECT_EQ(api().calls().size(), 1u);  // RegisterServer only
  api().set_result("SubscribeL1", -3);
  EXPECT_EQ(mgr().request_tick_push(Request("600000", 3000), "SH"), kRequestFailed);
  EXPECT_EQ(count(), 0u);
  api().set_result("SubscribeL1", 0);
  EXPECT_EQ(mgr().request_tick_push(Request("600000", 4002), "SH"), 23);
}

TEST_F(SubscriptionsTest, ReleasingAnUnknownSerialCancelsLevelOne) {
  mgr().subscriptions().subscribed_count = 1;
  mgr().release_tick_push("600000", "SH", 999);
  EXPECT_EQ(api().count("UnsubscribeL1"), 1u);
  EXPECT_EQ(count(), 0u);
}

TEST_F(SubscriptionsTest, SerialsWrapAndSkipHeldIds) {
  for (int i = 21; i <= 29999; ++i) mgr().next_serial();
  uint16_t held = mgr().request_tick_push(Request("600000", 3000), "SH");  // 30000
  EXPECT_EQ(held, 30000);
  EXPECT_EQ(mgr().next_serial(), 20);
  EXPECT_EQ(mgr().next_serial(), 21);
  for (int i = 22; i <= 30000; ++i) {
    uint16_t serial = mgr().next_serial();
    ASSERT_NE(serial, held);
  }
}

// Through the client, which releases what it holds once.
TEST_F(SubscriptionsTest, WholeMarketsAndReleases) {
  // Options markets ride on their market's push: nothing is sent either way.
  EXPECT_EQ(fx_.client().subWholeQuote("SZO", [](const QuoteMap&) {}), 101);
  fx_.client().unWholeQuote(101);
  EXPECT_EQ(fx_.client().subWholeQuote("SH", [](const QuoteMap&) {}), 2);
  auto item = testkit::record_of<ApiMarketItem>(api().calls("SubscribeMarketPush").at(0));
  EXPECT_EQ(uint16_t{item.market_short}, 2);
  EXPECT_EQ(int32_t{item.market}, 2);
  fx_.client().unWholeQuote(2);
  fx_.client().unWholeQuote(2);
  auto cancels = api().calls("UnsubscribeMarketPush");
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(int32_t{testkit::record_of<ApiMarketItem>(cancels[0]).market}, 2);
  EXPECT_TRUE(fx_.log().contains("Success to send unsubscrib SH!!!"));

  quoter::TSMetaInfo meta = Request("600000", 3000);
  meta.market = "SH";
  meta.period = 60000;
  int id = fx_.client().subscribeQuote(meta, {}, "", nullptr);
  EXPECT_TRUE(fx_.log().contains("[tavr::KelQuoteClient::subscribeQuote]: [id=21]Sub 600000.SH quote [60000]...."));
  fx_.client().unsubscribe(id);
  fx_.client().unsubscribe(id);
  EXPECT_EQ(api().count("UnsubscribeL1"), 1u);
  EXPECT_FALSE(mgr().serial_in_use(21));
  EXPECT_TRUE(fx_.log().contains("[tavr::KelQuoteClient::unsubscribe]: delete 600000.SH subscrib info...."));

  api().set_result("SubscribeMarketPush", -1);
  EXPECT_EQ(mgr().request_mkt_tick_push("HK", 0), -1);
  api().set_result("UnsubscribeMarketPush", -1);
  mgr().release_mkt_tick_push(10);
  EXPECT_TRUE(fx_.log().contains("Failed to send unsubscrib!!!"));
}

TEST_F(SubscriptionsTest, TablesStaySoundWhileDeliveriesReadThem) {
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done.load()) {
      auto list = mgr().subscriptions().subscribers("600000.SH");
      for (const TickSubscription& entry : *list) ASSERT_GE(entry.serial, 20);
    }
  });
  for (int round = 0; round < 200; ++round) {
    uint16_t a = mgr().request_tick_push(Request("600000", 3000), "SH");
    uint16_t b = mgr().request_tick_push(Request("600000", 1010), "SH");
    mgr().release_tick_push("600000", "SH", a);
    mgr().release_tick_push("600000", "SH", b);
  }
  done = true;
  reader.join();
  EXPECT_EQ(count(), 0u);
  EXPECT_EQ(mgr().subscriptions().keys(), 0u);
}

TEST_F(SubscriptionsTest, TheServiceIsLastToldWhatTheTableHolds) {
  // A subscribe of one host racing the unsubscribe of the instrument's only
  // other subscriber, against a service whose calls take a while.
  api().set_delay("SubscribeL1", 1000);
  api().set_delay("UnsubscribeL1", 1000);
  auto last_call = [&] {
    std::string last;
    for (const auto& call : api().calls()) {
      if (call.op == "SubscribeL1" || call.op == "UnsubscribeL1") last = call.op;
    }
    return last;
  };
  for (int round = 0; round < 40; ++round) {
    uint16_t b = mgr().request_tick_push(Request("600000", 3000), "SH");
    uint16_t a = 0;
    std::thread subscribe([&] { a = mgr().request_tick_push(Request("600000", 3000), "SH"); });
    if (round % 2 == 1) std::this_thread::sleep_for(std::chrono::microseconds(500));
    mgr().release_tick_push("600000", "SH", b);
    subscribe.join();
    ASSERT_EQ(mgr().subscriptions().keys(), 1u);
    ASSERT_EQ(last_call(), "SubscribeL1") << "round " << round;
    mgr().release_tick_push("600000", "SH", a);
    ASSERT_EQ(last_call(), "UnsubscribeL1");
    ASSERT_EQ(count(), 0u);
  }
}

}  // namespace
}  // namespace tavr
