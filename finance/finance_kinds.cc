#include "finance/finance_kinds.h"

#include "log/MyLog.h"

namespace tavr {

std::string finance_mask_text(uint8_t mask) {
  std::string text;
  for (const FinanceKind& kind : kFinanceKinds) {
    if (mask & kind.bit) text += kind.word;
  }
  return text;
}

uint8_t finance_mask_of(const std::vector<int32_t>& type_ids, const char* function) {
  uint8_t mask = 0;
  for (int32_t id : type_ids) {
    uint8_t bit = 0;
    for (const FinanceKind& kind : kFinanceKinds) {
      if (kind.type_id == id) bit = kind.bit;
    }
    if (bit == 0) CMyLog::PrintLog(LOG_ERROR, function, "No such file...[%d]", id);
    mask |= bit;
  }
  return mask;
}

}  // namespace tavr
