// PostgreSQL back end through libpq, one transaction per batch. Ticks, the
// bulk, go by binary COPY in key order straight into their table; only a
// batch that meets a stored key goes the slower way, copied into a staging
// table and upserted. Bars and trades always take that way. Times are
// timestamptz in the tables.
#include <libpq-fe.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>

#include "store/backends.h"
#include "store/schema.h"

namespace kqstore {
namespace {

// Key text compares bytewise ("C"): the locale's rules cost every index
// comparison and buy nothing for codes.
const char kPostgresSchema[] =
    "CREATE TABLE IF NOT EXISTS bars(symbol text COLLATE \"C\" NOT NULL, market text COLLATE \"C\" NOT NULL,"
    " interval text COLLATE \"C\" NOT NULL,"
    " time timestamptz NOT NULL, open float8, high float8, low float8, close float8, volume bigint, amount float8,"
    " open_interest bigint, PRIMARY KEY(symbol, market, interval, time));"
    "CREATE TABLE IF NOT EXISTS ticks(symbol text COLLATE \"C\" NOT NULL, market text COLLATE \"C\" NOT NULL,"
    " time timestamptz NOT NULL,"
    " seq integer NOT NULL, last float8, volume bigint, amount float8,"
    " bid1 float8, bid2 float8, bid3 float8, bid4 float8, bid5 float8,"
    " ask1 float8, ask2 float8, ask3 float8, ask4 float8, ask5 float8,"
    " bid_vol1 bigint, bid_vol2 bigint, bid_vol3 bigint, bid_vol4 bigint, bid_vol5 bigint,"
    " ask_vol1 bigint, ask_vol2 bigint, ask_vol3 bigint, ask_vol4 bigint, ask_vol5 bigint,"
    " phase integer, PRIMARY KEY(symbol, market, time, seq));"
    "CREATE TABLE IF NOT EXISTS trades(symbol text COLLATE \"C\" NOT NULL, market text COLLATE \"C\" NOT NULL,"
    " time timestamptz NOT NULL,"
    " seq integer NOT NULL, price float8, volume bigint, amount float8, side text, number bigint,"
    " PRIMARY KEY(symbol, market, time, seq));"
    "CREATE TABLE IF NOT EXISTS overview(symbol text COLLATE \"C\" NOT NULL, market text COLLATE \"C\" NOT NULL,"
    " interval text COLLATE \"C\" NOT NULL,"
    " count bigint, first timestamptz, last timestamptz, PRIMARY KEY(symbol, market, interval));";

// Per connection. Ticks stage in their table's shape, so that one binary
// stream serves both ways; bars and trades keep times as milliseconds.
const char kStaging[] =
    "CREATE TEMP TABLE IF NOT EXISTS ticks_stage(LIKE ticks) ON COMMIT DELETE ROWS;"
    "CREATE TEMP TABLE IF NOT EXISTS bars_stage(symbol text, market text, interval text, time bigint, open float8,"
    " high float8, low float8, close float8, volume bigint, amount float8, open_interest bigint)"
    " ON COMMIT DELETE ROWS;"
    "CREATE TEMP TABLE IF NOT EXISTS trades_stage(symbol text, market text, time bigint, seq integer, price float8,"
    " volume bigint, amount float8, side text, number bigint) ON COMMIT DELETE ROWS;";

const char kMoveTrades[] =
    "INSERT INTO trades SELECT symbol, market,"
    " timestamptz 'epoch' + time * interval '1 millisecond', seq, price, volume, amount, side, number"
    " FROM trades_stage ON CONFLICT (symbol, market, time, seq) DO UPDATE SET price=excluded.price,"
    " volume=excluded.volume, amount=excluded.amount, side=excluded.side, number=excluded.number";

// The staged rows are already in key order, as the index wants them.
const char kMoveTicks[] =
    "INSERT INTO ticks SELECT * FROM ticks_stage ON CONFLICT (symbol, market, time, seq) DO UPDATE SET last=excluded.last, volume=excluded.volume,"
    " amount=excluded.amount, bid1=excluded.bid1, bid2=excluded.bid2, bid3=excluded.bid3, bid4=excluded.bid4,"
    " bid5=excluded.bid5, ask1=excluded.ask1, ask2=excluded.ask2, ask3=excluded.ask3, ask4=excluded.ask4,"
    " ask5=excluded.ask5, bid_vol1=excluded.bid_vol1, bid_vol2=excluded.bid_vol2, bid_vol3=excluded.bid_vol3,"
    " bid_vol4=excluded.bid_vol4, bid_vol5=excluded.bid_vol5, ask_vol1=excluded.ask_vol1,"
    " ask_vol2=excluded.ask_vol2, ask_vol3=excluded.ask_vol3, ask_vol4=excluded.ask_vol4,"
    " ask_vol5=excluded.ask_vol5, phase=excluded.phase";

const char kMoveBars[] =
    "INSERT INTO bars SELECT symbol, market, interval, timestamptz 'epoch' + time * interval '1 millisecond',"
    " open, high, low, close, volume, amount, open_interest FROM bars_stage"
    " ON CONFLICT (symbol, market, interval, time) DO UPDATE SET open=excluded.open, high=excluded.high,"
    " low=excluded.low, close=excluded.close, volume=excluded.volume, amount=excluded.amount,"
    " open_interest=excluded.open_interest;"
    "INSERT INTO overview SELECT b.symbol, b.market, b.interval, count(*), min(b.time), max(b.time) FROM bars b"
    " JOIN (SELECT DISTINCT symbol, market, interval FROM bars_stage) s"
    " ON b.symbol = s.symbol AND b.market = s.market AND b.interval = s.interval GROUP BY 1, 2, 3"
    " ON CONFLICT (symbol, market, interval) DO UPDATE SET count=excluded.count, first=excluded.first,"
    " last=excluded.last";

const char kMs[] = "(extract(epoch from time) * 1000)::bigint";

// A COPY text line, appended field by field.
class Line {
 public:
  explicit Line(std::string* out) : out_(out) {}
  void text(const std::string& s) {
    sep();
    for (char c : s) {
      if (c == '\\' || c == '\t' || c == '\n' || c == '\r') out_->push_back('\\');
      out_->push_back(c);
    }
  }
  template <typename T>
  void number(T v) {
    sep();
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out_->append(buf, r.ptr);
  }
  void end() { out_->push_back('\n'); }

