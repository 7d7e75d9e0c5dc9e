// The client facade: login, the four request registries and the completion
// operations through which the data manager reaches the host.
#include "kelquote/KelQuoteClient.h"

#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "client/host_call.h"
#include "client/subscriber_registry.h"
#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"
#include "log/sized_rolling_appender.h"
#include "port/port.h"

namespace tavr {

namespace {

struct QuoteEntry {
  std::string code;
  std::string market;
  QuoteCallback callback;
};

}  // namespace

struct KelQuoteClient::State {
  std::atomic<bool> logged_in{false};
  std::atomic<bool> first_login{true};

  std::mutex login_mu;  // one creation of the data manager
  std::unique_ptr<DvDataMgr> owned_mgr;
  std::atomic<DvDataMgr*> mgr{nullptr};

  std::mutex callbacks_mu;
  std::shared_ptr<const StatusCallback> connect_callback;
  std::shared_ptr<const StatusCallback> market_info_callback;

  SubscriberRegistry<QuoteEntry> quotes;
  SubscriberRegistry<WholeQuoteCallback> pushes;

  // Recursive: the host may issue a new request from inside a callback that
  // runs under the lock.
  std::recursive_mutex history_mu;
  std::map<short, QuoteCallback> history;

  std::recursive_mutex finance_mu;
  std::map<short, std::pair<FinanceDataParam, FinanceCallback>> finance;

