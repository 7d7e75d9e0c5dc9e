#include "bus/wire.h"

#include <algorithm>
#include <cstddef>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>

#include "capture/catalog.h"
#include "dataapi/record_size.h"
#include "utils/settings_lines.h"
#include "dataapi/ApiRecords.h"

namespace bus {

namespace {

constexpr char kChunkMagic[4] = {'K', 'Q', 'C', 'K'};
constexpr size_t kChunkHead = 12;

bool ParseInt(const std::string& text, int64_t lo, int64_t hi, int64_t* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// A subject token as the settings may name one.
bool Token(const std::string& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
  });
}

// One setting; false with why.
bool Apply(Settings* s, const std::string& key, const std::string& value, std::string* why) {
  int64_t n = 0;
  if (key == "url" || key == "urls") {
    s->urls = value;
  } else if (key == "user") {
    s->user = value;
  } else if (key == "password") {
    s->password = value;
  } else if (key == "creds") {
    s->creds = value;
  } else if (key == "nkey_seed") {
    s->nkey_seed = value;
  } else if (key == "nkey_public") {
    s->nkey_public = value;
  } else if (key == "tls_ca") {
    s->tls_ca = value;
    s->tls = true;
  } else if (key == "tls_cert") {
    s->tls_cert = value;
    s->tls = true;
  } else if (key == "tls_key") {
    s->tls_key = value;
  } else if (key == "tls") {
    if (value != "true" && value != "false" && value != "1" && value != "0") {
      *why = "tls is true or false, not \"" + value + "\"";
      return false;
    }
    s->tls = value == "true" || value == "1";
  } else if (key == "randomize") {
    if (value != "true" && value != "false" && value != "1" && value != "0") {
      *why = "randomize is true or false, not \"" + value + "\"";
      return false;
    }
    s->randomize = value == "true" || value == "1";
  } else if (key == "name") {
    for (char c : value) {
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') {
        *why = "name is letters, digits, _ and -, not \"" + value + "\"";
        return false;
      }
    }
    if (value.empty()) {
      *why = "name is empty";
      return false;
    }
    s->name = value;
  } else if (key == "gateway") {
    if (!Token(value)) {
      *why = "gateway is letters, digits, _ and -, not \"" + value + "\"";
      return false;
    }
    s->gateway = value;
  } else if (key == "markets") {
    // SH,SZ (or the service's numbers); "all" or empty: every market.
    std::vector<std::string> list;
    size_t at = 0;
    while (value != "all" && at < value.size()) {
      size_t comma = value.find(',', at);
      if (comma == std::string::npos) comma = value.size();
      std::string m = value.substr(at, comma - at);
      while (!m.empty() && m.back() == ' ') m.pop_back();
      while (!m.empty() && m.front() == ' ') m.erase(0, 1);
      bool digits = !m.empty() && m.size() < 4 && std::all_of(m.begin(), m.end(), [](char c) { return c >= '0' && c <= '9'; });
      if (digits) m = capture::market_name(std::atoi(m.c_str()));
      if (!Token(m) || m == kCommonRoute) {
        *why = "markets is a list like SH,SZ, not \"" + value + "\"";
        return false;
      }
      list.push_back(m);
      at = comma + 1;
    }
    s->markets = list;
  } else if (key == "common") {
    if (value != "true" && value != "false" && value != "1" && value != "0") {
      *why = "common is true or false, not \"" + value + "\"";
      return false;
    }
    s->common = value == "true" || value == "1" ? 1 : 0;
  } else if (key == "since") {
    // Unix milliseconds, or -N: N seconds before now.
    if (!ParseInt(value, -(int64_t{1} << 40), int64_t{1} << 50, &n)) {
      *why = "since is Unix milliseconds or -seconds, not \"" + value + "\"";
      return false;
    }
    s->since_ms = n >= 0 ? n
                         : std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                                   .count() +
                               n * 1000;
  } else if (key == "retention_hours") {
    if (!ParseInt(value, 1, 24 * 366, &n)) {
      *why = "retention_hours is 1 to 8784, not \"" + value + "\"";
      return false;
    }
    s->retention_hours = static_cast<int>(n);
  } else if (key == "replicas") {
    if (!ParseInt(value, 1, 5, &n)) {
      *why = "replicas is 1 to 5, not \"" + value + "\"";
      return false;
    }
    s->replicas = static_cast<int>(n);
  } else if (key == "max_mb") {
    if (!ParseInt(value, 1, int64_t{1} << 24, &n)) {
      *why = "max_mb is 1 to 16777216, not \"" + value + "\"";
      return false;
    }
    s->max_bytes = n << 20;
  } else if (key == "beat_ms" || key == "dead_ms" || key == "request_timeout_ms") {
    if (!ParseInt(value, 10, 600000, &n)) {
      *why = key + " is 10 to 600000, not \"" + value + "\"";
      return false;
    }
    (key == "beat_ms" ? s->beat_ms : key == "dead_ms" ? s->dead_ms : s->request_timeout_ms) = static_cast<int>(n);
  } else {
    *why = "unknown setting \"" + key + "\"";
    return false;
  }
  return true;
}

