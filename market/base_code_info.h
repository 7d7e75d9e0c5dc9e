// The instrument record and the rules that build it from the service's
// initialisation data.
#ifndef KELQUOTE_MARKET_BASE_CODE_INFO_H_
#define KELQUOTE_MARKET_BASE_CODE_INFO_H_

#include <cstdint>
#include <memory>
#include <string>

#include "dataapi/ApiRecords.h"

namespace tavr {

// Trading attributes from the other-base reply.
struct OtherBaseInfo {
  uint8_t board = 0;
  bool margin = false;
  bool short_sell = false;
  bool connect = false;
  bool st = false;
  bool suspended = false;
};

// Reference information from the reference reply.
struct RefInfo {
  double eps = 0;
  double pre_close = 0;
  float tick = 0;
  double upper_limit = 0;
  double lower_limit = 0;
};

struct BaseCodeInfo {
  std::string code;
  std::string name;  // GBK, trimmed
  std::string product_code;
  std::string name2;
  uint16_t type_code = 0;
  uint8_t price_digits = 0;
  float price_tick = 1;
  uint8_t code_flag = 0;
  uint16_t volume_unit = 1;
  uint32_t list_date = 0;
  float last_price = 0;
  double ref_a = 0;  // earnings per share; 999999.99 when unknown, which makes a PE of about 0
  double ref_b = 0;  // reference close
  int64_t buy_volume_total = 0;
  int64_t sell_volume_total = 0;
  int64_t factor_a = 1;
  int64_t factor_b = 1;
  uint32_t counter_a = 0;
  uint32_t counter_b = 0;
  bool is_new_listing = false;
  uint32_t limit_a = 1000000;
  uint32_t limit_b = 1000000;
  std::shared_ptr<OtherBaseInfo> other_base;
  std::shared_ptr<RefInfo> ref_info;
};

// A new issue from the new-issue list.
struct IPOCodeInfo {
  std::string market;
  std::string code;
  std::string name;
  std::string purchase_code;
  std::string board;
  int32_t issue_date = 0;
  double issue_price = 0;
  int64_t issue_volume = 0;
  int32_t purchase_limit = 0;
  int32_t listing_date = 0;
};

// The variety of a code: futures "IF2012" -> "IF", "a2101" -> "a",
// "SPD-XY" -> "XY"; codes that begin with a digit are their own product.
std::string product_code_of(const std::string& code);

// Decimals of a price tick: 10 when the tick is below 1e-8, else the number
// of times it must be multiplied by 10 to reach 0.9999999.
int price_digits_from_tick(double tick);

// Whether a new instrument of the market belongs in the second (options) table.
bool in_other_codes(int32_t market_id, const std::string& code);

// Builds the record of one instrument of a market's initialisation data.
std::shared_ptr<BaseCodeInfo> make_base_code(const ApiCodeInit& record, const std::string& market);

// Text of a fixed field: up to the first NUL, never beyond the field.
template <size_t N>
std::string field_text(const char (&field)[N]) {
  size_t n = 0;
  while (n < N && field[n] != '\0') ++n;
  return std::string(field, n);
}

}  // namespace tavr

#endif  // KELQUOTE_MARKET_BASE_CODE_INFO_H_
