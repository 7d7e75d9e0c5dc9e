#include "bus/gateway.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <unordered_map>

#include "capture/catalog.h"
#include "dataapi/record_size.h"
#include "port/port.h"

namespace bus {

namespace {

using Clock = std::chrono::steady_clock;

// Replies that name no request, by the operations that ask for them.
bool Produces(uint8_t op, int slot) {
  switch (slot) {
    case 0: return op == 4;
    case 1: return op == 11;
    case 2: return op == 12;
    case 5: return op == 14;
    case 6: return op == 20;
    case 7: return op == 21;
    case 8: return op == 22;
    case 9: return op == 23;
    case 10: return op == 5;
    case 11: return op == 17;
    case 12: return op == 24;
    case 17: return op == 6 || op == 25;
    case 18: return op == 6 || op == 26;
    case 30: return op == 15;
    case 31: return op == 28;
    case 32: return op == 13;
    default: return false;
  }
}

// The market a reply is about, -1 when it names none the request did.
int32_t ReplyMarket(int slot, const uint8_t* bytes, size_t size) {
  if ((slot == 0 || slot == 1 || slot == 10 || slot == 32) && size >= 1) return bytes[0];
  if (slot == 2 && size >= 4) {
    int32_t m;
    std::memcpy(&m, bytes, 4);
    return m;
  }
  return -1;
}

// Operations whose request id the gateway maps: their replies carry it.
bool MapsId(uint8_t op) { return op == 16 || op == 18 || op == 19 || op == 27 || (op >= 29 && op <= 35); }

// Requests for one market's data answered once per market: done at its reply.
bool OneReply(uint8_t op) { return op == 4 || op == 5 || op == 11 || op == 12 || op == 13; }

constexpr auto kAskedFor = std::chrono::seconds(10);

std::string HostOf(const char* subject) {
  const char* dot = std::strrchr(subject, '.');
  return dot != nullptr ? std::string(dot + 1) : std::string();
}

std::string CodeText(const char* code, size_t max) {
  size_t n = 0;
  while (n < max && code[n] != '\0') ++n;
  return std::string(code, n);
}

// "SubscribeL1 600000.SH 000001.SZ -> 0", the first few instruments.
std::string Describe(uint8_t op, const std::vector<ApiCodeItem>& items, int rc) {
  std::string text = capture::op_name(op);
  for (size_t i = 0; i < items.size() && i < 5; ++i) {
    text += " " + CodeText(items[i].code, sizeof(items[i].code)) + "." + capture::market_name(items[i].market);
  }
  if (items.size() > 5) text += " and " + std::to_string(items.size() - 5) + " more";
  return text + " -> " + std::to_string(rc);
}

}  // namespace

Gateway::Gateway(CDataApi* api, const Settings& settings) : api_(api), settings_(settings) {
  std::random_device rd;
  instance_ = (static_cast<uint64_t>(rd()) << 32) ^ rd() ^ next_ns();
}

Gateway::~Gateway() { stop(); }

void Gateway::set_connect_result(const ConnectResult& r) {
  std::lock_guard<std::mutex> lock(mu_);
  connect_result_ = r;
}

bool Gateway::start(std::string* error) {
  Handlers handlers;
  // The publisher thread packs what is queued per subject: a message goes
  // out as soon as it is made.
  handlers.send_asap = true;
  handlers.no_reconnect_buffer = true;
  nc_ = connect(settings_, "kelquote_gateway", handlers, error);
  if (nc_ == nullptr) return false;
  const std::string& n = settings_.name;
  // The stream keeps what hosts may ask for again. Publishes to it are
  // acknowledged asynchronously, up to a window in flight: only the
  // publisher thread ever waits for the stream.
  jsOptions jo;
  jsOptions_Init(&jo);
  jo.PublishAsync.MaxPending = 1024;
  jo.PublishAsync.StallWait = 1000;
  jo.PublishAsync.ErrHandler = &Gateway::OnAckError;
  jo.PublishAsync.ErrHandlerClosure = this;
  natsStatus st = natsConnection_JetStream(&js_, nc_, &jo);
  if (st == NATS_OK) st = natsStatistics_Create(&nc_stats_);
  jsCtx* js = js_;
  if (st == NATS_OK) {
    // Each gateway its own stream: its markets' subjects, its reports.
    const std::string& g = settings_.gateway;
    std::string stream = "KQ_" + n + "_" + g;
    std::vector<std::string> kept;
    if (settings_.markets.empty()) {
      kept = {n + ".l1.>", n + ".l2.>", n + ".mkt.>"};
    } else {
      for (const std::string& m : settings_.markets) {
        kept.insert(kept.end(), {n + ".l1." + m + ".*", n + ".l2.*." + m + ".*", n + ".mkt." + m});
      }
    }
    kept.push_back(n + ".push." + g + ".>");
    kept.push_back(n + ".status." + g);
    std::vector<const char*> subjects;
    for (const std::string& k : kept) subjects.push_back(k.c_str());
    jsStreamConfig cfg;
    jsStreamConfig_Init(&cfg);
    cfg.Name = stream.c_str();
    cfg.Subjects = subjects.data();
    cfg.SubjectsLen = static_cast<int>(subjects.size());
    cfg.Storage = js_FileStorage;
    cfg.MaxAge = int64_t{settings_.retention_hours} * 3600 * 1000000000LL;
    cfg.MaxBytes = settings_.max_bytes;
    cfg.Replicas = settings_.replicas;
    cfg.Discard = js_DiscardOld;
    // Long enough for a message sent again after a failover to be known.
    cfg.Duplicates = int64_t{120} * 1000000000LL;
    jsErrCode code = static_cast<jsErrCode>(0);
    // A cluster that has just started may not yet place a stream on its
    // replicas: asked again for up to 10 s.
    for (int attempt = 0; attempt < 50; ++attempt) {
      if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(200));
      st = js_AddStream(nullptr, js, &cfg, nullptr, &code);
      if (st != NATS_OK) st = js_UpdateStream(nullptr, js, &cfg, nullptr, &code);
      if (st == NATS_OK || std::strstr(nats_GetLastError(nullptr), "no suitable peers") == nullptr) break;
    }
    if (st != NATS_OK) {
      *error = "stream " + stream + ": " + natsStatus_GetText(st) + " (" + nats_GetLastError(nullptr) + ")";
    }
  } else {
    *error = std::string("JetStream: ") + natsStatus_GetText(st);
  }
  // The requests of its markets, and those tied to none when it is the one for them.
  std::vector<std::string> routes;
  if (settings_.markets.empty()) {
    routes.push_back(n + ".req.*.*");
  } else {
    for (const std::string& m : settings_.markets) routes.push_back(n + ".req." + m + ".*");
    if (settings_.serves_common()) routes.push_back(n + ".req." + kCommonRoute + ".*");
  }
  for (const std::string& r : routes) {
    natsSubscription* sub = nullptr;
    if (st == NATS_OK) st = natsConnection_Subscribe(&sub, nc_, r.c_str(), &Gateway::OnRequest, this);
    if (sub != nullptr) req_subs_.push_back(sub);
  }
  if (st == NATS_OK) st = natsConnection_Subscribe(&alive_sub_, nc_, (n + ".alive.*").c_str(), &Gateway::OnAlive, this);
  if (st == NATS_OK) st = natsConnection_Flush(nc_);
  if (st != NATS_OK) {
    if (error->empty()) *error = std::string("subscribe: ") + natsStatus_GetText(st);
    stop();
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(out_mu_);
    out_stop_ = false;
  }
  publisher_ = std::thread([this] { publish_loop(); });
  beat_ = std::thread([this] { beat_loop(); });
  std::string markets;
  for (const std::string& m : settings_.markets) markets += (markets.empty() ? "" : ",") + m;
  log_line("gateway", "gateway \"" + settings_.gateway + "\" serving bus \"" + n + "\" on " + settings_.urls +
                          ", markets " + (markets.empty() ? "all" : markets) +
                          (settings_.serves_common() ? ", requests of no market" : ""));
  return true;
}

