#include "capture/catalog.h"

#include <cstring>

namespace capture {

namespace {

struct Slot {
  const char* name;
  Callback callback;
};

#define KQ_SLOT(n) {#n, &CDataApiCallBack::n}
const Slot kSlotTable[kSlots] = {
    KQ_SLOT(OnMarketInit), KQ_SLOT(OnMarketOtherBase), KQ_SLOT(OnRespRefInfo), KQ_SLOT(OnTickL1),
    KQ_SLOT(OnRespHisData), KQ_SLOT(OnRespHolidayInfo), KQ_SLOT(OnRespPower), KQ_SLOT(OnRespHotListDef),
    KQ_SLOT(OnRespHotListData), KQ_SLOT(OnHotList), KQ_SLOT(OnMarketStatus), KQ_SLOT(OnRespHisDataCount),
    KQ_SLOT(OnRespSCanner), {}, {}, {}, {}, KQ_SLOT(OnRespSharedFields), KQ_SLOT(OnRespNewIssueList), {}, {}, {},
    KQ_SLOT(OnTickL2), KQ_SLOT(OnIndexL2), KQ_SLOT(OnTransL2), KQ_SLOT(OnOrderL2), KQ_SLOT(OnOrderQueueL2), {}, {},
    KQ_SLOT(OnRespShareData), KQ_SLOT(OnRespHKRateData), KQ_SLOT(OnRespIndustryData),
    KQ_SLOT(OnRespLatestShareData), KQ_SLOT(OnRespFinancialData), KQ_SLOT(OnRespIncomeStatData),
    KQ_SLOT(OnRespCashFlowData), KQ_SLOT(OnRespBalanceSheetData), KQ_SLOT(OnRespSHNumberData),
    KQ_SLOT(OnRespMostShareHolderData), KQ_SLOT(OnRespNegotiableShareHolderData), {"OnConnectStatus", nullptr}, {},
    {}, {}, {}, KQ_SLOT(OnRespHisTickKcbData), KQ_SLOT(OnRespL1HisTickData), KQ_SLOT(OnRespMarketPushData),
};
#undef KQ_SLOT

const char* const kOpNames[kOps] = {
    "GetVersion", "RegisterServer", "Connect", "ReqMarketInit", "ReqMarketStatus", "ReqBaseData", "SubscribeL1",
    "UnsubscribeL1", "SubscribeL2", "UnsubscribeL2", "ReqMarketOtherBase", "ReqRefInfo", "ReqLatestShare",
    "ReqHoliday", "ReqHKRate", "ReqHisData", "ReqHisDataCount", "ReqL1NewHisTick", "ReqHisTickKcb", "ReqPower",
    "ReqHotListDef", "ReqHotListData", "ReqHotList", "ReqScanner", "ReqSharedFields", "ReqNewIssueList",
    "ReqShareData", "ReqIndustryData", "ReqFinancialData", "ReqIncomeStatement", "ReqCashFlowStatement",
    "ReqBalanceSheet", "ReqSHNumber", "ReqMostShareHolder", "ReqNegotiableShareHolder", "ReqUnused36",
    "ReqUnused37", "ReqUnused38", "ReqUnused39", "ReqUnused40", "ReqUnused41", "ReqUnused42", "ReqUnused43",
    "ReqUnused44", "ReqUnused45", "ReqUnused46", "ReqUnused47", "ReqUnused48", "ReqUnused49", "ReqUnused50",
    "ReqUnused51", "ReqUnused52", "Release", "SubscribeMarketPush", "UnsubscribeMarketPush",
};

// A NUL-terminated text field of at most max bytes inside size.
std::string Text(const uint8_t* bytes, size_t size, size_t at, size_t max) {
  if (at >= size) return {};
  size_t n = 0;
  while (n < max && at + n < size && bytes[at + n] != 0) ++n;
  return std::string(reinterpret_cast<const char*>(bytes + at), n);
}

template <typename T>
T Get(const uint8_t* bytes, size_t size, size_t at) {
  T value{};
  if (at + sizeof(T) <= size) std::memcpy(&value, bytes + at, sizeof(T));
  return value;
}

}  // namespace

const char* slot_name(int slot) { return slot >= 0 && slot < kSlots ? kSlotTable[slot].name : nullptr; }

const char* op_name(int op) { return op >= 1 && op <= kOps ? kOpNames[op - 1] : nullptr; }

Callback slot_callback(int slot) { return slot >= 0 && slot < kSlots ? kSlotTable[slot].callback : nullptr; }

int reply_id_at(int slot) {
  // History blocks and financial answers; every other reply names no request.
  return slot == 4 || slot == 29 || (slot >= 33 && slot <= 39) || slot == 45 || slot == 46 ? 0 : -1;
}

int request_id_at(int op) { return (op >= 16 && op <= 19) || (op >= 27 && op <= 35) ? 0 : -1; }

std::string market_name(int id) {
  static const char* const kNames[] = {nullptr, "SZ", "SH", nullptr, nullptr, "SQ", "SN", "DL", "ZZ", "ZJ", "HK"};
  if (id >= 0 && id <= 10 && kNames[id] != nullptr) return kNames[id];
  return std::to_string(id);
}

std::string instrument_of(int slot, const uint8_t* bytes, size_t size) {
  switch (slot) {
    case 3:  // level-1 snapshot: market byte, code
      if (size < 37) return {};
      return Text(bytes, size, 1, 36) + "." + market_name(bytes[0]);
    case 22: case 23: case 24: case 25: case 26:  // level-2: the first record's market and code
      if (size < 44 || Get<int32_t>(bytes, size, 4) <= 0) return {};
      return Text(bytes, size, 12, 32) + "." + market_name(Get<int32_t>(bytes, size, 8));
    case 47:  // a market's package
      return size >= 2 ? market_name(Get<uint16_t>(bytes, size, 0)) : std::string();
    case 4: case 29: case 33: case 34: case 35: case 36: case 37: case 38: case 39: case 45: case 46:
      if (size < 7) return {};
      return Text(bytes, size, 6, 32) + "." + market_name(Get<int32_t>(bytes, size, 2));
    default:
      return {};
  }
}

}  // namespace capture
