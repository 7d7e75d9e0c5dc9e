// Captures the lines of the "KELLog" logger for assertions.
#ifndef KELQUOTE_TESTKIT_LOG_CAPTURE_H_
#define KELQUOTE_TESTKIT_LOG_CAPTURE_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace testkit {

struct LogLine {
  int level;
  std::string text;  // "[function]: message", GBK as the library writes it
};

// While alive, every line that passes the "KELLog" logger's level is recorded.
// The capture hangs on the root logger, which the library's configuration
// leaves alone, so it survives the logger being configured from file.
class LogCapture {
 public:
  // all_levels lowers "KELLog" to TRACE so that every line reaches the capture.
  explicit LogCapture(bool all_levels = true);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Lowers "KELLog" to TRACE again (after the library configured it).
  void enable_all_levels();

  std::vector<LogLine> lines() const;
  // Lines whose text contains needle.
  size_t count(const std::string& needle) const;
  bool contains(const std::string& needle) const { return count(needle) > 0; }
  // Waits up to timeout_ms until count(needle) >= n.
  bool wait_for(const std::string& needle, size_t n = 1, int timeout_ms = 5000) const;
  void clear();
  std::string dump() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace testkit

#endif  // KELQUOTE_TESTKIT_LOG_CAPTURE_H_
