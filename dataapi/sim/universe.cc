// Generation of the market universe. Texts are GBK: this file is compiled
// with the GBK execution character set.
#include "dataapi/sim/universe.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <utility>

#include "dataapi/sim/calendar.h"

namespace sim {

namespace {

// splitmix64: neighbouring seeds and ids give unrelated streams.
uint64_t Mix(uint64_t a, uint64_t b) {
  uint64_t z = a + 0x9E3779B97F4A7C15ULL * (b + 1);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

// Draws from the raw output of mt19937_64, whose sequence the standard fixes.
// The standard distributions differ between libraries and are not used.
class Rng {
 public:
  explicit Rng(uint64_t seed) : engine_(seed) {}
  // 0 .. n-1; the modulo bias is far below anything the data shows.
  uint64_t below(uint64_t n) { return n == 0 ? 0 : engine_() % n; }
  // lo .. hi, both included.
  int64_t range(int64_t lo, int64_t hi) {
    return lo + static_cast<int64_t>(below(static_cast<uint64_t>(hi - lo) + 1));
  }
  // [0, 1) from 53 bits: exact, so every platform computes the same.
  double unit() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }
  bool chance(int per_mille) { return below(1000) < static_cast<uint64_t>(per_mille); }
  // lo .. hi, crowded towards lo: a power of a uniform draw.
  int64_t skewed(int64_t lo, int64_t hi, int power) {
    double u = unit();
    double f = 1;
    for (int i = 0; i < power; ++i) f *= u;
    return lo + static_cast<int64_t>(f * static_cast<double>(hi - lo));
  }
  template <typename T, size_t N>
  const T& pick(const T (&items)[N]) {
    return items[below(N)];
  }

 private:
  std::mt19937_64 engine_;
};

struct Span {
  int64_t lo;
  int64_t hi;  // included
};

// count values of the spans, ascending, each equally likely to be chosen.
std::vector<int64_t> Sample(Rng& rng, const std::vector<Span>& spans, int64_t count) {
  int64_t left = 0;
  for (const Span& span : spans) left += span.hi - span.lo + 1;
  int64_t needed = std::min(count, left);
  std::vector<int64_t> chosen;
  chosen.reserve(static_cast<size_t>(needed));
  for (const Span& span : spans) {
    for (int64_t v = span.lo; v <= span.hi && needed > 0; ++v, --left) {
      if (static_cast<int64_t>(rng.below(static_cast<uint64_t>(left))) < needed) {
        chosen.push_back(v);
        --needed;
      }
    }
  }
  return chosen;
}

std::string Padded(int64_t value, size_t width) {
  std::string text = std::to_string(value);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

int64_t Pow10(int digits) {
  int64_t value = 1;
  for (int i = 0; i < digits; ++i) value *= 10;
  return value;
}

// yyyymm arithmetic.
int32_t AddMonths(int32_t yyyymm, int months) {
  int total = yyyymm / 100 * 12 + (yyyymm % 100 - 1) + months;
  return (total / 12) * 100 + total % 12 + 1;
}

int MonthsBetween(int32_t from_yyyymm, int32_t to_yyyymm) {
  return (to_yyyymm / 100 - from_yyyymm / 100) * 12 + (to_yyyymm % 100 - from_yyyymm % 100);
}

// The n-th (1-based) given weekday of a month.
int32_t NthWeekday(int32_t yyyymm, int wday, int n) {
  int32_t first = yyyymm * 100 + 1;
  int offset = (wday - weekday(first) + 7) % 7;
  return add_days(first, offset + 7 * (n - 1));
}

// A date a fraction num/den of the way from first to last.
int32_t DateBetween(int32_t first, int32_t last, int64_t num, int64_t den) {
  int64_t a = days_from_date(first);
  int64_t b = days_from_date(last);
  if (den <= 0 || b <= a) return first;
  return date_from_days(a + (b - a) * num / den);
}

// A listing date: on a trading day (weekends at least, before the holiday
// list starts), never after the trading day.
int32_t ListingDay(int32_t date, int32_t floor, int32_t trade_date) {
  date = std::clamp(date, floor, trade_date);
  return trading_day_on_or_before(date);
}

// ---- Names -----------------------------------------------------------------

// Places and brands, then trades: two characters each.
const char* const kPrefixes[] = {
    "华信", "中科", "东方", "南方", "海天", "金山", "天润", "恒瑞", "盛达", "新城", "长城", "宏达", "国泰", "兴业",
    "瑞丰", "德赛", "安科", "信达", "永鼎", "万通", "光明", "大华", "博实", "精工", "金龙", "银河", "鹏博", "汇川",
    "正泰", "洪城", "江南", "西部", "北方", "中原", "湘江", "川能", "粤桥", "闽发", "浙数", "苏美", "皖通", "鲁阳",
    "冀东", "晋控", "豫能", "鄂武", "赣锋", "桂冠", "黔源", "滇红", "渝开", "陕建", "甘咨", "青松", "宁科", "新天",
    "蒙草", "辽港", "吉电", "龙江", "沪工", "京能", "津投", "深赛", "杭氧", "宁波", "温州", "厦工", "泉峰", "佛塑",
    "珠江", "汕电", "南京", "苏州", "无锡", "常州", "扬农", "合肥", "芜湖", "宜宾", "泸天", "绵阳", "德阳", "柳工",
    "湘潭", "株冶", "岳阳", "三峡", "葛洲", "昆药", "贵航", "山鹰", "泰山", "黄河", "长江", "珠峰", "天山", "昆仑",
    "海南", "东吴", "华东", "华北", "华南", "西南", "东北", "中航", "中电", "中船", "中铁", "中建", "中冶", "中化",
    "中粮", "中信", "招商", "保利", "华润", "华侨", "康恩", "美好", "福耀", "恒生", "博瑞", "卓越", "凯盛", "远望",
    "天健", "启明", "云海", "星湖", "金科", "银星", "腾达", "嘉应", "振华", "同方", "紫光", "航天", "北斗", "太阳",
};
const char* const kTrades[] = {
    "科技", "股份", "电子", "药业", "能源", "材料", "智能", "电气", "化工", "重工", "汽车", "食品", "传媒", "环保",
    "生物", "医疗", "光电", "通信", "软件", "信息", "建设", "机械", "物流", "农业", "纺织", "钢铁", "矿业", "置业",
    "电力", "水务", "燃气", "港口", "航空", "机电", "精密", "装备", "新材", "微电", "半导", "控股", "集团", "实业",
    "发展", "创新", "数据", "网络", "文化", "旅游", "酒业", "乳业", "制药", "医药", "健康", "环境", "能科", "储能",
    "光伏", "风电", "锂业", "稀土", "黄金", "铝业", "铜业", "建材", "家居", "电器", "照明", "包装", "印刷", "教育",
    "体育", "新能", "动力", "车业", "船舶", "科创", "电缆", "仪器", "工具", "模具", "陶瓷", "玻璃", "造纸", "航电",
};
const char* const kThemes[] = {
    "医疗", "医药", "消费", "证券", "银行", "保险", "军工", "半导体", "芯片", "光伏", "新能源", "有色", "煤炭",
    "钢铁", "传媒", "游戏", "通信", "计算机", "人工智能", "机器人", "红利", "低波", "价值", "成长", "科技", "创新药",
    "生物科技", "养殖", "农业", "酒", "食品", "家电", "汽车", "电池", "稀土", "黄金", "恒生", "港股通", "纳指",
    "标普", "日经", "中概互联", "国债", "地产", "基建", "环保", "电力", "化工", "央企", "国企", "中证500", "中证1000",
    "沪深300", "上证50", "科创100", "创业板", "云计算", "大数据", "物联网", "储能", "电网", "机床", "航天", "卫星",
};
const char* const kFundHouses[] = {
    "华夏", "易方达", "南方", "嘉实", "广发", "华宝", "国泰", "富国", "招商", "天弘", "博时", "汇添富", "银华",
    "华安", "鹏华", "工银", "建信", "景顺", "平安", "永赢", "万家", "大成", "国联安", "华泰柏瑞", "浦银", "兴全",
};
const char* const kIndexThemes[] = {
    "医药", "消费", "金融", "能源", "材料", "工业", "信息", "电信", "公用", "地产", "红利", "价值", "成长", "治理",
    "央企", "民企", "国企", "基建", "环保", "新能", "军工", "传媒", "农业", "汽车", "电子", "通信", "半导", "芯片",
    "光伏", "锂电", "稀土", "煤炭", "有色", "钢铁", "银行", "证券", "保险", "酒类", "食品", "家电", "医疗", "生物",
    "创新", "科技", "周期", "质量", "低波", "动量", "等权", "大宗",
};
const char* const kHKTags[] = {"－Ｗ", "－ＳＷ", "－Ｓ", "－Ｂ"};
// Short names of Hong Kong shares end in a form now and then.
const char* const kHKForms[] = {"控股", "集团", "国际", "集团控股"};

// Names handed out in one market, each once.
class Names {
 public:
  explicit Names(Rng& rng) : rng_(rng) {}

  bool claim(const std::string& name) { return used_.insert(name).second; }

  // A company: a place or brand and a trade.
  std::string company() {
    for (int attempt = 0; attempt < 64; ++attempt) {
      std::string name = std::string(rng_.pick(kPrefixes)) + rng_.pick(kTrades);
      if (claim(name)) return name;
    }
    for (int attempt = 0; attempt < 64; ++attempt) {
      std::string name = std::string(rng_.pick(kPrefixes)) + rng_.pick(kPrefixes) + rng_.pick(kTrades);
      if (claim(name)) return name;
    }
    return std::string(rng_.pick(kPrefixes)) + rng_.pick(kTrades);
  }

  // An exchange-traded fund: a theme, and the fund house when the theme is taken.
  std::string fund() {
    for (int attempt = 0; attempt < 64; ++attempt) {
      std::string name = std::string(rng_.pick(kThemes)) + "ETF";
      if (attempt > 0 || rng_.chance(500)) name += rng_.pick(kFundHouses);
      if (claim(name)) return name;
    }
    return std::string(rng_.pick(kThemes)) + "ETF" + rng_.pick(kFundHouses) + rng_.pick(kFundHouses);
  }

  // An index of one of the publishers.
  std::string index(const std::vector<const char*>& publishers) {
    for (int attempt = 0; attempt < 64; ++attempt) {
      std::string name = std::string(publishers[rng_.below(publishers.size())]) + rng_.pick(kIndexThemes);
      if (claim(name)) return name;
    }
    return std::string(publishers[0]) + rng_.pick(kIndexThemes) + rng_.pick(kIndexThemes);
  }

 private:
  Rng& rng_;
  std::set<std::string> used_;
};

// ---- Prices ----------------------------------------------------------------

int64_t FloorToTick(int64_t units, int64_t tick) { return units / tick * tick; }
int64_t CeilToTick(int64_t units, int64_t tick) { return (units + tick - 1) / tick * tick; }

// Limits per mille of the reference close, rounded half up to the tick as
// the exchanges round them, inside the band.
void SetLimits(Instrument& item, int limit_pm) {
  item.limit_pm = static_cast<int16_t>(limit_pm);
  if (limit_pm <= 0) {
    item.upper_units = item.lower_units = 0;
    return;
  }
  int64_t up = (item.pre_close_units * (1000 + limit_pm) + 500) / 1000;
  int64_t down = (item.pre_close_units * (1000 - limit_pm) + 500) / 1000;
  item.upper_units = FloorToTick(up, item.tick_units);
  item.lower_units = std::max(item.tick_units, CeilToTick(down, item.tick_units));
}

// Funds on STAR or ChiNext indices move 20% a day, the others 10%.
int FundLimit(const Instrument& item) {
  bool growth = item.code.rfind("588", 0) == 0 || item.name.find("创业板") != std::string::npos ||
                item.name.find("科创") != std::string::npos;
  return growth ? 200 : 100;
}

// Earnings per share to four decimals: a loss now and then, else an
// earnings yield of 0.8% to 20% of the price, mostly at the low end
// (price_units of 10^-digits).
double Earnings(Rng& rng, int64_t price_units, int digits) {
  if (rng.chance(120)) return -static_cast<double>(rng.range(10, 8000)) / 10000.0;
  int64_t eps = price_units * rng.skewed(8, 200, 2) * Pow10(4) / (Pow10(digits) * 1000);
  return static_cast<double>(eps) / 10000.0;
}

// ---- Market building ---------------------------------------------------------

using Table = std::map<std::string, Instrument>;

struct Famous {
  const char* code;
  const char* name;
  int64_t price_units;
  int32_t list_date;
};

class MarketBuilder {
 public:
  MarketBuilder(uint64_t seed, uint8_t id, int32_t trade_date)
      : rng_(Mix(seed, id)), names_(rng_), trade_date_(trade_date), month_(trade_date / 100) {}

  Table build(uint8_t id);

 private:
  struct StockSegment {
    std::vector<Span> codes;
    int64_t count;
    uint16_t type;
    uint8_t board;
    int limit_pm;
    int32_t first_listing;
    int32_t last_listing;
    int64_t price_lo;  // units of 0.01
    int64_t price_hi;
  };

  Instrument base(const std::string& code, const std::string& name, uint16_t type, int digits);
  void claim(const std::vector<Famous>& list);
  void stocks(const StockSegment& segment);
  void famous_stocks(const std::vector<Famous>& list);
  void new_listing(const char* code_prefix);
  void indices(int64_t lo, int64_t hi, int64_t count, const std::vector<const char*>& publishers,
               const std::vector<Famous>& famous);
  void funds(const std::vector<Span>& spans, int64_t count, const std::vector<Famous>& famous);
  void bonds(const std::vector<Span>& spans, int64_t count);
  void options(int64_t first_code, const std::vector<Famous>& underlyings);
  void futures(uint8_t market_id);
  void hong_kong();

  Rng rng_;
  Names names_;
  int32_t trade_date_;
  int32_t month_;  // yyyymm of the trading day
  Table table_;
};

Instrument MarketBuilder::base(const std::string& code, const std::string& name, uint16_t type, int digits) {
  Instrument item;
  item.code = code;
  item.name = name;
  item.type_code = type;
  item.price_digits = static_cast<uint8_t>(digits);
  item.tick_units = 1;
  return item;
}

// Famous names are claimed first, so that no generated share takes one.
void MarketBuilder::claim(const std::vector<Famous>& list) {
  for (const Famous& f : list) names_.claim(f.name);
}

void MarketBuilder::stocks(const StockSegment& segment) {
  std::vector<int64_t> codes = Sample(rng_, segment.codes, segment.count);
  int32_t last_listing = std::min(segment.last_listing, trade_date_);
  for (size_t i = 0; i < codes.size(); ++i) {
    std::string code = Padded(codes[i], 6);
    Instrument item = base(code, names_.company(), segment.type, 2);
    item.board = segment.board;
    item.volume_unit = 100;
    // Codes are handed out in order of listing, give or take.
    int32_t listed = DateBetween(segment.first_listing, last_listing, static_cast<int64_t>(i), codes.size());
    item.list_date = static_cast<uint32_t>(
        ListingDay(add_days(listed, rng_.range(-90, 90)), segment.first_listing, trade_date_));
    item.pre_close_units = rng_.skewed(segment.price_lo, segment.price_hi, 3);
    item.eps = Earnings(rng_, item.pre_close_units, 2);
    int limit_pm = segment.limit_pm;
    if (segment.board != kBoardStar && segment.board != kBoardChiNext && rng_.chance(40)) {
      item.st = true;
      item.code_flag |= kFlagSpecialTreatment;
      item.name = (rng_.chance(500) ? "*ST" : "ST") + item.name;
      item.eps = -static_cast<double>(rng_.range(100, 15000)) / 10000.0;
      item.pre_close_units = rng_.range(100, 600);
      limit_pm = 50;
    }
    int64_t age = days_from_date(trade_date_) - days_from_date(static_cast<int32_t>(item.list_date));
    item.margin = age > 180 && !item.st && rng_.chance(700);
    item.short_sell = item.margin && rng_.chance(950);
    item.connect = age > 365 && !item.st && rng_.chance(450);
    item.suspended = rng_.chance(5);
    if (item.suspended) item.code_flag |= kFlagSuspended;
    int64_t total = rng_.skewed(segment.board == kBoardStar ? 4000 : 10000, 5000000, 3) * 10000;
    item.total_shares = total;
    item.float_shares = total / 1000 * rng_.range(300, 1000) / 100 * 100;
    item.net_assets_per_share = static_cast<double>(rng_.range(50, 2500)) / 100.0;
    SetLimits(item, limit_pm);
    table_[code] = std::move(item);
  }
}

// Famous shares replace whatever the segments put on their codes.
void MarketBuilder::famous_stocks(const std::vector<Famous>& list) {
  for (const Famous& f : list) {
    std::string code = f.code;
    uint16_t type = kTypeMainStock;
    uint8_t board = kBoardMain;
    int limit_pm = 100;
    if (code.rfind("688", 0) == 0) {
      type = kTypeStarStock;
      board = kBoardStar;
      limit_pm = 200;
    } else if (code.rfind("30", 0) == 0) {
      type = kTypeChiNextStock;
      board = kBoardChiNext;
      limit_pm = 200;
    }
    Instrument item = base(code, f.name, type, 2);
    item.board = board;
    item.volume_unit = 100;
    item.list_date = static_cast<uint32_t>(f.list_date);
    item.pre_close_units = f.price_units * rng_.range(920, 1080) / 1000;
    item.eps = Earnings(rng_, item.pre_close_units, 2);
    item.margin = item.short_sell = item.connect = true;
    item.total_shares = rng_.range(100000, 20000000) * 10000;
    item.float_shares = item.total_shares / 1000 * rng_.range(700, 1000);
    item.net_assets_per_share = static_cast<double>(rng_.range(300, 3000)) / 100.0;
    SetLimits(item, limit_pm);
    table_[code] = std::move(item);
  }
}

// The segment's latest code lists today: its name carries the N of a first
// trading day, and the first day has no price limit.
void MarketBuilder::new_listing(const char* code_prefix) {
  Instrument* latest = nullptr;
  for (auto& [code, item] : table_) {
    if (code.rfind(code_prefix, 0) == 0 && item.is_stock()) latest = &item;
  }
  if (latest == nullptr) return;
  latest->list_date = static_cast<uint32_t>(trade_date_);
  latest->name = "N" + latest->name;
  latest->code_flag = kFlagNewListing;
  latest->st = latest->suspended = latest->margin = latest->short_sell = latest->connect = false;
  latest->float_shares = latest->total_shares / 10;
  SetLimits(*latest, 0);
}

void MarketBuilder::indices(int64_t lo, int64_t hi, int64_t count, const std::vector<const char*>& publishers,
                            const std::vector<Famous>& famous) {
  claim(famous);
  for (int64_t value : Sample(rng_, {{lo, hi}}, count)) {
    std::string code = Padded(value, 6);
    Instrument item = base(code, names_.index(publishers), kTypeIndex, 2);
    item.volume_unit = 0;  // an index has no lot
    item.list_date = static_cast<uint32_t>(ListingDay(
        DateBetween(20040101, 20221230, rng_.range(0, 1000), 1000), 19901219, trade_date_));
    item.pre_close_units = rng_.range(100000, 900000);
    table_[code] = std::move(item);
  }
  for (const Famous& f : famous) {
    Instrument item = base(f.code, f.name, kTypeIndex, 2);
    item.volume_unit = 0;
    item.list_date = static_cast<uint32_t>(f.list_date);
    item.pre_close_units = f.price_units * rng_.range(950, 1050) / 1000;
    table_[f.code] = std::move(item);
  }
}

void MarketBuilder::funds(const std::vector<Span>& spans, int64_t count, const std::vector<Famous>& famous) {
  claim(famous);
  for (int64_t value : Sample(rng_, spans, count)) {
    std::string code = Padded(value, 6);
    Instrument item = base(code, names_.fund(), kTypeEtf, 3);
    item.board = kBoardFund;
    item.volume_unit = 100;
    item.list_date = static_cast<uint32_t>(
        ListingDay(DateBetween(20050223, trade_date_, rng_.range(0, 1000), 1000), 20050223, trade_date_));
    item.pre_close_units = rng_.skewed(400, 6000, 2);
    item.margin = rng_.chance(300);
    item.short_sell = item.margin;
    SetLimits(item, FundLimit(item));
    table_[code] = std::move(item);
  }
  for (const Famous& f : famous) {
    Instrument item = base(f.code, f.name, kTypeEtf, 3);
    item.board = kBoardFund;
    item.volume_unit = 100;
    item.list_date = static_cast<uint32_t>(f.list_date);
    item.pre_close_units = f.price_units * rng_.range(950, 1050) / 1000;
    item.margin = item.short_sell = true;
    SetLimits(item, FundLimit(item));
    table_[f.code] = std::move(item);
  }
}

// Convertible bonds, named after a stock of the market as the issuers name them.
void MarketBuilder::bonds(const std::vector<Span>& spans, int64_t count) {
  std::vector<const Instrument*> issuers;
  for (const auto& [code, item] : table_) {
    if (item.is_stock() && !item.st && (item.code_flag & kFlagNewListing) == 0) issuers.push_back(&item);
  }
  if (issuers.empty()) return;
  for (int64_t value : Sample(rng_, spans, count)) {
    std::string code = Padded(value, 6);
    const Instrument* issuer = issuers[rng_.below(issuers.size())];
    std::string stem = issuer->name.substr(0, 4);
    std::string name = stem + "转债";
    if (!names_.claim(name)) {
      name = stem + "转2";
      names_.claim(name);
    }
    Instrument item = base(code, name, kTypeBond, 3);
    item.board = kBoardBond;
    item.volume_unit = 10;
    item.list_date = static_cast<uint32_t>(
        ListingDay(DateBetween(20180101, trade_date_, rng_.range(0, 1000), 1000), 20180101, trade_date_));
    item.pre_close_units = rng_.skewed(100000, 260000, 3);
    SetLimits(item, 200);
    table_[code] = std::move(item);
  }
}

// Monthly options on exchange-traded funds: the current and next months and
// the two quarterly months after them, strikes around the fund's price.
void MarketBuilder::options(int64_t first_code, const std::vector<Famous>& underlyings) {
  int32_t month = month_;
  if (trade_date_ > NthWeekday(month, 3, 4)) month = AddMonths(month, 1);  // expired on the fourth Wednesday
  std::vector<int32_t> expiries{month, AddMonths(month, 1)};
  for (int32_t m = AddMonths(month, 2); expiries.size() < 4; m = AddMonths(m, 1)) {
    if (m % 100 % 3 == 0) expiries.push_back(m);
  }
  int64_t code = first_code;
  for (const Famous& underlying : underlyings) {
    auto it = table_.find(underlying.code);
    if (it == table_.end()) continue;
    int64_t spot = it->second.pre_close_units;  // 0.001
    int64_t step = spot < 3000 ? 50 : spot < 5000 ? 100 : spot < 10000 ? 250 : 500;
    int64_t centre = (spot + step / 2) / step * step;
    for (int32_t expiry : expiries) {
      int ahead = MonthsBetween(month_, expiry);
      int32_t listed = ListingDay(AddMonths(expiry, ahead < 2 ? -2 : -8) * 100 + 24, 20150209, trade_date_);
      for (int put = 0; put < 2; ++put) {
        for (int i = -12; i < 12; ++i) {
          int64_t strike = centre + i * step;
          if (strike <= 0) continue;
          std::string name = std::string(underlying.name) + (put != 0 ? "沽" : "购") +
                             std::to_string(expiry % 100) + "月" + std::to_string(strike);
          Instrument item = base(std::to_string(code++), name, kTypeEtfOption, 4);
          item.board = kBoardOption;
          item.volume_unit = 1;
          item.multiplier = 10000;  // fund units per contract
          item.list_date = static_cast<uint32_t>(listed);
          // Premium in 0.0001: intrinsic value and a time value that fades
          // with the distance from the money.
          int64_t s = spot * 10;
          int64_t k = strike * 10;
          int64_t intrinsic = std::max<int64_t>(0, put != 0 ? k - s : s - k);
          int64_t distance = s > k ? s - k : k - s;
          int64_t time_value = s * (ahead + 1) * 2 * s / (100 * (s + 20 * distance));
          item.pre_close_units = std::max<int64_t>(1, intrinsic + time_value + rng_.range(0, time_value / 10 + 1));
          item.upper_units = item.pre_close_units + s / 10;
          item.lower_units = std::max<int64_t>(1, item.pre_close_units - s / 10);
          table_[item.code] = std::move(item);
        }
      }
    }
  }
}

// ---- Futures -----------------------------------------------------------------

struct Product {
  uint8_t market;
  const char* code;
  const char* name;   // stem of the contracts' names
  const char* brief;  // stem of the continuous contracts' names
  int digits;
  int64_t tick_units;
  int64_t price_units;  // typical price
  int limit_pm;
  uint16_t months;      // bit m-1: month m is listed
  uint16_t main_months; // months whose contract becomes the main one
  int kind;             // 0 commodity, 1 equity index, 2 treasury bond
  int32_t launch;
  int64_t multiplier;   // contract size: units of the price per lot
};

constexpr uint16_t kAll = 0xFFF;
constexpr uint16_t kOdd = 0x555;                   // 1 3 5 7 9 11
constexpr uint16_t kSoy = kOdd | (1 << 7) | (1 << 11);  // and 8 12
constexpr uint16_t kEven = 0xAAA;
constexpr uint16_t kMain159 = (1 << 0) | (1 << 4) | (1 << 8);
constexpr uint16_t kMain1510 = (1 << 0) | (1 << 4) | (1 << 9);

const Product kProducts[] = {
    {kSQ, "cu", "沪铜", "沪铜", 0, 10, 78000, 80, kAll, kAll, 0, 19931001, 5},
    {kSQ, "al", "沪铝", "沪铝", 0, 5, 20500, 70, kAll, kAll, 0, 19950417, 5},
    {kSQ, "zn", "沪锌", "沪锌", 0, 5, 22500, 80, kAll, kAll, 0, 20070326, 5},
    {kSQ, "pb", "沪铅", "沪铅", 0, 5, 17000, 80, kAll, kAll, 0, 20110324, 5},
    {kSQ, "ni", "沪镍", "沪镍", 0, 10, 125000, 100, kAll, kAll, 0, 20150327, 1},
    {kSQ, "sn", "沪锡", "沪锡", 0, 10, 260000, 100, kAll, kAll, 0, 20150327, 1},
    {kSQ, "au", "沪金", "沪金", 2, 2, 90000, 100, kAll, kEven, 0, 20080109, 1000},
    {kSQ, "ag", "沪银", "沪银", 0, 1, 9800, 100, kAll, kEven, 0, 20120510, 15},
    {kSQ, "rb", "螺纹钢", "螺纹", 0, 1, 3200, 70, kAll, kMain1510, 0, 20090327, 10},
    {kSQ, "hc", "热轧卷板", "热卷", 0, 1, 3350, 70, kAll, kMain1510, 0, 20140321, 10},
    {kSQ, "ss", "不锈钢", "不锈", 0, 5, 13000, 70, kAll, kAll, 0, 20190925, 5},
    {kSQ, "fu", "燃料油", "燃油", 0, 1, 3000, 100, kAll, kMain159, 0, 20040825, 10},
    {kSQ, "bu", "石油沥青", "沥青", 0, 1, 3500, 80, kAll, kMain159, 0, 20131009, 10},
    {kSQ, "ru", "天然橡胶", "橡胶", 0, 5, 15500, 80, kAll & ~(1 << 1) & ~(1 << 11), kMain159, 0, 19930101, 10},
    {kSQ, "sp", "纸浆", "纸浆", 0, 2, 5600, 80, kAll, kMain159, 0, 20181127, 10},
    {kSQ, "ao", "氧化铝", "氧化铝", 0, 1, 3200, 90, kAll, kAll, 0, 20230619, 20},
    {kSQ, "br", "丁二烯橡胶", "BR橡胶", 0, 5, 12500, 90, kAll, kAll, 0, 20230728, 5},
    {kSN, "sc", "原油", "原油", 1, 1, 5500, 100, kAll, kAll, 0, 20180326, 1000},
    {kSN, "lu", "低硫燃料油", "低硫", 0, 1, 3800, 100, kAll, kMain159, 0, 20200622, 10},
    {kSN, "nr", "20号胶", "20胶", 0, 5, 12800, 80, kAll, kMain159, 0, 20190812, 10},
    {kSN, "bc", "国际铜", "国际铜", 0, 10, 70000, 80, kAll, kAll, 0, 20201119, 5},
    {kSN, "ec", "集运欧线", "欧线", 1, 1, 18000, 180, kEven, kEven, 0, 20230818, 50},
    {kDL, "a", "豆一", "豆一", 0, 1, 4100, 70, kOdd, kMain159, 0, 20020315, 10},
    {kDL, "b", "豆二", "豆二", 0, 1, 3700, 70, kAll, kMain159, 0, 20041222, 10},
    {kDL, "m", "豆粕", "豆粕", 0, 1, 2900, 70, kSoy, kMain159, 0, 20000717, 10},
    {kDL, "y", "豆油", "豆油", 0, 2, 8000, 70, kSoy, kMain159, 0, 20060109, 10},
    {kDL, "p", "棕榈油", "棕榈", 0, 2, 8800, 80, kAll, kMain159, 0, 20071029, 10},
    {kDL, "c", "玉米", "玉米", 0, 1, 2250, 70, kOdd, kMain159, 0, 20040922, 10},
    {kDL, "cs", "玉米淀粉", "淀粉", 0, 1, 2600, 70, kOdd, kMain159, 0, 20141219, 10},
    {kDL, "jd", "鸡蛋", "鸡蛋", 0, 1, 3500, 80, kAll, kMain159, 0, 20131108, 10},
    {kDL, "l", "聚乙烯", "塑料", 0, 1, 7300, 70, kAll, kMain159, 0, 20070731, 5},
    {kDL, "v", "聚氯乙烯", "PVC", 0, 1, 5000, 70, kAll, kMain159, 0, 20090525, 5},
    {kDL, "pp", "聚丙烯", "PP", 0, 1, 7100, 70, kAll, kMain159, 0, 20140228, 5},
    {kDL, "eg", "乙二醇", "乙二醇", 0, 1, 4400, 70, kAll, kMain159, 0, 20181210, 10},
    {kDL, "eb", "苯乙烯", "苯乙烯", 0, 1, 7500, 80, kAll, kAll, 0, 20190926, 5},
    {kDL, "pg", "液化石油气", "LPG", 0, 1, 4500, 80, kAll, kAll, 0, 20200330, 20},
    {kDL, "i", "铁矿石", "铁矿", 1, 5, 7800, 110, kAll, kMain159, 0, 20131018, 100},
    {kDL, "j", "焦炭", "焦炭", 1, 5, 19000, 110, kAll, kMain159, 0, 20110415, 100},
    {kDL, "jm", "焦煤", "焦煤", 1, 5, 12000, 110, kAll, kMain159, 0, 20130322, 60},
    {kDL, "lh", "生猪", "生猪", 0, 5, 13500, 80, kOdd, kMain159, 0, 20210108, 16},
    {kZZ, "SR", "白糖", "白糖", 0, 1, 5600, 70, kOdd, kMain159, 0, 20060106, 10},
    {kZZ, "CF", "棉花", "郑棉", 0, 5, 13800, 70, kOdd, kMain159, 0, 20040601, 5},
    {kZZ, "TA", "PTA", "PTA", 0, 2, 4800, 70, kAll, kMain159, 0, 20061218, 5},
    {kZZ, "MA", "甲醇", "甲醇", 0, 1, 2500, 80, kAll, kMain159, 0, 20111028, 10},
    {kZZ, "RM", "菜粕", "菜粕", 0, 1, 2400, 70, kOdd | (1 << 7), kMain159, 0, 20121228, 10},
    {kZZ, "OI", "菜油", "菜油", 0, 1, 9200, 70, kOdd, kMain159, 0, 20070608, 10},
    {kZZ, "FG", "玻璃", "玻璃", 0, 1, 1200, 80, kAll, kMain159, 0, 20121203, 20},
    {kZZ, "SA", "纯碱", "纯碱", 0, 1, 1400, 80, kAll, kMain159, 0, 20191206, 20},
    {kZZ, "UR", "尿素", "尿素", 0, 1, 1800, 70, kAll, kMain159, 0, 20190809, 20},
    {kZZ, "AP", "苹果", "苹果", 0, 1, 7800, 80, (1 << 0) | (1 << 2) | (1 << 3) | (1 << 4) | (1 << 9) | (1 << 10) | (1 << 11),
     (1 << 0) | (1 << 4) | (1 << 9), 0, 20171222, 10},
    {kZZ, "CJ", "红枣", "红枣", 0, 5, 10500, 80, kOdd | (1 << 11), kMain159, 0, 20190430, 5},
    {kZZ, "SF", "硅铁", "硅铁", 0, 2, 5800, 80, kAll, kMain159, 0, 20140808, 5},
    {kZZ, "SM", "锰硅", "锰硅", 0, 2, 6000, 80, kAll, kMain159, 0, 20140808, 5},
    {kZZ, "PK", "花生", "花生", 0, 2, 8500, 70, (1 << 0) | (1 << 2) | (1 << 3) | (1 << 9) | (1 << 10) | (1 << 11),
     (1 << 0) | (1 << 3) | (1 << 9), 0, 20210201, 5},
    {kZZ, "SH", "烧碱", "烧碱", 0, 1, 2500, 80, kAll, kMain159, 0, 20230915, 30},
    {kZZ, "PX", "对二甲苯", "PX", 0, 2, 6800, 80, kAll, kMain159, 0, 20230915, 5},
    {kZJ, "IF", "沪深300股指", "沪深", 1, 2, 46000, 100, kAll, kAll, 1, 20100416, 300},
    {kZJ, "IH", "上证50股指", "上证", 1, 2, 30000, 100, kAll, kAll, 1, 20150416, 300},
    {kZJ, "IC", "中证500股指", "中证", 1, 2, 72000, 100, kAll, kAll, 1, 20150416, 200},
    {kZJ, "IM", "中证1000股指", "中千", 1, 2, 75000, 100, kAll, kAll, 1, 20220722, 200},
    {kZJ, "T", "十年国债", "十债", 3, 5, 108500, 20, 0x924, 0x924, 2, 20150320, 10000},
    {kZJ, "TF", "五年国债", "五债", 3, 5, 106000, 12, 0x924, 0x924, 2, 20130906, 10000},
    {kZJ, "TS", "二年国债", "二债", 3, 2, 102500, 5, 0x924, 0x924, 2, 20180817, 20000},
    {kZJ, "TL", "三十年国债", "三十债", 2, 1, 11800, 35, 0x924, 0x924, 2, 20230421, 10000},
};

bool HasMonth(uint16_t months, int32_t yyyymm) { return (months >> (yyyymm % 100 - 1)) & 1; }

// Contract months listed on the trading day, nearest first.
std::vector<int32_t> ContractMonths(const Product& product, int32_t trade_date) {
  int32_t month = trade_date / 100;
  std::vector<int32_t> months;
  if (product.kind == 1) {
    // Current and next month, then the next two quarterly months; the
    // current month expires on its third Friday.
    if (trade_date > NthWeekday(month, 5, 3)) month = AddMonths(month, 1);
    months = {month, AddMonths(month, 1)};
    for (int32_t m = AddMonths(month, 2); months.size() < 4; m = AddMonths(m, 1)) {
      if (m % 100 % 3 == 0) months.push_back(m);
    }
    return months;
  }
  if (product.kind == 2) {
    // The three nearest quarterly months; delivery ends in the second week.
    if (trade_date > NthWeekday(month, 5, 2)) month = AddMonths(month, 1);
    for (int32_t m = month; months.size() < 3; m = AddMonths(m, 1)) {
      if (m % 100 % 3 == 0) months.push_back(m);
    }
    return months;
  }
  // A commodity's delivery month stops trading in mid-month.
  if (trade_date % 100 > 14) month = AddMonths(month, 1);
  for (int i = 0; i < 12; ++i) {
    int32_t m = AddMonths(month, i);
    if (HasMonth(product.months, m)) months.push_back(m);
  }
  return months;
}

std::string ContractCode(const Product& product, int32_t yyyymm) {
  // Zhengzhou writes the year with one digit.
  if (product.market == kZZ) return std::string(product.code) + Padded(yyyymm % 1000, 3);
  return std::string(product.code) + Padded(yyyymm % 10000, 4);
}

void MarketBuilder::futures(uint8_t market_id) {
  for (const Product& product : kProducts) {
    if (product.market != market_id) continue;
    std::vector<int32_t> months = ContractMonths(product, trade_date_);
    int64_t level = product.price_units * rng_.range(850, 1150) / 1000;
    int64_t slope = rng_.range(-6, 6);  // per mille and month: contango or backwardation
    std::vector<Instrument> contracts;
    for (int32_t month : months) {
      std::string code = ContractCode(product, month);
      std::string digits = code.substr(std::char_traits<char>::length(product.code));
      Instrument item = base(code, std::string(product.name) + digits, kTypeFuture, product.digits);
      item.tick_units = product.tick_units;
      item.volume_unit = 1;
      item.multiplier = product.multiplier;
      int ahead = MonthsBetween(month_, month);
      int horizon = product.kind == 0 ? 12 : product.kind == 1 ? 8 : 9;
      item.list_date = static_cast<uint32_t>(
          ListingDay(AddMonths(month, -horizon) * 100 + 15, product.launch, trade_date_));
      int64_t price = level + level * slope * ahead / 1000 + rng_.range(-level / 200, level / 200);
      item.pre_close_units = std::max(product.tick_units, price / product.tick_units * product.tick_units);
      SetLimits(item, product.limit_pm);
      contracts.push_back(item);
      table_[code] = std::move(item);
    }
    if (contracts.empty()) continue;
    // The main contract: the nearest of the active months beyond the next
    // month (the nearest for financial futures); the recent one: the nearest.
    const Instrument* main = &contracts[std::min<size_t>(1, contracts.size() - 1)];
    if (product.kind != 0) {
      main = &contracts[0];
    } else {
      for (size_t i = 0; i < contracts.size(); ++i) {
        if (HasMonth(product.main_months, months[i]) && MonthsBetween(month_, months[i]) >= 2) {
          main = &contracts[i];
          break;
        }
      }
    }
    const Instrument* recent = &contracts[0];
    struct Continuous {
      std::string code;
      const char* label;
      const Instrument* contract;
    };
    for (const Continuous& c : {Continuous{product.code, "主连", main},
                                Continuous{std::string(product.code) + "00", "近月", recent}}) {
      Instrument item = *c.contract;
      item.code = c.code;
      item.name = std::string(product.brief) + c.label + "-" + c.contract->code;
      item.type_code = kTypeContinuous;
      item.volume_unit = 0;  // a continuous series has no lot of its own
      item.list_date = static_cast<uint32_t>(ListingDay(product.launch, product.launch, trade_date_));
      table_[c.code] = std::move(item);
    }
  }
}

// ---- Hong Kong connect ---------------------------------------------------------

struct HKShare {
  const char* code;
  const char* name;  // the short name
  int64_t price_units;
  int32_t list_date;
  uint16_t lot;  // board lot
};

const HKShare kHKStocks[] = {
    {"00001", "长和", 40000, 19720731, 500},          {"00005", "汇丰控股", 95000, 19910102, 400},
    {"00388", "香港交易所", 380000, 20000627, 100},   {"00700", "腾讯控股", 600000, 20040616, 100},
    {"00883", "中国海洋石油", 20000, 20010228, 1000}, {"00939", "建设银行", 7000, 20051027, 1000},
    {"00941", "中国移动", 85000, 19971023, 500},      {"01024", "快手－Ｗ", 65000, 20210205, 100},
    {"01211", "比亚迪股份", 100000, 20020731, 500},   {"01299", "友邦保险", 75000, 20101029, 200},
    {"01398", "工商银行", 6000, 20061027, 1000},      {"01810", "小米集团－Ｗ", 45000, 20180709, 200},
    {"02020", "安踏体育", 90000, 20070710, 200},      {"02318", "中国平安", 55000, 20040624, 500},
    {"03690", "美团－Ｗ", 110000, 20180920, 100},     {"06862", "海底捞", 15000, 20180926, 1000},
    {"09618", "京东集团－ＳＷ", 130000, 20200618, 50}, {"09888", "百度集团－ＳＷ", 110000, 20210323, 50},
    {"09988", "阿里巴巴－ＳＷ", 150000, 20191126, 100}, {"09999", "网易－Ｓ", 200000, 20200611, 100},
};

// Hang Seng indices; codes beyond five characters, names up to the field's
// length and beyond.
const Famous kHKIndices[] = {
    {"HSI", "恒生指数", 2600000, 19691124},
    {"HSCEI", "恒生中国企业指数", 920000, 19940808},
    {"HSCCI", "恒生香港中资企业指数", 410000, 19970616},
    {"HSTECH", "恒生科技指数", 580000, 20200727},
    {"HSHDYI", "恒生高股息率指数", 120000, 20170605},
    {"HSCIIT", "恒生综合行业指数－资讯科技业", 1100000, 20010903},
    {"HSCICD", "恒生综合行业指数－非必需性消费", 380000, 20010903},
    {"HSCIFN", "恒生综合行业指数－金融业", 320000, 20010903},
    {"HSCIPC", "恒生综合行业指数－地产建筑业", 150000, 20010903},
    {"HSHKBIO", "恒生沪深港通生物科技指数", 650000, 20190708},
    {"HSSCNE", "恒生沪深港通新经济指数", 480000, 20180528},
    {"HSSCSOE", "恒生沪深港通中国国有企业指数", 310000, 20190916},
    {"HSSCHKY", "恒生沪深港通香港公司高股息率指数", 210000, 20171211},
    {"HSCAIT", "恒生沪深港通AI人工智能主题指数", 450000, 20240318},
    {"HSHKSOE", "恒生沪深港通H股大型国有企业综合指数", 280000, 20220321},
};

// Board lots, each a stock's own for good: the exchange leaves the choice to
// the issuer, mostly so that a lot costs some thousands of dollars.
const uint16_t kBoardLots[] = {50, 100, 200, 250, 400, 500, 1000, 2000, 2500, 4000, 5000, 10000, 20000};

uint16_t BoardLot(const std::string& code, int64_t price_units) {
  uint64_t h = Mix(0x484B4C4F54ULL, std::stoull(code));
  // The smallest lot worth HKD 2,000 (price in 0.001), then up to two larger.
  size_t first = 0;
  while (first + 1 < std::size(kBoardLots) && price_units * kBoardLots[first] < 2000 * 1000) ++first;
  return kBoardLots[std::min(first + h % 3, std::size(kBoardLots) - 1)];
}

void MarketBuilder::hong_kong() {
  std::set<std::string> famous;
  for (const HKShare& f : kHKStocks) {
    famous.insert(f.code);
    names_.claim(f.name);
  }
  for (int64_t value : Sample(rng_, {{1, 3999}, {6000, 6999}, {9600, 9999}}, 540)) {
    std::string code = Padded(value, 5);
    if (famous.count(code) != 0) continue;
    // Short names as the exchange lists them: a brand and a trade, now and
    // then a form and a mark of weighted votes or a secondary listing.
    std::string name = names_.company();
    if (rng_.chance(300)) name += rng_.pick(kHKForms);
    if (rng_.chance(150)) name += rng_.pick(kHKTags);
    Instrument item = base(code, name, kTypeHKStock, 3);
    item.list_date = static_cast<uint32_t>(
        ListingDay(DateBetween(19860402, trade_date_, rng_.range(0, 1000), 1000), 19860402, trade_date_));
    item.pre_close_units = item.snap(rng_.skewed(150, 600000, 4));
    item.tick_units = item.tick_at(item.pre_close_units);
    item.volume_unit = BoardLot(code, item.pre_close_units);
    item.eps = Earnings(rng_, item.pre_close_units, 3);
    item.connect = true;
    table_[code] = std::move(item);
  }
  for (const HKShare& f : kHKStocks) {
    Instrument item = base(f.code, f.name, kTypeHKStock, 3);
    item.volume_unit = f.lot;
    item.list_date = static_cast<uint32_t>(f.list_date);
    item.pre_close_units = item.snap(f.price_units * rng_.range(920, 1080) / 1000);
    item.tick_units = item.tick_at(item.pre_close_units);
    item.eps = Earnings(rng_, item.pre_close_units, 3);
    item.connect = true;
    table_[f.code] = std::move(item);
  }
  for (const Famous& f : kHKIndices) {
    Instrument item = base(f.code, f.name, kTypeHKIndex, 2);
    item.volume_unit = 0;
    item.list_date = static_cast<uint32_t>(f.list_date);
    item.pre_close_units = f.price_units * rng_.range(950, 1050) / 1000;
    table_[f.code] = std::move(item);
  }
}

// ---- The markets -----------------------------------------------------------------

const std::vector<Famous> kSHStocks = {
    {"600000", "浦发银行", 1050, 19991110}, {"600028", "中国石化", 620, 20010808},
    {"600030", "中信证券", 2800, 20030106}, {"600036", "招商银行", 4200, 20020409},
    {"600276", "恒瑞医药", 5800, 20001018}, {"600309", "万华化学", 7500, 20010105},
    {"600519", "贵州茅台", 148000, 20010827}, {"600900", "长江电力", 2900, 20031118},
    {"601012", "隆基绿能", 1800, 20120411}, {"601088", "中国神华", 3900, 20071009},
    {"601166", "兴业银行", 2100, 20070205}, {"601318", "中国平安", 5600, 20070301},
    {"601398", "工商银行", 750, 20061027}, {"601857", "中国石油", 860, 20071105},
    {"601988", "中国银行", 560, 20060705}, {"688012", "中微公司", 22000, 20190722},
    {"688111", "金山办公", 30000, 20191118}, {"688981", "中芯国际", 9000, 20200716},
};
const std::vector<Famous> kSHIndices = {
    {"000001", "上证指数", 390000, 19910715}, {"000002", "Ａ股指数", 409000, 19920221},
    {"000003", "Ｂ股指数", 26000, 19920221},  {"000004", "工业指数", 320000, 19930503},
    {"000005", "商业指数", 260000, 19930503}, {"000006", "地产指数", 110000, 19930503},
    {"000007", "公用指数", 290000, 19930503}, {"000008", "综合指数", 330000, 19930503},
    {"000009", "上证380", 560000, 20100129},  {"000010", "上证180", 1000000, 20020701},
    {"000015", "红利指数", 330000, 20050104}, {"000016", "上证50", 300000, 20040102},
    {"000017", "新综指", 330000, 20060104},   {"000300", "沪深300", 460000, 20050408},
    {"000688", "科创50", 140000, 20200723},   {"000852", "中证1000", 750000, 20141017},
    {"000903", "中证100", 440000, 20060529},  {"000905", "中证500", 720000, 20070115},
    {"000906", "中证800", 510000, 20070115},
};
const std::vector<Famous> kSHFunds = {
    {"510050", "50ETF", 3100, 20050223},   {"510300", "300ETF", 4600, 20120528},
    {"510500", "500ETF", 7000, 20130315},  {"510880", "红利ETF", 3200, 20070118},
    {"512880", "证券ETF", 1100, 20160808}, {"513100", "纳指ETF", 1900, 20130515},
    {"518880", "黄金ETF", 7200, 20130729}, {"588000", "科创50", 1400, 20201116},
    {"588080", "科创板50", 1400, 20201116},
};
// Underlyings of the options: code and the short name the contracts carry.
const std::vector<Famous> kSHOptionFunds = {
    {"510050", "50ETF", 0, 0}, {"510300", "300ETF", 0, 0}, {"510500", "500ETF", 0, 0},
    {"588000", "科创50", 0, 0}, {"588080", "科创板50", 0, 0},
};

const std::vector<Famous> kSZStocks = {
    {"000001", "平安银行", 1150, 19910403}, {"000002", "万科Ａ", 650, 19910129},
    {"000063", "中兴通讯", 3500, 19971118}, {"000333", "美的集团", 7500, 20130918},
    {"000651", "格力电器", 4000, 19961118}, {"000858", "五粮液", 12000, 19980427},
    {"002415", "海康威视", 3000, 20100528}, {"002475", "立讯精密", 5500, 20100915},
    {"002594", "比亚迪", 33000, 20110630},  {"300059", "东方财富", 2500, 20100319},
    {"300750", "宁德时代", 38000, 20180611}, {"300760", "迈瑞医疗", 23000, 20181016},
};
const std::vector<Famous> kSZIndices = {
    {"399001", "深证成指", 1280000, 19950123}, {"399005", "中小100", 780000, 20060124},
    {"399006", "创业板指", 290000, 20100601},  {"399102", "创业板综", 350000, 20100820},
    {"399106", "深证综指", 240000, 19910403},  {"399300", "沪深300", 460000, 20050408},
    {"399330", "深证100", 540000, 20060124},   {"399673", "创业板50", 290000, 20140618},
    {"399905", "中证500", 720000, 20070115},
};
const std::vector<Famous> kSZFunds = {
    {"159901", "深100ETF", 3600, 20060424}, {"159915", "创业板ETF", 2900, 20111209},
    {"159919", "300ETF", 4700, 20120528},   {"159922", "500ETF", 7200, 20130206},
};
const std::vector<Famous> kSZOptionFunds = {
    {"159901", "深100ETF", 0, 0}, {"159915", "创业板ETF", 0, 0}, {"159919", "300ETF", 0, 0},
    {"159922", "500ETF", 0, 0},
};

Table MarketBuilder::build(uint8_t id) {
  switch (id) {
    case kSH:
      claim(kSHStocks);
      claim(kSHIndices);
      claim(kSHFunds);
      stocks({{{600000, 601999}, {603000, 603999}, {605000, 605599}}, 1720, kTypeMainStock, kBoardMain, 100,
              19901219, 20251231, 200, 8000});
      stocks({{{688001, 688800}}, 590, kTypeStarStock, kBoardStar, 200, 20190722, 20261231, 1000, 30000});
      new_listing("688");
      famous_stocks(kSHStocks);
      indices(2, 999, 300, {"上证", "中证", "沪", "上证全指", "中证全指", "上证180", "上证380", "中证800"},
              kSHIndices);
      funds({{510010, 510999}, {511010, 511999}, {512000, 513999}, {515000, 518999}, {560000, 563999},
             {588000, 588999}},
            1150, kSHFunds);
      bonds({{110030, 110099}, {111000, 111020}, {113000, 113699}, {118000, 118060}}, 250);
      options(10000000 + rng_.range(4000, 8000), kSHOptionFunds);
      break;
    case kSZ:
      claim(kSZStocks);
      claim(kSZIndices);
      claim(kSZFunds);
      // The SME board (002, 003) merged into the main board in 2021.
      stocks({{{1, 999}, {1200, 1399}, {1600, 1999}}, 500, kTypeMainStock, kBoardMain, 100, 19901201, 20251231,
              200, 8000});
      stocks({{{2001, 2999}, {3000, 3040}}, 1000, kTypeMainStock, kBoardMain, 100, 20040625, 20251231, 200, 8000});
      stocks({{{300001, 301600}}, 1350, kTypeChiNextStock, kBoardChiNext, 200, 20091030, 20261231, 300, 20000});
      new_listing("30");
      famous_stocks(kSZStocks);
      indices(399002, 399999, 300, {"深证", "国证", "巨潮", "中证", "创业板", "深"}, kSZIndices);
      funds({{159001, 159999}}, 700, kSZFunds);
      bonds({{123000, 123260}, {127000, 127110}, {128000, 128150}}, 250);
      options(90000000 + rng_.range(1000, 5000), kSZOptionFunds);
      break;
    case kSQ:
    case kSN:
    case kDL:
    case kZZ:
    case kZJ:
      futures(id);
      break;
    case kHK:
      hong_kong();
      break;
    default:
      break;
  }
  return std::move(table_);
}

struct MarketInfo {
  uint8_t id;
  const char* name;
  const char* desc;
  uint8_t type;
  uint8_t night;
  uint8_t options;
};

const MarketInfo kMarkets[] = {
    {kSZ, "SZ", "深圳证券交易所", 1, 0, 1},       {kSH, "SH", "上海证券交易所", 1, 0, 1},
    {kSQ, "SQ", "上海期货交易所", 2, 1, 0},       {kSN, "SN", "上海国际能源交易中心", 2, 1, 0},
    {kDL, "DL", "大连商品交易所", 2, 1, 0},       {kZZ, "ZZ", "郑州商品交易所", 2, 1, 0},
    {kZJ, "ZJ", "中国金融期货交易所", 2, 0, 0},   {kHK, "HK", "香港联合交易所港股通", 3, 0, 0},
};

// A day's move of every price; continuous contracts follow their contracts.
void MovePrices(Market& market, Rng& rng) {
  for (Instrument& item : market.instruments) {
    if (item.type_code == kTypeContinuous) continue;
    int64_t before = item.pre_close_units;
    int64_t moved = before + before * rng.range(-30, 30) / 1000;
    item.pre_close_units = item.snap(moved);
    if (item.type_code == kTypeHKStock) item.tick_units = item.tick_at(item.pre_close_units);
    if (item.type_code == kTypeEtfOption) {
      // An option's band is a share of its fund's price, not of its own.
      int64_t band = item.upper_units - before;
      item.upper_units = item.pre_close_units + band;
      item.lower_units = std::max(item.tick_units, item.pre_close_units - band);
    } else {
      SetLimits(item, item.limit_pm);
    }
  }
  std::map<std::string, const Instrument*> contracts;
  for (const Instrument& item : market.instruments) contracts[item.code] = &item;
  for (Instrument& item : market.instruments) {
    if (item.type_code != kTypeContinuous) continue;
    auto it = contracts.find(item.name.substr(item.name.rfind('-') + 1));
    if (it == contracts.end()) continue;
    item.pre_close_units = it->second->pre_close_units;
    item.upper_units = it->second->upper_units;
    item.lower_units = it->second->lower_units;
  }
}

// A stock market lists a new share with every change.
void AddListing(Market& market, Rng& rng, uint32_t revision) {
  if (market.id != kSH && market.id != kSZ) return;
  if (revision > 49) return;  // the reserved codes are used up
  std::set<std::string> names;
  for (const Instrument& item : market.instruments) names.insert(item.name);
  Names pool(rng);
  for (const std::string& name : names) pool.claim(name);
  Instrument item;
  bool star = market.id == kSH;
  item.code = star ? Padded(688800 + revision, 6) : Padded(301600 + revision, 6);
  item.name = "N" + pool.company();
  item.type_code = star ? kTypeStarStock : kTypeChiNextStock;
  item.board = star ? kBoardStar : kBoardChiNext;
  item.code_flag = kFlagNewListing;
  item.price_digits = 2;
  item.volume_unit = 100;
  item.list_date = static_cast<uint32_t>(market.trade_date);
  item.pre_close_units = rng.range(1500, 8000);
  item.eps = Earnings(rng, item.pre_close_units, 2);
  item.total_shares = rng.range(8000, 60000) * 10000;
  item.float_shares = item.total_shares / 10;
  item.net_assets_per_share = static_cast<double>(rng.range(300, 1500)) / 100.0;
  auto at = std::lower_bound(market.instruments.begin(), market.instruments.end(), item.code,
                             [](const Instrument& a, const std::string& code) { return a.code < code; });
  if (at != market.instruments.end() && at->code == item.code) return;
  market.instruments.insert(at, std::move(item));
}

// The market's trading day on the local date today: the connect's own
// calendar for Hong Kong.
int32_t TradingDayOf(uint8_t id, int32_t today) {
  return id == kHK ? connect_day_on_or_before(today) : trading_day_on_or_before(today);
}

Market BuildMarket(const MarketInfo& info, uint64_t seed, int32_t trade_date, uint32_t revision) {
  Market market;
  market.id = info.id;
  market.name = info.name;
  market.desc = info.desc;
  market.market_type = info.type;
  market.flag_a = info.night;
  market.flag_b = info.options;
  market.trade_date = trade_date;
  market.night_date = info.night != 0 ? previous_trading_day(trade_date) : 0;
  market.revision = revision;
  Table table = MarketBuilder(seed, info.id, trade_date).build(info.id);
  market.instruments.reserve(table.size() + revision);
  for (auto& [code, item] : table) market.instruments.push_back(std::move(item));
  for (uint32_t r = 1; r <= revision; ++r) {
    Rng rng(Mix(Mix(seed, info.id), 0x100000000ULL + r));
    MovePrices(market, rng);
    AddListing(market, rng, r);
  }
  uint64_t sum = Mix(Mix(seed, info.id), static_cast<uint64_t>(trade_date) * 1000 + revision);
  market.checksum = static_cast<uint32_t>(sum ^ (sum >> 32));
  if (market.checksum == 0) market.checksum = 1;
  return market;
}

// Hong Kong connect rates of every trading day since the connect opened: a
// bounded walk of the middle rate in 0.0001 CNY, with a fixed spread.
std::vector<HKRate> BuildRates(uint64_t seed, int32_t last) {
  Rng rng(Mix(seed, 0x484B52));
  int64_t mid = rng.range(9080, 9220);
  std::vector<HKRate> rates;
  for (int32_t day : connect_days(Universe::kHKConnectStart, last)) {
    mid += rng.range(-12, 12);
    mid = std::clamp<int64_t>(mid, 9030, 9270);
    int64_t spread = rng.range(25, 35);
    rates.push_back(HKRate{day, static_cast<float>(static_cast<double>(mid - spread) / 10000.0),
                           static_cast<float>(static_cast<double>(mid + spread) / 10000.0)});
  }
  return rates;
}

// Shares being issued around the trading day, on codes reserved for them.
std::vector<NewIssue> BuildIssues(uint64_t seed, int32_t trade_date) {
  Rng rng(Mix(seed, 0x49504F));
  Names names(rng);
  struct Slot {
    uint8_t market;
    const char* code_prefix;
    int64_t first;
    const char* purchase_prefix;  // empty: the purchase code is the share's code
    const char* board;
    int offset;  // trading days from the trading day
  };
  const Slot slots[] = {
      {kSH, "6056", 10, "7076", "主板", -6},  {kSH, "6888", 50, "7878", "科创板", -3},
      {kSZ, "0015", 20, "", "主板", 0},       {kSZ, "3017", 0, "", "创业板", 1},
      {kSH, "6888", 60, "7878", "科创板", 2}, {kSZ, "0015", 30, "", "主板", 4},
  };
  std::vector<NewIssue> issues;
  for (const Slot& slot : slots) {
    NewIssue issue;
    issue.market_id = slot.market;
    std::string tail = Padded(slot.first + static_cast<int64_t>(rng.below(10)), 2);
    issue.code = std::string(slot.code_prefix) + tail;
    issue.purchase_code = slot.purchase_prefix[0] != '\0' ? std::string(slot.purchase_prefix) + tail : issue.code;
    issue.name = names.company();
    issue.board = slot.board;
    int32_t day = trade_date;
    for (int i = 0; i < slot.offset; ++i) day = next_trading_day(day);
    for (int i = 0; i > slot.offset; --i) day = previous_trading_day(day);
    issue.issue_date = day;
    issue.issue_price = static_cast<double>(rng.range(500, 6000)) / 100.0;
    issue.issue_volume = rng.range(2000, 20000) * 10000;
    issue.purchase_limit = static_cast<int32_t>(rng.range(10, 40) * 500);
    if (slot.offset <= -3) {
      int32_t listing = day;
      for (int i = 0; i < 8; ++i) listing = next_trading_day(listing);
      issue.listing_date = listing;
    }
    issues.push_back(std::move(issue));
  }
  return issues;
}

}  // namespace

double Instrument::scale() const { return static_cast<double>(Pow10(price_digits)); }

// The Hong Kong spread table: upper end of each price band (included) and
// its tick, in 0.001 HKD.
constexpr std::pair<int64_t, int64_t> kSpreadTable[] = {
    {250, 1},         {500, 5},          {10000, 10},        {20000, 20},         {100000, 50},  {200000, 100},
    {500000, 200},    {1000000, 500},    {2000000, 1000},    {5000000, 2000},     {9995000, 5000},
};

int64_t Instrument::tick_at(int64_t units) const {
  if (type_code != kTypeHKStock) return std::max<int64_t>(1, tick_units);
  for (const auto& [upper, tick] : kSpreadTable) {
    if (units <= upper) return tick;
  }
  return kSpreadTable[std::size(kSpreadTable) - 1].second;
}

int64_t Instrument::snap(int64_t units) const {
  int64_t tick = tick_at(units);
  return std::max(tick_at(1), units / tick * tick);
}

int64_t Instrument::min_order() const {
  if (type_code == kTypeStarStock) return 200;
  return volume_unit > 0 ? volume_unit : 1;
}

int64_t Instrument::order_step() const { return type_code == kTypeStarStock ? 1 : min_order(); }

const char* market_name(int id) {
  for (const MarketInfo& info : kMarkets) {
    if (info.id == id) return info.name;
  }
  return "";
}

Universe::Universe(uint64_t seed, int32_t today) : seed_(seed) {
  int32_t trade_date = trading_day_on_or_before(today);
  for (const MarketInfo& info : kMarkets) markets_.push_back(BuildMarket(info, seed, TradingDayOf(info.id, today), 0));
  new_issues_ = BuildIssues(seed, trade_date);
  hk_rates_ = BuildRates(seed, connect_day_on_or_before(today));
}

int32_t Universe::trade_date() const {
  int32_t latest = 0;
  for (const Market& market : markets_) latest = std::max(latest, market.trade_date);
  return latest;
}

const Market* Universe::market(int id) const {
  for (const Market& market : markets_) {
    if (market.id == id) return &market;
  }
  return nullptr;
}

bool Universe::change_market(int id, int32_t today) {
  for (Market& market : markets_) {
    if (market.id != id) continue;
    const MarketInfo* info = nullptr;
    for (const MarketInfo& i : kMarkets) {
      if (i.id == id) info = &i;
    }
    int32_t trade_date = std::max(market.trade_date, TradingDayOf(market.id, today));
    market = BuildMarket(*info, seed_, trade_date, market.revision + 1);
    ++version_;
    if (trade_date > (hk_rates_.empty() ? 0 : hk_rates_.back().date)) hk_rates_ = BuildRates(seed_, trade_date);
    return true;
  }
  return false;
}

std::vector<HKRate> Universe::hk_rates(int32_t first, int32_t last) const {
  std::vector<HKRate> rates;
  for (const HKRate& rate : hk_rates_) {
    if (rate.date >= first && rate.date <= last) rates.push_back(rate);
  }
  return rates;
}

float Universe::latest_hk_rate() const {
  if (hk_rates_.empty()) return 0;
  return (hk_rates_.back().rate_a + hk_rates_.back().rate_b) / 2;
}

}  // namespace sim
