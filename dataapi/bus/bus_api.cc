#include "dataapi/bus/bus_api.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>

#include "capture/catalog.h"

namespace busapi {

namespace {

using Clock = std::chrono::steady_clock;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

// Stored records are looked up from a little before the time asked: the
// servers stamp them by their own clocks.
constexpr uint64_t kClockSlackNs = 2000000000ull;
// Live records held while a catch-up runs, at most.
constexpr size_t kMaxPending = 1 << 20;

}  // namespace

BusApi::~BusApi() { teardown(); }

void BusApi::use_settings(const bus::Settings& settings) {
  settings_ = settings;
  have_settings_ = true;
}

BusStats BusApi::stats() const {
  return BusStats{delivered_.load(), caught_up_.load(), duplicates_.load(), refused_.load(), restores_.load(),
                  gaps_.load(),      lost_.load()};
}

int BusApi::RegisterServer(const ServerTable*, CDataApiCallBack* callback) {
  callback_.store(callback);
  return 0;
}

int BusApi::Connect(ConnectResult* result) {
  if (result != nullptr) *result = ConnectResult{-1, 0, 0};
  std::string error;
  if (!have_settings_) {
    bus::Settings s;
    if (!bus::settings_from_environment(&s, &error)) {
      bus::log_line("bus", error + "; the connect fails");
      return -1;
    }
    settings_ = s;
  }
  if (nc_ == nullptr) {
    if (monitor_.joinable()) monitor_.join();  // ended by the last release
    if (beater_.joinable()) beater_.join();
    bus::Handlers h;
    h.reconnected = &BusApi::OnReconnected;
    h.error = &BusApi::OnError;
    h.closure = this;
    // One thread hands every subscribed subject's records to the library,
    // as a vendor's thread would, however many instruments the host holds.
    h.shared_delivery = true;
    nc_ = bus::connect(settings_, "kelquote_host", h, &error);
    if (nc_ == nullptr) {
      bus::log_line("bus", error);
      return -1;
    }
    std::random_device rd;
    char id[40];
    std::snprintf(id, sizeof(id), "%08x%08x%08x%08x", rd(), rd(), rd(), rd());
    host_ = id;
    const std::string& n = settings_.name;
    for (const std::string& subject : {n + ".host." + host_ + ".*", n + ".push.>", n + ".status.*", n + ".beat.*"}) {
      auto fixed = std::make_unique<Fixed>();
      fixed->api = this;
      fixed->own = subject == n + ".host." + host_ + ".*";
      natsStatus st = natsConnection_Subscribe(&fixed->sub, nc_, subject.c_str(),
                                               subject == n + ".beat.*" ? &BusApi::OnBeat : &BusApi::OnFixed,
                                               fixed.get());
      if (st == NATS_OK) natsSubscription_SetPendingLimits(fixed->sub, -1, 1 << 30);
      fixed_.push_back(std::move(fixed));
    }
    natsConnection_Flush(nc_);
  }
  std::vector<uint8_t> filled;
  int rc = hello(&filled);
  if (result != nullptr && rc == 0) *result = ConnectResult{0, 0, 0};
  if (result != nullptr && filled.size() == sizeof(ConnectResult)) std::memcpy(result, filled.data(), filled.size());
  if (rc != 0) return rc < 0 ? -1 : rc;
  beat_at_ms_.store(NowMs());
  {
    std::lock_guard<std::mutex> lock(monitor_mu_);
    stopping_ = false;
  }
  if (!monitor_.joinable()) monitor_ = std::thread([this] { monitor(); });
  if (!beater_.joinable()) beater_ = std::thread([this] { beat_loop(); });
  return 0;
}

int BusApi::hello(std::vector<uint8_t>* filled) { return greet(bus::kCommonRoute, filled); }

int BusApi::greet(const std::string& route, std::vector<uint8_t>* filled) {
  std::vector<uint8_t> out;
  int rc = send(capture::kConnect, route, nullptr, 0, &out);
  // The answer's time rides in its last 8 bytes (see send).
  if (out.size() >= 8) {
    uint64_t ns;
    std::memcpy(&ns, out.data() + out.size() - 8, 8);
    if (ns > hello_ns_.load()) hello_ns_.store(ns);
    out.resize(out.size() - 8);
  }
  if (rc == 0) {
    std::lock_guard<std::mutex> lock(routes_mu_);
    greeted_.insert(route);
  }
  if (filled != nullptr) *filled = std::move(out);
  return rc;
}

int BusApi::request(uint8_t op, const void* bytes, size_t size, std::vector<uint8_t>* filled) {
  if (nc_ == nullptr) return -1;
  const auto* data = static_cast<const uint8_t*>(bytes);
  constexpr size_t kItem = sizeof(ApiCodeItem);
  // A list of instruments of several markets goes to each market's gateway.
  if (op >= 7 && op <= 10 && size > kItem && size % kItem == 0) {
    std::map<uint8_t, std::vector<uint8_t>> by_market;
    for (size_t at = 0; at < size; at += kItem) {
      auto& part = by_market[data[at + offsetof(ApiCodeItem, market)]];
      part.insert(part.end(), data + at, data + at + kItem);
    }
    if (by_market.size() > 1) {
      int rc = 0;
      for (const auto& [market, part] : by_market) {
        int one = request(op, part.data(), part.size());
        if (one < 0 || rc == 0) rc = rc < 0 ? rc : one;
      }
      return rc;
    }
  }
  std::string route = op == capture::kConnect || op == capture::kRelease ? std::string(bus::kCommonRoute)
                                                                          : bus::request_route(op, data, size);
  if (op != capture::kConnect && op != capture::kRelease) {
    bool greeted;
    {
      std::lock_guard<std::mutex> lock(routes_mu_);
      greeted = greeted_.count(route) != 0;
    }
    // The first request to a market's gateway says hello to it first.
    if (!greeted && greet(route, nullptr) != 0) return -1;
  }
  return send(op, route, bytes, size, filled);
}

int BusApi::send(uint8_t op, const std::string& route, const void* bytes, size_t size, std::vector<uint8_t>* filled) {
  uint32_t number = number_.fetch_add(1);
  std::vector<uint8_t> out;
  bus::encode(capture::Kind::kRequest, op, bus::next_ns(), &number, 4, bytes, size, nullptr, 0, &out);
  natsMsg* reply = nullptr;
  std::string subject = settings_.name + ".req." + route + "." + host_;
  natsStatus st = natsConnection_Request(&reply, nc_, subject.c_str(), out.data(), static_cast<int>(out.size()),
                                         settings_.request_timeout_ms);
  if (st != NATS_OK) {
    bus::log_line("bus", std::string(capture::op_name(op)) + ": no answer from the gateway of " + route + " (" +
                             natsStatus_GetText(st) + ")");
    return -1;
  }
  bus::View v;
  std::string why;
  int32_t rc = -1;
  if (!bus::decode(reinterpret_cast<const uint8_t*>(natsMsg_GetData(reply)), static_cast<size_t>(natsMsg_GetDataLength(reply)),
                   &v, &why) ||
      v.kind != capture::Kind::kResult || v.code != op) {
    refused_.fetch_add(1);
    bus::log_line("bus", std::string(capture::op_name(op)) + ": the gateway's answer is refused: " +
                             (why.empty() ? "not its result" : why));
  } else {
    std::memcpy(&rc, v.payload + 4, 4);
    if (filled != nullptr) {
      filled->assign(v.payload + 8, v.payload + v.size);
      if (op == capture::kConnect) filled->insert(filled->end(), reinterpret_cast<const uint8_t*>(&v.ns),
                                                  reinterpret_cast<const uint8_t*>(&v.ns) + 8);
    }
  }
  natsMsg_Destroy(reply);
  return rc;
}

BusApi::Stream* BusApi::open_stream(const std::string& subject, bool* fresh) {
  auto it = streams_.find(subject);
  *fresh = it == streams_.end();
  if (!*fresh) return it->second.get();
  auto s = std::make_unique<Stream>();
  s->api = this;
  s->subject = subject;
  // A first subscribe with a time set starts from that time.
  if (settings_.since_ms > 0) {
    s->last_ns = static_cast<uint64_t>(settings_.since_ms) * 1000000ull;
    s->catching = true;
  }
  if (natsConnection_Subscribe(&s->sub, nc_, subject.c_str(), &BusApi::OnStream, s.get()) == NATS_OK) {
    // A slow host is the server's and the client's problem no more than
    // this: past these limits it drops, hears of it, and fetches the gap.
    natsSubscription_SetPendingLimits(s->sub, 4 << 20, 1 << 30);
  }
  Stream* raw = s.get();
  streams_.emplace(subject, std::move(s));
  return raw;
}

void BusApi::close_stream(const std::string& subject) {
  auto it = streams_.find(subject);
  if (it == streams_.end()) return;
  if (it->second->sub != nullptr) natsSubscription_Unsubscribe(it->second->sub);
  retired_.push_back(std::move(it->second));
  streams_.erase(it);
}

int BusApi::subscribe(uint8_t op, const ApiCodeItem* items, int32_t count) {
  if (items == nullptr || count <= 0 || nc_ == nullptr) return -1;
  bool add = op == 7 || op == 9;
  bool level1 = op == 7 || op == 8;
  std::vector<Stream*> fresh_streams;
  std::vector<std::string> subjects;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (int32_t i = 0; i < count; ++i) {
      const ApiCodeItem& item = items[i];
      std::string subject = level1 ? bus::l1_subject(settings_.name, item.market, item.code, sizeof(item.code))
                                   : bus::l2_pattern(settings_.name, item.market, item.code, sizeof(item.code));
      subjects.push_back(subject);
      if (!add) continue;
      bool fresh = false;
      Stream* s = open_stream(subject, &fresh);
      if (fresh) fresh_streams.push_back(s);
      (level1 ? l1_ : l2_)[subject] = item;
    }
  }
  if (add) natsConnection_Flush(nc_);
  int rc = request(op, items, sizeof(ApiCodeItem) * static_cast<size_t>(count));
  std::lock_guard<std::mutex> lock(mu_);
  if (!add || rc < 0) {
    for (const auto& subject : subjects) {
      if (!add || std::find_if(fresh_streams.begin(), fresh_streams.end(),
                               [&](Stream* s) { return s->subject == subject; }) != fresh_streams.end()) {
        close_stream(subject);
        (level1 ? l1_ : l2_).erase(subject);
      }
    }
    return rc;
  }
  std::vector<Stream*> catching;
  for (Stream* s : fresh_streams) {
    if (s->catching) catching.push_back(s);
  }
  if (!catching.empty()) {
    mu_.unlock();
    catch_up(catching);
    mu_.lock();
  }
  return rc;
}

