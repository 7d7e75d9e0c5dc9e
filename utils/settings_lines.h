// The project's settings files (capture, recorder, bus): one "key = value" a
// line, '#' begins a comment, blank lines are skipped. Header only, so that
// programs outside the library read them the same way without linking it.
#ifndef KELQUOTE_UTILS_SETTINGS_LINES_H_
#define KELQUOTE_UTILS_SETTINGS_LINES_H_

#include <istream>
#include <string>

namespace utils {

inline std::string trim_setting(const std::string& text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

// Hands each setting of in to apply(key, value, &why), which takes it or
// says why not. The first refusal, or a line without '=', ends the reading:
// false, with "line N: <why>" in *error.
template <typename Apply>
bool read_settings_lines(std::istream& in, Apply&& apply, std::string* error) {
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = trim_setting(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    size_t eq = line.find('=');
    std::string why = "expected key = value, not \"" + line + "\"";
    if (eq != std::string::npos &&
        apply(trim_setting(line.substr(0, eq)), trim_setting(line.substr(eq + 1)), &why)) {
      continue;
    }
    *error = "line " + std::to_string(number) + ": " + why;
    return false;
  }
  return true;
}

}  // namespace utils

#endif  // KELQUOTE_UTILS_SETTINGS_LINES_H_
