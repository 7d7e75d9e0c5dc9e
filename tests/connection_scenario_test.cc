// The connection's life against the simulated quote service: login, loss,
// restore and failure, as the host and a waiting request see them.
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dataapi/sim/sim_control.h"
#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/log_capture.h"
#include "testkit/work_dir.h"

namespace tavr {
namespace {

using namespace std::chrono_literals;

class ConnectionScenarioTest : public ::testing::Test {
 protected:
  ConnectionScenarioTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                    testkit::servers_xml(1) + "</history>"));
    client_.registerQuoterConnectCallBack([this](int code, std::string) {
      std::lock_guard<std::mutex> lock(mu_);
      codes_.push_back(code);
    });
  }
  ~ConnectionScenarioTest() override { SimRefuseConnect(0); }

  std::pair<bool, std::string> Login() {
    std::pair<bool, std::string> result{false, "not called"};
    client_.goLogin(LoginParam{}, [&](bool ok, std::string text) { result = {ok, text}; });
    log_.enable_all_levels();
    return result;
  }
  void Report(int server, int status) {
    ASSERT_EQ(SimReportConnection(server, status), 0);
    ASSERT_EQ(SimWaitIdle(5000), 1);
  }
  std::vector<int> codes() {
    std::lock_guard<std::mutex> lock(mu_);
    return codes_;
  }
  DvDataMgr& mgr() { return *client_.data_manager(); }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  KelQuoteClient client_;
  std::mutex mu_;
  std::vector<int> codes_;
};

TEST_F(ConnectionScenarioTest, ARequestWaitingThroughALossAndARestoreGoesThrough) {
  ASSERT_TRUE(Login().first);
  Report(1, 0);  // the history server's state does not gate requests
  EXPECT_TRUE(mgr().is_connected());
  Report(0, 0);
  EXPECT_FALSE(mgr().is_connected());

  auto gate = std::async(std::launch::async, [this] { return mgr().pass_request_gate("Scenario::request"); });
  std::this_thread::sleep_for(500ms);
  Report(0, 1);
  EXPECT_TRUE(gate.get());
  EXPECT_TRUE(mgr().is_connected());
  EXPECT_EQ(codes(), (std::vector<int>{1, 0}));
  EXPECT_FALSE(log_.contains("后台已断开"));
}

TEST_F(ConnectionScenarioTest, AfterAFailureRequestsFailAtOnceUntilTheNextLogin) {
  ASSERT_TRUE(Login().first);
  Report(0, 2);
  EXPECT_FALSE(mgr().is_started());
  EXPECT_EQ(codes(), std::vector<int>{2});

  auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(mgr().pass_request_gate("Scenario::request"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 300ms);
  EXPECT_TRUE(log_.contains("[Scenario::request]: 后台已断开，无法发送请求，需要客户端重启..."));

  ASSERT_TRUE(Login().first);
  EXPECT_TRUE(mgr().pass_request_gate("Scenario::request"));
}

// A host that lists a market from inside the market's change notification
// waits on a service thread for replies that other threads take.
TEST_F(ConnectionScenarioTest, AHostListsAMarketFromInsideItsChangeNotification) {
  std::promise<size_t> listed;
  std::atomic<bool> asked{false};
  client_.registerTradeDateAndStockListChangeCallBack([&](int kind, const std::string& host) {
    if (kind != 1 || host != "SH" || asked.exchange(true)) return;
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
    client_.getStockList("SH", 0, list);
    listed.set_value(list.size());
  });
  ASSERT_TRUE(Login().first);
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> before;
  client_.getStockList("SH", 0, before);
  ASSERT_FALSE(before.empty());
  ASSERT_EQ(SimChangeMarket(2), 0);
  auto result = listed.get_future();
  ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
  EXPECT_GE(result.get(), before.size());  // the change lists a new share
  EXPECT_FALSE(log_.contains("初始化失败"));
}

}  // namespace
}  // namespace tavr
