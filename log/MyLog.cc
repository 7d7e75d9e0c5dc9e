#include "log/MyLog.h"
#include "log/sized_rolling_appender.h"

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <mutex>

#include <log4cplus/configurator.h>
#include <log4cplus/helpers/loglog.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

namespace tavr {

namespace {

const char kDefaultConfig[] =
    "log4cplus.logger.KELLog = INFO, KELLog\r\n"
    "log4cplus.appender.KELLog = log4cplus::RollingFileAppender\r\n"
    "log4cplus.appender.KELLog.File = ../userdata/log/DravikData.log \r\n"
    "log4cplus.appender.KELLog.MaxFileSize = 40MB \r\n"
    "log4cplus.appender.KELLog.MaxBackupIndex = 10 \r\n"
    "log4cplus.appender.KELLog.layout = log4cplus::PatternLayout \r\n"
    "log4cplus.appender.KELLog.layout.ConversionPattern = %D{ %Y-%m-%d %H:%M:%S.%q }[%p][%t]%m %n \r\n"
    "log4cplus.appender.KELLog.filters.1 = log4cplus::spi::LogLevelMatchFilter \r\n"
    "log4cplus.appender.KELLog.filters.1.LogLevelToMatch = WARN \r\n"
    "log4cplus.appender.KELLog.filters.1.AcceptOnMatch = true";
static_assert(sizeof(kDefaultConfig) - 1 == 611);

// The logger is bound once and never re-assigned, so that PrintLog on other
// threads never sees a handle being replaced. Binding again would yield the
// same "KELLog" logger, so nothing observable is lost.
struct Facade {
  std::once_flag bound;
  log4cplus::Logger logger;
  std::mutex init_mu;
  log4cplus::ConfigureAndWatchThread* watcher = nullptr;  // never stopped
};

Facade& TheFacade() {
  static Facade* facade = new Facade;  // outlives every thread that logs
  return *facade;
}

log4cplus::Logger& BoundLogger() {
  Facade& f = TheFacade();
  std::call_once(f.bound, [&f] {
    log4cplus::initialize();
    f.logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("KELLog"));
  });
  return f.logger;
}

void WriteDefaultConfig(const char* path) {
  std::ofstream out(path, std::ios::binary | std::ios::in | std::ios::out | std::ios::trunc);
  if (!out) return;
  out.write(kDefaultConfig, sizeof(kDefaultConfig) - 1);
}

}  // namespace

const std::string& CMyLog::DefaultConfig() {
  static const std::string* text = new std::string(kDefaultConfig, sizeof(kDefaultConfig) - 1);
  return *text;
}

int CMyLog::InitLog() {
  log4cplus::initialize();
  log4cplus::helpers::LogLog::getLogLog()->setInternalDebugging(true);
  BoundLogger();
  Facade& f = TheFacade();
  std::lock_guard<std::mutex> lock(f.init_mu);
  if (f.watcher != nullptr) return 0;
  const char* path = port::LogConfigPath();
  if (!port::FileExists(path)) WriteDefaultConfig(path);
  f.watcher = new log4cplus::ConfigureAndWatchThread(LOG4CPLUS_TEXT(path), 5000);
  // The watcher runs until the process ends, so the library must stay loaded.
  port::PinModule(kDefaultConfig);
  // The watcher configured the logger in its constructor; a later change of
  // the file brings log4cplus's own appender back, which only costs speed.
  SpeedUpRollingAppenders(BoundLogger(), path);
  return 0;
}

bool CMyLog::Enabled(int level) { return BoundLogger().isEnabledFor(level); }

int CMyLog::PrintLog(int level, const char* function, const char* format, ...) {
  switch (level) {
    case LOG_TRACE:
    case LOG_DEBUG:
    case LOG_INFO:
    case LOG_WARN:
    case LOG_ERROR:
    case LOG_FATAL:
      break;
    default:
      return 0;
  }
  log4cplus::Logger& logger = BoundLogger();
  // Formatting a line that no appender will see is the cost that matters on
  // the hot path, so the level test comes first.
  if (!logger.isEnabledFor(level)) return 0;

  char message[1024] = {0};
  va_list args;
  va_start(args, format);
  int n = std::vsnprintf(message, sizeof(message), format, args);
  va_end(args);
  if (n < 0) message[0] = '\0';
  char prefix[1024] = {0};
  std::snprintf(prefix, sizeof(prefix), "[%s]: ", function != nullptr ? function : "");

  std::string line(prefix);
  line += message;
  switch (level) {
    case LOG_TRACE: logger.forcedLog(log4cplus::TRACE_LOG_LEVEL, line, __FILE__, __LINE__); break;
    case LOG_DEBUG: logger.forcedLog(log4cplus::DEBUG_LOG_LEVEL, line, __FILE__, __LINE__); break;
    case LOG_INFO: logger.forcedLog(log4cplus::INFO_LOG_LEVEL, line, __FILE__, __LINE__); break;
    case LOG_WARN: logger.forcedLog(log4cplus::WARN_LOG_LEVEL, line, __FILE__, __LINE__); break;
    case LOG_ERROR: logger.forcedLog(log4cplus::ERROR_LOG_LEVEL, line, __FILE__, __LINE__); break;
    default: logger.forcedLog(log4cplus::FATAL_LOG_LEVEL, line, __FILE__, __LINE__); break;
  }
  return 0;
}

}  // namespace tavr