int BusApi::subscribe_market(uint8_t op, const ApiMarketItem* item) {
  if (item == nullptr || nc_ == nullptr) return -1;
  std::string subject = bus::market_subject(settings_.name, item->market);
  bool add = op == 54;
  Stream* s = nullptr;
  bool fresh = false;
  if (add) {
    std::lock_guard<std::mutex> lock(mu_);
    s = open_stream(subject, &fresh);
    markets_[item->market] = *item;
  }
  if (add) natsConnection_Flush(nc_);
  int rc = request(op, item, sizeof(*item));
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!add || (rc < 0 && fresh)) {
      close_stream(subject);
      markets_.erase(item->market);
      return rc;
    }
  }
  if (fresh && s->catching) catch_up({s});
  return rc;
}

bool BusApi::fetch(const std::string& subject, uint64_t since,
                   std::vector<std::pair<uint64_t, std::vector<uint8_t>>>* out) {
  jsCtx* js = nullptr;
  if (natsConnection_JetStream(&js, nc_, nullptr) != NATS_OK) return false;
  jsSubOptions so;
  jsSubOptions_Init(&so);
  so.Ordered = true;
  so.Config.DeliverPolicy = js_DeliverByStartTime;
  so.Config.OptStartTime = static_cast<int64_t>(since > kClockSlackNs ? since - kClockSlackNs : 1);
  natsSubscription* sub = nullptr;
  jsErrCode code = static_cast<jsErrCode>(0);
  natsStatus st = NATS_OK;
  // Right after a server of a cluster died the stream may be electing its
  // leader: a few tries, a moment apart.
  for (int attempt = 0; attempt < 6; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    st = js_SubscribeSync(&sub, js, subject.c_str(), nullptr, &so, &code);
    if (st == NATS_OK) break;
  }
  bool ok = st == NATS_OK;
  if (!ok) bus::log_line("bus", "cannot read the stream of " + subject + ": " + natsStatus_GetText(st));
  bus::Assembly assembly;
  // Bounded: a day of one instrument is far below this.
  for (int i = 0; ok && i < 50000000; ++i) {
    natsMsg* msg = nullptr;
    if (natsSubscription_NextMsg(&msg, sub, 1000) != NATS_OK) break;  // nothing stored after the time
    jsMsgMetaData* meta = nullptr;
    uint64_t pending = 1;
    if (natsMsg_GetMetaData(&meta, msg) == NATS_OK) {
      pending = meta->NumPending;
      jsMsgMetaData_Destroy(meta);
    }
    const uint8_t* whole = nullptr;
    size_t whole_size = 0;
    std::string why;
    if (assembly.feed(reinterpret_cast<const uint8_t*>(natsMsg_GetData(msg)), static_cast<size_t>(natsMsg_GetDataLength(msg)),
                      &whole, &whole_size, &why)) {
      bool good = bus::for_each_record(whole, whole_size, [&](const bus::View& v) {
        const uint8_t* head = v.payload - capture::kRecordHeadBytes;
        if (v.kind == capture::Kind::kCallback && v.ns > since) out->emplace_back(v.ns, std::vector<uint8_t>(head, v.payload + v.size));
      }, &why);
      if (!good) {
        refused_.fetch_add(1);
        bus::log_line("bus", "stored message on " + subject + " refused: " + why);
      }
    }
    natsMsg_Destroy(msg);
    if (pending == 0) break;
  }
  natsSubscription_Destroy(sub);
  jsCtx_Destroy(js);
  return ok;
}

