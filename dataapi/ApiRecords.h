// Packed records of the vendor quote API, little-endian, byte for byte as
// the service sends and expects them. Every layout is pinned by static_asserts
// so that a change of a field shows at compile time.
#ifndef KELQUOTE_DATAAPI_APIRECORDS_H_
#define KELQUOTE_DATAAPI_APIRECORDS_H_

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)

// One instrument for the per-instrument subscribe and cancel operations.
struct ApiCodeItem {
  char code[32];
  uint8_t market;
};
static_assert(sizeof(ApiCodeItem) == 33);

// One market for the whole-market push operations.
struct ApiMarketItem {
  uint16_t market_short;
  int32_t market;
};
static_assert(sizeof(ApiMarketItem) == 6);
static_assert(offsetof(ApiMarketItem, market) == 2);

// History bars request.
struct HisBarRequest {
  uint16_t request_id;
  int32_t market;
  char code[32];
  int32_t kline_type;
  int32_t start_date;
  int32_t end_date;
  int32_t zero;
  int32_t one;
};
static_assert(sizeof(HisBarRequest) == 58);
static_assert(offsetof(HisBarRequest, kline_type) == 38);
static_assert(offsetof(HisBarRequest, one) == 54);

// History ticks request (both tick operations).
struct HisTickRequest {
  uint16_t request_id;
  int32_t market;
  char code[32];
  int32_t start_date;
  int32_t end_date;
  int32_t zero;
  int32_t one;
};
static_assert(sizeof(HisTickRequest) == 54);
static_assert(offsetof(HisTickRequest, start_date) == 38);

// Financial data request (one per kind of data).
struct FinanceRequest {
  uint16_t request_id;
  int32_t market;
  char code[32];
};
static_assert(sizeof(FinanceRequest) == 38);

// Hong Kong connect exchange-rate request.
struct HKRateRequest {
  uint16_t field;
  int32_t begin;
  int32_t end;
};
static_assert(sizeof(HKRateRequest) == 10);

// Dividends and splits of one instrument (reply of ReqPower).
struct ApiPowerRsp {
  uint16_t request_id;
  char code[32];
  int32_t market;
  uint16_t count;  // elements that follow
};
static_assert(sizeof(ApiPowerRsp) == 40);
static_assert(offsetof(ApiPowerRsp, count) == 38);

// One dividend or split; amounts are per ten shares, times 10.
struct ApiPowerItem {
  int32_t date;  // yyyymmdd
  int32_t time;  // HHMMSS
  int32_t cash_dividend;
  int32_t bonus_shares;
  int32_t rights_shares;
  int32_t rights_price;
  char reserved[240];
};
static_assert(sizeof(ApiPowerItem) == 264);

#pragma pack(pop)

#endif  // KELQUOTE_DATAAPI_APIRECORDS_H_