void Gateway::stop() {
  {
    std::lock_guard<std::mutex> lock(beat_mu_);
    stopping_ = true;
  }
  beat_cv_.notify_all();
  if (beat_.joinable()) beat_.join();
  {
    std::lock_guard<std::mutex> lock(out_mu_);
    out_stop_ = true;
  }
  out_cv_.notify_all();
  if (publisher_.joinable()) publisher_.join();
  for (natsSubscription* sub : req_subs_) {
    natsSubscription_Unsubscribe(sub);
    natsSubscription_Destroy(sub);
  }
  req_subs_.clear();
  if (alive_sub_ != nullptr) natsSubscription_Unsubscribe(alive_sub_);
  natsSubscription_Destroy(alive_sub_);
  alive_sub_ = nullptr;
  if (js_ != nullptr && held_.empty()) {
    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MaxWait = 2000;
    js_PublishAsyncComplete(js_, &po);
  }
  if (nc_ != nullptr) {
    natsConnection_FlushTimeout(nc_, 1000);
    natsConnection_Close(nc_);
  }
  if (js_ != nullptr) jsCtx_Destroy(js_);
  js_ = nullptr;
  if (nc_ != nullptr) natsConnection_Destroy(nc_);
  nc_ = nullptr;
  for (natsMsg* m : held_) natsMsg_Destroy(m);
  held_.clear();
  {
    std::lock_guard<std::mutex> lock(failed_mu_);
    for (natsMsg* m : unacked_) natsMsg_Destroy(m);
    unacked_.clear();
  }
  natsStatistics_Destroy(nc_stats_);
  nc_stats_ = nullptr;
}

Gateway::Stats Gateway::stats() {
  std::lock_guard<std::mutex> lock(mu_);
  return Stats{published_.load(), refused_.load(), static_cast<int64_t>(hosts_.size()),
               static_cast<int64_t>(subs_.size())};
}

