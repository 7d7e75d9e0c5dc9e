// The store against real databases: a SQLite file, and the PostgreSQL
// server that scripts/pg-test-server.sh starts (KELQUOTE_TEST_PG_URL).
#include <libpq-fe.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "store/store.h"
#include "tools/record/spool.h"
#include "tools/record/writer.h"

namespace {

namespace fs = std::filesystem;

kqstore::Tick MakeTick(const std::string& code, int64_t time, int32_t seq, double last) {
  kqstore::Tick t;
  t.symbol = code;
  t.market = "SH";
  t.time = time;
  t.seq = seq;
  t.last = last;
  t.volume = 100 + seq;
  t.amount = last * 100;
  t.bid[4] = last - 0.05;
  t.ask_vol[4] = 7;
  t.phase = 13;
  return t;
}

kqstore::Bar MakeBar(const std::string& code, const char* interval, int64_t time, double close) {
  kqstore::Bar b;
  b.symbol = code;
  b.market = "SH";
  b.interval = interval;
  b.time = time;
  b.open = b.low = close - 1;
  b.high = close + 1;
  b.close = close;
  b.volume = 5;
  b.amount = 50.5;
  b.open_interest = 3;
  return b;
}

const int64_t kT0 = 1764034260000;  // a minute's end

// Two ticks and a bar written under one key within the batch: the later wins.
kqstore::Batch SampleBatch(const std::string& code) {
  kqstore::Batch b;
  for (int i = 0; i < 50; ++i) b.ticks.push_back(MakeTick(code, kT0 + i / 2 * 500, i % 2, 10 + i * 0.01));
  b.ticks.push_back(MakeTick(code, kT0, 0, 9.5));
  for (int i = 0; i < 5; ++i) b.bars.push_back(MakeBar(code, "1m", kT0 + i * 60000, 10 + i));
  b.bars.push_back(MakeBar(code, "1m", kT0, 8));
  b.bars.push_back(MakeBar(code, "1d", kT0 - kT0 % 86400000, 12));
  for (int i = 0; i < 3; ++i) b.trades.push_back({code, "SH", kT0 + 5, i, 10.5 + i, 200, 2100.0, "B", 1000 + i});
  b.trades.push_back({code, "SH", kT0 + 5, 2, 9.0, 300, 2700.0, "S", 77});
  return b;
}

class StoreTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "sqlite") {
      dir_ = fs::temp_directory_path() / ("kq-store-" + std::to_string(::getpid()));
      fs::remove_all(dir_);
      url_ = "sqlite://" + (dir_ / "s.db").string();
    } else {
      const char* pg = std::getenv("KELQUOTE_TEST_PG_URL");
      if (pg == nullptr) GTEST_SKIP() << "KELQUOTE_TEST_PG_URL is not set (scripts/pg-test-server.sh sets it)";
      url_ = pg;
      Admin("DROP TABLE IF EXISTS ticks, bars, overview");
    }
    std::string error;
    store_ = kqstore::Store::Open(url_, &error);
    ASSERT_TRUE(store_) << error;
  }
  void TearDown() override {
    store_.reset();
    if (!dir_.empty()) fs::remove_all(dir_);
  }
  // Runs SQL on the test server's maintenance database.
  static void Admin(const std::string& sql) {
    const char* url = std::getenv("KELQUOTE_TEST_PG_ADMIN_URL");
    ASSERT_NE(url, nullptr);
    std::string target = std::getenv("KELQUOTE_TEST_PG_URL");
    PGconn* c = PQconnectdb(sql.rfind("DROP TABLE", 0) == 0 ? target.c_str() : url);
    PGresult* r = PQexec(c, sql.c_str());
    EXPECT_TRUE(PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK) << PQerrorMessage(c);
    PQclear(r);
    PQfinish(c);
  }
  size_t CountTicks(const std::string& code) {
    std::vector<kqstore::Tick> ticks;
    std::string error;
    EXPECT_TRUE(store_->Ticks(code, "SH", 0, kT0 * 2, &ticks, &error)) << error;
    return ticks.size();
  }

  fs::path dir_;
  std::string url_;
  std::unique_ptr<kqstore::Store> store_;
};

