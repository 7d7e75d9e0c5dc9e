#include "kelquote/KelQuoteClient.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace tavr {

// Reaches the client's private operations.
class KelQuoteClientTest : public ::testing::Test {
 protected:
  void AddHistory(short id, QuoteCallback callback) { client_.add_history_info(id, std::move(callback)); }
  void AddFinance(short id, FinanceCallback callback) {
    FinanceDataParam param;
    param.market = "SZ";
    param.code = "000001";
    client_.add_finance_info(id, param, std::move(callback));
  }
  void StartLogin(int action) { client_.startLogin(action); }

  testkit::LogCapture log_;
  KelQuoteClient client_;
};

namespace {

struct Delivery {
  int status;
  size_t records;
  int tag;
};

QuoteCallback Recorder(std::vector<Delivery>& out) {
  return [&out](se::EQuoteSubStatus status, const QuoteRecords& records, se::EDataArrivedTag tag) {
    out.push_back({status, records.size(), tag});
  };
}

quoter::TSMetaInfo Meta(const char* market, const char* code) {
  quoter::TSMetaInfo meta;
  meta.market = market;
  meta.code = code;
  meta.metaId = 3000;
  return meta;
}

TEST_F(KelQuoteClientTest, UnknownMarketsFailAtOnce) {
  std::vector<Delivery> got;
  EXPECT_EQ(client_.subscribeQuote(Meta("sh", "600000"), {}, "", Recorder(got)), -4);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].status, 1);
  EXPECT_EQ(got[0].tag, 0);

  got.clear();
  client_.requestHistoryQuote(Meta("XX", "600000"), {}, "", Recorder(got));
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].status, 1);
  EXPECT_EQ(got[0].tag, 2);

  bool called = false;
  EXPECT_EQ(client_.subWholeQuote("XX", [&](const QuoteMap&) { called = true; }), -4);
  EXPECT_FALSE(called);
  EXPECT_EQ(log_.count("Market is not exist: "), 3u);
  EXPECT_TRUE(log_.contains("[tavr::KelQuoteClient::subWholeQuote]: Market is not exist: XX ...."));
}

TEST_F(KelQuoteClientTest, RefusedRequestsFailWithTheirTexts) {
  // No data manager yet: every request is refused as a stopped service would.
  std::vector<Delivery> got;
  EXPECT_EQ(client_.subscribeQuote(Meta("SHO", "10000001"), {}, "", Recorder(got)), -4);
  EXPECT_TRUE(log_.contains("[tavr::KelQuoteClient::subscribeQuote]: Failed to sub 10000001.SH..."));
  client_.requestHistoryQuote(Meta("IF", "IF2401"), {}, "", Recorder(got));
  EXPECT_TRUE(log_.contains("Failed to request IF2401.ZJ kline["));
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].tag, 0);
  EXPECT_EQ(got[1].tag, 2);
  EXPECT_EQ(client_.subWholeQuote("SGT", [](const QuoteMap&) {}), -4);
  EXPECT_TRUE(log_.contains("Failed to sub market HK..."));

  FinanceDataParam param;
  param.market = "SZ";
  param.code = "000001";
  // The failure callback runs with no lock held: a request of another
  // thread (a subscription's callback, say) completes meanwhile.
  std::atomic<int> statuses{0};
  std::thread other;
  bool other_done_inside = false;
  auto failed = [&](std::string market, const FinanceDataParam& p, const FinanceResult& data,
                    se::EQuoteSubStatus status) {
    EXPECT_EQ(market, "SZ");
    EXPECT_EQ(p.code, "000001");
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(status, se::kQuoteFailure);
    ++statuses;
  };
  client_.requestFinanceData(param, [&](std::string market, const FinanceDataParam& p, const FinanceResult& data,
                                        se::EQuoteSubStatus status) {
    failed(market, p, data, status);
    other = std::thread([&] { client_.requestFinanceData(param, failed); });
    for (int i = 0; i < 500 && statuses < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    other_done_inside = statuses == 2;
  });
  other.join();
  EXPECT_TRUE(other_done_inside) << "the failure callback ran under the finance lock";
  EXPECT_EQ(statuses, 2);
  EXPECT_TRUE(log_.contains("Failed to get 000001.SZ finance data..."));
}

TEST_F(KelQuoteClientTest, HistoryBlocksArrivePartialThenLastThenStray) {
  std::vector<Delivery> got;
  AddHistory(21, Recorder(got));
  QuoteRecords two{std::make_shared<quoter::KLineData>(), std::make_shared<quoter::KLineData>()};
  client_.onRequestHistory(21, two, false);
  client_.onRequestHistory(21, {}, true);
  client_.onRequestHistory(21, two, true);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].records, 2u);
  EXPECT_EQ(got[0].tag, 1);
  EXPECT_EQ(got[1].tag, 2);
  EXPECT_EQ(got[1].status, 0);
  EXPECT_TRUE(log_.contains("No request found in kline request list[id=21][0]!!!")) << log_.dump();
  EXPECT_EQ(log_.count("Start retrun data[id=21]"), 3u);
}

