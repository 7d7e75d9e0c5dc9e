// The simulated service as the library sees it, through the DataApi
// library's exports: what the library relies on, and the control functions
// that nothing else exercises.
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dataapi/DataApi.h"
#include "dataapi/sim/copy_rules_test.h"
#include "dataapi/sim/sim_control.h"
#include "dataapi/sim/universe.h"

namespace sim {
namespace {

// Keeps each reply's kind, thread and the bytes the library's adapter copies
// of it (so that ASan sees a reply shorter than the adapter's copy).
class Recorder final : public CDataApiCallBack {
 public:
  struct Record {
    std::string kind;
    std::thread::id thread;
    std::vector<uint8_t> bytes;
  };

  int OnMarketInit(const void* r) override { return Keep("init", r, kInitRule); }
  int OnMarketStatus(const void* r) override { return Keep("status", r, kStatusRule); }
  int OnRespHKRateData(const void* r) override { return Keep("rates", r, kHKRateRule); }
  int OnRespBalanceSheetData(const void* r) override { return Keep("balance", r, kBalanceRule); }
  int OnRespShareData(const void* r) override { return Keep("capital", r, kShareRule); }
  int OnRespMostShareHolderData(const void* r) override { return Keep("top ten", r, kTopHolderRule); }
  int OnTickL1(const void* r) override {
    if (on_tick_) on_tick_();
    return Keep("l1", r, kTickL1Rule);
  }

  std::vector<Record> take() {
    std::lock_guard<std::mutex> lock(mu_);
    return std::move(records_);
  }
  size_t size() {
    std::lock_guard<std::mutex> lock(mu_);
    return records_.size();
  }
  // Runs on the callback thread before a level-1 snapshot is kept.
  void on_tick(std::function<void()> fn) { on_tick_ = std::move(fn); }

 private:
  int Keep(const char* kind, const void* record, const CopyRule& rule) {
    std::lock_guard<std::mutex> lock(mu_);
    records_.push_back({kind, std::this_thread::get_id(), CopyLikeTheAdapter(record, rule)});
    return 0;
  }

  std::mutex mu_;
  std::vector<Record> records_;
  std::function<void()> on_tick_;
};

template <typename T>
T Read(const std::vector<uint8_t>& bytes, size_t offset = 0) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

ApiCodeItem Item(const char* code, uint8_t market) {
  ApiCodeItem item{};
  std::strncpy(item.code, code, sizeof(item.code) - 1);
  item.market = market;
  return item;
}

// The service registered with one quote server and the recorder, not yet
// connected; released and unregistered afterwards.
class SimApiTest : public ::testing::Test {
 protected:
  SimApiTest() : api_(GetApiInstance()) {
    ServerLoginConfig login{};
    std::strcpy(login.servers[0].host, "127.0.0.1");
    std::strcpy(login.servers[0].port, "7709");
    servers_[0] = login;
    api_->RegisterServer(&servers_, &recorder_);
  }
  ~SimApiTest() override {
    api_->Release();
    api_->RegisterServer(nullptr, nullptr);
    for (int kind = 1; kind <= 128; kind *= 2) SimSetFinanceReply(kind, 0);
  }

  void Connect() {
    ConnectResult result{};
    ASSERT_EQ(api_->Connect(&result), 0);
  }
  // Waits until the service has sent everything asked of it; what it sent.
  std::vector<Recorder::Record> Settle() {
    EXPECT_EQ(SimWaitIdle(10000), 1);
    return recorder_.take();
  }
  std::vector<uint8_t> InitOf(int market_id) {
    EXPECT_EQ(api_->ReqMarketInit(market_id), 0);
    auto records = Settle();
    EXPECT_EQ(records.size(), 1u);
    return records.empty() ? std::vector<uint8_t>() : records[0].bytes;
  }

