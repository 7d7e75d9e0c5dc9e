// SQLite back end: WAL mode, one transaction per batch, prepared upserts.
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "store/backends.h"
#include "store/schema.h"

namespace kqstore {
namespace {

const char kSqliteSchema[] =
    "CREATE TABLE IF NOT EXISTS bars(symbol TEXT NOT NULL, market TEXT NOT NULL, interval TEXT NOT NULL,"
    " time INTEGER NOT NULL, open REAL, high REAL, low REAL, close REAL, volume INTEGER, amount REAL,"
    " open_interest INTEGER, PRIMARY KEY(symbol, market, interval, time)) WITHOUT ROWID;"
    // Ticks arrive for thousands of instruments at once: rows appended in
    // arrival order with a small key index cost fewer page writes per batch
    // than rows kept in key order.
    "CREATE TABLE IF NOT EXISTS ticks(symbol TEXT NOT NULL, market TEXT NOT NULL, time INTEGER NOT NULL,"
    " seq INTEGER NOT NULL, last REAL, volume INTEGER, amount REAL,"
    " bid1 REAL, bid2 REAL, bid3 REAL, bid4 REAL, bid5 REAL, ask1 REAL, ask2 REAL, ask3 REAL, ask4 REAL, ask5 REAL,"
    " bid_vol1 INTEGER, bid_vol2 INTEGER, bid_vol3 INTEGER, bid_vol4 INTEGER, bid_vol5 INTEGER,"
    " ask_vol1 INTEGER, ask_vol2 INTEGER, ask_vol3 INTEGER, ask_vol4 INTEGER, ask_vol5 INTEGER,"
    " phase INTEGER, UNIQUE(symbol, market, time, seq));"
    "CREATE TABLE IF NOT EXISTS trades(symbol TEXT NOT NULL, market TEXT NOT NULL, time INTEGER NOT NULL,"
    " seq INTEGER NOT NULL, price REAL, volume INTEGER, amount REAL, side TEXT, number INTEGER,"
    " UNIQUE(symbol, market, time, seq));"
    "CREATE TABLE IF NOT EXISTS overview(symbol TEXT NOT NULL, market TEXT NOT NULL, interval TEXT NOT NULL,"
    " count INTEGER, first INTEGER, last INTEGER, PRIMARY KEY(symbol, market, interval)) WITHOUT ROWID;";

class Statement {
 public:
  Statement() = default;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { sqlite3_finalize(stmt_); }
  bool prepare(sqlite3* db, const std::string& sql) { return sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) == SQLITE_OK; }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

class SqliteStore : public Store {
 public:
  // Statements are finalized before the connection closes: close_v2 waits for them.
  ~SqliteStore() override { sqlite3_close_v2(db_); }

  bool open(const std::string& path, std::string* error) {
    std::error_code ec;
    std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ec);
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
      return fail(error, "cannot open " + path);
    }
    // A writer of another process holds the file at most this long before
    // the batch goes to the spool instead.
    sqlite3_busy_timeout(db_, 2000);
    // NORMAL in WAL mode: a committed batch survives a crash of the process.
    // A large page cache: rows of thousands of instruments land all over the
    // key order, and a cache that holds the tables' hot pages saves rereading them.
    if (!exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-262144; PRAGMA mmap_size=1073741824; PRAGMA wal_autocheckpoint=16384;", error) ||
        !exec(kSqliteSchema, error)) {
      return false;
    }
    std::string ticks = std::string("INSERT OR REPLACE INTO ticks(symbol,market,time,seq,") + TickValueColumns() + ") VALUES(" +
            Placeholders(kTickColumns) + ")";
    std::string bars = std::string("INSERT OR REPLACE INTO bars(symbol,market,interval,time,") + BarValueColumns() +
                       ") VALUES(" + Placeholders(kBarColumns) + ")";
    const char* overview =
        "INSERT OR REPLACE INTO overview SELECT symbol, market, interval, count(*), min(time), max(time) FROM bars"
        " WHERE symbol=?1 AND market=?2 AND interval=?3 GROUP BY symbol, market, interval";
    const char* trades =
        "INSERT OR REPLACE INTO trades(symbol,market,time,seq,price,volume,amount,side,number)"
        " VALUES(?,?,?,?,?,?,?,?,?)";
    if (!trade_insert_.prepare(db_, trades) || !tick_insert_.prepare(db_, ticks) || !bar_insert_.prepare(db_, bars) || !overview_.prepare(db_, overview)) {
      return fail(error, "cannot prepare the statements of " + path);
    }
    return true;
  }