bool BusApi::whole(const std::vector<Stream*>& streams,
                   const std::vector<std::pair<uint64_t, std::pair<Stream*, std::vector<uint8_t>*>>>& order) {
  for (Stream* s : streams) {
    std::lock_guard<std::mutex> lock(s->mu);
    uint16_t next = s->next_seq;
    uint64_t last = s->last_ns;
    auto follows = [&](const uint8_t* bytes, size_t size) {
      bus::View v;
      std::string why;
      if (!bus::decode(bytes, size, &v, &why) || v.ns <= last) return true;
      if (next != 0 && v.seq != 0 && v.seq != next) return false;
      last = v.ns;
      next = v.seq == 0 ? 0 : static_cast<uint16_t>(v.seq == 65535 ? 1 : v.seq + 1);
      return true;
    };
    for (const auto& [ns, where] : order) {
      if (where.first == s && !follows(where.second->data(), where.second->size())) return false;
    }
    for (const auto& bytes : s->pending) {
      if (!follows(bytes.data(), bytes.size())) return false;
    }
  }
  return true;
}

void BusApi::catch_up(std::vector<Stream*> streams) {
  std::vector<std::pair<uint64_t, std::vector<uint8_t>>> records;
  std::vector<size_t> ends;
  std::vector<std::pair<uint64_t, std::pair<Stream*, std::vector<uint8_t>*>>> order;
  // Right after a failover the stream may not yet hold what the gateway is
  // sending it again: while the numbering still has a hole, read again a
  // moment later (a while at most, then what is missing is lost).
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    records.clear();
    ends.clear();
    order.clear();
    for (Stream* s : streams) {
      uint64_t since;
      {
        std::lock_guard<std::mutex> lock(s->mu);
        s->catching = true;
        since = s->last_ns;
      }
      if (since != 0) fetch(s->subject, since, &records);
      ends.push_back(records.size());
    }
    // Which stream each record belongs to, then all in time order.
    for (size_t i = 0, k = 0; i < records.size(); ++i) {
      while (k < ends.size() && i >= ends[k]) ++k;
      order.push_back({records[i].first, {streams[k], &records[i].second}});
    }
    std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    if (whole(streams, order)) break;
  }
  for (auto& [ns, where] : order) {
    Stream* s = where.first;
    bus::View v;
    std::string why;
    bus::decode(where.second->data(), where.second->size(), &v, &why);
    std::lock_guard<std::mutex> lock(s->mu);
    if (ns <= s->last_ns) {
      duplicates_.fetch_add(1);
      continue;
    }
    deliver_stream(s, v);
    caught_up_.fetch_add(1);
  }
  for (Stream* s : streams) {
    std::lock_guard<std::mutex> lock(s->mu);
    for (const auto& bytes : s->pending) {
      bus::View v;
      std::string why;
      bus::decode(bytes.data(), bytes.size(), &v, &why);
      if (v.ns <= s->last_ns) {
        duplicates_.fetch_add(1);
        continue;
      }
      deliver_stream(s, v);
    }
    s->pending.clear();
    s->catching = false;
  }
}