int Gateway::on_record(int slot, const void* record) {
  if (record == nullptr || nc_ == nullptr) return -1;
  const auto* bytes = static_cast<const uint8_t*>(record);
  size_t size = api_record::size(slot, record);
  if (size == 0) {
    refused_.fetch_add(1, std::memory_order_relaxed);
    log_line("gateway", std::string(capture::slot_name(slot)) + ": count out of range, record dropped");
    return -1;
  }
  static port::ThreadLocal<std::vector<uint8_t>> buffers;  // reused per vendor thread
  std::vector<uint8_t>& encoded = buffers.get();
  encode(capture::Kind::kCallback, static_cast<uint8_t>(slot), next_ns(), bytes, size, nullptr, 0, nullptr, 0, &encoded);
  std::string subject = stream_subject(settings_.name, slot, bytes, size);
  if (!subject.empty()) {
    enqueue(subject, encoded.data(), encoded.size());
    return 0;
  }
  if (slot >= 22 && slot <= 26) {
    refused_.fetch_add(1, std::memory_order_relaxed);
    log_line("gateway", std::string(capture::slot_name(slot)) + " without a record, dropped");
    return 0;
  }
  route(slot, bytes, size, encoded);
  return 0;
}

void Gateway::enqueue(const std::string& subject, const uint8_t* data, size_t size) {
  uint16_t subject_size = static_cast<uint16_t>(std::min<size_t>(subject.size(), 65535));
  uint32_t message_size = static_cast<uint32_t>(size);
  bool wake;
  {
    std::lock_guard<std::mutex> lock(out_mu_);
    if (out_.size() + size > kMaxQueued) {
      ++dropped_;
      auto now = Clock::now();
      if (now - drop_told_at_ > std::chrono::seconds(1)) {
        log_line("gateway", "publish queue full, " + std::to_string(dropped_ - dropped_told_) + " messages dropped (" +
                                std::to_string(dropped_) + " in all)");
        dropped_told_ = dropped_;
        drop_told_at_ = now;
      }
      return;
    }
    size_t at = out_.size();
    out_.resize(at + 2 + subject_size + 4 + size);
    uint8_t* p = out_.data() + at;
    std::memcpy(p, &subject_size, 2);
    std::memcpy(p + 2, subject.data(), subject_size);
    std::memcpy(p + 2 + subject_size, &message_size, 4);
    std::memcpy(p + 6 + subject_size, data, size);
    wake = out_waiting_;
  }
  if (wake) out_cv_.notify_one();
}

void Gateway::publish_loop() {
  std::vector<uint8_t> batch;
  // What is queued goes out per subject, its records back to back in one
  // message (up to kPackBytes): a burst costs the servers and the hosts a
  // message per subject and batch rather than one per record.
  constexpr size_t kPackBytes = 64 << 10;
  const std::string l2_prefix = settings_.name + ".l2.";
  const std::string host_prefix = settings_.name + ".host.";
  std::unordered_map<std::string, size_t> index;
  std::vector<std::pair<std::string, std::vector<uint8_t>>> packs;
  size_t used = 0;
  auto flush = [&](std::pair<std::string, std::vector<uint8_t>>& pack) {
    if (pack.second.empty()) return;
    if (pack.first.compare(0, host_prefix.size(), host_prefix) == 0) {
      // A reply is one host's: plain, again once the connection is back.
      while (publish(nc_, pack.first.c_str(), pack.second.data(), pack.second.size()) != NATS_OK &&
             natsConnection_Status(nc_) != NATS_CONN_STATUS_CLOSED && wait_connected()) {
      }
    } else {
      send_kept(pack.first, pack.second.data(), pack.second.size());
    }
    pack.second.clear();
  };
  for (;;) {
    // Nothing newer goes before what a dead server lost; meanwhile the
    // queue fills (and drops past its bound).
    while (must_resend() && !resend()) {
      std::lock_guard<std::mutex> lock(out_mu_);
      if (out_stop_) return;
    }
    {
      std::unique_lock<std::mutex> lock(out_mu_);
      if (out_.empty() && !out_stop_) {
        out_waiting_ = true;
        // Woken now and then to see to failed acks.
        out_cv_.wait_for(lock, std::chrono::milliseconds(100), [this] { return !out_.empty() || out_stop_; });
        out_waiting_ = false;
        if (out_.empty() && !out_stop_) continue;
      }
      if (out_.empty() && out_stop_) return;
      batch.swap(out_);
    }
    index.clear();
    used = 0;
    int64_t records = 0;
    for (size_t at = 0; at + 6 <= batch.size();) {
      uint16_t subject_size;
      uint32_t size;
      std::memcpy(&subject_size, batch.data() + at, 2);
      std::string subject(reinterpret_cast<const char*>(batch.data() + at + 2), subject_size);
      std::memcpy(&size, batch.data() + at + 2 + subject_size, 4);
      const uint8_t* record = batch.data() + at + 6 + subject_size;
      auto [it, fresh] = index.try_emplace(subject, used);
      if (fresh) {
        if (used == packs.size()) packs.emplace_back();
        packs[used].first = subject;
        packs[used].second.clear();
        ++used;
      }
      auto& pack = packs[it->second];
      if (!pack.second.empty() && pack.second.size() + size > kPackBytes) flush(pack);
      size_t at_record = pack.second.size();
      pack.second.insert(pack.second.end(), record, record + size);
      // A host takes an instrument's level-2 kinds on one subscription: they
      // share one numbering.
      std::string key = subject;
      if (key.compare(0, l2_prefix.size(), l2_prefix) == 0) {
        size_t dot = key.find('.', l2_prefix.size());
        if (dot != std::string::npos) key.erase(l2_prefix.size(), dot + 1 - l2_prefix.size());
      }
      uint16_t& seq = seq_[key];
      seq = static_cast<uint16_t>(seq == 65535 ? 1 : seq + 1);
      if (size >= capture::kRecordHeadBytes) std::memcpy(pack.second.data() + at_record + 6, &seq, 2);
      ++records;
      at += 6 + subject_size + size;
    }
    for (size_t i = 0; i < used; ++i) flush(packs[i]);
    published_.fetch_add(records, std::memory_order_relaxed);
    batch.clear();
    if (batch.capacity() > (size_t{8} << 20)) batch.shrink_to_fit();
  }
}

