// The data manager: owns the vendor quote API object, the callback sink, the
// message queue that carries every vendor callback to the service threads,
// the service threads themselves and the daily timer thread.
#ifndef KELQUOTE_DATAMGR_DVDATAMGR_H_
#define KELQUOTE_DATAMGR_DVDATAMGR_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dataapi/DataApi.h"
#include "datamgr/callback_pro.h"
#include "datamgr/msg_queue.h"
#include "datamgr/prelude.h"
#include "kelquote/BaseQuoteClient.h"
#include "market/base_code_info.h"
#include "market/calendar.h"
#include "market/market_info.h"
#include "realtime/l1_convert.h"
#include "realtime/subscription_table.h"
#include "quoter/quoter.h"

namespace tavr {

class KelQuoteClient;
class CaptureRecorder;
class CaptureApi;
struct TickRoute;

// One queued vendor callback: a copy of the record whose layout msg_type
// names; size bounds what a handler may read.
struct DataMsg {
  uint32_t msg_type = 0;
  void* data = nullptr;
  size_t size = 0;
  uint32_t key = 0;     // stream key; 0 for replies, which any service thread takes
  uint32_t strand = 0;  // a reply's request: its blocks are handled in order, one at a time
  uint64_t seq = 0;     // arrival number, set by the queue
  uint32_t room = 0;    // payload room of a recycled block; 0 when malloc'd apart
};

// The failure value of 16-bit request ids (read as -1 by the client).
constexpr uint16_t kRequestFailed = 0xFFFF;

void free_msg(DataMsg* msg);

// Service threads for a machine with the given processor count: 2 to 20.
int service_thread_count(int processors);

// Whether the daily job runs at now (yyyymmddHHMMSS) when it last ran on
// last_date (-1: never): weekdays from 08:30:00 to 08:30:09, once a date.
bool daily_job_due(int64_t now, int last_date);

class DvDataMgr {
 public:
  static constexpr const char* kVersion = "V2.1(20201026)";

  DvDataMgr();
  ~DvDataMgr();
  DvDataMgr(const DvDataMgr&) = delete;
  DvDataMgr& operator=(const DvDataMgr&) = delete;

  // Starts logging, obtains the quote API, reads "./dravikcfg.dat" and
  // registers the servers and the callback object. A no-op once it succeeded.
  bool init(bool isReal);
  // Starts the service threads and connects; true when connected. Once
  // started, connects again with the threads that run; a failed connect ends
  // them. From a service thread or a host callback it fails rather than wait
  // for another start's Connect.
  bool start();
  // Disconnects and ends every thread; true. A no-op when not started. From
  // a host thread outside every callback it returns once they have ended.
  bool stop();

  // The queue, from any thread (see MsgQueue).
  void push_msg(DataMsg* msg) {
    if (msg != nullptr) queue_.push(msg);
  }
  DataMsg* alloc_msg(size_t size) { return queue_.alloc(size); }
  bool queue_admits(size_t size) const { return queue_.admit(size); }
  size_t queue_held_bytes() const { return queue_.held_bytes(); }
  void set_queue_limit(size_t bytes) { queue_.set_limit(bytes); }

  // Thread bodies; the argument names the data manager, the run and the shard.
  static unsigned DataServiceThread(void* args);
  static unsigned TimerTaskThread(void* args);

  // One back-off step while a market initialises: logs, then sleeps 400 ms
  // for attempts up to 5 and 1000 ms after.
  void waitDynamicTime(int attempt, const char* function, const std::string& market, char kind);
  // The step's line alone; returns the milliseconds the step lasts.
  static int log_wait_step(int attempt, const char* function, const std::string& market, char kind);

  // Routes one message to its handler. Service threads only.
  void on_reply_data(int msg_type, void* data, size_t size);

  // The stream key of the message the calling thread is handling; 0 outside
  // one (a handler called directly then serves every instrument).
  static uint32_t message_key();

