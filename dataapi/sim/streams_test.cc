// The simulated service's real-time streams as a host sees them: through
// GetApiInstance, a callback object that copies what it gets as the
// library's adapter does, and the control functions.
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "dataapi/sim/sim_host_test.h"
#include "dataapi/sim/universe.h"

namespace sim {
namespace {

ApiCodeItem Item(const char* code, uint8_t market) {
  ApiCodeItem item{};
  std::strncpy(item.code, code, sizeof(item.code) - 1);
  item.market = market;
  return item;
}

ApiMarketItem MarketItem(int market) { return ApiMarketItem{static_cast<uint16_t>(market), market}; }

// What the reference data say of an instrument, prices in units of its digits.
struct Info {
  int digits = 2;
  double scale = 100;
  int64_t unit = 1;
  uint8_t flag = 0;
  int64_t tick = 1, upper = 0, lower = 0;
};

// The units of a float price, or -1 when it is off the instrument's tick.
int64_t Units(float price, const Info& info) {
  double units = static_cast<double>(price) * info.scale;
  auto rounded = static_cast<int64_t>(std::llround(units));
  return std::fabs(units - static_cast<double>(rounded)) < 0.2 && rounded % info.tick == 0 ? rounded : -1;
}

class StreamsTest : public SimHostTest {
 protected:
  StreamsTest() {
    SimSetClock(0, 100000);  // the latest trading day, in the morning session
    SimSetStreamInterval(20);
    SimSetPushInterval(100);
    Connect();
  }
  ~StreamsTest() override {
    SimSetTimeOfDay(-1);
    SimSetStreamInterval(500);
    SimSetPushInterval(1000);
  }

