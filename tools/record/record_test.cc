// The recorder against the simulated quote service and a SQLite file: the
// gap of an outage filled from history, and bad input turned away.
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "dataapi/sim/sim_control.h"
#include "kelquote/KelQuoteClient.h"
#include "tests/host_folder.h"
#include "tools/record/recorder.h"
#include "utils/utils.h"

namespace {

using namespace std::chrono_literals;

template <typename Done>
bool WaitFor(Done done) {
  for (int i = 0; i < 600 && !done(); ++i) std::this_thread::sleep_for(50ms);
  return done();
}

TEST(Recorder, HistoryFillsTheMinutesAndTicksOfAnOutage) {
  testhost::HostFolder folder;
  ASSERT_EQ(SimSetClock(0, 100000), 0);
  int day = SimLastTradingDay(static_cast<int>(utils::millisecondsToTime(static_cast<int64_t>(utils::getTime() * 1000)) / 1000000));
  record::Settings settings;
  settings.url = "sqlite://" + (folder.root() / "r.db").string();
  settings.symbols = {"600000.SH"};
  settings.trades = true;
  settings.spool = (folder.root() / "spool").string();
  auto store = kqstore::Store::Open(settings.url, nullptr);
  ASSERT_TRUE(store);
  record::Spool spool(settings.spool, 1 << 30);
  std::string error;
  ASSERT_TRUE(spool.Open(&error));
  record::Writer writer(store.get(), &spool, 50ms, [](const std::string&) {});
  writer.Start();

  tavr::BaseQuoteClient* client = getKelClient();
  record::Recorder* live = nullptr;
  std::mutex mu;
  client->registerQuoterConnectCallBack([&](int code, std::string) {
    std::lock_guard<std::mutex> lock(mu);
    if (live != nullptr) live->OnConnection(code);
  });
  bool ok = false;
  client->goLogin(tavr::LoginParam{}, [&](bool good, std::string) { ok = good; });
  ASSERT_TRUE(ok);
  record::Recorder recorder(client, settings, &writer);
  {
    std::lock_guard<std::mutex> lock(mu);
    live = &recorder;
  }
  ASSERT_TRUE(recorder.Start(&error)) << error;
  ASSERT_TRUE(WaitFor([&] { return recorder.backfilled() > 0 && recorder.backfills_waiting() == 0; }));
  uint64_t first_fill = recorder.backfilled();

  // Five minutes pass while the quote connection is down.
  ASSERT_EQ(SimReportConnection(0, 0), 0);
  ASSERT_EQ(SimSetClock(day, 100500), 0);
  std::this_thread::sleep_for(1s);
  ASSERT_EQ(SimReportConnection(0, 1), 0);
  ASSERT_TRUE(WaitFor([&] { return recorder.backfilled() > first_fill && recorder.backfills_waiting() == 0; }));
  std::this_thread::sleep_for(1s);
  {
    std::lock_guard<std::mutex> lock(mu);
    live = nullptr;
  }
  recorder.Stop();
  EXPECT_EQ(writer.Stop(), 0u);

  // Every minute of the morning up to the restore has its bar: 09:31 to 10:06.
  std::vector<kqstore::Bar> bars;
  ASSERT_TRUE(store->Bars("600000", "SH", "1m", utils::timeToMilliseconds(day, 0),
                          utils::timeToMilliseconds(day, 235959), &bars, &error));
  std::set<int64_t> minutes;
  for (const auto& b : bars) minutes.insert(utils::millisecondsToTime(b.time) % 1000000);
  for (int hhmm = 931; hhmm <= 1005; hhmm = hhmm % 100 == 59 ? hhmm + 41 : hhmm + 1) {
    EXPECT_EQ(minutes.count(hhmm * 100), 1u) << hhmm;
  }
  // The ticks of the outage came from history.
  std::vector<kqstore::Tick> ticks;
  ASSERT_TRUE(store->Ticks("600000", "SH", utils::timeToMilliseconds(day, 100100),
                           utils::timeToMilliseconds(day, 100400), &ticks, &error));
  EXPECT_GT(ticks.size(), 50u);
  std::vector<kqstore::Trade> trades;
  ASSERT_TRUE(store->Trades("600000", "SH", 0, INT64_MAX, &trades, &error));
  EXPECT_FALSE(trades.empty());
  SimReportConnection(0, 2);
  SimWaitIdle(5000);
  SimSetTimeOfDay(-1);
}

// Killed mid-run, the recorder keeps what it committed; the next start
// records the same session again beside it, also without a TZ of the user's
// (exchange time is the recorder's own default).
TEST(Recorder, AKilledRunKeepsWhatItCommitted) {
  testhost::HostFolder folder;
  std::string url = "sqlite://" + (folder.root() / "k.db").string();
  std::string run = "env KELQUOTE_SIM_CLOCK=0-100000 " + std::string(KQ_RECORD) + " --url " + url +
                    " --symbols 600000.SH >out.txt 2>&1";
  EXPECT_NE(std::system(("timeout -s KILL 6 " + run).c_str()), 0);
  auto count = [&] {
    std::string error;
    auto store = kqstore::Store::Open(url, &error);
    std::vector<kqstore::Tick> ticks;
    std::vector<kqstore::Bar> bars;
    EXPECT_TRUE(store && store->Ticks("600000", "SH", 0, INT64_MAX, &ticks, &error) &&
                store->Bars("600000", "SH", "1m", 0, INT64_MAX, &bars, &error))
        << error;
    return std::make_pair(ticks.size(), bars.size());
  };
  auto killed = count();
  EXPECT_GT(killed.first, 100u);  // history's ticks of the morning and live ones
  EXPECT_EQ(std::system(("env -u TZ " + run + " --seconds 2").c_str()), 0);
  auto again = count();
  EXPECT_GE(again.first, killed.first);
  EXPECT_EQ(again.second, killed.second);  // the same minutes, written again
}

// Bad settings, an unknown symbol, an unreachable store: one message and an
// exit code that is not 0.
TEST(Recorder, BadInputGetsOneMessageAndAFailingExit) {
  testhost::HostFolder folder;
  std::ofstream(folder.root() / "run" / "bad.conf") << "symbols = 600000.SH\ncolour = red\n";
  const std::pair<std::string, std::string> cases[] = {
      {"--settings missing.conf", "cannot read the settings file missing.conf"},
      {"--settings bad.conf", "bad.conf, line 2: unknown setting colour"},
      {"--symbols 600000", "symbol 600000 is not code.market"},
      {"--seconds x --symbols 600000.SH", "bad value for seconds"},
      {"--frobnicate", "unknown argument --frobnicate"},
      {"--url postgresql://nobody@127.0.0.1:1/none --symbols 600000.SH", "cannot connect"},
      {"--url sqlite://r.db --symbols 999999.SH --seconds 1", "unknown symbol 999999.SH"},
      {"--url sqlite://r.db --markets XX --seconds 1", "unknown market XX"},
  };
  for (const auto& [args, says] : cases) {
    std::string command = std::string(KQ_RECORD) + " " + args + " >out.txt 2>&1";
    int status = std::system(command.c_str());
    std::ifstream in("out.txt");
    std::string output((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(status, 0) << args;
    EXPECT_NE(output.find(says), std::string::npos) << args << ":\n" << output;
  }
}

}  // namespace