 private:
  void sep() {
    if (!first_) out_->push_back('\t');
    first_ = false;
  }
  std::string* out_;
  bool first_ = true;
};

// A COPY binary stream: per row a field count, per field its length and
// its bytes in network order.
class BinaryRows {
 public:
  explicit BinaryRows(std::string* out) : out_(out) {
    out_->append("PGCOPY\n\377\r\n\0", 11);
    be(uint32_t{0});  // flags
    be(uint32_t{0});  // header extension
  }
  void row(uint16_t fields) { be(fields); }
  void text(const std::string& s) {
    be(static_cast<uint32_t>(s.size()));
    out_->append(s);
  }
  void i32(int32_t v) {
    be(uint32_t{4});
    be(static_cast<uint32_t>(v));
  }
  void i64(int64_t v) {
    be(uint32_t{8});
    be(static_cast<uint64_t>(v));
  }
  void f64(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    be(uint32_t{8});
    be(bits);
  }
  // timestamptz: microseconds since 2000-01-01 UTC.
  void time(int64_t ms) { i64((ms - 946684800000) * 1000); }
  void end() { be(uint16_t{0xffff}); }

 private:
  template <typename T>
  void be(T v) {
    char b[sizeof(T)];
    for (size_t i = 0; i < sizeof(T); ++i) b[i] = static_cast<char>(v >> (8 * (sizeof(T) - 1 - i)));
    out_->append(b, sizeof(T));
  }
  std::string* out_;
};

class Result {
 public:
  explicit Result(PGresult* r) : r_(r) {}
  Result(const Result&) = delete;
  Result& operator=(const Result&) = delete;
  ~Result() { PQclear(r_); }
  PGresult* get() const { return r_; }
  ExecStatusType status() const { return PQresultStatus(r_); }
  const char* at(int row, int col) const { return PQgetvalue(r_, row, col); }
  int64_t i64(int row, int col) const { return std::strtoll(at(row, col), nullptr, 10); }
  double f64(int row, int col) const { return std::strtod(at(row, col), nullptr); }

 private:
  PGresult* r_;
};

class PostgresStore : public Store {
 public:
  ~PostgresStore() override { PQfinish(conn_); }

  bool open(const std::string& url, std::string* error) {
    conn_ = PQconnectdb(url.c_str());
    if (PQstatus(conn_) != CONNECTION_OK) return fail(error, "cannot connect to " + url + ": " + PQerrorMessage(conn_));
    PQsetNoticeProcessor(conn_, [](void*, const char*) {}, nullptr);
    return exec(kPostgresSchema, error) && exec(kStaging, error);
  }

