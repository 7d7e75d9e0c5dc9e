// Replies that complete the instrument tables after a market's
// initialisation: trading attributes, reference data, share capital, new
// issues and the fields shared by every market.
#include <cstring>

#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"
#include "market/record_reader.h"
#include "utils/utils.h"

namespace tavr {

namespace {

const char* Flag(uint8_t value) { return value != 0 ? "True" : "False"; }

// Kind of a continuous futures code: 1 "Main", 2 "Recent", 0 for a contract.
int ContinuousKind(const std::string& code) {
  if (code.size() >= 5) return 0;
  if (code.size() > 2) {
    size_t first = code.find('0');
    if (first != std::string::npos && code.find('0', first + 1) != std::string::npos) return 2;
  }
  return 1;
}

}  // namespace

int DvDataMgr::find_code(const MarketInfo& market, const std::string& code, std::shared_ptr<BaseCodeInfo>& out) {
  auto it = market.base_codes.find(code);
  if (it != market.base_codes.end()) {
    out = it->second;
    return 1;
  }
  it = market.other_codes.find(code);
  if (it != market.other_codes.end()) {
    out = it->second;
    return 2;
  }
  return 0;
}

void DvDataMgr::on_reply_data(const ApiMarketOtherBaseHead* data, size_t size) {
  ReplyReader<ApiMarketOtherBaseHead, ApiOtherBaseItem> reply(data, size);
  if (!reply.ok()) return;
  const char* function = "DvDataMgr::on_reply_data";
  std::string name = get_market_name_by_id(reply.head().market_id);
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "[ApiMarketOtherBaseRsp] Not found market:%s", name.c_str());
    return;
  }
  CMyLog::PrintLog(LOG_INFO, function, "[ApiMarketOtherBaseRsp] sMarket=%s,iDataCount=%d", name.c_str(),
                   reply.head().count);
  size_t count = reply.available(reply.head().count);
  for (size_t i = 0; i < count; ++i) {
    ApiOtherBaseItem item = reply.item(i);
    std::string code = field_text(item.code);
    auto other = std::make_shared<OtherBaseInfo>();
    other->board = item.board;
    other->margin = item.margin != 0;
    other->short_sell = item.short_sell != 0;
    other->connect = item.connect != 0;
    other->st = item.st != 0;
    other->suspended = item.suspended != 0;
    bool found;
    {
      std::lock_guard<std::mutex> lock(markets_.codes_mu.edit());
      std::shared_ptr<BaseCodeInfo> info;
      found = find_code(*market, code, info) != 0;
      if (found) info->other_base = std::move(other);
    }
    if (!found) {
      CMyLog::PrintLog(LOG_INFO, function, "[ApiRefInfoRsp] [%s.%s]  Code Not exist!!!", code.c_str(), name.c_str());
      continue;
    }
    CMyLog::PrintLog(LOG_TRACE, function, "[ApiMarketOtherBaseRsp] Code=%s.%s, %d [%s, %s],[%s,%s,%s]...", code.c_str(),
                     name.c_str(), item.board, Flag(item.margin), Flag(item.short_sell), Flag(item.connect),
                     Flag(item.st), Flag(item.suspended));
  }
  markets_.codes_mu.touch();
  market->other_base_ready.store(true);
  CMyLog::PrintLog(LOG_INFO, function, "[ApiMarketOtherBaseRsp] Market %s shares information end......", name.c_str());
}

void DvDataMgr::on_reply_data(const ApiRefInfoHead* data, size_t size) {
  ReplyReader<ApiRefInfoHead, ApiRefInfoItem> reply(data, size);
  if (!reply.ok()) return;
  const char* function = "DvDataMgr::on_reply_data";
  std::string name = get_market_name_by_id(reply.head().market_id);
  CMyLog::PrintLog(LOG_INFO, function, "[ApiRefInfoRsp]收到市场[%s]的合约基础数据[%d]条.....", name.c_str(),
                   reply.head().count);
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "[ApiRefInfoRsp]市场[%s]不存在.....", name.c_str());
    return;
  }
  size_t count = reply.available(reply.head().count);
  for (size_t i = 0; i < count; ++i) {
    ApiRefInfoItem item = reply.item(i);
    std::string code = field_text(item.code);
    auto ref = std::make_shared<RefInfo>();
    ref->eps = item.eps;
    ref->pre_close = item.pre_close;
    ref->tick = item.tick;
    ref->upper_limit = item.upper_limit;
    ref->lower_limit = item.lower_limit;
    std::string instrument_name;
    bool found;
    {
      std::lock_guard<std::mutex> lock(markets_.codes_mu.edit());
      std::shared_ptr<BaseCodeInfo> info;
      found = find_code(*market, code, info) != 0;
      if (found) {
        info->ref_info = std::move(ref);
        info->ref_a = item.eps < 0.000001 ? 999999.99 : item.eps;
        info->ref_b = item.pre_close;
        info->price_tick = item.tick;
        info->price_digits = static_cast<uint8_t>(price_digits_from_tick(item.tick));
        instrument_name = info->name;
      }
    }
    if (!found) {
      CMyLog::PrintLog(LOG_ERROR, function, "[ApiRefInfoRsp] [%s.%s]  Code Not exist!!!", code.c_str(), name.c_str());
      continue;
    }
    int kind = ContinuousKind(code);
    if (kind == 0) continue;
    auto pieces = utils::split(instrument_name, '-');
    if (pieces.empty() || (pieces.back().size() != 5 && pieces.back().size() != 6)) continue;
    {
      std::lock_guard<std::mutex> lock(contracts_mu_);
      contracts_[{kind, code}] = pieces.back();
    }
    CMyLog::PrintLog(LOG_TRACE, function, "Insert %s contract %s....", kind == 1 ? "Main" : "Recent",
                     pieces.back().c_str());
  }
  markets_.codes_mu.touch();
  CMyLog::PrintLog(LOG_INFO, function, "[ApiRefInfoRsp]市场[%s]的合约基础数据处理完成.....", name.c_str());
  market->ref_info_ready.store(true);
  release_parked(*market);
}

