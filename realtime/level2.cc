// Level-2 streams: ten-level snapshots, index snapshots, orders, order
// queues and trades. One skeleton walks a message's records; each stream
// supplies the conversion of one record.
#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "datamgr/DvDataMgr.h"
#include "datamgr/callback_pro.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"
#include "market/record_reader.h"
#include "realtime/l1_convert.h"
#include "utils/utils.h"

namespace tavr {

namespace {

// Milliseconds of a date and an HHMMSSmmm time.
int64_t MillisOf(int32_t date, int32_t time) { return utils::timeToMilliseconds(date, time / 1000) + time % 1000; }

// Level-2 prices are whole ten-thousandths; the fraction is dropped on purpose.
double Price(int64_t ten_thousandths, int digits) { return round_to(static_cast<double>(ten_thousandths / 10000), digits); }

// The common head of every level-2 record.
struct RecordHead {
  uint32_t market_id;
  char code[32];
};

template <typename Snapshot>
std::shared_ptr<quoter::QuoterDepthData> DepthOf(const Snapshot& s, const std::string& code, const InstrumentView& in,
                                                 const char* function) {
  const int d = in.digits;
  double price = s.last >= 1 ? static_cast<double>(s.last / 10000) : in.ref_close;
  if (price < 0.000001) {
    CMyLog::PrintLog(LOG_DEBUG, function, "Code %s receive invalide price [%%l, %0.2f]...", code.c_str(),
                     static_cast<double>(in.ref_close));
    return nullptr;
  }
  auto r = std::make_shared<quoter::QuoterDepthData>();
  r->time = utils::timeToMilliseconds(s.date, s.time);
  r->lastPrice = round_to(price, d);
  r->highPrice = Price(s.high, d);
  r->openPrice = Price(s.open, d);
  r->lowPrice = Price(s.low, d);
  r->lastClose = Price(s.pre_close, d);
  r->volume = s.volume / in.unit;
  r->rawVolume = s.volume;
  r->amount = static_cast<double>(s.turnover);
  r->dataFlag = 1;
  r->tradingPhase = 0;
  r->extValue1 = r->extValue2 = 0.0;
  r->pe = round_to(r->lastPrice / in.eps, d);
  return r;
}

void LogDepth(const quoter::QuoterDepthData& r, int32_t time, const std::string& code, const std::string& market,
              const char* function) {
  CMyLog::PrintLog(LOG_TRACE, function,
                   "[%d]返回%s.%s 数据: price[%0.2f, %0.2f, %0.2f, %0.2f, %0.2f], Volumn[%lld, %lld, %d], "
                   "Turnover[%0.2f], PE[%0.2f].....",
                   time, code.c_str(), market.c_str(), r.openPrice, r.highPrice, r.lowPrice, r.lastPrice, r.lastClose,
                   static_cast<long long>(r.volume), static_cast<long long>(r.rawVolume),
                   static_cast<int>(r.tradeCount), r.amount, r.pe);
}

}  // namespace

template <typename Record, typename Make>
void DvDataMgr::level2_stream(const void* data, size_t size, const Level2Stream& stream, Make make) {
  ReplyReader<ApiL2Head, Record> reply(data, size);
  if (!reply.ok()) return;
  const char* function = stream.function;
  size_t count = reply.available(reply.head().count);
  // A message that mixes instruments was queued once per instrument: this
  // copy logs and delivers the records of its own key only, so that each
  // instrument's records go out on its one thread, in order. Trades still
  // carry the whole message's vector.
  const uint32_t focus = message_key();
  // one_vector: every record of the message, delivered once to the
  // subscribers of each instrument it names, in order of first appearance.
  QuoteRecords batch;
  std::vector<std::string> batch_keys;
  std::unordered_set<std::string> seen_keys;
  KelQuoteClient* host = client();
  auto deliver = [&](const std::string& key, const QuoteRecords& records) {
    auto subscribers = subscriptions_.subscribers(key);
    CMyLog::PrintLog(LOG_TRACE, function, "Start return data[%d].....",
                     static_cast<int>(subscribers->size()));
    for (const TickSubscription& entry : *subscribers) {
      if (entry.level != 1 || entry.data_type != stream.data_type) continue;
      short serial = static_cast<short>(entry.serial);
      host->onSubscribe(serial, records);
    }
    CMyLog::PrintLog(LOG_TRACE, function, "Return data end.....");
  };
  for (size_t i = 0; i < count; ++i) {
    Record record = reply.item(i);
    const bool mine = focus == 0 || level2_record_key(&record) == focus;
    if (!mine && !stream.one_vector) continue;
    RecordHead head;
    std::memcpy(&head, &record, sizeof(head));
    std::string name = get_market_name_by_id(static_cast<int32_t>(head.market_id));
    auto market = markets_.find(name);
    if (market == nullptr) {
      if (!mine) continue;
      if (stream.tick) {
        CMyLog::PrintLog(LOG_ERROR, function, "市场[%s]不存在.....", name.c_str());
      } else {
        CMyLog::PrintLog(LOG_ERROR, function, "Not found market:%s,iMarketID=%d", name.c_str(),
                         static_cast<int>(head.market_id));
      }
      continue;
    }
    if (!market->initialised.load(std::memory_order_acquire)) {
      if (mine) CMyLog::PrintLog(LOG_ERROR, function, "市场[%s]正在初始化，忽略该条tick数据...", name.c_str());
      continue;
    }
    std::string code = field_text(head.code);
    InstrumentView view;
    if (instrument_view(*market, code, view) == 0) {
      if (mine) CMyLog::PrintLog(LOG_ERROR, function, "Code %s not exist...", code.c_str());
      continue;
    }
    if (mine) CMyLog::PrintLog(LOG_TRACE, function, "Code %s info [%d, %d]...", code.c_str(), view.digits, view.unit);
    // Record number 0: converted for another copy's vector, not logged here.
    std::shared_ptr<quoter::QuoterBase> converted = make(record, code, view, name, mine ? static_cast<int>(i) + 1 : 0);
    if (converted == nullptr) continue;
    std::string key = code + "." + name;
    if (!stream.one_vector) {
      deliver(key, QuoteRecords{std::move(converted)});
      continue;
    }
    if (mine && (batch_keys.empty() || batch_keys.back() != key) && seen_keys.insert(key).second) {
      batch_keys.push_back(std::move(key));
    }
    batch.push_back(std::move(converted));
  }
  if (batch_keys.empty()) return;
  for (const std::string& key : batch_keys) deliver(key, batch);
}

void DvDataMgr::on_reply_data_l2_tick(const void* data, size_t size) {
  static const Level2Stream stream{"DvDataMgr::on_reply_data_l2_tick", 1010, true, false};
  level2_stream<ApiL2Snapshot>(data, size, stream,
                               [](const ApiL2Snapshot& s, const std::string& code, const InstrumentView& in,
                                  const std::string& market, int) -> std::shared_ptr<quoter::QuoterBase> {
    auto r = DepthOf(s, code, in, stream.function);
    if (r == nullptr) return nullptr;
    r->tradeCount = s.trade_count;
    LogDepth(*r, s.time, code, market, stream.function);
    const int d = in.digits;
    bool debug = CMyLog::Enabled(LOG_DEBUG);
    for (int i = 0; i < 10; ++i) {
      r->askPrice[i] = Price(s.ask_price[i], d);
      r->askVol[i] = s.ask_volume[i] / in.unit;
      r->bidPrice[i] = Price(s.bid_price[i], d);
      r->bidVol[i] = s.bid_volume[i] / in.unit;
      if (debug) {
        CMyLog::PrintLog(LOG_DEBUG, stream.function,
                         "返回%s.%s #%d档数据:%0.2f[%d] - %0.2f[%0.1f], %0.2f[%d] - %0.2f[%0.1f].....", code.c_str(),
                         market.c_str(), i + 1, r->askPrice[i], static_cast<int>(r->askVol[i]),
                         static_cast<double>(s.ask_price[i]), static_cast<double>(s.ask_volume[i]), r->bidPrice[i],
                         static_cast<int>(r->bidVol[i]), static_cast<double>(s.bid_price[i]),
                         static_cast<double>(s.bid_volume[i]));
      }
    }
    if (s.last < 1 && s.high < 1 && r->askPrice[0] > 0.000001) {
      r->lastPrice = round_to(r->askPrice[0], d);
      CMyLog::PrintLog(LOG_INFO, stream.function, "[%d]替换%s.%s 最新价数据: price[%0.2f, %0.2f, %0.2f, %0.2f, %0.2f].....",
                       s.time, code.c_str(), market.c_str(), r->openPrice, r->highPrice, r->lowPrice, r->lastPrice,
                       r->lastClose);
    }
    return r;
  });
}

void DvDataMgr::on_reply_data_l2_tick_index(const void* data, size_t size) {
  static const Level2Stream stream{"DvDataMgr::on_reply_data_l2_tick_index", 1010, true, false};
  level2_stream<ApiL2Index>(data, size, stream,
                            [](const ApiL2Index& s, const std::string& code, const InstrumentView& in,
                               const std::string& market, int) -> std::shared_ptr<quoter::QuoterBase> {
    auto r = DepthOf(s, code, in, stream.function);
    if (r != nullptr) LogDepth(*r, s.time, code, market, stream.function);
    return r;
  });
}

void DvDataMgr::on_reply_data_l2_transaction(const void* data, size_t size) {
  static const Level2Stream stream{"DvDataMgr::on_reply_data_l2_transaction", 1801, false, true};
  level2_stream<ApiL2Transaction>(data, size, stream,
                                  [](const ApiL2Transaction& t, const std::string&, const InstrumentView& in,
                                     const std::string&, int n) -> std::shared_ptr<quoter::QuoterBase> {
    auto r = std::make_shared<quoter::TransactionData>();
    r->time = MillisOf(t.date, t.time);
    r->price = Price(t.price, in.digits);
    r->volume = t.volume;
    r->amount = Price(t.amount, in.digits);
    r->number1 = t.number1;
    r->number2 = t.number2;
    r->flag1 = t.flag1;
    r->flag2 = t.flag2;
    if (n == 0) return r;
    CMyLog::PrintLog(LOG_INFO, stream.function, "#[%d]:%lf,%lld,%lf,%d,%d,%d,%d,time=%lld", n, r->price,
                     static_cast<long long>(r->volume), r->amount, static_cast<int>(r->number1),
                     static_cast<int>(r->number2), r->flag2, r->flag1, static_cast<long long>(r->time));
    return r;
  });
}

void DvDataMgr::on_reply_data_l2_order(const void* data, size_t size) {
  static const Level2Stream stream{"DvDataMgr::on_reply_data_l2_order", 1802, false, false};
  level2_stream<ApiL2Order>(data, size, stream,
                            [](const ApiL2Order& o, const std::string&, const InstrumentView& in, const std::string&,
                               int n) -> std::shared_ptr<quoter::QuoterBase> {
    auto r = std::make_shared<quoter::OrderData>();
    r->time = MillisOf(o.date, o.time);
    r->price = Price(o.price, in.digits);
    r->volume = o.volume;
    r->number1 = o.number1;
    r->flag1 = o.flag1;
    r->flag2 = o.flag2;
    CMyLog::PrintLog(LOG_INFO, stream.function, "#[%d]:%lf,%lld,%lld,%d,%d,time=%lld", n, r->price,
                     static_cast<long long>(r->volume), static_cast<long long>(r->number1), r->flag1, r->flag2,
                     static_cast<long long>(r->time));
    return r;
  });
}

void DvDataMgr::on_reply_data_l2_order_queue(const void* data, size_t size) {
  static const Level2Stream stream{"DvDataMgr::on_reply_data_l2_order_queue", 1804, false, false};
  level2_stream<ApiL2OrderQueue>(data, size, stream,
                                 [](const ApiL2OrderQueue& q, const std::string&, const InstrumentView& in,
                                    const std::string&, int n) -> std::shared_ptr<quoter::QuoterBase> {
    auto r = std::make_shared<quoter::LevelOrderData>();
    r->time = MillisOf(q.date, q.time);
    r->price = Price(q.price, in.digits);
    r->volume = static_cast<double>(q.volume);
    r->side = q.side;
    r->orderCount = q.order_count;
    const int32_t listed = q.listed;  // packed: not bindable to a reference
    r->listed = std::clamp(listed, 0, ApiL2OrderQueue::kListedOrders);
    std::memcpy(r->orders, q.orders, sizeof(int32_t) * r->listed);
    CMyLog::PrintLog(LOG_INFO, stream.function, "#[%d]:%lf,%lf,%d,%d,time=%lld", n, r->price, r->volume,
                     r->orderCount, r->listed, static_cast<long long>(r->time));
    return r;
  });
}

}  // namespace tavr
