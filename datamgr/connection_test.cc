#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/work_dir.h"
#include "utils/utils.h"

namespace tavr {
namespace {

class ConnectionTest : public ::testing::Test {
 protected:
  ConnectionTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                    testkit::servers_xml(1) + "</history>"));
    mgr_.set_api(&api_);
    mgr_.set_processor_count(2);
    mgr_.set_client(&client_);
    client_.registerQuoterConnectCallBack([this](int code, std::string text) {
      std::lock_guard<std::mutex> lock(mu_);
      reports_.push_back({code, text, mgr_.is_connected(), mgr_.is_started()});
    });
  }
  void Start() {
    ASSERT_TRUE(mgr_.init(true));
    ASSERT_TRUE(mgr_.start());
    log_.enable_all_levels();
  }

  struct Report {
    int code;
    std::string text;
    bool connected_during;
    bool started_during;
  };
  std::vector<Report> reports() {
    std::lock_guard<std::mutex> lock(mu_);
    return reports_;
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  testkit::FakeDataApi api_;
  KelQuoteClient client_;
  DvDataMgr mgr_;
  std::mutex mu_;
  std::vector<Report> reports_;
};

TEST_F(ConnectionTest, StatusesReachTheHostBeforeTheStateChanges) {
  Start();
  mgr_.on_connect_status(1, 0);  // history server: logged, ignored
  EXPECT_TRUE(log_.contains("[CMyCallBackPro::OnConnectStatus]: Receive connect message[1--0]..."));
  EXPECT_TRUE(log_.contains("Ignore History connect status message..."));
  EXPECT_TRUE(mgr_.is_connected());
  EXPECT_TRUE(reports().empty());

  mgr_.on_connect_status(0, 0);
  EXPECT_FALSE(mgr_.is_connected());
  mgr_.on_connect_status(0, 7);  // unknown: nothing changes
  mgr_.on_connect_status(0, 1);
  EXPECT_TRUE(mgr_.is_connected());
  mgr_.on_connect_status(0, 2);
  EXPECT_FALSE(mgr_.is_connected());
  EXPECT_FALSE(mgr_.is_started());
  EXPECT_EQ(api_.count("Release"), 1u);

  auto r = reports();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0].code, 1);
  EXPECT_EQ(r[0].text, "Dravik后台数据连接中断，尝试重连中....");
  EXPECT_TRUE(r[0].connected_during);
  EXPECT_EQ(r[1].code, 0);
  EXPECT_EQ(r[1].text, "Dravik后台数据连接恢复正常....");
  EXPECT_FALSE(r[1].connected_during);
  EXPECT_EQ(r[2].code, 2);
  EXPECT_EQ(r[2].text, "Dravik后台数据连接失败，请稍后重新登陆....");
  EXPECT_TRUE(r[2].started_during);
}

TEST_F(ConnectionTest, GateFailsAtOnceWhenStopped) {
  auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(mgr_.pass_request_gate("DvDataMgr::request_his_kline"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
  EXPECT_TRUE(log_.contains("[DvDataMgr::request_his_kline]: 后台已断开，无法发送请求，需要客户端重启..."));
  Start();
  mgr_.on_connect_status(0, 2);  // failed: stopped until the next login
  log_.clear();
  EXPECT_FALSE(mgr_.pass_request_gate("F"));
  EXPECT_TRUE(log_.contains("需要客户端重启"));
  EXPECT_FALSE(log_.contains("信息正初始化"));
}

// A vendor that gives up from inside Connect, on the connecting thread or
// another, neither hangs nor waits for the start: the start fails and the
// service stops.
TEST_F(ConnectionTest, AFailureReportedDuringConnectStopsWithoutWaiting) {
  ASSERT_TRUE(mgr_.init(true));
  for (bool same_thread : {true, false}) {
    api_.on_connect([this, same_thread] {
      if (same_thread) {
        mgr_.on_connect_status(0, 2);
        return;
      }
      auto reported = std::async(std::launch::async, [this] { mgr_.on_connect_status(0, 2); });
      EXPECT_EQ(reported.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    });
    EXPECT_FALSE(mgr_.start()) << same_thread;
    EXPECT_FALSE(mgr_.is_started());
    EXPECT_EQ(mgr_.thread_count(), 0);
  }
  api_.on_connect(nullptr);
  // The next session's daily job still runs: nothing of those stops is left
  // for its timer thread.
  mgr_.set_clock([] { return static_cast<double>(utils::timeToMilliseconds(20240101, 83005) / 1000); });
  mgr_.set_timer_period_ms(5);
  EXPECT_TRUE(mgr_.start());
  EXPECT_TRUE(log_.wait_for("Start daily job......"));
  EXPECT_FALSE(log_.contains("Daily job thread end......"));
  mgr_.stop();
}

// The host hears of a status 2 before the stop releases the vendor's API; a
// login it starts at once must not be undone by that release.
TEST_F(ConnectionTest, AStartRightAfterAFailureWaitsForItsStop) {
  Start();
  api_.set_delay("Release", 300000);
  std::thread vendor([this] { mgr_.on_connect_status(0, 2); });
  while (api_.count("Release") == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(mgr_.start());
  EXPECT_TRUE(mgr_.is_connected());
  vendor.join();
  EXPECT_TRUE(mgr_.is_connected());
  mgr_.stop();
}

TEST_F(ConnectionTest, GateWaitsThroughALossAndARestore) {
  Start();
  mgr_.on_connect_status(0, 0);
  std::thread vendor([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    mgr_.on_connect_status(0, 1);
  });
  EXPECT_TRUE(mgr_.pass_request_gate("F"));
  vendor.join();
  size_t waits = log_.count("[F]Connect Status-0信息正初始化，等待400ms!");
  EXPECT_GE(waits, 1u);
  EXPECT_LE(waits, 3u);
  EXPECT_FALSE(log_.contains("后台已断开"));
  mgr_.stop();
}

TEST_F(ConnectionTest, GateGivesUpAfterFiveWaits) {
  Start();
  mgr_.on_connect_status(0, 0);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(mgr_.pass_request_gate("F"));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900));
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(log_.contains("[F]Connect Status-0信息正初始化，等待400ms![#" + std::to_string(i) + "]"));
  }
  EXPECT_TRUE(log_.contains("[F]: 后台已断开，等待重连中..."));
  mgr_.stop();
}

}  // namespace
}  // namespace tavr
