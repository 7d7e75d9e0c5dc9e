// The vendor quote API: the object the library drives (CDataApi), the
// callback interface it implements (CDataApiCallBack) and the records that
// cross between them.
//
// The layout of this header is the vendor's binary interface. Operations are
// known by their position in the virtual table, records by their byte layout;
// both are pinned by checks (static_asserts here, slot tests in the suite).
// Neither class declares a virtual destructor, so that every declared
// operation takes exactly one slot.
#ifndef KELQUOTE_DATAAPI_DATAAPI_H_
#define KELQUOTE_DATAAPI_DATAAPI_H_

#include <cstddef>
#include <cstdint>
#include <map>

#include "dataapi/ApiRecords.h"
#include "kelquote/export.h"

// Login record of one server role, zero-filled before use.
struct ServerLoginConfig {
  struct Server {
    char host[50];
    char port[8];
  };
  Server servers[10];
  char user[32];
  char password[32];
  int32_t setting_a;
  int32_t setting_b;
  int32_t setting_c;
};
static_assert(sizeof(ServerLoginConfig) == 656);
static_assert(offsetof(ServerLoginConfig, user) == 580);
static_assert(offsetof(ServerLoginConfig, setting_a) == 644);

// Role (0 quote, 1 history, 2 massive history) to its login record.
using ServerTable = std::map<int32_t, ServerLoginConfig>;

// The three integers a connect fills in; their meaning is the service's.
struct ConnectResult {
  int32_t code;
  int32_t server;
  int32_t detail;
};

class CDataApiCallBack;

