#include "capture/recorder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>

#include "log/MyLog.h"

namespace tavr {

namespace {

// Guards a record's copy into the ring: a few hundred bytes, so a thread
// that finds it taken spins instead of sleeping.
class SpinGuard {
 public:
  explicit SpinGuard(std::atomic_flag& flag) : flag_(flag) {
    while (flag_.test_and_set(std::memory_order_acquire)) {
      while (flag_.test(std::memory_order_relaxed)) port::CpuRelax();
    }
  }
  ~SpinGuard() { flag_.clear(std::memory_order_release); }
  SpinGuard(const SpinGuard&) = delete;
  SpinGuard& operator=(const SpinGuard&) = delete;

 private:
  std::atomic_flag& flag_;
};

std::string SessionName() {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  port::LocalTime(now, &tm);
  char name[32];
  std::snprintf(name, sizeof(name), "%04d%02d%02d-%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec);
  return name;
}

}  // namespace

CaptureRecorder::CaptureRecorder(const CaptureSettings& settings)
    : settings_(settings),
      capacity_(std::bit_ceil(std::max<size_t>(settings.buffer_bytes, 4096))),
      ring_(new uint8_t[capacity_]) {
  // Touched now, at login: a first touch later is a page fault on the vendor's thread.
  std::memset(ring_.get(), 0, capacity_);
}

CaptureRecorder::~CaptureRecorder() { end(); }

std::string CaptureRecorder::path() const {
  std::lock_guard<std::mutex> lock(path_mu_);
  return path_;
}

bool CaptureRecorder::begin() {
  if (writer_ != nullptr) return true;
  std::error_code ec;
  std::filesystem::create_directories(settings_.folder, ec);
  std::string base = settings_.folder + "/" + SessionName();
  session_ = base;
  for (int n = 2; port::FileExists(session_ + ".kqcap"); ++n) session_ = base + "-" + std::to_string(n);
  part_ = 0;
  start_unix_ns_ = std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  if (!open_part()) return false;
  drops_told_ = dropped_.load();
  stop_.store(false);
  {
    SpinGuard guard(lock_);
    start_ = std::chrono::steady_clock::now();
    active_ = true;
  }
  CMyLog::PrintLog(LOG_INFO, "CaptureRecorder::begin", "Capture on, writing %s...", path().c_str());
  writer_ = port::StartThread(&CaptureRecorder::WriterThread, this);
  return true;
}

void CaptureRecorder::end() {
  if (writer_ == nullptr) return;
  {
    // Once a recording thread lets go of the lock, nothing more comes.
    SpinGuard guard(lock_);
    active_ = false;
  }
  stop_.store(true, std::memory_order_release);
  port::JoinThread(writer_);
  writer_ = nullptr;
  report_drops(true);
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
  CMyLog::PrintLog(LOG_INFO, "CaptureRecorder::end", "Capture closed, %s...", path().c_str());
}

bool CaptureRecorder::open_part() {
  if (file_ != nullptr) std::fclose(file_);
  std::string name = part_ == 0 ? session_ + ".kqcap" : session_ + "." + std::to_string(part_) + ".kqcap";
  file_ = std::fopen(name.c_str(), "wb");
  {
    std::lock_guard<std::mutex> lock(path_mu_);
    path_ = name;
  }
  if (file_ == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, "CaptureRecorder::open", "Cannot write capture file %s, capture off...",
                     name.c_str());
    return false;
  }
  uint8_t header[capture::kHeaderBytes];
  capture::encode_header(capture::FileHeader{capture::kVersion, part_, start_unix_ns_}, header);
  file_bytes_ = std::fwrite(header, 1, sizeof(header), file_);
  return file_bytes_ == sizeof(header);
}

void CaptureRecorder::copy_in(uint64_t at, const void* bytes, size_t size) {
  size_t offset = static_cast<size_t>(at & (capacity_ - 1));
  size_t first = std::min(size, capacity_ - offset);
  std::memcpy(ring_.get() + offset, bytes, first);
  if (first < size) std::memcpy(ring_.get(), static_cast<const uint8_t*>(bytes) + first, size - first);
}

bool CaptureRecorder::put(capture::Kind kind, uint8_t code, const void* a, size_t a_size, const void* b,
                          size_t b_size) {
  size_t total = capture::kRecordHeadBytes + a_size + b_size;
  SpinGuard guard(lock_);
  if (!active_) return false;
  uint64_t head = head_.load(std::memory_order_relaxed);
  if (total > capacity_ - (head - tail_.load(std::memory_order_acquire))) {
    dropped_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  auto ns = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start_).count());
  uint8_t record_head[capture::kRecordHeadBytes];
  capture::encode_record_head(kind, code, ns, a_size + b_size, record_head);
  copy_in(head, record_head, sizeof(record_head));
  if (a_size > 0) copy_in(head + sizeof(record_head), a, a_size);
  if (b_size > 0) copy_in(head + sizeof(record_head) + a_size, b, b_size);
  head_.store(head + total, std::memory_order_release);
  return true;
}

