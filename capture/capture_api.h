// The quote API as the library sees it while capturing: every request goes
// to the vendor's object unchanged, recorded before it goes (so that it
// precedes its replies in the file) and its result after.
#ifndef KELQUOTE_CAPTURE_CAPTURE_API_H_
#define KELQUOTE_CAPTURE_CAPTURE_API_H_

#include <cstddef>
#include <cstdint>

#include "capture/recorder.h"
#include "dataapi/DataApi.h"

namespace tavr {

class CaptureApi final : public CDataApi {
 public:
  CaptureApi(CDataApi* vendor, CaptureRecorder* recorder) : vendor_(vendor), rec_(recorder) {}
  CaptureApi(const CaptureApi&) = delete;
  CaptureApi& operator=(const CaptureApi&) = delete;
  ~CaptureApi() = default;

  const char* GetVersion() override { return vendor_->GetVersion(); }
  int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) override;
  int Connect(ConnectResult* result) override;
  int ReqMarketInit(int32_t id) override { return Call(4, &id, &CDataApi::ReqMarketInit, id); }
  int ReqMarketStatus(int32_t id) override { return Call(5, &id, &CDataApi::ReqMarketStatus, id); }
  int ReqBaseData() override { return CallBytes(6, nullptr, 0, &CDataApi::ReqBaseData); }
  int SubscribeL1(const ApiCodeItem* items, int32_t n) override { return Items(7, &CDataApi::SubscribeL1, items, n); }
  int UnsubscribeL1(const ApiCodeItem* items, int32_t n) override {
    return Items(8, &CDataApi::UnsubscribeL1, items, n);
  }
  int SubscribeL2(const ApiCodeItem* items, int32_t n) override { return Items(9, &CDataApi::SubscribeL2, items, n); }
  int UnsubscribeL2(const ApiCodeItem* items, int32_t n) override {
    return Items(10, &CDataApi::UnsubscribeL2, items, n);
  }
  int ReqMarketOtherBase(int32_t id) override { return Call(11, &id, &CDataApi::ReqMarketOtherBase, id); }
  int ReqRefInfo(int32_t id) override { return Call(12, &id, &CDataApi::ReqRefInfo, id); }
  int ReqLatestShare(int32_t id) override { return Call(13, &id, &CDataApi::ReqLatestShare, id); }
  int ReqHoliday(int32_t kind) override { return Call(14, &kind, &CDataApi::ReqHoliday, kind); }
  int ReqHKRate(const HKRateRequest* r) override { return Call(15, r, &CDataApi::ReqHKRate, r); }
  int ReqHisData(const HisBarRequest* r) override { return Call(16, r, &CDataApi::ReqHisData, r); }
  int ReqHisDataCount(const HisBarRequest* r) override { return Call(17, r, &CDataApi::ReqHisDataCount, r); }
  int ReqL1NewHisTick(const HisTickRequest* r) override { return Call(18, r, &CDataApi::ReqL1NewHisTick, r); }
  int ReqHisTickKcb(const HisTickRequest* r) override { return Call(19, r, &CDataApi::ReqHisTickKcb, r); }
  int ReqPower(const ApiCodeItem* item) override { return Call(20, item, &CDataApi::ReqPower, item); }
  int ReqHotListDef() override { return CallBytes(21, nullptr, 0, &CDataApi::ReqHotListDef); }
  int ReqHotListData(int32_t id) override { return Call(22, &id, &CDataApi::ReqHotListData, id); }
  int ReqHotList(int32_t id) override { return Call(23, &id, &CDataApi::ReqHotList, id); }
  int ReqScanner(int32_t id) override { return Call(24, &id, &CDataApi::ReqScanner, id); }
  int ReqSharedFields() override { return CallBytes(25, nullptr, 0, &CDataApi::ReqSharedFields); }
  int ReqNewIssueList(int32_t id) override { return Call(26, &id, &CDataApi::ReqNewIssueList, id); }
  int ReqShareData(const FinanceRequest* r) override { return Call(27, r, &CDataApi::ReqShareData, r); }
  int ReqIndustryData(const FinanceRequest* r) override { return Call(28, r, &CDataApi::ReqIndustryData, r); }
  int ReqFinancialData(const FinanceRequest* r) override { return Call(29, r, &CDataApi::ReqFinancialData, r); }
  int ReqIncomeStatement(const FinanceRequest* r) override { return Call(30, r, &CDataApi::ReqIncomeStatement, r); }
  int ReqCashFlowStatement(const FinanceRequest* r) override {
    return Call(31, r, &CDataApi::ReqCashFlowStatement, r);
  }
  int ReqBalanceSheet(const FinanceRequest* r) override { return Call(32, r, &CDataApi::ReqBalanceSheet, r); }
  int ReqSHNumber(const FinanceRequest* r) override { return Call(33, r, &CDataApi::ReqSHNumber, r); }
  int ReqMostShareHolder(const FinanceRequest* r) override { return Call(34, r, &CDataApi::ReqMostShareHolder, r); }
  int ReqNegotiableShareHolder(const FinanceRequest* r) override {
    return Call(35, r, &CDataApi::ReqNegotiableShareHolder, r);
  }
  // The library never calls these; their records' sizes are the vendor's secret.
  int Release() override { return CallBytes(53, nullptr, 0, &CDataApi::Release); }
  int SubscribeMarketPush(const ApiMarketItem* item) override {
    return Call(54, item, &CDataApi::SubscribeMarketPush, item);
  }
  int UnsubscribeMarketPush(const ApiMarketItem* item) override {
    return Call(55, item, &CDataApi::UnsubscribeMarketPush, item);
  }

 private:
  // Records op with size bytes, calls the vendor's operation, records the result.
  template <typename Fn, typename... Args>
  int CallBytes(uint8_t op, const void* bytes, size_t size, Fn fn, Args... args) {
    uint32_t number = rec_->request(op, bytes, size);
    int rc = (vendor_->*fn)(args...);
    rec_->result(op, number, rc);
    return rc;
  }
  // An operation whose argument is its record: the record's bytes.
  template <typename T, typename Fn, typename... Args>
  int Call(uint8_t op, const T* record, Fn fn, Args... args) {
    return CallBytes(op, record, record != nullptr ? sizeof(T) : 0, fn, args...);
  }
  template <typename Fn>
  int Items(uint8_t op, Fn fn, const ApiCodeItem* items, int32_t count) {
    size_t size = items != nullptr && count > 0 ? sizeof(ApiCodeItem) * static_cast<size_t>(count) : 0;
    return CallBytes(op, items, size, fn, items, count);
  }

  CDataApi* vendor_;
  CaptureRecorder* rec_;
};

}  // namespace tavr

#endif  // KELQUOTE_CAPTURE_CAPTURE_API_H_
