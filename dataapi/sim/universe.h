// The simulated service's market universe: the eight markets with their
// instruments, coded and named as the exchanges do, the new issues and the
// Hong Kong connect rates. Everything derives from a seed and the trading
// day, through the raw output of a fixed generator and integer arithmetic,
// so that one seed gives the same universe on every platform.
#ifndef KELQUOTE_DATAAPI_SIM_UNIVERSE_H_
#define KELQUOTE_DATAAPI_SIM_UNIVERSE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

// Market ids of the service.
enum MarketId : uint8_t {
  kSZ = 1,
  kSH = 2,
  kSQ = 5,  // Shanghai futures
  kSN = 6,  // Shanghai energy futures
  kDL = 7,  // Dalian commodities
  kZZ = 8,  // Zhengzhou commodities
  kZJ = 9,  // financial futures
  kHK = 10,  // Hong Kong connect
};

// Instrument type codes of the initialisation record: the kind in the high
// byte, the variety in the low one.
enum TypeCode : uint16_t {
  kTypeIndex = 0x0101,
  kTypeMainStock = 0x0201,
  kTypeSmeStock = 0x0202,  // none since the SME board merged into the main board
  kTypeChiNextStock = 0x0203,
  kTypeStarStock = 0x021B,  // 539: STAR shares, with after-hours fixed-price trading
  kTypeEtf = 0x0301,
  kTypeBond = 0x0302,  // convertible bonds
  kTypeEtfOption = 0x0401,
  kTypeFuture = 0x0501,
  kTypeContinuous = 0x0502,
  kTypeHKStock = 0x0601,
  kTypeHKIndex = 0x0602,
};

// Bits of the initialisation record's code_flag.
constexpr uint8_t kFlagSpecialTreatment = 1;
constexpr uint8_t kFlagNewListing = 2;
constexpr uint8_t kFlagSuspended = 4;

// Boards of the other-base record.
enum Board : uint8_t {
  kBoardMain = 0,
  kBoardSme = 1,  // none since the merger
  kBoardChiNext = 2,
  kBoardStar = 3,
  kBoardOption = 4,
  kBoardFund = 5,
  kBoardBond = 6,
};

struct Instrument {
  std::string code;
  std::string name;  // GBK at full length; the 32-byte name field may cut it
  uint16_t type_code = 0;
  uint8_t price_digits = 2;
  uint8_t code_flag = 0;
  uint16_t volume_unit = 1;  // 0 means 1; a Hong Kong share's board lot
  uint32_t list_date = 0;
  double eps = 0;
  // Prices in units of 10^-price_digits, exact whatever the tick. A Hong
  // Kong share's tick follows the spread table by price (tick_at); its
  // tick_units is the tick at the reference close.
  int64_t tick_units = 1;
  // Turnover of a price and a volume: price x volume x multiplier (a
  // contract's size; 1 for shares, funds and bonds).
  int64_t multiplier = 1;
  int64_t pre_close_units = 0;
  int64_t upper_units = 0;  // both 0: no price limit
  int64_t lower_units = 0;
  int16_t limit_pm = 0;  // daily limit in per mille of the reference close, 0 none
  uint8_t board = kBoardMain;
  bool margin = false;
  bool short_sell = false;
  bool connect = false;
  bool st = false;
  bool suspended = false;
  int64_t total_shares = 0;  // stocks only
  int64_t float_shares = 0;
  double net_assets_per_share = 0;

  double scale() const;  // 10^price_digits
  double tick() const { return static_cast<double>(tick_units) / scale(); }
  double pre_close() const { return static_cast<double>(pre_close_units) / scale(); }
  double upper_limit() const { return static_cast<double>(upper_units) / scale(); }
  double lower_limit() const { return static_cast<double>(lower_units) / scale(); }
  bool is_stock() const { return (type_code >> 8) == 2; }
  // The tick below a price on the grid (its band's), the tick above it, and
  // a price floored to the grid.
  int64_t tick_at(int64_t units) const;
  int64_t tick_above(int64_t units) const { return tick_at(units + 1); }
  int64_t snap(int64_t units) const;
  bool on_grid(int64_t units) const { return units > 0 && units % tick_at(units) == 0; }
  // Orders: at least min_order shares, in steps of order_step.
  int64_t min_order() const;
  int64_t order_step() const;
};

struct Market {
  uint8_t id = 0;
  std::string name;  // "SH", "SZ", ...
  std::string desc;  // GBK
  uint8_t market_type = 0;  // 1 securities, 2 futures, 3 Hong Kong connect
  uint8_t flag_a = 0;       // 1: trades a night session
  uint8_t flag_b = 0;       // 1: lists options in a second table
  int32_t trade_date = 0;
  int32_t night_date = 0;   // the evening of the trading day's night session, 0 if none
  uint32_t revision = 0;    // number of changes since the universe was built
  uint32_t checksum = 0;    // never 0
  std::vector<Instrument> instruments;  // ascending code
};

struct NewIssue {
  uint8_t market_id = 0;
  std::string code;
  std::string name;  // GBK
  std::string purchase_code;
  std::string board;  // GBK
  int32_t issue_date = 0;
  double issue_price = 0;
  int64_t issue_volume = 0;
  int32_t purchase_limit = 0;
  int32_t listing_date = 0;  // 0 until announced
};

struct HKRate {
  int32_t date;
  float rate_a;  // buying rate, CNY per HKD
  float rate_b;  // selling rate
};

// Name of a market id ("SH" ...), empty for an unknown one.
const char* market_name(int id);

class Universe {
 public:
  static constexpr uint64_t kDefaultSeed = 20141117;
  static constexpr int32_t kHKConnectStart = 20141117;

  // The universe of seed on the trading day of the local date today.
  Universe(uint64_t seed, int32_t today);

  uint64_t seed() const { return seed_; }
  // The latest of the markets' trading days.
  int32_t trade_date() const;
  const std::vector<Market>& markets() const { return markets_; }
  const Market* market(int id) const;

  // The market moves to a new state: a later trading day when today's is
  // later, prices that moved, a new listing on the stock markets, and a new
  // checksum. False for an unknown id.
  bool change_market(int id, int32_t today);

  const std::vector<NewIssue>& new_issues() const { return new_issues_; }
  // Rates of the Hong Kong connect trading days from first to last.
  std::vector<HKRate> hk_rates(int32_t first, int32_t last) const;
  // Middle rate of the latest trading day.
  float latest_hk_rate() const;
  // Version of the shared fields: moves with every change of a market.
  int32_t version() const { return version_; }

 private:
  uint64_t seed_;
  int32_t version_ = 1;
  std::vector<Market> markets_;
  std::vector<NewIssue> new_issues_;
  std::vector<HKRate> hk_rates_;
};

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_UNIVERSE_H_