  // Reply handlers, one per message type; size bounds what each reads.
  void on_reply_power(const void* data, size_t size);
  void on_reply_data(const ApiMarketInitHead* data, size_t size);
  void on_reply_data(const ApiMarketStatus* data, size_t size);
  void on_reply_data(const ApiMarketOtherBaseHead* data, size_t size);
  void on_reply_data(const ApiRefInfoHead* data, size_t size);
  void on_reply_data(const ApiLatestShareHead* data, size_t size);
  void on_reply_data(const ApiNewIssueHead* data, size_t size);
  void on_reply_data(const ApiSharedFields* data, size_t size);
  void on_reply_data(const ApiHolidayHead* data, size_t size);
  void on_reply_data(const ApiHKRateHead* data, size_t size);
  void on_reply_data(const ApiL1Tick* data, size_t size);
  void on_reply_data(const ApiMarketPushHead* data, size_t size);
  void on_reply_data_l2_tick(const void* data, size_t size);
  void on_reply_data_l2_tick_index(const void* data, size_t size);
  void on_reply_data_l2_transaction(const void* data, size_t size);
  void on_reply_data_l2_order(const void* data, size_t size);
  void on_reply_data_l2_order_queue(const void* data, size_t size);
  // The eight financial replies, Kind their kind's bit value.
  template <int Kind>
  void on_reply_data(const ApiFinanceRsp<Kind>* data, size_t size);
  // History blocks: bars, after-hours ticks and level-1 ticks.
  void on_reply_data(const ApiHisDataRsp* data, size_t size);
  void on_reply_data(const ApiHisTickKcbResp* data, size_t size);
  void on_reply_data(const ApiL1NewHisTickResp* data, size_t size);

  // Reads what a conversion needs of an instrument under the instrument
  // lock: 0 when the code is unknown, else find_code's table number.
  int instrument_view(const MarketInfo& market, const std::string& code, InstrumentView& view,
                      std::shared_ptr<BaseCodeInfo>* record = nullptr);
  // As instrument_view, for a caller that holds markets().codes_mu.
  static int instrument_view_locked(const MarketInfo& market, const std::string& code, InstrumentView& view,
                                    std::shared_ptr<BaseCodeInfo>* record = nullptr);

  // Instrument lookup: 1 when code is in the market's base_codes, 2 in its
  // other_codes, 0 in neither. The caller holds markets().codes_mu.
  static int find_code(const MarketInfo& market, const std::string& code, std::shared_ptr<BaseCodeInfo>& out);
  // The contract a continuous futures code stands for: kind 1 "Main", 2 "Recent".
  std::string continuous_contract(int kind, const std::string& code) const;
  std::vector<IPOCodeInfo> new_issues() const;

  // Builds the server table from "./dravikcfg.dat".
  bool init_cfg(bool isReal);
  const ServerTable& server_table() const { return servers_; }

  void set_connected(bool connected) { connected_.store(connected, std::memory_order_release); }
  // The reaction to the vendor's connection report, on the vendor's thread.
  void on_connect_status(int server, int status);
  // The vendor gave up: stops without waiting for any thread.
  void stop_from_vendor();
  // The gate at the head of a request: false, with its ERROR line under
  // function, when the service is stopped or stays disconnected for 5 x 400 ms.
  bool pass_request_gate(const char* function);
  bool is_connected() const { return connected_.load(std::memory_order_acquire); }
  bool is_started() const { return current_run_.load(std::memory_order_acquire) != 0; }

  // Start-up and daily requests.
  void request_base_data();
  void prepare_markets();
  void request_market_data(int32_t market_id);
  // The requests that complete a market's initialisation, by its kind.
  void request_follow_ups(MarketInfo& market);
  void request_holidays();
  void request_hkc_rate(int32_t begin, int32_t end);

  // Requests made for the client. Each returns its request id, or
  // kRequestFailed (-1 for whole markets) when the request was refused.
  uint16_t request_tick_push(const quoter::TSMetaInfo& request, const std::string& market);
  void release_tick_push(const std::string& code, const std::string& market, uint16_t serial);
  int32_t request_mkt_tick_push(const std::string& market, int8_t mode);
  void release_mkt_tick_push(int16_t serial);
  uint16_t request_his_kline(const quoter::TSMetaInfo& meta, const quoter::TRegionInfo& region,
                             const std::string& market, char kind);
  uint16_t request_finance_data(const std::string& market, const std::string& code,
                                const std::vector<int32_t>& types, int32_t begin, int32_t end);
  void get_market_code_list(const std::string& host_market, const std::string& market, char variant,
                            std::vector<std::shared_ptr<ttservice::CInstrumentDetail>>& list);
  void get_market_trade_day_list(const std::string& market, char variant, std::vector<int64_t>& days);
  void get_HKC_trade_day_list(char variant, std::vector<int64_t>& days);

  // The next request id: 21, 22, ... 30000, then 20 again, skipping the ids
  // of subscriptions and of history and financial requests still pending.
  uint16_t next_serial();
  bool serial_in_use(uint16_t serial) const;
  SubscriptionTable& subscriptions() { return subscriptions_; }

  // Market names and the service's numeric ids: -1 / empty when unknown.
  static int32_t get_market_id_by_name(const std::string& name);
  static std::string get_market_name_by_id(int32_t id);

