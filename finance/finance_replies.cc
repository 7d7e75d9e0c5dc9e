// Financial data replies: each brings the records of one kind of data for one
// request; the reply that answers the last kind outstanding hands the host
// everything its request collected.
#include <memory>
#include <utility>

#include "datamgr/DvDataMgr.h"
#include "finance/finance_kinds.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"
#include "market/base_code_info.h"
#include "market/record_reader.h"
#include "utils/utils.h"

namespace tavr {

namespace {

const char kFunction[] = "DvDataMgr::on_reply_data";

using FinanceRecords = std::vector<std::shared_ptr<DraVikIData>>;

// What the log lines of one reply name.
struct ReplyLine {
  const char* tag;
  int base;
  std::string code;
  std::string market;
};

template <typename Record, typename Item>
std::shared_ptr<Record> Dated(const Item& item) {
  auto record = std::make_shared<Record>();
  record->report_date = utils::timeToMilliseconds(item.report_date, 0);
  record->announce_date = utils::timeToMilliseconds(item.announce_date, 0);
  return record;
}

template <typename Record, typename Item>
std::shared_ptr<DraVikIData> Statement(const Item& item, const ReplyLine&) {
  static_assert(sizeof(item.items) / sizeof(item.items[0]) == Record::kItems);
  auto record = Dated<Record>(item);
  record->report_type = item.report_type;
  for (int i = 0; i < Record::kItems; ++i) record->item[i] = item.items[i];
  return record;
}

std::shared_ptr<DraVikIData> HolderNumber(const ApiSHNumberItem& item, const ReplyLine&) {
  auto record = Dated<Dravik_Cshare_holder_number>(item);
  record->item[0] = item.holders;
  record->item[1] = item.float_holders;
  record->item[2] = item.restricted_holders;
  record->item[3] = item.previous_holders;
  return record;
}

Dravik_Ctop10_share_holder_base_info Holder(const ApiShareHolder& entry) {
  Dravik_Ctop10_share_holder_base_info holder;
  holder.name = field_text(entry.name);
  holder.kind = field_text(entry.kind);
  holder.shares = entry.shares;
  holder.share_kind = field_text(entry.share_kind);
  holder.ratio = entry.ratio;
  holder.change = field_text(entry.change);
  holder.rank = entry.rank;
  return holder;
}

template <typename Record>
std::shared_ptr<DraVikIData> TopHolders(const ApiTopHolderItem& item, const ReplyLine& line) {
  auto record = Dated<Record>(item);
  int32_t count = item.holder_count;
  if (count > ApiTopHolderItem::kMaxHolders) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "%s[id=%d] code:%s.%s Holder count[%d] beyond [%d], the rest dropped....",
                     line.tag, line.base, line.code.c_str(), line.market.c_str(), count,
                     ApiTopHolderItem::kMaxHolders);
    count = ApiTopHolderItem::kMaxHolders;
  }
  for (int32_t i = 0; i < count; ++i) record->holders.push_back(Holder(item.holders[i]));
  return record;
}

// The element of each kind's reply and the record it becomes.
template <typename ItemType, auto Convert>
struct ElementOf {
  using Item = ItemType;
  static constexpr auto convert = Convert;
};
template <typename Record, typename Item>
using StatementOf = ElementOf<Item, &Statement<Record, Item>>;
template <typename Record>
using TopHoldersOf = ElementOf<ApiTopHolderItem, &TopHolders<Record>>;

template <int Kind>
struct FinanceElement;
template <> struct FinanceElement<1> : StatementOf<DravikCBalanceSheet, ApiBalanceSheetItem> {};
template <> struct FinanceElement<2> : StatementOf<DravikCShareIncome, ApiIncomeStatementItem> {};
template <> struct FinanceElement<4> : StatementOf<DravikCShareCashFlow, ApiCashFlowItem> {};
template <> struct FinanceElement<8> : StatementOf<DravikCPerShare, ApiFinancialDataItem> {};
template <> struct FinanceElement<16> : StatementOf<DravikCCapitalStructure, ApiShareItem> {};
template <> struct FinanceElement<32> : ElementOf<ApiSHNumberItem, &HolderNumber> {};
template <> struct FinanceElement<64> : TopHoldersOf<Dravik_Ctop10_share_holder> {};
template <> struct FinanceElement<128> : TopHoldersOf<Dravik_Ctop10_flow_share_holder> {};

}  // namespace