void CaptureRecorder::callback(uint8_t slot, const void* bytes, size_t size) {
  put(capture::Kind::kCallback, slot, bytes, size, nullptr, 0);
}

uint32_t CaptureRecorder::request(uint8_t op, const void* bytes, size_t size) {
  uint32_t number = next_number_.fetch_add(1, std::memory_order_relaxed);
  put(capture::Kind::kRequest, op, &number, sizeof(number), bytes, size);
  return number;
}

void CaptureRecorder::result(uint8_t op, uint32_t number, int32_t rc, const void* bytes, size_t size) {
  uint8_t fixed[8];
  std::memcpy(fixed, &number, 4);
  std::memcpy(fixed + 4, &rc, 4);
  put(capture::Kind::kResult, op, fixed, sizeof(fixed), bytes, size);
}

unsigned CaptureRecorder::WriterThread(void* self) {
  static_cast<CaptureRecorder*>(self)->writer_loop();
  return 0;
}

void CaptureRecorder::writer_loop() {
  bool ok = true;
  while (true) {
    bool stopping = stop_.load(std::memory_order_acquire);
    uint64_t tail = tail_.load(std::memory_order_relaxed);
    uint64_t head = paused_.load() && !stopping ? tail : head_.load(std::memory_order_acquire);
    if (head != tail) {
      if (ok) ok = drain(tail, head);
      tail_.store(head, std::memory_order_release);
    }
    report_drops(false);
    if (stopping && head == tail) return;
    if (head == tail) port::SleepMs(2);
  }
}

bool CaptureRecorder::write_span(uint64_t from, uint64_t to) {
  size_t offset = static_cast<size_t>(from & (capacity_ - 1));
  size_t size = static_cast<size_t>(to - from);
  size_t first = std::min(size, capacity_ - offset);
  bool ok = std::fwrite(ring_.get() + offset, 1, first, file_) == first;
  if (ok && first < size) ok = std::fwrite(ring_.get(), 1, size - first, file_) == size - first;
  file_bytes_ += size;
  return ok;
}

bool CaptureRecorder::drain(uint64_t from, uint64_t to) {
  bool ok = true;
  // Whole records go to one file: walk them only when this batch crosses
  // the roll size.
  while (ok && from < to) {
    uint64_t end = from;
    if (file_bytes_ + (to - from) <= settings_.roll_bytes) {
      end = to;
    } else {
      while (end < to) {
        uint32_t length = 0;
        for (int i = 0; i < 4; ++i) {
          length |= static_cast<uint32_t>(ring_[static_cast<size_t>((end + i) & (capacity_ - 1))]) << (8 * i);
        }
        uint64_t next = end + 4 + length;
        // A record larger than a whole file still gets one of its own.
        bool file_empty = end == from && file_bytes_ == capture::kHeaderBytes;
        if (file_bytes_ + (next - from) > settings_.roll_bytes && !file_empty) break;
        end = next;
      }
    }
    ok = write_span(from, end);
    from = end;
    if (ok && from < to) {
      ++part_;
      ok = open_part();
    }
  }
  if (ok) ok = std::fflush(file_) == 0;
  if (!ok) {
    CMyLog::PrintLog(LOG_ERROR, "CaptureRecorder::write", "Cannot write %s, capture stops here...", path().c_str());
  }
  return ok;
}

void CaptureRecorder::report_drops(bool final_report) {
  int64_t dropped = dropped_.load(std::memory_order_relaxed);
  if (dropped == drops_told_) return;
  auto now = std::chrono::steady_clock::now();
  if (!final_report && now - told_at_ < std::chrono::seconds(1)) return;
  CMyLog::PrintLog(LOG_WARN, "CaptureRecorder::write", "Capture buffer full, %lld records dropped (%lld in all)...",
                   static_cast<long long>(dropped - drops_told_), static_cast<long long>(dropped));
  drops_told_ = dropped;
  told_at_ = now;
}

}  // namespace tavr
