// The eight kinds of financial data: how a host names each (type id), how a
// request's set of kinds is written in the log (mask text), which quote API
// operation asks for it and which reply answers.
#ifndef KELQUOTE_FINANCE_FINANCE_KINDS_H_
#define KELQUOTE_FINANCE_FINANCE_KINDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "dataapi/DataApi.h"

namespace tavr {

struct FinanceKind {
  uint8_t bit;       // bit value in a request's mask; sub-request id = base id + bit
  int32_t type_id;   // the host's name of the kind, also its key in the result
  const char* word;  // in the mask text, with its trailing blank
  const char* tag;   // of the reply's log lines
  int (CDataApi::*request)(const FinanceRequest*);
};

// In bit order.
inline constexpr FinanceKind kFinanceKinds[] = {
    {1, 24501, "BALANCESHEET ", "[ApiBalanceSheetRsp]", &CDataApi::ReqBalanceSheet},
    {2, 24502, "INCOMESTATE ", "[ApiIncomeStatementRsp]", &CDataApi::ReqIncomeStatement},
    {4, 24503, "CASHFLOW ", "[ApiCashFlowStatementRsp]", &CDataApi::ReqCashFlowStatement},
    {8, 24504, "FINANCEIND ", "[ApiFinancialDataRsp]", &CDataApi::ReqFinancialData},
    {16, 24506, "SHARESTRUCT ", "[ApiShareRsp]", &CDataApi::ReqShareData},
    {32, 24510, "HOLDERCOUNT ", "[ApiSHNumberResp]", &CDataApi::ReqSHNumber},
    {64, 24509, "TOP10HOLDER ", "[ApiMostShareHolderResp]", &CDataApi::ReqMostShareHolder},
    {128, 24508, "TOP10NEG ", "[ApiNegotiableShareHolderRsp]", &CDataApi::ReqNegotiableShareHolder},
};

// The kind of a bit value; the bit must be one of the eight.
constexpr const FinanceKind& finance_kind(int bit) {
  for (const FinanceKind& kind : kFinanceKinds) {
    if (kind.bit == bit) return kind;
  }
  return kFinanceKinds[0];
}

// The words of the kinds in mask, from bit 0 up: "" for 0.
std::string finance_mask_text(uint8_t mask);

// The mask of the kinds that type ids name; every other id is logged under
// function and left out.
uint8_t finance_mask_of(const std::vector<int32_t>& type_ids, const char* function);

}  // namespace tavr

#endif  // KELQUOTE_FINANCE_FINANCE_KINDS_H_
