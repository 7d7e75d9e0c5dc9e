// What the simulated service's tests share: a callback object that copies
// each reply as the library's adapter does and notes the thread, and a
// fixture holding the service with one quote server configured.
#ifndef KELQUOTE_DATAAPI_SIM_SIM_HOST_TEST_H_
#define KELQUOTE_DATAAPI_SIM_SIM_HOST_TEST_H_

#include <chrono>
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

namespace sim {

using Clock = std::chrono::steady_clock;

class Recorder final : public CDataApiCallBack {
 public:
  struct Record {
    std::string kind;
    std::thread::id thread;
    Clock::time_point at;
    std::vector<uint8_t> bytes;
  };

  int OnMarketInit(const void* r) override { return Keep("init", r, kInitRule); }
  int OnMarketOtherBase(const void* r) override { return Keep("other base", r, kOtherBaseRule); }
  int OnRespRefInfo(const void* r) override { return Keep("reference", r, kRefInfoRule); }
  int OnRespHolidayInfo(const void* r) override { return Keep("holidays", r, kHolidayRule); }
  int OnMarketStatus(const void* r) override { return Keep("status", r, kStatusRule); }
  int OnRespSharedFields(const void* r) override { return Keep("shared fields", r, kSharedFieldsRule); }
  int OnRespNewIssueList(const void* r) override { return Keep("new issues", r, kNewIssueRule); }
  int OnRespHKRateData(const void* r) override { return Keep("rates", r, kHKRateRule); }
  int OnRespLatestShareData(const void* r) override { return Keep("share capital", r, kLatestShareRule); }
  int OnRespBalanceSheetData(const void* r) override { return Keep("balance", r, kBalanceRule); }
  int OnRespIncomeStatData(const void* r) override { return Keep("income", r, kIncomeRule); }
  int OnRespCashFlowData(const void* r) override { return Keep("cash flow", r, kCashFlowRule); }
  int OnRespFinancialData(const void* r) override { return Keep("per share", r, kFinancialRule); }
  int OnRespShareData(const void* r) override { return Keep("capital", r, kShareRule); }
  int OnRespSHNumberData(const void* r) override { return Keep("holder count", r, kSHNumberRule); }
  int OnRespMostShareHolderData(const void* r) override { return Keep("top ten", r, kTopHolderRule); }
  int OnRespNegotiableShareHolderData(const void* r) override { return Keep("top ten tradable", r, kTopHolderRule); }
  int OnTickL1(const void* r) override {
    if (on_tick_) on_tick_();
    return Keep("l1", r, kTickL1Rule);
  }
  int OnRespMarketPushData(const void* r) override { return Keep("push", r, kMarketPushRule); }
  int OnTickL2(const void* r) override { return Keep("l2 tick", CopyLevel2LikeTheAdapter(r, kL2SnapshotElem)); }
  int OnIndexL2(const void* r) override { return Keep("l2 index", CopyLevel2LikeTheAdapter(r, kL2IndexElem)); }
  int OnTransL2(const void* r) override { return Keep("l2 trans", CopyLevel2LikeTheAdapter(r, kL2TransactionElem)); }
  int OnOrderL2(const void* r) override { return Keep("l2 order", CopyLevel2LikeTheAdapter(r, kL2OrderElem)); }
  int OnOrderQueueL2(const void* r) override { return Keep("l2 queue", CopyLevel2LikeTheAdapter(r, kL2QueueElem)); }

  std::vector<Record> take() {
    std::lock_guard<std::mutex> lock(mu_);
    return std::move(records_);
  }
  size_t count(const std::string& kind) {
    std::lock_guard<std::mutex> lock(mu_);
    size_t n = 0;
    for (const Record& r : records_) n += r.kind == kind ? 1 : 0;
    return n;
  }
  // Runs on the callback thread before a level-1 snapshot is kept.
  void on_tick(std::function<void()> fn) { on_tick_ = std::move(fn); }

 private:
  int Keep(const char* kind, const void* record, const CopyRule& rule) {
    return Keep(kind, CopyLikeTheAdapter(record, rule));
  }
  int Keep(const char* kind, std::vector<uint8_t> bytes) {
    std::lock_guard<std::mutex> lock(mu_);
    records_.push_back({kind, std::this_thread::get_id(), Clock::now(), std::move(bytes)});
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

// The service registered with one quote server and the recorder, not yet
// connected; released and unregistered afterwards.
class SimHostTest : public ::testing::Test {
 protected:
  SimHostTest() : api_(GetApiInstance()) {
    ServerLoginConfig login{};
    std::strcpy(login.servers[0].host, "127.0.0.1");
    std::strcpy(login.servers[0].port, "7709");
    servers_[0] = login;
    api_->RegisterServer(&servers_, &recorder_);
  }
  ~SimHostTest() override {
    api_->Release();
    api_->RegisterServer(nullptr, nullptr);
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

  CDataApi* api_;
  ServerTable servers_;
  Recorder recorder_;
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_SIM_HOST_TEST_H_