// Positions (counted from 1) are part of the interface: see the comments.
class CDataApi {
 public:
  /* 1 */ virtual const char* GetVersion() = 0;
  /* 2 */ virtual int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) = 0;
  /* 3 */ virtual int Connect(ConnectResult* result) = 0;
  // Initialisation data (OnMarketInit) of one market, or of every market with 0.
  /* 4 */ virtual int ReqMarketInit(int32_t market_id) = 0;
  // Status (OnMarketStatus) of one market, or of every market with 0.
  /* 5 */ virtual int ReqMarketStatus(int32_t market_id) = 0;
  // Data shared by all markets: OnRespSharedFields, then OnRespNewIssueList.
  /* 6 */ virtual int ReqBaseData() = 0;
  /* 7 */ virtual int SubscribeL1(const ApiCodeItem* items, int32_t count) = 0;
  /* 8 */ virtual int UnsubscribeL1(const ApiCodeItem* items, int32_t count) = 0;
  /* 9 */ virtual int SubscribeL2(const ApiCodeItem* items, int32_t count) = 0;
  /* 10 */ virtual int UnsubscribeL2(const ApiCodeItem* items, int32_t count) = 0;
  /* 11 */ virtual int ReqMarketOtherBase(int32_t market_id) = 0;
  /* 12 */ virtual int ReqRefInfo(int32_t market_id) = 0;
  /* 13 */ virtual int ReqLatestShare(int32_t market_id) = 0;
  /* 14 */ virtual int ReqHoliday(int32_t kind) = 0;
  /* 15 */ virtual int ReqHKRate(const HKRateRequest* request) = 0;
  /* 16 */ virtual int ReqHisData(const HisBarRequest* request) = 0;
  /* 17 */ virtual int ReqHisDataCount(const HisBarRequest* request) = 0;
  /* 18 */ virtual int ReqL1NewHisTick(const HisTickRequest* request) = 0;
  /* 19 */ virtual int ReqHisTickKcb(const HisTickRequest* request) = 0;
  /* 20 */ virtual int ReqPower(const ApiCodeItem* item) = 0;
  /* 21 */ virtual int ReqHotListDef() = 0;
  /* 22 */ virtual int ReqHotListData(int32_t list_id) = 0;
  /* 23 */ virtual int ReqHotList(int32_t list_id) = 0;
  /* 24 */ virtual int ReqScanner(int32_t market_id) = 0;
  /* 25 */ virtual int ReqSharedFields() = 0;
  /* 26 */ virtual int ReqNewIssueList(int32_t market_id) = 0;
  /* 27 */ virtual int ReqShareData(const FinanceRequest* request) = 0;
  /* 28 */ virtual int ReqIndustryData(const FinanceRequest* request) = 0;
  /* 29 */ virtual int ReqFinancialData(const FinanceRequest* request) = 0;
  /* 30 */ virtual int ReqIncomeStatement(const FinanceRequest* request) = 0;
  /* 31 */ virtual int ReqCashFlowStatement(const FinanceRequest* request) = 0;
  /* 32 */ virtual int ReqBalanceSheet(const FinanceRequest* request) = 0;
  /* 33 */ virtual int ReqSHNumber(const FinanceRequest* request) = 0;
  /* 34 */ virtual int ReqMostShareHolder(const FinanceRequest* request) = 0;
  /* 35 */ virtual int ReqNegotiableShareHolder(const FinanceRequest* request) = 0;
  // 36 to 52: operations of the service that this library does not use;
  // a stand-in refuses them.
  /* 36 */ virtual int ReqUnused36(const void*) { return -1; }
  /* 37 */ virtual int ReqUnused37(const void*) { return -1; }
  /* 38 */ virtual int ReqUnused38(const void*) { return -1; }
  /* 39 */ virtual int ReqUnused39(const void*) { return -1; }
  /* 40 */ virtual int ReqUnused40(const void*) { return -1; }
  /* 41 */ virtual int ReqUnused41(const void*) { return -1; }
  /* 42 */ virtual int ReqUnused42(const void*) { return -1; }
  /* 43 */ virtual int ReqUnused43(const void*) { return -1; }
  /* 44 */ virtual int ReqUnused44(const void*) { return -1; }
  /* 45 */ virtual int ReqUnused45(const void*) { return -1; }
  /* 46 */ virtual int ReqUnused46(const void*) { return -1; }
  /* 47 */ virtual int ReqUnused47(const void*) { return -1; }
  /* 48 */ virtual int ReqUnused48(const void*) { return -1; }
  /* 49 */ virtual int ReqUnused49(const void*) { return -1; }
  /* 50 */ virtual int ReqUnused50(const void*) { return -1; }
  /* 51 */ virtual int ReqUnused51(const void*) { return -1; }
  /* 52 */ virtual int ReqUnused52(const void*) { return -1; }
  // Disconnects from every server; the object stays usable for a new connect.
  /* 53 */ virtual int Release() = 0;
  /* 54 */ virtual int SubscribeMarketPush(const ApiMarketItem* item) = 0;
  /* 55 */ virtual int UnsubscribeMarketPush(const ApiMarketItem* item) = 0;

 protected:
  ~CDataApi() = default;
};

// The library's side of the interface. Every record callback gets the
// vendor's record, valid only during the call, and returns 0 when it took it.
// Slots the library does not override return 0 and do nothing.
class CDataApiCallBack {
 public:
  CDataApiCallBack() = default;