TEST_F(KelQuoteClientTest, AHostMayRequestAgainFromInsideAHistoryCallback) {
  std::vector<Delivery> inner;
  AddHistory(30, [&](se::EQuoteSubStatus, const QuoteRecords&, se::EDataArrivedTag) {
    client_.requestHistoryQuote(Meta("SH", "600000"), {}, "", Recorder(inner));
  });
  client_.onRequestHistory(30, {}, true);
  EXPECT_EQ(inner.size(), 1u);  // refused (no service), but no deadlock
}

TEST_F(KelQuoteClientTest, RegistriesReplaceAndRemove) {
  std::vector<Delivery> first, second;
  client_.add_quote_info(40, "600000", "SH", Recorder(first));
  client_.add_quote_info(40, "600001", "SH", Recorder(second));
  client_.onSubscribe(40, {std::make_shared<quoter::QuoterAllData>()});
  EXPECT_TRUE(first.empty());
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].tag, 3);

  std::string code, market;
  EXPECT_TRUE(client_.del_quote_info(40, code, market));
  EXPECT_EQ(code, "600001");
  EXPECT_EQ(market, "SH");
  EXPECT_FALSE(client_.del_quote_info(40, code, market));
  client_.onSubscribe(40, {});
  EXPECT_TRUE(log_.contains("No request found in waiting list[id=40]!!!"));

  log_.clear();
  client_.unsubscribe(41);
  ASSERT_EQ(log_.lines().size(), 1u) << log_.dump();
  EXPECT_EQ(log_.lines()[0].text, "[tavr::KelQuoteClient::unsubscribe]: delete 41 subscrib info....");

  // An id that was never handed out does not stand for its low 16 bits.
  client_.add_quote_info(42, "600000", "SH", Recorder(first));
  client_.add_mkt_push_info(2, [](const QuoteMap&) {});
  client_.unsubscribe(42 + 65536);
  client_.unWholeQuote(2 - 65536);
  EXPECT_TRUE(client_.del_quote_info(42, code, market));
  EXPECT_TRUE(client_.del_mkt_push_info(2));
}

