#include "market/base_code_info.h"

#include <cmath>

#include "utils/utils.h"

namespace tavr {

std::string product_code_of(const std::string& code) {
  if (code.size() < 3 || code[0] <= '9') return code;
  if (code.size() > 3 && code[3] == '-') return code.substr(4);
  if (code[1] > '9') return code.substr(0, 2);
  return code.substr(0, 1);
}

int price_digits_from_tick(double tick) {
  if (tick < 1e-8) return 10;
  int digits = 0;
  // Bounded: a tick of 1e-8 needs eight steps.
  while (tick < 0.9999999 && digits < 10) {
    tick *= 10;
    ++digits;
  }
  return digits;
}

bool in_other_codes(int32_t market_id, const std::string& code) {
  if (code.size() != 8) return false;
  if (market_id == 1) return code[0] == '9';
  if (market_id == 2) return code[0] == '1';
  return false;
}

std::shared_ptr<BaseCodeInfo> make_base_code(const ApiCodeInit& record, const std::string& market) {
  auto info = std::make_shared<BaseCodeInfo>();
  info->code = field_text(record.code);
  info->name = utils::trimWhiteSpaces(field_text(record.name));
  info->is_new_listing = !info->name.empty() && info->name[0] == 'N';
  info->product_code = product_code_of(info->code);
  // A 32-byte name field can cut a double-byte character in half; the
  // service's Hong Kong names are mended with a fixed character.
  if (market == "HK" && info->code.size() > 5 && info->name.size() >= 23 && info->name.size() % 2 == 1) {
    info->name = std::string(record.name, 22) + "\xCA\xFD";
  }
  info->name2 = info->name;
  info->type_code = record.type_code;
  info->price_digits = record.price_digits;
  info->price_tick = static_cast<float>(std::pow(10.0, -static_cast<int>(record.price_digits)));
  info->code_flag = record.code_flag;
  info->volume_unit = record.volume_unit == 0 ? 1 : record.volume_unit;
  info->list_date = record.list_date;
  info->ref_a = record.eps;
  info->ref_b = record.pre_close;
  return info;
}

}  // namespace tavr