  std::shared_ptr<const StatusCallback> callback(const std::shared_ptr<const StatusCallback>& slot) {
    std::lock_guard<std::mutex> lock(callbacks_mu);
    return slot;
  }
};

KelQuoteClient* KelQuoteClient::m_instance = nullptr;

KelQuoteClient& KelQuoteClient::get() {
  // The static's guard makes the first call safe from any number of threads.
  static KelQuoteClient* const instance = (m_instance = new KelQuoteClient());
  return *instance;
}

BaseQuoteClient::~BaseQuoteClient() = default;

KelQuoteClient::KelQuoteClient() : state_(new State) {}

KelQuoteClient::~KelQuoteClient() {
  if (state_->owned_mgr) state_->owned_mgr->stop();
  delete state_;
}

bool KelQuoteClient::logged_in() const { return state_->logged_in.load(); }

DvDataMgr* KelQuoteClient::data_manager() const { return state_->mgr.load(std::memory_order_acquire); }

void KelQuoteClient::attach_data_manager(DvDataMgr* mgr) {
  mgr->set_client(this);
  state_->mgr.store(mgr, std::memory_order_release);
}

void KelQuoteClient::goLogin(const LoginParam& param, LoginCallback callback) {
  const char* function = "tavr::KelQuoteClient::goLogin";
  bool ok = false;
  const char* reason = "";
  DvDataMgr* mgr = nullptr;
  {
    // Only the data manager's creation is one at a time: a start may wait for
    // threads whose callbacks log in again.
    std::lock_guard<std::mutex> lock(state_->login_mu);
    mgr = data_manager();
    if (mgr == nullptr) {
      state_->owned_mgr = std::make_unique<DvDataMgr>();
      attach_data_manager(state_->owned_mgr.get());
      mgr = state_->owned_mgr.get();
    }
  }
  bool is_real = param.environment == 2;
  if (!mgr->init(is_real)) {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to Init....");
    reason = "初始化失败，请检查配置信息！";
  } else if (mgr->start()) {
    port::SleepMs(1000);
    state_->logged_in.store(true);
    ok = true;
  } else {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to login....");
    reason = "网关连接超时，请检查网络状态，稍后重试！";
  }
  state_->first_login.store(false);
  // Unlocked: a host that retries from inside its callback logs in again.
  host_call(callback, ok, std::string(reason));
}

void KelQuoteClient::startLogin(int action) {
  DvDataMgr* mgr = data_manager();
  if (mgr == nullptr) return;
  if (action == 0) {
    if (mgr->start()) state_->logged_in.store(true);
  } else if (action == 1) {
    if (mgr->stop()) state_->logged_in.store(false);
  }
}

void KelQuoteClient::registerQuoterConnectCallBack(StatusCallback callback) {
  auto slot = std::make_shared<const StatusCallback>(std::move(callback));
  std::lock_guard<std::mutex> lock(state_->callbacks_mu);
  state_->connect_callback = std::move(slot);
}

void KelQuoteClient::registerTradeDateAndStockListChangeCallBack(StatusCallback callback) {
  auto slot = std::make_shared<const StatusCallback>(std::move(callback));
  std::lock_guard<std::mutex> lock(state_->callbacks_mu);
  state_->market_info_callback = std::move(slot);
}

void KelQuoteClient::requestHistoryQuote(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                                         const std::string&, QuoteCallback callback) {
  const char* function = "tavr::KelQuoteClient::requestHistoryQuote";
  std::string market;
  char variant = 1;
  if (!market_id_transfer_to_dravik(meta.market, market, variant)) {
    CMyLog::PrintLog(LOG_ERROR, function, "Market is not exist: %s ....", meta.market.c_str());
    host_call(callback, se::kQuoteFailure, QuoteRecords(), se::kArrivedLast);
    return;
  }
  DvDataMgr* mgr = data_manager();
  std::unique_lock<std::recursive_mutex> lock(state_->history_mu);
  // Sent under the lock so that no reply can be looked up before its entry exists.
  short id = static_cast<short>(mgr != nullptr ? mgr->request_his_kline(meta, region, market, variant)
                                               : kRequestFailed);
  if (id >= 0) {
    add_history_info(id, std::move(callback));
    lock.unlock();
    CMyLog::PrintLog(LOG_INFO, function, "Waiting %s.%s Kline[%d]....", meta.code.c_str(), market.c_str(), id);
    return;
  }
  lock.unlock();
  CMyLog::PrintLog(LOG_ERROR, function, "Failed to request %s.%s kline[%d]....", meta.code.c_str(), market.c_str(),
                   static_cast<int>(meta.period));
  host_call(callback, se::kQuoteFailure, QuoteRecords(), se::kArrivedLast);
}

int KelQuoteClient::subscribeQuote(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo&, const std::string&,
                                   QuoteCallback callback) {
  const char* function = "tavr::KelQuoteClient::subscribeQuote";
  SizedRollingFileAppender::FlushBatch batch;  // the operation's lines in one write
  std::string market;
  char variant = 1;
  if (!market_id_transfer_to_dravik(meta.market, market, variant)) {
    CMyLog::PrintLog(LOG_ERROR, function, "Market is not exist: %s ....", meta.market.c_str());
    host_call(callback, se::kQuoteFailure, QuoteRecords(), se::kArrivedNone);
    return -4;
  }
  DvDataMgr* mgr = data_manager();
  short id = static_cast<short>(mgr != nullptr ? mgr->request_tick_push(meta, market) : kRequestFailed);
  if (id < 0) {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to sub %s.%s...", meta.code.c_str(), market.c_str());
    host_call(callback, se::kQuoteFailure, QuoteRecords(), se::kArrivedNone);
    return -4;
  }
  add_quote_info(id, meta.code, market, std::move(callback));
  CMyLog::PrintLog(LOG_INFO, function, "[id=%d]Sub %s.%s quote [%d]....", id, meta.code.c_str(), market.c_str(),
                   static_cast<int>(meta.period));
  return id;
}

void KelQuoteClient::unsubscribe(int id) {
  const char* function = "tavr::KelQuoteClient::unsubscribe";
  SizedRollingFileAppender::FlushBatch batch;
  CMyLog::PrintLog(LOG_INFO, function, "delete %d subscrib info....", id);
  std::string code, market;
  // Ids are 16-bit: a wider one was never handed out, and cut to 16 bits it
  // would name someone else's subscription.
  if (id != static_cast<short>(id) || !del_quote_info(static_cast<short>(id), code, market)) return;
  if (DvDataMgr* mgr = data_manager()) mgr->release_tick_push(code, market, static_cast<uint16_t>(id));
  CMyLog::PrintLog(LOG_INFO, function, "delete %s.%s subscrib info....", code.c_str(), market.c_str());
}

int KelQuoteClient::subWholeQuote(const std::string& host_market, WholeQuoteCallback callback) {
  const char* function = "tavr::KelQuoteClient::subWholeQuote";
  std::string market;
  char variant = 1;
  if (!market_id_transfer_to_dravik(host_market, market, variant)) {
    CMyLog::PrintLog(LOG_ERROR, function, "Market is not exist: %s ....", host_market.c_str());
    return -4;
  }
  int8_t depth = variant < 2 ? 0 : 100;
  DvDataMgr* mgr = data_manager();
  int32_t id = mgr != nullptr ? mgr->request_mkt_tick_push(market, depth) : -1;
  if (id < 0) {
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to sub market %s...", market.c_str());
    return -4;
  }
  add_mkt_push_info(static_cast<short>(id), std::move(callback));
  CMyLog::PrintLog(LOG_INFO, function, "[id=%d]Sub market %s....", id, market.c_str());
  return id;
}

void KelQuoteClient::unWholeQuote(int id) {
  CMyLog::PrintLog(LOG_INFO, "tavr::KelQuoteClient::unWholeQuote", "delete %d market subscrib info....", id);
  if (id != static_cast<short>(id) || !del_mkt_push_info(static_cast<short>(id))) return;
  if (DvDataMgr* mgr = data_manager()) mgr->release_mkt_tick_push(static_cast<int16_t>(id));
}

void KelQuoteClient::getTradeDateList(const std::string& host_market, std::vector<int64_t>& days) {
  std::string market;
  char variant = 1;
  market_id_transfer_to_dravik(host_market, market, variant);
  DvDataMgr* mgr = data_manager();
  if (mgr == nullptr) return;
  if (market == "HK") {
    mgr->get_HKC_trade_day_list(variant, days);
  } else {
    mgr->get_market_trade_day_list(market, variant, days);
  }
}

void KelQuoteClient::getStockList(const std::string& host_market, int64_t,
                                  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>>& list) {
  std::string market;
  char variant = 1;
  market_id_transfer_to_dravik(host_market, market, variant);
  if (DvDataMgr* mgr = data_manager()) mgr->get_market_code_list(host_market, market, variant, list);
}

void KelQuoteClient::requestFinanceData(const FinanceDataParam& param, FinanceCallback callback) {
  const char* function = "tavr::KelQuoteClient::requestFinanceData";
  std::string market;
  char variant = 1;
  market_id_transfer_to_dravik(param.market, market, variant);
  DvDataMgr* mgr = data_manager();
  short id;
  {
    // Sent under the lock so that no reply can be looked up before its entry
    // exists; the data manager delivers without holding a lock of its own.
    std::lock_guard<std::recursive_mutex> lock(state_->finance_mu);
    id = static_cast<short>(mgr != nullptr ? mgr->request_finance_data(market, param.code, param.types,
                                                                       static_cast<int32_t>(param.begin),
                                                                       static_cast<int32_t>(param.end))
                                           : kRequestFailed);
    if (id >= 0) state_->finance[id] = {param, std::move(callback)};
  }
  if (id < 0) {
    // Unlocked: the host's failure callback may do anything, from any thread.
    CMyLog::PrintLog(LOG_ERROR, function, "Failed to get %s.%s finance data...", param.code.c_str(), market.c_str());
    host_call(callback, param.market, param, FinanceResult(), se::kQuoteFailure);
  }
  CMyLog::PrintLog(LOG_INFO, function, "[id=%d] Request %s.%s finance data....", id, param.code.c_str(),
                   market.c_str());
}

void KelQuoteClient::onRequestHistory(const short& id, const QuoteRecords& bars, bool last) {
  const char* function = "tavr::KelQuoteClient::onRequestHistory";
  CMyLog::PrintLog(LOG_TRACE, function, "Start retrun data[id=%d][%d]!!!", id, static_cast<int>(bars.size()));
  // The lock waits for a registration still under way; the host runs unlocked
  // (one request's blocks come one at a time, in order).
  QuoteCallback callback;
  {
    std::lock_guard<std::recursive_mutex> lock(state_->history_mu);
    auto it = state_->history.find(id);
    if (it == state_->history.end()) {
      CMyLog::PrintLog(LOG_INFO, function, "No request found in kline request list[id=%d][%d]!!!", id,
                       static_cast<int>(state_->history.size()));
    } else if (last) {
      // Removed before the call, so a throwing callback cannot leave it behind.
      callback = std::move(it->second);
      state_->history.erase(it);
    } else {
      callback = it->second;
    }
  }
  host_call(callback, se::kQuoteData, bars, last ? se::kArrivedLast : se::kArrivedPartial);
  CMyLog::PrintLog(LOG_TRACE, function, "Finish retrun data[id=%d][%d]!!!", id, static_cast<int>(bars.size()));
}

void KelQuoteClient::onSubscribe(const short& id, const QuoteRecords& records) {
  const char* function = "tavr::KelQuoteClient::onSubscribe";
  if (!state_->quotes.call(id, [&](const QuoteEntry& entry) {
        host_call(entry.callback, se::kQuoteData, records, se::kArrivedRealTime);
      })) {
    CMyLog::PrintLog(LOG_INFO, function, "No request found in waiting list[id=%d]!!!", id);
    return;
  }
  CMyLog::PrintLog(LOG_TRACE, function, "Return real time data[id = %d]!!!", id);
}

void KelQuoteClient::onWholeSub(const short& id, const QuoteMap& records) {
  const char* function = "tavr::KelQuoteClient::onWholeSub";
  if (!state_->pushes.call(id, [&](const WholeQuoteCallback& callback) { host_call(callback, records); })) {
    CMyLog::PrintLog(LOG_INFO, function, "No request found in waiting list[id=%d]!!!", id);
    return;
  }
  CMyLog::PrintLog(LOG_TRACE, function, "Return real time data[id = %d]!!!", id);
}

void KelQuoteClient::onRequestFinance(const short& id, const FinanceResult& data, bool ok) {
  const char* function = "tavr::KelQuoteClient::onRequestFinance";
  std::pair<FinanceDataParam, FinanceCallback> request;
  {
    std::lock_guard<std::recursive_mutex> lock(state_->finance_mu);
    auto it = state_->finance.find(id);
    if (it == state_->finance.end()) {
      CMyLog::PrintLog(LOG_INFO, function, "No request found in finance request list[id=%d]!!!", id);
      return;
    }
    request = std::move(it->second);
    state_->finance.erase(it);
  }
  // The entry is gone before the host runs, unlocked: a request made meanwhile,
  // from any thread, waits for nobody's callback.
  host_call(request.second, request.first.market, request.first, data, ok ? se::kQuoteData : se::kQuoteFailure);
  CMyLog::PrintLog(LOG_INFO, function, "Request[%d] finance data sent.....", id);
}

void KelQuoteClient::onConnectStatusChange(const int& code, const std::string& text) {
  const char* function = "tavr::KelQuoteClient::onConnectStatusChange";
  auto callback = state_->callback(state_->connect_callback);
  if (callback == nullptr || !*callback) {
    CMyLog::PrintLog(LOG_INFO, function, "Status callback handler NOT INITIALIZED!!!");
    return;
  }
  // Runs on the vendor's thread: nothing may escape into the vendor library.
  host_call(*callback, code, text);
  CMyLog::PrintLog(LOG_INFO, function, "Return connect message[%d:%s]!!!", code, text.c_str());
}

void KelQuoteClient::onMarketInfoChange(const int& kind, const std::string& market, char which) {
  const char* function = "tavr::KelQuoteClient::onMarketInfoChange";
  auto callback = state_->callback(state_->market_info_callback);
  if (callback == nullptr || !*callback) {
    CMyLog::PrintLog(LOG_INFO, function, "Market Information callback handler NOT INITIALIZED!!!");
    return;
  }
  const char* word = kind == 0 ? "Tradingday" : "Stocklist";
  auto notify = [&](const std::string& host) {
    host_call(*callback, kind, host);
    CMyLog::PrintLog(LOG_INFO, function, "Return notification for market(%s) [%s-%s] information changed !!!",
                     host.c_str(), market.c_str(), word);
  };
  if (which == 0 || which == 2) {
    std::string host = market_id_transfer_from_dravik(market, 2);
    if (!host.empty()) notify(host);
  }
  if (which == 0 || which == 1) notify(market_id_transfer_from_dravik(market, 1));
}

void KelQuoteClient::add_quote_info(short id, std::string code, std::string market, QuoteCallback callback) {
  state_->quotes.put(id, QuoteEntry{std::move(code), std::move(market), std::move(callback)});
}

bool KelQuoteClient::del_quote_info(short id, std::string& code, std::string& market) {
  auto entry = state_->quotes.remove(id);
  if (entry == nullptr) return false;
  code = entry->code;
  market = entry->market;
  return true;
}

void KelQuoteClient::add_mkt_push_info(short id, WholeQuoteCallback callback) {
  state_->pushes.put(id, std::move(callback));
}

bool KelQuoteClient::del_mkt_push_info(short id) { return state_->pushes.remove(id) != nullptr; }

void KelQuoteClient::add_history_info(short id, QuoteCallback callback) {
  std::lock_guard<std::recursive_mutex> lock(state_->history_mu);
  state_->history[id] = std::move(callback);
}

void KelQuoteClient::add_finance_info(short id, const FinanceDataParam& param, FinanceCallback callback) {
  std::lock_guard<std::recursive_mutex> lock(state_->finance_mu);
  state_->finance[id] = {param, std::move(callback)};
}

// The data manager's side of the binding: the process's client unless told otherwise.
KelQuoteClient* DvDataMgr::client() const {
  KelQuoteClient* bound = client_.load(std::memory_order_acquire);
  return bound != nullptr ? bound : &KelQuoteClient::get();
}

}  // namespace tavr
