#include "history/his_convert.h"

#include <cstring>
#include <memory>

#include "history/his_request.h"
#include "log/MyLog.h"
#include "utils/utils.h"

namespace tavr {

namespace {

const char kFunction[] = "DvDataMgr::on_reply_data";

template <typename Element>
Element ElementAt(const uint8_t* elements, size_t i) {
  Element e;
  std::memcpy(&e, elements + i * sizeof(Element), sizeof(Element));
  return e;
}

int64_t Stamp(int32_t date, int32_t hhmmss) { return int64_t{date} * 1000000 + hhmmss; }

// utils::timeToMilliseconds for the elements of a block, which mostly share
// a date: the library's call costs a thread-local lookup each, a tenth of a
// bar's conversion. A day whose clock jumps takes the library's call.
class DayClock {
 public:
  int64_t ms(int date, int hhmmss) {
    bool plain = hhmmss >= 0 && hhmmss < 240000 && hhmmss % 100 < 60 && hhmmss / 100 % 100 < 60;
    if (!plain) return utils::timeToMilliseconds(date, hhmmss);
    if (date != date_) {
      date_ = date;
      midnight_ = utils::timeToMilliseconds(date, 0);
      uniform_ = utils::timeToMilliseconds(date, 235959) - midnight_ == 86399000;
    }
    if (!uniform_) return utils::timeToMilliseconds(date, hhmmss);
    return midnight_ + (hhmmss / 10000 * 3600 + hhmmss / 100 % 100 * 60 + hhmmss % 100) * int64_t{1000};
  }

