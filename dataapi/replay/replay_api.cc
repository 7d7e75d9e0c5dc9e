#include "dataapi/replay/replay_api.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "capture/catalog.h"
#include "port/port.h"

namespace replay {

namespace {

using Clock = std::chrono::steady_clock;

// Bytes of a request that name what is asked, leaving out the request id.
bool SameRequest(const uint8_t* recorded, size_t recorded_size, const uint8_t* asked, size_t asked_size, int id_at,
                 bool loose) {
  if (loose) {
    // The same instrument (market and code, bytes 2 to 38) asked again on
    // another day: the dates differ, the answer is still the recorded one.
    return recorded_size >= 38 && asked_size >= 38 && std::memcmp(recorded + 2, asked + 2, 36) == 0;
  }
  if (recorded_size != asked_size) return false;
  if (id_at < 0 || asked_size < 2) return asked_size == 0 || std::memcmp(recorded, asked, asked_size) == 0;
  return std::memcmp(recorded + 2, asked + 2, asked_size - 2) == 0;
}

uint16_t IdAt(const uint8_t* bytes) {
  uint16_t id;
  std::memcpy(&id, bytes, sizeof(id));
  return id;
}

}  // namespace

ReplayApi::~ReplayApi() { stop_player(); }

bool ReplayApi::open(const std::string& path, double speed, std::string* error) {
  if (!(speed >= 0)) {
    *error = "replay speed must be 0 (as fast as possible) or more";
    return false;
  }
  capture::Reader reader;
  if (!reader.open(path)) {
    *error = reader.error();
    return false;
  }
  std::vector<Event> events;
  std::vector<uint8_t> bytes;
  std::map<uint32_t, size_t> requests;  // request number to its event
  capture::Record r;
  while (reader.next(r)) {
    if (r.kind == capture::Kind::kResult) {
      auto it = requests.find(r.number);
      if (it == requests.end()) continue;  // its request was dropped
      events[it->second].result = r.result;
      events[it->second].out_at = bytes.size();
      events[it->second].out_size = r.bytes.size();
    } else {
      Event event{r.kind, r.code, false, r.ns, bytes.size(), r.bytes.size()};
      if (r.kind == capture::Kind::kRequest) requests[r.number] = events.size();
      events.push_back(event);
    }
    bytes.insert(bytes.end(), r.bytes.begin(), r.bytes.end());
  }
  if (!reader.error().empty()) {
    *error = reader.error();
    return false;
  }
  stop_player();
  std::lock_guard<std::mutex> lock(mu_);
  events_ = std::move(events);
  bytes_ = std::move(bytes);
  pending_.clear();
  ids_.clear();
  for (size_t i = 0; i < events_.size(); ++i) {
    if (events_[i].kind == capture::Kind::kRequest) pending_[events_[i].code].push_back(i);
  }
  speed_ = speed;
  connects_in_file_ = pending_.count(capture::kConnect) != 0;
  played_ = false;
  loaded_ = true;
  done_ = false;
  return true;
}

bool ReplayApi::open_from_environment(std::string* error) {
  const char* path = std::getenv("KELQUOTE_REPLAY_FILE");
  if (path == nullptr || *path == '\0') {
    *error = "KELQUOTE_REPLAY_FILE names no capture file";
    return false;
  }
  double speed = 1;
  if (const char* text = std::getenv("KELQUOTE_REPLAY_SPEED"); text != nullptr && *text != '\0') {
    char* end = nullptr;
    speed = std::strtod(text, &end);
    if (end == text || *end != '\0' || speed < 0) {
      *error = std::string("KELQUOTE_REPLAY_SPEED is a number of 0 or more, not \"") + text + "\"";
      return false;
    }
  }
  return open(path, speed, error);
}

int ReplayApi::RegisterServer(const ServerTable*, CDataApiCallBack* callback) {
  callback_.store(callback);
  return 0;
}

long ReplayApi::match(uint8_t op, const uint8_t* bytes, size_t size) {
  auto list = pending_.find(op);
  if (list == pending_.end()) return -1;
  int id_at = capture::request_id_at(op);
  for (bool loose : {false, true}) {
    if (loose && id_at < 0) break;
    for (auto it = list->second.begin(); it != list->second.end(); ++it) {
      const Event& e = events_[*it];
      if (!SameRequest(bytes_.data() + e.at, e.size, bytes, size, id_at, loose)) continue;
      long index = static_cast<long>(*it);
      list->second.erase(it);
      return index;
    }
  }
  return -1;
}

int ReplayApi::Request(uint8_t op, const void* bytes, size_t size) {
  const auto* asked = static_cast<const uint8_t*>(bytes);
  std::lock_guard<std::mutex> lock(mu_);
  long index = loaded_ ? match(op, asked, size) : -1;
  if (index < 0) return -1;
  Event& e = events_[static_cast<size_t>(index)];
  e.consumed = true;
  if (capture::request_id_at(op) == 0 && e.size >= 2 && size >= 2) ids_[IdAt(bytes_.data() + e.at)] = IdAt(asked);
  cv_.notify_all();
  return e.result;
}

int ReplayApi::Connect(ConnectResult* result) {
  // A connect after the service closed the session (or a second login)
  // picks up at the recorded session's next connect.
  stop_player();
  bool loaded;
  {
    std::lock_guard<std::mutex> lock(mu_);
    loaded = loaded_;
  }
  std::string error;
  if (!loaded && !open_from_environment(&error)) {
    // There is no log of our own: the host's terminal is the place.
    std::fprintf(stderr, "[replay] %s\n", error.c_str());
    if (result != nullptr) *result = ConnectResult{-1, 0, 0};
    return -1;
  }
  long index;
  int rc;
  {
    std::lock_guard<std::mutex> lock(mu_);
    index = match(capture::kConnect, nullptr, 0);
    if (index < 0 && !connects_in_file_ && !played_) {
      // A later file of a rolled session starts connected.
      played_ = true;
      done_ = false;
      if (result != nullptr) *result = ConnectResult{0, 0, 0};
      stop_.store(false);
      player_ = std::thread([this] { play(0); });
      return 0;
    }
    if (index < 0) {
      if (result != nullptr) *result = ConnectResult{-1, 0, 0};
      return -1;
    }
    played_ = true;
    Event& e = events_[static_cast<size_t>(index)];
    e.consumed = true;
    rc = e.result;
    if (result != nullptr) {
      *result = ConnectResult{rc, 0, 0};
      if (e.out_size == sizeof(ConnectResult)) std::memcpy(result, bytes_.data() + e.out_at, sizeof(ConnectResult));
    }
    done_ = false;
  }
  stop_.store(false);
  if (rc == 0) player_ = std::thread([this, index] { play(static_cast<size_t>(index) + 1); });
  return rc;
}

int ReplayApi::Release() {
  int rc = Request(capture::kRelease, nullptr, 0);
  stop_player();
  return rc < 0 ? 0 : rc;
}

void ReplayApi::stop_player() {
  stop_.store(true);
  {
    std::lock_guard<std::mutex> lock(mu_);
    cv_.notify_all();
  }
  // The library releases from inside a callback (the service closing the
  // session): the player ends once that callback returns.
  if (player_.joinable() && player_.get_id() != std::this_thread::get_id()) player_.join();
}

bool ReplayApi::wait_done(int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return done_; });
}

