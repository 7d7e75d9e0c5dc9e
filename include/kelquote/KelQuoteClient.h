// The library's quote client: one per process, obtained with getKelClient.
#ifndef KELQUOTE_INCLUDE_KELQUOTECLIENT_H_
#define KELQUOTE_INCLUDE_KELQUOTECLIENT_H_

#include <cstdint>
#include <string>

#include "kelquote/BaseQuoteClient.h"

namespace tavr {

class DvDataMgr;

class KELQUOTE_API KelQuoteClient : public BaseQuoteClient {
 public:
  // The process's client; created by the first call, never destroyed.
  static KelQuoteClient& get();
  static KelQuoteClient* m_instance;

  // A client bound to its own data manager (created on its first login), for
  // hosts that embed several and for tests. Hosts normally use get().
  KelQuoteClient();
  ~KelQuoteClient() override;
  KelQuoteClient(const KelQuoteClient&) = delete;
  KelQuoteClient& operator=(const KelQuoteClient&) = delete;

  void goLogin(const LoginParam& param, LoginCallback callback) override;
  void registerQuoterConnectCallBack(StatusCallback callback) override;
  void registerTradeDateAndStockListChangeCallBack(StatusCallback callback) override;
  void requestHistoryQuote(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                           const std::string& extra, QuoteCallback callback) override;
  int subscribeQuote(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                     const std::string& extra, QuoteCallback callback) override;
  void unsubscribe(int id) override;
  int subWholeQuote(const std::string& market, WholeQuoteCallback callback) override;
  void unWholeQuote(int id) override;
  void getTradeDateList(const std::string& market, std::vector<int64_t>& days) override;
  void getStockList(const std::string& market, int64_t ignored,
                    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>>& list) override;
  void requestFinanceData(const FinanceDataParam& param, FinanceCallback callback) override;

  // Completion operations, called by the data manager.
  void onRequestHistory(const short& id, const QuoteRecords& bars, bool last);
  void onSubscribe(const short& id, const QuoteRecords& records);
  void onWholeSub(const short& id, const QuoteMap& records);
  void onRequestFinance(const short& id, const FinanceResult& data, bool ok);
  void onConnectStatusChange(const int& code, const std::string& text);
  void onMarketInfoChange(const int& kind, const std::string& market, char which);

  // Host market code to the service's market name and variant (1, or 2 for
  // "SHO", "SZO", "SGT"). An unknown code yields itself, variant 1 and false.
  static bool market_id_transfer_to_dravik(const std::string& host_code, std::string& market, char& variant);
  // The service's market name and variant to the host code; empty when the
  // market has no such variant.
  static std::string market_id_transfer_from_dravik(const std::string& market, char variant);

  // Registry operations of the per-instrument and whole-market subscriptions.
  void add_quote_info(short id, std::string code, std::string market, QuoteCallback callback);
  bool del_quote_info(short id, std::string& code, std::string& market);
  void add_mkt_push_info(short id, WholeQuoteCallback callback);
  bool del_mkt_push_info(short id);

  bool logged_in() const;
  // The data manager behind this client; null before the first login unless attached.
  DvDataMgr* data_manager() const;
  // Uses mgr (not owned) instead of creating one at the first login.
  void attach_data_manager(DvDataMgr* mgr);

 private:
  friend class KelQuoteClientTest;
  // 0 starts the data manager again, 1 stops it.
  void startLogin(int action);
  // Registers a history request's callback, replacing any under the same id.
  void add_history_info(short id, QuoteCallback callback);
  // Registers a financial request's parameter and callback, replacing any under the same id.
  void add_finance_info(short id, const FinanceDataParam& param, FinanceCallback callback);

  struct State;
  State* state_;
};

}  // namespace tavr

// The process's quote client.
extern "C" KELQUOTE_API tavr::BaseQuoteClient* getKelClient();

#endif  // KELQUOTE_INCLUDE_KELQUOTECLIENT_H_