template <int Kind>
void DvDataMgr::on_reply_data(const ApiFinanceRsp<Kind>* data, size_t size) {
  using Element = FinanceElement<Kind>;
  constexpr const FinanceKind& kind = finance_kind(Kind);
  static_assert(kind.bit == Kind);
  ReplyReader<ApiFinanceRsp<Kind>, typename Element::Item> reply(data, size);
  if (!reply.ok()) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "%s Short reply[%d bytes] dropped....", kind.tag, static_cast<int>(size));
    return;
  }
  const int32_t count = reply.head().count;
  ReplyLine line{kind.tag, static_cast<uint16_t>(reply.head().request_id - Kind), field_text(reply.head().code),
                 get_market_name_by_id(reply.head().market)};
  const uint16_t base = static_cast<uint16_t>(line.base);
  CMyLog::PrintLog(LOG_INFO, kFunction, "%s code:%s.%s: serino=%d,Count=%d", kind.tag, line.code.c_str(),
                   line.market.c_str(), line.base, count);

  // Callers hold his_request_mu_. Ids are shared with history requests,
  // whose records are longer.
  auto is_open = [&] {
    auto it = his_request_infos.find(base);
    return it != his_request_infos.end() && it->second.size() == 3 && finance_results_.count(base) != 0;
  };
  auto missing = [&] {
    CMyLog::PrintLog(LOG_INFO, kFunction, "%s code:%s.%s Missing Request id[%d]!!!!", kind.tag, line.code.c_str(),
                     line.market.c_str(), line.base);
  };
  bool open;
  {
    std::lock_guard<std::mutex> lock(his_request_mu_);
    open = is_open();
  }
  if (!open) return missing();

  FinanceRecords records;
  size_t available = reply.available(count);
  if (count > 0 && available < static_cast<size_t>(count)) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "%s[id=%d] code:%s.%s Count[%d] beyond the reply, %d read....", kind.tag,
                     line.base, line.code.c_str(), line.market.c_str(), count, static_cast<int>(available));
  }
  records.reserve(available);
  for (size_t i = 0; i < available; ++i) records.push_back(Element::convert(reply.item(i), line));

  // The kinds outstanding and the records collected change together, so the
  // completing reply delivers every record of the request.
  int32_t outstanding = 0;
  bool complete = false;
  FinanceCollect done;
  {
    std::lock_guard<std::mutex> lock(his_request_mu_);
    // Gone meanwhile when another reply completed the request.
    open = is_open();
    if (open) {
      std::vector<int32_t>& request = his_request_infos[base];
      FinanceCollect& collect = finance_results_[base];
      if (count < 0) collect.ok = false;
      collect.data.emplace(kind.type_id, std::move(records));
      // A kind that answers twice is subtracted twice: no bit test.
      outstanding = request[2] - Kind;
      if (outstanding != 0) {
        request[2] = outstanding;
      } else {
        complete = true;
        done = std::move(collect);
        his_request_infos.erase(base);
        finance_results_.erase(base);
      }
    }
  }
  if (!open) return missing();
  if (!complete) {
    CMyLog::PrintLog(LOG_INFO, kFunction, "%s[id=%d] code:%s.%s Waiting for files [%s]!!!!", kind.tag, line.base,
                     line.code.c_str(), line.market.c_str(),
                     finance_mask_text(static_cast<uint8_t>(outstanding)).c_str());
    return;
  }
  CMyLog::PrintLog(LOG_INFO, kFunction, "%s[id=%d] code:%s.%s Return financial files....", kind.tag, line.base,
                   line.code.c_str(), line.market.c_str());
  // No lock of ours is held while the host runs: it may ask again from inside.
  client()->onRequestFinance(static_cast<short>(base), done.data, done.ok);
}

template void DvDataMgr::on_reply_data<1>(const ApiFinanceRsp<1>*, size_t);
template void DvDataMgr::on_reply_data<2>(const ApiFinanceRsp<2>*, size_t);
template void DvDataMgr::on_reply_data<4>(const ApiFinanceRsp<4>*, size_t);
template void DvDataMgr::on_reply_data<8>(const ApiFinanceRsp<8>*, size_t);
template void DvDataMgr::on_reply_data<16>(const ApiFinanceRsp<16>*, size_t);
template void DvDataMgr::on_reply_data<32>(const ApiFinanceRsp<32>*, size_t);
template void DvDataMgr::on_reply_data<64>(const ApiFinanceRsp<64>*, size_t);
template void DvDataMgr::on_reply_data<128>(const ApiFinanceRsp<128>*, size_t);

}  // namespace tavr
