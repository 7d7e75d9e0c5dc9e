// The vendor callback adapter: one allocation, one copy and one queue push per
// record, nothing else on the vendor's thread.
#include "datamgr/callback_pro.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "capture/recorder.h"
#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"

namespace tavr {

namespace {

// name, slot, message type, record layout, spare bytes, stream key
constexpr CopyRule kMarketInit{"CMyCallBackPro::OnMarketInit", 0, 0, api_record::layout(0), 1};
constexpr CopyRule kOtherBase{"CMyCallBackPro::OnMarketOtherBase", 1, 1, api_record::layout(1), 1};
constexpr CopyRule kRefInfo{"CMyCallBackPro::OnRespRefInfo", 2, 3, api_record::layout(2), 1};
constexpr CopyRule kTickL1{"CMyCallBackPro::OnTickL1", 3, 4, api_record::layout(3), 1,
                           CopyRule::Key::kTickL1};
constexpr CopyRule kHisData{"CMyCallBackPro::OnRespHisData", 4, 13, api_record::layout(4), 1,
                           CopyRule::Key::kRequest};
constexpr CopyRule kHoliday{"CMyCallBackPro::OnRespHolidayInfo", 5, 15, api_record::layout(5), 1};
constexpr CopyRule kPower{"CMyCallBackPro::OnRespPower", 6, 16, api_record::layout(6), 1};
constexpr CopyRule kHotListDef{"CMyCallBackPro::OnRespHotListDef", 7, 17, api_record::layout(7), 1};
constexpr CopyRule kHotListData{"CMyCallBackPro::OnRespHotListData", 8, 18, api_record::layout(8), 1};
constexpr CopyRule kHotList{"CMyCallBackPro::OnHotList", 9, 19, api_record::layout(9), 1};
constexpr CopyRule kMarketStatus{"CMyCallBackPro::OnMarketStatus", 10, 2, api_record::layout(10), 1};
constexpr CopyRule kHisDataCount{"CMyCallBackPro::OnRespHisDataCount", 11, 14, api_record::layout(11), 0};
constexpr CopyRule kScanner{"CMyCallBackPro::OnRespSCanner", 12, 25, api_record::layout(12), 1};
constexpr CopyRule kSharedFields{"CMyCallBackPro::OnRespSharedFields", 17, 24, api_record::layout(17), 1};
constexpr CopyRule kNewIssues{"CMyCallBackPro::OnRespNewIssueList", 18, 25, api_record::layout(18), 1};
constexpr CopyRule kTickL2{"CMyCallBackPro::OnTickL2", 22, 6, api_record::layout(22), 1, CopyRule::Key::kLevel2};
constexpr CopyRule kIndexL2{"CMyCallBackPro::OnIndexL2", 23, 7, api_record::layout(23), 1, CopyRule::Key::kLevel2};
constexpr CopyRule kTransL2{"CMyCallBackPro::OnTransL2", 24, 8, api_record::layout(24), 1, CopyRule::Key::kLevel2};
constexpr CopyRule kOrderL2{"CMyCallBackPro::OnOrderL2", 25, 9, api_record::layout(25), 1, CopyRule::Key::kLevel2};
constexpr CopyRule kOrderQueueL2{"CMyCallBackPro::OnOrderQueueL2", 26, 10, api_record::layout(26), 1, CopyRule::Key::kLevel2};
constexpr CopyRule kShareData{"CMyCallBackPro::OnRespShareData", 29, 30, api_record::layout(29), 1};
constexpr CopyRule kHKRate{"CMyCallBackPro::OnRespHKRateData", 30, 31, api_record::layout(30), 1};
constexpr CopyRule kIndustry{"CMyCallBackPro::OnRespIndustryData", 31, 32, api_record::layout(31), 1};
constexpr CopyRule kLatestShare{"CMyCallBackPro::OnRespLatestShareData", 32, 33, api_record::layout(32), 1};
constexpr CopyRule kFinancial{"CMyCallBackPro::OnRespFinancialData", 33, 34, api_record::layout(33), 1};
constexpr CopyRule kIncome{"CMyCallBackPro::OnRespIncomeStatData", 34, 35, api_record::layout(34), 1};
constexpr CopyRule kCashFlow{"CMyCallBackPro::OnRespCashFlowData", 35, 36, api_record::layout(35), 1};
constexpr CopyRule kBalance{"CMyCallBackPro::OnRespBalanceSheetData", 36, 37, api_record::layout(36), 1};
constexpr CopyRule kSHNumber{"CMyCallBackPro::OnRespSHNumberData", 37, 38, api_record::layout(37), 1};
constexpr CopyRule kMostHolder{"CMyCallBackPro::OnRespMostShareHolderData", 38, 39, api_record::layout(38), 1};
constexpr CopyRule kNegotiable{"CMyCallBackPro::OnRespNegotiableShareHolderData", 39, 40, api_record::layout(39), 1};
constexpr CopyRule kTickKcb{"CMyCallBackPro::OnRespHisTickKcbData", 45, 12, api_record::layout(45), 1,
                           CopyRule::Key::kRequest};
constexpr CopyRule kL1HisTick{"CMyCallBackPro::OnRespL1HisTickData", 46, 11, api_record::layout(46), 1,
                           CopyRule::Key::kRequest};
constexpr CopyRule kMarketPush{"CMyCallBackPro::OnRespMarketPushData", 47, 5, api_record::layout(47), 1,
                               CopyRule::Key::kMarket};

// FNV-1a over the market and the code up to its terminator.
uint32_t HashKey(uint32_t market, const uint8_t* code, size_t max) {
  uint32_t h = 2166136261u ^ market;
  h *= 16777619u;
  for (size_t i = 0; i < max && code[i] != 0; ++i) {
    h ^= code[i];
    h *= 16777619u;
  }
  return h | 1;  // never 0, which stands for "no key"
}

}  // namespace

uint32_t ordering_key(CopyRule::Key kind, const void* block, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(block);
  switch (kind) {
    case CopyRule::Key::kNone:
    case CopyRule::Key::kRequest:
      return 0;
    case CopyRule::Key::kTickL1:
      return size >= 37 ? HashKey(bytes[0], bytes + 1, 36) : 0;
    case CopyRule::Key::kMarket:
      return size >= 2 ? HashKey(api_record::read_at<uint16_t>(block, 0), bytes, 0) : 0;
    case CopyRule::Key::kLevel2:
      return size >= 44 ? level2_record_key(bytes + 8) : 0;
  }
  return 0;
}

uint32_t level2_record_key(const void* record) {
  return HashKey(api_record::read_at<uint32_t>(record, 0), static_cast<const uint8_t*>(record) + 4, 32);
}

uint32_t strand_of(CopyRule::Key kind, const void* block, size_t size) {
  if (kind != CopyRule::Key::kRequest || size < 2) return 0;
  return 0x10000u | api_record::read_at<uint16_t>(block, 0);
}

int CMyCallBackPro::Queue(const CopyRule& rule, const void* record) {
  if (record == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, rule.name, "Null record, dropped...");
    return -1;
  }
  size_t size = api_record::size(rule.layout, record);  // 0 beyond api_record::kMaxBytes
  if (size == 0) {
    CMyLog::PrintLog(LOG_ERROR, rule.name, "Record count[%lld] out of range, dropped...",
                     static_cast<long long>(api_record::count(rule.layout, record)));
    return -1;
  }
  // After stop nobody would take it.
  if (!mgr_->is_started()) return -1;
  // The limit holds back streams only: a request waits for every reply.
  bool stream = rule.key != CopyRule::Key::kNone && rule.key != CopyRule::Key::kRequest;
  if (stream && !mgr_->queue_admits(size + rule.spare)) {
    Dropped(rule);
    return -1;
  }
  DataMsg* msg = mgr_->alloc_msg(size + rule.spare);
  if (msg == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, rule.name, "分配地址空间出错...");
    return -1;
  }
  std::memcpy(msg->data, record, size);
  if (CaptureRecorder* capture = mgr_->capture()) capture->callback(rule.slot, record, size);
  msg->msg_type = rule.msg_type;
  msg->size = size;
  msg->key = ordering_key(rule.key, msg->data, size);
  msg->strand = strand_of(rule.key, msg->data, size);
  if (rule.key == CopyRule::Key::kLevel2) QueueOtherInstruments(rule, *msg);
  mgr_->push_msg(msg);
  return 0;
}

