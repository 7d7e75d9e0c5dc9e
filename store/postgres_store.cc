// PostgreSQL back end through libpq: each batch is copied into temporary
// staging tables, then one upsert per table moves it into place, all in one
// transaction. Times are timestamptz in the tables, milliseconds on the wire.
#include <libpq-fe.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <cstdlib>
#include <map>

#include "store/backends.h"
#include "store/schema.h"

namespace kqstore {
namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS bars(symbol text NOT NULL, market text NOT NULL, interval text NOT NULL,"
    " time timestamptz NOT NULL, open float8, high float8, low float8, close float8, volume bigint, amount float8,"
    " open_interest bigint, PRIMARY KEY(symbol, market, interval, time));"
    "CREATE TABLE IF NOT EXISTS ticks(symbol text NOT NULL, market text NOT NULL, time timestamptz NOT NULL,"
    " seq integer NOT NULL, last float8, volume bigint, amount float8,"
    " bid1 float8, bid2 float8, bid3 float8, bid4 float8, bid5 float8,"
    " ask1 float8, ask2 float8, ask3 float8, ask4 float8, ask5 float8,"
    " bid_vol1 bigint, bid_vol2 bigint, bid_vol3 bigint, bid_vol4 bigint, bid_vol5 bigint,"
    " ask_vol1 bigint, ask_vol2 bigint, ask_vol3 bigint, ask_vol4 bigint, ask_vol5 bigint,"
    " phase integer, PRIMARY KEY(symbol, market, time, seq));"
    "CREATE TABLE IF NOT EXISTS trades(symbol text NOT NULL, market text NOT NULL, time timestamptz NOT NULL,"
    " seq integer NOT NULL, price float8, volume bigint, amount float8, side text, number bigint,"
    " PRIMARY KEY(symbol, market, time, seq));"
    "CREATE TABLE IF NOT EXISTS overview(symbol text NOT NULL, market text NOT NULL, interval text NOT NULL,"
    " count bigint, first timestamptz, last timestamptz, PRIMARY KEY(symbol, market, interval));";

// Per connection: the staging tables keep times as milliseconds.
const char kStaging[] =
    "CREATE TEMP TABLE IF NOT EXISTS ticks_stage(symbol text, market text, time bigint, seq integer, last float8,"
    " volume bigint, amount float8, bid1 float8, bid2 float8, bid3 float8, bid4 float8, bid5 float8,"
    " ask1 float8, ask2 float8, ask3 float8, ask4 float8, ask5 float8, bid_vol1 bigint, bid_vol2 bigint,"
    " bid_vol3 bigint, bid_vol4 bigint, bid_vol5 bigint, ask_vol1 bigint, ask_vol2 bigint, ask_vol3 bigint,"
    " ask_vol4 bigint, ask_vol5 bigint, phase integer) ON COMMIT DELETE ROWS;"
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

const char kMoveTicks[] =
    "INSERT INTO ticks SELECT symbol, market, timestamptz 'epoch' + time * interval '1 millisecond', seq, last,"
    " volume, amount, bid1, bid2, bid3, bid4, bid5, ask1, ask2, ask3, ask4, ask5, bid_vol1, bid_vol2, bid_vol3,"
    " bid_vol4, bid_vol5, ask_vol1, ask_vol2, ask_vol3, ask_vol4, ask_vol5, phase FROM ticks_stage"
    " ON CONFLICT (symbol, market, time, seq) DO UPDATE SET last=excluded.last, volume=excluded.volume,"
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
    return exec(kSchema, error) && exec(kStaging, error);
  }

  bool Write(const Batch& batch, std::string* error) override {
    if (batch.empty()) return true;
    if (!connected(error) || !exec("BEGIN", error)) return false;
    bool ok = true;
    if (!batch.ticks.empty()) ok = CopyTicks(batch, error) && exec(kMoveTicks, error);
    if (ok && !batch.bars.empty()) ok = CopyBars(batch, error) && exec(kMoveBars, error);
    if (ok && !batch.trades.empty()) ok = CopyTrades(batch, error) && exec(kMoveTrades, error);
    if (!ok) {
      exec("ROLLBACK", nullptr);
      return false;
    }
    return exec("COMMIT", error);
  }