int64_t UnixNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

bool apply_setting(Settings* settings, const std::string& key, const std::string& value, std::string* why) {
  return Apply(settings, key, value, why);
}

bool read_settings_file(const std::string& path, Settings* settings, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot be read";
    return false;
  }
  auto apply = [settings](const std::string& key, const std::string& value, std::string* why) {
    return Apply(settings, key, value, why);
  };
  if (utils::read_settings_lines(in, apply, error)) return true;
  *error = path + " " + *error;
  return false;
}

bool settings_from_environment(Settings* settings, std::string* error, bool read_file) {
  const char* file = std::getenv("KELQUOTE_BUS_SETTINGS");
  if (read_file && file != nullptr && *file != '\0') {
    if (!read_settings_file(file, settings, error)) return false;
  } else if (read_file && std::ifstream(kDefaultSettings).good()) {
    // Beside the capture setting, in the folder a terminal runs in.
    if (!read_settings_file(kDefaultSettings, settings, error)) return false;
  }
  static const char* const kNames[][2] = {
      {"KELQUOTE_BUS_URL", "url"},         {"KELQUOTE_BUS_USER", "user"},     {"KELQUOTE_BUS_PASSWORD", "password"},
      {"KELQUOTE_BUS_CREDS", "creds"},     {"KELQUOTE_BUS_NAME", "name"},     {"KELQUOTE_BUS_SINCE", "since"},
      {"KELQUOTE_BUS_TLS_CA", "tls_ca"},   {"KELQUOTE_BUS_TLS_CERT", "tls_cert"}, {"KELQUOTE_BUS_TLS_KEY", "tls_key"},
  };
  for (const auto& pair : kNames) {
    const char* value = std::getenv(pair[0]);
    if (value == nullptr || *value == '\0') continue;
    std::string why;
    if (!Apply(settings, pair[1], value, &why)) {
      *error = std::string(pair[0]) + ": " + why;
      return false;
    }
  }
  return true;
}