  bool Write(const Batch& batch, std::string* error) override {
    if (batch.empty()) return true;
    if (!exec("BEGIN IMMEDIATE", error)) return false;
    bool ok = true;
    // In key order the inserts walk the table's pages in turn instead of
    // jumping between instruments; equal keys keep their order (the last wins).
    std::vector<const Tick*> order(batch.ticks.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = &batch.ticks[i];
    std::stable_sort(order.begin(), order.end(), [](const Tick* a, const Tick* b) {
      if (int c = a->symbol.compare(b->symbol)) return c < 0;
      if (int c = a->market.compare(b->market)) return c < 0;
      return a->time != b->time ? a->time < b->time : a->seq < b->seq;
    });
    for (const Tick* t : order) {
      if (!(ok = InsertTick(*t))) break;
    }
    for (const Trade& t : batch.trades) {
      if (!ok) break;
      sqlite3_stmt* s = trade_insert_.get();
      sqlite3_bind_text(s, 1, t.symbol.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(s, 2, t.market.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(s, 3, t.time);
      sqlite3_bind_int(s, 4, t.seq);
      sqlite3_bind_double(s, 5, t.price);
      sqlite3_bind_int64(s, 6, t.volume);
      sqlite3_bind_double(s, 7, t.amount);
      sqlite3_bind_text(s, 8, t.side.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(s, 9, t.number);
      ok = sqlite3_step(s) == SQLITE_DONE;
      sqlite3_reset(s);
    }
    if (ok) {
      for (const Bar& b : batch.bars) {
        if (!(ok = InsertBar(b))) break;
      }
    }
    if (ok) {
      for (const SeriesKey& key : TouchedSeries(batch)) {
        sqlite3_stmt* s = overview_.get();
        sqlite3_bind_text(s, 1, std::get<0>(key).c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(s, 2, std::get<1>(key).c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(s, 3, std::get<2>(key).c_str(), -1, SQLITE_STATIC);
        ok = sqlite3_step(s) == SQLITE_DONE;
        sqlite3_reset(s);
        if (!ok) break;
      }
    }
    if (!ok) {
      std::string reason = sqlite3_errmsg(db_);
      exec("ROLLBACK", nullptr);
      return fail(error, "write failed: " + reason);
    }
    return exec("COMMIT", error);
  }

  bool Bars(const std::string& symbol, const std::string& market, const std::string& interval, int64_t from,
            int64_t to, std::vector<Bar>* out, std::string* error) override {
    Statement s;
    if (!s.prepare(db_, std::string("SELECT time,") + BarValueColumns() +
                            " FROM bars WHERE symbol=?1 AND market=?2 AND interval=?3 AND time BETWEEN ?4 AND ?5"
                            " ORDER BY time")) {
      return fail(error, sqlite3_errmsg(db_));
    }
    sqlite3_bind_text(s.get(), 1, symbol.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s.get(), 2, market.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s.get(), 3, interval.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s.get(), 4, from);
    sqlite3_bind_int64(s.get(), 5, to);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
      Bar b;
      b.symbol = symbol;
      b.market = market;
      b.interval = interval;
      b.time = sqlite3_column_int64(s.get(), 0);
      b.open = sqlite3_column_double(s.get(), 1);
      b.high = sqlite3_column_double(s.get(), 2);
      b.low = sqlite3_column_double(s.get(), 3);
      b.close = sqlite3_column_double(s.get(), 4);
      b.volume = sqlite3_column_int64(s.get(), 5);
      b.amount = sqlite3_column_double(s.get(), 6);
      b.open_interest = sqlite3_column_int64(s.get(), 7);
      out->push_back(std::move(b));
    }
    return rc == SQLITE_DONE || fail(error, sqlite3_errmsg(db_));
  }

  bool Ticks(const std::string& symbol, const std::string& market, int64_t from, int64_t to,
             std::vector<Tick>* out, std::string* error) override {
    Statement s;
    if (!s.prepare(db_, std::string("SELECT time,seq,") + TickValueColumns() +
                            " FROM ticks WHERE symbol=?1 AND market=?2 AND time BETWEEN ?3 AND ?4 ORDER BY time, seq")) {
      return fail(error, sqlite3_errmsg(db_));
    }
    sqlite3_bind_text(s.get(), 1, symbol.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s.get(), 2, market.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s.get(), 3, from);
    sqlite3_bind_int64(s.get(), 4, to);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
      Tick t;
      t.symbol = symbol;
      t.market = market;
      sqlite3_stmt* r = s.get();
      t.time = sqlite3_column_int64(r, 0);
      t.seq = sqlite3_column_int(r, 1);
      t.last = sqlite3_column_double(r, 2);
      t.volume = sqlite3_column_int64(r, 3);
      t.amount = sqlite3_column_double(r, 4);
      for (int i = 0; i < 5; ++i) {
        t.bid[i] = sqlite3_column_double(r, 5 + i);
        t.ask[i] = sqlite3_column_double(r, 10 + i);
        t.bid_vol[i] = sqlite3_column_int64(r, 15 + i);
        t.ask_vol[i] = sqlite3_column_int64(r, 20 + i);
      }
      t.phase = sqlite3_column_int(r, 25);
      out->push_back(std::move(t));
    }
    return rc == SQLITE_DONE || fail(error, sqlite3_errmsg(db_));
  }

  bool Trades(const std::string& symbol, const std::string& market, int64_t from, int64_t to,
              std::vector<Trade>* out, std::string* error) override {
    Statement s;
    if (!s.prepare(db_, "SELECT time, seq, price, volume, amount, side, number FROM trades"
                        " WHERE symbol=?1 AND market=?2 AND time BETWEEN ?3 AND ?4 ORDER BY time, seq")) {
      return fail(error, sqlite3_errmsg(db_));
    }
    sqlite3_bind_text(s.get(), 1, symbol.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s.get(), 2, market.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s.get(), 3, from);
    sqlite3_bind_int64(s.get(), 4, to);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
      sqlite3_stmt* r = s.get();
      const unsigned char* side = sqlite3_column_text(r, 5);
      out->push_back(Trade{symbol, market, sqlite3_column_int64(r, 0), sqlite3_column_int(r, 1),
                           sqlite3_column_double(r, 2), sqlite3_column_int64(r, 3), sqlite3_column_double(r, 4),
                           side != nullptr ? reinterpret_cast<const char*>(side) : "", sqlite3_column_int64(r, 6)});
    }
    return rc == SQLITE_DONE || fail(error, sqlite3_errmsg(db_));
  }

  bool Overviews(std::vector<Overview>* out, std::string* error) override {
    Statement s;
    if (!s.prepare(db_, "SELECT symbol, market, interval, count, first, last FROM overview ORDER BY 1, 2, 3")) {
      return fail(error, sqlite3_errmsg(db_));
    }
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
      Overview o;
      o.symbol = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0));
      o.market = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 1));
      o.interval = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 2));
      o.count = sqlite3_column_int64(s.get(), 3);
      o.first = sqlite3_column_int64(s.get(), 4);
      o.last = sqlite3_column_int64(s.get(), 5);
      out->push_back(std::move(o));
    }
    return rc == SQLITE_DONE || fail(error, sqlite3_errmsg(db_));
  }

  bool LatestTime(const std::string& symbol, const std::string& market, const std::string& interval,
                  int64_t before, int64_t* time, std::string* error) override {
    Statement s;
    bool ticks = interval == "tick";
    std::string sql = ticks ? "SELECT max(time) FROM ticks WHERE symbol=?1 AND market=?2 AND time < ?4"
                            : "SELECT max(time) FROM bars WHERE symbol=?1 AND market=?2 AND interval=?3 AND time < ?4";
    if (!s.prepare(db_, sql)) return fail(error, sqlite3_errmsg(db_));
    sqlite3_bind_text(s.get(), 1, symbol.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s.get(), 2, market.c_str(), -1, SQLITE_STATIC);
    if (!ticks) sqlite3_bind_text(s.get(), 3, interval.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s.get(), 4, before);
    if (sqlite3_step(s.get()) != SQLITE_ROW) return fail(error, sqlite3_errmsg(db_));
    *time = sqlite3_column_int64(s.get(), 0);
    return true;
  }

 private:
  static std::string Placeholders(int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += i == 0 ? "?" : ",?";
    return s;
  }

  static bool fail(std::string* error, const std::string& text) {
    if (error != nullptr) *error = "sqlite: " + text;
    return false;
  }

  bool exec(const char* sql, std::string* error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
    std::string text = message != nullptr ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    return fail(error, text);
  }

  bool InsertTick(const Tick& t) {
    sqlite3_stmt* s = tick_insert_.get();
    sqlite3_bind_text(s, 1, t.symbol.c_str(), static_cast<int>(t.symbol.size()), SQLITE_STATIC);
    sqlite3_bind_text(s, 2, t.market.c_str(), static_cast<int>(t.market.size()), SQLITE_STATIC);
    sqlite3_bind_int64(s, 3, t.time);
    sqlite3_bind_int(s, 4, t.seq);
    sqlite3_bind_double(s, 5, t.last);
    sqlite3_bind_int64(s, 6, t.volume);
    sqlite3_bind_double(s, 7, t.amount);
    for (int i = 0; i < 5; ++i) {
      sqlite3_bind_double(s, 8 + i, t.bid[i]);
      sqlite3_bind_double(s, 13 + i, t.ask[i]);
      sqlite3_bind_int64(s, 18 + i, t.bid_vol[i]);
      sqlite3_bind_int64(s, 23 + i, t.ask_vol[i]);
    }
    sqlite3_bind_int(s, 28, t.phase);
    bool ok = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_reset(s);
    return ok;
  }

  bool InsertBar(const Bar& b) {
    sqlite3_stmt* s = bar_insert_.get();
    sqlite3_bind_text(s, 1, b.symbol.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 2, b.market.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 3, b.interval.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s, 4, b.time);
    sqlite3_bind_double(s, 5, b.open);
    sqlite3_bind_double(s, 6, b.high);
    sqlite3_bind_double(s, 7, b.low);
    sqlite3_bind_double(s, 8, b.close);
    sqlite3_bind_int64(s, 9, b.volume);
    sqlite3_bind_double(s, 10, b.amount);
    sqlite3_bind_int64(s, 11, b.open_interest);
    bool ok = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_reset(s);
    return ok;
  }

  sqlite3* db_ = nullptr;
  Statement tick_insert_, bar_insert_, trade_insert_, overview_;
};

}  // namespace

std::unique_ptr<Store> OpenSqlite(const std::string& path, std::string* error) {
  auto store = std::make_unique<SqliteStore>();
  if (!store->open(path, error)) return nullptr;
  return store;
}

}  // namespace kqstore
