// What the recorder records and where: a settings file of "key = value"
// lines (# starts a comment), overridden by the command line.
#ifndef KELQUOTE_TOOLS_RECORD_SETTINGS_H_
#define KELQUOTE_TOOLS_RECORD_SETTINGS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace record {

struct Settings {
  std::string url = "sqlite://../userdata/store/kelquote.db";
  std::vector<std::string> symbols;  // code.market
  std::vector<std::string> markets;  // host market codes, recorded whole
  bool ticks = true;
  bool bars_1m = true;
  bool bars_1d = true;
  bool trades = false;            // level-2 trades of the named symbols (needs level-2 rights)
  bool backfill = true;           // history fills the gaps of the named symbols
  std::string spool = "../userdata/store/spool";
  uint64_t spool_max_mb = 1024;
  int flush_ms = 200;
  int status_seconds = 5;
  int seconds = 0;  // 0: until SIGINT or SIGTERM
};

// Applies the text of a settings file; false with *error naming the line.
bool ParseSettings(const std::string& text, Settings* settings, std::string* error);
bool LoadSettings(const std::string& path, Settings* settings, std::string* error);

// Applies the command line; false with *error for a bad argument. *help is
// set for --help.
bool ParseCommandLine(int argc, char** argv, Settings* settings, bool* help, std::string* error);

extern const char kUsage[];

}  // namespace record

#endif  // KELQUOTE_TOOLS_RECORD_SETTINGS_H_
