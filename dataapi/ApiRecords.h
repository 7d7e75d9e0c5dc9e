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


// ---- Market reference data -------------------------------------------------
// Replies are headed by their element count where the callback table says;
// the service writes text fields NUL-terminated and GBK.

// Status of one market (OnMarketStatus). ReqMarketStatus(0) asks for every
// market's status, ReqMarketStatus(id) for one.
struct ApiMarketStatus {
  uint8_t market_id;
  int32_t date;      // yyyymmdd
  int32_t changed;   // non-zero: the market's data changed since the last status
  uint32_t checksum;
};
static_assert(sizeof(ApiMarketStatus) == 13);

// Head of a market's initialisation data (OnMarketInit), followed by
// code_count ApiCodeInit records. ReqMarketInit(0) asks for every market.
struct ApiMarketInitHead {
  uint8_t market_id;
  uint8_t market_type;
  char market_desc[32];
  uint8_t flag_a;
  uint8_t flag_b;
  int32_t trade_date;        // yyyymmdd
  int32_t trade_date_extra;  // the trading day's night session date, 0 if none
  uint32_t code_count;
};
static_assert(sizeof(ApiMarketInitHead) == 48);
static_assert(offsetof(ApiMarketInitHead, flag_a) == 34);
static_assert(offsetof(ApiMarketInitHead, trade_date) == 36);
static_assert(offsetof(ApiMarketInitHead, code_count) == 44);

// One instrument of a market's initialisation data.
struct ApiCodeInit {
  char code[32];
  char name[32];
  uint16_t type_code;
  uint8_t price_digits;
  uint8_t code_flag;
  uint16_t volume_unit;  // shares per lot, 0 meaning 1
  uint32_t list_date;    // yyyymmdd
  float eps;             // earnings per share
  float pre_close;       // reference close
  uint8_t reserved[2];
};
static_assert(sizeof(ApiCodeInit) == 84);
static_assert(offsetof(ApiCodeInit, type_code) == 64);
static_assert(offsetof(ApiCodeInit, list_date) == 70);
static_assert(offsetof(ApiCodeInit, eps) == 74);
static_assert(offsetof(ApiCodeInit, pre_close) == 78);

// Trading attributes of a market's instruments (OnMarketOtherBase), answer
// to ReqMarketOtherBase(id); count records of ApiOtherBaseItem follow.
struct ApiMarketOtherBaseHead {
  uint8_t market_id;
  uint8_t reserved[4];
  int32_t count;
};
static_assert(sizeof(ApiMarketOtherBaseHead) == 9);

struct ApiOtherBaseItem {
  uint8_t board;        // 0 main, 1 SME, 2 ChiNext, 3 STAR, 4 options, 5 funds, 6 bonds
  uint8_t margin;       // flags: 0 or 1
  uint8_t short_sell;
  uint8_t connect;      // eligible for the Hong Kong connect
  uint8_t st;           // under special treatment
  uint8_t suspended;
  uint8_t reserved[59];
  char code[33];
};
static_assert(sizeof(ApiOtherBaseItem) == 98);
static_assert(offsetof(ApiOtherBaseItem, code) == 65);

// Reference information of a market's instruments (OnRespRefInfo), answer
// to ReqRefInfo(id); count records of ApiRefInfoItem follow.
struct ApiRefInfoHead {
  int32_t market_id;
  int32_t count;
};
static_assert(sizeof(ApiRefInfoHead) == 8);

struct ApiRefInfoItem {
  int32_t seq;
  char code[32];
  double eps;        // earnings per share
  double pre_close;  // reference close
  float tick;        // price tick
  double upper_limit;
  double lower_limit;
  char reserved[298];
};
static_assert(sizeof(ApiRefInfoItem) == 370);
static_assert(offsetof(ApiRefInfoItem, code) == 4);
static_assert(offsetof(ApiRefInfoItem, eps) == 36);
static_assert(offsetof(ApiRefInfoItem, tick) == 52);

// Share capital of a market's instruments (OnRespLatestShareData), answer to
// ReqLatestShare(id).
struct ApiLatestShareHead {
  uint8_t market_id;
  uint8_t reserved;
  int32_t date;  // yyyymmdd of the figures
  int32_t count;
};
static_assert(sizeof(ApiLatestShareHead) == 10);

struct ApiLatestShareItem {
  char code[32];
  int64_t total_shares;
  int64_t float_shares;
  double net_assets_per_share;
  uint8_t reserved[8];
};
static_assert(sizeof(ApiLatestShareItem) == 64);

