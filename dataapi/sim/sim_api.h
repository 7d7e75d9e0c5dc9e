// The simulated quote service: a CDataApi that serves generated data from
// inside the process, so that the library runs end to end without the
// vendor's servers.
#ifndef KELQUOTE_DATAAPI_SIM_SIM_API_H_
#define KELQUOTE_DATAAPI_SIM_SIM_API_H_

#include <atomic>
#include <compare>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dataapi/DataApi.h"
#include "dataapi/sim/callback_thread.h"
#include "dataapi/sim/history.h"
#include "dataapi/sim/quotes.h"
#include "dataapi/sim/universe.h"

namespace sim {

class SimDataApi final : public CDataApi {
 public:
  SimDataApi() = default;

  // The process's simulator, as GetApiInstance hands it out.
  static SimDataApi& instance();

  void refuse_connect(bool refuse);
  // Delivers OnConnectStatus(server, status) on the callback thread; false
  // when no callback object is registered.
  bool report_connection(int server, int status);
  bool wait_idle(int timeout_ms) { return callbacks_.wait_idle(timeout_ms); }
  // The universe of seed from the next connect on.
  void set_seed(uint64_t seed);
  // The market moves to a new state and reports it with OnMarketStatus
  // (changed = 1); its next initialisation data are the new ones. False for
  // an unknown market or while not connected.
  bool change_market(int market_id);

  static constexpr int kDefaultStreamIntervalMs = 500;
  static constexpr int kDefaultPushIntervalMs = 1000;
  static constexpr int kMaxIntervalMs = 3600000;
  // Time between two sends of an instrument's stream, and between two
  // packages of a market; a stream's next send follows its last one by the
  // new interval. False outside 1 ms to an hour.
  bool set_stream_interval(int ms);
  bool set_push_interval(int ms);
  // The streams' clock reads date (today for 0) and hhmmss now and runs on
  // from there; a negative hhmmss returns it to the local clock. False for
  // an invalid date or time.
  bool set_clock(int date, int hhmmss);
  // How history answers go out from now on; delay_ms counts for kDelay only.
  // False for another fault or a delay outside 0 ms to an hour.
  bool set_history_fault(int fault, int delay_ms);

  // Requests answer on the callback thread and return 0, or return -1 and
  // answer nothing while not connected or for an unknown market or kind.

  const char* GetVersion() override;
  int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) override;
  int Connect(ConnectResult* result) override;
  int ReqMarketInit(int32_t market_id) override;
  int ReqMarketStatus(int32_t market_id) override;
  int ReqBaseData() override;
  // An instrument has one stream of each level, started by its first
  // subscribe and stopped by a cancel. A subscribe naming an unknown market
  // or code returns -1 and starts nothing; a cancel of a stream that is not
  // running does nothing and returns 0.
  int SubscribeL1(const ApiCodeItem* items, int32_t count) override;
  int UnsubscribeL1(const ApiCodeItem* items, int32_t count) override;
  int SubscribeL2(const ApiCodeItem* items, int32_t count) override;
  int UnsubscribeL2(const ApiCodeItem* items, int32_t count) override;
  int ReqMarketOtherBase(int32_t market_id) override;
  int ReqRefInfo(int32_t market_id) override;
  int ReqLatestShare(int32_t market_id) override;
  int ReqHoliday(int32_t kind) override;
  int ReqHKRate(const HKRateRequest* request) override;
  // History in blocks of at most kHistoryBlockElements elements, the last
  // one flagged; -1 for an unknown market, code or K-line type.
  int ReqHisData(const HisBarRequest* request) override;
  int ReqHisDataCount(const HisBarRequest*) override { return 0; }
  int ReqL1NewHisTick(const HisTickRequest* request) override;
  int ReqHisTickKcb(const HisTickRequest* request) override;
  int ReqPower(const ApiCodeItem*) override { return 0; }
  int ReqHotListDef() override { return 0; }
  int ReqHotListData(int32_t) override { return 0; }
  int ReqHotList(int32_t) override { return 0; }
  int ReqScanner(int32_t) override { return 0; }
  int ReqSharedFields() override;
  int ReqNewIssueList(int32_t market_id) override;
  int ReqShareData(const FinanceRequest* r) override { return finance(16, r); }
  int ReqIndustryData(const FinanceRequest*) override { return 0; }
  int ReqFinancialData(const FinanceRequest* r) override { return finance(8, r); }
  int ReqIncomeStatement(const FinanceRequest* r) override { return finance(2, r); }
  int ReqCashFlowStatement(const FinanceRequest* r) override { return finance(4, r); }
  int ReqBalanceSheet(const FinanceRequest* r) override { return finance(1, r); }
  int ReqSHNumber(const FinanceRequest* r) override { return finance(32, r); }
  int ReqMostShareHolder(const FinanceRequest* r) override { return finance(64, r); }
  int ReqNegotiableShareHolder(const FinanceRequest* r) override { return finance(128, r); }
  int Release() override;
  // Whole-market packages of the market named by the item's market field.
  int SubscribeMarketPush(const ApiMarketItem* item) override;
  int UnsubscribeMarketPush(const ApiMarketItem* item) override;