TEST_P(StoreTest, WritingABatchTwiceLeavesTheSameRows) {
  std::string error;
  for (int round = 0; round < 2; ++round) ASSERT_TRUE(store_->Write(SampleBatch("600000"), &error)) << error;

  std::vector<kqstore::Tick> ticks;
  ASSERT_TRUE(store_->Ticks("600000", "SH", kT0, kT0 + 60000, &ticks, &error)) << error;
  ASSERT_EQ(ticks.size(), 50u);
  EXPECT_EQ(ticks[0].last, 9.5);
  EXPECT_EQ(ticks[1].seq, 1);
  EXPECT_EQ(ticks[49].time, kT0 + 24 * 500);
  EXPECT_DOUBLE_EQ(ticks[49].bid[4], 10.49 - 0.05);
  EXPECT_EQ(ticks[49].ask_vol[4], 7);
  EXPECT_EQ(ticks[49].phase, 13);

  std::vector<kqstore::Bar> bars;
  ASSERT_TRUE(store_->Bars("600000", "SH", "1m", kT0, kT0 + 240000, &bars, &error)) << error;
  ASSERT_EQ(bars.size(), 5u);
  EXPECT_EQ(bars[0].close, 8);
  EXPECT_EQ(bars[4].time, kT0 + 240000);
  EXPECT_EQ(bars[4].amount, 50.5);
  EXPECT_EQ(bars[4].open_interest, 3);

  std::vector<kqstore::Overview> overview;
  ASSERT_TRUE(store_->Overviews(&overview, &error)) << error;
  ASSERT_EQ(overview.size(), 2u);
  EXPECT_EQ(overview[1].interval, "1m");
  EXPECT_EQ(overview[1].count, 5);
  EXPECT_EQ(overview[1].first, kT0);
  EXPECT_EQ(overview[1].last, kT0 + 240000);

  std::vector<kqstore::Trade> trades;
  ASSERT_TRUE(store_->Trades("600000", "SH", kT0, kT0 + 10, &trades, &error)) << error;
  ASSERT_EQ(trades.size(), 3u);
  EXPECT_EQ(trades[1].number, 1001);
  EXPECT_EQ(trades[2].side, "S");
  EXPECT_EQ(trades[2].volume, 300);

  int64_t latest = 0;
  ASSERT_TRUE(store_->LatestTime("600000", "SH", "1m", kT0 + 120000, &latest, &error)) << error;
  EXPECT_EQ(latest, kT0 + 60000);

  // A later batch, out of key order, repeats a key with a new value beside
  // a new row: the row is replaced. Then a batch of new rows only.
  kqstore::Batch later, fresh;
  later.ticks = {MakeTick("600000", kT0 + 90000, 0, 11.5), MakeTick("600000", kT0, 0, 9.75)};
  fresh.ticks = {MakeTick("510050", kT0 + 7, 3, 3.25), MakeTick("510050", kT0 + 7, 2, 3.5)};
  ASSERT_TRUE(store_->Write(later, &error)) << error;
  ASSERT_TRUE(store_->Write(fresh, &error)) << error;
  ticks.clear();
  ASSERT_TRUE(store_->Ticks("600000", "SH", kT0, kT0 + 90000, &ticks, &error)) << error;
  ASSERT_EQ(ticks.size(), 51u);
  EXPECT_EQ(ticks[0].last, 9.75);
  EXPECT_EQ(ticks[50].last, 11.5);
  ticks.clear();
  ASSERT_TRUE(store_->Ticks("510050", "SH", kT0, kT0 + 7, &ticks, &error)) << error;
  ASSERT_EQ(ticks.size(), 2u);
  EXPECT_EQ(ticks[0].seq, 2);
  EXPECT_EQ(ticks[1].time, kT0 + 7);
  EXPECT_EQ(ticks[1].volume, 103);
  EXPECT_DOUBLE_EQ(ticks[1].bid[4], 3.2);
  EXPECT_EQ(ticks[1].ask_vol[4], 7);
  EXPECT_EQ(ticks[1].phase, 13);
}

