// The tool's commands over one capture file.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "capture/catalog.h"
#include "dataapi/DataApi.h"
#include "demo/demo.h"
#include "kelquote/KelQuoteClient.h"
#include "port/port.h"
#include "tools/capture/capture_tool.h"
#include "utils/utils.h"

namespace captool {

namespace {

bool Open(capture::Reader& reader, const std::string& path) {
  if (reader.open(path)) return true;
  std::fprintf(stderr, "kelquote_capture: %s\n", reader.error().c_str());
  return false;
}

// The end of a read: a damaged record is an error, a cut last record only a note.
int Finish(const capture::Reader& reader) {
  if (!reader.error().empty()) {
    std::fprintf(stderr, "kelquote_capture: %s\n", reader.error().c_str());
    return 1;
  }
  if (reader.truncated() != 0) {
    std::fprintf(stderr, "kelquote_capture: the file ends inside a record (%llu bytes left out): read up to it\n",
                 static_cast<unsigned long long>(reader.truncated()));
  }
  return 0;
}

std::string WallTime(int64_t unix_ns) {
  std::time_t seconds = static_cast<std::time_t>(unix_ns / 1000000000);
  std::tm tm{};
  port::LocalTime(seconds, &tm);
  char text[48];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(unix_ns / 1000000 % 1000));
  return text;
}

// A CSV cell: quoted when it holds a comma, a quote or a line end.
std::string Cell(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

}  // namespace

int info(const std::string& path) {
  capture::Reader reader;
  if (!Open(reader, path)) return 1;
  std::map<std::string, uint64_t> kinds;
  std::map<std::string, uint64_t> instruments;
  std::vector<std::pair<uint64_t, uint64_t>> gaps;  // (length, at) between two callbacks
  uint64_t first = 0, last = 0, callbacks = 0, previous = 0;
  bool any = false;
  capture::Record r;
  while (reader.next(r)) {
    if (!any) first = r.ns;
    any = true;
    last = std::max(last, r.ns);
    ++kinds[describe(r)];
    if (r.kind != capture::Kind::kCallback) continue;
    std::string instrument = capture::instrument_of(r.code, r.bytes.data(), r.bytes.size());
    if (!instrument.empty()) ++instruments[instrument];
    if (callbacks++ > 0 && r.ns > previous) gaps.emplace_back(r.ns - previous, previous);
    previous = r.ns;
  }
  const int64_t start = reader.header().start_unix_ns;
  std::printf("file      %s (format version %u, part %u)\n", path.c_str(), reader.header().version,
              reader.header().part);
  std::printf("session   started %s\n", WallTime(start).c_str());
  if (any) {
    std::printf("span      %s to %s (%.3f s)\n", WallTime(start + static_cast<int64_t>(first)).c_str(),
                WallTime(start + static_cast<int64_t>(last)).c_str(), (last - first) / 1e9);
  }
  std::printf("records   %llu\n", static_cast<unsigned long long>(reader.records()));
  std::printf("\nby kind\n");
  for (const auto& [name, count] : kinds) std::printf("  %-40s %llu\n", name.c_str(), static_cast<unsigned long long>(count));
  std::printf("\nby instrument (callbacks)\n");
  for (const auto& [name, count] : instruments) {
    std::printf("  %-40s %llu\n", name.c_str(), static_cast<unsigned long long>(count));
  }
  std::sort(gaps.rbegin(), gaps.rend());
  size_t long_gaps = std::count_if(gaps.begin(), gaps.end(), [](const auto& g) { return g.first >= 1000000000; });
  std::printf("\ngaps between callbacks: %zu of 1 s or more; the longest:\n", long_gaps);
  for (size_t i = 0; i < gaps.size() && i < 5; ++i) {
    std::printf("  %.3f s after %s\n", gaps[i].first / 1e9, WallTime(start + static_cast<int64_t>(gaps[i].second)).c_str());
  }
  return Finish(reader);
}

int dump(const std::string& path, bool csv) {
  capture::Reader reader;
  if (!Open(reader, path)) return 1;
  if (csv) std::printf("time_ns,kind,name,bytes,fields...\n");
  capture::Record r;
  while (reader.next(r)) {
    std::string what = describe(r);
    std::string kind = what.substr(0, what.find(' '));
    std::string name = what.substr(what.find(' ') + 1);
    Fields fields = decode(r);
    if (csv) {
      std::printf("%llu,%s,%s,%zu", static_cast<unsigned long long>(r.ns), kind.c_str(), name.c_str(), r.bytes.size());
      for (const auto& [key, value] : fields) std::printf(",%s", Cell(key + "=" + value).c_str());
    } else {
      std::printf("%14.6f %-8s %-28s %6zu B", r.ns / 1e9, kind.c_str(), name.c_str(), r.bytes.size());
      for (const auto& [key, value] : fields) std::printf(" %s=%s", key.c_str(), value.c_str());
    }
    std::printf("\n");
  }
  return Finish(reader);
}

int replay(const std::string& path, double speed, int seconds) {
  capture::Reader reader;
  if (!Open(reader, path)) return 1;
  // The replay service reads the file and the pace from the environment when
  // the library connects.
  char text[32];
  std::snprintf(text, sizeof(text), "%g", speed);
  port::SetEnvironment("KELQUOTE_REPLAY_FILE", path.c_str());
  port::SetEnvironment("KELQUOTE_REPLAY_SPEED", text);
  const char* service = GetApiInstance()->GetVersion();
  if (std::string(service).find("replay") == std::string::npos) {
    std::fprintf(stderr, "kelquote_capture: this process loaded \"%s\", not the replay service: put the replay's "
                         "DataApi library in its place\n", service);
    return 1;
  }
  tavr::BaseQuoteClient* client = getKelClient();
  client->registerQuoterConnectCallBack([](int code, std::string text) {
    std::printf("[connection] %d: %s\n", code, utils::safeGbk2Utf8(text).c_str());
  });
  bool ok = false;
  client->goLogin(tavr::LoginParam{}, [&](bool logged_in, std::string reason) {
    ok = logged_in;
    if (!logged_in) std::printf("[login] failed: %s\n", utils::safeGbk2Utf8(reason).c_str());
  });
  if (!ok) return 1;
  std::printf("[replay] %s at %s\n", path.c_str(), speed > 0 ? (std::string(text) + "x").c_str() : "full speed");
  demo::ShowRealtime(*client, seconds);
  return 0;
}

}  // namespace captool
