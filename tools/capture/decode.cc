// Records of a capture as fields, through the packed layouts of the vendor API.
#include <cstdio>
#include <cstring>
#include <string>

#include "capture/catalog.h"
#include "dataapi/ApiRecords.h"
#include "tools/capture/capture_tool.h"

namespace captool {

namespace {

template <typename T>
bool Read(const capture::Record& r, T* out, size_t at = 0) {
  if (at + sizeof(T) > r.bytes.size()) return false;
  std::memcpy(out, r.bytes.data() + at, sizeof(T));
  return true;
}

template <size_t N>
std::string Text(const char (&field)[N]) {
  size_t n = 0;
  while (n < N && field[n] != '\0') ++n;
  return std::string(field, n);
}

std::string Num(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.4f", value);
  return text;
}

void Tick(const ApiL1Tick& t, Fields& f) {
  f.insert(f.end(), {{"market", capture::market_name(t.market_id)},
                     {"code", Text(t.code)},
                     {"date", std::to_string(t.date)},
                     {"time", std::to_string(t.time)},
                     {"last", Num(t.last)},
                     {"open", Num(t.open)},
                     {"high", Num(t.high)},
                     {"low", Num(t.low)},
                     {"pre_close", Num(t.pre_close)},
                     {"volume", Num(t.volume)},
                     {"turnover", Num(t.turnover)},
                     {"bid1", Num(t.bid_price[0])},
                     {"ask1", Num(t.ask_price[0])}});
}

template <typename Head>
void HistoryHead(const capture::Record& r, Fields& f) {
  Head h;
  if (!Read(r, &h)) return;
  f.insert(f.end(), {{"request_id", std::to_string(h.request_id)},
                     {"market", capture::market_name(h.market_id)},
                     {"code", Text(h.code)},
                     {"count", std::to_string(h.count)},
                     {"last", std::to_string(h.last)}});
}

void Callback(const capture::Record& r, Fields& f) {
  switch (r.code) {
    case 0: {
      ApiMarketInitHead h;
      if (Read(r, &h)) {
        f.insert(f.end(), {{"market", capture::market_name(h.market_id)},
                           {"trade_date", std::to_string(h.trade_date)},
                           {"codes", std::to_string(h.code_count)}});
      }
      break;
    }
    case 3: {
      ApiL1Tick t;
      if (Read(r, &t)) Tick(t, f);
      break;
    }
    case 4: {
      HistoryHead<ApiHisDataRsp>(r, f);
      ApiHisDataRsp h;
      if (Read(r, &h)) f.emplace_back("kline_type", std::to_string(h.kline_type));
      break;
    }
    case 10: {
      ApiMarketStatus s;
      if (Read(r, &s)) {
        f.insert(f.end(), {{"market", capture::market_name(s.market_id)},
                           {"date", std::to_string(s.date)},
                           {"changed", std::to_string(s.changed)},
                           {"checksum", std::to_string(s.checksum)}});
      }
      break;
    }
    case 22: case 23: case 24: case 25: case 26: {
      ApiL2Head h;
      if (Read(r, &h)) f.emplace_back("count", std::to_string(h.count));
      std::string instrument = capture::instrument_of(r.code, r.bytes.data(), r.bytes.size());
      if (!instrument.empty()) f.emplace_back("instrument", instrument);
      break;
    }
    case 29: case 33: case 34: case 35: case 36: case 37: case 38: case 39: {
      ApiShareRsp h;  // the eight answers share their head
      if (Read(r, &h)) {
        f.insert(f.end(), {{"request_id", std::to_string(h.request_id)},
                           {"market", capture::market_name(h.market)},
                           {"code", Text(h.code)},
                           {"count", std::to_string(h.count)}});
      }
      break;
    }
    case 40: {
      int32_t both[2];
      if (Read(r, &both)) f.insert(f.end(), {{"server", std::to_string(both[0])}, {"status", std::to_string(both[1])}});
      break;
    }
    case 45:
    case 46:
      HistoryHead<ApiHisTickHead>(r, f);
      break;
    case 47: {
      ApiMarketPushHead h;
      if (!Read(r, &h)) break;
      f.insert(f.end(), {{"market", capture::market_name(h.market_id)}, {"count", std::to_string(h.count)}});
      ApiL1Tick first;
      if (h.count > 0 && Read(r, &first, sizeof(h))) f.emplace_back("first", Text(first.code));
      break;
    }
    default:
      break;
  }
}

void Request(const capture::Record& r, Fields& f) {
  switch (r.code) {
    case 4: case 5: case 11: case 12: case 13: case 14: case 22: case 23: case 24: case 26: {
      int32_t arg;
      if (Read(r, &arg)) f.emplace_back("arg", std::to_string(arg));
      break;
    }
    case 7: case 8: case 9: case 10: case 20:
      for (size_t at = 0; at + sizeof(ApiCodeItem) <= r.bytes.size(); at += sizeof(ApiCodeItem)) {
        ApiCodeItem item;
        Read(r, &item, at);
        f.emplace_back("item", Text(item.code) + "." + capture::market_name(item.market));
      }
      break;
    case 15: {
      HKRateRequest q;
      if (Read(r, &q)) f.insert(f.end(), {{"begin", std::to_string(q.begin)}, {"end", std::to_string(q.end)}});
      break;
    }
    case 16: case 17: {
      HisBarRequest q;
      if (Read(r, &q)) {
        f.insert(f.end(), {{"request_id", std::to_string(q.request_id)},
                           {"market", capture::market_name(q.market)},
                           {"code", Text(q.code)},
                           {"kline_type", std::to_string(q.kline_type)},
                           {"start", std::to_string(q.start_date)},
                           {"end", std::to_string(q.end_date)}});
      }
      break;
    }
    case 18: case 19: {
      HisTickRequest q;
      if (Read(r, &q)) {
        f.insert(f.end(), {{"request_id", std::to_string(q.request_id)},
                           {"market", capture::market_name(q.market)},
                           {"code", Text(q.code)},
                           {"start", std::to_string(q.start_date)},
                           {"end", std::to_string(q.end_date)}});
      }
      break;
    }
    case 27: case 28: case 29: case 30: case 31: case 32: case 33: case 34: case 35: {
      FinanceRequest q;
      if (Read(r, &q)) {
        f.insert(f.end(), {{"request_id", std::to_string(q.request_id)},
                           {"market", capture::market_name(q.market)},
                           {"code", Text(q.code)}});
      }
      break;
    }
    case 54: case 55: {
      ApiMarketItem item;
      if (Read(r, &item)) f.emplace_back("market", capture::market_name(item.market));
      break;
    }
    default:
      break;
  }
}

}  // namespace

std::string describe(const capture::Record& r) {
  switch (r.kind) {
    case capture::Kind::kCallback: {
      const char* name = capture::slot_name(r.code);
      return std::string("callback ") + (name != nullptr ? name : "slot" + std::to_string(r.code));
    }
    case capture::Kind::kRequest:
    case capture::Kind::kResult: {
      const char* name = capture::op_name(r.code);
      return std::string(r.kind == capture::Kind::kRequest ? "request " : "result ") +
             (name != nullptr ? name : "op" + std::to_string(r.code));
    }
  }
  return "?";
}

Fields decode(const capture::Record& r) {
  Fields f;
  if (r.kind == capture::Kind::kCallback) {
    Callback(r, f);
  } else if (r.kind == capture::Kind::kRequest) {
    f.emplace_back("number", std::to_string(r.number));
    Request(r, f);
  } else {
    f.insert(f.end(), {{"number", std::to_string(r.number)}, {"result", std::to_string(r.result)}});
    ConnectResult c;
    if (r.code == capture::kConnect && Read(r, &c)) {
      f.insert(f.end(), {{"code", std::to_string(c.code)}, {"server", std::to_string(c.server)},
                         {"detail", std::to_string(c.detail)}});
    }
  }
  return f;
}

}  // namespace captool
