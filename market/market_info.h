// The market table: one MarketInfo per market of the quote service.
#ifndef KELQUOTE_MARKET_MARKET_INFO_H_
#define KELQUOTE_MARKET_MARKET_INFO_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavr {

struct BaseCodeInfo;
using CodeTable = std::map<std::string, std::shared_ptr<BaseCodeInfo>>;

// Header fields and both code tables are read and written under
// MarketTable::codes_mu; the state flags are atomic so that waiting readers
// may poll them without it.
struct MarketInfo {
  uint8_t market_id = 0;
  uint8_t market_type = 0;
  char market_desc[32] = {0};
  uint8_t flag_a = 0;
  uint8_t flag_b = 0;
  int32_t trade_date = 0;
  int32_t trade_date_extra = 0;
  uint32_t code_count = 0;
  std::string name;
  CodeTable base_codes;   // guarded by MarketTable::codes_mu
  int32_t start_date = 0;
  CodeTable other_codes;  // guarded by MarketTable::codes_mu
  int32_t second_date = 0;
  std::atomic<bool> initialised{false};
  std::atomic<bool> other_base_ready{false};
  std::atomic<bool> ref_info_ready{false};
  std::atomic<bool> reinit_pending{false};
  uint32_t status_checksum = 0;
};

// The instrument lock. Whoever takes it through lock() may change the tables,
// so that unlock advances the generation; a reader that changes nothing locks
// read_only() and leaves it. A service thread may keep what it looked up for
// as long as the generation stands.
class CodesMutex {
 public:
  void lock() { mu_.lock(); }
  bool try_lock() { return mu_.try_lock(); }
  void unlock() {
    touch();
    mu_.unlock();
  }
  std::mutex& read_only() { return mu_; }
  // For a reply that changes many records: each change under edit(), then
  // one touch() once the reply is done, so that kept lookups go once a reply.
  std::mutex& edit() { return mu_; }
  uint64_t generation() const { return generation_.load(std::memory_order_acquire); }
  void touch() { generation_.fetch_add(1, std::memory_order_acq_rel); }

 private:
  std::mutex mu_;
  // Apart from the lock word: read on every snapshot, written on a change.
  alignas(64) std::atomic<uint64_t> generation_{1};
};

class MarketTable {
 public:
  // Puts a fresh record under name, replacing any record of that name.
  void add_market(const std::string& name, int32_t start_date, int32_t second_date);
  // The record of name, or null.
  std::shared_ptr<MarketInfo> find(const std::string& name) const;
  size_t size() const;
  // Empties both instrument tables of every market.
  void clear_codes();

  // The instrument lock: guards every market's header fields, base_codes and
  // other_codes. Held only to read or copy, never across a wait or a callback.
  mutable CodesMutex codes_mu;

 private:
  mutable std::mutex mu_;
  std::map<std::string, std::shared_ptr<MarketInfo>> markets_;
};

}  // namespace tavr

#endif  // KELQUOTE_MARKET_MARKET_INFO_H_