// New issues (OnRespNewIssueList), answer to ReqNewIssueList(0).
struct ApiNewIssueHead {
  int32_t count;
};
static_assert(sizeof(ApiNewIssueHead) == 4);

struct ApiNewIssueItem {
  uint8_t market_id;
  char code[16];
  char name[32];
  char purchase_code[16];
  int32_t issue_date;     // yyyymmdd
  double issue_price;
  int64_t issue_volume;   // shares
  int32_t purchase_limit; // shares per account
  int32_t listing_date;   // yyyymmdd, 0 until known
  char board[16];
  uint8_t reserved[27];
};
static_assert(sizeof(ApiNewIssueItem) == 136);
static_assert(offsetof(ApiNewIssueItem, issue_date) == 65);
static_assert(offsetof(ApiNewIssueItem, board) == 93);

// Fields shared by every market (OnRespSharedFields), answer to ReqSharedFields.
struct ApiSharedFields {
  int32_t version;
  float rate;
};
static_assert(sizeof(ApiSharedFields) == 8);

// Exchange holidays (OnRespHolidayInfo), answer to ReqHoliday(2).
struct ApiHolidayHead {
  int32_t kind;
  int32_t count;
};
static_assert(sizeof(ApiHolidayHead) == 8);

// Hong Kong connect exchange rates (OnRespHKRateData), answer to ReqHKRate;
// count ApiHKRateItem records follow.
struct ApiHKRateHead {
  uint16_t field;
  int32_t begin;
  int32_t end;
  uint32_t count;
};
static_assert(sizeof(ApiHKRateHead) == 14);

struct ApiHKRateItem {
  int32_t date;
  uint8_t reserved[4];
  float rate_a;  // buying rate, HKD to CNY
  float rate_b;  // selling rate
};
static_assert(sizeof(ApiHKRateItem) == 16);


// ---- Financial data ----------------------------------------------------------
// Every answer to a FinanceRequest is headed by the request's id and
// instrument, with count elements from byte 42, one per report period. The
// eight answers share the head; Kind (the bit value of the kind of data)
// tells them apart. Texts are GBK.
template <int Kind>
struct ApiFinanceRsp {
  uint16_t request_id;
  int32_t market;
  char code[32];
  int32_t count;
};
using ApiBalanceSheetRsp = ApiFinanceRsp<1>;
using ApiIncomeStatementRsp = ApiFinanceRsp<2>;
using ApiCashFlowStatementRsp = ApiFinanceRsp<4>;
using ApiFinancialDataRsp = ApiFinanceRsp<8>;
using ApiShareRsp = ApiFinanceRsp<16>;
using ApiSHNumberResp = ApiFinanceRsp<32>;
using ApiMostShareHolderResp = ApiFinanceRsp<64>;
using ApiNegotiableShareHolderRsp = ApiFinanceRsp<128>;
static_assert(sizeof(ApiShareRsp) == 42);
static_assert(offsetof(ApiShareRsp, code) == 6);
static_assert(offsetof(ApiShareRsp, count) == 38);

// One report period of a statement: its items in the service's order, as
// doubles where the element has room for them and as floats where not.
template <typename Value, size_t Items, size_t Size>
struct ApiStatementItem {
  char code[32];
  int32_t report_date;    // yyyymmdd, end of the period
  int32_t announce_date;  // yyyymmdd
  int32_t report_type;    // 1 first quarter, 2 half year, 3 third quarter, 4 year
  Value items[Items];
  uint8_t reserved[Size - 44 - Items * sizeof(Value)];
};
using ApiBalanceSheetItem = ApiStatementItem<float, 123, 795>;
using ApiIncomeStatementItem = ApiStatementItem<double, 60, 539>;
using ApiCashFlowItem = ApiStatementItem<float, 92, 691>;
using ApiFinancialDataItem = ApiStatementItem<double, 41, 572>;
using ApiShareItem = ApiStatementItem<double, 3, 296>;
static_assert(sizeof(ApiBalanceSheetItem) == 795);
static_assert(sizeof(ApiIncomeStatementItem) == 539);
static_assert(sizeof(ApiCashFlowItem) == 691);
static_assert(sizeof(ApiFinancialDataItem) == 572);
static_assert(sizeof(ApiShareItem) == 296);
static_assert(offsetof(ApiBalanceSheetItem, report_date) == 32);
static_assert(offsetof(ApiBalanceSheetItem, report_type) == 40);
static_assert(offsetof(ApiBalanceSheetItem, items) == 44);
static_assert(offsetof(ApiIncomeStatementItem, items) == 44);
static_assert(offsetof(ApiShareItem, items) == 44);

