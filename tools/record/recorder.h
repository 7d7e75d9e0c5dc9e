// The recorder as a host of the library: subscribes what the settings
// name, turns snapshots into tick rows, one-minute and daily bars for the
// writer, and asks history for what a start or a reconnect left out.
#ifndef KELQUOTE_TOOLS_RECORD_RECORDER_H_
#define KELQUOTE_TOOLS_RECORD_RECORDER_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kelquote/BaseQuoteClient.h"
#include "store/store.h"
#include "tools/record/bars.h"
#include "tools/record/settings.h"
#include "tools/record/writer.h"

namespace record {

class Recorder {
 public:
  // client and writer stay the caller's; the client is logged in.
  Recorder(tavr::BaseQuoteClient* client, const Settings& settings, Writer* writer);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Checks every symbol and market against the service's lists, then
  // subscribes; false with *error naming what is unknown.
  bool Start(std::string* error);
  // Unsubscribes, hands the open bars to the writer and ends the backfill.
  void Stop();
  // The library's connection reports: after a restore (0), the next
  // snapshot of each symbol starts its bars again and history fills the gap.
  void OnConnection(int code);

  uint64_t received() const { return received_.load(std::memory_order_relaxed); }
  uint64_t backfilled() const { return backfilled_.load(std::memory_order_relaxed); }
  size_t backfills_waiting();
  // Messages for the console (backfill failures), from the recorder's threads.
  void set_note(std::function<void(const std::string&)> note) { note_ = std::move(note); }

  // One snapshot of code.market: rows for the batch (used by the
  // subscriptions' callbacks; public for tests).
  void OnSnapshot(const std::string& code, const std::string& market, const quoter::QuoterAllData& data,
                  bool backfill, kqstore::Batch* out);

 private:
  struct Symbol {
    BarBuilder bars;
    int64_t last_time = 0;
    int32_t seq = 0;
    bool need_backfill = true;
    int64_t trade_time = 0;  // the latest level-2 trade's time and its seq
    int32_t trade_seq = 0;
    int64_t daily_minute = 0;  // when the daily bar last went out
    std::optional<kqstore::Bar> daily;
  };
  struct Gap {
    std::string code, market;
    int64_t first_live = 0;   // time of the first snapshot after the gap
    int64_t bars_until = 0;   // end of the base's minute
  };
  void OnTrades(const std::string& code, const std::string& market, const tavr::QuoteRecords& records);
  void Backfill();
  void FillGap(kqstore::Store* store, const Gap& gap);
  // Waits for every block of one history request.
  tavr::QuoteRecords History(const std::string& code, const std::string& market, int32_t meta, int64_t period,
                             int64_t from, int64_t to, bool* ok);

  tavr::BaseQuoteClient* client_;
  Settings settings_;
  Writer* writer_;
  std::function<void(const std::string&)> note_ = [](const std::string&) {};
  std::vector<int> subscriptions_, whole_;
  std::mutex mu_;
  std::unordered_map<std::string, Symbol> symbols_;
  std::unordered_map<std::string, bool> backfill_allowed_;  // the named symbols
  std::atomic<uint64_t> received_{0}, backfilled_{0};

  std::mutex gaps_mu_;
  std::condition_variable gaps_cv_;
  std::deque<Gap> gaps_;
  bool stopping_ = false;
  bool filling_ = false;
  std::thread backfill_;
};

}  // namespace record

#endif  // KELQUOTE_TOOLS_RECORD_RECORDER_H_
