// The simulated service's financial data: for every SH and SZ share, its
// recent report periods with statements whose items hang together, its share
// capital, its number of holders and its largest holders, all derived from
// the universe's seed and the share's own figures.
//
// Money items are in ten thousand yuan, share counts in shares, per-share
// items in yuan and ratios in percent. The positions below (from 0) are the
// items the service fills; the others are 0.
#ifndef KELQUOTE_DATAAPI_SIM_FINANCE_H_
#define KELQUOTE_DATAAPI_SIM_FINANCE_H_

#include <cstdint>
#include <vector>

#include "dataapi/ApiRecords.h"
#include "dataapi/sim/universe.h"

namespace sim {

namespace balance {
constexpr int kCash = 0;
constexpr int kCurrentAssets = 10;      // sum of 0 to 9
constexpr int kNonCurrentAssets = 25;   // sum of 11 to 24
constexpr int kTotalAssets = 26;
constexpr int kCurrentLiabilities = 37;     // sum of 27 to 36
constexpr int kNonCurrentLiabilities = 46;  // sum of 38 to 45
constexpr int kTotalLiabilities = 47;
constexpr int kShareCapital = 48;
constexpr int kParentEquity = 52;  // sum of 48 to 51
constexpr int kMinorityEquity = 53;
constexpr int kTotalEquity = 54;
constexpr int kLiabilitiesAndEquity = 55;
}  // namespace balance

namespace income {
constexpr int kRevenue = 0;
constexpr int kOperatingCosts = 2;  // sum of 3 to 8
constexpr int kOperatingProfit = 20;
constexpr int kTotalProfit = 23;
constexpr int kIncomeTax = 24;
constexpr int kNetProfit = 25;
constexpr int kParentNetProfit = 26;
constexpr int kBasicEps = 28;
}  // namespace income

namespace cash_flow {
constexpr int kOperatingNet = 9;
constexpr int kInvestingNet = 22;
constexpr int kFinancingNet = 32;
constexpr int kNetChange = 41;
constexpr int kBeginCash = 42;
constexpr int kEndCash = 43;  // the balance sheet's cash
}  // namespace cash_flow

namespace per_share {
constexpr int kEps = 0;
constexpr int kBookValue = 2;
constexpr int kOperatingCashFlow = 3;
constexpr int kRoe = 6;
constexpr int kDebtRatio = 9;
}  // namespace per_share

namespace capital {
constexpr int kTotalShares = 0;
constexpr int kTradableShares = 1;
constexpr int kRestrictedShares = 2;
}  // namespace capital

// Report periods per answer, newest first.
constexpr int kStatementPeriods = 8;
constexpr int kHolderPeriods = 4;

// How the service answers one kind of financial data.
enum class FinanceMode : int { kNormal = 0, kNever = 1, kTwice = 2, kNegativeCount = 3 };
// The mode of a kind by its bit value (1 balance sheet ... 128 top ten
// tradable holders); false for another value.
bool set_finance_mode(int kind, FinanceMode mode);
FinanceMode finance_mode(int kind);

// The answer of kind to request: stock's periods published by trade_date,
// none for a null stock, or a count of -1 when negative.
std::vector<uint8_t> finance_reply(int kind, const FinanceRequest& request, const Instrument* stock, uint64_t seed,
                                   int32_t trade_date, bool negative);

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_FINANCE_H_
