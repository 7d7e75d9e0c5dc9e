// The utility library shared with the host: time stamps, text helpers.
#ifndef KELQUOTE_UTILS_UTILS_H_
#define KELQUOTE_UTILS_UTILS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kelquote/export.h"

namespace utils {

// Seconds since the epoch, with the fraction.
UTILS_API double getTime();

// Milliseconds since the epoch of the local date yyyymmdd at the time of day
// HHMMSS. An invalid date or time is normalised as mktime does.
UTILS_API int64_t timeToMilliseconds(int date, int hhmmss);

// The local time of ms (milliseconds since the epoch) as yyyymmddHHMMSS.
UTILS_API int64_t millisecondsToTime(int64_t ms);

// GBK text as UTF-8; text that is not valid GBK is returned unchanged.
UTILS_API std::string safeGbk2Utf8(const std::string& gbk);

// Pieces of text between the delimiter characters, empty pieces included.
UTILS_API std::vector<std::string> split(const std::string& text, char delimiter);

// text without leading and trailing blanks, tabs, CR and LF.
UTILS_API std::string trimWhiteSpaces(const std::string& text);

}  // namespace utils

#endif  // KELQUOTE_UTILS_UTILS_H_