void BusApi::deliver_stream(Stream* s, const bus::View& v) {
  if (s->next_seq != 0 && v.seq != 0 && v.seq != s->next_seq) {
    lost_.fetch_add((v.seq + 65535 - s->next_seq) % 65535, std::memory_order_relaxed);
  }
  deliver(v);
  s->last_ns = v.ns;
  s->next_seq = v.seq == 0 ? 0 : static_cast<uint16_t>(v.seq == 65535 ? 1 : v.seq + 1);
  if (s->count++ == 0) s->first_ns = v.ns;
}

int64_t BusApi::verify() {
  std::vector<Stream*> all;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& [subject, s] : streams_) all.push_back(s.get());
  }
  int64_t missing = 0;
  for (Stream* s : all) {
    uint64_t first, last;
    int64_t count;
    {
      std::lock_guard<std::mutex> lock(s->mu);
      first = s->first_ns;
      last = s->last_ns;
      count = s->count;
    }
    if (count == 0) continue;
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> stored;
    if (!fetch(s->subject, first - 1, &stored)) return -1;
    std::set<uint64_t> times;
    for (const auto& r : stored) {
      if (r.first <= last) times.insert(r.first);
    }
    if (static_cast<int64_t>(times.size()) > count) missing += static_cast<int64_t>(times.size()) - count;
  }
  return missing;
}