void CMyCallBackPro::QueueOtherInstruments(const CopyRule& rule, const DataMsg& msg) {
  constexpr size_t kHead = 8, kId = 36;  // message head; a record's market and code
  const auto* bytes = static_cast<const uint8_t*>(msg.data);
  size_t count = msg.size > kHead ? (msg.size - kHead) / rule.layout.elem : 0;
  if (count < 2) return;
  std::vector<uint32_t> keys{msg.key};
  const uint8_t* first = bytes + kHead;
  for (size_t i = 1; i < count; ++i) {
    const uint8_t* record = first + i * rule.layout.elem;
    if (std::memcmp(record, first, kId) == 0) continue;  // the common case: one instrument
    uint32_t key = level2_record_key(record);
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
  }
  for (size_t i = 1; i < keys.size(); ++i) {
    DataMsg* copy = mgr_->alloc_msg(msg.size + rule.spare);
    if (copy == nullptr) {
      CMyLog::PrintLog(LOG_ERROR, rule.name, "分配地址空间出错...");
      return;
    }
    std::memcpy(copy->data, msg.data, msg.size);
    copy->msg_type = msg.msg_type;
    copy->size = msg.size;
    copy->key = keys[i];
    mgr_->push_msg(copy);
  }
}

void CMyCallBackPro::Dropped(const CopyRule& rule) {
  int64_t total = dropped_.fetch_add(1, std::memory_order_relaxed) + 1;
  int64_t now = static_cast<int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now().time_since_epoch())
                                         .count());
  int64_t last = drop_logged_at_ms_.load(std::memory_order_relaxed);
  if (now - last < 1000 || !drop_logged_at_ms_.compare_exchange_strong(last, now)) return;
  int64_t before = dropped_logged_.exchange(total);
  CMyLog::PrintLog(LOG_ERROR, rule.name, "Queue full[%zu bytes], %lld callbacks dropped (%lld in all)...",
                   mgr_->queue_held_bytes(), static_cast<long long>(total - before),
                   static_cast<long long>(total));
}

