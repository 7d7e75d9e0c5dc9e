// The library's log facility: one log4cplus logger named "KELLog", configured
// from a properties file that the library writes from a built-in default when
// it is missing and that log4cplus re-reads while the process runs.
#ifndef KELQUOTE_LOG_MYLOG_H_
#define KELQUOTE_LOG_MYLOG_H_

#include <string>

#include "port/port.h"

namespace tavr {

// log4cplus's numeric levels; PrintLog writes nothing for any other value.
enum LogLevel : int {
  LOG_TRACE = 0,
  LOG_DEBUG = 10000,
  LOG_INFO = 20000,
  LOG_WARN = 30000,
  LOG_ERROR = 40000,
  LOG_FATAL = 50000,
};

class CMyLog {
 public:
  // Binds the logger and, on the first call, writes the default configuration
  // file when it is missing and starts the watcher that re-reads it every
  // 5000 ms. Later calls start no second watcher. Always returns 0.
  static int InitLog();

  // Writes "[" function "]: " message at level, message formatted as printf
  // does and cut at 1023 characters. Safe from any thread. Always returns 0.
  static int PrintLog(int level, const char* function, const char* format, ...)
      KQ_PRINTF_FORMAT(3, 4);

  // Whether a line at level would be written; lets hot paths skip building
  // a line's arguments.
  static bool Enabled(int level);

  // The built-in configuration text (611 bytes, CR LF line ends).
  static const std::string& DefaultConfig();
};

}  // namespace tavr

#endif  // KELQUOTE_LOG_MYLOG_H_