  bool Bars(const std::string& symbol, const std::string& market, const std::string& interval, int64_t from,
            int64_t to, std::vector<Bar>* out, std::string* error) override {
    if (!connected(error)) return false;
    std::string sql = std::string("SELECT ") + kMs + "," + BarValueColumns() +
                      " FROM bars WHERE symbol=$1 AND market=$2 AND interval=$3 AND time BETWEEN"
                      " timestamptz 'epoch' + $4::bigint * interval '1 millisecond' AND"
                      " timestamptz 'epoch' + $5::bigint * interval '1 millisecond' ORDER BY time";
    std::string f = std::to_string(from), t = std::to_string(to);
    const char* params[] = {symbol.c_str(), market.c_str(), interval.c_str(), f.c_str(), t.c_str()};
    Result r(PQexecParams(conn_, sql.c_str(), 5, nullptr, params, nullptr, nullptr, 0));
    if (r.status() != PGRES_TUPLES_OK) return fail(error, PQresultErrorMessage(r.get()));
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
    std::string sql = std::string("SELECT ") + kMs + ",seq," + TickValueColumns() +
                      " FROM ticks WHERE symbol=$1 AND market=$2 AND time BETWEEN"
                      " timestamptz 'epoch' + $3::bigint * interval '1 millisecond' AND"
                      " timestamptz 'epoch' + $4::bigint * interval '1 millisecond' ORDER BY time, seq";
    std::string f = std::to_string(from), t = std::to_string(to);
    const char* params[] = {symbol.c_str(), market.c_str(), f.c_str(), t.c_str()};
    Result r(PQexecParams(conn_, sql.c_str(), 4, nullptr, params, nullptr, nullptr, 0));
    if (r.status() != PGRES_TUPLES_OK) return fail(error, PQresultErrorMessage(r.get()));
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
    std::string sql = std::string("SELECT ") + kMs +
                      ", seq, price, volume, amount, side, number FROM trades WHERE symbol=$1 AND market=$2 AND time"
                      " BETWEEN timestamptz 'epoch' + $3::bigint * interval '1 millisecond' AND"
                      " timestamptz 'epoch' + $4::bigint * interval '1 millisecond' ORDER BY time, seq";
    std::string f = std::to_string(from), t = std::to_string(to);
    const char* params[] = {symbol.c_str(), market.c_str(), f.c_str(), t.c_str()};
    Result r(PQexecParams(conn_, sql.c_str(), 4, nullptr, params, nullptr, nullptr, 0));
    if (r.status() != PGRES_TUPLES_OK) return fail(error, PQresultErrorMessage(r.get()));
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
    return exec(kSchema, error) && exec(kStaging, error);
  }

  bool exec(const char* sql, std::string* error) {
    Result r(PQexec(conn_, sql));
    if (r.status() == PGRES_COMMAND_OK || r.status() == PGRES_TUPLES_OK) return true;
    return fail(error, PQresultErrorMessage(r.get()));
  }

  bool Copy(const char* sql, const std::string& data, std::string* error) {
    {
      Result r(PQexec(conn_, sql));
      if (r.status() != PGRES_COPY_IN) return fail(error, PQresultErrorMessage(r.get()));
    }
    if (PQputCopyData(conn_, data.data(), static_cast<int>(data.size())) != 1 || PQputCopyEnd(conn_, nullptr) != 1) {
      return fail(error, PQerrorMessage(conn_));
    }
    bool ok = true;
    while (PGresult* res = PQgetResult(conn_)) {
      Result r(res);
      if (r.status() != PGRES_COMMAND_OK) ok = fail(error, PQresultErrorMessage(r.get()));
    }
    return ok;
  }

  // One row per key: the last of a batch wins, as it would row by row.
  bool CopyTicks(const Batch& batch, std::string* error) {
    // Keys are nearly always distinct: a sorted list of their hashes says
    // so cheaply, and only a batch with a repeated hash pays for the map.
    std::vector<uint64_t> hashes;
    hashes.reserve(batch.ticks.size());
    for (const Tick& t : batch.ticks) {
      uint64_t h = std::hash<std::string>()(t.symbol) * 31 + std::hash<std::string>()(t.market);
      hashes.push_back((h * 1000003 + static_cast<uint64_t>(t.time)) * 131 + static_cast<uint64_t>(t.seq));
    }
    std::sort(hashes.begin(), hashes.end());
    bool repeated = std::adjacent_find(hashes.begin(), hashes.end()) != hashes.end();
    std::map<std::tuple<std::string, std::string, int64_t, int32_t>, size_t> last;
    if (repeated) {
      for (size_t i = 0; i < batch.ticks.size(); ++i) {
        const Tick& t = batch.ticks[i];
        last[{t.symbol, t.market, t.time, t.seq}] = i;
      }
    }
    std::string data;
    data.reserve(batch.ticks.size() * 200);
    for (size_t i = 0; i < batch.ticks.size(); ++i) {
      const Tick& t = batch.ticks[i];
      if (repeated && last[{t.symbol, t.market, t.time, t.seq}] != i) continue;
      Line l(&data);
      l.text(t.symbol);
      l.text(t.market);
      l.number(t.time);
      l.number(t.seq);
      l.number(t.last);
      l.number(t.volume);
      l.number(t.amount);
      for (double v : t.bid) l.number(v);
      for (double v : t.ask) l.number(v);
      for (int64_t v : t.bid_vol) l.number(v);
      for (int64_t v : t.ask_vol) l.number(v);
      l.number(t.phase);
      l.end();
    }
    return Copy("COPY ticks_stage FROM STDIN", data, error);
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