 private:
  int date_ = -1;
  int64_t midnight_ = 0;
  bool uniform_ = false;
};

void LogInsert(const char* tag, const HisBlock& b, size_t i, int64_t stamp, const quoter::QuoterAllData& r,
               double last_field) {
  CMyLog::PrintLog(LOG_TRACE, kFunction, "%s id(%d) insert line #%d[%d]: %lld [%lld - %lld] [%lld, %f] [%0.4f]....",
                   tag, b.id, static_cast<int>(i + 1), b.count, static_cast<long long>(stamp),
                   static_cast<long long>(b.range_start), static_cast<long long>(b.range_end),
                   static_cast<long long>(r.volume), r.amount, last_field);
}

// The record and its first levels (raw prices and volumes beside the
// converted ones), as the tick handlers log them.
void LogTick(const char* tag, const HisBlock& b, size_t i, int64_t stamp, const quoter::QuoterAllData& r, int levels,
             const int32_t* raw_ask_price, const int32_t* raw_ask_volume, const int32_t* raw_bid_price,
             const int32_t* raw_bid_volume) {
  CMyLog::PrintLog(LOG_TRACE, kFunction,
                   "%s [%d:%d][%lld]返回%s.%s 数据: price[%0.4f, %0.4f, %0.4f, %0.4f, %0.4f], Volumn[%lld, %lld, %d], "
                   "Turnover[%0.2f], PE[%0.2f].....",
                   tag, static_cast<int>(i + 1), b.count, static_cast<long long>(stamp), b.code.c_str(),
                   b.market.c_str(), r.openPrice, r.highPrice, r.lowPrice, r.lastPrice, r.lastClose,
                   static_cast<long long>(r.volume), static_cast<long long>(r.rawVolume),
                   static_cast<int>(r.tradeCount), r.amount, r.pe);
  for (int l = 0; l < levels; ++l) {
    CMyLog::PrintLog(LOG_TRACE, kFunction,
                     "%s 返回%s.%s #%d档数据[Precision:%d-Unit:%d]:%0.4f[%d] - %d[%u], %0.4f[%d] - %d[%u].....", tag,
                     b.code.c_str(), b.market.c_str(), l + 1, b.instrument.digits, b.instrument.unit, r.askPrice[l],
                     r.askVol[l], raw_ask_price[l], static_cast<unsigned>(raw_ask_volume[l]), r.bidPrice[l],
                     r.bidVol[l], raw_bid_price[l], static_cast<unsigned>(raw_bid_volume[l]));
  }
}

void ConvertBar(const ApiHisBar& e, int32_t kline_type, const HisBlock& b, size_t i, bool trace, bool debug,
                DayClock& clock, QuoteRecords& out) {
  auto bar = std::make_shared<quoter::KLineData>();
  int32_t stamp_time = kline_type == kKLineMinute ? minute_bar_end(e.time) : 0;
  bar->time = clock.ms(e.date, stamp_time);
  bar->open = e.open / 10000.0;
  bar->high = e.high / 10000.0;
  bar->low = e.low / 10000.0;
  bar->close = e.close / 10000.0;
  bar->volume = e.volume / b.instrument.unit;
  bar->amount = static_cast<double>(e.amount);
  bar->extValue = e.extra;
  const char* tag = "[ApiHisDataRsp]";
  if (trace) {
    CMyLog::PrintLog(LOG_TRACE, kFunction, "%s id(%d) insert line #%d[%d] %d: %u, %u, %u, %u, %lld, %lld....", tag,
                     b.id, static_cast<int>(i + 1), b.count, e.date, static_cast<unsigned>(e.open),
                     static_cast<unsigned>(e.high), static_cast<unsigned>(e.low), static_cast<unsigned>(e.close),
                     static_cast<long long>(e.volume), static_cast<long long>(e.amount));
  }
  if (kline_type == kKLineDaily && trace) {
    CMyLog::PrintLog(LOG_TRACE, kFunction, "%s id(%d) insert line #%d[%d]: %lld [%lld - %lld]....", tag, b.id,
                     static_cast<int>(i + 1), b.count, static_cast<long long>(Stamp(e.date, 0)),
                     static_cast<long long>(b.range_start), static_cast<long long>(b.range_end));
  }
  if (kline_type == kKLineMinute && debug) {
    CMyLog::PrintLog(LOG_DEBUG, kFunction, "%s id(%d) insert line #%d[%d]: %lld(%d) [%lld - %lld]....", tag, b.id,
                     static_cast<int>(i + 1), b.count, static_cast<long long>(Stamp(e.date, e.time)), stamp_time,
                     static_cast<long long>(b.range_start), static_cast<long long>(b.range_end));
  }
  out.push_back(std::move(bar));
}

// Trades of a type 14 block. The day's volume and amount run on from element
// to element of the block and start again with each new date; the amount adds
// the running volume (not the trade's) times the price, as the service's
// figures are read.
void ConvertBarTicks(const uint8_t* elements, size_t n, const HisBlock& b, bool trace, QuoteRecords& out) {
  int32_t date = 0;
  int64_t day_volume = 0;
  double day_amount = 0;
  DayClock clock;
  for (size_t i = 0; i < n; ++i) {
    auto e = ElementAt<ApiHisBarTick>(elements, i);
    if (e.date != date) {
      date = e.date;
      day_volume = 0;
      day_amount = 0;
    }
    auto r = std::make_shared<DravikQuoterAllData>();
    r->time = clock.ms(e.date, e.time);
    r->lastPrice = r->openPrice = r->highPrice = r->lowPrice = e.price / 10000.0;
    r->tradingPhase = static_cast<uint32_t>(e.value);
    r->extValue1 = e.value;
    day_volume += e.volume;
    day_amount += static_cast<double>(day_volume) * r->lastPrice;
    r->volume = day_volume / b.instrument.unit;
    r->rawVolume = day_volume;
    r->amount = day_amount;
    if (trace) LogInsert("[ApiHisDataRsp]", b, i, Stamp(e.date, e.time), *r, r->extValue1);
    out.push_back(std::move(r));
  }
}

// Ten-thousandths rounded to whole steps of Step of them: a constant divisor
// per precision, as a tick converts some twenty prices.
template <int64_t Step>
double RoundedTo(int64_t units) {
  int64_t whole = units / Step;
  int64_t rest = units % Step;
  if (rest * 2 >= Step) ++whole;
  if (rest * 2 <= -Step) --whole;
  return static_cast<double>(whole) / static_cast<double>(10000 / Step);
}

}  // namespace

double his_price(int64_t units, int digits) {
  switch (digits) {
    case 0: return RoundedTo<10000>(units);
    case 1: return RoundedTo<1000>(units);
    case 2: return RoundedTo<100>(units);
    case 3: return RoundedTo<10>(units);
    case 4: return RoundedTo<1>(units);
    default: return round_to(units / 10000.0, digits);
  }
}

int32_t his_lots(int64_t shares, int unit) {
  if (shares == 0) return 0;
  if (shares > unit) return static_cast<int32_t>(shares / unit);
  return 1;
}

int32_t minute_bar_end(int32_t hhmmss) {
  int32_t hour = hhmmss / 10000;
  int32_t minute = (hhmmss / 100 % 100 + 1) % 60;
  if (minute == 0) ++hour;
  int32_t end = hour * 10000 + minute * 100;
  return end > 113000 && end < 130100 ? 130100 : end;
}

void convert_bars(int32_t kline_type, const uint8_t* elements, size_t n, const HisBlock& b, QuoteRecords& out) {
  bool trace = CMyLog::Enabled(LOG_TRACE);
  if (kline_type == kKLineTicks) {
    ConvertBarTicks(elements, n, b, trace, out);
    return;
  }
  if (kline_type != kKLineDaily && kline_type != kKLineMinute) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, "[ApiHisDataRsp] [id=%d] Unknown Kline type %d, no bar converted....", b.id,
                     kline_type);
    return;
  }
  bool debug = CMyLog::Enabled(LOG_DEBUG);
  DayClock clock;
  for (size_t i = 0; i < n; ++i) {
    ConvertBar(ElementAt<ApiHisBar>(elements, i), kline_type, b, i, trace, debug, clock, out);
  }
}