void BusApi::deliver(const bus::View& v) {
  CDataApiCallBack* cb = callback_.load();
  if (cb == nullptr) return;
  delivered_.fetch_add(1, std::memory_order_relaxed);
  if (v.code == capture::kConnectStatusSlot) {
    int32_t both[2];
    std::memcpy(both, v.payload, sizeof(both));
    cb->OnConnectStatus(both[0], both[1]);
    return;
  }
  capture::Callback fn = capture::slot_callback(v.code);
  // The library refuses a record while its queue is full; a vendor sends
  // it again, so does the bus, for a while.
  for (int attempt = 0; attempt < 200 && (cb->*fn)(v.payload) != 0; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void BusApi::OnStream(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
  auto* s = static_cast<Stream*>(closure);
  BusApi* api = s->api;
  {
    std::lock_guard<std::mutex> lock(s->mu);
    const uint8_t* whole = nullptr;
    size_t size = 0;
    std::string why;
    if (s->assembly.feed(reinterpret_cast<const uint8_t*>(natsMsg_GetData(msg)), static_cast<size_t>(natsMsg_GetDataLength(msg)),
                         &whole, &size, &why)) {
      bool ok = bus::for_each_record(whole, size, [&](const bus::View& v) {
        if (v.kind != capture::Kind::kCallback) {
          api->refused_.fetch_add(1);
        } else if (s->catching) {
          if (s->pending.size() < kMaxPending) {
            const uint8_t* head = v.payload - capture::kRecordHeadBytes;
            s->pending.emplace_back(head, v.payload + v.size);
          }
        } else if (v.ns <= s->last_ns) {
          api->duplicates_.fetch_add(1, std::memory_order_relaxed);
        } else if (s->next_seq != 0 && v.seq != 0 && v.seq != s->next_seq) {
          // Records of this subject went missing on the way: hold what
          // comes and fetch them from the stream first.
          api->gaps_.fetch_add((v.seq + 65535 - s->next_seq) % 65535, std::memory_order_relaxed);
          s->catching = true;
          const uint8_t* head = v.payload - capture::kRecordHeadBytes;
          s->pending.emplace_back(head, v.payload + v.size);
          api->catch_up_all_.store(true);
          api->monitor_cv_.notify_all();
        } else {
          api->deliver_stream(s, v);
        }
      }, &why);
      if (!ok) {
        api->refused_.fetch_add(1);
        bus::log_line("bus", "message on " + s->subject + " refused: " + why);
      }
    } else if (!why.empty()) {
      api->refused_.fetch_add(1);
      bus::log_line("bus", "message on " + s->subject + " refused: " + why);
    }
  }
  natsMsg_Destroy(msg);
}

void BusApi::OnFixed(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
  auto* f = static_cast<Fixed*>(closure);
  const uint8_t* whole = nullptr;
  size_t size = 0;
  std::string why;
  // Chunks are put together per subject: gateways publish side by side.
  if (f->assemblies.size() > 1000) f->assemblies.clear();  // bounded, whatever strays publish
  if (f->assemblies[natsMsg_GetSubject(msg)].feed(reinterpret_cast<const uint8_t*>(natsMsg_GetData(msg)), static_cast<size_t>(natsMsg_GetDataLength(msg)),
                       &whole, &size, &why)) {
    bool own = f->own;
    bool ok = bus::for_each_record(whole, size, [&](const bus::View& v) {
      if (v.kind != capture::Kind::kCallback) {
        f->api->refused_.fetch_add(1);
      } else if (own && v.code == capture::kConnectStatusSlot) {
        // Unless the gateway said so before it last welcomed this host.
        if (v.ns < f->api->hello_ns_.load()) return;
        f->api->forgotten_.store(true);
        f->api->monitor_cv_.notify_all();
      } else {
        f->api->deliver(v);
      }
    }, &why);
    if (!ok) {
      f->api->refused_.fetch_add(1);
      bus::log_line("bus", std::string("message on ") + natsMsg_GetSubject(msg) + " refused: " + why);
    }
  }
  natsMsg_Destroy(msg);
}

void BusApi::OnBeat(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
  auto* api = static_cast<Fixed*>(closure)->api;
  const char* subject = natsMsg_GetSubject(msg);
  const char* dot = std::strrchr(subject, '.');
  if (natsMsg_GetDataLength(msg) == 12 && dot != nullptr) {
    uint64_t instance;
    std::memcpy(&instance, natsMsg_GetData(msg), 8);
    std::lock_guard<std::mutex> lock(api->routes_mu_);
    // The first instance heard of a gateway is the one this host knows;
    // another one means that gateway restarted.
    auto [it, fresh] = api->gateways_.emplace(dot + 1, std::make_pair(instance, NowMs()));
    if (!fresh && it->second.first != instance) {
      it->second.first = instance;
      api->gateway_restarted_.store(true);
      api->monitor_cv_.notify_all();
    }
    it->second.second = NowMs();
  }
  natsMsg_Destroy(msg);
}

void BusApi::OnReconnected(natsConnection*, void* closure) {
  // Another server now: what was on the way may be gone; the stream has it.
  static_cast<BusApi*>(closure)->catch_up_all_.store(true);
  static_cast<BusApi*>(closure)->monitor_cv_.notify_all();
}

void BusApi::OnError(natsConnection*, natsSubscription*, natsStatus err, void* closure) {
  if (err == NATS_SLOW_CONSUMER) {
    bus::log_line("bus", "the host fell behind and messages were dropped; fetching them from the stream");
    static_cast<BusApi*>(closure)->catch_up_all_.store(true);
  }
}

bool BusApi::restore() {
  // Hello again to every gateway this host used, each of which may have restarted.
  std::set<std::string> routes;
  {
    std::lock_guard<std::mutex> lock(routes_mu_);
    routes = greeted_;
  }
  routes.insert(bus::kCommonRoute);
  for (const std::string& route : routes) {
    if (greet(route, nullptr) != 0) return false;
  }
  std::vector<ApiCodeItem> l1, l2;
  std::vector<ApiMarketItem> markets;
  std::vector<Stream*> all;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& [subject, item] : l1_) l1.push_back(item);
    for (const auto& [subject, item] : l2_) l2.push_back(item);
    for (const auto& [market, item] : markets_) markets.push_back(item);
    for (const auto& [subject, s] : streams_) {
      all.push_back(s.get());
      std::lock_guard<std::mutex> stream_lock(s->mu);
      s->next_seq = 0;  // a new gateway numbers afresh
    }
  }
  if (!l1.empty()) request(7, l1.data(), l1.size() * sizeof(ApiCodeItem));
  if (!l2.empty()) request(9, l2.data(), l2.size() * sizeof(ApiCodeItem));
  for (const auto& m : markets) request(54, &m, sizeof(m));
  // As from the vendor: the report first, then what the streams bring,
  // the records held since the loss after what the stream kept.
  restores_.fetch_add(1);
  bus::log_line("bus", "the gateway is back; subscriptions made again");
  if (CDataApiCallBack* cb = callback_.load()) cb->OnConnectStatus(0, 1);
  catch_up(all);
  return true;
}