// The database goes away mid-run and comes back: rows wait in the spool,
// then every one arrives once.
TEST_P(StoreTest, RowsWaitInTheSpoolWhileTheDatabaseIsAway) {
  record::Spool spool(fs::temp_directory_path() / ("kq-spool-" + std::to_string(::getpid())), 64 << 20);
  std::string error;
  ASSERT_TRUE(spool.Open(&error)) << error;
  record::Writer writer(store_.get(), &spool, std::chrono::milliseconds(20), [](const std::string&) {});
  writer.Start();
  auto wait_for = [&](auto done) {
    for (int i = 0; i < 500 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  };
  writer.Add(SampleBatch("600001"));
  wait_for([&] { return writer.status().written > 0; });

  sqlite3* holder = nullptr;
  if (GetParam() == "sqlite") {
    // Another connection's write lock keeps the file away.
    ASSERT_EQ(sqlite3_open((dir_ / "s.db").c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  } else {
    Admin("ALTER DATABASE kelquote_test ALLOW_CONNECTIONS false");
    Admin("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = 'kelquote_test'");
  }
  writer.Add(SampleBatch("600002"));
  wait_for([&] { return writer.status().database_down; });
  writer.Add(SampleBatch("600003"));
  wait_for([&] { return writer.status().spool_files >= 2; });
  EXPECT_TRUE(writer.status().database_down);
  EXPECT_GE(writer.status().spool_files, 2u);
  if (holder != nullptr) {
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
  } else {
    Admin("ALTER DATABASE kelquote_test ALLOW_CONNECTIONS true");
  }
  wait_for([&] { return !writer.status().database_down && writer.status().spool_files == 0; });
  EXPECT_EQ(writer.Stop(), 0u);
  for (const char* code : {"600001", "600002", "600003"}) EXPECT_EQ(CountTicks(code), 50u) << code;
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreTest, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

TEST(StoreOpen, BadUrlsGetOneClearMessage) {
  const std::pair<const char*, const char*> cases[] = {
      {"sqlite://", "without a path"},
      {"mysql://x@y/z", "unknown store URL"},
      {"sqlite:///proc/no/such/dir/s.db", "cannot open"},
      {"postgresql://nobody@127.0.0.1:1/none?connect_timeout=2", "cannot connect"},
  };
  for (const auto& [url, says] : cases) {
    std::string error;
    EXPECT_EQ(kqstore::Store::Open(url, &error), nullptr) << url;
    EXPECT_NE(error.find(says), std::string::npos) << url << ": " << error;
  }
}

// Past its limit the spool drops the oldest ticks, never a bar, and what is
// left reads back.
TEST(Spool, FullDropsTheOldestTicksAndKeepsBars) {
  fs::path dir = fs::temp_directory_path() / ("kq-spool-full-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  std::string data;
  record::Spool::Encode(SampleBatch("600000"), &data);
  record::Spool spool(dir, data.size() * 5 / 2);
  std::string error;
  ASSERT_TRUE(spool.Open(&error));
  for (const char* code : {"600001", "600002", "600003"}) ASSERT_TRUE(spool.Push(SampleBatch(code), &error));
  EXPECT_EQ(spool.dropped_ticks(), 55u);
  EXPECT_EQ(spool.files(), 3u);
  std::vector<size_t> ticks, bars;
  kqstore::Batch batch;
  while (spool.Front(&batch, &error)) {
    ticks.push_back(batch.ticks.size());
    bars.push_back(batch.bars.size());
    spool.PopFront();
  }
  EXPECT_EQ(ticks, (std::vector<size_t>{0, 51, 51}));  // trades went with the first file's ticks
  EXPECT_EQ(bars, (std::vector<size_t>{7, 7, 7}));
  EXPECT_TRUE(fs::is_empty(dir));
  fs::remove_all(dir);
}

}  // namespace
