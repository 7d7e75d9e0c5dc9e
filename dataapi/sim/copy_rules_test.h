// How the library's callback adapter sizes its copy of each reply
// (datamgr/callback_pro.cc), restated for the simulator's tests: a reply
// must hold at least that many bytes, and exactly that many when it has
// elements.
#ifndef KELQUOTE_DATAAPI_SIM_COPY_RULES_TEST_H_
#define KELQUOTE_DATAAPI_SIM_COPY_RULES_TEST_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace sim {

struct CopyRule {
  size_t head;      // bytes copied for a count of at most 1
  size_t elem;      // bytes per further element; 0 for a fixed record
  size_t count_at;  // offset of the 32-bit count
};

constexpr CopyRule kInitRule{132, 84, 44};
constexpr CopyRule kOtherBaseRule{107, 98, 5};
constexpr CopyRule kRefInfoRule{378, 370, 4};
constexpr CopyRule kHolidayRule{12, 4, 4};
constexpr CopyRule kStatusRule{13, 0, 0};
constexpr CopyRule kSharedFieldsRule{8, 0, 0};
constexpr CopyRule kNewIssueRule{140, 136, 0};
constexpr CopyRule kHKRateRule{30, 16, 10};
constexpr CopyRule kLatestShareRule{74, 64, 6};

// Financial replies: a 42-byte head and elements of the kind's size.
constexpr CopyRule kBalanceRule{837, 795, 38};
constexpr CopyRule kIncomeRule{581, 539, 38};
constexpr CopyRule kCashFlowRule{733, 691, 38};
constexpr CopyRule kFinancialRule{614, 572, 38};
constexpr CopyRule kShareRule{338, 296, 38};
constexpr CopyRule kSHNumberRule{122, 80, 38};
constexpr CopyRule kTopHolderRule{2242, 2200, 38};

constexpr CopyRule kTickL1Rule{249, 0, 0};
constexpr CopyRule kMarketPushRule{255, 249, 2};

// Level-2 elements as the adapter sizes them; the order queue's 216-byte
// records lie at their own stride inside room of 864 bytes each.
constexpr size_t kL2SnapshotElem = 504;
constexpr size_t kL2IndexElem = 108;
constexpr size_t kL2TransactionElem = 79;
constexpr size_t kL2OrderElem = 62;
constexpr size_t kL2QueueElem = 864;

inline int32_t CountOf(const void* record, const CopyRule& rule) {
  int32_t count;
  std::memcpy(&count, static_cast<const uint8_t*>(record) + rule.count_at, sizeof(count));
  return count;
}

inline size_t AdapterSize(const void* record, const CopyRule& rule) {
  if (rule.elem == 0) return rule.head;
  int32_t count = CountOf(record, rule);
  return count > 1 ? rule.head + static_cast<size_t>(count - 1) * rule.elem : rule.head;
}

inline std::vector<uint8_t> CopyLikeTheAdapter(const void* record, const CopyRule& rule) {
  const auto* bytes = static_cast<const uint8_t*>(record);
  return std::vector<uint8_t>(bytes, bytes + AdapterSize(record, rule));
}

// A level-2 message: the 8-byte head and count elements, or the head and
// one byte without any.
inline std::vector<uint8_t> CopyLevel2LikeTheAdapter(const void* record, size_t elem) {
  int32_t count = CountOf(record, CopyRule{8, elem, 4});
  size_t size = count > 0 ? 8 + static_cast<size_t>(count) * elem : 9;
  const auto* bytes = static_cast<const uint8_t*>(record);
  return std::vector<uint8_t>(bytes, bytes + size);
}

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_COPY_RULES_TEST_H_
