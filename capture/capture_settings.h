// The capture setting of a deployment: ini/KELQuoteCapture.config in the
// working directory, read at login. Without the file, capture is off.
#ifndef KELQUOTE_CAPTURE_CAPTURE_SETTINGS_H_
#define KELQUOTE_CAPTURE_CAPTURE_SETTINGS_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavr {

struct CaptureSettings {
  bool enabled = false;
  std::string folder = "../userdata/capture";
  uint64_t roll_bytes = uint64_t{1} << 30;  // a file rolls to the next one beyond this
  size_t buffer_bytes = size_t{64} << 20;   // what the writer may fall behind by
};

// Parses the text of the setting file: "key = value" lines (enabled,
// folder, roll_mb, buffer_mb), '#' starting a comment. A line it cannot
// read turns capture off and says why in error.
CaptureSettings parse_capture_settings(const std::string& text, std::string* error);

// The settings of the file at path (capture off when it is missing); a bad
// file is logged and leaves capture off.
CaptureSettings read_capture_settings(const char* path);

}  // namespace tavr

#endif  // KELQUOTE_CAPTURE_CAPTURE_SETTINGS_H_
