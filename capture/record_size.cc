#include "capture/record_size.h"

#include <cstdint>
#include <cstring>

namespace capture {

namespace {

enum class Shape : uint8_t { kNone, kFixed, kHeadPlus, kLevel2, kHisData };
enum class Count : uint8_t { kI32, kU16, kU32 };

struct Rule {
  Shape shape;
  size_t head, elem, count_at;
  Count count;
};

constexpr size_t kMaxBytes = size_t{64} << 20;

// The adapter's copy rules by slot (the same table as the library's).
Rule RuleOf(int slot) {
  switch (slot) {
    case 0: return {Shape::kHeadPlus, 132, 84, 44, Count::kI32};
    case 1: return {Shape::kHeadPlus, 107, 98, 5, Count::kI32};
    case 2: return {Shape::kHeadPlus, 378, 370, 4, Count::kI32};
    case 3: return {Shape::kFixed, 249, 0, 0, Count::kI32};
    case 4: return {Shape::kHisData, 62, 0, 50, Count::kI32};
    case 5: return {Shape::kHeadPlus, 12, 4, 4, Count::kI32};
    case 6: return {Shape::kHeadPlus, 304, 264, 38, Count::kU16};
    case 7: return {Shape::kHeadPlus, 174, 170, 0, Count::kI32};
    case 8: return {Shape::kHeadPlus, 158, 148, 6, Count::kI32};
    case 9: return {Shape::kHeadPlus, 156, 148, 4, Count::kI32};
    case 10: return {Shape::kFixed, 13, 0, 0, Count::kI32};
    case 11: return {Shape::kHeadPlus, 54, 8, 42, Count::kI32};
    case 12: return {Shape::kHeadPlus, 5, 1, 0, Count::kU32};
    case 17: return {Shape::kFixed, 8, 0, 0, Count::kI32};
    case 18: return {Shape::kHeadPlus, 140, 136, 0, Count::kI32};
    case 22: return {Shape::kLevel2, 8, 504, 4, Count::kI32};
    case 23: return {Shape::kLevel2, 8, 108, 4, Count::kI32};
    case 24: return {Shape::kLevel2, 8, 79, 4, Count::kI32};
    case 25: return {Shape::kLevel2, 8, 62, 4, Count::kI32};
    case 26: return {Shape::kLevel2, 8, 864, 4, Count::kI32};
    case 29: return {Shape::kHeadPlus, 338, 296, 38, Count::kI32};
    case 30: return {Shape::kHeadPlus, 30, 16, 10, Count::kI32};
    case 31: return {Shape::kFixed, 326, 0, 0, Count::kI32};
    case 32: return {Shape::kHeadPlus, 74, 64, 6, Count::kI32};
    case 33: return {Shape::kHeadPlus, 614, 572, 38, Count::kI32};
    case 34: return {Shape::kHeadPlus, 581, 539, 38, Count::kI32};
    case 35: return {Shape::kHeadPlus, 733, 691, 38, Count::kI32};
    case 36: return {Shape::kHeadPlus, 837, 795, 38, Count::kI32};
    case 37: return {Shape::kHeadPlus, 122, 80, 38, Count::kI32};
    case 38: case 39: return {Shape::kHeadPlus, 2242, 2200, 38, Count::kI32};
    case 45: return {Shape::kHeadPlus, 138, 80, 54, Count::kI32};
    case 46: return {Shape::kHeadPlus, 272, 214, 54, Count::kI32};
    case 47: return {Shape::kHeadPlus, 255, 249, 2, Count::kI32};
    default: return {Shape::kNone, 0, 0, 0, Count::kI32};
  }
}

template <typename T>
T At(const void* record, size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const uint8_t*>(record) + offset, sizeof(value));
  return value;
}

int64_t CountOf(const Rule& rule, const void* record) {
  switch (rule.count) {
    case Count::kU16: return At<uint16_t>(record, rule.count_at);
    case Count::kU32: return At<uint32_t>(record, rule.count_at);
    case Count::kI32: break;
  }
  return At<int32_t>(record, rule.count_at);
}

size_t Bounded(size_t head, int64_t extra, size_t elem) {
  if (extra <= 0 || elem == 0) return head;
  if (static_cast<uint64_t>(extra) > (kMaxBytes - head) / elem) return 0;
  return head + static_cast<size_t>(extra) * elem;
}

}  // namespace

size_t min_record_bytes(int slot) {
  Rule rule = RuleOf(slot);
  switch (rule.shape) {
    case Shape::kNone: return 0;
    case Shape::kFixed: return rule.head;
    case Shape::kHisData: return 63;  // the count at 50, the element kind at 46, one byte of an empty answer
    case Shape::kLevel2: return 9;
    case Shape::kHeadPlus: break;
  }
  return rule.head;  // holds the count and the first element
}

size_t callback_size(int slot, const void* record) {
  Rule rule = RuleOf(slot);
  switch (rule.shape) {
    case Shape::kNone: return 0;
    case Shape::kFixed: return rule.head;
    case Shape::kHeadPlus: return Bounded(rule.head, CountOf(rule, record) - 1, rule.elem);
    case Shape::kLevel2: {
      int64_t n = CountOf(rule, record);
      return n <= 0 ? rule.head + 1 : Bounded(rule.head, n, rule.elem);
    }
    case Shape::kHisData: {
      int64_t n = CountOf(rule, record);
      if (n <= 0) return rule.head + 1;
      return Bounded(rule.head, n, At<int32_t>(record, 46) == 14 ? 21 : 48);
    }
  }
  return 0;
}

}  // namespace capture