  // The client whose completion operations receive the data; the process's
  // client unless set.
  KelQuoteClient* client() const;
  void set_client(KelQuoteClient* client) { client_.store(client, std::memory_order_release); }

  CDataApi* api() const { return api_; }
  // The recorder when the deployment's setting turned capture on at init;
  // null otherwise. Any thread.
  CaptureRecorder* capture() const { return capture_.load(std::memory_order_acquire); }
  CMyCallBackPro* callback() { return &callback_; }
  MarketTable& markets() { return markets_; }
  Calendar& calendar() { return calendar_; }
  int thread_count() const { return thread_count_.load(); }

  // --- Seams for embedding and tests. ---
  // Instead of GetApiInstance(); call before init.
  void set_api(CDataApi* api) { api_ = api; }
  // The clock (seconds since the epoch) of the daily job and of history requests.
  void set_clock(std::function<double()> clock) { clock_ = std::move(clock); }
  void set_timer_period_ms(int ms) { timer_period_ms_ = ms; }
  // Instead of waitDynamicTime's sleep (milliseconds).
  void set_sleeper(std::function<void(int)> sleeper) { sleeper_ = std::move(sleeper); }
  void set_processor_count(int n) { processors_ = n; }
  // Called on the service thread with every message just before dispatch.
  void set_message_hook(std::function<void(uint32_t, void*, size_t)> hook) { message_hook_ = std::move(hook); }
  // Waits until every queued message has been handled; false on time-out.
  bool wait_idle(int timeout_ms);
  size_t queue_size() const { return queue_.size(); }
  // Logs the wait steps of parked history blocks that came due by now and
  // drops the blocks whose waits ran out; the time of the next step due, or
  // max() when none is. The timer thread calls it as steps come due.
  std::chrono::steady_clock::time_point age_parked(std::chrono::steady_clock::time_point now);

 private:
  void service_loop(uint64_t run, int server);
  // The level-1 route of code in market id, kept by the service thread or
  // looked up into scratch; null after its line when the market or the
  // instrument is missing or the market initialising.
  const TickRoute* l1_route(uint8_t market_id, const std::string& code, TickRoute& scratch);
  // Handles msg and then its strand's messages that queued up meanwhile.
  void handle_chain(int server, DataMsg* msg);
  void timer_loop(uint64_t run);
  void handle_msg(int server, DataMsg* msg);
  void start_timer_thread();
  void seed_markets();
  // Reads the capture setting; when it is on, requests go through a recorder.
  void init_capture();

  struct Level2Stream {
    const char* function;
    uint16_t data_type;
    bool tick;        // a missing market is logged with the tick's text
    bool one_vector;  // the records of one message go out together
  };
  // Walks the records of a level-2 message; make converts one record.
  template <typename Record, typename Make>
  void level2_stream(const void* data, size_t size, const Level2Stream& stream, Make make);

  // The skeleton of the three history reply handlers; Block tells them apart.
  // parked: the block waited for its market and was logged on arrival.
  template <typename Block>
  void history_reply(const void* data, size_t size, bool parked = false);
  // Parks the block when its market is not ready or has blocks parked: true
  // when parked (data copied), false when it is to be handled now.
  struct ParkedBlock;
  bool park(const MarketInfo& market, ParkedBlock block, const void* data, size_t size);
  // Handles the blocks parked on market once it is ready, in arrival order.
  void release_parked(const MarketInfo& market);
  // Milliseconds since the request id was sent, 0 when unknown.
  double since_sent(uint16_t id);