// Number of holders at one report date.
struct ApiSHNumberItem {
  char code[32];
  int32_t report_date;     // yyyymmdd
  int32_t announce_date;   // yyyymmdd
  int32_t holders;         // all holders
  double shares_per_holder;
  int32_t float_holders;   // holders of tradable shares
  double change_pct;       // change of all holders since the previous report
  int32_t restricted_holders;
  uint8_t reserved1[4];
  int32_t previous_holders;  // all holders at the previous report
  uint8_t reserved2[4];
};
static_assert(sizeof(ApiSHNumberItem) == 80);
static_assert(offsetof(ApiSHNumberItem, report_date) == 32);
static_assert(offsetof(ApiSHNumberItem, announce_date) == 36);
static_assert(offsetof(ApiSHNumberItem, holders) == 40);
static_assert(offsetof(ApiSHNumberItem, float_holders) == 52);
static_assert(offsetof(ApiSHNumberItem, restricted_holders) == 64);
static_assert(offsetof(ApiSHNumberItem, previous_holders) == 72);

// One holder of a top-ten list.
struct ApiShareHolder {
  char name[64];
  char kind[32];        // kind of holder
  int64_t shares;       // shares held
  char share_kind[16];  // kind of the shares held
  double ratio;         // percent of the shares the list counts
  char change[64];      // change since the previous report
  int32_t rank;         // from 1
};
static_assert(sizeof(ApiShareHolder) == 196);
static_assert(offsetof(ApiShareHolder, shares) == 96);
static_assert(offsetof(ApiShareHolder, share_kind) == 104);
static_assert(offsetof(ApiShareHolder, ratio) == 120);
static_assert(offsetof(ApiShareHolder, change) == 128);
static_assert(offsetof(ApiShareHolder, rank) == 192);

// The largest holders at one report date (both top-ten answers).
struct ApiTopHolderItem {
  static constexpr int kMaxHolders = 11;
  char code[32];
  int32_t report_date;    // yyyymmdd
  int32_t announce_date;  // yyyymmdd
  int32_t holder_count;   // entries of holders used
  ApiShareHolder holders[kMaxHolders];
};
static_assert(sizeof(ApiTopHolderItem) == 2200);
static_assert(offsetof(ApiTopHolderItem, report_date) == 32);
static_assert(offsetof(ApiTopHolderItem, announce_date) == 36);
static_assert(offsetof(ApiTopHolderItem, holder_count) == 40);
static_assert(offsetof(ApiTopHolderItem, holders) == 44);


// ---- Real-time data ----------------------------------------------------------

// A level-1 snapshot (OnTickL1), also the element of a whole-market package.
struct ApiL1Tick {
  uint8_t market_id;
  char code[36];
  int32_t date;  // yyyymmdd
  int32_t time;  // HHMMSS
  float volume;  // cumulative, shares
  float turnover;
  uint32_t trade_count;
  float high, last, open, low;
  float upper_limit, lower_limit;
  float pre_close;
  float bid_price[5];
  float bid_volume[5];  // shares
  float ask_price[5];
  float ask_volume[5];
  uint8_t reserved1[20];
  uint32_t board_kind;       // 0 to 8: selects the session rule
  uint32_t after_hours_time; // HHMMSS (kind 8)
  uint8_t board_value1[4];   // kind 8: float after-hours price; kinds 3, 7: float phase code
  uint8_t board_value2[4];   // kind 8: uint32 after-hours trade count; kinds 3, 5, 7: float
  uint8_t board_value3[4];   // kind 8: int32 after-hours volume; kinds 3, 7: float
  float after_hours_turnover;
  uint8_t reserved2[32];
  int32_t after_hours_bid_volume;
  int32_t after_hours_ask_volume;
};
static_assert(sizeof(ApiL1Tick) == 249);
static_assert(offsetof(ApiL1Tick, date) == 37);
static_assert(offsetof(ApiL1Tick, high) == 57);
static_assert(offsetof(ApiL1Tick, pre_close) == 81);
static_assert(offsetof(ApiL1Tick, bid_price) == 85);
static_assert(offsetof(ApiL1Tick, ask_volume) == 145);
static_assert(offsetof(ApiL1Tick, board_kind) == 185);
static_assert(offsetof(ApiL1Tick, board_value1) == 193);
static_assert(offsetof(ApiL1Tick, after_hours_turnover) == 205);
static_assert(offsetof(ApiL1Tick, after_hours_bid_volume) == 241);

// A whole-market package (OnRespMarketPushData): count ApiL1Tick follow.
struct ApiMarketPushHead {
  uint16_t market_id;
  int32_t count;
};
static_assert(sizeof(ApiMarketPushHead) == 6);