natsConnection* connect(const Settings& s, const std::string& client_name, const Handlers& h, std::string* error) {
  natsOptions* opts = nullptr;
  natsConnection* nc = nullptr;
  std::vector<std::string> urls;
  for (size_t at = 0; at <= s.urls.size();) {
    size_t comma = s.urls.find(',', at);
    if (comma == std::string::npos) comma = s.urls.size();
    std::string url = utils::trim_setting(s.urls.substr(at, comma - at));
    if (!url.empty()) urls.push_back(url);
    at = comma + 1;
  }
  std::vector<const char*> list;
  for (const auto& u : urls) list.push_back(u.c_str());
  natsStatus st = natsOptions_Create(&opts);
  auto step = [&](natsStatus next) {
    if (st == NATS_OK) st = next;
  };
  if (list.empty()) {
    *error = "no server URL";
    natsOptions_Destroy(opts);
    return nullptr;
  }
  step(natsOptions_SetServers(opts, list.data(), static_cast<int>(list.size())));
  step(natsOptions_SetName(opts, client_name.c_str()));
  if (!s.user.empty()) step(natsOptions_SetUserInfo(opts, s.user.c_str(), s.password.c_str()));
  if (!s.creds.empty()) step(natsOptions_SetUserCredentialsFromFiles(opts, s.creds.c_str(), nullptr));
  if (!s.nkey_seed.empty()) {
    step(natsOptions_SetNKeyFromSeed(opts, s.nkey_public.c_str(), s.nkey_seed.c_str()));
  }
  if (s.tls) {
    step(natsOptions_SetSecure(opts, true));
    if (!s.tls_ca.empty()) step(natsOptions_LoadCATrustedCertificates(opts, s.tls_ca.c_str()));
    if (!s.tls_cert.empty()) step(natsOptions_LoadCertificatesChain(opts, s.tls_cert.c_str(), s.tls_key.c_str()));
  }
  if (!s.randomize) step(natsOptions_SetNoRandomize(opts, true));
  step(natsOptions_SetMaxReconnect(opts, -1));
  step(natsOptions_SetReconnectWait(opts, 100));
  step(natsOptions_SetReconnectBufSize(opts, h.no_reconnect_buffer ? 1 : 64 << 20));
  step(natsOptions_SetMaxPendingMsgs(opts, 1 << 20));
  step(natsOptions_SetTimeout(opts, 2000));
  step(natsOptions_SetPingInterval(opts, 1000));
  step(natsOptions_SetMaxPingsOut(opts, 3));
  if (h.shared_delivery) step(natsOptions_UseGlobalMessageDelivery(opts, true));
  if (h.send_asap) step(natsOptions_SetSendAsap(opts, true));
  if (h.disconnected != nullptr) step(natsOptions_SetDisconnectedCB(opts, h.disconnected, h.closure));
  if (h.reconnected != nullptr) step(natsOptions_SetReconnectedCB(opts, h.reconnected, h.closure));
  if (h.error != nullptr) step(natsOptions_SetErrorHandler(opts, h.error, h.closure));
  if (st == NATS_OK) st = natsConnection_Connect(&nc, opts);
  if (st != NATS_OK) {
    *error = std::string("cannot connect to ") + s.urls + ": " + natsStatus_GetText(st);
    if (const char* last = nats_GetLastError(nullptr); last != nullptr && *last != '\0') *error += std::string(" (") + last + ")";
    nc = nullptr;
  }
  natsOptions_Destroy(opts);
  return nc;
}

uint64_t next_ns() {
  static std::atomic<uint64_t> last{0};
  uint64_t now = static_cast<uint64_t>(UnixNs());
  uint64_t prev = last.load(std::memory_order_relaxed);
  for (;;) {
    uint64_t next = now > prev ? now : prev + 1;
    if (last.compare_exchange_weak(prev, next, std::memory_order_relaxed)) return next;
  }
}

void encode(capture::Kind kind, uint8_t code, uint64_t ns, const void* a, size_t a_size, const void* b, size_t b_size,
            const void* c, size_t c_size, std::vector<uint8_t>* out) {
  size_t payload = a_size + b_size + c_size;
  out->resize(capture::kRecordHeadBytes + payload);
  capture::encode_record_head(kind, code, ns, payload, out->data());
  uint8_t* at = out->data() + capture::kRecordHeadBytes;
  if (a_size > 0) std::memcpy(at, a, a_size);
  if (b_size > 0) std::memcpy(at + a_size, b, b_size);
  if (c_size > 0) std::memcpy(at + a_size + b_size, c, c_size);
}

