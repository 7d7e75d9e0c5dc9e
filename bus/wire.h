// What travels on the bus: the capture file's records (a 16-byte head, then
// the callback's bytes, a request with its number, or a request's result),
// their subjects, the settings both ends read, and the connection to the
// NATS servers.
//
// Subjects, under a bus name (setting "name", default "kq"):
//   <n>.req.<M|any>.<host>    a host's requests (request/reply), by market: the gateway of M answers
//   <n>.host.<host>.<g>       gateway g's replies routed to one host (history and finance under its own ids)
//   <n>.l1.<M>.<code>         level-1 snapshots           (these five kept by
//   <n>.l2.<slot>.<M>.<code>  level-2 records              JetStream in the
//   <n>.mkt.<M>               whole-market packages        stream of M's gateway)
//   <n>.push.<g>.<slot>       replies nobody asked for         (with these two, in
//   <n>.status.<g>            the service's connection          KQ_<n>_<g> of gateway g)
//   <n>.beat.<g>              gateway g's heartbeat (instance, service state)
//   <n>.alive.<host>          a host's heartbeat
// A message holds one or more records of its subject. On the bus the
// head's two bytes that files keep zero number the records of a subject
// (1 to 65535, then 1 again), so that a host sees a gap.
// A record longer than the servers' payload limit goes as chunks, each
// "KQCK", u32 index, u32 count, then its piece of the record.
#ifndef KELQUOTE_BUS_WIRE_H_
#define KELQUOTE_BUS_WIRE_H_

#include <nats/nats.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "capture/capture_file.h"