// Head of every level-2 message: count records follow from byte 8.
struct ApiL2Head {
  int32_t reserved;
  int32_t count;
};
static_assert(sizeof(ApiL2Head) == 8);

// A level-2 snapshot with ten levels (OnTickL2). Prices in ten-thousandths.
struct ApiL2Snapshot {
  uint32_t market_id;
  char code[32];
  int32_t date;
  uint8_t reserved1[4];
  int32_t time;  // HHMMSS
  uint8_t reserved2[4];
  int64_t high, open, low, last, pre_close;
  int64_t ask_price[10];   // the first side
  int64_t ask_volume[10];  // shares
  int64_t bid_price[10];   // the second side
  int64_t bid_volume[10];
  uint32_t trade_count;
  int64_t volume;
  int64_t turnover;
  uint8_t reserved3[72];
};
static_assert(sizeof(ApiL2Snapshot) == 504);
static_assert(offsetof(ApiL2Snapshot, time) == 44);
static_assert(offsetof(ApiL2Snapshot, high) == 52);
static_assert(offsetof(ApiL2Snapshot, ask_price) == 92);
static_assert(offsetof(ApiL2Snapshot, bid_volume) == 332);
static_assert(offsetof(ApiL2Snapshot, trade_count) == 412);
static_assert(offsetof(ApiL2Snapshot, turnover) == 424);

// A level-2 index snapshot (OnIndexL2): the snapshot's head without depth.
struct ApiL2Index {
  uint32_t market_id;
  char code[32];
  int32_t date;
  uint8_t reserved1[4];
  int32_t time;  // HHMMSS
  uint8_t reserved2[4];
  int64_t high, open, low, last, pre_close;
  int64_t volume;
  int64_t turnover;
};
static_assert(sizeof(ApiL2Index) == 108);
static_assert(offsetof(ApiL2Index, high) == 52);

// One trade (OnTransL2).
struct ApiL2Transaction {
  uint32_t market_id;
  char code[32];
  int32_t date;
  int32_t time;  // HHMMSSmmm
  uint8_t reserved1[4];
  int64_t price;   // ten-thousandths
  int32_t volume;
  int64_t amount;  // ten-thousandths
  int8_t flag1;
  int8_t flag2;
  uint8_t reserved2;
  uint32_t number2;
  uint32_t number1;
};
static_assert(sizeof(ApiL2Transaction) == 79);
static_assert(offsetof(ApiL2Transaction, price) == 48);
static_assert(offsetof(ApiL2Transaction, amount) == 60);
static_assert(offsetof(ApiL2Transaction, number2) == 71);

// One order (OnOrderL2).
struct ApiL2Order {
  uint32_t market_id;
  char code[32];
  int32_t date;
  int32_t time;  // HHMMSSmmm
  int32_t number1;
  int64_t price;  // ten-thousandths
  int32_t volume;
  int8_t flag1;
  int8_t flag2;
};
static_assert(sizeof(ApiL2Order) == 62);
static_assert(offsetof(ApiL2Order, price) == 48);

// The order queue at one price level (OnOrderQueueL2): the first
// kListedOrders orders' volumes of orderCount queued.
struct ApiL2OrderQueue {
  static constexpr int kListedOrders = 36;
  uint32_t market_id;
  char code[32];
  int32_t date;
  int32_t time;  // HHMMSSmmm
  int8_t side;   // 1 bid, 2 ask
  uint8_t reserved[3];
  int64_t price;   // ten-thousandths
  int64_t volume;  // shares queued at the price
  int32_t order_count;
  int32_t listed;  // entries of orders used
  int32_t orders[kListedOrders];
};
static_assert(sizeof(ApiL2OrderQueue) == 216);
static_assert(offsetof(ApiL2OrderQueue, price) == 48);

// ---- History replies -----------------------------------------------------
// A history request is answered in blocks of one head and count elements;
// the last block of a request has its flag set.

// Head of a bar block (OnRespHisData). K-line type 14 carries ApiHisBarTick
// elements, every other type ApiHisBar.
struct ApiHisDataRsp {
  int16_t request_id;
  int32_t market_id;
  char code[40];
  int32_t kline_type;  // 1 daily, 7 one-minute, 14 ticks
  int32_t count;
  uint8_t reserved[4];
  int32_t last;  // non-zero: the last block
};
static_assert(sizeof(ApiHisDataRsp) == 62);
static_assert(offsetof(ApiHisDataRsp, code) == 6);
static_assert(offsetof(ApiHisDataRsp, kline_type) == 46);
static_assert(offsetof(ApiHisDataRsp, count) == 50);
static_assert(offsetof(ApiHisDataRsp, last) == 58);

