#include "dataapi/sim/universe.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/copy_rules_test.h"
#include "dataapi/sim/replies.h"

namespace sim {
namespace {

constexpr int32_t kToday = 20261123;  // a Monday

const Universe& Default() {
  static const Universe universe(Universe::kDefaultSeed, kToday);
  return universe;
}

const std::vector<uint8_t> kIds{kSZ, kSH, kSQ, kSN, kDL, kZZ, kZJ, kHK};

bool AllDigits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// The letters of a futures code and its digits.
std::pair<std::string, std::string> SplitFuture(const std::string& code) {
  size_t at = 0;
  while (at < code.size() && std::isalpha(static_cast<unsigned char>(code[at]))) ++at;
  return {code.substr(0, at), code.substr(at)};
}

// A NUL-terminated GBK field whose last character lost its second byte.
bool CutInsideACharacter(const char* field, size_t size) {
  size_t length = strnlen(field, size);
  size_t at = 0;
  while (at < length) at += static_cast<unsigned char>(field[at]) >= 0x81 ? 2 : 1;
  return at > length;
}

template <typename Head, typename Item>
std::pair<Head, std::vector<Item>> Parse(const Bytes& bytes, size_t count) {
  Head head;
  std::memcpy(&head, bytes.data(), sizeof(head));
  std::vector<Item> items(count);
  if (count > 0) std::memcpy(items.data(), bytes.data() + sizeof(Head), count * sizeof(Item));
  return {head, items};
}

const Instrument* Find(const Market& market, const std::string& code) {
  for (const Instrument& item : market.instruments) {
    if (item.code == code) return &item;
  }
  return nullptr;
}

// ---- Determinism ---------------------------------------------------------------

uint64_t Fingerprint(const Universe& universe) {
  uint64_t hash = 14695981039346656037ULL;
  auto add = [&](const Bytes& bytes) {
    for (uint8_t b : bytes) hash = (hash ^ b) * 1099511628211ULL;
  };
  for (const Market& market : universe.markets()) {
    add(market_init_reply(market));
    add(ref_info_reply(market));
    add(other_base_reply(market));
    add(latest_share_reply(market));
  }
  add(new_issue_reply(universe.new_issues()));
  add(hk_rate_reply(0, 0, 0, universe.hk_rates(0, 99991231)));
  return hash;
}

TEST(UniverseTest, OneSeedGivesOneUniverse) {
  Universe a(7, kToday);
  Universe b(7, kToday);
  Universe c(8, kToday);
  EXPECT_EQ(Fingerprint(a), Fingerprint(b));
  EXPECT_NE(Fingerprint(a), Fingerprint(c));
  EXPECT_NE(market_init_reply(*a.market(kSH)), market_init_reply(*c.market(kSH)));
  EXPECT_NE(market_init_reply(*a.market(kZJ)), market_init_reply(*c.market(kZJ)));
}

// Pinned when the generator was written. Every platform must reproduce it
// (the tests also run on the Windows build); a deliberate change of the
// generator updates it.
TEST(UniverseTest, DefaultSeedGivesThePinnedUniverse) {
  EXPECT_EQ(Fingerprint(Default()), 0x2c2c70084fd60ce9ULL);
}

// ---- Codes and names -------------------------------------------------------------

// The code ranges each exchange gives each kind of instrument.
struct CodeRule {
  uint8_t market;
  uint16_t type;
  size_t length;
  std::vector<const char*> prefixes;
  int at_least;
};

TEST(UniverseTest, StockExchangeCodesAreTheExchangesOwn) {
  const CodeRule rules[] = {
      {kSH, kTypeMainStock, 6, {"600", "601", "603", "605"}, 1500},
      {kSH, kTypeStarStock, 6, {"688"}, 500},
      {kSH, kTypeIndex, 6, {"000"}, 100},
      {kSH, kTypeEtf, 6, {"51", "56", "58"}, 500},
      {kSH, kTypeBond, 6, {"11"}, 1},
      {kSH, kTypeEtfOption, 8, {"1"}, 500},
      {kSZ, kTypeMainStock, 6, {"000", "001", "002", "003"}, 1400},  // the SME board merged in 2021
      {kSZ, kTypeChiNextStock, 6, {"300", "301"}, 1},
      {kSZ, kTypeIndex, 6, {"399"}, 1},
      {kSZ, kTypeEtf, 6, {"159"}, 1},
      {kSZ, kTypeBond, 6, {"12"}, 1},
      {kSZ, kTypeEtfOption, 8, {"9"}, 500},
  };
  for (uint8_t id : {kSH, kSZ}) {
    const Market& market = *Default().market(id);
    std::map<uint16_t, int> kinds;
    for (const Instrument& item : market.instruments) {
      const CodeRule* rule = nullptr;
      for (const CodeRule& r : rules) {
        if (r.market == id && r.type == item.type_code) rule = &r;
      }
      ASSERT_NE(rule, nullptr) << "unexpected kind " << item.type_code << " of " << item.code;
      ++kinds[item.type_code];
      EXPECT_TRUE(AllDigits(item.code) && item.code.size() == rule->length) << item.code;
      EXPECT_TRUE(std::any_of(rule->prefixes.begin(), rule->prefixes.end(),
                              [&](const char* prefix) { return StartsWith(item.code, prefix); }))
          << item.code;
    }
    for (const CodeRule& r : rules) {
      if (r.market != id) continue;
      EXPECT_GE(kinds[r.type], r.at_least) << market.name << " kind " << r.type;
    }
  }
  int sz_shares = 0;
  for (const Instrument& item : Default().market(kSZ)->instruments) sz_shares += item.is_stock() ? 1 : 0;
  EXPECT_GE(sz_shares, 2800);
  EXPECT_LE(sz_shares, 3000);
  const Market& sh = *Default().market(kSH);
  EXPECT_GE(sh.instruments.size(), 4500u);
  EXPECT_LE(sh.instruments.size(), 5500u);
  EXPECT_EQ(Find(sh, "000001")->name, "上证指数");
  EXPECT_EQ(Find(sh, "600519")->name, "贵州茅台");
  EXPECT_EQ(Find(*Default().market(kSZ), "300750")->name, "宁德时代");
}

TEST(UniverseTest, FuturesCarryTheirProductAndContractMonth) {
  for (uint8_t id : {kSQ, kSN, kDL, kZZ, kZJ}) {
    const Market& market = *Default().market(id);
    std::set<std::string> contracts;
    for (const Instrument& item : market.instruments) {
      if (item.type_code == kTypeFuture) contracts.insert(item.code);
    }
    EXPECT_GT(contracts.size(), 10u) << market.name;
    int mains = 0;
    for (const Instrument& item : market.instruments) {
      auto [letters, digits] = SplitFuture(item.code);
      bool upper = std::isupper(static_cast<unsigned char>(letters[0])) != 0;
      EXPECT_EQ(upper, id == kZZ || id == kZJ) << item.code;
      if (item.type_code == kTypeFuture) {
        EXPECT_EQ(digits.size(), id == kZZ ? 3u : 4u) << item.code;
        EXPECT_TRUE(AllDigits(digits)) << item.code;
        EXPECT_EQ(item.volume_unit, 1) << item.code;
        continue;
      }
      ASSERT_EQ(item.type_code, kTypeContinuous) << item.code;
      // The library reads the contract behind a continuous code from the
      // name's last piece.
      EXPECT_LT(item.code.size(), 5u) << item.code;
      std::string contract = item.name.substr(item.name.rfind('-') + 1);
      EXPECT_EQ(contracts.count(contract), 1u) << item.code << " stands for " << contract;
      EXPECT_TRUE(StartsWith(contract, letters.c_str())) << item.code;
      EXPECT_TRUE(contract.size() == 5 || contract.size() == 6) << contract;
      EXPECT_TRUE(digits.empty() || digits == "00") << item.code;
      if (digits.empty()) ++mains;
    }
    EXPECT_GT(mains, 0) << market.name;
  }
  const Market& zj = *Default().market(kZJ);
  EXPECT_EQ(Find(zj, "IF")->name, "沪深主连-IF2612");
  EXPECT_EQ(Find(zj, "IF00")->name, "沪深近月-IF2612");
  EXPECT_NE(Find(*Default().market(kZZ), "SR701"), nullptr);
}

// Shares go by their short names, whole in the field; only index names
// with codes beyond five characters are cut inside a character (the library
// mends those).
TEST(UniverseTest, HongKongSharesHaveShortNamesAndTheirOwnBoardLots) {
  const Market& hk = *Default().market(kHK);
  Bytes reply = market_init_reply(hk);
  auto [head, items] = Parse<ApiMarketInitHead, ApiCodeInit>(reply, hk.instruments.size());
  int cut = 0;
  int stocks = 0;
  int small_lots = 0;
  const std::set<int> lots{50, 100, 200, 250, 400, 500, 1000, 2000, 2500, 4000, 5000, 10000, 20000};
  for (const ApiCodeInit& item : items) {
    std::string code(item.code);
    EXPECT_EQ(item.name[31], '\0') << code;
    if (CutInsideACharacter(item.name, sizeof(item.name))) {
      ++cut;
      EXPECT_GT(code.size(), 5u) << code;
    }
    if (item.type_code == kTypeHKStock) {
      ++stocks;
      EXPECT_TRUE(code.size() == 5 && AllDigits(code)) << code;
      EXPECT_LE(strnlen(item.name, sizeof(item.name)), 22u) << code;
      EXPECT_EQ(lots.count(+item.volume_unit), 1u) << code << " lot " << item.volume_unit;
      small_lots += item.volume_unit < 100 ? 1 : 0;
    }
  }
  EXPECT_GE(cut, 1);
  EXPECT_GT(stocks, 400);
  EXPECT_GT(small_lots, 0);
  EXPECT_EQ(Find(hk, "00700")->name, "腾讯控股");
  EXPECT_EQ(Find(hk, "00700")->volume_unit, 100);
  EXPECT_EQ(Find(hk, "00005")->volume_unit, 400);
  EXPECT_EQ(Find(hk, "09618")->volume_unit, 50);
  // A share keeps its lot whatever the seed, and when its market changes.
  Universe other(99, kToday);
  EXPECT_EQ(Find(*other.market(kHK), "00700")->volume_unit, 100);
  ASSERT_TRUE(other.change_market(kHK, kToday));
  for (const Instrument& item : hk.instruments) {
    const Instrument* again = Find(*other.market(kHK), item.code);
    if (again != nullptr && item.type_code == kTypeHKStock && again->pre_close_units == item.pre_close_units) {
      EXPECT_EQ(again->volume_unit, item.volume_unit) << item.code;
    }
  }
}

// ---- Prices, units and dates -------------------------------------------------------

TEST(UniverseTest, PricesSitOnTheirTickInsideTheirLimits) {
  int unit_zero = 0;
  for (const Market& market : Default().markets()) {
    for (const Instrument& item : market.instruments) {
      ASSERT_GT(item.pre_close_units, 0) << item.code;
      if (item.upper_units != 0) {
        EXPECT_LE(item.lower_units, item.pre_close_units) << item.code;
        EXPECT_GE(item.upper_units, item.pre_close_units) << item.code;
        EXPECT_GT(item.lower_units, 0) << item.code;
      }
      if (item.volume_unit == 0) ++unit_zero;
      EXPECT_TRUE(item.on_grid(item.pre_close_units)) << item.code;
      switch (item.type_code) {
        case kTypeMainStock:
        case kTypeSmeStock:
        case kTypeChiNextStock:
        case kTypeStarStock:
          EXPECT_EQ(item.price_digits, 2);
          EXPECT_EQ(item.volume_unit, 100);
          break;
        case kTypeEtf:
          EXPECT_EQ(item.price_digits, 3);
          break;
        case kTypeEtfOption:
          EXPECT_EQ(item.price_digits, 4);
          break;
        default:
          break;
      }
    }
  }
  EXPECT_GT(unit_zero, 0);
  EXPECT_DOUBLE_EQ(Find(*Default().market(kSQ), "rb")->tick(), 1.0);
  EXPECT_EQ(Find(*Default().market(kSQ), "cu")->tick_units, 10);
  EXPECT_DOUBLE_EQ(Find(*Default().market(kZJ), "IF2612")->tick(), 0.2);
  EXPECT_DOUBLE_EQ(Find(*Default().market(kZJ), "T")->tick(), 0.005);
  // Hong Kong's spread table: 0.5 from 500 to 1,000 HKD, 0.1 from 100 to 200.
  const Instrument& tencent = *Find(*Default().market(kHK), "00700");
  EXPECT_EQ(tencent.tick_at(625000), 500);
  EXPECT_EQ(tencent.tick_at(500000), 200);
  EXPECT_EQ(tencent.tick_above(500000), 500);
  EXPECT_EQ(tencent.tick_at(150000), 100);
  EXPECT_EQ(tencent.tick_at(240), 1);
  EXPECT_FALSE(tencent.on_grid(625488));
  // Turnover multipliers, and limits of the STAR and ChiNext funds.
  EXPECT_EQ(Find(*Default().market(kZJ), "IF2612")->multiplier, 300);
  EXPECT_EQ(Find(*Default().market(kZJ), "T2612")->multiplier, 10000);
  EXPECT_EQ(Find(*Default().market(kSQ), "cu2612")->multiplier, 5);
  EXPECT_EQ(Find(*Default().market(kSH), "600519")->multiplier, 1);
  EXPECT_EQ(Find(*Default().market(kSH), "588000")->limit_pm, 200);
  EXPECT_EQ(Find(*Default().market(kSZ), "159915")->limit_pm, 200);
  EXPECT_EQ(Find(*Default().market(kSZ), "159919")->limit_pm, 100);
  for (const Instrument& item : Default().market(kSH)->instruments) {
    if (item.type_code == kTypeEtfOption) {
      EXPECT_EQ(item.multiplier, 10000) << item.code;
    }
    if (item.type_code == kTypeStarStock) {
      EXPECT_EQ(item.min_order() * 1000 + item.order_step(), 200001) << item.code;
    }
  }
}

TEST(UniverseTest, ListingDatesAreTradingDaysUpToTheTradingDay) {
  for (const Market& market : Default().markets()) {
    EXPECT_EQ(market.trade_date, kToday);
    for (const Instrument& item : market.instruments) {
      auto date = static_cast<int32_t>(item.list_date);
      EXPECT_LE(date, kToday) << item.code;
      EXPECT_GE(date, 19690101) << item.code;
      EXPECT_FALSE(is_weekend(date)) << item.code << " " << date;
      if (date >= kFirstHolidayYear * 10000 + 101) {
        EXPECT_TRUE(is_trading_day(date)) << item.code << " " << date;
      }
    }
  }
  EXPECT_EQ(Default().market(kSQ)->night_date, 20261120);  // the Friday evening before
  EXPECT_EQ(Default().market(kZJ)->night_date, 0);
}

TEST(UniverseTest, ChangingAMarketRenewsItsChecksumAndItsData) {
  Universe universe(Universe::kDefaultSeed, kToday);
  Market before = *universe.market(kSH);
  uint32_t sz_checksum = universe.market(kSZ)->checksum;
  ASSERT_TRUE(universe.change_market(kSH, kToday));
  const Market& after = *universe.market(kSH);
  EXPECT_NE(after.checksum, before.checksum);
  EXPECT_NE(after.checksum, 0u);
  EXPECT_EQ(after.trade_date, kToday);
  EXPECT_EQ(after.instruments.size(), before.instruments.size() + 1);
  const Instrument* listed = Find(after, "688801");
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(listed->name[0], 'N');
  EXPECT_NE(market_init_reply(after), market_init_reply(before));
  EXPECT_EQ(universe.market(kSZ)->checksum, sz_checksum);
  EXPECT_FALSE(universe.change_market(3, kToday));

  // The same changes give the same market; a new day moves the trading day.
  Universe again(Universe::kDefaultSeed, kToday);
  again.change_market(kSH, kToday);
  EXPECT_EQ(market_init_reply(*again.market(kSH)), market_init_reply(after));
  ASSERT_TRUE(again.change_market(kSQ, 20261124));
  EXPECT_EQ(again.market(kSQ)->trade_date, 20261124);
  EXPECT_EQ(again.market(kSQ)->night_date, kToday);
}

TEST(UniverseTest, HongKongRatesCoverEveryConnectTradingDay) {
  std::vector<HKRate> rates = Default().hk_rates(0, 99991231);
  ASSERT_FALSE(rates.empty());
  EXPECT_EQ(rates.front().date, Universe::kHKConnectStart);
  EXPECT_EQ(rates.back().date, kToday);
  for (const HKRate& rate : rates) {
    EXPECT_TRUE(is_trading_day(rate.date)) << rate.date;
    EXPECT_GT(rate.rate_a, 0.89f);
    EXPECT_LT(rate.rate_b, 0.94f);
    EXPECT_LT(rate.rate_a, rate.rate_b);
  }
  EXPECT_EQ(Default().hk_rates(20240101, 20240131).size(), 22u);
  EXPECT_EQ(rates.size(), connect_days(Universe::kHKConnectStart, kToday).size());
  // The connect closes on Hong Kong's holidays, while Shanghai trades.
  for (int32_t day : {20241225, 20241226, 20250418, 20250421, 20240701, 20231023}) {
    EXPECT_TRUE(is_trading_day(day)) << day;
    EXPECT_FALSE(is_connect_day(day)) << day;
    EXPECT_TRUE(Default().hk_rates(day, day).empty()) << day;
  }
  EXPECT_TRUE(is_connect_day(20241224));
  Universe christmas(Universe::kDefaultSeed, 20241225);
  EXPECT_EQ(christmas.market(kSH)->trade_date, 20241225);
  EXPECT_EQ(christmas.market(kHK)->trade_date, 20241224);
}

TEST(UniverseTest, NewIssuesUseCodesNotYetListed) {
  const auto& issues = Default().new_issues();
  ASSERT_GE(issues.size(), 4u);
  for (const NewIssue& issue : issues) {
    const Market& market = *Default().market(issue.market_id);
    EXPECT_EQ(Find(market, issue.code), nullptr) << issue.code;
    EXPECT_EQ(issue.purchase_code.size(), 6u);
    if (StartsWith(issue.code, "688")) {
      EXPECT_EQ(issue.board, "科创板");
      EXPECT_TRUE(StartsWith(issue.purchase_code, "787")) << issue.purchase_code;
    }
    EXPECT_TRUE(is_trading_day(issue.issue_date)) << issue.issue_date;
    EXPECT_TRUE(issue.listing_date == 0 || issue.listing_date > kToday);
  }
}

// ---- Calendar ----------------------------------------------------------------------

TEST(CalendarTest, DatesAndWeekdays) {
  EXPECT_EQ(days_from_date(19700101), 0);
  EXPECT_EQ(add_days(20241231, 1), 20250101);
  EXPECT_EQ(add_days(20240301, -1), 20240229);
  EXPECT_EQ(add_days(19991231, 1), 20000101);
  EXPECT_EQ(weekday(kToday), 1);
  EXPECT_EQ(weekday(19901219), 3);
  for (int64_t day = days_from_date(19900101); day < days_from_date(20300101); day += 37) {
    EXPECT_EQ(days_from_date(date_from_days(day)), day);
  }
}

TEST(CalendarTest, NationalDayWeekOf2024IsClosed) {
  for (int32_t day = 20241001; day <= 20241007; ++day) {
    EXPECT_TRUE(is_holiday(day)) << day;
    EXPECT_FALSE(is_trading_day(day)) << day;
  }
  EXPECT_TRUE(is_trading_day(20240930));
  EXPECT_TRUE(is_trading_day(20241008));
  EXPECT_EQ(trading_day_on_or_before(20241005), 20240930);
  EXPECT_EQ(next_trading_day(20240930), 20241008);
  EXPECT_EQ(previous_trading_day(20241008), 20240930);
  // Before 2014: the Spring Festival and National Day closures at least.
  for (int32_t day : {20130211, 20130215, 20121005, 20100922, 20081001, 20080207, 20050210, 20011005}) {
    EXPECT_FALSE(is_trading_day(day)) << day;
  }
  for (int32_t day : {20130218, 20121008, 20081006}) EXPECT_TRUE(is_trading_day(day)) << day;
}

// ---- Replies -----------------------------------------------------------------------

void ExpectAdapterSize(const Bytes& reply, const CopyRule& rule, const std::string& what) {
  ASSERT_GE(reply.size(), rule.head) << what;
  if (rule.elem == 0 || CountOf(reply.data(), rule) > 0) {
    EXPECT_EQ(reply.size(), AdapterSize(reply.data(), rule)) << what;
  }
}

TEST(RepliesTest, EveryReplyHoldsWhatTheAdapterCopies) {
  const Universe& u = Default();
  for (const Market& market : u.markets()) {
    ExpectAdapterSize(market_status_reply(market, false), kStatusRule, market.name + " status");
    ExpectAdapterSize(market_init_reply(market), kInitRule, market.name + " init");
    ExpectAdapterSize(other_base_reply(market), kOtherBaseRule, market.name + " other base");
    ExpectAdapterSize(ref_info_reply(market), kRefInfoRule, market.name + " reference");
    ExpectAdapterSize(latest_share_reply(market), kLatestShareRule, market.name + " share capital");
  }
  ExpectAdapterSize(shared_fields_reply(1, 0.9f), kSharedFieldsRule, "shared fields");
  ExpectAdapterSize(new_issue_reply(u.new_issues()), kNewIssueRule, "new issues");
  ExpectAdapterSize(new_issue_reply({}), kNewIssueRule, "no new issue");
  ExpectAdapterSize(holiday_reply(2, exchange_holidays()), kHolidayRule, "holidays");
  ExpectAdapterSize(hk_rate_reply(0, 20141117, kToday, u.hk_rates(0, kToday)), kHKRateRule, "rates");
  ExpectAdapterSize(hk_rate_reply(0, 20300101, 20300102, {}), kHKRateRule, "no rate");
  EXPECT_EQ(CountOf(other_base_reply(*u.market(kSH)).data(), kOtherBaseRule),
            static_cast<int32_t>(u.market(kSH)->instruments.size()));
  EXPECT_EQ(CountOf(other_base_reply(*u.market(kSQ)).data(), kOtherBaseRule), 0);
}

TEST(RepliesTest, InitReplyCarriesTheHeadAndEveryInstrument) {
  const Market& sh = *Default().market(kSH);
  Bytes reply = market_init_reply(sh);
  auto [head, items] = Parse<ApiMarketInitHead, ApiCodeInit>(reply, sh.instruments.size());
  EXPECT_EQ(+head.market_id, kSH);
  EXPECT_STREQ(head.market_desc, "上海证券交易所");
  EXPECT_EQ(+head.trade_date, kToday);
  EXPECT_EQ(+head.code_count, sh.instruments.size());
  EXPECT_STREQ(items[0].code, "000001");
  EXPECT_STREQ(items[0].name, "上证指数");
  EXPECT_EQ(+items[0].volume_unit, 0);
  const Instrument& moutai = *Find(sh, "600519");
  auto it = std::find_if(items.begin(), items.end(), [](const ApiCodeInit& i) { return std::strcmp(i.code, "600519") == 0; });
  ASSERT_NE(it, items.end());
  EXPECT_EQ(it->price_digits, 2);
  EXPECT_EQ(+it->volume_unit, 100);
  EXPECT_EQ(+it->list_date, 20010827u);
  EXPECT_FLOAT_EQ(+it->pre_close, static_cast<float>(moutai.pre_close()));
  EXPECT_FLOAT_EQ(+it->eps, static_cast<float>(moutai.eps));
}

TEST(RepliesTest, TextIsCutToLeaveItsTerminatingNul) {
  char field[8];
  put_text(field, std::string("ABCDEFGHIJ"));
  EXPECT_STREQ(field, "ABCDEFG");
  put_text(field, std::string("AB"));
  EXPECT_EQ(std::string(field, sizeof(field)), std::string("AB\0\0\0\0\0\0", 8));
}

}  // namespace
}  // namespace sim