void convert_after_hours_ticks(const uint8_t* elements, size_t n, const HisBlock& b, QuoteRecords& out) {
  const char* tag = "[ApiHisTickKcbResp]";
  bool trace = CMyLog::Enabled(LOG_TRACE);
  const int digits = b.instrument.digits;
  const int unit = b.instrument.unit;
  DayClock clock;
  for (size_t i = 0; i < n; ++i) {
    auto e = ElementAt<ApiHisTickKcb>(elements, i);
    auto r = std::make_shared<DravikQuoterAllData>();
    int32_t t = e.time / 1000;
    r->time = clock.ms(e.date, t);
    r->lastPrice = his_price(e.price, digits);
    r->amount = static_cast<double>(e.amount);
    r->volume = e.volume / unit;
    r->rawVolume = e.volume;
    r->tradingPhase = 22;  // after-hours fixed-price trading
    r->bidPrice[0] = r->askPrice[0] = r->lastPrice;
    r->bidVol[0] = his_lots(e.bid_volume, unit);
    r->askVol[0] = his_lots(e.ask_volume, unit);
    if (trace) {
      const int32_t price = e.price, ask = e.ask_volume, bid = e.bid_volume;
      LogTick(tag, b, i, Stamp(e.date, t), *r, 1, &price, &ask, &price, &bid);
      LogInsert(tag, b, i, Stamp(e.date, t), *r, r->lastPrice);
    }
    out.push_back(std::move(r));
  }
}

void convert_level1_ticks(const uint8_t* elements, size_t n, const HisBlock& b, QuoteRecords& out) {
  const char* tag = "[ApiL1NewHisTickResp]";
  bool trace = CMyLog::Enabled(LOG_TRACE);
  const int digits = b.instrument.digits;
  const int unit = b.instrument.unit;
  const bool hk = b.market == "HK";
  const bool stock_clock = (b.market == "SH" || b.market == "SZ") && b.code.size() == 6;
  int32_t prev_price = 0;
  uint32_t prev_volume = 0;
  DayClock clock;
  for (size_t i = 0; i < n; ++i) {
    auto e = ElementAt<ApiHisTickL1>(elements, i);
    int32_t t = e.time / 1000;
    // The service's reading steps over no skipped element: the first one met
    // holds every later element of the block back with it, so it ends the
    // block.
    if (t > 160000 && t < 205500) break;
    if (t > 150000 && t < 160000) {
      if (e.last == prev_price && static_cast<uint32_t>(e.volume) == prev_volume) break;
      t = 150000;
    }
    prev_price = e.last;
    prev_volume = static_cast<uint32_t>(e.volume);

    auto r = std::make_shared<DravikQuoterAllData>();
    r->time = clock.ms(e.date, t);
    r->lastPrice = his_price(e.last, digits);
    r->openPrice = his_price(e.open, digits);
    r->highPrice = his_price(e.high, digits);
    r->lowPrice = his_price(e.low, digits);
    r->lastClose = his_price(e.pre_close, digits);
    r->settlePrice = his_price(e.settle, digits);
    r->preSettlePrice = his_price(e.pre_settle, digits);
    r->amount = static_cast<double>(e.amount);
    r->volume = e.volume / unit;
    r->rawVolume = e.volume;
    r->dataFlag = 1;
    if (e.status > 0) {
      r->tradingPhase = static_cast<uint32_t>(e.status);
    } else if (hk || stock_clock) {
      r->tradingPhase = session_phase(t, hk);
    }
    r->tradeCount = static_cast<uint32_t>(e.trade_count);
    for (int l = 0; l < 5; ++l) {
      r->bidPrice[l] = his_price(e.bid_price[l], digits);
      r->bidVol[l] = his_lots(e.bid_volume[l], unit);
      r->askPrice[l] = his_price(e.ask_price[l], digits);
      r->askVol[l] = his_lots(e.ask_volume[l], unit);
    }
    if (trace) {
      // Copied out of the packed element before their addresses are taken.
      int32_t ask_price[5], ask_volume[5], bid_price[5], bid_volume[5];
      std::memcpy(ask_price, e.ask_price, sizeof(ask_price));
      std::memcpy(ask_volume, e.ask_volume, sizeof(ask_volume));
      std::memcpy(bid_price, e.bid_price, sizeof(bid_price));
      std::memcpy(bid_volume, e.bid_volume, sizeof(bid_volume));
      LogTick(tag, b, i, Stamp(e.date, t), *r, 5, ask_price, ask_volume, bid_price, bid_volume);
      LogInsert(tag, b, i, Stamp(e.date, t), *r, r->lastPrice);
    }
    out.push_back(std::move(r));
  }
}

}  // namespace tavr
