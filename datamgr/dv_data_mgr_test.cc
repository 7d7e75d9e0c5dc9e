#include "datamgr/DvDataMgr.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"
#include "utils/utils.h"

namespace tavr {
namespace {

DataMsg* NewMsg(uint32_t type, int payload = 0) {
  auto* msg = new DataMsg;
  msg->msg_type = type;
  msg->data = std::malloc(sizeof(int));
  std::memcpy(msg->data, &payload, sizeof(int));
  return msg;
}

int PayloadOf(void* data) {
  int value;
  std::memcpy(&value, data, sizeof(int));
  return value;
}

class DataMgrTest : public ::testing::Test {
 protected:
  DataMgrTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(2) + "</quote><history>" +
                                                    testkit::servers_xml(2) + "</history>"));
    mgr_.set_api(&api_);
    mgr_.set_processor_count(2);
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  testkit::FakeDataApi api_;
  DvDataMgr mgr_;
};

TEST(DataMgrRulesTest, ServiceThreadCountIsBounded) {
  EXPECT_EQ(service_thread_count(1), 2);
  EXPECT_EQ(service_thread_count(2), 2);
  EXPECT_EQ(service_thread_count(7), 7);
  EXPECT_EQ(service_thread_count(20), 20);
  EXPECT_EQ(service_thread_count(64), 20);
}

TEST(DataMgrRulesTest, DailyJobRunsOnceOnWeekdayMornings) {
  // 2024-01-01 is a Monday, 2024-01-06 a Saturday, 2024-01-07 a Sunday.
  EXPECT_TRUE(daily_job_due(20240101083005, -1));
  EXPECT_TRUE(daily_job_due(20240101083000, 20231229));
  EXPECT_FALSE(daily_job_due(20240101083009, 20240101));
  EXPECT_FALSE(daily_job_due(20240101082959, -1));
  EXPECT_FALSE(daily_job_due(20240101083010, -1));
  EXPECT_FALSE(daily_job_due(20240106083005, -1));
  EXPECT_FALSE(daily_job_due(20240107083005, -1));
  EXPECT_TRUE(daily_job_due(20240105083009, -1));  // Friday
  EXPECT_TRUE(daily_job_due(20241341083005, -1));  // not a date: counts as a weekday
}

TEST_F(DataMgrTest, InitRegistersServersCallbackAndMarketsOnce) {
  ASSERT_TRUE(mgr_.init(true));
  EXPECT_EQ(log_.count("=================================Dravik Data Service[V2.1(20201026)], Logs "
                       "init==================================="),
            1u);
  EXPECT_EQ(api_.count("RegisterServer"), 1u);
  EXPECT_EQ(api_.callback(), mgr_.callback());
  EXPECT_EQ(api_.servers().size(), 3u);
  EXPECT_EQ(mgr_.markets().size(), 8u);
  auto sh = mgr_.markets().find("SH");
  ASSERT_NE(sh, nullptr);
  EXPECT_EQ(sh->start_date, 19901219);
  EXPECT_EQ(sh->second_date, 20170222);
  EXPECT_EQ(mgr_.markets().find("HK")->second_date, 20161205);
  EXPECT_EQ(mgr_.markets().find("ZJ")->start_date, 20100416);
  EXPECT_FALSE(sh->initialised);

  ASSERT_TRUE(mgr_.init(true));
  EXPECT_TRUE(log_.contains("[DvDataMgr::init]: Already inited, do nothing...."));
  EXPECT_EQ(log_.count("Logs init"), 1u);
  EXPECT_EQ(api_.count("RegisterServer"), 1u);
}

TEST_F(DataMgrTest, FailedConfigurationIsRetriedByTheNextInit) {
  dir_.write("dravikcfg.dat", "<broken");
  EXPECT_FALSE(mgr_.init(true));
  EXPECT_TRUE(log_.contains("[DvDataMgr::init]: Fail to initialize Dravik config...."));
  EXPECT_EQ(api_.count("RegisterServer"), 0u);
  dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                  testkit::servers_xml(1) + "</history>"));
  EXPECT_TRUE(mgr_.init(true));
  EXPECT_EQ(log_.count("Logs init"), 2u);
  EXPECT_EQ(api_.count("RegisterServer"), 1u);
}

