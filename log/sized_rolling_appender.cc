#include "log/sized_rolling_appender.h"

#include <log4cplus/helpers/property.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <typeinfo>
#include <vector>

#include "port/port.h"

namespace tavr {

namespace {

thread_local int t_batch_depth = 0;
// Appenders holding lines of this thread's open batch; the shared pointers
// keep them alive across a reconfiguration.
std::vector<log4cplus::SharedAppenderPtr>& Dirty() {
  static port::ThreadLocal<std::vector<log4cplus::SharedAppenderPtr>> dirty;
  return dirty.get();
}

// Bytes a text-mode stream adds to line on its way to the file (a CR per LF
// on Windows), so that size_ stays the size log4cplus would measure.
long TextModeExtra(const log4cplus::tstring& line, bool text_mode) {
  if (port::kTextNewlineBytes == 1 || !text_mode) return 0;
  return static_cast<long>(std::count(line.begin(), line.end(), LOG4CPLUS_TEXT('\n'))) *
         (port::kTextNewlineBytes - 1);
}

}  // namespace

SizedRollingFileAppender::FlushBatch::FlushBatch() { ++t_batch_depth; }

SizedRollingFileAppender::FlushBatch::~FlushBatch() {
  if (--t_batch_depth != 0) return;
  std::vector<log4cplus::SharedAppenderPtr>& dirty = Dirty();
  if (dirty.empty()) return;
  for (const log4cplus::SharedAppenderPtr& appender : dirty) {
    static_cast<SizedRollingFileAppender*>(appender.get())->FlushPending();
  }
  dirty.clear();
}

void SizedRollingFileAppender::FlushPending() {
  log4cplus::thread::MutexGuard guard(access_mutex);
  out.flush();
}

SizedRollingFileAppender::SizedRollingFileAppender(const log4cplus::helpers::Properties& properties)
    : log4cplus::RollingFileAppender(properties) {
  std::error_code error;
  auto bytes = std::filesystem::file_size(std::filesystem::path(filename), error);
  size_ = error ? 0 : static_cast<long>(bytes);
  text_mode_ = (fileOpenMode & std::ios_base::binary) == 0;
}

void SizedRollingFileAppender::append(const log4cplus::spi::InternalLoggingEvent& event) {
  // A lock file means other processes write too: only the stream knows the size.
  if (lockFile || !out.good()) {
    log4cplus::RollingFileAppender::append(event);
    return;
  }
  if (size_ > maxFileSize) {
    rollover(true);
    size_ = 0;
    text_mode_ = true;
  }
  const log4cplus::tstring& line = formatEvent(event);
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
  if (immediateFlush) {
    if (t_batch_depth == 0) {
      out.flush();
    } else {
      log4cplus::SharedAppenderPtr self(this);
      std::vector<log4cplus::SharedAppenderPtr>& dirty = Dirty();
      if (std::find(dirty.begin(), dirty.end(), self) == dirty.end()) dirty.push_back(self);
    }
  }
  size_ += static_cast<long>(line.size()) + TextModeExtra(line, text_mode_);
  if (size_ > maxFileSize) {
    rollover(true);
    size_ = 0;
    text_mode_ = true;
  }
}

void SpeedUpRollingAppenders(log4cplus::Logger logger, const char* config_path) {
  log4cplus::helpers::Properties properties{log4cplus::tstring(config_path)};
  for (const log4cplus::SharedAppenderPtr& appender : logger.getAllAppenders()) {
    if (typeid(*appender) != typeid(log4cplus::RollingFileAppender)) continue;
    const log4cplus::tstring prefix = LOG4CPLUS_TEXT("log4cplus.appender.") + appender->getName() + LOG4CPLUS_TEXT(".");
    log4cplus::helpers::Properties own = properties.getPropertySubset(prefix);
    // Substitutions are the configurator's business: leave such appenders alone.
    bool plain = own.exists(LOG4CPLUS_TEXT("File"));
    for (const log4cplus::tstring& key : own.propertyNames()) {
      if (own.getProperty(key).find(LOG4CPLUS_TEXT("${")) != log4cplus::tstring::npos) plain = false;
    }
    if (!plain) continue;
    log4cplus::SharedAppenderPtr faster(new SizedRollingFileAppender(own));
    faster->setName(appender->getName());
    logger.removeAppender(appender);
    appender->close();
    logger.addAppender(faster);
  }
}

}  // namespace tavr
