// The gateway: holds the one connection to the quote service and shares it
// with the hosts on the bus. Every record the service sends is published in
// the capture file's format; the hosts' requests come over request/reply and
// go to the service, subscriptions counted across hosts and request ids
// mapped per host.
#ifndef KELQUOTE_BUS_GATEWAY_H_
#define KELQUOTE_BUS_GATEWAY_H_

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bus/wire.h"
#include "dataapi/DataApi.h"

namespace bus {

class Gateway final : public CDataApiCallBack {
 public:
  // api: the quote service, already registered with this object as its
  // callback and connected (or about to be) by the caller.
  Gateway(CDataApi* api, const Settings& settings);
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  // Connects to the servers, makes or updates the stream, starts serving.
  bool start(std::string* error);
  void stop();

  // The service connection as the hosts are told of it.
  void set_service_up(bool up) { service_up_.store(up); }
  void set_connect_result(const ConnectResult& r);
  // True once after the service gave up its connection (status 2).
  bool take_failure() { return failed_.exchange(false); }

  struct Stats {
    int64_t published, refused, hosts, service_subscriptions;
  };
  Stats stats();

#define KQ_SLOT(n, slot) \
  int n(const void* r) override { return on_record(slot, r); }
  KQ_SLOT(OnMarketInit, 0)
  KQ_SLOT(OnMarketOtherBase, 1)
  KQ_SLOT(OnRespRefInfo, 2)
  KQ_SLOT(OnTickL1, 3)
  KQ_SLOT(OnRespHisData, 4)
  KQ_SLOT(OnRespHolidayInfo, 5)
  KQ_SLOT(OnRespPower, 6)
  KQ_SLOT(OnRespHotListDef, 7)
  KQ_SLOT(OnRespHotListData, 8)
  KQ_SLOT(OnHotList, 9)
  KQ_SLOT(OnMarketStatus, 10)
  KQ_SLOT(OnRespHisDataCount, 11)
  KQ_SLOT(OnRespSCanner, 12)
  KQ_SLOT(OnRespSharedFields, 17)
  KQ_SLOT(OnRespNewIssueList, 18)
  KQ_SLOT(OnTickL2, 22)
  KQ_SLOT(OnIndexL2, 23)
  KQ_SLOT(OnTransL2, 24)
  KQ_SLOT(OnOrderL2, 25)
  KQ_SLOT(OnOrderQueueL2, 26)
  KQ_SLOT(OnRespShareData, 29)
  KQ_SLOT(OnRespHKRateData, 30)
  KQ_SLOT(OnRespIndustryData, 31)
  KQ_SLOT(OnRespLatestShareData, 32)
  KQ_SLOT(OnRespFinancialData, 33)
  KQ_SLOT(OnRespIncomeStatData, 34)
  KQ_SLOT(OnRespCashFlowData, 35)
  KQ_SLOT(OnRespBalanceSheetData, 36)
  KQ_SLOT(OnRespSHNumberData, 37)
  KQ_SLOT(OnRespMostShareHolderData, 38)
  KQ_SLOT(OnRespNegotiableShareHolderData, 39)
  KQ_SLOT(OnRespHisTickKcbData, 45)
  KQ_SLOT(OnRespL1HisTickData, 46)
  KQ_SLOT(OnRespMarketPushData, 47)
#undef KQ_SLOT
  int OnConnectStatus(int server, int status) override;

 private:
  // An instrument and level (1, 2; 3 for a whole market) the service serves.
  struct Key {
    int level;
    int market;
    std::string code;
    bool operator<(const Key& o) const {
      return level != o.level ? level < o.level : market != o.market ? market < o.market : code < o.code;
    }
  };
  // Replies without a request id go to the hosts that asked for their kind.
  struct Asked {
    uint8_t op;
    int32_t market;  // -1: the request names none
    std::vector<uint8_t> bytes;
    std::set<std::string> hosts;
    std::chrono::steady_clock::time_point at;
    int delivered = 0;
  };
  struct Mapped {
    std::string host;
    uint16_t id;
  };

