// Moves recorded rows into the store off the library's threads.
//
// Callbacks append rows to a pending batch (a lock and a copy, no I/O). An
// intake thread takes it every flush interval and hands it to the database
// thread when that one's slot is free and nothing waits on disk; otherwise
// the batch goes to the spool, which the database thread drains oldest first
// when its slot is empty. So the rows of a slow or absent database wait on
// disk, memory holds the pending rows and at most two batches (one being
// written, one in the slot), and the order of writes (the later value of a
// key wins) is kept.
#ifndef KELQUOTE_TOOLS_RECORD_WRITER_H_
#define KELQUOTE_TOOLS_RECORD_WRITER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "store/store.h"
#include "tools/record/spool.h"

namespace record {

struct WriterStatus {
  uint64_t written = 0;        // rows committed so far
  uint64_t pending = 0;        // rows in memory, not yet committed
  double behind_seconds = 0;   // age of the oldest row not yet committed
  size_t spool_files = 0;
  uint64_t spool_rows = 0;
  uint64_t spool_bytes = 0;
  uint64_t dropped_ticks = 0;  // dropped from a full spool
  bool database_down = false;
  std::string last_error;
};

class Writer {
 public:
  using Clock = std::chrono::steady_clock;
  // store and spool stay the caller's; messages (database lost or back,
  // spool full) go to note, from the writer's threads.
  Writer(kqstore::Store* store, Spool* spool, std::chrono::milliseconds flush_interval,
         std::function<void(const std::string&)> note);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void Start();
  // Writes everything taken in so far; what the database does not take
  // stays in the spool for the next run. Returns the rows left there.
  uint64_t Stop();

  void Add(kqstore::Batch&& rows);
  WriterStatus status();

 private:
  void Intake();
  void Database();
  void SpoolLocked(kqstore::Batch&& batch);

  kqstore::Store* store_;
  Spool* spool_;
  std::chrono::milliseconds flush_interval_;
  std::function<void(const std::string&)> note_;

  std::mutex mu_;
  std::condition_variable intake_cv_, db_cv_, idle_cv_;
  kqstore::Batch pending_;
  std::optional<Clock::time_point> pending_since_;
  std::optional<kqstore::Batch> handed_;
  std::optional<Clock::time_point> handed_since_, spool_since_;
  bool down_ = false;
  bool stopping_ = false;
  bool intake_done_ = false;
  WriterStatus counts_;
  std::thread intake_, database_;
};

}  // namespace record

#endif  // KELQUOTE_TOOLS_RECORD_WRITER_H_
