// Builders of byte-exact vendor replies from the packed records of the quote
// API, as the adapter would have copied them.
#ifndef KELQUOTE_TESTKIT_RECORDS_H_
#define KELQUOTE_TESTKIT_RECORDS_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "dataapi/ApiRecords.h"

namespace testkit {

// head followed by items, as one reply.
template <typename Head, typename Item>
std::vector<uint8_t> reply(const Head& head, const std::vector<Item>& items) {
  std::vector<uint8_t> bytes(sizeof(Head) + items.size() * sizeof(Item));
  std::memcpy(bytes.data(), &head, sizeof(Head));
  for (size_t i = 0; i < items.size(); ++i) {
    std::memcpy(bytes.data() + sizeof(Head) + i * sizeof(Item), &items[i], sizeof(Item));
  }
  return bytes;
}

// Copies text into a fixed field, truncating without a terminator when it fills it.
template <size_t N>
void set_text(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

inline ApiCodeInit code_init(const std::string& code, const std::string& name, uint8_t digits = 2,
                             uint16_t unit = 100, uint32_t list_date = 20000101) {
  ApiCodeInit record{};
  set_text(record.code, code);
  set_text(record.name, name);
  record.price_digits = digits;
  record.volume_unit = unit;
  record.list_date = list_date;
  record.eps = 0.5f;
  record.pre_close = 10.0f;
  return record;
}

inline std::vector<uint8_t> market_init(uint8_t market_id, int32_t trade_date, const std::vector<ApiCodeInit>& codes) {
  ApiMarketInitHead head{};
  head.market_id = market_id;
  head.market_type = 1;
  set_text(head.market_desc, "desc");
  head.trade_date = trade_date;
  head.code_count = static_cast<uint32_t>(codes.size());
  return reply(head, codes);
}

// A reference reply giving each instrument a reference close, an earnings
// per share and the tick of its price digits.
inline std::vector<uint8_t> ref_info(uint8_t market_id, const std::vector<ApiCodeInit>& codes, float pre_close,
                                     float eps) {
  std::vector<ApiRefInfoItem> items;
  for (const ApiCodeInit& code : codes) {
    ApiRefInfoItem item;
    std::memset(&item, 0, sizeof(item));
    std::memcpy(item.code, code.code, sizeof(item.code));
    item.eps = eps;
    item.pre_close = pre_close;
    item.tick = code.price_digits == 0 ? 1.0f : code.price_digits == 1 ? 0.1f : code.price_digits == 2 ? 0.01f
                                                                                                        : 0.001f;
    items.push_back(item);
  }
  return reply(ApiRefInfoHead{market_id, static_cast<int32_t>(items.size())}, items);
}

inline ApiMarketStatus market_status(uint8_t market_id, int32_t date, int32_t changed, uint32_t checksum) {
  ApiMarketStatus status{};
  status.market_id = market_id;
  status.date = date;
  status.changed = changed;
  status.checksum = checksum;
  return status;
}

// A level-1 snapshot with a trade at last and one level of depth.
inline ApiL1Tick l1_tick(uint8_t market_id, const std::string& code, int32_t time, float last, float volume = 1000) {
  ApiL1Tick t{};
  t.market_id = market_id;
  set_text(t.code, code);
  t.date = 20240102;
  t.time = time;
  t.volume = volume;
  t.turnover = volume * last;
  t.trade_count = 10;
  t.high = last + 1;
  t.last = last;
  t.open = last;
  t.low = last - 1;
  t.upper_limit = last * 1.1f;
  t.lower_limit = last * 0.9f;
  t.pre_close = last;
  for (int i = 0; i < 5; ++i) {
    t.ask_price[i] = last + 0.01f * (i + 1);
    t.bid_price[i] = last - 0.01f * (i + 1);
    t.ask_volume[i] = 100.0f * (i + 1);
    t.bid_volume[i] = 100.0f * (i + 1);
  }
  return t;
}

template <typename T>
std::vector<uint8_t> bytes_of(const T& record) {
  std::vector<uint8_t> bytes(sizeof(T));
  std::memcpy(bytes.data(), &record, sizeof(T));
  return bytes;
}

// A zeroed level-2 record of code on market_id at date and time.
template <typename Record>
Record level2_record(uint8_t market_id, const char* code, int32_t date, int32_t time) {
  Record r;
  std::memset(&r, 0, sizeof(r));
  r.market_id = market_id;
  set_text(r.code, code);
  r.date = date;
  r.time = time;
  return r;
}

// A level-2 message of the given records.
template <typename Record>
std::vector<uint8_t> level2(const std::vector<Record>& records) {
  return reply(ApiL2Head{0, static_cast<int32_t>(records.size())}, records);
}

// A financial reply of Kind (its bit value) to sub-request id, with count
// elements claimed and items present.
template <int Kind, typename Item>
std::vector<uint8_t> finance_reply(uint16_t id, const std::vector<Item>& items, int32_t count,
                                   uint8_t market_id = 1, const std::string& code = "000001") {
  ApiFinanceRsp<Kind> head{};
  head.request_id = id;
  head.market = market_id;
  set_text(head.code, code);
  head.count = count;
  return reply(head, items);
}

// A history bar block of elements (ApiHisBar, or ApiHisBarTick for type 14).
template <typename Element>
std::vector<uint8_t> his_bars(int16_t id, int32_t market_id, const std::string& code, int32_t kline_type, bool last,
                              const std::vector<Element>& elements) {
  ApiHisDataRsp head{};
  head.request_id = id;
  head.market_id = market_id;
  set_text(head.code, code);
  head.kline_type = kline_type;
  head.count = static_cast<int32_t>(elements.size());
  head.last = last ? 1 : 0;
  return reply(head, elements);
}

// A history tick block: Head is ApiL1NewHisTickResp or ApiHisTickKcbResp.
template <typename Head, typename Element>
std::vector<uint8_t> his_ticks(int16_t id, int32_t market_id, const std::string& code, bool last,
                               const std::vector<Element>& elements) {
  Head head{};
  head.request_id = id;
  head.market_id = market_id;
  set_text(head.code, code);
  head.count = static_cast<int32_t>(elements.size());
  head.last = last ? 1 : 0;
  return reply(head, elements);
}

}  // namespace testkit

#endif  // KELQUOTE_TESTKIT_RECORDS_H_
