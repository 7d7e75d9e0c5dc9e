// kelquote_record: logs in as any host does and records what its settings
// name into a store. See kelquote_record --help.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <thread>

#include "kelquote/KelQuoteClient.h"
#include "tools/record/recorder.h"
#include "tools/record/settings.h"
#include "tools/record/writer.h"
#include "utils/utils.h"

namespace {

// The only signal work: a flag the main loop reads.
std::atomic<int> g_signal{0};
extern "C" void OnSignal(int number) { g_signal.store(number); }

std::mutex g_print_mu;
void Say(const std::string& text) {
  std::lock_guard<std::mutex> lock(g_print_mu);
  std::printf("[record] %s\n", text.c_str());
  std::fflush(stdout);
}

int Fail(const std::string& text) {
  std::fprintf(stderr, "kelquote_record: %s\n", text.c_str());
  return 1;
}

// Once logged in, the library's threads run until the process ends (it has
// no logout, and a quote service other than the simulator cannot be told to
// end the session), so the process leaves without running static
// destructors under them. Everything received is written by then.
[[noreturn]] int Leave(int code) {
  std::fflush(nullptr);
  std::_Exit(code);
}

}  // namespace

int main(int argc, char** argv) {
  // The library stamps records in local time, and exchange time is China
  // Standard Time: without a TZ of the user's, the process takes it (a POSIX
  // value, no tzdata needed) before anything reads the clock.
  if (std::getenv("TZ") == nullptr) setenv("TZ", "CST-8", 1);
  tzset();
  record::Settings settings;
  bool help = false;
  std::string error;
  if (!record::ParseCommandLine(argc, argv, &settings, &help, &error)) {
    std::fprintf(stderr, "kelquote_record: %s\n%s", error.c_str(), record::kUsage);
    return 2;
  }
  if (help) {
    std::fputs(record::kUsage, stdout);
    return 0;
  }
  // The store first: an unreachable database is said before any login.
  std::unique_ptr<kqstore::Store> store = kqstore::Store::Open(settings.url, &error);
  if (!store) return Fail(error);
  record::Spool spool(settings.spool, settings.spool_max_mb << 20);
  if (!spool.Open(&error)) return Fail(error);
  if (!spool.empty()) Say(std::to_string(spool.files()) + " batches of an earlier run wait in the spool: written first");

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);

  record::Writer writer(store.get(), &spool, std::chrono::milliseconds(settings.flush_ms), Say);
  writer.Start();
  tavr::BaseQuoteClient* client = getKelClient();
  std::unique_ptr<record::Recorder> recorder;
  std::mutex recorder_mu;
  client->registerQuoterConnectCallBack([&](int code, std::string text) {
    Say("connection " + std::to_string(code) + ": " + utils::safeGbk2Utf8(text));
    std::lock_guard<std::mutex> lock(recorder_mu);
    if (recorder) recorder->OnConnection(code);
  });
  bool logged_in = false;
  std::string reason;
  client->goLogin(tavr::LoginParam{}, [&](bool ok, std::string text) {
    logged_in = ok;
    reason = utils::safeGbk2Utf8(text);
  });
  if (!logged_in) {
    writer.Stop();
    return Leave(Fail("login failed: " + reason));
  }
  {
    std::lock_guard<std::mutex> lock(recorder_mu);
    recorder = std::make_unique<record::Recorder>(client, settings, &writer);
  }
  recorder->set_note(Say);
  if (!recorder->Start(&error)) {
    writer.Stop();
    return Leave(Fail(error));
  }
  Say("recording into " + settings.url + (settings.seconds > 0 ? " for " + std::to_string(settings.seconds) + " s" : "") +
      "; SIGINT or SIGTERM stops");

  auto start = std::chrono::steady_clock::now();
  auto next_status = start + std::chrono::seconds(settings.status_seconds);
  uint64_t written_before = 0;
  while (g_signal.load() == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto now = std::chrono::steady_clock::now();
    if (settings.seconds > 0 && now - start >= std::chrono::seconds(settings.seconds)) break;
    if (now < next_status) continue;
    record::WriterStatus s = writer.status();
    char line[320];
    std::snprintf(line, sizeof line,
                  "%.0f rows/s written, %llu received, behind %.1f s, %llu rows in memory, spool %zu files "
                  "%llu rows %.1f MB%s, backfill %zu waiting %llu rows",
                  static_cast<double>(s.written - written_before) / settings.status_seconds,
                  static_cast<unsigned long long>(recorder->received()), s.behind_seconds,
                  static_cast<unsigned long long>(s.pending), s.spool_files,
                  static_cast<unsigned long long>(s.spool_rows), static_cast<double>(s.spool_bytes) / (1 << 20),
                  s.database_down ? " (database unavailable)" : "", recorder->backfills_waiting(),
                  static_cast<unsigned long long>(recorder->backfilled()));
    Say(line);
    written_before = s.written;
    next_status += std::chrono::seconds(settings.status_seconds);
  }
  if (g_signal.load() != 0) Say("signal " + std::to_string(g_signal.load()) + ": stopping");
  recorder->Stop();
  uint64_t left = writer.Stop();
  record::WriterStatus s = writer.status();
  Say("done: " + std::to_string(s.written) + " rows written" +
      (left > 0 ? ", " + std::to_string(left) + " rows wait in the spool for the next run" : ""));
  {
    std::lock_guard<std::mutex> lock(recorder_mu);
    recorder.reset();
  }
  store.reset();
  return Leave(0);
}