void BusApi::monitor() {
  bool up = true;
  std::unique_lock<std::mutex> lock(monitor_mu_);
  while (!stopping_) {
    lock.unlock();
    // The least recent beat of the gateways heard (before any, the connect).
    int64_t beat = beat_at_ms_.load();
    {
      std::lock_guard<std::mutex> routes_lock(routes_mu_);
      if (!gateways_.empty()) beat = INT64_MAX;
      for (const auto& [name, seen] : gateways_) beat = std::min(beat, seen.second);
    }
    // A gateway restarted, or forgot this host (it was silent too long):
    // the host hears the connection lost and joins again.
    bool restarted = gateway_restarted_.exchange(false) || forgotten_.exchange(false);
    bool silent = !restarted && NowMs() - beat > settings_.dead_ms;
    CDataApiCallBack* cb = callback_.load();
    if (up && (silent || restarted)) {
      up = false;
      bus::log_line("bus", restarted ? "the gateway restarted" : "the gateway went silent");
      if (cb != nullptr) cb->OnConnectStatus(0, 0);
      // Held from now until the connection is reported restored.
      std::lock_guard<std::mutex> streams_lock(mu_);
      for (const auto& [subject, s] : streams_) {
        std::lock_guard<std::mutex> stream_lock(s->mu);
        s->catching = true;
      }
    }
    if (restarted) {
      // Restored from the next round on, when the gateways answer.
    } else if (!up && !silent && beat > 0 && restore()) {
      up = true;
    } else if (up && catch_up_all_.exchange(false)) {
      std::vector<Stream*> all;
      {
        std::lock_guard<std::mutex> streams_lock(mu_);
        for (const auto& [subject, s] : streams_) all.push_back(s.get());
      }
      catch_up(all);
    }
    lock.lock();
    monitor_cv_.wait_for(lock, std::chrono::milliseconds(settings_.beat_ms), [this] { return stopping_; });
  }
}

