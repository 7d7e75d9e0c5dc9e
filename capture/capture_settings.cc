#include "capture/capture_settings.h"

#include <fstream>
#include <sstream>

#include "log/MyLog.h"
#include "port/port.h"
#include "utils/settings_lines.h"

namespace tavr {

namespace {

bool ParseMegabytes(const std::string& value, uint64_t low, uint64_t high, uint64_t* bytes) {
  if (value.empty() || value.size() > 9 || value.find_first_not_of("0123456789") != std::string::npos) return false;
  uint64_t mb = std::stoull(value);
  if (mb < low || mb > high) return false;
  *bytes = mb << 20;
  return true;
}

}  // namespace

CaptureSettings parse_capture_settings(const std::string& text, std::string* error) {
  CaptureSettings settings;
  std::istringstream lines(text);
  auto apply = [&settings](const std::string& key, const std::string& value, std::string* why) {
    auto bad = [why](const std::string& text) {
      *why = text;
      return false;
    };
    uint64_t bytes = 0;
    if (key == "enabled") {
      if (value == "true" || value == "1") {
        settings.enabled = true;
      } else if (value == "false" || value == "0") {
        settings.enabled = false;
      } else {
        return bad("enabled is true or false, not \"" + value + "\"");
      }
    } else if (key == "folder") {
      if (value.empty()) return bad("folder is empty");
      settings.folder = value;
    } else if (key == "roll_mb") {
      if (!ParseMegabytes(value, 1, 1 << 20, &bytes)) return bad("roll_mb is 1 to 1048576, not \"" + value + "\"");
      settings.roll_bytes = bytes;
    } else if (key == "buffer_mb") {
      if (!ParseMegabytes(value, 1, 4096, &bytes)) return bad("buffer_mb is 1 to 4096, not \"" + value + "\"");
      settings.buffer_bytes = static_cast<size_t>(bytes);
    } else {
      return bad("unknown setting \"" + key + "\"");
    }
    return true;
  };
  if (!utils::read_settings_lines(lines, apply, error)) return CaptureSettings{};
  error->clear();
  return settings;
}

CaptureSettings read_capture_settings(const char* path) {
  if (!port::FileExists(path)) return {};
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  std::string error;
  CaptureSettings settings = parse_capture_settings(text.str(), &error);
  if (!error.empty()) {
    CMyLog::PrintLog(LOG_ERROR, "CaptureSettings::read", "%s %s, capture stays off...", path, error.c_str());
  }
  return settings;
}

}  // namespace tavr
