// How many bytes a callback's record holds, read from its own count: the
// vendor's contract for each of CDataApiCallBack's slots. The library's
// adapter copies that many bytes, capture writes them, and the bus carries
// and checks them, so all of them read the sizes from this one table.
#ifndef KELQUOTE_DATAAPI_RECORD_SIZE_H_
#define KELQUOTE_DATAAPI_RECORD_SIZE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace api_record {

enum class Shape : uint8_t {
  kNone,      // the slot carries no record
  kFixed,     // head bytes exactly
  kHeadPlus,  // head + (n-1) x elem when n > 0, else head
  kLevel2,    // head + n x elem when n > 0, else head + 1
  kHisData,   // head + n x (21 when the field at 46 is 14, else elem) when n > 0, else head + 1
};
enum class Count : uint8_t { kI32, kU16, kU32 };

struct Layout {
  Shape shape;
  uint32_t head;
  uint32_t elem;
  uint32_t count_at;  // byte offset of the count
  Count count;
};

// Largest record any slot may hold. A count implying more is a broken
// record: no real reply comes near it (a whole market is a few MiB).
constexpr size_t kMaxBytes = size_t{64} << 20;

constexpr Layout layout(int slot) {
  switch (slot) {
    case 0: return {Shape::kHeadPlus, 132, 84, 44, Count::kI32};     // OnMarketInit
    case 1: return {Shape::kHeadPlus, 107, 98, 5, Count::kI32};      // OnMarketOtherBase
    case 2: return {Shape::kHeadPlus, 378, 370, 4, Count::kI32};     // OnRespRefInfo
    case 3: return {Shape::kFixed, 249, 0, 0, Count::kI32};          // OnTickL1
    case 4: return {Shape::kHisData, 62, 48, 50, Count::kI32};       // OnRespHisData
    case 5: return {Shape::kHeadPlus, 12, 4, 4, Count::kI32};        // OnRespHolidayInfo
    case 6: return {Shape::kHeadPlus, 304, 264, 38, Count::kU16};    // OnRespPower
    case 7: return {Shape::kHeadPlus, 174, 170, 0, Count::kI32};     // OnRespHotListDef
    case 8: return {Shape::kHeadPlus, 158, 148, 6, Count::kI32};     // OnRespHotListData
    case 9: return {Shape::kHeadPlus, 156, 148, 4, Count::kI32};     // OnHotList
    case 10: return {Shape::kFixed, 13, 0, 0, Count::kI32};          // OnMarketStatus
    case 11: return {Shape::kHeadPlus, 54, 8, 42, Count::kI32};      // OnRespHisDataCount
    case 12: return {Shape::kHeadPlus, 5, 1, 0, Count::kU32};        // OnRespSCanner
    case 17: return {Shape::kFixed, 8, 0, 0, Count::kI32};           // OnRespSharedFields
    case 18: return {Shape::kHeadPlus, 140, 136, 0, Count::kI32};    // OnRespNewIssueList
    case 22: return {Shape::kLevel2, 8, 504, 4, Count::kI32};        // OnTickL2
    case 23: return {Shape::kLevel2, 8, 108, 4, Count::kI32};        // OnIndexL2
    case 24: return {Shape::kLevel2, 8, 79, 4, Count::kI32};         // OnTransL2
    case 25: return {Shape::kLevel2, 8, 62, 4, Count::kI32};         // OnOrderL2
    case 26: return {Shape::kLevel2, 8, 864, 4, Count::kI32};        // OnOrderQueueL2
    case 29: return {Shape::kHeadPlus, 338, 296, 38, Count::kI32};   // OnRespShareData
    case 30: return {Shape::kHeadPlus, 30, 16, 10, Count::kI32};     // OnRespHKRateData
    case 31: return {Shape::kFixed, 326, 0, 0, Count::kI32};         // OnRespIndustryData
    case 32: return {Shape::kHeadPlus, 74, 64, 6, Count::kI32};      // OnRespLatestShareData
    case 33: return {Shape::kHeadPlus, 614, 572, 38, Count::kI32};   // OnRespFinancialData
    case 34: return {Shape::kHeadPlus, 581, 539, 38, Count::kI32};   // OnRespIncomeStatData
    case 35: return {Shape::kHeadPlus, 733, 691, 38, Count::kI32};   // OnRespCashFlowData
    case 36: return {Shape::kHeadPlus, 837, 795, 38, Count::kI32};   // OnRespBalanceSheetData
    case 37: return {Shape::kHeadPlus, 122, 80, 38, Count::kI32};    // OnRespSHNumberData
    case 38: case 39: return {Shape::kHeadPlus, 2242, 2200, 38, Count::kI32};  // top holders, float holders
    case 45: return {Shape::kHeadPlus, 138, 80, 54, Count::kI32};    // OnRespHisTickKcbData
    case 46: return {Shape::kHeadPlus, 272, 214, 54, Count::kI32};   // OnRespL1HisTickData
    case 47: return {Shape::kHeadPlus, 255, 249, 2, Count::kI32};    // OnRespMarketPushData
    default: return {Shape::kNone, 0, 0, 0, Count::kI32};
  }
}

template <typename T>
T read_at(const void* record, size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const uint8_t*>(record) + offset, sizeof(value));
  return value;
}

// The record's count, widened so that no arithmetic on it overflows.
inline int64_t count(const Layout& l, const void* record) {
  switch (l.count) {
    case Count::kU16: return read_at<uint16_t>(record, l.count_at);
    case Count::kU32: return read_at<uint32_t>(record, l.count_at);
    case Count::kI32: break;
  }
  return read_at<int32_t>(record, l.count_at);
}

// The bytes that must be readable before size() can read the count; 0 for a
// slot that carries no record.
constexpr size_t min_bytes(const Layout& l) {
  switch (l.shape) {
    case Shape::kNone: return 0;
    case Shape::kLevel2: case Shape::kHisData: return l.head + 1;
    case Shape::kFixed: case Shape::kHeadPlus: break;
  }
  return l.head;
}

namespace detail {
// head + extra x elem, or 0 beyond kMaxBytes.
inline size_t bounded(size_t head, int64_t extra, size_t elem) {
  if (extra <= 0 || elem == 0) return head;
  if (static_cast<uint64_t>(extra) > (kMaxBytes - head) / elem) return 0;
  return head + static_cast<size_t>(extra) * elem;
}
}  // namespace detail

// The bytes of the record (which holds at least min_bytes); 0 for a slot
// that carries no record or a count beyond kMaxBytes.
inline size_t size(const Layout& l, const void* record) {
  switch (l.shape) {
    case Shape::kNone: return 0;
    case Shape::kFixed: return l.head;
    case Shape::kHeadPlus: return detail::bounded(l.head, count(l, record) - 1, l.elem);
    case Shape::kLevel2: {
      int64_t n = count(l, record);
      return n <= 0 ? l.head + 1 : detail::bounded(l.head, n, l.elem);
    }
    case Shape::kHisData: {
      int64_t n = count(l, record);
      if (n <= 0) return l.head + 1;
      return detail::bounded(l.head, n, read_at<int32_t>(record, 46) == 14 ? 21 : l.elem);
    }
  }
  return 0;
}

inline size_t size(int slot, const void* record) { return size(layout(slot), record); }
constexpr size_t min_bytes(int slot) { return min_bytes(layout(slot)); }

}  // namespace api_record

#endif  // KELQUOTE_DATAAPI_RECORD_SIZE_H_
