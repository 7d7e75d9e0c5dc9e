#include "utils/utils.h"

#include <chrono>
#include <ctime>
#include <mutex>
#include <type_traits>

#include "port/port.h"

namespace utils {

double getTime() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

namespace {

// mktime is not thread-safe everywhere (it may reset the zone's globals), so
// the rare calls that still need it go through one lock.
std::mutex& MktimeLock() {
  static std::mutex mu;
  return mu;
}

int64_t LocalToEpochSeconds(int date, int hhmmss) {
  std::tm tm{};
  tm.tm_year = date / 10000 - 1900;
  tm.tm_mon = date / 100 % 100 - 1;
  tm.tm_mday = date % 100;
  tm.tm_hour = hhmmss / 10000;
  tm.tm_min = hhmmss / 100 % 100;
  tm.tm_sec = hhmmss % 100;
  tm.tm_isdst = -1;
  std::lock_guard<std::mutex> lock(MktimeLock());
  return static_cast<int64_t>(port::MakeLocalTime(&tm));
}

// Days from 1970-01-01 to a proleptic Gregorian date, month 1 to 12.
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2 ? 1 : 0;
  int64_t era = (y >= 0 ? y : y - 399) / 400;
  int64_t yoe = y - era * 400;
  int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// The zone's offset from UTC in force at t, in seconds (localtime_r is
// thread-safe where mktime is not).
bool OffsetAt(int64_t t, int64_t* offset) {
  std::tm tm{};
  if (!port::LocalTime(static_cast<std::time_t>(t), &tm)) return false;
  int64_t local = DaysFromCivil(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday) * 86400 + tm.tm_hour * 3600 +
                  tm.tm_min * 60 + tm.tm_sec;
  *offset = local - t;
  return true;
}

// The local midnight of a date, month and day normalised as mktime does;
// false for a day whose offset changes (daylight saving), which mktime
// must decide.
bool UniformMidnight(int date, int64_t* midnight) {
  int y = date / 10000, m = date / 100 % 100, d = date % 100;
  if (y < 1900 || y > 9999) return false;
  int m0 = m - 1;  // -1 to 98
  y += m0 < 0 ? -1 : m0 / 12;
  m0 = (m0 % 12 + 12) % 12;
  int64_t utc = (DaysFromCivil(y, m0 + 1, 1) + d - 1) * 86400;
  int64_t guess = 0, offset = 0, end_offset = 0;
  if (!OffsetAt(utc, &guess) || !OffsetAt(utc - guess, &offset)) return false;
  *midnight = utc - offset;
  return OffsetAt(*midnight + 86399, &end_offset) && end_offset == offset && guess == offset;
}

// Snapshots arrive by the million with few distinct dates, so each thread
// remembers the local midnights of recent dates.
struct DayCache {
  int date = -1;
  int64_t midnight = 0;
  bool uniform = false;
};
static_assert(std::is_trivially_destructible_v<DayCache>);

}  // namespace

int64_t timeToMilliseconds(int date, int hhmmss) {
  thread_local DayCache cache[64];
  bool plain_time = hhmmss >= 0 && hhmmss % 100 < 60 && hhmmss / 100 % 100 < 60 && hhmmss < 240000;
  if (plain_time) {
    DayCache& day = cache[static_cast<uint32_t>(date) % 64];
    if (day.date != date) {
      day.date = date;
      day.uniform = UniformMidnight(date, &day.midnight);
    }
    if (day.uniform) {
      int64_t secs = hhmmss / 10000 * 3600 + hhmmss / 100 % 100 * 60 + hhmmss % 100;
      return (day.midnight + secs) * 1000;
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