  /* 0 */ virtual int OnMarketInit(const void* record) { return Unused(record); }
  /* 1 */ virtual int OnMarketOtherBase(const void* record) { return Unused(record); }
  /* 2 */ virtual int OnRespRefInfo(const void* record) { return Unused(record); }
  /* 3 */ virtual int OnTickL1(const void* record) { return Unused(record); }
  /* 4 */ virtual int OnRespHisData(const void* record) { return Unused(record); }
  /* 5 */ virtual int OnRespHolidayInfo(const void* record) { return Unused(record); }
  /* 6 */ virtual int OnRespPower(const void* record) { return Unused(record); }
  /* 7 */ virtual int OnRespHotListDef(const void* record) { return Unused(record); }
  /* 8 */ virtual int OnRespHotListData(const void* record) { return Unused(record); }
  /* 9 */ virtual int OnHotList(const void* record) { return Unused(record); }
  /* 10 */ virtual int OnMarketStatus(const void* record) { return Unused(record); }
  /* 11 */ virtual int OnRespHisDataCount(const void* record) { return Unused(record); }
  /* 12 */ virtual int OnRespSCanner(const void* record) { return Unused(record); }
  /* 13 */ virtual int OnRespUnused13(const void* record) { return Unused(record); }
  /* 14 */ virtual int OnRespUnused14(const void* record) { return Unused(record); }
  /* 15 */ virtual int OnRespUnused15(const void* record) { return Unused(record); }
  /* 16 */ virtual int OnRespUnused16(const void* record) { return Unused(record); }
  /* 17 */ virtual int OnRespSharedFields(const void* record) { return Unused(record); }
  /* 18 */ virtual int OnRespNewIssueList(const void* record) { return Unused(record); }
  /* 19 */ virtual int OnRespUnused19(const void* record) { return Unused(record); }
  /* 20 */ virtual int OnRespUnused20(const void* record) { return Unused(record); }
  /* 21 */ virtual int OnRespUnused21(const void* record) { return Unused(record); }
  /* 22 */ virtual int OnTickL2(const void* record) { return Unused(record); }
  /* 23 */ virtual int OnIndexL2(const void* record) { return Unused(record); }
  /* 24 */ virtual int OnTransL2(const void* record) { return Unused(record); }
  /* 25 */ virtual int OnOrderL2(const void* record) { return Unused(record); }
  /* 26 */ virtual int OnOrderQueueL2(const void* record) { return Unused(record); }
  /* 27 */ virtual int OnRespUnused27(const void* record) { return Unused(record); }
  /* 28 */ virtual int OnRespUnused28(const void* record) { return Unused(record); }
  /* 29 */ virtual int OnRespShareData(const void* record) { return Unused(record); }
  /* 30 */ virtual int OnRespHKRateData(const void* record) { return Unused(record); }
  /* 31 */ virtual int OnRespIndustryData(const void* record) { return Unused(record); }
  /* 32 */ virtual int OnRespLatestShareData(const void* record) { return Unused(record); }
  /* 33 */ virtual int OnRespFinancialData(const void* record) { return Unused(record); }
  /* 34 */ virtual int OnRespIncomeStatData(const void* record) { return Unused(record); }
  /* 35 */ virtual int OnRespCashFlowData(const void* record) { return Unused(record); }
  /* 36 */ virtual int OnRespBalanceSheetData(const void* record) { return Unused(record); }
  /* 37 */ virtual int OnRespSHNumberData(const void* record) { return Unused(record); }
  /* 38 */ virtual int OnRespMostShareHolderData(const void* record) { return Unused(record); }
  /* 39 */ virtual int OnRespNegotiableShareHolderData(const void* record) { return Unused(record); }
  // server: 0 quote, 1 history, 2 massive; status: 0 lost, 1 restored, 2 failed.
  /* 40 */ virtual int OnConnectStatus(int server, int status) {
    (void)server;
    (void)status;
    return 0;
  }
  /* 41 */ virtual int OnRespUnused41(const void* record) { return Unused(record); }
  /* 42 */ virtual int OnRespUnused42(const void* record) { return Unused(record); }
  /* 43 */ virtual int OnRespUnused43(const void* record) { return Unused(record); }
  /* 44 */ virtual int OnRespUnused44(const void* record) { return Unused(record); }
  /* 45 */ virtual int OnRespHisTickKcbData(const void* record) { return Unused(record); }
  /* 46 */ virtual int OnRespL1HisTickData(const void* record) { return Unused(record); }
  /* 47 */ virtual int OnRespMarketPushData(const void* record) { return Unused(record); }

 protected:
  ~CDataApiCallBack() = default;

 private:
  static int Unused(const void*) { return 0; }
};

// The process's quote API object.
extern "C" DATAAPI_API CDataApi* GetApiInstance();

#endif  // KELQUOTE_DATAAPI_DATAAPI_H_