TEST_F(DataMgrTest, StartConnectsAndSendsStartUpRequestsStopReleasesAndEmptiesTheTables) {
  EXPECT_TRUE(mgr_.stop());  // before any start: nothing to do
  EXPECT_EQ(api_.count("Release"), 0u);
  ASSERT_TRUE(mgr_.init(true));
  for (int cycle = 0; cycle < 3; ++cycle) {
    api_.clear_calls();
    ASSERT_TRUE(mgr_.start()) << cycle;
    EXPECT_TRUE(mgr_.is_started());
    EXPECT_TRUE(mgr_.is_connected());
    EXPECT_EQ(mgr_.thread_count(), 2);
    auto calls = api_.calls();
    std::vector<std::pair<std::string, int64_t>> sent;
    for (const auto& call : calls) sent.push_back({call.op, call.arg});
    const std::vector<std::pair<std::string, int64_t>> start_up = {
        {"Connect", 0}, {"ReqBaseData", 0}, {"ReqMarketStatus", 0}, {"ReqMarketInit", 0}, {"ReqHoliday", 2}, {"ReqHKRate", 0}};
    ASSERT_EQ(sent, start_up);
    HKRateRequest rate = testkit::record_of<HKRateRequest>(calls.back());
    EXPECT_EQ(int32_t{rate.begin}, 0);  // copied out: the field is unaligned
    EXPECT_EQ(int32_t{rate.end}, 0);
    EXPECT_TRUE(log_.wait_for("Daily job thread start......", cycle + 1));

    // Instruments of both tables and a rate, as the replies leave them.
    auto init = testkit::market_init(2, 20240102, {testkit::code_init("600000", "x"), testkit::code_init("10004567", "y", 4, 1)});
    mgr_.on_reply_data(0, init.data(), init.size());
    auto rates = testkit::reply(ApiHKRateHead{0, 0, 0, 1}, std::vector<ApiHKRateItem>{{20240102, {}, 0.9f, 0.9f}});
    mgr_.on_reply_data(31, rates.data(), rates.size());
    auto sh = mgr_.markets().find("SH");
    auto held = [&] {
      std::lock_guard<CodesMutex> codes(mgr_.markets().codes_mu);
      std::lock_guard<std::mutex> calendar(mgr_.calendar().mu);
      return std::vector<size_t>{sh->base_codes.size(), sh->other_codes.size(), mgr_.calendar().hk_rates.size()};
    };
    ASSERT_EQ(held(), (std::vector<size_t>{1, 1, 1}));

    EXPECT_TRUE(mgr_.stop());
    EXPECT_EQ(held(), (std::vector<size_t>{0, 0, 0}));
    EXPECT_FALSE(mgr_.is_started());
    EXPECT_FALSE(mgr_.is_connected());
    EXPECT_EQ(api_.count("Release"), 1u);
    EXPECT_EQ(log_.count("Daily job thread end......"), static_cast<size_t>(cycle + 1));
    EXPECT_EQ(log_.count("数据服务线程 exit..."), static_cast<size_t>(2 * (cycle + 1)));
    EXPECT_TRUE(mgr_.stop());
    EXPECT_EQ(api_.count("Release"), 1u);
  }
}

TEST_F(DataMgrTest, FailedConnectEndsTheServiceThreads) {
  ASSERT_TRUE(mgr_.init(true));
  api_.set_result("Connect", -3);
  api_.set_connect_result(ConnectResult{7, 8, 9});
  EXPECT_FALSE(mgr_.start());
  EXPECT_TRUE(log_.contains(" DvDataMgr::start API建立连接失败[7, 8, 9]...")) << log_.dump();
  EXPECT_FALSE(mgr_.is_started());
  EXPECT_FALSE(mgr_.is_connected());
  EXPECT_EQ(mgr_.thread_count(), 0);
  EXPECT_EQ(log_.count("数据服务线程 exit..."), 2u);
  EXPECT_EQ(api_.count("ReqHoliday"), 0u);
  EXPECT_FALSE(log_.contains("Daily job thread start"));
  api_.set_result("Connect", 0);
  EXPECT_TRUE(mgr_.start());
  // Started, the connection gone, a second connect refused: every thread ends.
  mgr_.set_connected(false);
  api_.set_result("Connect", -3);
  EXPECT_FALSE(mgr_.start());
  EXPECT_FALSE(mgr_.is_started());
  EXPECT_EQ(log_.count("数据服务线程 exit..."), 4u);
  EXPECT_EQ(log_.count("Daily job thread end......"), 1u);
  EXPECT_TRUE(mgr_.stop());
}

TEST_F(DataMgrTest, BurstBeyondTheSemaphoreMaximumIsHandledCompletely) {
  ASSERT_TRUE(mgr_.init(true));
  std::mutex gate;
  std::unique_lock<std::mutex> hold(gate);
  std::atomic<int> handled{0};
  std::atomic<long long> sum{0};
  mgr_.set_message_hook([&](uint32_t, void* data, size_t) {
    std::lock_guard<std::mutex> wait(gate);  // blocked until the whole burst is queued
    sum += PayloadOf(data);
    ++handled;
  });
  ASSERT_TRUE(mgr_.start());
  const int kBurst = 5000;
  for (int i = 1; i <= kBurst; ++i) mgr_.push_msg(NewMsg(14, i));
  hold.unlock();
  EXPECT_TRUE(mgr_.wait_idle(10000)) << handled.load();
  EXPECT_EQ(handled.load(), kBurst);
  EXPECT_EQ(sum.load(), 1LL * kBurst * (kBurst + 1) / 2);
  EXPECT_EQ(mgr_.queue_size(), 0u);
  EXPECT_TRUE(mgr_.stop());
}

