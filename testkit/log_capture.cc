#include "testkit/log_capture.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace testkit {

struct LogCapture::State {
  mutable std::mutex mu;
  mutable std::condition_variable cv;
  std::vector<LogLine> lines;
};

namespace {

class CaptureAppender : public log4cplus::Appender {
 public:
  explicit CaptureAppender(std::shared_ptr<LogCapture::State> state) : state_(std::move(state)) {
    setName(LOG4CPLUS_TEXT("testkit-capture"));
  }
  ~CaptureAppender() override { destructorImpl(); }
  void close() override {}

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override {
    if (event.getLoggerName() != LOG4CPLUS_TEXT("KELLog")) return;
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->lines.push_back(LogLine{event.getLogLevel(), event.getMessage()});
    state_->cv.notify_all();
  }

 private:
  std::shared_ptr<LogCapture::State> state_;
};

log4cplus::Logger KelLog() {
  log4cplus::initialize();
  return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("KELLog"));
}

}  // namespace

LogCapture::LogCapture(bool all_levels) : state_(std::make_shared<State>()) {
  log4cplus::Logger root = log4cplus::Logger::getRoot();
  root.removeAppender(LOG4CPLUS_TEXT("testkit-capture"));
  root.addAppender(log4cplus::SharedAppenderPtr(new CaptureAppender(state_)));
  if (all_levels) enable_all_levels();
}

LogCapture::~LogCapture() {
  log4cplus::Logger::getRoot().removeAppender(LOG4CPLUS_TEXT("testkit-capture"));
}

void LogCapture::enable_all_levels() { KelLog().setLogLevel(log4cplus::TRACE_LOG_LEVEL); }

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->lines;
}

size_t LogCapture::count(const std::string& needle) const {
  std::lock_guard<std::mutex> lock(state_->mu);
  size_t n = 0;
  for (const LogLine& line : state_->lines) {
    if (line.text.find(needle) != std::string::npos) ++n;
  }
  return n;
}

bool LogCapture::wait_for(const std::string& needle, size_t n, int timeout_ms) const {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (count(needle) < n) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::unique_lock<std::mutex> lock(state_->mu);
    state_->cv.wait_for(lock, std::chrono::milliseconds(20));
  }
  return true;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->lines.clear();
}

std::string LogCapture::dump() const {
  std::string out;
  for (const LogLine& line : lines()) out += std::to_string(line.level) + " " + line.text + "\n";
  return out;
}

}  // namespace testkit