  bool Write(const Batch& batch, std::string* error) override {
    if (batch.empty()) return true;
    if (!connected(error) || !exec("BEGIN", error)) return false;
    bool ok = true;
    if (!batch.ticks.empty()) ok = WriteTicks(batch, error);
    if (ok && !batch.bars.empty()) ok = CopyBars(batch, error) && exec(kMoveBars, error);
    if (ok && !batch.trades.empty()) ok = CopyTrades(batch, error) && exec(kMoveTrades, error);
    if (!ok) {
      exec("ROLLBACK", nullptr);
      return false;
    }
    return exec("COMMIT", error);
  }

  // The rows of table of one instrument between two times (ms since the
  // epoch), in order; interval narrows bars to one length. Null on failure.
  std::unique_ptr<Result> SelectRange(const std::string& columns, const char* table, const std::string* interval,
                                      const std::string& symbol, const std::string& market, int64_t from, int64_t to,
                                      const char* order, std::string* error) {
    std::string sql = std::string("SELECT ") + kMs + "," + columns + " FROM " + table +
                      " WHERE symbol=$1 AND market=$2 AND time BETWEEN"
                      " timestamptz 'epoch' + $3::bigint * interval '1 millisecond' AND"
                      " timestamptz 'epoch' + $4::bigint * interval '1 millisecond'" +
                      (interval != nullptr ? " AND interval=$5" : "") + " ORDER BY " + order;
    std::string f = std::to_string(from), t = std::to_string(to);
    const char* params[] = {symbol.c_str(), market.c_str(), f.c_str(), t.c_str(),
                            interval != nullptr ? interval->c_str() : nullptr};
    auto r = std::make_unique<Result>(
        PQexecParams(conn_, sql.c_str(), interval != nullptr ? 5 : 4, nullptr, params, nullptr, nullptr, 0));
    if (r->status() != PGRES_TUPLES_OK) {
      fail(error, PQresultErrorMessage(r->get()));
      return nullptr;
    }
    return r;
  }

  bool Bars(const std::string& symbol, const std::string& market, const std::string& interval, int64_t from,
            int64_t to, std::vector<Bar>* out, std::string* error) override {
    if (!connected(error)) return false;
    auto rows = SelectRange(BarValueColumns(), "bars", &interval, symbol, market, from, to, "time", error);
    if (rows == nullptr) return false;
    const Result& r = *rows;
    for (int i = 0; i < PQntuples(r.get()); ++i) {
      Bar b;
      b.symbol = symbol;
      b.market = market;
      b.interval = interval;
      b.time = r.i64(i, 0);
      b.open = r.f64(i, 1);
      b.high = r.f64(i, 2);
      b.low = r.f64(i, 3);
      b.close = r.f64(i, 4);
      b.volume = r.i64(i, 5);
      b.amount = r.f64(i, 6);
      b.open_interest = r.i64(i, 7);
      out->push_back(std::move(b));
    }
    return true;
  }

  bool Ticks(const std::string& symbol, const std::string& market, int64_t from, int64_t to,
             std::vector<Tick>* out, std::string* error) override {
    if (!connected(error)) return false;
    auto rows = SelectRange(std::string("seq,") + TickValueColumns(), "ticks", nullptr, symbol, market, from, to, "time, seq", error);
    if (rows == nullptr) return false;
    const Result& r = *rows;
    for (int i = 0; i < PQntuples(r.get()); ++i) {
      Tick k;
      k.symbol = symbol;
      k.market = market;
      k.time = r.i64(i, 0);
      k.seq = static_cast<int32_t>(r.i64(i, 1));
      k.last = r.f64(i, 2);
      k.volume = r.i64(i, 3);
      k.amount = r.f64(i, 4);
      for (int j = 0; j < 5; ++j) {
        k.bid[j] = r.f64(i, 5 + j);
        k.ask[j] = r.f64(i, 10 + j);
        k.bid_vol[j] = r.i64(i, 15 + j);
        k.ask_vol[j] = r.i64(i, 20 + j);
      }
      k.phase = static_cast<int32_t>(r.i64(i, 25));
      out->push_back(std::move(k));
    }
    return true;
  }