void ReplayApi::play(size_t from) {
  Clock::time_point base_wall = Clock::now();
  uint64_t base_ns = from < events_.size() ? events_[from].ns : 0;
  bool after_request = false;
  for (size_t i = from; i < events_.size() && !stop_.load(std::memory_order_relaxed); ++i) {
    const Event& e = events_[i];
    if (e.kind == capture::Kind::kRequest) {
      if (e.code == capture::kConnect) break;  // the recorded session connected again: so must the library
      std::unique_lock<std::mutex> lock(mu_);
      // What the library did in reply to a request comes after it, as it
      // did when recorded.
      cv_.wait_for(lock, std::chrono::milliseconds(kRequestWaitMs), [&] { return e.consumed || stop_.load(); });
      base_wall = Clock::now();
      base_ns = e.ns;
      after_request = true;
      continue;
    }
    // Even at full speed, the first callback after a request keeps its
    // recorded distance (up to kSettleNs): the library finishes a request
    // (a subscriber registered) after the call returns, and a record that
    // came sooner would meet a state the recorded one did not.
    uint64_t gap = e.ns > base_ns ? e.ns - base_ns : 0;
    if (speed_ == 0 && after_request) gap = std::min<uint64_t>(gap, kSettleNs);
    if ((speed_ > 0 || after_request) && gap > 0) {
      auto due = base_wall + std::chrono::nanoseconds(static_cast<int64_t>(gap / (speed_ > 0 ? speed_ : 1)));
      if (due > Clock::now()) {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait_until(lock, due, [&] { return stop_.load(); });
      }
    }
    after_request = false;
    if (CDataApiCallBack* callback = callback_.load()) deliver(e, callback);
  }
  std::lock_guard<std::mutex> lock(mu_);
  done_ = true;
  cv_.notify_all();
}

void ReplayApi::deliver(const Event& e, CDataApiCallBack* callback) {
  const uint8_t* bytes = bytes_.data() + e.at;
  if (e.code == capture::kConnectStatusSlot) {
    int32_t both[2] = {0, 0};
    if (e.size != sizeof(both)) return;
    std::memcpy(both, bytes, sizeof(both));
    callback->OnConnectStatus(both[0], both[1]);
    return;
  }
  capture::Callback fn = capture::slot_callback(e.code);
  if (fn == nullptr) return;
  if (capture::reply_id_at(e.code) == 0 && e.size >= 2) {
    uint16_t id;
    {
      std::lock_guard<std::mutex> lock(mu_);
      auto it = ids_.find(IdAt(bytes));
      if (it == ids_.end()) {
        unmatched_.fetch_add(1);
        return;
      }
      id = it->second;
    }
    scratch_.assign(bytes, bytes + e.size);
    std::memcpy(scratch_.data(), &id, sizeof(id));
    bytes = scratch_.data();
  }
  // A full queue refuses a record (-1); a vendor sends it again, so does the replay.
  for (int attempt = 0; attempt < 1000 && (callback->*fn)(bytes) != 0 && !stop_.load(); ++attempt) port::SleepMs(1);
}

}  // namespace replay