void BusApi::beat_loop() {
  // A thread of its own: a catch-up on the monitor's thread may take seconds.
  std::string alive = settings_.name + ".alive." + host_;
  std::unique_lock<std::mutex> lock(monitor_mu_);
  while (!stopping_) {
    lock.unlock();
    natsConnection_Publish(nc_, alive.c_str(), "", 0);
    lock.lock();
    monitor_cv_.wait_for(lock, std::chrono::milliseconds(settings_.beat_ms), [this] { return stopping_; });
  }
}

void BusApi::teardown() {
  {
    std::lock_guard<std::mutex> lock(monitor_mu_);
    stopping_ = true;
  }
  monitor_cv_.notify_all();
  if (monitor_.joinable() && monitor_.get_id() != std::this_thread::get_id()) monitor_.join();
  if (beater_.joinable()) beater_.join();
  if (nc_ != nullptr) {
    natsConnection_Close(nc_);
    for (auto& f : fixed_) natsSubscription_Destroy(f->sub);
    std::lock_guard<std::mutex> lock(mu_);
    for (auto& [subject, s] : streams_) natsSubscription_Destroy(s->sub);
    for (auto& s : retired_) natsSubscription_Destroy(s->sub);
    natsConnection_Destroy(nc_);
    nc_ = nullptr;
  }
  std::lock_guard<std::mutex> lock(mu_);
  fixed_.clear();
  streams_.clear();
  retired_.clear();
  l1_.clear();
  l2_.clear();
  markets_.clear();
  std::lock_guard<std::mutex> routes_lock(routes_mu_);
  gateways_.clear();
  greeted_.clear();
}

int BusApi::Release() {
  // Every gateway this host used lets it go.
  int rc = 0;
  if (nc_ != nullptr) {
    std::set<std::string> routes;
    {
      std::lock_guard<std::mutex> lock(routes_mu_);
      routes = greeted_;
    }
    for (const std::string& route : routes) rc = std::min(rc, send(capture::kRelease, route, nullptr, 0, nullptr));
  }
  // The library releases from inside a callback (the service closing the
  // session) as well: the monitor thread ends on its own then.
  teardown();
  return rc < 0 ? 0 : rc;
}

}  // namespace busapi