  bool Trades(const std::string& symbol, const std::string& market, int64_t from, int64_t to,
              std::vector<Trade>* out, std::string* error) override {
    if (!connected(error)) return false;
    auto rows = SelectRange("seq, price, volume, amount, side, number", "trades", nullptr, symbol, market, from, to,
                            "time, seq", error);
    if (rows == nullptr) return false;
    const Result& r = *rows;
    for (int i = 0; i < PQntuples(r.get()); ++i) {
      out->push_back(Trade{symbol, market, r.i64(i, 0), static_cast<int32_t>(r.i64(i, 1)), r.f64(i, 2), r.i64(i, 3),
                           r.f64(i, 4), r.at(i, 5), r.i64(i, 6)});
    }
    return true;
  }

  bool Overviews(std::vector<Overview>* out, std::string* error) override {
    if (!connected(error)) return false;
    Result r(PQexec(conn_,
                    "SELECT symbol, market, interval, count, (extract(epoch from first) * 1000)::bigint,"
                    " (extract(epoch from last) * 1000)::bigint FROM overview ORDER BY 1, 2, 3"));
    if (r.status() != PGRES_TUPLES_OK) return fail(error, PQresultErrorMessage(r.get()));
    for (int i = 0; i < PQntuples(r.get()); ++i) {
      out->push_back(Overview{r.at(i, 0), r.at(i, 1), r.at(i, 2), r.i64(i, 3), r.i64(i, 4), r.i64(i, 5)});
    }
    return true;
  }

  bool LatestTime(const std::string& symbol, const std::string& market, const std::string& interval,
                  int64_t before, int64_t* time, std::string* error) override {
    if (!connected(error)) return false;
    std::string sql = std::string("SELECT coalesce((extract(epoch from max(time)) * 1000)::bigint, 0) FROM ") +
                      (interval == "tick" ? "ticks WHERE $3 = 'tick' AND" : "bars WHERE interval = $3 AND") +
                      " symbol=$1 AND market=$2 AND time < timestamptz 'epoch' + $4::bigint * interval '1 millisecond'";
    std::string b = std::to_string(before);
    const char* params[] = {symbol.c_str(), market.c_str(), interval.c_str(), b.c_str()};
    Result r(PQexecParams(conn_, sql.c_str(), 4, nullptr, params, nullptr, nullptr, 0));
    if (r.status() != PGRES_TUPLES_OK) return fail(error, PQresultErrorMessage(r.get()));
    *time = r.i64(0, 0);
    return true;
  }

 private:
  static bool fail(std::string* error, const std::string& text) {
    if (error != nullptr) *error = "postgresql: " + text;
    while (error != nullptr && !error->empty() && error->back() == '\n') error->pop_back();
    return false;
  }

  // A broken connection is reset (and its staging tables made again) here.
  bool connected(std::string* error) {
    if (PQstatus(conn_) == CONNECTION_OK) return true;
    PQreset(conn_);
    if (PQstatus(conn_) != CONNECTION_OK) return fail(error, std::string("connection lost: ") + PQerrorMessage(conn_));
    return exec(kPostgresSchema, error) && exec(kStaging, error);
  }

  bool exec(const char* sql, std::string* error) {
    Result r(PQexec(conn_, sql));
    if (r.status() == PGRES_COMMAND_OK || r.status() == PGRES_TUPLES_OK) return true;
    return fail(error, PQresultErrorMessage(r.get()));
  }

  // *sqlstate, when given, gets the failure's SQLSTATE.
  bool Copy(const char* sql, const std::string& data, std::string* error, std::string* sqlstate = nullptr) {
    {
      Result r(PQexec(conn_, sql));
      if (r.status() != PGRES_COPY_IN) return fail(error, PQresultErrorMessage(r.get()));
    }
    // In pieces: a backlog's batch may outgrow the int that libpq takes.
    const size_t kPiece = size_t{1} << 20;
    for (size_t at = 0; at < data.size(); at += kPiece) {
      int n = static_cast<int>(std::min(kPiece, data.size() - at));
      if (PQputCopyData(conn_, data.data() + at, n) != 1) return fail(error, PQerrorMessage(conn_));
    }
    if (PQputCopyEnd(conn_, nullptr) != 1) return fail(error, PQerrorMessage(conn_));
    bool ok = true;
    while (PGresult* res = PQgetResult(conn_)) {
      Result r(res);
      if (r.status() == PGRES_COMMAND_OK) continue;
      ok = fail(error, PQresultErrorMessage(r.get()));
      const char* state = PQresultErrorField(r.get(), PG_DIAG_SQLSTATE);
      if (sqlstate != nullptr && state != nullptr) *sqlstate = state;
    }
    return ok;
  }