  CDataApi* api_;
  ServerTable servers_;
  Recorder recorder_;
};

TEST_F(SimApiTest, RequestsWhileNotConnectedAndUnknownNamesAreRefused) {
  HKRateRequest rates{};
  FinanceRequest finance{};
  std::strcpy(finance.code, "000001");
  finance.market = kSZ;
  FinanceRequest elsewhere = finance;
  elsewhere.market = kSQ;
  ApiCodeItem share = Item("600519", kSH);
  ApiCodeItem unknown[] = {Item("600519", kSH), Item("999999", kSH)};
  ApiCodeItem no_market = Item("600519", 3);
  ApiMarketItem sh{kSH, kSH};
  ApiMarketItem none{3, 3};
  const std::vector<std::pair<const char*, std::function<int()>>> whenever = {
      {"status", [&] { return api_->ReqMarketStatus(0); }},
      {"init", [&] { return api_->ReqMarketInit(0); }},
      {"reference", [&] { return api_->ReqRefInfo(kSH); }},
      {"base data", [&] { return api_->ReqBaseData(); }},
      {"holidays", [&] { return api_->ReqHoliday(2); }},
      {"rates", [&] { return api_->ReqHKRate(&rates); }},
      {"finance", [&] { return api_->ReqBalanceSheet(&finance); }},
      {"level 1", [&] { return api_->SubscribeL1(&share, 1); }},
      {"level 2", [&] { return api_->SubscribeL2(&share, 1); }},
      {"market", [&] { return api_->SubscribeMarketPush(&sh); }},
      {"change", [&] { return SimChangeMarket(kSH); }},
  };
  const std::vector<std::pair<const char*, std::function<int()>>> unknown_names = {
      {"init of market 3", [&] { return api_->ReqMarketInit(3); }},
      {"holidays of kind 1", [&] { return api_->ReqHoliday(1); }},
      {"one unknown code", [&] { return api_->SubscribeL1(unknown, 2); }},
      {"no such market", [&] { return api_->SubscribeL2(&no_market, 1); }},
      {"no instrument", [&] { return api_->SubscribeL1(unknown, 0); }},
      {"market 3", [&] { return api_->SubscribeMarketPush(&none); }},
      {"finance of SQ", [&] { return api_->ReqShareData(&elsewhere); }},
      {"change of market 3", [&] { return SimChangeMarket(3); }},
  };
  for (const auto& [what, call] : whenever) EXPECT_EQ(call(), -1) << what << " before Connect";
  Connect();
  for (const auto& [what, call] : unknown_names) EXPECT_EQ(call(), -1) << what;
  EXPECT_TRUE(Settle().empty());
  api_->Release();
  for (const auto& [what, call] : whenever) EXPECT_EQ(call(), -1) << what << " after Release";
  EXPECT_TRUE(Settle().empty());
}

TEST_F(SimApiTest, RepliesArriveOnTheServicesThreadNeverTheCallers) {
  Connect();
  ASSERT_EQ(api_->ReqMarketStatus(0), 0);
  ASSERT_EQ(api_->ReqMarketInit(0), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 16u);
  for (const auto& record : records) {
    EXPECT_NE(record.thread, std::this_thread::get_id());
    EXPECT_EQ(record.thread, records[0].thread);
  }
}

// After a Release made inside a callback, nothing more reaches the library.
TEST_F(SimApiTest, ReleaseInsideACallbackDropsTheRestOfTheBatch) {
  recorder_.on_tick([this] { api_->Release(); });
  ApiCodeItem items[] = {Item("600519", kSH), Item("600036", kSH), Item("601318", kSH)};
  Connect();
  ASSERT_EQ(api_->SubscribeL1(items, 3), 0);
  while (recorder_.size() == 0) std::this_thread::yield();
  EXPECT_EQ(Settle().size(), 1u);
}

// Begin and end 0 stand for the connect's whole history.
TEST_F(SimApiTest, ConnectRatesOfTheWholeHistory) {
  Connect();
  HKRateRequest all{};
  ASSERT_EQ(api_->ReqHKRate(&all), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 1u);
  auto head = Read<ApiHKRateHead>(records[0].bytes);
  EXPECT_EQ(+head.begin, Universe::kHKConnectStart);
  ASSERT_GT(+head.count, 2800u);
  EXPECT_EQ(+Read<ApiHKRateItem>(records[0].bytes, sizeof(head)).date, Universe::kHKConnectStart);
}

TEST_F(SimApiTest, FinanceAnswersCarryTheRequestsIdAndFollowTheReplySetting) {
  EXPECT_EQ(SimSetFinanceReply(3, 0), -1);
  EXPECT_EQ(SimSetFinanceReply(16, 4), -1);
  Connect();
  FinanceRequest request{};
  request.request_id = 4711;
  request.market = kSZ;
  std::strcpy(request.code, "000001");
  ASSERT_EQ(SimSetFinanceReply(1, 1), 0);   // never
  ASSERT_EQ(SimSetFinanceReply(16, 2), 0);  // twice
  ASSERT_EQ(SimSetFinanceReply(64, 3), 0);  // a count of -1
  EXPECT_EQ(api_->ReqBalanceSheet(&request), 0);
  EXPECT_EQ(api_->ReqShareData(&request), 0);
  EXPECT_EQ(api_->ReqMostShareHolder(&request), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].kind, "capital");
  EXPECT_EQ(+Read<ApiShareRsp>(records[0].bytes).request_id, 4711);
  EXPECT_GT(+Read<ApiShareRsp>(records[0].bytes).count, 0);
  EXPECT_EQ(records[1].bytes, records[0].bytes);
  EXPECT_EQ(records[2].kind, "top ten");
  EXPECT_EQ(+Read<ApiShareRsp>(records[2].bytes).count, -1);
}

TEST_F(SimApiTest, ASeedPicksItsUniverseFromTheNextConnect) {
  auto connect_with = [&](unsigned seed) {
    SimSetSeed(seed);
    api_->Release();
    Connect();
    return InitOf(kZJ);
  };
  std::vector<uint8_t> first = connect_with(99);
  SimSetSeed(98);
  EXPECT_EQ(InitOf(kZJ), first);  // not before the next connect
  EXPECT_NE(connect_with(98), first);
  EXPECT_EQ(connect_with(99), first);
  connect_with(static_cast<unsigned>(Universe::kDefaultSeed));
}

}  // namespace
}  // namespace sim