 private:
  using Clock = CallbackThread::Clock;
  using Handler = int (CDataApiCallBack::*)(const void*);
  using Reply = std::pair<Handler, std::vector<uint8_t>>;

  // A financial request of kind (its bit value), answered on the callback
  // thread as the finance modes say; -1 outside the stock markets.
  int finance(int kind, const FinanceRequest* request);
  // Runs fn with the registered callback object on the callback thread, at
  // when if given.
  void deliver(std::function<void(CDataApiCallBack*)> fn, std::optional<Clock::time_point> when = std::nullopt);
  // Lends each reply's bytes to its callback, in order, on the callback
  // thread; all of them together at when, if given.
  void deliver(std::vector<Reply> replies, std::optional<Clock::time_point> when = std::nullopt);
  // Callers hold mu_.
  bool serving() const { return connected_ && callback_ != nullptr; }
  Universe& universe();
  // The markets a request names: one, or every one for 0; empty when unknown.
  std::vector<const Market*> markets(int32_t market_id);
  Reply status_reply(const Market& market);
  // Answers a history request with its blocks, each lent to handler.
  int answer_history(HistoryKind kind, const void* request, Handler handler);

  // Streams: one scheduler task on the callback thread serves every stream
  // that is due and posts itself again for the next one due.
  enum class StreamKind : uint8_t { kLevel1, kLevel2, kMarket };
  struct StreamKey {
    StreamKind kind;
    int market;
    std::string code;  // empty for a market's packages
    auto operator<=>(const StreamKey&) const = default;
  };
  struct Stream {
    Clock::time_point due;
    Clock::time_point sent;  // the epoch until the first send
    // Cleared when the stream stops, so that sends already built are dropped.
    std::shared_ptr<std::atomic<bool>> live;
  };
  struct Send {
    Handler handler;
    std::vector<uint8_t> bytes;
    std::shared_ptr<std::atomic<bool>> live;
  };
  // Starts or stops one stream per item; one unknown name refuses them all.
  int change_streams(StreamKind kind, const ApiCodeItem* items, int32_t count, bool start);
  // Callers hold mu_.
  void start_stream(StreamKey key);
  void stop_stream(const StreamKey& key);
  void stop_streams();
  void schedule();
  int interval_ms(StreamKind kind) const;
  void retime(StreamKind kind);
  Stamp stamp();
  void build(const StreamKey& key, const Stamp& now, std::vector<Send>& sends);
  // The scheduler task; token tells the latest posted one from stale ones.
  void run_streams(uint64_t token);

  std::mutex mu_;
  ServerTable servers_;
  CDataApiCallBack* callback_ = nullptr;
  bool connected_ = false;
  bool refuse_connect_ = false;
  uint64_t seed_ = Universe::kDefaultSeed;
  std::unique_ptr<Universe> universe_;
  std::unique_ptr<QuoteBook> quotes_;  // the walks of universe_
  std::map<StreamKey, Stream> streams_;
  int stream_interval_ms_ = kDefaultStreamIntervalMs;
  int push_interval_ms_ = kDefaultPushIntervalMs;
  int64_t clock_offset_ms_ = 0;
  int64_t clock_steps_ = 0;  // steps of the walks' clock so far
  int64_t step_at_ms_ = 0;   // when the clock took its latest step, 0 before the first
  HistoryFault history_fault_ = HistoryFault::kNone;
  int history_delay_ms_ = 0;
  uint64_t tick_token_ = 0;
  Clock::time_point tick_at_ = Clock::time_point::max();  // of the pending scheduler task
  // Checksum of each market's last status sent: a status reports a change
  // when its checksum differs.
  std::map<int, uint32_t> reported_;
  CallbackThread callbacks_;  // last: it stops before the state it reads goes
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_SIM_API_H_
