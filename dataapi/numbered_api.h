// A quote service that handles every request of the vendor's interface as
// one numbered request with its bytes: the numbers of a capture file, which
// the replay and the bus services both speak.
#ifndef KELQUOTE_DATAAPI_NUMBERED_API_H_
#define KELQUOTE_DATAAPI_NUMBERED_API_H_

#include <cstddef>
#include <cstdint>

#include "dataapi/DataApi.h"

class NumberedApi : public CDataApi {
 public:
  int ReqMarketInit(int32_t id) override { return Request(4, &id, sizeof(id)); }
  int ReqMarketStatus(int32_t id) override { return Request(5, &id, sizeof(id)); }
  int ReqBaseData() override { return Request(6, nullptr, 0); }
  int SubscribeL1(const ApiCodeItem* items, int32_t n) override { return Items(7, items, n); }
  int UnsubscribeL1(const ApiCodeItem* items, int32_t n) override { return Items(8, items, n); }
  int SubscribeL2(const ApiCodeItem* items, int32_t n) override { return Items(9, items, n); }
  int UnsubscribeL2(const ApiCodeItem* items, int32_t n) override { return Items(10, items, n); }
  int ReqMarketOtherBase(int32_t id) override { return Request(11, &id, sizeof(id)); }
  int ReqRefInfo(int32_t id) override { return Request(12, &id, sizeof(id)); }
  int ReqLatestShare(int32_t id) override { return Request(13, &id, sizeof(id)); }
  int ReqHoliday(int32_t kind) override { return Request(14, &kind, sizeof(kind)); }
  int ReqHKRate(const HKRateRequest* r) override { return Record(15, r); }
  int ReqHisData(const HisBarRequest* r) override { return Record(16, r); }
  int ReqHisDataCount(const HisBarRequest* r) override { return Record(17, r); }
  int ReqL1NewHisTick(const HisTickRequest* r) override { return Record(18, r); }
  int ReqHisTickKcb(const HisTickRequest* r) override { return Record(19, r); }
  int ReqPower(const ApiCodeItem* r) override { return Record(20, r); }
  int ReqHotListDef() override { return Request(21, nullptr, 0); }
  int ReqHotListData(int32_t id) override { return Request(22, &id, sizeof(id)); }
  int ReqHotList(int32_t id) override { return Request(23, &id, sizeof(id)); }
  int ReqScanner(int32_t id) override { return Request(24, &id, sizeof(id)); }
  int ReqSharedFields() override { return Request(25, nullptr, 0); }
  int ReqNewIssueList(int32_t id) override { return Request(26, &id, sizeof(id)); }
  int ReqShareData(const FinanceRequest* r) override { return Record(27, r); }
  int ReqIndustryData(const FinanceRequest* r) override { return Record(28, r); }
  int ReqFinancialData(const FinanceRequest* r) override { return Record(29, r); }
  int ReqIncomeStatement(const FinanceRequest* r) override { return Record(30, r); }
  int ReqCashFlowStatement(const FinanceRequest* r) override { return Record(31, r); }
  int ReqBalanceSheet(const FinanceRequest* r) override { return Record(32, r); }
  int ReqSHNumber(const FinanceRequest* r) override { return Record(33, r); }
  int ReqMostShareHolder(const FinanceRequest* r) override { return Record(34, r); }
  int ReqNegotiableShareHolder(const FinanceRequest* r) override { return Record(35, r); }
  int SubscribeMarketPush(const ApiMarketItem* item) override { return MarketPush(54, item); }
  int UnsubscribeMarketPush(const ApiMarketItem* item) override { return MarketPush(55, item); }

 protected:
  // Request op with its bytes (none for a null record).
  virtual int Request(uint8_t op, const void* bytes, size_t size) = 0;
  // Ops 7 to 10, the instrument lists; by default one request of their bytes.
  virtual int Items(uint8_t op, const ApiCodeItem* items, int32_t count) {
    return Request(op, items, items != nullptr && count > 0 ? sizeof(ApiCodeItem) * static_cast<size_t>(count) : 0);
  }
  // Ops 54 and 55, a market's packages; by default one request of the item.
  virtual int MarketPush(uint8_t op, const ApiMarketItem* item) { return Record(op, item); }
  template <typename T>
  int Record(uint8_t op, const T* record) {
    return Request(op, record, record != nullptr ? sizeof(T) : 0);
  }
};

#endif  // KELQUOTE_DATAAPI_NUMBERED_API_H_
