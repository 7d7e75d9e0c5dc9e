// What the system says of this process's memory (Linux's /proc), for the
// soak run and the benchmarks.
#ifndef KELQUOTE_TESTKIT_PROCESS_STATUS_H_
#define KELQUOTE_TESTKIT_PROCESS_STATUS_H_

#include <cstdlib>
#include <fstream>
#include <string>

namespace testkit {

// A field of /proc/self/status in kB (VmRSS, VmHWM); -1 where there is none.
inline long StatusKb(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.size() > field.size() && line.compare(0, field.size(), field) == 0 && line[field.size()] == ':') {
      return std::atol(line.c_str() + field.size() + 1);
    }
  }
  return -1;
}

}  // namespace testkit

#endif  // KELQUOTE_TESTKIT_PROCESS_STATUS_H_
