// The quote client interface a host programs against.
#ifndef KELQUOTE_INCLUDE_BASEQUOTECLIENT_H_
#define KELQUOTE_INCLUDE_BASEQUOTECLIENT_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kelquote/FinanceData.h"
#include "kelquote/LoginParam.h"
#include "kelquote/export.h"
#include "quoter/quoter.h"

namespace tavr {

using QuoteRecords = std::vector<std::shared_ptr<quoter::QuoterBase>>;
using QuoteMap = std::map<std::string, std::shared_ptr<quoter::QuoterBase>>;
using FinanceResult = std::map<int, std::vector<std::shared_ptr<DraVikIData>>>;

// (true, "") after a successful login, else (false, reason text in GBK).
using LoginCallback = std::function<void(bool, std::string)>;
// Connection status (0 restored, 1 lost and reconnecting, 2 failed) or market
// information change (0 trading days, 1 instrument list) with a text.
using StatusCallback = std::function<void(int, std::string)>;
// History blocks and real-time records of one request.
using QuoteCallback = std::function<void(se::EQuoteSubStatus, const QuoteRecords&, se::EDataArrivedTag)>;
// One whole-market package: instrument code to its snapshot.
using WholeQuoteCallback = std::function<void(const QuoteMap&)>;
// Financial data: market code, the request, records per type id, status.
using FinanceCallback =
    std::function<void(std::string, const FinanceDataParam&, const FinanceResult&, se::EQuoteSubStatus)>;

// Every answer arrives through the callbacks, on the library's threads unless
// said otherwise; no operation throws.
class KELQUOTE_API BaseQuoteClient {
 public:
  virtual ~BaseQuoteClient();

  // Connects to the quote service. The callback runs before this returns.
  virtual void goLogin(const LoginParam& param, LoginCallback callback) = 0;
  virtual void registerQuoterConnectCallBack(StatusCallback callback) = 0;
  virtual void registerTradeDateAndStockListChangeCallBack(StatusCallback callback) = 0;
  virtual void requestHistoryQuote(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                                   const std::string& extra, QuoteCallback callback) = 0;
  // Returns the subscription's id, or -4.
  virtual int subscribeQuote(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                             const std::string& extra, QuoteCallback callback) = 0;
  virtual void unsubscribe(int id) = 0;
  // Returns the subscription's id, or -4.
  virtual int subWholeQuote(const std::string& market, WholeQuoteCallback callback) = 0;
  virtual void unWholeQuote(int id) = 0;
  // Trading days of the market, as milliseconds of their midnight.
  virtual void getTradeDateList(const std::string& market, std::vector<int64_t>& days) = 0;
  virtual void getStockList(const std::string& market, int64_t ignored,
                            std::vector<std::shared_ptr<ttservice::CInstrumentDetail>>& list) = 0;
  virtual void requestFinanceData(const FinanceDataParam& param, FinanceCallback callback) = 0;
};

}  // namespace tavr

#endif  // KELQUOTE_INCLUDE_BASEQUOTECLIENT_H_
