#include "utils/utils.h"

#include <chrono>
#include <ctime>

#include "port/port.h"

namespace utils {

double getTime() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

namespace {

int64_t LocalToEpochSeconds(int date, int hhmmss) {
  std::tm tm{};
  tm.tm_year = date / 10000 - 1900;
  tm.tm_mon = date / 100 % 100 - 1;
  tm.tm_mday = date % 100;
  tm.tm_hour = hhmmss / 10000;
  tm.tm_min = hhmmss / 100 % 100;
  tm.tm_sec = hhmmss % 100;
  tm.tm_isdst = -1;
  return static_cast<int64_t>(port::MakeLocalTime(&tm));
}

// mktime takes a global lock and reads the zone rules on every call; snapshots
// arrive by the million with few distinct dates, so each thread remembers the
// local midnight of its last date. The cache is used only for days whose UTC
// offset is the same at both ends (no daylight-saving change that day).
struct DayCache {
  int date = -1;
  int64_t midnight = 0;
  bool uniform = false;
};

}  // namespace

int64_t timeToMilliseconds(int date, int hhmmss) {
  thread_local DayCache cache;
  bool plain_time = hhmmss >= 0 && hhmmss % 100 < 60 && hhmmss / 100 % 100 < 60 && hhmmss < 240000;
  if (plain_time) {
    if (cache.date != date) {
      cache.date = date;
      cache.midnight = LocalToEpochSeconds(date, 0);
      cache.uniform = LocalToEpochSeconds(date, 235959) - cache.midnight == 86399;
    }
    if (cache.uniform) {
      int64_t secs = hhmmss / 10000 * 3600 + hhmmss / 100 % 100 * 60 + hhmmss % 100;
      return (cache.midnight + secs) * 1000;
    }
  }
  return LocalToEpochSeconds(date, hhmmss) * 1000;
}

int64_t millisecondsToTime(int64_t ms) {
  std::time_t t = static_cast<std::time_t>(ms / 1000);
  std::tm tm{};
  if (!port::LocalTime(t, &tm)) return 0;
  int64_t date = (tm.tm_year + 1900) * 10000LL + (tm.tm_mon + 1) * 100 + tm.tm_mday;
  return date * 1000000 + tm.tm_hour * 10000 + tm.tm_min * 100 + tm.tm_sec;
}

std::string safeGbk2Utf8(const std::string& gbk) {
  std::string utf8;
  if (!port::GbkToUtf8(gbk, &utf8)) return gbk;
  return utf8;
}

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> pieces;
  size_t begin = 0;
  while (true) {
    size_t end = text.find(delimiter, begin);
    if (end == std::string::npos) {
      pieces.push_back(text.substr(begin));
      return pieces;
    }
    pieces.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
}

std::string trimWhiteSpaces(const std::string& text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

}  // namespace utils