TEST_F(KelQuoteClientTest, UnsubscribeWaitsOutsideCallbacksOnly) {
  int calls = 0;
  client_.add_quote_info(50, "600000", "SH", [&](se::EQuoteSubStatus, const QuoteRecords&, se::EDataArrivedTag) {
    ++calls;
    client_.unsubscribe(50);
  });
  client_.onSubscribe(50, {});
  client_.onSubscribe(50, {});
  EXPECT_EQ(calls, 1);

  // A (a whole market), running, unsubscribes B while B's callback is busy
  // and returns at once; a host thread's unWholeQuote(A) meanwhile still
  // waits for A's call.
  std::atomic<bool> b_inside{false}, b_release{false}, a_past{false}, host_calling{false}, a_running{false};
  client_.add_quote_info(70, "600000", "SH", [&](se::EQuoteSubStatus, const QuoteRecords&, se::EDataArrivedTag) {
    b_inside = true;
    while (!b_release) std::this_thread::yield();
  });
  client_.add_mkt_push_info(2, [&](const QuoteMap&) {
    a_running = true;
    while (!b_inside) std::this_thread::yield();
    client_.unsubscribe(70);
    a_past = true;
    while (!host_calling) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    a_running = false;
  });
  std::thread b([&] { client_.onSubscribe(70, {}); });
  std::thread a([&] { client_.onWholeSub(2, {}); });
  for (int i = 0; i < 500 && !a_past; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(a_past) << "a callback's unsubscribe waited for another callback";
  b_release = true;
  host_calling = true;
  client_.unWholeQuote(2);
  EXPECT_FALSE(a_running) << "unWholeQuote returned while the callback ran";
  a.join();
  b.join();
}

TEST_F(KelQuoteClientTest, MarketNotificationsUnderEveryHostCode) {
  client_.onMarketInfoChange(0, "SH", 0);
  EXPECT_TRUE(log_.contains("Market Information callback handler NOT INITIALIZED!!!"));

  std::vector<std::pair<int, std::string>> got;
  client_.registerTradeDateAndStockListChangeCallBack([&](int kind, std::string host) { got.push_back({kind, host}); });
  client_.onMarketInfoChange(0, "SH", 0);
  client_.onMarketInfoChange(1, "HK", 0);
  client_.onMarketInfoChange(1, "ZJ", 0);
  client_.onMarketInfoChange(0, "SZ", 2);
  client_.onMarketInfoChange(0, "DL", 2);
  client_.onMarketInfoChange(0, "SZ", 1);
  client_.onMarketInfoChange(0, "SZ", 3);
  const std::vector<std::pair<int, std::string>> want = {{0, "SHO"}, {0, "SH"}, {1, "SGT"}, {1, "HGT"},
                                                         {1, "IF"},  {0, "SZO"}, {0, "SZ"}};
  EXPECT_EQ(got, want);
  EXPECT_TRUE(log_.contains("Return notification for market(SGT) [HK-Stocklist] information changed !!!"));
  EXPECT_TRUE(log_.contains("Return notification for market(SHO) [SH-Tradingday] information changed !!!"));
}

// A throwing host callback is logged as the service threads log a failed
// message, and neither ends a delivery nor leaves an entry behind.
TEST_F(KelQuoteClientTest, HostCallbacksThatThrowCostNobodyElseAnything) {
  client_.onConnectStatusChange(1, "lost");
  EXPECT_TRUE(log_.contains("Status callback handler NOT INITIALIZED!!!"));
  int calls = 0;
  auto thrower = [&calls](auto&&...) {
    ++calls;
    throw std::runtime_error("host failure");
  };
  client_.registerQuoterConnectCallBack(thrower);
  EXPECT_NO_THROW(client_.onConnectStatusChange(2, "failed"));
  client_.registerTradeDateAndStockListChangeCallBack(thrower);
  client_.onMarketInfoChange(1, "HK", 0);  // both host codes are told
  AddHistory(21, thrower);
  client_.onRequestHistory(21, {}, false);
  client_.onRequestHistory(21, {}, true);
  client_.onRequestHistory(21, {}, true);
  std::vector<int> statuses;
  auto finance = [&](std::string market, const FinanceDataParam& p, const FinanceResult&, se::EQuoteSubStatus status) {
    EXPECT_EQ(market + "/" + p.code, "SZ/000001");
    statuses.push_back(status);
    thrower();
  };
  AddFinance(60, finance);
  AddFinance(61, finance);
  client_.onRequestFinance(60, {}, true);
  client_.onRequestFinance(61, {}, false);
  client_.onRequestFinance(60, {}, true);
  client_.add_quote_info(40, "600000", "SH", thrower);
  client_.add_mkt_push_info(2, thrower);
  EXPECT_NO_THROW(client_.onSubscribe(40, {}));
  EXPECT_NO_THROW(client_.onWholeSub(2, {}));
  EXPECT_EQ(calls, 9);
  EXPECT_EQ(log_.count("[DvDataMgr::DataServiceThread]: 数据服务线程, do bussiness catch Exception!!!..."), 9u);
  EXPECT_EQ(statuses, (std::vector<int>{0, 1}));
  EXPECT_TRUE(log_.contains("Return connect message[2:failed]!!!"));
  EXPECT_TRUE(log_.contains("Return notification for market(HGT) [HK-Stocklist] information changed !!!"));
  EXPECT_TRUE(log_.contains("No request found in kline request list[id=21][0]!!!"));
  EXPECT_TRUE(log_.contains("Request[61] finance data sent....."));
  EXPECT_TRUE(log_.contains("No request found in finance request list[id=60]!!!"));
}

class LoginTest : public KelQuoteClientTest {
 protected:
  LoginTest() {
    mgr_.set_api(&api_);
    mgr_.set_processor_count(2);
    client_.attach_data_manager(&mgr_);
  }
  ~LoginTest() override { mgr_.stop(); }

  std::pair<bool, std::string> Login(int environment = 2) {
    LoginParam param;
    param.environment = environment;
    std::pair<bool, std::string> result{false, "not called"};
    client_.goLogin(param, [&](bool ok, std::string text) { result = {ok, text}; });
    return result;
  }

  testkit::WorkDir dir_;
  testkit::FakeDataApi api_;
  DvDataMgr mgr_;
};

TEST_F(LoginTest, ABrokenConfigurationFailsInitialisation) {
  auto [ok, text] = Login();
  EXPECT_FALSE(ok);
  EXPECT_EQ(text, "初始化失败，请检查配置信息！");
  EXPECT_TRUE(log_.contains("[tavr::KelQuoteClient::goLogin]: Failed to Init...."));
  EXPECT_FALSE(client_.logged_in());
}

TEST_F(LoginTest, AFailedConnectIsRetriedFromTheCallbackAndALostOneByTheNextLogin) {
  dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" + testkit::servers_xml(1) + "</history>"));
  api_.set_result("Connect", -1);
  LoginParam param;
  std::vector<std::pair<bool, std::string>> results;
  client_.goLogin(param, [&](bool ok, std::string text) {
    results.push_back({ok, text});
    if (ok) return;
    // A host that retries at once, from inside its callback.
    api_.set_result("Connect", 0);
    client_.goLogin(param, [&](bool again, std::string text2) { results.push_back({again, text2}); });
  });
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0], std::make_pair(false, std::string("网关连接超时，请检查网络状态，稍后重试！")));
  EXPECT_EQ(results[1], std::make_pair(true, std::string()));
  EXPECT_TRUE(log_.contains("Failed to login...."));
  EXPECT_TRUE(client_.logged_in());
  EXPECT_EQ(api_.count("RegisterServer"), 1u);
  EXPECT_EQ(api_.count("Connect"), 2u);
  ASSERT_TRUE(log_.wait_for("Daily job thread start......"));
  ASSERT_TRUE(log_.wait_for("数据服务线程 begin...", 4));  // two for the failed start, two now

  // The connection is gone: the next login connects again and repeats the
  // start-up requests, with the threads that run.
  mgr_.set_connected(false);
  api_.clear_calls();
  EXPECT_TRUE(Login().first);
  std::vector<std::string> ops;
  for (const auto& call : api_.calls()) ops.push_back(call.op);
  EXPECT_EQ(ops, (std::vector<std::string>{"Connect", "ReqBaseData", "ReqMarketStatus", "ReqMarketInit", "ReqHoliday",
                                           "ReqHKRate"}));
  EXPECT_EQ(log_.count("数据服务线程 begin..."), 4u);
  EXPECT_EQ(log_.count("Daily job thread start......"), 1u);

  StartLogin(1);
  EXPECT_FALSE(client_.logged_in());
  EXPECT_FALSE(mgr_.is_started());
  StartLogin(7);
  EXPECT_FALSE(mgr_.is_started());
  StartLogin(0);
  EXPECT_TRUE(client_.logged_in());
  EXPECT_TRUE(mgr_.is_started());
}

