// Records the library's conversation with the quote service into capture
// files. The threads that record (the vendor's, the host's, the service
// threads) only copy into a ring buffer; a writer thread drains it to disk.
#ifndef KELQUOTE_CAPTURE_RECORDER_H_
#define KELQUOTE_CAPTURE_RECORDER_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "capture/capture_file.h"
#include "capture/capture_settings.h"
#include "port/port.h"

namespace tavr {

class CaptureRecorder {
 public:
  explicit CaptureRecorder(const CaptureSettings& settings);
  ~CaptureRecorder();
  CaptureRecorder(const CaptureRecorder&) = delete;
  CaptureRecorder& operator=(const CaptureRecorder&) = delete;

  // Opens a new session's first file and starts the writer; false, logged,
  // when the file cannot be made. A no-op while a session runs.
  bool begin();
  // Writes out what is buffered, logs the drops not yet told, closes the
  // file and ends the writer. Records after it are ignored.
  void end();

  // Any thread; never waits for the writer. A record that finds the buffer
  // full is counted and dropped.
  void callback(uint8_t slot, const void* bytes, size_t size);
  // A request before it goes out: its number, for its result.
  uint32_t request(uint8_t op, const void* bytes, size_t size);
  void result(uint8_t op, uint32_t number, int32_t rc, const void* bytes = nullptr, size_t size = 0);

  int64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }
  // The file being written (the last one once the session ended).
  std::string path() const;

  // Holds the writer back while held, as a slow disk would: for tests.
  void pause_writer(bool paused) { paused_.store(paused); }

 private:
  static unsigned WriterThread(void* self);
  void writer_loop();
  bool put(capture::Kind kind, uint8_t code, const void* a, size_t a_size, const void* b, size_t b_size);
  void copy_in(uint64_t at, const void* bytes, size_t size);
  // Writes the records in [from, to) of the ring, rolling files at record bounds.
  bool drain(uint64_t from, uint64_t to);
  bool write_span(uint64_t from, uint64_t to);
  bool open_part();
  void report_drops(bool final_report);

  const CaptureSettings settings_;
  const size_t capacity_;  // a power of two
  std::unique_ptr<uint8_t[]> ring_;
  std::atomic<uint64_t> head_{0};  // written by recording threads under lock_
  std::atomic<uint64_t> tail_{0};  // written by the writer
  std::atomic_flag lock_ = ATOMIC_FLAG_INIT;
  bool active_ = false;  // guarded by lock_
  std::chrono::steady_clock::time_point start_;  // guarded by lock_
  std::atomic<uint32_t> next_number_{1};
  std::atomic<int64_t> dropped_{0};
  std::atomic<bool> stop_{false};
  std::atomic<bool> paused_{false};

  // The writer's, and begin's and end's while it is not running.
  port::Thread* writer_ = nullptr;
  std::FILE* file_ = nullptr;
  std::string session_;
  std::string path_;  // written under path_mu_
  uint32_t part_ = 0;
  uint64_t file_bytes_ = 0;
  int64_t start_unix_ns_ = 0;
  int64_t drops_told_ = 0;
  std::chrono::steady_clock::time_point told_at_{};
  mutable std::mutex path_mu_;  // path_, read from any thread
};

}  // namespace tavr

#endif  // KELQUOTE_CAPTURE_RECORDER_H_
