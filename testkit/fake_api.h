// A scripted CDataApi for tests: records every call with a copy of the
// request record's bytes and answers with configurable results.
#ifndef KELQUOTE_TESTKIT_FAKE_API_H_
#define KELQUOTE_TESTKIT_FAKE_API_H_

#include <cstdint>
#include <cstring>
#include <map>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "dataapi/DataApi.h"

namespace testkit {

struct ApiCall {
  std::string op;                // the operation's name, e.g. "SubscribeL1"
  std::vector<uint8_t> bytes;    // copy of the record passed, if any
  int64_t arg = 0;               // the integer argument, if any
};

class FakeDataApi final : public CDataApi {
 public:
  // Result of op from now on (default 0).
  void set_result(const std::string& op, int result);
  // Each call of op returns us microseconds after it was recorded, as a
  // vendor's call that sends on the network does.
  void set_delay(const std::string& op, int us);
  // What Connect writes into its result record.
  void set_connect_result(ConnectResult result);
  // Runs inside Connect on the calling thread, as a vendor reporting from
  // within the call does.
  void on_connect(std::function<void()> fn);

  std::vector<ApiCall> calls() const;
  std::vector<ApiCall> calls(const std::string& op) const;
  size_t count(const std::string& op) const;
  void clear_calls();

  CDataApiCallBack* callback() const;
  ServerTable servers() const;

  const char* GetVersion() override { return "fake"; }
  int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) override;
  int Connect(ConnectResult* result) override;
  int ReqMarketInit(int32_t id) override { return Int("ReqMarketInit", id); }
  int ReqMarketStatus(int32_t id) override { return Int("ReqMarketStatus", id); }
  int ReqBaseData() override { return Int("ReqBaseData", 0); }
  int SubscribeL1(const ApiCodeItem* i, int32_t n) override { return Rec("SubscribeL1", i, sizeof(*i) * n, n); }
  int UnsubscribeL1(const ApiCodeItem* i, int32_t n) override { return Rec("UnsubscribeL1", i, sizeof(*i) * n, n); }
  int SubscribeL2(const ApiCodeItem* i, int32_t n) override { return Rec("SubscribeL2", i, sizeof(*i) * n, n); }
  int UnsubscribeL2(const ApiCodeItem* i, int32_t n) override { return Rec("UnsubscribeL2", i, sizeof(*i) * n, n); }
  int ReqMarketOtherBase(int32_t id) override { return Int("ReqMarketOtherBase", id); }
  int ReqRefInfo(int32_t id) override { return Int("ReqRefInfo", id); }
  int ReqLatestShare(int32_t id) override { return Int("ReqLatestShare", id); }
  int ReqHoliday(int32_t kind) override { return Int("ReqHoliday", kind); }
  int ReqHKRate(const HKRateRequest* r) override { return Rec("ReqHKRate", r, sizeof(*r)); }
  int ReqHisData(const HisBarRequest* r) override { return Rec("ReqHisData", r, sizeof(*r)); }
  int ReqHisDataCount(const HisBarRequest* r) override { return Rec("ReqHisDataCount", r, sizeof(*r)); }
  int ReqL1NewHisTick(const HisTickRequest* r) override { return Rec("ReqL1NewHisTick", r, sizeof(*r)); }
  int ReqHisTickKcb(const HisTickRequest* r) override { return Rec("ReqHisTickKcb", r, sizeof(*r)); }
  int ReqPower(const ApiCodeItem* i) override { return Rec("ReqPower", i, sizeof(*i)); }
  int ReqHotListDef() override { return Int("ReqHotListDef", 0); }
  int ReqHotListData(int32_t id) override { return Int("ReqHotListData", id); }
  int ReqHotList(int32_t id) override { return Int("ReqHotList", id); }
  int ReqScanner(int32_t id) override { return Int("ReqScanner", id); }
  int ReqSharedFields() override { return Int("ReqSharedFields", 0); }
  int ReqNewIssueList(int32_t id) override { return Int("ReqNewIssueList", id); }
  int ReqShareData(const FinanceRequest* r) override { return Rec("ReqShareData", r, sizeof(*r)); }
  int ReqIndustryData(const FinanceRequest* r) override { return Rec("ReqIndustryData", r, sizeof(*r)); }
  int ReqFinancialData(const FinanceRequest* r) override { return Rec("ReqFinancialData", r, sizeof(*r)); }
  int ReqIncomeStatement(const FinanceRequest* r) override { return Rec("ReqIncomeStatement", r, sizeof(*r)); }
  int ReqCashFlowStatement(const FinanceRequest* r) override { return Rec("ReqCashFlowStatement", r, sizeof(*r)); }
  int ReqBalanceSheet(const FinanceRequest* r) override { return Rec("ReqBalanceSheet", r, sizeof(*r)); }
  int ReqSHNumber(const FinanceRequest* r) override { return Rec("ReqSHNumber", r, sizeof(*r)); }
  int ReqMostShareHolder(const FinanceRequest* r) override { return Rec("ReqMostShareHolder", r, sizeof(*r)); }
  int ReqNegotiableShareHolder(const FinanceRequest* r) override {
    return Rec("ReqNegotiableShareHolder", r, sizeof(*r));
  }
  int Release() override { return Int("Release", 0); }
  int SubscribeMarketPush(const ApiMarketItem* i) override { return Rec("SubscribeMarketPush", i, sizeof(*i)); }
  int UnsubscribeMarketPush(const ApiMarketItem* i) override {
    return Rec("UnsubscribeMarketPush", i, sizeof(*i));
  }

 private:
  int Int(const char* op, int64_t arg);
  int Rec(const char* op, const void* record, size_t size, int64_t arg = 0);

  mutable std::mutex mu_;
  std::vector<ApiCall> calls_;
  std::map<std::string, int> results_;
  std::map<std::string, int> delays_;
  ConnectResult connect_result_{0, 0, 0};
  std::function<void()> on_connect_;
  CDataApiCallBack* callback_ = nullptr;
  ServerTable servers_;
};

// Reads a packed record back out of recorded bytes.
template <typename T>
T record_of(const ApiCall& call) {
  T value{};
  std::memcpy(&value, call.bytes.data(), std::min(sizeof(T), call.bytes.size()));
  return value;
}

}  // namespace testkit

#endif  // KELQUOTE_TESTKIT_FAKE_API_H_
