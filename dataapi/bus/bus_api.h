// The bus quote service: a CDataApi that a host loads in place of the
// vendor's library (bin/bus/), serving the host from a gateway over NATS.
// Requests go to the gateway by request/reply; the records the host
// subscribed come from their subjects, and what the host missed (since a
// configured time, while its server changed, or while it was too slow) it
// fetches from the gateway's JetStream stream, before the live records and
// in order. The gateways' heartbeats stand for the service's connection:
// when one stops the host hears the connection lost, and when it comes back
// its subscriptions are made again and it hears the connection restored.
// Requests go by market to the gateway serving it (several may split them).
#ifndef KELQUOTE_DATAAPI_BUS_BUS_API_H_
#define KELQUOTE_DATAAPI_BUS_BUS_API_H_

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bus/wire.h"
#include "dataapi/numbered_api.h"

namespace busapi {

struct BusStats {
  int64_t delivered;   // records handed to the library
  int64_t caught_up;   // of them, fetched from the stream
  int64_t duplicates;  // records seen twice (live and stored), handed on once
  int64_t refused;     // malformed messages
  int64_t restores;    // gateway lost and restored
  int64_t gaps;        // records found missing from a subject's numbers
  int64_t lost;        // of them, not found in the stream either
};

class BusApi final : public NumberedApi {
 public:
  BusApi() = default;
  ~BusApi();
  BusApi(const BusApi&) = delete;
  BusApi& operator=(const BusApi&) = delete;

  // Settings other than the environment's (tests); used by the next Connect.
  void use_settings(const bus::Settings& settings);
  BusStats stats() const;
  // Compares what each subscribed subject handed on with what the stream
  // holds over the same span: the records the host missed (a check for
  // tests; it reads the stream again), or -1 when a stream cannot be read.
  int64_t verify();

  const char* GetVersion() override { return "kelquote bus service 1.0"; }
  int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) override;
  int Connect(ConnectResult* result) override;
  int Release() override;

 private:
  // One subscribed subject (or level-2 pattern) and what came on it.
  struct Stream {
    BusApi* api;
    std::string subject;
    natsSubscription* sub = nullptr;
    std::mutex mu;
    uint64_t last_ns = 0;
    uint64_t first_ns = 0;  // of the first record handed on
    int64_t count = 0;      // records handed on
    uint16_t next_seq = 0;  // the number the next record should carry; 0 not known
    bool catching = false;
    std::vector<std::vector<uint8_t>> pending;  // live records held while catching up
    bus::Assembly assembly;
  };
  struct Fixed {
    BusApi* api;
    bool own = false;  // the host's own subject
    natsSubscription* sub = nullptr;
    std::map<std::string, bus::Assembly> assemblies;  // by subject
  };

  int Request(uint8_t op, const void* bytes, size_t size) override { return request(op, bytes, size); }
  int Items(uint8_t op, const ApiCodeItem* items, int32_t count) override { return subscribe(op, items, count); }
  int MarketPush(uint8_t op, const ApiMarketItem* item) override { return subscribe_market(op, item); }
  int request(uint8_t op, const void* bytes, size_t size, std::vector<uint8_t>* filled = nullptr);
  // Says hello to the gateway of requests tied to no market (greet: of a
  // route, a market or kCommonRoute): its result; remembers when it answered.
  int hello(std::vector<uint8_t>* filled);
  int greet(const std::string& route, std::vector<uint8_t>* filled);
  // One request to the gateway of route.
  int send(uint8_t op, const std::string& route, const void* bytes, size_t size, std::vector<uint8_t>* filled);
  int subscribe(uint8_t op, const ApiCodeItem* items, int32_t count);
  int subscribe_market(uint8_t op, const ApiMarketItem* item);
  // Callers hold mu_. The stream of subject, made and subscribed when new.
  Stream* open_stream(const std::string& subject, bool* fresh);
  void close_stream(const std::string& subject);
  void catch_up(std::vector<Stream*> streams);
  // True when the records (time order) and what each stream holds back
  // follow on from what it delivered without a hole in the numbering.
  bool whole(const std::vector<Stream*>& streams,
             const std::vector<std::pair<uint64_t, std::pair<Stream*, std::vector<uint8_t>*>>>& order);
  bool fetch(const std::string& subject, uint64_t since, std::vector<std::pair<uint64_t, std::vector<uint8_t>>>* out);
  void deliver(const bus::View& v);
  // Callers hold s->mu: hands a stream's record on and counts it; a record
  // whose number skips some counts them as lost.
  void deliver_stream(Stream* s, const bus::View& v);
  void monitor();
  void beat_loop();
  bool restore();
  void teardown();

  static void OnStream(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
  static void OnFixed(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
  static void OnBeat(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
  static void OnReconnected(natsConnection*, void* closure);
  static void OnError(natsConnection*, natsSubscription* sub, natsStatus err, void* closure);

  bus::Settings settings_;
  bool have_settings_ = false;
  std::atomic<CDataApiCallBack*> callback_{nullptr};
  natsConnection* nc_ = nullptr;
  std::string host_;
  std::atomic<uint32_t> number_{1};

  std::mutex mu_;  // streams, what to restore
  std::map<std::string, std::unique_ptr<Stream>> streams_;
  std::vector<std::unique_ptr<Stream>> retired_;  // unsubscribed, kept while a delivery may still use them
  std::map<std::string, ApiCodeItem> l1_, l2_;
  std::map<int32_t, ApiMarketItem> markets_;
  std::vector<std::unique_ptr<Fixed>> fixed_;

  std::atomic<int64_t> beat_at_ms_{0};  // the connect's time, before any gateway beats
  std::mutex routes_mu_;
  std::map<std::string, std::pair<uint64_t, int64_t>> gateways_;  // by name: instance, last beat (ms)
  std::set<std::string> greeted_;  // routes whose gateway this host said hello to
  std::atomic<bool> gateway_restarted_{false};
  std::atomic<bool> catch_up_all_{false};
  std::atomic<bool> forgotten_{false};
  std::atomic<uint64_t> hello_ns_{0};  // the gateway's time of its last hello answer  // the gateway said it does not know this host
  std::atomic<int64_t> delivered_{0}, caught_up_{0}, duplicates_{0}, refused_{0}, restores_{0}, gaps_{0}, lost_{0};

  std::mutex monitor_mu_;
  std::condition_variable monitor_cv_;
  bool stopping_ = false;
  std::thread monitor_;
  std::thread beater_;
};

}  // namespace busapi

#endif  // KELQUOTE_DATAAPI_BUS_BUS_API_H_
