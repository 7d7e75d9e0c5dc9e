// A rolling file appender that counts the bytes it writes instead of asking
// the stream for its position twice per line, which costs two seeks on top
// of each line's write. Files, rollover points, backups and line contents are
// those of log4cplus::RollingFileAppender built from the same properties.
#ifndef KELQUOTE_LOG_SIZED_ROLLING_APPENDER_H_
#define KELQUOTE_LOG_SIZED_ROLLING_APPENDER_H_

#include <log4cplus/fileappender.h>
#include <log4cplus/logger.h>

namespace tavr {

class SizedRollingFileAppender : public log4cplus::RollingFileAppender {
 public:
  explicit SizedRollingFileAppender(const log4cplus::helpers::Properties& properties);

  // Writes out what deferred lines the stream still holds.
  void FlushPending();

  // While a thread is inside a FlushBatch, the lines it appends are flushed
  // when the outermost batch ends instead of one by one; other threads'
  // lines (and a full stream buffer) still flush them earlier, in order.
  class FlushBatch {
   public:
    FlushBatch();
    ~FlushBatch();
    FlushBatch(const FlushBatch&) = delete;
    FlushBatch& operator=(const FlushBatch&) = delete;
  };

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override;

 private:
  long size_ = 0;  // bytes in the current file
  // Whether the stream writes '\n' as the platform's text line end. A rolled
  // file is always reopened in text mode, whatever TextMode says.
  bool text_mode_ = true;
};

// Replaces each plain RollingFileAppender of logger (as configured from the
// file at config_path) by a SizedRollingFileAppender of the same properties.
// Appenders whose properties cannot be found are left as they are.
void SpeedUpRollingAppenders(log4cplus::Logger logger, const char* config_path);

}  // namespace tavr

#endif  // KELQUOTE_LOG_SIZED_ROLLING_APPENDER_H_