  bool WaitFor(const std::function<bool()>& done, int timeout_ms = 10000) {
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
      if (Clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }

  // The market's instruments, in the order of its initialisation data.
  std::vector<std::pair<std::string, Info>> Infos(int market) {
    EXPECT_EQ(api_->ReqMarketInit(market), 0);
    EXPECT_EQ(api_->ReqRefInfo(market), 0);
    auto records = Settle();
    std::vector<std::pair<std::string, Info>> infos;
    if (records.size() != 2) return infos;
    auto head = Read<ApiMarketInitHead>(records[0].bytes);
    for (uint32_t i = 0; i < head.code_count; ++i) {
      auto init = Read<ApiCodeInit>(records[0].bytes, sizeof(head) + i * sizeof(ApiCodeInit));
      auto ref = Read<ApiRefInfoItem>(records[1].bytes, sizeof(ApiRefInfoHead) + i * sizeof(ApiRefInfoItem));
      Info info;
      info.digits = init.price_digits;
      info.scale = std::pow(10.0, info.digits);
      info.unit = init.volume_unit == 0 ? 1 : init.volume_unit;
      info.flag = init.code_flag;
      info.tick = std::llround(ref.tick * info.scale);
      info.upper = std::llround(ref.upper_limit * info.scale);
      info.lower = std::llround(ref.lower_limit * info.scale);
      infos.emplace_back(init.code, info);
    }
    return infos;
  }
  Info InfoOf(int market, const std::string& code) {
    for (auto& [c, info] : Infos(market)) {
      if (c == code) return info;
    }
    ADD_FAILURE() << code << " not listed";
    return Info();
  }
  // The level-1 snapshots of code among the records.
  static std::vector<ApiL1Tick> Ticks(const std::vector<Recorder::Record>& records, const std::string& code) {
    std::vector<ApiL1Tick> ticks;
    for (const auto& r : records) {
      if (r.kind == "l1" && Read<ApiL1Tick>(r.bytes).code == code) ticks.push_back(Read<ApiL1Tick>(r.bytes));
    }
    return ticks;
  }

};

TEST_F(StreamsTest, LevelOneSnapshotsArriveOnTheServicesThreadAndMoveOn) {
  std::map<std::string, Info> infos{{"600519", InfoOf(kSH, "600519")}, {"000001", InfoOf(kSZ, "000001")}};
  ApiCodeItem items[] = {Item("600519", kSH), Item("000001", kSZ)};
  ASSERT_EQ(api_->SubscribeL1(items, 2), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l1") >= 16; }));
  ASSERT_EQ(api_->UnsubscribeL1(items, 2), 0);
  auto records = Settle();
  for (const auto& r : records) {
    EXPECT_NE(r.thread, std::this_thread::get_id());
    EXPECT_EQ(r.thread, records[0].thread);
  }
  for (auto& [code, info] : infos) {
    auto ticks = Ticks(records, code);
    ASSERT_GE(ticks.size(), 4u) << code;
    for (size_t i = 0; i < ticks.size(); ++i) {
      const ApiL1Tick& t = ticks[i];
      EXPECT_EQ(+t.market_id, code == "600519" ? kSH : kSZ);
      EXPECT_GT(+t.date, 20140000);
      EXPECT_GE(+t.time, 100000);
      EXPECT_LT(+t.time, 100100);
      EXPECT_EQ(+t.board_kind, 0u);
      EXPECT_EQ(Units(t.upper_limit, info), info.upper);
      EXPECT_EQ(Units(t.lower_limit, info), info.lower);
      for (float price : {+t.last, +t.open, +t.high, +t.low, +t.bid_price[0], +t.ask_price[0]}) {
        int64_t units = Units(price, info);
        EXPECT_GE(units, info.lower) << code << " " << price;
        EXPECT_LE(units, info.upper) << code << " " << price;
      }
      EXPECT_LE(+t.low, +t.last);
      EXPECT_LE(+t.last, +t.high);
      for (int level = 0; level < 5; ++level) {
        EXPECT_EQ(Units(t.ask_price[level], info) - Units(t.bid_price[level], info), (2 * level + 1) * info.tick);
        EXPECT_EQ(std::fmod(+t.bid_volume[level], static_cast<float>(info.unit)), 0.0f);
        EXPECT_GT(+t.ask_volume[level], 0.0f);
      }
      if (i == 0) continue;
      // The walk moves on with the clock's steps, which a send may fall between.
      const ApiL1Tick& before = ticks[i - 1];
      EXPECT_GE(+t.time, +before.time);
      EXPECT_GE(+t.volume, +before.volume);
      EXPECT_GE(+t.turnover, +before.turnover);
      EXPECT_GE(+t.trade_count, +before.trade_count);
      EXPECT_GE(+t.high, +before.high);
      EXPECT_LE(+t.low, +before.low);
      EXPECT_EQ(+t.open, +before.open);
    }
    EXPECT_GT(+ticks.back().volume, +ticks.front().volume) << code;
    EXPECT_GT(+ticks.back().turnover, +ticks.front().turnover) << code;
  }
}

TEST_F(StreamsTest, AnInstrumentHasOneStreamThatOneCancelStops) {
  ApiCodeItem moutai = Item("600519", kSH);
  ApiCodeItem ping_an = Item("000001", kSZ);
  ASSERT_EQ(api_->SubscribeL1(&moutai, 1), 0);
  ASSERT_EQ(api_->SubscribeL1(&moutai, 1), 0);  // a second host request
  ASSERT_EQ(api_->SubscribeL1(&ping_an, 1), 0);
  auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(api_->UnsubscribeL1(&moutai, 1), 0);
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  // One stream at 20 ms, not two.
  size_t sent = Ticks(Settle(), "600519").size();
  EXPECT_GE(sent, 3u);
  EXPECT_LE(sent, static_cast<size_t>(elapsed / 20 * 13 / 10 + 2));

  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  auto later = recorder_.take();
  EXPECT_TRUE(Ticks(later, "600519").empty());
  EXPECT_GE(Ticks(later, "000001").size(), 2u);
  EXPECT_EQ(api_->UnsubscribeL1(&moutai, 1), 0);  // nothing left to stop
}

TEST_F(StreamsTest, RequestsWhileNotConnectedAndUnknownNamesAreRefused) {
  ApiCodeItem good[] = {Item("600519", kSH), Item("999999", kSH)};
  ApiCodeItem bad_market = Item("600519", 3);
  ApiMarketItem sh = MarketItem(kSH);
  ApiMarketItem none = MarketItem(3);
  EXPECT_EQ(api_->SubscribeL1(good, 2), -1);  // all or nothing
  EXPECT_EQ(api_->SubscribeL2(&bad_market, 1), -1);
  EXPECT_EQ(api_->SubscribeL1(good, 0), -1);
  EXPECT_EQ(api_->SubscribeL1(nullptr, 1), -1);
  EXPECT_EQ(api_->SubscribeMarketPush(&none), -1);
  EXPECT_EQ(api_->SubscribeMarketPush(nullptr), -1);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(recorder_.take().empty());

  api_->Release();
  EXPECT_EQ(api_->SubscribeL1(good, 1), -1);
  EXPECT_EQ(api_->UnsubscribeL1(good, 1), -1);
  EXPECT_EQ(api_->SubscribeL2(good, 1), -1);
  EXPECT_EQ(api_->UnsubscribeL2(good, 1), -1);
  EXPECT_EQ(api_->SubscribeMarketPush(&sh), -1);
  EXPECT_EQ(api_->UnsubscribeMarketPush(&sh), -1);
}

TEST_F(StreamsTest, ReleaseStopsEveryStreamForGood) {
  ApiCodeItem item = Item("600519", kSH);
  ApiMarketItem zj = MarketItem(kZJ);
  ASSERT_EQ(api_->SubscribeL1(&item, 1), 0);
  ASSERT_EQ(api_->SubscribeL2(&item, 1), 0);
  ASSERT_EQ(api_->SubscribeMarketPush(&zj), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l1") > 0 && recorder_.count("l2 tick") > 0 && recorder_.count("push") > 0; }));
  api_->Release();
  recorder_.take();
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_TRUE(recorder_.take().empty());
  ConnectResult result{};
  ASSERT_EQ(api_->Connect(&result), 0);  // a new connection starts without streams
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_TRUE(recorder_.take().empty());
}

TEST_F(StreamsTest, ReleaseInsideACallbackDropsTheRestOfTheBatch) {
  recorder_.on_tick([this] { api_->Release(); });
  ApiCodeItem items[] = {Item("600519", kSH), Item("600036", kSH), Item("601318", kSH)};
  ASSERT_EQ(api_->SubscribeL1(items, 3), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l1") > 0; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(recorder_.take().size(), 1u);
}

TEST_F(StreamsTest, IntervalsTakeEffectForTheNextSends) {
  EXPECT_EQ(SimSetStreamInterval(0), -1);
  EXPECT_EQ(SimSetPushInterval(3600001), -1);
  ASSERT_EQ(SimSetStreamInterval(60000), 0);
  ASSERT_EQ(SimSetPushInterval(60000), 0);
  ApiCodeItem item = Item("600519", kSH);
  ApiMarketItem zj = MarketItem(kZJ);
  ASSERT_EQ(api_->SubscribeL1(&item, 1), 0);
  ASSERT_EQ(api_->SubscribeMarketPush(&zj), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l1") == 1 && recorder_.count("push") == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(recorder_.count("l1"), 1u);
  EXPECT_EQ(recorder_.count("push"), 1u);
  ASSERT_EQ(SimSetStreamInterval(20), 0);
  ASSERT_EQ(SimSetPushInterval(50), 0);
  EXPECT_TRUE(WaitFor([&] { return recorder_.count("l1") >= 6 && recorder_.count("push") >= 3; }, 5000));
}

TEST_F(StreamsTest, AMarketPackageHoldsEveryInstrumentOfTheMarket) {
  auto infos = Infos(kSH);
  ASSERT_GT(infos.size(), 4000u);
  ApiMarketItem sh = MarketItem(kSH);
  ASSERT_EQ(api_->SubscribeMarketPush(&sh), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("push") >= 2; }));
  ApiMarketItem cancel{};  // the library names the market in the second field only
  cancel.market = kSH;
  ASSERT_EQ(api_->UnsubscribeMarketPush(&cancel), 0);
  auto packages = Settle();
  ASSERT_GE(packages.size(), 2u);
  std::vector<float> volumes;
  for (const auto& package : packages) {
    auto head = Read<ApiMarketPushHead>(package.bytes);
    EXPECT_EQ(+head.market_id, kSH);
    ASSERT_EQ(+head.count, static_cast<int32_t>(infos.size()));
    ASSERT_EQ(package.bytes.size(), sizeof(head) + infos.size() * sizeof(ApiL1Tick));
    for (size_t i = 0; i < infos.size(); ++i) {
      auto tick = Read<ApiL1Tick>(package.bytes, sizeof(head) + i * sizeof(ApiL1Tick));
      ASSERT_EQ(tick.code, infos[i].first);
      ASSERT_EQ(+tick.market_id, kSH);
      if (volumes.size() < infos.size()) {
        volumes.push_back(+tick.volume);
      } else if ((infos[i].second.flag & kFlagSuspended) == 0) {
        ASSERT_GT(+tick.volume, volumes[i]) << tick.code;
      }
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_TRUE(recorder_.take().empty());
}

TEST_F(StreamsTest, FuturesAndHongKongSharesCarryTheirBoardKinds) {
  std::string contract;
  for (auto& [code, info] : Infos(kSQ)) {
    if (code.rfind("cu", 0) == 0 && code.size() == 6) contract = code;
  }
  ApiCodeItem items[] = {Item(contract.c_str(), kSQ), Item("00700", kHK)};
  ASSERT_EQ(api_->SubscribeL1(items, 2), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l1") >= 6; }));
  SimSetClock(0, 101600);  // the commodities' morning break
  Settle();
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l1") >= 2; }));
  auto records = recorder_.take();
  auto future = Ticks(records, contract);
  auto hk = Ticks(records, "00700");
  ASSERT_FALSE(future.empty());
  ASSERT_FALSE(hk.empty());
  EXPECT_EQ(+hk[0].board_kind, 2u);
  const ApiL1Tick& t = future[0];
  EXPECT_EQ(+t.board_kind, 3u);
  float phase, settlement, open_interest;
  std::memcpy(&phase, t.board_value1, 4);
  std::memcpy(&settlement, t.board_value2, 4);
  std::memcpy(&open_interest, t.board_value3, 4);
  EXPECT_EQ(phase, 14.0f);
  EXPECT_GE(settlement, +t.low);
  EXPECT_LE(settlement, +t.high);
  EXPECT_GT(open_interest, 0.0f);
}

TEST_F(StreamsTest, LevelTwoMessagesComeInOrderAndAgree) {
  Info info = InfoOf(kSH, "600519");
  const int64_t tick = info.tick * 100;  // ten-thousandths
  ApiCodeItem items[] = {Item("600519", kSH), Item("000001", kSH)};
  ASSERT_EQ(api_->SubscribeL2(items, 2), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder_.count("l2 tick") >= 5 && recorder_.count("l2 index") >= 5; }));
  ASSERT_EQ(api_->UnsubscribeL2(items, 2), 0);
  auto records = Settle();
  ApiL2Snapshot snap{};
  int64_t owed = -1;  // volume the send's trades must account for, -1 unknown
  // Each send: a snapshot, the trades since the last send (none when the
  // clock has not stepped), new orders, the best prices' queues.
  const char* const order[] = {"l2 tick", "l2 trans", "l2 order", "l2 queue"};
  int next = 0;
  for (const auto& r : records) {
    auto head = Read<ApiL2Head>(r.bytes);
    ASSERT_GT(+head.count, 0);
    if (r.kind == "l2 index") {  // an index has its snapshot only
      EXPECT_EQ(std::string(Read<ApiL2Index>(r.bytes, 8).code), "000001");
      continue;
    }
    if (next == 1 && r.kind != "l2 trans") next = 2;
    ASSERT_EQ(r.kind, order[next]);
    next = (next + 1) % 4;
    if (r.kind == "l2 tick") {
      ASSERT_EQ(+head.count, 1);
      int64_t before = snap.code[0] != 0 ? snap.volume : -1;
      snap = Read<ApiL2Snapshot>(r.bytes, 8);
      owed = before >= 0 ? snap.volume - before : -1;
      EXPECT_EQ(std::string(snap.code), "600519");
      EXPECT_EQ(snap.last % tick, 0);
      EXPECT_GE(+snap.last, info.lower * 100);
      EXPECT_LE(+snap.last, info.upper * 100);
      EXPECT_EQ(snap.ask_price[9] - snap.bid_price[9], 19 * tick);
    } else if (r.kind == "l2 trans") {
      int64_t traded = 0;
      for (int32_t i = 0; i < head.count; ++i) {
        auto t = Read<ApiL2Transaction>(r.bytes, 8 + i * sizeof(ApiL2Transaction));
        EXPECT_LE(t.time / 1000, +snap.time);  // traded since the last send, up to now
        EXPECT_GE(t.time / 1000, 100000);
        EXPECT_TRUE(t.price >= snap.low && t.price <= snap.high);
        EXPECT_EQ(+t.amount, t.price * t.volume);
        traded += t.volume;
      }
      if (owed >= 0) {
        EXPECT_EQ(traded, owed);
      }
      owed = 0;
    } else if (r.kind == "l2 order") {
      if (owed >= 0) {
        EXPECT_EQ(owed, 0);  // no volume without its trades
      }
      owed = -1;
      for (int32_t i = 0; i < head.count; ++i) {
        auto o = Read<ApiL2Order>(r.bytes, 8 + i * sizeof(ApiL2Order));
        EXPECT_TRUE(o.flag1 == 'B' ? o.price <= snap.bid_price[0] : o.price >= snap.ask_price[0]);
        EXPECT_EQ(o.volume % 100, 0);
      }
    } else {
      ASSERT_EQ(+head.count, 2);
      for (int32_t i = 0; i < 2; ++i) {
        auto q = Read<ApiL2OrderQueue>(r.bytes, 8 + i * sizeof(ApiL2OrderQueue));
        EXPECT_EQ(+q.side, i + 1);
        EXPECT_EQ(+q.price, +(i == 0 ? snap.bid_price[0] : snap.ask_price[0]));
        EXPECT_EQ(+q.volume, +(i == 0 ? snap.bid_volume[0] : snap.ask_volume[0]));
        ASSERT_EQ(+q.listed, std::min(+q.order_count, ApiL2OrderQueue::kListedOrders));
        int64_t listed = 0;
        for (int32_t k = 0; k < q.listed; ++k) listed += q.orders[k];
        EXPECT_TRUE(q.order_count == q.listed ? listed == q.volume : listed < q.volume);
      }
    }
  }
}

}  // namespace
}  // namespace sim