int CMyCallBackPro::OnMarketInit(const void* r) { return Queue(kMarketInit, r); }
int CMyCallBackPro::OnMarketOtherBase(const void* r) { return Queue(kOtherBase, r); }
int CMyCallBackPro::OnRespRefInfo(const void* r) { return Queue(kRefInfo, r); }
int CMyCallBackPro::OnTickL1(const void* r) { return Queue(kTickL1, r); }
int CMyCallBackPro::OnRespHisData(const void* r) { return Queue(kHisData, r); }
int CMyCallBackPro::OnRespHolidayInfo(const void* r) { return Queue(kHoliday, r); }
int CMyCallBackPro::OnRespPower(const void* r) { return Queue(kPower, r); }
int CMyCallBackPro::OnRespHotListDef(const void* r) { return Queue(kHotListDef, r); }
int CMyCallBackPro::OnRespHotListData(const void* r) { return Queue(kHotListData, r); }
int CMyCallBackPro::OnHotList(const void* r) { return Queue(kHotList, r); }
int CMyCallBackPro::OnMarketStatus(const void* r) { return Queue(kMarketStatus, r); }
int CMyCallBackPro::OnRespHisDataCount(const void* r) { return Queue(kHisDataCount, r); }
int CMyCallBackPro::OnRespSCanner(const void* r) { return Queue(kScanner, r); }
int CMyCallBackPro::OnRespSharedFields(const void* r) { return Queue(kSharedFields, r); }
int CMyCallBackPro::OnRespNewIssueList(const void* r) { return Queue(kNewIssues, r); }
int CMyCallBackPro::OnTickL2(const void* r) { return Queue(kTickL2, r); }
int CMyCallBackPro::OnIndexL2(const void* r) { return Queue(kIndexL2, r); }
int CMyCallBackPro::OnTransL2(const void* r) { return Queue(kTransL2, r); }
int CMyCallBackPro::OnOrderL2(const void* r) { return Queue(kOrderL2, r); }
int CMyCallBackPro::OnOrderQueueL2(const void* r) { return Queue(kOrderQueueL2, r); }
int CMyCallBackPro::OnRespShareData(const void* r) { return Queue(kShareData, r); }
int CMyCallBackPro::OnRespHKRateData(const void* r) { return Queue(kHKRate, r); }
int CMyCallBackPro::OnRespIndustryData(const void* r) { return Queue(kIndustry, r); }
int CMyCallBackPro::OnRespLatestShareData(const void* r) { return Queue(kLatestShare, r); }
int CMyCallBackPro::OnRespFinancialData(const void* r) { return Queue(kFinancial, r); }
int CMyCallBackPro::OnRespIncomeStatData(const void* r) { return Queue(kIncome, r); }
int CMyCallBackPro::OnRespCashFlowData(const void* r) { return Queue(kCashFlow, r); }
int CMyCallBackPro::OnRespBalanceSheetData(const void* r) { return Queue(kBalance, r); }
int CMyCallBackPro::OnRespSHNumberData(const void* r) { return Queue(kSHNumber, r); }
int CMyCallBackPro::OnRespMostShareHolderData(const void* r) { return Queue(kMostHolder, r); }
int CMyCallBackPro::OnRespNegotiableShareHolderData(const void* r) { return Queue(kNegotiable, r); }