bool decode(const uint8_t* data, size_t size, View* view, std::string* why) {
  if (size < capture::kRecordHeadBytes) {
    *why = "message of " + std::to_string(size) + " bytes, shorter than a record head";
    return false;
  }
  uint32_t length;
  std::memcpy(&length, data, 4);
  if (length != size - 4) {
    *why = "record length " + std::to_string(length) + " in a message of " + std::to_string(size) + " bytes";
    return false;
  }
  uint8_t kind = data[4];
  if (kind < 1 || kind > 3) {
    *why = "record kind " + std::to_string(kind);
    return false;
  }
  view->kind = static_cast<capture::Kind>(kind);
  view->code = data[5];
  std::memcpy(&view->seq, data + 6, 2);
  std::memcpy(&view->ns, data + 8, 8);
  view->payload = data + capture::kRecordHeadBytes;
  view->size = size - capture::kRecordHeadBytes;
  if (view->kind == capture::Kind::kCallback) {
    if (view->code == capture::kConnectStatusSlot) {
      if (view->size == 8) return true;
      *why = "connection status of " + std::to_string(view->size) + " bytes";
      return false;
    }
    size_t least = api_record::min_bytes(view->code);
    if (least == 0 || capture::slot_callback(view->code) == nullptr) {
      *why = "callback slot " + std::to_string(view->code) + " carries no record";
      return false;
    }
    if (view->size < least || api_record::size(view->code, view->payload) != view->size) {
      *why = std::string(capture::slot_name(view->code)) + " of " + std::to_string(view->size) +
             " bytes disagrees with its count";
      return false;
    }
  } else if (view->code < 1 || view->code > capture::kOps || view->size < (view->kind == capture::Kind::kResult ? 8u : 4u)) {
    *why = "request or result of operation " + std::to_string(view->code) + ", " + std::to_string(view->size) + " bytes";
    return false;
  }
  return true;
}

natsStatus publish(natsConnection* nc, const char* subject, const uint8_t* data, size_t size) {
  return split(nc, data, size, 0, [&](const uint8_t* p, size_t n) {
    return natsConnection_Publish(nc, subject, p, static_cast<int>(n));
  });
}

natsStatus split(natsConnection* nc, const uint8_t* data, size_t size, size_t reserve,
                 const std::function<natsStatus(const uint8_t*, size_t)>& send) {
  int64_t limit = natsConnection_GetMaxPayload(nc);
  if (limit <= 0) limit = 1 << 20;
  limit -= static_cast<int64_t>(reserve);
  if (static_cast<int64_t>(size) <= limit) return send(data, size);
  size_t piece = static_cast<size_t>(limit) - kChunkHead;
  uint32_t count = static_cast<uint32_t>((size + piece - 1) / piece);
  std::vector<uint8_t> chunk(kChunkHead + piece);
  natsStatus st = NATS_OK;
  for (uint32_t i = 0; i < count && st == NATS_OK; ++i) {
    size_t n = std::min(piece, size - i * piece);
    std::memcpy(chunk.data(), kChunkMagic, 4);
    std::memcpy(chunk.data() + 4, &i, 4);
    std::memcpy(chunk.data() + 8, &count, 4);
    std::memcpy(chunk.data() + kChunkHead, data + i * piece, n);
    st = send(chunk.data(), kChunkHead + n);
  }
  return st;
}

bool Assembly::feed(const uint8_t* data, size_t size, const uint8_t** out, size_t* out_size, std::string* why) {
  if (size < kChunkHead || std::memcmp(data, kChunkMagic, 4) != 0) {
    if (count_ != 0) *why = "a record's chunks broken off";
    count_ = next_ = 0;
    *out = data;
    *out_size = size;
    return true;
  }
  uint32_t index, count;
  std::memcpy(&index, data + 4, 4);
  std::memcpy(&count, data + 8, 4);
  if (index == 0) {
    buf_.clear();
    count_ = count;
    next_ = 0;
  }
  if (count_ == 0 || index != next_ || count != count_ || buf_.size() + size - kChunkHead > capture::kMaxRecordLength + 16) {
    *why = "chunk " + std::to_string(index) + " of " + std::to_string(count) + " out of sequence";
    count_ = next_ = 0;
    return false;
  }
  buf_.insert(buf_.end(), data + kChunkHead, data + size);
  if (++next_ < count_) return false;
  count_ = next_ = 0;
  *out = buf_.data();
  *out_size = buf_.size();
  return true;
}

