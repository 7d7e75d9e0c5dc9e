// The library's implementation of the vendor callback interface: every record
// callback copies the record into a queued message; only the connection
// status is handled on the vendor's thread.
#ifndef KELQUOTE_DATAMGR_CALLBACK_PRO_H_
#define KELQUOTE_DATAMGR_CALLBACK_PRO_H_

#include <cstddef>
#include <atomic>
#include <cstdint>

#include "dataapi/DataApi.h"
#include "dataapi/record_size.h"

namespace tavr {

class DvDataMgr;
struct DataMsg;

// How one callback copies and queues the vendor's record.
struct CopyRule {
  const char* name;      // qualified operation name, for the log
  uint8_t slot;          // position in the callback interface, for capture
  uint32_t msg_type;
  api_record::Layout layout;  // how many bytes the record holds
  size_t spare;          // bytes allocated beyond the copy
  enum class Key : uint8_t {
    kNone,     // replies: taken by any service thread
    kRequest,  // a request's reply blocks (request id at 0): one strand
    kTickL1,  // market byte at 0, code at 1
    kMarket,  // market at 0: whole-market packages of one market in order
    kLevel2,  // the first record's market at 8 and code at 12
  };
  Key key = Key::kNone;
};

// The stream key of a copied record: equal for the records of one
// instrument (or one market's packages), 0 for replies.
uint32_t ordering_key(CopyRule::Key kind, const void* block, size_t size);
// The stream key of one level-2 record (market at 0, code at 4). A message
// may mix instruments: each gets a copy of its own, keyed so (see Queue).
uint32_t level2_record_key(const void* record);
// The strand of a copied reply: one per request id, 0 for none.
uint32_t strand_of(CopyRule::Key kind, const void* block, size_t size);

class CMyCallBackPro : public CDataApiCallBack {
 public:
  explicit CMyCallBackPro(DvDataMgr* mgr) : mgr_(mgr) {}
  CMyCallBackPro(const CMyCallBackPro&) = delete;
  CMyCallBackPro& operator=(const CMyCallBackPro&) = delete;

  int OnMarketInit(const void* record) override;
  int OnMarketOtherBase(const void* record) override;
  int OnRespRefInfo(const void* record) override;
  int OnTickL1(const void* record) override;
  int OnRespHisData(const void* record) override;
  int OnRespHolidayInfo(const void* record) override;
  int OnRespPower(const void* record) override;
  int OnRespHotListDef(const void* record) override;
  int OnRespHotListData(const void* record) override;
  int OnHotList(const void* record) override;
  int OnMarketStatus(const void* record) override;
  int OnRespHisDataCount(const void* record) override;
  int OnRespSCanner(const void* record) override;
  int OnRespSharedFields(const void* record) override;
  int OnRespNewIssueList(const void* record) override;
  int OnTickL2(const void* record) override;
  int OnIndexL2(const void* record) override;
  int OnTransL2(const void* record) override;
  int OnOrderL2(const void* record) override;
  int OnOrderQueueL2(const void* record) override;
  int OnRespShareData(const void* record) override;
  int OnRespHKRateData(const void* record) override;
  int OnRespIndustryData(const void* record) override;
  int OnRespLatestShareData(const void* record) override;
  int OnRespFinancialData(const void* record) override;
  int OnRespIncomeStatData(const void* record) override;
  int OnRespCashFlowData(const void* record) override;
  int OnRespBalanceSheetData(const void* record) override;
  int OnRespSHNumberData(const void* record) override;
  int OnRespMostShareHolderData(const void* record) override;
  int OnRespNegotiableShareHolderData(const void* record) override;
  int OnConnectStatus(int server, int status) override;
  int OnRespHisTickKcbData(const void* record) override;
  int OnRespL1HisTickData(const void* record) override;
  int OnRespMarketPushData(const void* record) override;

 private:
  // Copies record under rule into a new message and queues it: 0, or -1 when
  // nothing was queued.
  int Queue(const CopyRule& rule, const void* record);
  // Queues one copy of msg's record per further instrument of a level-2
  // message, each keyed by its instrument; msg itself keeps the first.
  void QueueOtherInstruments(const CopyRule& rule, const DataMsg& msg);
  // Queue for a history tick block, traced with its code and request id.
  int QueueHisTicks(const CopyRule& rule, const void* record, const char* text);
  // Counts a record the full queue refused, and says so at most once a
  // second while refusals last.
  void Dropped(const CopyRule& rule);

  DvDataMgr* mgr_;
  std::atomic<int64_t> dropped_{0};
  std::atomic<int64_t> dropped_logged_{0};
  std::atomic<int64_t> drop_logged_at_ms_{-1000000};
};

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_CALLBACK_PRO_H_