  int on_record(int slot, const void* record);
  // Queues a message for the publisher thread: the service's thread never
  // waits for the network. Beyond kMaxQueued bytes a message is dropped and
  // counted (a line a second while drops last).
  void enqueue(const std::string& subject, const uint8_t* data, size_t size);
  void publish_loop();
  static constexpr size_t kMaxQueued = size_t{256} << 20;
  void route(int slot, const uint8_t* bytes, size_t size, const std::vector<uint8_t>& encoded);
  static void OnRequest(natsConnection*, natsSubscription*, natsMsg* msg, void* self);
  static void OnAlive(natsConnection*, natsSubscription*, natsMsg* msg, void* self);
  void handle_request(const std::string& host, natsMsg* msg);
  // A host the gateway does not know (taken as dead, or from before a
  // restart) hears so on its own subject, at most once a second.
  void tell_forgotten(const std::string& host);
  int subscription_request(const std::string& host, uint8_t op, const uint8_t* bytes, size_t size);
  int id_request(const std::string& host, uint8_t op, const uint8_t* bytes, size_t size);
  int plain_request(const std::string& host, uint8_t op, const uint8_t* bytes, size_t size);
  int call(uint8_t op, const uint8_t* bytes, size_t size);
  // Callers hold mu_.
  void drop_host(const std::string& host, const char* why);
  void beat_loop();

  CDataApi* api_;
  Settings settings_;
  natsConnection* nc_ = nullptr;
  std::vector<natsSubscription*> req_subs_;
  natsSubscription* alive_sub_ = nullptr;
  uint64_t instance_;
  std::atomic<bool> service_up_{false};
  std::atomic<bool> failed_{false};
  std::atomic<int64_t> published_{0}, refused_{0};

  std::mutex mu_;  // hosts, subscriptions, calls to the service from requests
  std::map<std::string, std::chrono::steady_clock::time_point> hosts_;
  std::map<Key, std::set<std::string>> subs_;
  ConnectResult connect_result_{0, 0, 0};
  std::map<std::string, std::chrono::steady_clock::time_point> told_;
  std::set<std::string> dead_;  // hosts taken as dead, told so if they still beat

  std::mutex route_mu_;  // what replies find; never held while calling the service
  std::vector<Asked> asked_;
  std::vector<Mapped> ids_ = std::vector<Mapped>(65536);
  uint16_t next_id_ = 0;

  std::mutex out_mu_;
  std::condition_variable out_cv_;
  std::vector<uint8_t> out_;  // u16 subject length, subject, u32 length, message; repeated
  bool out_waiting_ = false, out_stop_ = false;
  int64_t dropped_ = 0, dropped_told_ = 0;
  std::chrono::steady_clock::time_point drop_told_at_{};
  std::thread publisher_;
  std::unordered_map<std::string, uint16_t> seq_;  // the publisher's: last number per subject

  // Kept records go to JetStream acknowledged, each message with an id the
  // stream deduplicates by. What a dead server may have lost (unacknowledged
  // at a reconnect, or refused) is sent again, in order, before anything
  // newer: a host then misses nothing and drops what it already had.
  // The publisher thread's, but for unacked_ (the library's ack thread).
  void send_kept(const std::string& subject, const uint8_t* data, size_t size);
  bool must_resend();
  bool connection_changed();
  natsStatus publish_js(natsMsg** msg);
  uint64_t reconnects();
  bool wait_connected();  // false once stopping or closed
  // Waits for the connection, then sends again what is unacknowledged or
  // held, oldest first. False while something could not yet go.
  bool resend();
  static void OnAckError(jsCtx*, jsPubAckErr* pae, void* self);
  static uint64_t MsgNumber(natsMsg* msg);
  jsCtx* js_ = nullptr;
  natsStatistics* nc_stats_ = nullptr;
  uint64_t reconnects_ = 0;
  uint64_t msg_number_ = 0;
  std::deque<natsMsg*> held_;  // not handed to the library, in order
  std::mutex failed_mu_;
  std::vector<natsMsg*> unacked_;  // copies of what the stream refused or never acknowledged
  std::atomic<bool> ack_failed_{false};

  std::mutex beat_mu_;
  std::condition_variable beat_cv_;
  bool stopping_ = false;
  std::thread beat_;
};

}  // namespace bus

#endif  // KELQUOTE_BUS_GATEWAY_H_