// The record is read for the log before it is queued: once queued, the copy
// belongs to a service thread.
int CMyCallBackPro::QueueHisTicks(const CopyRule& rule, const void* r, const char* text) {
  int16_t id = r != nullptr ? api_record::read_at<int16_t>(r, 0) : 0;
  char code[49] = {};
  if (r != nullptr) std::memcpy(code, static_cast<const char*>(r) + 6, sizeof(code) - 1);
  int rc = Queue(rule, r);
  if (rc == 0) CMyLog::PrintLog(LOG_TRACE, rule.name, text, code, id);
  return rc;
}

int CMyCallBackPro::OnRespHisTickKcbData(const void* r) { return QueueHisTicks(kTickKcb, r, "收到tick stib 数据[%s][%d]..."); }
int CMyCallBackPro::OnRespL1HisTickData(const void* r) { return QueueHisTicks(kL1HisTick, r, "收到tick new 数据[%s][%d]..."); }

int CMyCallBackPro::OnRespMarketPushData(const void* r) {
  int16_t id = r != nullptr ? api_record::read_at<int16_t>(r, 0) : 0;
  int32_t count = r != nullptr ? api_record::read_at<int32_t>(r, kMarketPush.layout.count_at) : 0;
  int rc = Queue(kMarketPush, r);
  if (rc == 0) CMyLog::PrintLog(LOG_TRACE, kMarketPush.name, "收到Market Push 数据[%d][%d]...", id, count);
  return rc;
}

int CMyCallBackPro::OnConnectStatus(int server, int status) {
  if (CaptureRecorder* capture = mgr_->capture()) {
    int32_t both[2] = {server, status};
    capture->callback(40, both, sizeof(both));
  }
  mgr_->on_connect_status(server, status);
  return 0;
}

}  // namespace tavr