TEST_F(DataMgrTest, ServiceThreadsSurviveExceptionsAndLogThePayloadPointer) {
  ASSERT_TRUE(mgr_.init(true));
  log_.enable_all_levels();  // init configured the logger from file
  std::mutex mu;
  std::vector<void*> seen;
  mgr_.set_message_hook([&](uint32_t type, void* data, size_t) {
    {
      std::lock_guard<std::mutex> lock(mu);
      seen.push_back(data);
    }
    if (type == 17) throw std::runtime_error("handler failed");
    if (type == 18) throw 5;
  });
  ASSERT_TRUE(mgr_.start());
  for (int i = 0; i < 10; ++i) mgr_.push_msg(NewMsg(i % 2 == 0 ? 17 : 18));
  mgr_.push_msg(NewMsg(14));
  ASSERT_TRUE(mgr_.wait_idle(5000));
  EXPECT_EQ(log_.count("数据服务线程, do bussiness catch Exception!!!..."), 10u);
  std::lock_guard<std::mutex> lock(mu);
  ASSERT_EQ(seen.size(), 11u);
  char pointer[64];
  std::snprintf(pointer, sizeof(pointer), "数据指针地址为%p...", seen.back());
  EXPECT_TRUE(log_.contains(pointer)) << pointer;
  EXPECT_TRUE(mgr_.stop());
}

TEST_F(DataMgrTest, StaleMessageBeforeStartLosesOnlyTheOldest) {
  ASSERT_TRUE(mgr_.init(true));
  std::atomic<int> handled{0};
  std::atomic<int> first_seen{-1};
  mgr_.set_message_hook([&](uint32_t, void* data, size_t) {
    int expected = -1;
    first_seen.compare_exchange_strong(expected, PayloadOf(data));
    ++handled;
  });
  for (int i = 1; i <= 3; ++i) mgr_.push_msg(NewMsg(14, i));
  ASSERT_TRUE(mgr_.start());
  ASSERT_TRUE(mgr_.wait_idle(5000));
  EXPECT_EQ(handled.load(), 2);
  EXPECT_NE(first_seen.load(), 1);
  EXPECT_TRUE(mgr_.stop());
}

TEST_F(DataMgrTest, DailyJobRunsOncePerWeekdayMorning) {
  ASSERT_TRUE(mgr_.init(true));
  std::atomic<double> now{static_cast<double>(utils::timeToMilliseconds(20240101, 83005) / 1000)};
  mgr_.set_clock([&now] { return now.load(); });
  mgr_.set_timer_period_ms(5);
  ASSERT_TRUE(mgr_.start());
  ASSERT_TRUE(log_.wait_for("Start daily job......"));
  // The job logs before it sends its requests.
  for (int i = 0; i < 500 && api_.count("ReqHoliday") < 2; ++i) port::SleepMs(2);
  EXPECT_EQ(api_.count("ReqHKRate"), 2u);  // start-up and the job
  EXPECT_EQ(api_.count("ReqHoliday"), 2u);
  // The rate request goes before the holidays.
  auto calls = api_.calls();
  std::vector<std::string> order;
  for (const auto& call : calls) {
    if (call.op == "ReqHKRate" || call.op == "ReqHoliday") order.push_back(call.op);
  }
  EXPECT_EQ(order.back(), "ReqHoliday");
  EXPECT_EQ(order[order.size() - 2], "ReqHKRate");

  now = static_cast<double>(utils::timeToMilliseconds(20240101, 83009) / 1000);
  port::SleepMs(60);
  now = static_cast<double>(utils::timeToMilliseconds(20240106, 83005) / 1000);  // Saturday
  port::SleepMs(60);
  EXPECT_EQ(log_.count("Start daily job......"), 1u);
  now = static_cast<double>(utils::timeToMilliseconds(20240108, 83001) / 1000);  // next Monday
  EXPECT_TRUE(log_.wait_for("Start daily job......", 2));
  EXPECT_TRUE(mgr_.stop());
  EXPECT_EQ(log_.count("Start daily job......"), 2u);
}

TEST_F(DataMgrTest, WaitDynamicTimeBacksOffAfterFiveAttempts) {
  mgr_.waitDynamicTime(0, "DvDataMgr::request_his_kline", "Connect Status", 0);
  EXPECT_TRUE(log_.contains("[DvDataMgr::request_his_kline]Connect Status-0信息正初始化，等待400ms![#0]"));
  auto begin = std::chrono::steady_clock::now();
  mgr_.waitDynamicTime(6, "F", "SH", 2);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
  EXPECT_TRUE(log_.contains("[F]SH-2信息正初始化，等待1000ms后开始处理![#6]"));
}

}  // namespace
}  // namespace tavr