  // A live batch holds only new keys, and COPY into the table costs a
  // fraction of an upsert (no speculative insertion, heap pages filled many
  // rows at a time). A batch that meets a stored key (a restart, a replay,
  // a backfill) fails as a whole inside its savepoint and is upserted
  // instead, so the result is the upsert's either way.
  bool WriteTicks(const Batch& batch, std::string* error) {
    std::string data = TickRows(batch);
    if (!exec("SAVEPOINT direct", error)) return false;
    std::string state, direct_error;
    if (Copy("COPY ticks FROM STDIN (FORMAT binary)", data, &direct_error, &state)) {
      return exec("RELEASE SAVEPOINT direct", error);
    }
    if (state != "23505") {
      if (error != nullptr) *error = direct_error;
      return false;
    }
    return exec("ROLLBACK TO SAVEPOINT direct", error) &&
           Copy("COPY ticks_stage FROM STDIN (FORMAT binary)", data, error) && exec(kMoveTicks, error);
  }

  // The batch's ticks in key order, as the index holds them (bytewise
  // text, as std::string compares), one row per key: the last of a batch
  // wins, as it would row by row.
  static std::string TickRows(const Batch& batch) {
    const std::vector<Tick>& ticks = batch.ticks;
    std::vector<uint32_t> order(ticks.size());
    std::iota(order.begin(), order.end(), 0);
    auto key_less = [&](uint32_t a, uint32_t b) {
      const Tick& x = ticks[a];
      const Tick& y = ticks[b];
      if (int c = x.symbol.compare(y.symbol)) return c < 0;
      if (int c = x.market.compare(y.market)) return c < 0;
      if (x.time != y.time) return x.time < y.time;
      return x.seq < y.seq;
    };
    std::stable_sort(order.begin(), order.end(), key_less);
    std::string data;
    data.reserve(ticks.size() * 300 + 32);
    BinaryRows rows(&data);
    for (size_t i = 0; i < order.size(); ++i) {
      if (i + 1 < order.size() && !key_less(order[i], order[i + 1])) continue;  // a later one follows
      const Tick& t = ticks[order[i]];
      rows.row(kTickColumns);
      rows.text(t.symbol);
      rows.text(t.market);
      rows.time(t.time);
      rows.i32(t.seq);
      rows.f64(t.last);
      rows.i64(t.volume);
      rows.f64(t.amount);
      for (double v : t.bid) rows.f64(v);
      for (double v : t.ask) rows.f64(v);
      for (int64_t v : t.bid_vol) rows.i64(v);
      for (int64_t v : t.ask_vol) rows.i64(v);
      rows.i32(t.phase);
    }
    rows.end();
    return data;
  }

  bool CopyTrades(const Batch& batch, std::string* error) {
    std::map<std::tuple<std::string, std::string, int64_t, int32_t>, size_t> last;
    for (size_t i = 0; i < batch.trades.size(); ++i) {
      const Trade& t = batch.trades[i];
      last[{t.symbol, t.market, t.time, t.seq}] = i;
    }
    std::string data;
    for (const auto& [key, i] : last) {
      const Trade* it = &batch.trades[i];
      Line l(&data);
      l.text(it->symbol);
      l.text(it->market);
      l.number(it->time);
      l.number(it->seq);
      l.number(it->price);
      l.number(it->volume);
      l.number(it->amount);
      l.text(it->side);
      l.number(it->number);
      l.end();
    }
    return Copy("COPY trades_stage FROM STDIN", data, error);
  }

  bool CopyBars(const Batch& batch, std::string* error) {
    std::map<std::tuple<std::string, std::string, std::string, int64_t>, size_t> last;
    for (size_t i = 0; i < batch.bars.size(); ++i) {
      const Bar& b = batch.bars[i];
      last[{b.symbol, b.market, b.interval, b.time}] = i;
    }
    std::string data;
    for (const auto& [key, i] : last) {
      const Bar& b = batch.bars[i];
      Line l(&data);
      l.text(b.symbol);
      l.text(b.market);
      l.text(b.interval);
      l.number(b.time);
      l.number(b.open);
      l.number(b.high);
      l.number(b.low);
      l.number(b.close);
      l.number(b.volume);
      l.number(b.amount);
      l.number(b.open_interest);
      l.end();
    }
    return Copy("COPY bars_stage FROM STDIN", data, error);
  }

  PGconn* conn_ = nullptr;
};

}  // namespace

std::unique_ptr<Store> OpenPostgres(const std::string& url, std::string* error) {
  auto store = std::make_unique<PostgresStore>();
  if (!store->open(url, error)) return nullptr;
  return store;
}

}  // namespace kqstore