  // Lifecycle. A run is one start's service and timer threads; they serve
  // while their run is current_run_. lifecycle_mu_ is never held across a
  // vendor call or a wait for threads, so that start and stop are safe from
  // any thread. An ended run's threads are detached and leave on their own;
  // only a host thread outside every callback waits for them (they may be
  // waiting for it).
  // Ends the current run: true when this call ended it.
  bool end_run();
  // The last step of a stop whose end_run returned true.
  void stopped();
  // Waits until every thread of an ended run has left its loop and every stop
  // has released the vendor's API.
  void wait_ended_runs();
  // A service thread's entry into its run: false when the run ended before it
  // could serve. Waits until no thread of an earlier run is left (one key, one
  // writer); the first thread through deals the queue out for the run.
  bool enter_run(uint64_t run);
  // The last thing a thread of run does with the data manager.
  void leave_run(uint64_t run);
  bool run_current(uint64_t run) const { return current_run_.load(std::memory_order_acquire) == run; }
  // Whether the calling thread may wait for service threads: it is neither
  // one of them nor inside a host callback (whose thread they may wait for).
  bool may_join() const;
  std::mutex init_mu_;
  std::mutex start_mu_;  // one start at a time (held across Connect)
  std::mutex lifecycle_mu_;
  uint64_t runs_ = 0;
  std::atomic<uint64_t> current_run_{0};
  // Threads of each run still in their loops (the timer among them); the
  // run the queue was last dealt out for.
  std::mutex serve_mu_;
  std::condition_variable serve_cv_;
  std::map<uint64_t, int> in_loop_;
  // Stops between ending their run and releasing the vendor's API: the host
  // hears of a status 2 first, and may start again or unload meanwhile.
  int stopping_ = 0;
  uint64_t activated_run_ = 0;
  uint64_t stale_before_ = 0;  // messages pushed before the run's start are stale
  bool inited_ = false;
  CDataApi* api_ = nullptr;
  // While capturing, api_ is capture_api_, which passes every request on to
  // the vendor's object.
  std::unique_ptr<CaptureRecorder> capture_owned_;
  std::unique_ptr<CaptureApi> capture_api_;
  std::atomic<CaptureRecorder*> capture_{nullptr};
  std::atomic<KelQuoteClient*> client_{nullptr};
  CMyCallBackPro callback_;
  ServerTable servers_;

  std::atomic<int> thread_count_{0};
  ThreadHandle* threads_ = nullptr;  // the current run's; under lifecycle_mu_
  // The timer thread ends once its run is no longer current: a state, not a
  // counted signal, so nothing of one run's stop is left for the next run.
  std::mutex timer_mu_;
  std::condition_variable timer_cv_;
  ThreadHandle timer_thread_ = nullptr;
  std::atomic<bool> connected_{false};

  MsgQueue queue_;

  // Messages handled per server, each on a line of its own (the last slot
  // counts those dropped unhandled), against those pushed, for wait_idle.
  struct alignas(64) Count {
    std::atomic<int64_t> value{0};
  };
  Count handled_[MsgQueue::kMaxServers + 1];
  int64_t pending() const;
  std::mutex idle_mu_;
  std::condition_variable idle_cv_;
  std::atomic<int> idle_waiters_{0};

  MarketTable markets_;
  Calendar calendar_;

  SubscriptionTable subscriptions_;
  std::mutex serial_mu_;
  uint16_t serial_counter_ = 20;

  // Requests awaiting replies, by id. History: start date as first computed,
  // start time, end date, end time, and the number of the id's non-last
  // blocks being delivered at the moment. Financial: begin, end, kinds
  // outstanding. Each side takes an entry of the other's length for none.
  mutable std::mutex his_request_mu_;
  std::map<uint16_t, std::vector<int32_t>> his_request_infos;
  // History blocks that came before their market was ready, in arrival
  // order. Invariant: a block is parked only while its market is not ready
  // or its market is draining, both checked under parked_mu_; whoever makes
  // a market ready takes parked_mu_ afterwards (release_parked), so no block
  // is left parked on a ready market. A draining market's thread handles its
  // blocks one by one and new ones queue behind them, which keeps each
  // request's block order.
  struct ParkedBlock {
    void (DvDataMgr::*handle)(const void*, size_t, bool);
    const char* tag;
    const char* give_up;  // format of the line that drops the block
    std::string market;
    std::vector<uint8_t> bytes;
    int waits;
    std::chrono::steady_clock::time_point due;  // of the next wait step
  };
  std::mutex parked_mu_;
  std::deque<ParkedBlock> parked_;
  std::set<std::string> draining_;
  bool timer_poke_ = false;  // under timer_mu_: a block was parked
  std::mutex send_times_mu_;
  std::map<uint16_t, double> request_send_times;  // ms, when each id was last sent

  mutable std::mutex contracts_mu_;
  std::map<std::pair<int, std::string>, std::string> contracts_;  // (kind, code) -> contract
  mutable std::mutex issues_mu_;
  std::vector<IPOCodeInfo> new_issues_;

  // What the replies of each financial request brought so far, by its id;
  // guarded by his_request_mu_ with the outstanding kinds, so that the reply
  // that completes a request finds every other reply's records in place.
  struct FinanceCollect {
    FinanceResult data;
    bool ok = true;  // false once a reply had a negative count
  };
  std::map<uint16_t, FinanceCollect> finance_results_;

  std::function<double()> clock_;
  int timer_period_ms_ = 10000;
  int processors_ = 0;
  std::function<void(int)> sleeper_;
  std::function<void(uint32_t, void*, size_t)> message_hook_;
};

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_DVDATAMGR_H_
