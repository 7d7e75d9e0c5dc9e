// kelquote_capture: looks into capture files and replays them. See --help.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/capture/capture_tool.h"

namespace {

const char kUsage[] =
    "usage: kelquote_capture info FILE\n"
    "       kelquote_capture dump FILE [--csv]\n"
    "       kelquote_capture replay FILE [--speed N] [--seconds S]\n"
    "  info    time span, records per kind and per instrument, gaps\n"
    "  dump    every record with its fields, as text or CSV\n"
    "  replay  the demo's live table against the replay service, N times the recorded\n"
    "          pace (1 by default, 0 as fast as possible) for S seconds (default 5);\n"
    "          run from a folder holding dravikcfg.dat and ini/, as the demo\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs(kUsage, argc == 2 && std::strcmp(argv[1], "--help") == 0 ? stdout : stderr);
    return argc == 2 && std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
  }
  std::string command = argv[1];
  std::string path = argv[2];
  bool csv = false;
  double speed = 1;
  int seconds = 5;
  for (int i = 3; i < argc; ++i) {
    char* end = nullptr;
    if (std::strcmp(argv[i], "--csv") == 0 && command == "dump") {
      csv = true;
    } else if (std::strcmp(argv[i], "--speed") == 0 && i + 1 < argc && command == "replay") {
      speed = std::strtod(argv[++i], &end);
      if (end == argv[i] || *end != '\0' || speed < 0) {
        std::fprintf(stderr, "kelquote_capture: --speed takes a number of 0 or more\n");
        return 2;
      }
    } else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc && command == "replay") {
      seconds = std::atoi(argv[++i]);
    } else {
      std::fputs(kUsage, stderr);
      return 2;
    }
  }
  if (command == "info") return captool::info(path);
  if (command == "dump") return captool::dump(path, csv);
  if (command == "replay") return captool::replay(path, speed, seconds);
  std::fputs(kUsage, stderr);
  return 2;
}
