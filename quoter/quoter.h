// The quote record library shared with the host: the records the library
// hands over and the request descriptions the host passes in.
//
// Records are plain values behind a polymorphic base; the library always
// creates them with std::make_shared and hands them over as shared pointers
// to QuoterBase, which the host casts to the record's class.
#ifndef KELQUOTE_QUOTER_QUOTER_H_
#define KELQUOTE_QUOTER_QUOTER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "kelquote/export.h"

namespace se {

enum EQuoteSubStatus : int32_t {
  kQuoteData = 0,
  kQuoteFailure = 1,
};

enum EDataArrivedTag : int32_t {
  kArrivedNone = 0,      // with failures of subscriptions
  kArrivedPartial = 1,   // a history block with more to come
  kArrivedLast = 2,      // the last history block, or a failed history request
  kArrivedRealTime = 3,  // real-time data
};

}  // namespace se

namespace quoter {

enum class RecordKind : int32_t {
  kBase = 0,
  kAllData,
  kKLine,
  kDepth,
  kTransaction,
  kOrder,
  kLevelOrder,
  kBuySell,
  kDivid,
};

class QUOTER_API QuoterBase {
 public:
  QuoterBase();
  virtual ~QuoterBase();
  QuoterBase(const QuoterBase&) = default;
  QuoterBase& operator=(const QuoterBase&) = default;
  virtual RecordKind kind() const { return RecordKind::kBase; }

  int64_t time = 0;  // milliseconds since the epoch
};

// A level-1 snapshot (real time or history tick).
class QUOTER_API QuoterAllData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kAllData; }

  double lastPrice = 0, highPrice = 0, openPrice = 0, lowPrice = 0, lastClose = 0;
  double amount = 0;
  int64_t volume = 0;     // lots
  int64_t rawVolume = 0;  // shares
  uint32_t dataFlag = 0;
  uint32_t tradingPhase = 0;  // 11 pre-open, 12 call auction, 13 trading, 15 closed, 22 after hours
  uint32_t tradeCount = 0;
  double extValue1 = 0, extValue2 = 0;
  double pe = 0;
  double askPrice[5] = {0}, bidPrice[5] = {0};
  int32_t askVol[5] = {0}, bidVol[5] = {0};  // lots
  double upperLimit = 0, lowerLimit = 0;
  double settlePrice = 0, preSettlePrice = 0;  // the two prices after the low of history ticks
};

// A history bar.
class QUOTER_API KLineData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kKLine; }

  double open = 0, high = 0, low = 0, close = 0;
  int64_t volume = 0;  // lots
  double amount = 0;
  int64_t openInterest = 0;  // left unset by the library
  int64_t extValue = 0;
};

// A level-2 snapshot with ten levels.
class QUOTER_API QuoterDepthData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kDepth; }

  double lastPrice = 0, highPrice = 0, openPrice = 0, lowPrice = 0, lastClose = 0;
  double amount = 0;
  int64_t volume = 0, rawVolume = 0;
  uint32_t dataFlag = 0, tradingPhase = 0, tradeCount = 0;
  double extValue1 = 0, extValue2 = 0;
  double pe = 0;
  double askPrice[10] = {0}, bidPrice[10] = {0};
  int64_t askVol[10] = {0}, bidVol[10] = {0};
  double upperLimit = 0, lowerLimit = 0;
};

// One level-2 trade.
class QUOTER_API TransactionData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kTransaction; }

  double price = 0;
  int64_t volume = 0;
  double amount = 0;
  uint32_t number1 = 0, number2 = 0;
  int32_t flag1 = 0, flag2 = 0;
};

// One level-2 order.
class QUOTER_API OrderData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kOrder; }

  double price = 0;
  int64_t volume = 0;
  int64_t number1 = 0;
  int32_t flag1 = 0, flag2 = 0;
};

// The order queue at one price level.
class QUOTER_API LevelOrderData : public QuoterBase {
 public:
  static constexpr int kMaxOrders = 36;
  RecordKind kind() const override { return RecordKind::kLevelOrder; }

  double price = 0;
  double volume = 0;      // total volume queued at the price
  int32_t side = 0;       // 1 bid, 2 ask
  int32_t orderCount = 0; // orders in the queue
  int32_t listed = 0;     // volumes of the first orders in orders, at most kMaxOrders
  int32_t orders[kMaxOrders] = {0};
};

// Buy and sell volume totals of an instrument's day.
class QUOTER_API BuySellData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kBuySell; }

  int64_t buyVolume = 0, sellVolume = 0;
};

// One dividend or split of an instrument.
class QUOTER_API DividData : public QuoterBase {
 public:
  RecordKind kind() const override { return RecordKind::kDivid; }

  double cashDividend = 0;  // per ten shares
  double bonusShares = 0;
  double rightsShares = 0;
  double rightsPrice = 0;
};

// What is asked for: market (host code), instrument, kind of data and period.
struct QUOTER_API TSMetaInfo {
  std::string market;
  std::string code;
  int32_t metaId = 0;  // 3000 ticks, 3001 bars; a real-time data type for subscriptions
  int64_t period = 0;  // milliseconds
};

// The time range asked for, in milliseconds since the epoch.
struct QUOTER_API TRegionInfo {
  int64_t startTime = 0;  // 0 or less: none
  int64_t endTime = 0;    // below 1: none
  int32_t count = 0;
};

}  // namespace quoter

namespace ttservice {

struct QUOTER_API CInstrumentExtendInfo {
  uint16_t typeCode = 0;
  uint8_t codeFlag = 0;
  bool newListing = false;
  std::string productCode;
};

// One instrument of a market list.
struct QUOTER_API CInstrumentDetail {
  std::string code;
  std::string name;    // GBK
  std::string market;  // host market code
  double priceTick = 0;
  int32_t priceDigits = 0;
  int32_t volumeUnit = 1;
  uint32_t listDate = 0;  // yyyymmdd
  std::shared_ptr<CInstrumentExtendInfo> extendInfo;
};

}  // namespace ttservice

#endif  // KELQUOTE_QUOTER_QUOTER_H_
