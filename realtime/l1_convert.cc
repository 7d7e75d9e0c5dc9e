#include "realtime/l1_convert.h"

#include <cstring>
#include <string>

#include "log/MyLog.h"
#include "utils/utils.h"

namespace tavr {

namespace {

const char kFunction[] = "DvDataMgr::on_reply_data";

template <typename T>
T BoardValue(const uint8_t (&field)[4]) {
  T value;
  std::memcpy(&value, field, sizeof(value));
  return value;
}

std::string Tagged(const char* tag, const char* text) { return std::string(tag) + text; }

}  // namespace

uint32_t session_phase(int32_t t, bool hk) {
  if (hk) return t < 90000 ? 11 : t < 93000 ? 12 : t < 161000 ? 13 : 15;
  return t < 91500 ? 11 : t < 93000 ? 12 : t < 150000 ? 13 : 15;
}

std::shared_ptr<DravikQuoterAllData> convert_snapshot(const ApiL1Tick& t, const std::string& code,
                                                      const InstrumentView& in, const std::string& market,
                                                      const char* tag) {
  const int d = in.digits;
  double ref_close = in.ref_close > 0.000001f ? in.ref_close : t.pre_close;
  double price = t.last < 0.000001f ? ref_close : t.last;
  if (price < 0.000001) {
    if (CMyLog::Enabled(LOG_DEBUG)) {
      CMyLog::PrintLog(LOG_DEBUG, kFunction, Tagged(tag, " Code %s receive invalide price [%0.2f, %0.2f]...").c_str(),
                       code.c_str(), static_cast<double>(t.last), ref_close);
    }
    return nullptr;
  }
  auto a = std::make_shared<DravikQuoterAllData>();
  a->time = utils::timeToMilliseconds(t.date, t.time);
  a->lastPrice = round_to(price, d);
  a->highPrice = round_to(t.high, d);
  a->openPrice = round_to(t.open, d);
  a->lowPrice = round_to(t.low, d);
  a->lastClose = round_to(ref_close, d);
  if (market == "HK") {
    a->upperLimit = 9999.99;
    a->lowerLimit = 0.01;
  } else {
    a->upperLimit = round_to(t.upper_limit, d);
    a->lowerLimit = round_to(t.lower_limit, d);
  }
  a->amount = t.turnover;
  a->volume = truncate_to<int64_t>(static_cast<double>(t.volume / static_cast<float>(in.unit)));
  a->rawVolume = truncate_to<int64_t>(t.volume);
  a->dataFlag = 1;
  a->tradingPhase = 0;
  a->tradeCount = t.trade_count;
  a->extValue1 = a->extValue2 = 0.0;
  a->pe = round_to(a->lastPrice / in.eps, d);
  if (CMyLog::Enabled(LOG_TRACE)) {
    CMyLog::PrintLog(LOG_TRACE, kFunction,
                     Tagged(tag, " [%d]返回%s.%s 数据: price[%0.2f, %0.2f, %0.2f, %0.2f, %0.2f], Volumn[%lld, %lld, %d], "
                                 "Turnover[%0.2f], PE[%0.2f],[%0.2f-%0.2f].....")
                         .c_str(),
                     t.time, code.c_str(), market.c_str(), a->openPrice, a->highPrice, a->lowPrice, a->lastPrice,
                     a->lastClose, static_cast<long long>(a->volume), static_cast<long long>(a->rawVolume),
                     static_cast<int>(a->tradeCount), a->amount, a->pe, a->lowerLimit, a->upperLimit);
  }
  bool debug = CMyLog::Enabled(LOG_DEBUG);
  for (int i = 0; i < 5; ++i) {
    a->askPrice[i] = round_to(t.ask_price[i], d);
    a->askVol[i] = to_lots(t.ask_volume[i], in.unit);
    a->bidPrice[i] = round_to(t.bid_price[i], d);
    a->bidVol[i] = to_lots(t.bid_volume[i], in.unit);
    if (debug) {
      CMyLog::PrintLog(LOG_DEBUG, kFunction,
                       Tagged(tag, " 返回%s.%s #%d档数据:%0.2f[%d] - %0.2f[%0.1f], %0.2f[%d] - %0.2f[%0.1f].....").c_str(),
                       code.c_str(), market.c_str(), i + 1, a->askPrice[i], a->askVol[i],
                       static_cast<double>(t.ask_price[i]), static_cast<double>(t.ask_volume[i]), a->bidPrice[i],
                       a->bidVol[i], static_cast<double>(t.bid_price[i]), static_cast<double>(t.bid_volume[i]));
    }
  }
  // No trade yet: the best ask stands for the latest price.
  if (t.last < 0.000001f && t.high < 0.000001f && a->askPrice[0] > 0.000001) {
    a->lastPrice = round_to(a->askPrice[0], d);
    if (debug) {
      CMyLog::PrintLog(LOG_DEBUG, kFunction,
                       Tagged(tag, " [%d]替换%s.%s 最新价数据: price[%0.2f, %0.2f, %0.2f, %0.2f, %0.2f].....").c_str(),
                       t.time, code.c_str(), market.c_str(), a->openPrice, a->highPrice, a->lowPrice, a->lastPrice,
                       a->lastClose);
    }
  }
  if (market == "SH" || market == "SZ") a->tradingPhase = session_phase(t.time, false);
  if (market == "HK") a->tradingPhase = session_phase(t.time, true);

  switch (t.board_kind) {
    case 0:
    case 1:
      a->tradingPhase = session_phase(t.time, false);
      break;
    case 2:
      a->tradingPhase = session_phase(t.time, true);
      break;
    case 3:
    case 7:
      a->tradingPhase = truncate_to<uint32_t>(BoardValue<float>(t.board_value1));
      a->extValue1 = BoardValue<float>(t.board_value2);
      a->extValue2 = BoardValue<float>(t.board_value3);
      if (CMyLog::Enabled(LOG_TRACE)) {
        CMyLog::PrintLog(LOG_TRACE, kFunction, Tagged(tag, " [%d]返回%s.%s 数据: [%d, %0.4f, %0.4f]...").c_str(),
                         t.time, code.c_str(), market.c_str(), static_cast<int>(a->tradingPhase), a->extValue1,
                         a->extValue2);
      }
      break;
    case 5:
      a->pe = BoardValue<float>(t.board_value2);
      if (debug) {
        CMyLog::PrintLog(LOG_DEBUG, kFunction, Tagged(tag, " [%d]返回%s.%s 数据: [%0.4f][%0.4f]...").c_str(), t.time,
                         code.c_str(), market.c_str(), a->pe, a->extValue1);
      }
      break;
    default:
      break;
  }
  return a;
}

std::shared_ptr<DravikQuoterAllData> after_hours_record(const DravikQuoterAllData& a, const ApiL1Tick& t,
                                                        const std::string& code, const InstrumentView& in,
                                                        const std::string& market, const char* tag) {
  auto b = std::make_shared<DravikQuoterAllData>(a);
  const int d = in.digits;
  b->time = utils::timeToMilliseconds(t.date, static_cast<int>(t.after_hours_time));
  b->tradingPhase = 22;
  b->amount = t.after_hours_turnover;
  int32_t volume = BoardValue<int32_t>(t.board_value3);
  b->volume = volume / in.unit;
  b->rawVolume = volume;
  b->tradeCount = BoardValue<uint32_t>(t.board_value2);
  double price = round_to(BoardValue<float>(t.board_value1), d);
  auto lots = [&in](int32_t shares) -> int32_t {
    if (shares <= 0) return 0;
    if (shares <= in.unit) return 1;
    return shares / in.unit;
  };
  b->askPrice[0] = b->bidPrice[0] = price;
  b->askVol[0] = lots(t.after_hours_ask_volume);
  b->bidVol[0] = lots(t.after_hours_bid_volume);
  for (int i = 1; i < 5; ++i) {
    b->askPrice[i] = b->bidPrice[i] = round_to(0.0, d);
    b->askVol[i] = b->bidVol[i] = 0;
  }
  if (CMyLog::Enabled(LOG_DEBUG)) {
    for (int i = 0; i < 5; ++i) {
      CMyLog::PrintLog(LOG_DEBUG, kFunction, Tagged(tag, " 返回%s.%s #%d档数据:%0.2f[%d][%d].....").c_str(),
                       code.c_str(), market.c_str(), i + 1, b->askPrice[i], b->askVol[i], b->bidVol[i]);
    }
  }
  return b;
}

}  // namespace tavr