// One bar; prices in ten-thousandths.
struct ApiHisBar {
  int32_t date;  // yyyymmdd
  int32_t time;  // HHMMSS, the bar's first minute (one-minute bars)
  int64_t volume;  // shares or contracts
  int64_t amount;
  int32_t open, high, low, close;
  int32_t extra;
  uint8_t reserved[4];
};
static_assert(sizeof(ApiHisBar) == 48);
static_assert(offsetof(ApiHisBar, volume) == 8);
static_assert(offsetof(ApiHisBar, open) == 24);
static_assert(offsetof(ApiHisBar, extra) == 40);

// One trade of a K-line type 14 block.
struct ApiHisBarTick {
  int32_t date;
  int32_t time;  // HHMMSS
  uint8_t reserved;
  int32_t price;  // ten-thousandths
  int32_t value;
  uint32_t volume;  // shares of this trade
};
static_assert(sizeof(ApiHisBarTick) == 21);
static_assert(offsetof(ApiHisBarTick, price) == 9);
static_assert(offsetof(ApiHisBarTick, volume) == 17);

// Head of a tick block, level-1 (OnRespL1HisTickData) or after-hours
// (OnRespHisTickKcbData); the two differ in their elements.
struct ApiHisTickHead {
  int16_t request_id;
  int32_t market_id;
  char code[44];
  int32_t last;  // non-zero: the last block
  int32_t count;
};
static_assert(sizeof(ApiHisTickHead) == 58);
static_assert(offsetof(ApiHisTickHead, last) == 50);
static_assert(offsetof(ApiHisTickHead, count) == 54);

struct ApiL1NewHisTickResp : ApiHisTickHead {};  // ApiHisTickL1 elements follow
struct ApiHisTickKcbResp : ApiHisTickHead {};    // ApiHisTickKcb elements follow
static_assert(sizeof(ApiL1NewHisTickResp) == 58 && sizeof(ApiHisTickKcbResp) == 58);

// One after-hours fixed-price trade; prices in ten-thousandths.
struct ApiHisTickKcb {
  int32_t date;
  int32_t time;  // HHMMSSmmm
  int32_t price;
  uint8_t reserved1[4];
  int64_t volume;  // shares
  int64_t amount;
  uint8_t reserved2[40];
  int32_t ask_volume;  // shares
  int32_t bid_volume;
};
static_assert(sizeof(ApiHisTickKcb) == 80);
static_assert(offsetof(ApiHisTickKcb, volume) == 16);
static_assert(offsetof(ApiHisTickKcb, amount) == 24);
static_assert(offsetof(ApiHisTickKcb, ask_volume) == 72);

// One level-1 history snapshot; prices in ten-thousandths.
struct ApiHisTickL1 {
  int32_t date;
  int32_t time;  // HHMMSSmmm
  int32_t last;
  uint8_t reserved1[2];
  int32_t trade_count;
  uint8_t reserved2[2];
  int64_t amount;
  uint8_t reserved3[10];
  int64_t volume;  // cumulative, shares
  uint8_t reserved4[8];
  int32_t high, low, open;
  int32_t pre_close;
  int32_t bid_price[5];
  int32_t bid_volume[5];  // shares
  int32_t ask_price[5];
  int32_t ask_volume[5];
  uint8_t reserved5[44];
  int32_t pre_settle;
  int32_t status;  // session phase code, 0 or less when not given
  uint8_t reserved6[4];
  int32_t settle;
  uint8_t reserved7[4];
};
static_assert(sizeof(ApiHisTickL1) == 214);
static_assert(offsetof(ApiHisTickL1, trade_count) == 14);
static_assert(offsetof(ApiHisTickL1, amount) == 20);
static_assert(offsetof(ApiHisTickL1, volume) == 38);
static_assert(offsetof(ApiHisTickL1, high) == 54);
static_assert(offsetof(ApiHisTickL1, pre_close) == 66);
static_assert(offsetof(ApiHisTickL1, bid_price) == 70);
static_assert(offsetof(ApiHisTickL1, bid_volume) == 90);
static_assert(offsetof(ApiHisTickL1, ask_price) == 110);
static_assert(offsetof(ApiHisTickL1, ask_volume) == 130);
static_assert(offsetof(ApiHisTickL1, pre_settle) == 194);
static_assert(offsetof(ApiHisTickL1, status) == 198);
static_assert(offsetof(ApiHisTickL1, settle) == 206);

#pragma pack(pop)

#endif  // KELQUOTE_DATAAPI_APIRECORDS_H_