std::string code_token(const char* code, size_t max) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < max && code[i] != '\0'; ++i) {
    unsigned char c = static_cast<unsigned char>(code[i]);
    if (std::isalnum(c) || c == '_' || c == '-') {
      out += static_cast<char>(c);
    } else {
      out += '~';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out.empty() ? std::string("_") : out;
}

std::string l1_subject(const std::string& name, int market, const char* code, size_t max) {
  return name + ".l1." + capture::market_name(market) + "." + code_token(code, max);
}

std::string l2_pattern(const std::string& name, int market, const char* code, size_t max) {
  return name + ".l2.*." + capture::market_name(market) + "." + code_token(code, max);
}

std::string request_route(uint8_t op, const uint8_t* bytes, size_t size) {
  int32_t market = -1;
  switch (op) {
    case 4: case 5: case 11: case 12: case 13:  // a market's id
      if (size == 4) std::memcpy(&market, bytes, 4);
      break;
    case 7: case 8: case 9: case 10: case 20:  // instruments: the market byte after the code
      if (size >= sizeof(ApiCodeItem)) market = bytes[offsetof(ApiCodeItem, market)];
      break;
    case 16: case 17: case 18: case 19: case 27: case 28: case 29: case 30: case 31: case 32: case 33: case 34:
    case 35: case 54: case 55:  // history, finance, market push: u16, then the market
      if (size >= 6) std::memcpy(&market, bytes + 2, 4);
      break;
    default:
      break;
  }
  // Market 0 is every market: a question for the gateway of none.
  return market > 0 ? capture::market_name(market) : std::string(kCommonRoute);
}

std::string market_subject(const std::string& name, int market) { return name + ".mkt." + capture::market_name(market); }

std::string stream_subject(const std::string& name, int slot, const uint8_t* bytes, size_t size) {
  switch (slot) {
    case 3:
      return size >= 37 ? l1_subject(name, bytes[0], reinterpret_cast<const char*>(bytes + 1), 36) : std::string();
    case 22: case 23: case 24: case 25: case 26: {
      int32_t count;
      uint32_t market;
      if (size < 44) return {};
      std::memcpy(&count, bytes + 4, 4);
      std::memcpy(&market, bytes + 8, 4);
      if (count <= 0) return {};
      return name + ".l2." + std::to_string(slot) + "." + capture::market_name(static_cast<int>(market)) + "." +
             code_token(reinterpret_cast<const char*>(bytes + 12), 32);
    }
    case 47: {
      uint16_t market;
      if (size < 2) return {};
      std::memcpy(&market, bytes, 2);
      return market_subject(name, market);
    }
    default:
      return {};
  }
}

void log_line(const char* who, const std::string& text) {
  static std::mutex mu;
  static int64_t window = 0;
  static int in_window = 0;
  static int64_t held = 0;
  int64_t second = UnixNs() / 1000000000;
  std::lock_guard<std::mutex> lock(mu);
  if (second != window) {
    if (held > 0) std::fprintf(stderr, "[%s] %lld more lines held back\n", who, static_cast<long long>(held));
    window = second;
    in_window = 0;
    held = 0;
  }
  if (++in_window > 20) {
    ++held;
    return;
  }
  std::time_t t = static_cast<std::time_t>(second);
  std::tm tm{};
  localtime_r(&t, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof(stamp), "%H:%M:%S", &tm);
  std::fprintf(stderr, "%s [%s] %s\n", stamp, who, text.c_str());
  std::fflush(stderr);
}

}  // namespace bus
