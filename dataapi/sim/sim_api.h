// The simulated quote service: a CDataApi that serves generated data from
// inside the process, so that the library runs end to end without the
// vendor's servers.
#ifndef KELQUOTE_DATAAPI_SIM_SIM_API_H_
#define KELQUOTE_DATAAPI_SIM_SIM_API_H_

#include <mutex>

#include "dataapi/DataApi.h"
#include "dataapi/sim/callback_thread.h"

namespace sim {

class SimDataApi final : public CDataApi {
 public:
  SimDataApi() = default;

  // The process's simulator, as GetApiInstance hands it out.
  static SimDataApi& instance();

  void refuse_connect(bool refuse);
  // Delivers OnConnectStatus(server, status) on the callback thread; false
  // when no callback object is registered.
  bool report_connection(int server, int status);
  bool wait_idle(int timeout_ms) { return callbacks_.wait_idle(timeout_ms); }

  const char* GetVersion() override;
  int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) override;
  int Connect(ConnectResult* result) override;
  int ReqMarketInit(int32_t) override { return 0; }
  int ReqMarketStatus(int32_t) override { return 0; }
  int ReqBaseData() override { return 0; }
  int SubscribeL1(const ApiCodeItem*, int32_t) override { return 0; }
  int UnsubscribeL1(const ApiCodeItem*, int32_t) override { return 0; }
  int SubscribeL2(const ApiCodeItem*, int32_t) override { return 0; }
  int UnsubscribeL2(const ApiCodeItem*, int32_t) override { return 0; }
  int ReqMarketOtherBase(int32_t) override { return 0; }
  int ReqRefInfo(int32_t) override { return 0; }
  int ReqLatestShare(int32_t) override { return 0; }
  int ReqHoliday(int32_t) override { return 0; }
  int ReqHKRate(const HKRateRequest*) override { return 0; }
  int ReqHisData(const HisBarRequest*) override { return 0; }
  int ReqHisDataCount(const HisBarRequest*) override { return 0; }
  int ReqL1NewHisTick(const HisTickRequest*) override { return 0; }
  int ReqHisTickKcb(const HisTickRequest*) override { return 0; }
  int ReqPower(const ApiCodeItem*) override { return 0; }
  int ReqHotListDef() override { return 0; }
  int ReqHotListData(int32_t) override { return 0; }
  int ReqHotList(int32_t) override { return 0; }
  int ReqScanner(int32_t) override { return 0; }
  int ReqSharedFields() override { return 0; }
  int ReqNewIssueList(int32_t) override { return 0; }
  int ReqShareData(const FinanceRequest*) override { return 0; }
  int ReqIndustryData(const FinanceRequest*) override { return 0; }
  int ReqFinancialData(const FinanceRequest*) override { return 0; }
  int ReqIncomeStatement(const FinanceRequest*) override { return 0; }
  int ReqCashFlowStatement(const FinanceRequest*) override { return 0; }
  int ReqBalanceSheet(const FinanceRequest*) override { return 0; }
  int ReqSHNumber(const FinanceRequest*) override { return 0; }
  int ReqMostShareHolder(const FinanceRequest*) override { return 0; }
  int ReqNegotiableShareHolder(const FinanceRequest*) override { return 0; }
  int ReqUnused36(const void*) override { return -1; }
  int ReqUnused37(const void*) override { return -1; }
  int ReqUnused38(const void*) override { return -1; }
  int ReqUnused39(const void*) override { return -1; }
  int ReqUnused40(const void*) override { return -1; }
  int ReqUnused41(const void*) override { return -1; }
  int ReqUnused42(const void*) override { return -1; }
  int ReqUnused43(const void*) override { return -1; }
  int ReqUnused44(const void*) override { return -1; }
  int ReqUnused45(const void*) override { return -1; }
  int ReqUnused46(const void*) override { return -1; }
  int ReqUnused47(const void*) override { return -1; }
  int ReqUnused48(const void*) override { return -1; }
  int ReqUnused49(const void*) override { return -1; }
  int ReqUnused50(const void*) override { return -1; }
  int ReqUnused51(const void*) override { return -1; }
  int ReqUnused52(const void*) override { return -1; }
  int Release() override;
  int SubscribeMarketPush(const ApiMarketItem*) override { return 0; }
  int UnsubscribeMarketPush(const ApiMarketItem*) override { return 0; }

 private:
  // Runs fn with the registered callback object on the callback thread.
  void deliver(std::function<void(CDataApiCallBack*)> fn);

  std::mutex mu_;
  ServerTable servers_;
  CDataApiCallBack* callback_ = nullptr;
  bool connected_ = false;
  bool refuse_connect_ = false;
  CallbackThread callbacks_;  // last: it stops before the state it reads goes
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_SIM_API_H_
