#include "dataapi/sim/sessions.h"

#include <cctype>
#include <map>
#include <string>

#include "dataapi/sim/calendar.h"

namespace sim {

namespace {

using P = Phase;

// Shanghai and Shenzhen: the opening call auction 9:15-9:25, continuous
// trading, the closing call auction 14:57-15:00.
const std::vector<Segment> kStockDay = {
    {91500, 92500, P::kOpeningAuction}, {92500, 93000, P::kPreTrading}, {93000, 113000, P::kContinuous},
    {113000, 130000, P::kBreak},        {130000, 145700, P::kContinuous}, {145700, 150000, P::kClosingAuction},
};

// Hong Kong: the pre-opening session (orders 9:00-9:20, the match, then
// blocking until 9:30), two sessions, and the closing auction to 16:10.
const std::vector<Segment> kHKDay = {
    {90000, 92000, P::kOpeningAuction}, {92000, 93000, P::kPreTrading}, {93000, 120000, P::kContinuous},
    {120000, 130000, P::kBreak},        {130000, 160000, P::kContinuous}, {160000, 161000, P::kClosingAuction},
};

// Commodity futures' day part; the call auction 8:55-9:00 opens it when no
// night session came before.
const std::vector<Segment> kCommodityDay = {
    {90000, 101500, P::kContinuous}, {101500, 103000, P::kBreak},      {103000, 113000, P::kContinuous},
    {113000, 133000, P::kBreak},     {133000, 150000, P::kContinuous},
};

const std::vector<Segment> kIndexFuturesDay = {
    {92500, 93000, P::kOpeningAuction}, {93000, 113000, P::kContinuous}, {113000, 130000, P::kBreak},
    {130000, 150000, P::kContinuous},
};

const std::vector<Segment> kBondFuturesDay = {
    {91000, 91500, P::kOpeningAuction}, {91500, 113000, P::kContinuous}, {113000, 130000, P::kBreak},
    {130000, 151500, P::kContinuous},
};

// Night sessions by product: to 23:00, to 01:00, to 02:30; products not
// listed have none.
const std::pair<const char*, int32_t> kNightEnds[] = {
    {"cu", 10000}, {"al", 10000}, {"zn", 10000}, {"pb", 10000}, {"ni", 10000}, {"sn", 10000}, {"ss", 10000},
    {"ao", 10000}, {"bc", 10000}, {"au", 23000}, {"ag", 23000}, {"sc", 23000}, {"rb", 230000}, {"hc", 230000},
    {"fu", 230000}, {"bu", 230000}, {"ru", 230000}, {"sp", 230000}, {"br", 230000}, {"lu", 230000}, {"nr", 230000},
    {"a", 230000}, {"b", 230000}, {"m", 230000}, {"y", 230000}, {"p", 230000}, {"c", 230000}, {"cs", 230000},
    {"l", 230000}, {"v", 230000}, {"pp", 230000}, {"eg", 230000}, {"eb", 230000}, {"pg", 230000}, {"i", 230000},
    {"j", 230000}, {"jm", 230000}, {"SR", 230000}, {"CF", 230000}, {"TA", 230000}, {"MA", 230000}, {"RM", 230000},
    {"OI", 230000}, {"FG", 230000}, {"SA", 230000}, {"SH", 230000}, {"PX", 230000},
};

Schedule Make(std::vector<Segment> day, int32_t night_end = 0, bool connect = false) {
  Schedule s;
  s.day = std::move(day);
  s.night_end = night_end;
  s.connect = connect;
  return s;
}

struct Schedules {
  Schedule stock = Make(kStockDay);
  Schedule after_hours = [] {
    Schedule s = Make(kStockDay);
    s.day.push_back({150500, 153000, P::kAfterHours});
    return s;
  }();
  Schedule hong_kong = Make(kHKDay, 0, true);
  Schedule index_futures = Make(kIndexFuturesDay);
  Schedule bond_futures = Make(kBondFuturesDay);
  Schedule commodity = [] {
    Schedule s = Make(kCommodityDay);
    s.day_auction = {85500, 90000, P::kOpeningAuction};
    return s;
  }();
  std::map<std::string, Schedule> products = [this] {
    std::map<std::string, Schedule> map;
    for (const auto& [code, end] : kNightEnds) {
      Schedule s = commodity;
      s.night_end = end;
      map.emplace(code, s);
    }
    return map;
  }();
};

const Schedules& All() {
  static const Schedules schedules;
  return schedules;
}

int Seconds(int32_t hhmmss) { return hhmmss / 10000 * 3600 + hhmmss / 100 % 100 * 60 + hhmmss % 100; }

bool Crosses(const Schedule& s) { return s.night_end != 0 && s.night_end < 210000; }

// The day part's segments, with the day's own auction when no night
// session opened the trading day.
std::vector<Segment> DaySegments(const Schedule& s, bool night_before) {
  std::vector<Segment> day;
  if (!night_before && s.day_auction.to != 0) day.push_back(s.day_auction);
  day.insert(day.end(), s.day.begin(), s.day.end());
  return day;
}

bool NightBefore(const Schedule& s, int32_t trading_day) {
  return s.night_end != 0 && night_session_on(previous_trading_day(trading_day));
}

}  // namespace

const Schedule& schedule_of(const Market& market, const Instrument& item) {
  const Schedules& all = All();
  switch (market.id) {
    case kSH:
    case kSZ:
      return item.type_code == kTypeStarStock || item.type_code == kTypeChiNextStock ? all.after_hours : all.stock;
    case kHK:
      return all.hong_kong;
    case kZJ:
      return item.code[0] == 'T' ? all.bond_futures : all.index_futures;
    default:
      break;
  }
  size_t letters = 0;
  while (letters < item.code.size() && std::isalpha(static_cast<unsigned char>(item.code[letters]))) ++letters;
  auto it = all.products.find(item.code.substr(0, letters));
  return it != all.products.end() ? it->second : all.commodity;
}

bool night_session_on(int32_t date) {
  if (!is_trading_day(date)) return false;
  int32_t next = next_trading_day(date);
  for (int32_t day = add_days(date, 1); day < next; day = add_days(day, 1)) {
    if (!is_weekend(day)) return false;
  }
  return true;
}

Moment moment_at(const Schedule& s, int32_t date, int32_t t) {
  Moment m;
  if (s.night_end != 0 && t >= 205500) {
    if (!night_session_on(date)) return m;
    m.session_day = true;
    m.opened = t >= 210000;
    m.closed = false;
    m.phase = t < 210000 ? P::kOpeningAuction : Crosses(s) || t < s.night_end ? P::kContinuous : P::kClosed;
    return m;
  }
  if (Crosses(s) && t < 60000 && night_session_on(add_days(date, -1))) {
    m.session_day = true;
    m.closed = false;
    m.phase = t < s.night_end ? P::kContinuous : P::kClosed;
    return m;
  }
  if (!(s.connect ? is_connect_day(date) : is_trading_day(date))) return m;
  m.session_day = true;
  bool night_before = NightBefore(s, date);
  std::vector<Segment> day = DaySegments(s, night_before);
  int32_t open_match = day.front().from;
  int32_t close_match = day.back().to;
  for (const Segment& segment : day) {
    if (segment.phase == P::kOpeningAuction) open_match = segment.to;
    // The last continuous or closing segment ends the day's trading.
    if (segment.phase == P::kContinuous || segment.phase == P::kClosingAuction) close_match = segment.to;
  }
  m.opened = night_before || t >= open_match;
  m.closed = t >= close_match;
  m.phase = t < day.front().from ? P::kPreOpen : P::kClosed;
  for (const Segment& segment : day) {
    if (t >= segment.from && t < segment.to) m.phase = segment.phase;
  }
  return m;
}

int phase_code(Phase phase) {
  switch (phase) {
    case P::kPreOpen:
      return 11;
    case P::kOpeningAuction:
    case P::kPreTrading:
      return 12;
    case P::kContinuous:
    case P::kClosingAuction:
      return 13;
    case P::kBreak:
      return 14;
    case P::kAfterHours:
    case P::kClosed:
      break;
  }
  return 15;
}

bool any_market_trading(int32_t date, int32_t hhmmss) {
  const Schedules& all = All();
  for (const Schedule* s : {&all.stock, &all.hong_kong, &all.index_futures, &all.bond_futures, &all.commodity}) {
    if (moment_at(*s, date, hhmmss).phase == P::kContinuous) return true;
  }
  for (const auto& [code, s] : all.products) {
    if (moment_at(s, date, hhmmss).phase == P::kContinuous) return true;
  }
  return false;
}

std::vector<std::pair<int32_t, int32_t>> session_minutes(const Schedule& s, int32_t trading_day) {
  std::vector<std::pair<int32_t, int32_t>> minutes;
  auto add = [&minutes](int32_t date, int32_t from, int32_t to) {
    for (int sec = Seconds(from); sec < Seconds(to); sec += 60) {
      minutes.push_back({date, sec / 3600 * 10000 + sec / 60 % 60 * 100});
    }
  };
  bool night_before = NightBefore(s, trading_day);
  if (night_before) {
    int32_t evening = previous_trading_day(trading_day);
    add(evening, 210000, Crosses(s) ? 240000 : s.night_end);
    if (Crosses(s)) add(add_days(evening, 1), 0, s.night_end);
  }
  for (const Segment& segment : DaySegments(s, night_before)) {
    if (segment.phase == P::kContinuous || segment.phase == P::kClosingAuction) add(trading_day, segment.from, segment.to);
  }
  return minutes;
}

}  // namespace sim