namespace bus {

struct Settings {
  std::string urls = "nats://127.0.0.1:4222";
  std::string user, password;
  std::string creds;     // a NATS credentials file (user JWT and key seed)
  std::string nkey_seed; // a file holding an NKey seed (with nkey_public)
  std::string nkey_public;
  std::string tls_ca, tls_cert, tls_key;
  bool tls = false;
  bool randomize = true;  // false: the servers in the order listed
  std::string name = "kq";
  // Gateways that split the markets: each has a name of its own (its
  // stream KQ_<name>_<gateway>, its heartbeat and its reports) and answers
  // the requests of its markets; one of them also those tied to none.
  std::string gateway = "main";
  std::vector<std::string> markets;  // market tokens ("SH"); empty: all
  int common = -1;                   // answers requests tied to no market; -1: when it serves all
  bool serves_common() const { return common < 0 ? markets.empty() : common != 0; }
  int64_t since_ms = 0;  // catch up from this time (Unix ms) at each first subscribe; 0 none
  int retention_hours = 24;
  int replicas = 1;
  int64_t max_bytes = int64_t{4} << 30;
  int beat_ms = 250;
  int dead_ms = 2000;
  int request_timeout_ms = 5000;
};

// key = value lines ('#' comments); names as in Settings. False with error
// naming the line for anything not understood; settings keeps what came before.
// One setting by its name in the file; false with why.
bool apply_setting(Settings* settings, const std::string& key, const std::string& value, std::string* why);
bool read_settings_file(const std::string& path, Settings* settings, std::string* error);
// KELQUOTE_BUS_URL, _USER, _PASSWORD, _CREDS, _NAME, _SINCE, _TLS_CA,
// _TLS_CERT, _TLS_KEY; KELQUOTE_BUS_SETTINGS names a file read first
// (without it, kDefaultSettings when there is one).
inline constexpr char kDefaultSettings[] = "./ini/KELQuoteBus.config";
bool settings_from_environment(Settings* settings, std::string* error, bool read_file = true);

// Connects with the settings: every server in the list, reconnecting
// without end. Null with error on failure.
struct Handlers {
  natsConnectionHandler disconnected = nullptr, reconnected = nullptr;
  natsErrHandler error = nullptr;
  void* closure = nullptr;
  // Subscriptions share the library's delivery threads instead of one each.
  bool shared_delivery = false;
  // Each publish goes out on the calling thread, not after the client's
  // flusher thread has waited for more (about a millisecond).
  bool send_asap = false;
  // Publishes fail while reconnecting instead of waiting in the library's
  // buffer: the caller resends them itself, after what the dead server lost.
  bool no_reconnect_buffer = false;
};
natsConnection* connect(const Settings& settings, const std::string& client_name, const Handlers& handlers,
                        std::string* error);

// Unix nanoseconds, strictly increasing across the calls of the process: a
// record's time on the bus, which orders and deduplicates it.
uint64_t next_ns();

// Encodes a record (head, then the parts) into out.
void encode(capture::Kind kind, uint8_t code, uint64_t ns, const void* a, size_t a_size, const void* b, size_t b_size,
            const void* c, size_t c_size, std::vector<uint8_t>* out);

struct View {
  capture::Kind kind;
  uint8_t code;
  uint16_t seq;  // the record's number in its subject (head bytes 6-7, zero in files); 0 none
  uint64_t ns;
  const uint8_t* payload;
  size_t size;
};
// Checks a whole record's head: false with why for anything else. A
// callback's payload must be exactly what its count calls for.
bool decode(const uint8_t* data, size_t size, View* view, std::string* why);

// Calls fn(view) for each whole record of a message (a message holds one or
// more records of its subject, back to back). False with why at the first
// record that is not whole or not valid; the records before it were handed on.
template <typename Fn>
bool for_each_record(const uint8_t* data, size_t size, Fn&& fn, std::string* why) {
  size_t at = 0;
  while (at < size) {
    if (size - at < 4) {
      *why = "a record head cut short";
      return false;
    }
    uint32_t length;
    std::memcpy(&length, data + at, 4);
    if (length > size - at - 4) {
      *why = "record length " + std::to_string(length) + " beyond the message";
      return false;
    }
    View v;
    if (!decode(data + at, length + size_t{4}, &v, why)) return false;
    fn(v);
    at += length + size_t{4};
  }
  return true;
}

// Publishes bytes on subject, in chunks when beyond the connection's limit.
natsStatus publish(natsConnection* nc, const char* subject, const uint8_t* data, size_t size);
// The messages publish would send, each handed to send in order; reserve:
// bytes of the server's limit kept for headers. Stops at the first failure.
natsStatus split(natsConnection* nc, const uint8_t* data, size_t size, size_t reserve,
                 const std::function<natsStatus(const uint8_t*, size_t)>& send);

// Puts chunks of one subject back together.
class Assembly {
 public:
  // A whole record in *data/*size (valid until the next feed), or false
  // while chunks are missing or after a broken sequence (why set).
  bool feed(const uint8_t* data, size_t size, const uint8_t** out, size_t* out_size, std::string* why);

 private:
  std::vector<uint8_t> buf_;
  uint32_t next_ = 0, count_ = 0;
};

// Subject tokens: the market name, and the code with every character
// outside [A-Za-z0-9_-] written as ~HH.
std::string code_token(const char* code, size_t max);
// The stream subject of a callback record, empty when it has none.
std::string stream_subject(const std::string& name, int slot, const uint8_t* bytes, size_t size);
std::string l1_subject(const std::string& name, int market, const char* code, size_t max);
std::string l2_pattern(const std::string& name, int market, const char* code, size_t max);
std::string market_subject(const std::string& name, int market);

// The subject token a request is routed by: the market it concerns
// ("SH"), or kCommonRoute for one tied to no market. A subscription list
// names one market (the host splits a list of several).
inline constexpr char kCommonRoute[] = "any";
std::string request_route(uint8_t op, const uint8_t* bytes, size_t size);

// A log line on standard error, at most once a second per site beyond the first few.
void log_line(const char* who, const std::string& text);

}  // namespace bus

#endif  // KELQUOTE_BUS_WIRE_H_
