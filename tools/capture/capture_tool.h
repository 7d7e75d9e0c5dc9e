// kelquote_capture: the commands of the capture tool.
#ifndef KELQUOTE_TOOLS_CAPTURE_CAPTURE_TOOL_H_
#define KELQUOTE_TOOLS_CAPTURE_CAPTURE_TOOL_H_

#include <string>
#include <utility>
#include <vector>

#include "capture/capture_file.h"

namespace captool {

using Fields = std::vector<std::pair<std::string, std::string>>;

// The record's fields, read by the vendor record layouts.
Fields decode(const capture::Record& record);
// "callback OnTickL1", "request ReqHisData", "result ReqHisData".
std::string describe(const capture::Record& record);

// Each command returns the process's exit code.
int info(const std::string& path);
int dump(const std::string& path, bool csv);
int replay(const std::string& path, double speed, int seconds);

}  // namespace captool

#endif  // KELQUOTE_TOOLS_CAPTURE_CAPTURE_TOOL_H_
