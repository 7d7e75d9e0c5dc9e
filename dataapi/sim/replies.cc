#include "dataapi/sim/replies.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

template <typename Head, typename Item>
Bytes Pack(const Head& head, const std::vector<Item>& items) {
  size_t room = std::max<size_t>(items.size(), 1);
  Bytes bytes(sizeof(Head) + room * sizeof(Item), 0);
  std::memcpy(bytes.data(), &head, sizeof(Head));
  if (!items.empty()) std::memcpy(bytes.data() + sizeof(Head), items.data(), items.size() * sizeof(Item));
  return bytes;
}

template <typename Record>
Record Zeroed() {
  Record record;
  std::memset(&record, 0, sizeof(record));
  return record;
}

bool StockMarket(const Market& market) { return market.id == kSH || market.id == kSZ; }

}  // namespace

void put_text(char* field, size_t size, const std::string& text) {
  std::memset(field, 0, size);
  if (size == 0) return;
  std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

Bytes market_status_reply(const Market& market, bool changed) {
  auto status = Zeroed<ApiMarketStatus>();
  status.market_id = market.id;
  status.date = market.trade_date;
  status.changed = changed ? 1 : 0;
  status.checksum = market.checksum;
  Bytes bytes(sizeof(status));
  std::memcpy(bytes.data(), &status, sizeof(status));
  return bytes;
}

Bytes market_init_reply(const Market& market) {
  auto head = Zeroed<ApiMarketInitHead>();
  head.market_id = market.id;
  head.market_type = market.market_type;
  put_text(head.market_desc, market.desc);
  head.flag_a = market.flag_a;
  head.flag_b = market.flag_b;
  head.trade_date = market.trade_date;
  head.trade_date_extra = market.night_date;
  head.code_count = static_cast<uint32_t>(market.instruments.size());
  std::vector<ApiCodeInit> items;
  items.reserve(market.instruments.size());
  for (const Instrument& instrument : market.instruments) {
    auto item = Zeroed<ApiCodeInit>();
    put_text(item.code, instrument.code);
    put_text(item.name, instrument.name);
    item.type_code = instrument.type_code;
    item.price_digits = instrument.price_digits;
    item.code_flag = instrument.code_flag;
    item.volume_unit = instrument.volume_unit;
    item.list_date = instrument.list_date;
    item.eps = static_cast<float>(instrument.eps);
    item.pre_close = static_cast<float>(instrument.pre_close());
    items.push_back(item);
  }
  return Pack(head, items);
}

Bytes other_base_reply(const Market& market) {
  auto head = Zeroed<ApiMarketOtherBaseHead>();
  head.market_id = market.id;
  std::vector<ApiOtherBaseItem> items;
  if (StockMarket(market)) {
    items.reserve(market.instruments.size());
    for (const Instrument& instrument : market.instruments) {
      auto item = Zeroed<ApiOtherBaseItem>();
      item.board = instrument.board;
      item.margin = instrument.margin ? 1 : 0;
      item.short_sell = instrument.short_sell ? 1 : 0;
      item.connect = instrument.connect ? 1 : 0;
      item.st = instrument.st ? 1 : 0;
      item.suspended = instrument.suspended ? 1 : 0;
      put_text(item.code, instrument.code);
      items.push_back(item);
    }
  }
  head.count = static_cast<int32_t>(items.size());
  return Pack(head, items);
}

Bytes ref_info_reply(const Market& market) {
  auto head = Zeroed<ApiRefInfoHead>();
  head.market_id = market.id;
  head.count = static_cast<int32_t>(market.instruments.size());
  std::vector<ApiRefInfoItem> items;
  items.reserve(market.instruments.size());
  int32_t seq = 0;
  for (const Instrument& instrument : market.instruments) {
    auto item = Zeroed<ApiRefInfoItem>();
    item.seq = ++seq;
    put_text(item.code, instrument.code);
    item.eps = instrument.eps;
    item.pre_close = instrument.pre_close();
    item.tick = static_cast<float>(instrument.tick());
    item.upper_limit = instrument.upper_limit();
    item.lower_limit = instrument.lower_limit();
    items.push_back(item);
  }
  return Pack(head, items);
}

Bytes latest_share_reply(const Market& market) {
  auto head = Zeroed<ApiLatestShareHead>();
  head.market_id = market.id;
  head.date = market.trade_date;
  std::vector<ApiLatestShareItem> items;
  if (StockMarket(market)) {
    for (const Instrument& instrument : market.instruments) {
      if (!instrument.is_stock()) continue;
      auto item = Zeroed<ApiLatestShareItem>();
      put_text(item.code, instrument.code);
      item.total_shares = instrument.total_shares;
      item.float_shares = instrument.float_shares;
      item.net_assets_per_share = instrument.net_assets_per_share;
      items.push_back(item);
    }
  }
  head.count = static_cast<int32_t>(items.size());
  return Pack(head, items);
}

Bytes shared_fields_reply(int32_t version, float rate) {
  auto fields = Zeroed<ApiSharedFields>();
  fields.version = version;
  fields.rate = rate;
  Bytes bytes(sizeof(fields));
  std::memcpy(bytes.data(), &fields, sizeof(fields));
  return bytes;
}

Bytes new_issue_reply(const std::vector<NewIssue>& issues) {
  auto head = Zeroed<ApiNewIssueHead>();
  head.count = static_cast<int32_t>(issues.size());
  std::vector<ApiNewIssueItem> items;
  for (const NewIssue& issue : issues) {
    auto item = Zeroed<ApiNewIssueItem>();
    item.market_id = issue.market_id;
    put_text(item.code, issue.code);
    put_text(item.name, issue.name);
    put_text(item.purchase_code, issue.purchase_code);
    item.issue_date = issue.issue_date;
    item.issue_price = issue.issue_price;
    item.issue_volume = issue.issue_volume;
    item.purchase_limit = issue.purchase_limit;
    item.listing_date = issue.listing_date;
    put_text(item.board, issue.board);
    items.push_back(item);
  }
  return Pack(head, items);
}

Bytes holiday_reply(int32_t kind, const std::vector<int32_t>& days) {
  auto head = Zeroed<ApiHolidayHead>();
  head.kind = kind;
  head.count = static_cast<int32_t>(days.size());
  return Pack(head, days);
}

Bytes hk_rate_reply(uint16_t field, int32_t begin, int32_t end, const std::vector<HKRate>& rates) {
  auto head = Zeroed<ApiHKRateHead>();
  head.field = field;
  head.begin = begin;
  head.end = end;
  head.count = static_cast<uint32_t>(rates.size());
  std::vector<ApiHKRateItem> items;
  items.reserve(rates.size());
  for (const HKRate& rate : rates) {
    auto item = Zeroed<ApiHKRateItem>();
    item.date = rate.date;
    item.rate_a = rate.rate_a;
    item.rate_b = rate.rate_b;
    items.push_back(item);
  }
  return Pack(head, items);
}

}  // namespace sim