// A host that stops and starts the service from inside a level-1 callback,
// and one whose other thread stops it meanwhile: no delivery overlaps or
// goes back in time, nothing hangs.
TEST_F(LoginTest, StopAndStartFromInsideACallback) {
  dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                  testkit::servers_xml(1) + "</history>"));
  ASSERT_TRUE(Login().first);
  const std::vector<ApiCodeInit> codes{testkit::code_init("600000", "x", 2, 100)};
  auto init_market = [&] {
    mgr_.callback()->OnMarketInit(testkit::market_init(2, 20240102, codes).data());
    mgr_.callback()->OnRespRefInfo(testkit::ref_info(2, codes, 10, 1).data());
  };
  init_market();
  std::atomic<int> inside{0}, overlaps{0}, reorders{0}, calls{0}, sent{0};
  std::atomic<bool> restarted{false}, host_stopping{false}, vendor_done{false};
  int64_t last = 0;
  int id = client_.subscribeQuote(Meta("SH", "600000"), {}, "",
                                  [&](se::EQuoteSubStatus, const QuoteRecords& records, se::EDataArrivedTag) {
    if (inside.fetch_add(1) != 0) ++overlaps;
    auto tick = records.empty() ? nullptr : std::dynamic_pointer_cast<quoter::QuoterAllData>(records.back());
    if (tick == nullptr || tick->time <= last) ++reorders;
    if (tick != nullptr) last = tick->time;
    int call = ++calls;
    if (call == 5) {
      StartLogin(1);
      StartLogin(0);
      restarted = true;
      // Still inside while the vendor sends on: the new run waits for this call.
      int until = sent + 20;
      while (sent < until && !vendor_done) std::this_thread::yield();
    } else if (call == 40) {
      while (!host_stopping) std::this_thread::yield();
      StartLogin(1);
    }
    inside.fetch_sub(1);
  });
  ASSERT_GT(id, 0);
  std::thread vendor([&] {
    bool reinitialised = false;
    // Paced, and on until the host has had its 40 calls, so that a slow
    // machine (Wine) sees them too; times stay increasing below 4200.
    for (int i = 0; i < 4000 && !host_stopping && (i < 3000 || calls < 40); ++i) {
      if (restarted && !reinitialised) {
        init_market();
        reinitialised = true;
      }
      ApiL1Tick tick = testkit::l1_tick(2, "600000", 93000 + (i / 60) * 100 + i % 60, 10.0f);
      mgr_.callback()->OnTickL1(&tick);
      ++sent;
      if (i % 50 == 49) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    vendor_done = true;
  });
  for (int i = 0; i < 1000 && calls < 40; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  auto stopped = std::async(std::launch::async, [&] {
    host_stopping = true;
    StartLogin(1);
  });
  EXPECT_EQ(stopped.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "stop hangs";
  vendor.join();
  EXPECT_GE(calls.load(), 40);
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(reorders.load(), 0);
  EXPECT_FALSE(mgr_.is_started());
}

}  // namespace
}  // namespace tavr