std::string DvDataMgr::continuous_contract(int kind, const std::string& code) const {
  std::lock_guard<std::mutex> lock(contracts_mu_);
  auto it = contracts_.find({kind, code});
  return it == contracts_.end() ? std::string() : it->second;
}

void DvDataMgr::on_reply_data(const ApiLatestShareHead* data, size_t size) {
  ReplyReader<ApiLatestShareHead, ApiLatestShareItem> reply(data, size);
  if (!reply.ok()) return;
  const char* function = "DvDataMgr::on_reply_data";
  std::string name = get_market_name_by_id(reply.head().market_id);
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, function, "[ApiLatestShareRsp] Not found market:%s", name.c_str());
    return;
  }
  CMyLog::PrintLog(LOG_INFO, function, "[ApiLatestShareRsp] sMarket=%s,iDataCount=%d", name.c_str(),
                   reply.head().count);
  size_t count = reply.available(reply.head().count);
  for (size_t i = 0; i < count; ++i) {
    ApiLatestShareItem item = reply.item(i);
    std::string code = field_text(item.code);
    bool found;
    {
      std::lock_guard<std::mutex> lock(markets_.codes_mu.read_only());
      std::shared_ptr<BaseCodeInfo> info;
      found = find_code(*market, code, info) != 0;
    }
    if (!found) {
      CMyLog::PrintLog(LOG_INFO, function, "[ApiLatestShareRsp] Code:%s not exist in mkt[%s]!", code.c_str(),
                       name.c_str());
      continue;
    }
    CMyLog::PrintLog(LOG_TRACE, function, "[ApiLatestShareRsp] code=%s.%s,[%lld, %lld, %0.2f]", code.c_str(),
                     name.c_str(), static_cast<long long>(item.total_shares),
                     static_cast<long long>(item.float_shares), item.net_assets_per_share);
  }
  CMyLog::PrintLog(LOG_INFO, function, "[ApiLatestShareRsp] Market %s shares information end......", name.c_str());
}

void DvDataMgr::on_reply_data(const ApiNewIssueHead* data, size_t size) {
  ReplyReader<ApiNewIssueHead, ApiNewIssueItem> reply(data, size);
  if (!reply.ok()) return;
  const char* function = "DvDataMgr::on_reply_data";
  size_t count = reply.available(reply.head().count);
  std::vector<IPOCodeInfo> issues;
  issues.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    ApiNewIssueItem item = reply.item(i);
    IPOCodeInfo issue;
    issue.market = get_market_name_by_id(item.market_id);
    issue.code = field_text(item.code);
    issue.name = field_text(item.name);
    issue.purchase_code = field_text(item.purchase_code);
    issue.board = field_text(item.board);
    issue.issue_date = item.issue_date;
    issue.issue_price = item.issue_price;
    issue.issue_volume = item.issue_volume;
    issue.purchase_limit = item.purchase_limit;
    issue.listing_date = item.listing_date;
    CMyLog::PrintLog(LOG_INFO, function, "[ApiNewIssusRsp] %s: %d, %s, %0.2f, %s, %d.....", issue.code.c_str(),
                     issue.issue_date, issue.name.c_str(), issue.issue_price, issue.purchase_code.c_str(),
                     issue.listing_date);
    CMyLog::PrintLog(LOG_INFO, function, "[ApiNewIssusRsp] %s.%s[%s][%s]: %d, %0.2f, %s, %d, %d, %ld.....",
                     issue.code.c_str(), issue.market.c_str(), issue.name.c_str(), issue.board.c_str(),
                     issue.issue_date, issue.issue_price, issue.purchase_code.c_str(), issue.purchase_limit,
                     issue.listing_date, static_cast<long>(issue.issue_volume));
    issues.push_back(std::move(issue));
  }
  std::lock_guard<std::mutex> lock(issues_mu_);
  new_issues_ = std::move(issues);
}

std::vector<IPOCodeInfo> DvDataMgr::new_issues() const {
  std::lock_guard<std::mutex> lock(issues_mu_);
  return new_issues_;
}

void DvDataMgr::on_reply_data(const ApiSharedFields* data, size_t size) {
  ApiSharedFields fields;
  if (data == nullptr || size < sizeof(fields)) return;
  std::memcpy(&fields, data, sizeof(fields));
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::on_reply_data", "[ApiSharedFieldsRsp] Shared base data: %d, %0.2f",
                   fields.version, static_cast<double>(fields.rate));
}

}  // namespace tavr