bool Gateway::wait_connected() {
  while (natsConnection_Status(nc_) != NATS_CONN_STATUS_CONNECTED) {
    if (natsConnection_Status(nc_) == NATS_CONN_STATUS_CLOSED) return false;
    {
      std::lock_guard<std::mutex> lock(out_mu_);
      if (out_stop_) return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

uint64_t Gateway::reconnects() {
  uint64_t r = 0;
  if (natsConnection_GetStats(nc_, nc_stats_) == NATS_OK) {
    natsStatistics_GetCounts(nc_stats_, nullptr, nullptr, nullptr, nullptr, &r);
  }
  return r;
}

bool Gateway::connection_changed() {
  return ack_failed_.load() || natsConnection_Status(nc_) != NATS_CONN_STATUS_CONNECTED || reconnects() != reconnects_;
}

bool Gateway::must_resend() { return !held_.empty() || connection_changed(); }

natsStatus Gateway::publish_js(natsMsg** msg) {
  jsPubOptions po;
  jsPubOptions_Init(&po);
  po.MaxWait = 2000;  // an ack not back by then is taken as lost
  for (;;) {
    natsStatus st = js_PublishMsgAsync(js_, msg, &po);
    // A full window: acks are late, not lost, while the connection holds.
    if (st != NATS_TIMEOUT || connection_changed()) return st;
  }
}

void Gateway::send_kept(const std::string& subject, const uint8_t* data, size_t size) {
  char instance[24];
  std::snprintf(instance, sizeof(instance), "%016llx", static_cast<unsigned long long>(instance_));
  split(nc_, data, size, 256, [&](const uint8_t* p, size_t n) {
    natsMsg* m = nullptr;
    if (natsMsg_Create(&m, subject.c_str(), nullptr, reinterpret_cast<const char*>(p), static_cast<int>(n)) != NATS_OK) {
      return NATS_NO_MEMORY;
    }
    std::string id = settings_.gateway + "." + instance + "." + std::to_string(++msg_number_);
    natsMsgHeader_Set(m, "Nats-Msg-Id", id.c_str());
    if (!must_resend() && publish_js(&m) == NATS_OK) return NATS_OK;
    held_.push_back(m);
    return NATS_OK;
  });
}

uint64_t Gateway::MsgNumber(natsMsg* msg) {
  const char* id = nullptr;
  if (natsMsgHeader_Get(msg, "Nats-Msg-Id", &id) != NATS_OK || id == nullptr) return 0;
  const char* dot = std::strrchr(id, '.');
  return std::strtoull(dot != nullptr ? dot + 1 : id, nullptr, 10);
}

void Gateway::OnAckError(jsCtx*, jsPubAckErr* pae, void* self) {
  auto* g = static_cast<Gateway*>(self);
  if (pae->Msg == nullptr) return;
  if (pae->ErrCode != 0) {
    // The stream refused it outright: sending it again would not help.
    log_line("gateway", std::string("stream refused a message on ") + natsMsg_GetSubject(pae->Msg) + ": " +
                            (pae->ErrText != nullptr ? pae->ErrText : natsStatus_GetText(pae->Err)));
    return;
  }
  natsMsg* copy = nullptr;
  if (natsMsg_Create(&copy, natsMsg_GetSubject(pae->Msg), nullptr, natsMsg_GetData(pae->Msg),
                     natsMsg_GetDataLength(pae->Msg)) != NATS_OK) {
    return;
  }
  const char* id = nullptr;
  if (natsMsgHeader_Get(pae->Msg, "Nats-Msg-Id", &id) == NATS_OK && id != nullptr) {
    natsMsgHeader_Set(copy, "Nats-Msg-Id", id);
  }
  std::lock_guard<std::mutex> lock(g->failed_mu_);
  g->unacked_.push_back(copy);
  g->ack_failed_.store(true);
}

bool Gateway::resend() {
  if (!wait_connected()) return false;
  bool after_failure = ack_failed_.exchange(false);
  uint64_t now_reconnects = reconnects();
  bool after_reconnect = now_reconnects != reconnects_;
  reconnects_ = now_reconnects;
  // A stream that failed to acknowledge (a leader being elected) is given a
  // moment rather than the same messages at once.
  if (after_failure && !after_reconnect) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::vector<natsMsg*> all(held_.begin(), held_.end());
  held_.clear();
  natsMsgList pending{};
  if (js_PublishAsyncGetPendingList(&pending, js_) == NATS_OK) {
    for (int i = 0; i < pending.Count; ++i) {
      all.push_back(pending.Msgs[i]);
      pending.Msgs[i] = nullptr;
    }
    natsMsgList_Destroy(&pending);
  }
  {
    std::lock_guard<std::mutex> lock(failed_mu_);
    all.insert(all.end(), unacked_.begin(), unacked_.end());
    unacked_.clear();
  }
  std::vector<std::pair<uint64_t, natsMsg*>> ordered;
  for (natsMsg* m : all) ordered.emplace_back(MsgNumber(m), m);
  std::sort(ordered.begin(), ordered.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (size_t i = 0; i < ordered.size(); ++i) {
    if (i > 0 && ordered[i].first == ordered[i - 1].first) {
      natsMsg_Destroy(ordered[i].second);
    } else {
      held_.push_back(ordered[i].second);
    }
  }
  if (!held_.empty()) {
    log_line("gateway", "sending " + std::to_string(held_.size()) + " unacknowledged messages again" +
                            (after_reconnect ? " after a reconnect" : ""));
  }
  while (!held_.empty()) {
    natsMsg* m = held_.front();
    if (publish_js(&m) != NATS_OK) return false;
    held_.pop_front();
  }
  return true;
}

void Gateway::route(int slot, const uint8_t* bytes, size_t size, const std::vector<uint8_t>& encoded) {
  std::vector<std::pair<std::string, std::vector<uint8_t>>> out;  // host subject, record
  bool broadcast = false;
  {
    std::lock_guard<std::mutex> lock(route_mu_);
    if (capture::reply_id_at(slot) == 0 && size >= 2) {
      uint16_t id;
      std::memcpy(&id, bytes, 2);
      const Mapped& m = ids_[id];
      if (m.host.empty()) {
        refused_.fetch_add(1, std::memory_order_relaxed);
        log_line("gateway", std::string(capture::slot_name(slot)) + " of request " + std::to_string(id) +
                                " that no host asked for, dropped");
        return;
      }
      std::vector<uint8_t> copy = encoded;
      std::memcpy(copy.data() + capture::kRecordHeadBytes, &m.id, 2);
      out.emplace_back(settings_.name + ".host." + m.host + "." + settings_.gateway, std::move(copy));
    } else {
      int32_t market = ReplyMarket(slot, bytes, size);
      std::set<std::string> hosts;
      auto now = Clock::now();
      for (auto it = asked_.begin(); it != asked_.end();) {
        bool expired = now - it->at > kAskedFor;
        bool match = !expired && Produces(it->op, slot) &&
                     (it->market <= 0 || market < 0 || it->market == market);
        if (match) {
          hosts.insert(it->hosts.begin(), it->hosts.end());
          ++it->delivered;
          it->at = now;
        }
        if (expired || (match && OneReply(it->op) && it->market > 0)) {
          it = asked_.erase(it);
        } else {
          ++it;
        }
      }
      for (const auto& h : hosts) out.emplace_back(settings_.name + ".host." + h + "." + settings_.gateway, encoded);
      // News of another gateway's market is that gateway's to tell.
      const auto& mine = settings_.markets;
      bool ours = market < 0 ? settings_.serves_common()
                             : mine.empty() || std::find(mine.begin(), mine.end(), capture::market_name(market)) != mine.end();
      broadcast = hosts.empty() && ours;
    }
  }
  // A reply nobody waits for is the service's own news (a market changed):
  // every host hears it.
  if (broadcast) out.emplace_back(settings_.name + ".push." + settings_.gateway + "." + std::to_string(slot), encoded);
  for (const auto& [subject, record] : out) enqueue(subject, record.data(), record.size());
}

int Gateway::OnConnectStatus(int server, int status) {
  if (server == 0) service_up_.store(status == 1);
  if (server == 0 && status == 2) failed_.store(true);
  int32_t both[2] = {server, status};
  std::vector<uint8_t> encoded;
  encode(capture::Kind::kCallback, capture::kConnectStatusSlot, next_ns(), both, sizeof(both), nullptr, 0, nullptr, 0,
         &encoded);
  if (nc_ != nullptr) enqueue(settings_.name + ".status." + settings_.gateway, encoded.data(), encoded.size());
  log_line("gateway", "service connection " + std::to_string(server) + ": " +
                          (status == 0 ? "lost" : status == 1 ? "restored" : "failed"));
  return 0;
}

void Gateway::OnRequest(natsConnection*, natsSubscription*, natsMsg* msg, void* self) {
  static_cast<Gateway*>(self)->handle_request(HostOf(natsMsg_GetSubject(msg)), msg);
  natsMsg_Destroy(msg);
}

void Gateway::OnAlive(natsConnection*, natsSubscription*, natsMsg* msg, void* self) {
  auto* g = static_cast<Gateway*>(self);
  std::string host = HostOf(natsMsg_GetSubject(msg));
  bool known;
  {
    std::lock_guard<std::mutex> lock(g->mu_);
    // Only a host that said hello counts: a stray beat makes no host.
    auto it = g->hosts_.find(host);
    known = it != g->hosts_.end();
    if (known) it->second = Clock::now();
  }
  natsMsg_Destroy(msg);
  // Only a host this gateway took as dead: the others beat for other gateways.
  bool dead = false;
  if (!known) {
    std::lock_guard<std::mutex> lock(g->mu_);
    dead = g->dead_.count(host) != 0;
  }
  if (dead) g->tell_forgotten(host);
}

void Gateway::tell_forgotten(const std::string& host) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto now = Clock::now();
    auto& told = told_[host];
    if (now - told < std::chrono::seconds(1)) return;
    told = now;
    if (told_.size() > 10000) told_.clear();  // bounded, whatever strays beat
  }
  // The connection status on the host's own subject: join again.
  int32_t both[2] = {0, 0};
  std::vector<uint8_t> encoded;
  encode(capture::Kind::kCallback, capture::kConnectStatusSlot, next_ns(), both, sizeof(both), nullptr, 0, nullptr, 0,
         &encoded);
  enqueue(settings_.name + ".host." + host + "." + settings_.gateway, encoded.data(), encoded.size());
}

void Gateway::handle_request(const std::string& host, natsMsg* msg) {
  const char* reply = natsMsg_GetReply(msg);
  const auto* data = reinterpret_cast<const uint8_t*>(natsMsg_GetData(msg));
  View v;
  std::string why;
  if (host.empty() || reply == nullptr || !decode(data, static_cast<size_t>(natsMsg_GetDataLength(msg)), &v, &why) ||
      v.kind != capture::Kind::kRequest) {
    refused_.fetch_add(1, std::memory_order_relaxed);
    log_line("gateway", "request from \"" + host + "\" refused: " + (why.empty() ? "not a request" : why));
    return;
  }
  uint32_t number;
  std::memcpy(&number, v.payload, 4);
  const uint8_t* bytes = v.payload + 4;
  size_t size = v.size - 4;
  int32_t rc = -1;
  std::vector<uint8_t> filled;
  if (v.code == capture::kConnect) {
    std::lock_guard<std::mutex> lock(mu_);
    bool fresh = hosts_.emplace(host, Clock::now()).second;
    dead_.erase(host);
    hosts_[host] = Clock::now();
    rc = service_up_.load() ? 0 : -1;
    ConnectResult r = rc == 0 ? ConnectResult{0, 0, 0} : connect_result_;
    filled.assign(reinterpret_cast<const uint8_t*>(&r), reinterpret_cast<const uint8_t*>(&r) + sizeof(r));
    if (fresh) log_line("gateway", "host " + host + " joined (" + std::to_string(hosts_.size()) + " hosts)");
  } else if (v.code == capture::kRelease) {
    std::lock_guard<std::mutex> lock(mu_);
    drop_host(host, "left");
    rc = 0;
  } else {
    bool known;
    {
      std::lock_guard<std::mutex> lock(mu_);
      auto it = hosts_.find(host);
      known = it != hosts_.end();
      if (known) it->second = Clock::now();
    }
    if (!known) {
      log_line("gateway", "request " + std::string(capture::op_name(v.code)) + " from host " + host +
                              " that has not connected, refused");
      tell_forgotten(host);
    } else if ((v.code >= 7 && v.code <= 10) || v.code == 54 || v.code == 55) {
      rc = subscription_request(host, v.code, bytes, size);
    } else if (MapsId(v.code)) {
      rc = id_request(host, v.code, bytes, size);
    } else {
      rc = plain_request(host, v.code, bytes, size);
    }
  }
  std::vector<uint8_t> out;
  encode(capture::Kind::kResult, v.code, next_ns(), &number, 4, &rc, 4, filled.data(), filled.size(), &out);
  natsConnection_Publish(nc_, reply, out.data(), static_cast<int>(out.size()));
}

int Gateway::subscription_request(const std::string& host, uint8_t op, const uint8_t* bytes, size_t size) {
  bool market_push = op == 54 || op == 55;
  bool add = op == 7 || op == 9 || op == 54;
  int level = market_push ? 3 : (op == 7 || op == 8) ? 1 : 2;
  size_t each = market_push ? sizeof(ApiMarketItem) : sizeof(ApiCodeItem);
  if (size == 0 || size % each != 0 || (market_push && size != each)) {
    log_line("gateway", std::string(capture::op_name(op)) + " of " + std::to_string(size) + " bytes from " + host +
                            ", refused");
    return -1;
  }
  std::lock_guard<std::mutex> lock(mu_);
  if (market_push) {
    ApiMarketItem item;
    std::memcpy(&item, bytes, sizeof(item));
    auto& hosts = subs_[Key{3, item.market, {}}];
    bool first = hosts.empty(), had = hosts.count(host) != 0;
    int rc = 0;
    if (add && !had) {
      if (first) rc = call(op, bytes, size);
      if (rc >= 0) hosts.insert(host);
    } else if (!add && had) {
      hosts.erase(host);
      if (hosts.empty()) rc = call(op, bytes, size);
    }
    if (hosts.empty()) subs_.erase(Key{3, item.market, {}});
    return rc;
  }
  // The service hears of an instrument when its first host comes and when
  // its last one goes; the others only change the count.
  std::vector<ApiCodeItem> tell;
  std::vector<Key> keys;
  for (size_t at = 0; at < size; at += each) {
    ApiCodeItem item;
    std::memcpy(&item, bytes + at, sizeof(item));
    Key key{level, item.market, CodeText(item.code, sizeof(item.code))};
    auto& hosts = subs_[key];
    bool had = hosts.count(host) != 0;
    if (add && !had) {
      if (hosts.empty()) tell.push_back(item);
      hosts.insert(host);
      keys.push_back(key);
    } else if (!add && had) {
      hosts.erase(host);
      if (hosts.empty()) {
        tell.push_back(item);
        subs_.erase(key);
      }
    } else if (!add && hosts.empty()) {
      subs_.erase(key);
    }
  }
  if (tell.empty()) return 0;
  int rc = call(op, reinterpret_cast<const uint8_t*>(tell.data()), tell.size() * sizeof(ApiCodeItem));
  log_line("gateway", "to the service: " + Describe(op, tell, rc));
  if (rc < 0 && add) {
    for (const Key& key : keys) {
      auto it = subs_.find(key);
      if (it == subs_.end()) continue;
      it->second.erase(host);
      if (it->second.empty()) subs_.erase(it);
    }
  }
  return rc;
}

int Gateway::id_request(const std::string& host, uint8_t op, const uint8_t* bytes, size_t size) {
  size_t need = (op >= 16 && op <= 17) ? sizeof(HisBarRequest) : op <= 19 ? sizeof(HisTickRequest) : sizeof(FinanceRequest);
  if (size != need) {
    log_line("gateway", std::string(capture::op_name(op)) + " of " + std::to_string(size) + " bytes, refused");
    return -1;
  }
  std::vector<uint8_t> copy(bytes, bytes + size);
  uint16_t theirs;
  std::memcpy(&theirs, bytes, 2);
  {
    std::lock_guard<std::mutex> lock(route_mu_);
    next_id_ = static_cast<uint16_t>(next_id_ + 1);
    if (next_id_ == 0) next_id_ = 1;
    ids_[next_id_] = Mapped{host, theirs};
    std::memcpy(copy.data(), &next_id_, 2);
  }
  std::lock_guard<std::mutex> lock(mu_);
  return call(op, copy.data(), copy.size());
}

int Gateway::plain_request(const std::string& host, uint8_t op, const uint8_t* bytes, size_t size) {
  int32_t market = -1;
  if (OneReply(op) && size == 4) std::memcpy(&market, bytes, 4);
  {
    std::lock_guard<std::mutex> lock(route_mu_);
    auto now = Clock::now();
    // The same question already with the service and not yet answered:
    // this host waits for the same answer.
    for (Asked& a : asked_) {
      if (a.op == op && a.delivered == 0 && now - a.at < kAskedFor && a.bytes.size() == size &&
          (size == 0 || std::memcmp(a.bytes.data(), bytes, size) == 0)) {
        a.hosts.insert(host);
        return 0;
      }
    }
    asked_.push_back(Asked{op, market, std::vector<uint8_t>(bytes, bytes + size), {host}, now});
  }
  std::lock_guard<std::mutex> lock(mu_);
  int rc = call(op, bytes, size);
  if (rc < 0) {
    std::lock_guard<std::mutex> route_lock(route_mu_);
    for (auto it = asked_.begin(); it != asked_.end(); ++it) {
      if (it->op == op && it->hosts.count(host) != 0 && it->delivered == 0) {
        it->hosts.erase(host);
        if (it->hosts.empty()) asked_.erase(it);
        break;
      }
    }
  }
  return rc;
}

int Gateway::call(uint8_t op, const uint8_t* bytes, size_t size) {
  int32_t arg = 0;
  auto record = [&](size_t need) -> const void* {
    return size == need ? bytes : nullptr;
  };
  if (size == 4) std::memcpy(&arg, bytes, 4);
  auto items = reinterpret_cast<const ApiCodeItem*>(bytes);
  int32_t n = static_cast<int32_t>(size / sizeof(ApiCodeItem));
  switch (op) {
    case 4: case 5: case 11: case 12: case 13: case 14: case 22: case 23: case 24: case 26:
      if (size != 4) break;
      switch (op) {
        case 4: return api_->ReqMarketInit(arg);
        case 5: return api_->ReqMarketStatus(arg);
        case 11: return api_->ReqMarketOtherBase(arg);
        case 12: return api_->ReqRefInfo(arg);
        case 13: return api_->ReqLatestShare(arg);
        case 14: return api_->ReqHoliday(arg);
        case 22: return api_->ReqHotListData(arg);
        case 23: return api_->ReqHotList(arg);
        case 24: return api_->ReqScanner(arg);
        default: return api_->ReqNewIssueList(arg);
      }
    case 6: if (size == 0) return api_->ReqBaseData(); break;
    case 21: if (size == 0) return api_->ReqHotListDef(); break;
    case 25: if (size == 0) return api_->ReqSharedFields(); break;
    case 7: return api_->SubscribeL1(items, n);
    case 8: return api_->UnsubscribeL1(items, n);
    case 9: return api_->SubscribeL2(items, n);
    case 10: return api_->UnsubscribeL2(items, n);
    case 15: if (auto r = record(sizeof(HKRateRequest))) return api_->ReqHKRate(static_cast<const HKRateRequest*>(r)); break;
    case 16: if (auto r = record(sizeof(HisBarRequest))) return api_->ReqHisData(static_cast<const HisBarRequest*>(r)); break;
    case 17: if (auto r = record(sizeof(HisBarRequest))) return api_->ReqHisDataCount(static_cast<const HisBarRequest*>(r)); break;
    case 18: if (auto r = record(sizeof(HisTickRequest))) return api_->ReqL1NewHisTick(static_cast<const HisTickRequest*>(r)); break;
    case 19: if (auto r = record(sizeof(HisTickRequest))) return api_->ReqHisTickKcb(static_cast<const HisTickRequest*>(r)); break;
    case 20: if (auto r = record(sizeof(ApiCodeItem))) return api_->ReqPower(static_cast<const ApiCodeItem*>(r)); break;
    case 27: case 28: case 29: case 30: case 31: case 32: case 33: case 34: case 35: {
      auto r = static_cast<const FinanceRequest*>(record(sizeof(FinanceRequest)));
      if (r == nullptr) break;
      switch (op) {
        case 27: return api_->ReqShareData(r);
        case 28: return api_->ReqIndustryData(r);
        case 29: return api_->ReqFinancialData(r);
        case 30: return api_->ReqIncomeStatement(r);
        case 31: return api_->ReqCashFlowStatement(r);
        case 32: return api_->ReqBalanceSheet(r);
        case 33: return api_->ReqSHNumber(r);
        case 34: return api_->ReqMostShareHolder(r);
        default: return api_->ReqNegotiableShareHolder(r);
      }
    }
    case 54: if (auto r = record(sizeof(ApiMarketItem))) return api_->SubscribeMarketPush(static_cast<const ApiMarketItem*>(r)); break;
    case 55: if (auto r = record(sizeof(ApiMarketItem))) return api_->UnsubscribeMarketPush(static_cast<const ApiMarketItem*>(r)); break;
    default:
      log_line("gateway", std::string("operation ") + (capture::op_name(op) ? capture::op_name(op) : "?") + " is not served");
      return -1;
  }
  log_line("gateway", std::string(capture::op_name(op)) + " of " + std::to_string(size) + " bytes, refused");
  return -1;
}

void Gateway::drop_host(const std::string& host, const char* why) {
  if (hosts_.erase(host) == 0) return;
  std::vector<ApiCodeItem> l1, l2;
  std::vector<ApiMarketItem> markets;
  for (auto it = subs_.begin(); it != subs_.end();) {
    if (it->second.erase(host) == 0 || !it->second.empty()) {
      ++it;
      continue;
    }
    const Key& key = it->first;
    if (key.level == 3) {
      markets.push_back(ApiMarketItem{static_cast<uint16_t>(key.market), key.market});
    } else {
      ApiCodeItem item{};
      std::memcpy(item.code, key.code.data(), std::min(key.code.size(), sizeof(item.code) - 1));
      item.market = static_cast<uint8_t>(key.market);
      (key.level == 1 ? l1 : l2).push_back(item);
    }
    it = subs_.erase(it);
  }
  // The host's last instruments end at the service in one call per level.
  if (!l1.empty()) {
    int rc = api_->UnsubscribeL1(l1.data(), static_cast<int32_t>(l1.size()));
    log_line("gateway", "to the service: " + Describe(8, l1, rc));
  }
  if (!l2.empty()) {
    int rc = api_->UnsubscribeL2(l2.data(), static_cast<int32_t>(l2.size()));
    log_line("gateway", "to the service: " + Describe(10, l2, rc));
  }
  for (const ApiMarketItem& m : markets) api_->UnsubscribeMarketPush(&m);
  {
    std::lock_guard<std::mutex> lock(route_mu_);
    for (Mapped& m : ids_) {
      if (m.host == host) m.host.clear();
    }
    for (auto it = asked_.begin(); it != asked_.end();) {
      it->hosts.erase(host);
      it = it->hosts.empty() ? asked_.erase(it) : it + 1;
    }
  }
  log_line("gateway", "host " + host + " " + why + "; " + std::to_string(l1.size() + l2.size() + markets.size()) +
                          " subscriptions ended with it at the service, " + std::to_string(hosts_.size()) +
                          " hosts remain");
}

void Gateway::beat_loop() {
  std::string subject = settings_.name + ".beat." + settings_.gateway;
  std::unique_lock<std::mutex> lock(beat_mu_);
  while (!stopping_) {
    lock.unlock();
    uint8_t beat[12];
    int32_t up = service_up_.load() ? 1 : 0;
    std::memcpy(beat, &instance_, 8);
    std::memcpy(beat + 8, &up, 4);
    natsConnection_Publish(nc_, subject.c_str(), beat, sizeof(beat));
    {
      std::lock_guard<std::mutex> hosts_lock(mu_);
      auto now = Clock::now();
      std::vector<std::string> silent;
      for (const auto& [host, seen] : hosts_) {
        if (now - seen > std::chrono::milliseconds(settings_.dead_ms)) silent.push_back(host);
      }
      for (const auto& host : silent) {
        drop_host(host, "silent, taken as dead");
        if (dead_.size() > 10000) dead_.clear();  // bounded, however many die
        dead_.insert(host);
      }
    }
    lock.lock();
    beat_cv_.wait_for(lock, std::chrono::milliseconds(settings_.beat_ms), [this] { return stopping_; });
  }
}

}  // namespace bus
