#include "dataapi/sim/history.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/quotes.h"
#include "dataapi/sim/sessions.h"

namespace sim {

namespace {

// A 64-bit finaliser over two words: the history's own hash, independent of
// the real-time walk's draws.
uint64_t Hash(uint64_t a, uint64_t b) {
  uint64_t h = a ^ (b + 0x632BE59BD9B4E019ULL + (a << 6) + (a >> 2));
  h = (h ^ (h >> 33)) * 0xFF51AFD7ED558CCDULL;
  h = (h ^ (h >> 33)) * 0xC4CEB9FE1A85EC53ULL;
  return h ^ (h >> 33);
}

// -span .. span.
int64_t Draw(uint64_t h, int shift, int64_t span) {
  return static_cast<int64_t>((h >> shift) % static_cast<uint64_t>(2 * span + 1)) - span;
}

// One trading day of an instrument; prices in units of its digits.
struct Day {
  int32_t date = 0;
  int64_t pre_close = 0, open = 0, high = 0, low = 0, close = 0;
  int64_t volume = 0;  // shares
  uint64_t h = 0;
};

struct Series {
  const Market& market;
  const Instrument& item;
  int64_t tick;
  int64_t lot;
  uint64_t seed;

  double index_share_price = 0;  // an index's: the average price of the market's shares

  Series(const Universe& universe, const Market& m, const Instrument& i)
      : market(m), item(i), tick(std::max<int64_t>(1, i.tick_units)), lot(i.volume_unit > 0 ? i.volume_unit : 100) {
    seed = Hash(universe.seed(), m.id);
    for (char c : i.code) seed = Hash(seed, static_cast<uint8_t>(c));
    if (i.type_code == kTypeIndex || i.type_code == kTypeHKIndex) {
      double sum = 0;
      int n = 0;
      for (const Instrument& share : m.instruments) {
        if (!share.is_stock() && share.type_code != kTypeHKStock) continue;
        sum += share.pre_close();
        ++n;
      }
      index_share_price = n > 0 ? sum / n : 10.0;
      lot = 100000;
    }
  }

  int64_t Snap(int64_t units) const { return item.snap(units); }

  // Ten-thousandths of a price in units.
  int32_t Wire(int64_t units) const {
    int64_t v = units;
    for (int d = item.price_digits; d < 4; ++d) v *= 10;
    for (int d = item.price_digits; d > 4; --d) v /= 10;
    return static_cast<int32_t>(std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
  }
  // Turnover: price x volume x the contract's multiplier; an index's from
  // its shares, at the average price of the market's shares.
  int64_t Amount(int64_t shares, int64_t units) const {
    if (index_share_price > 0) return std::llround(static_cast<double>(shares) * index_share_price);
    return std::llround(static_cast<double>(shares) * static_cast<double>(units) * static_cast<double>(item.multiplier) /
                        item.scale());
  }

  // The trading days from first to last. Closes walk back from the reference
  // close, which is the close of the day before the market's trading day,
  // and keep within a band around it.
  std::vector<Day> Days(int32_t first, int32_t last) const {
    first = std::max(first, static_cast<int32_t>(item.list_date));
    last = std::min(last, market.trade_date);
    if (first < 19900101 || first > last) return {};
    const int32_t anchor = previous_trading_day(market.trade_date);
    std::vector<int32_t> dates = trading_days(std::min(first, anchor), market.trade_date);
    if (dates.empty()) return {};
    const int64_t pre = std::max(tick, item.pre_close_units);
    std::vector<Day> days(dates.size());
    for (size_t i = 0; i < dates.size(); ++i) {
      days[i].date = dates[i];
      days[i].h = Hash(seed, static_cast<uint64_t>(dates[i]));
    }
    size_t at = static_cast<size_t>(std::lower_bound(dates.begin(), dates.end(), anchor) - dates.begin());
    at = std::min(at, days.size() - 1);
    days[at].close = pre;
    for (size_t i = at; i-- > 0;) {
      int64_t later = days[i + 1].close;
      int64_t r = Draw(days[i + 1].h, 0, 20);  // per mille
      if (later > 3 * pre) r = std::abs(r);
      if (later * 3 < pre) r = -std::abs(r);
      days[i].close = Snap(later * 1000 / (1000 + r));
    }
    for (size_t i = at + 1; i < days.size(); ++i) days[i].close = Snap(days[i - 1].close * (1000 + Draw(days[i].h, 0, 20)) / 1000);
    std::vector<Day> out;
    for (size_t i = 0; i < days.size(); ++i) {
      Day& d = days[i];
      if (d.date < first || d.date > last) continue;
      d.pre_close = i > 0 ? days[i - 1].close : d.close;
      d.open = Snap(d.pre_close * (1000 + Draw(d.h, 12, 5)) / 1000);
      d.high = Snap(std::max(d.open, d.close) * (1000 + Draw(d.h, 20, 6) + 6) / 1000);
      d.low = Snap(std::min(d.open, d.close) * (1000 - Draw(d.h, 28, 6) - 6) / 1000);
      d.volume = (2000 + static_cast<int64_t>((d.h >> 36) % 30000)) * lot;
      out.push_back(d);
    }
    return out;
  }

  // Session minutes of a trading day: (element date, HHMMSS of the first
  // second), as the product's schedule has them.
  std::vector<std::pair<int32_t, int32_t>> Minutes(int32_t date) const {
    return session_minutes(schedule_of(market, item), date);
  }

  // Prices at the minute marks of the day, from its open to its close inside
  // its range.
  std::vector<int64_t> Path(const Day& d, size_t n) const {
    std::vector<int64_t> p(n + 1);
    const int64_t half_range = (d.high - d.low) / 2;
    for (size_t k = 0; k <= n; ++k) {
      int64_t line = d.open + (d.close - d.open) * static_cast<int64_t>(k) / static_cast<int64_t>(n);
      int64_t bump = Draw(Hash(d.h, k), 0, 1000) * half_range / 1000 * 4 * static_cast<int64_t>(k * (n - k)) /
                     static_cast<int64_t>(n * n);
      p[k] = std::clamp(Snap(line + bump), d.low, d.high);
    }
    return p;
  }

  int64_t MinuteVolume(const Day& d, size_t n, size_t k) const {
    return (d.volume / static_cast<int64_t>(n) / lot + static_cast<int64_t>(Hash(d.h, k + n) % 5)) * lot;
  }

  std::vector<ApiHisBar> Bars(int32_t kline_type, int32_t first, int32_t last) const {
    std::vector<ApiHisBar> bars;
    for (const Day& d : Days(first, last)) {
      if (kline_type == 1) {
        ApiHisBar b{};
        b.date = d.date;
        b.volume = d.volume;
        b.amount = Amount(d.volume, (d.open + d.close) / 2);
        b.open = Wire(d.open);
        b.high = Wire(d.high);
        b.low = Wire(d.low);
        b.close = Wire(d.close);
        bars.push_back(b);
        continue;
      }
      auto minutes = Minutes(d.date);
      auto p = Path(d, minutes.size());
      for (size_t k = 0; k < minutes.size(); ++k) {
        ApiHisBar b{};
        b.date = minutes[k].first;
        b.time = minutes[k].second;
        b.volume = MinuteVolume(d, minutes.size(), k);
        b.amount = Amount(b.volume, (p[k] + p[k + 1]) / 2);
        b.open = Wire(p[k]);
        b.close = Wire(p[k + 1]);
        b.high = Wire(std::max(p[k], p[k + 1]));
        b.low = Wire(std::min(p[k], p[k + 1]));
        bars.push_back(b);
      }
    }
    return bars;
  }

  // A snapshot every three seconds of the sessions.
  std::vector<ApiHisTickL1> Level1Ticks(int32_t first, int32_t last) const {
    std::vector<ApiHisTickL1> ticks;
    const bool futures = market.market_type == 2;
    for (const Day& d : Days(first, last)) {
      auto minutes = Minutes(d.date);
      auto p = Path(d, minutes.size());
      int64_t volume = 0, high = d.open, low = d.open;
      double amount = 0;
      uint32_t trades = 0;
      for (size_t k = 0; k < minutes.size(); ++k) {
        int64_t step = MinuteVolume(d, minutes.size(), k) / 20;
        for (int j = 0; j < 20; ++j) {
          int64_t price = Snap(p[k] + (p[k + 1] - p[k]) * j / 20);
          high = std::max(high, price);
          low = std::min(low, price);
          volume += step;
          amount += static_cast<double>(Amount(step, price));
          trades += step > 0 ? 1 : 0;
          ApiHisTickL1 t{};
          t.date = minutes[k].first;
          int32_t hhmmss = minutes[k].second + j * 3;
          t.time = hhmmss * 1000;
          t.last = Wire(price);
          t.trade_count = static_cast<int32_t>(trades);
          t.amount = std::llround(amount);
          t.volume = volume;
          t.open = Wire(d.open);
          t.high = Wire(high);
          t.low = Wire(low);
          t.pre_close = Wire(d.pre_close);
          uint64_t h = Hash(d.h, k * 20 + j);
          int64_t bid = price, ask = price;
          for (int l = 0; l < 5; ++l) {
            ask += item.tick_above(ask);
            t.bid_price[l] = Wire(bid);
            t.ask_price[l] = Wire(ask);
            bid = std::max(item.tick_at(1), bid - item.tick_at(bid));
            t.bid_volume[l] = static_cast<int32_t>(((h >> (4 * l)) % 40) * lot + (l == 4 ? lot / 2 : 0));
            t.ask_volume[l] = static_cast<int32_t>(((h >> (4 * l + 20)) % 40 + 1) * lot);
          }
          if (futures) {
            t.status = phase_code(moment_at(schedule_of(market, item), minutes[k].first, hhmmss).phase);
            t.pre_settle = Wire(d.pre_close);
          }
          ticks.push_back(t);
        }
      }
    }
    return ticks;
  }

  // After-hours fixed-price trading at the close, 15:05 to 15:30, every 30
  // seconds; only the STAR and ChiNext boards have it.
  std::vector<ApiHisTickKcb> AfterHoursTicks(int32_t first, int32_t last) const {
    std::vector<ApiHisTickKcb> ticks;
    if (item.type_code != kTypeStarStock && item.type_code != kTypeChiNextStock) return ticks;
    for (const Day& d : Days(first, last)) {
      int64_t volume = 0, amount = 0;
      for (int32_t s = 0; s <= 25 * 60; s += 30) {
        uint64_t h = Hash(d.h, static_cast<uint64_t>(s) + 100000);
        int64_t traded = static_cast<int64_t>(h % 4) * lot;
        volume += traded;
        amount += Amount(traded, d.close);
        ApiHisTickKcb t{};
        t.date = d.date;
        t.time = (150500 + s / 60 * 100 + s % 60) * 1000;
        t.price = Wire(d.close);
        t.volume = volume;
        t.amount = amount;
        t.bid_volume = static_cast<int32_t>((h >> 8) % 6) * static_cast<int32_t>(lot) / 2;
        t.ask_volume = static_cast<int32_t>((h >> 16) % 6) * static_cast<int32_t>(lot) / 2;
        ticks.push_back(t);
      }
    }
    return ticks;
  }
};

// The elements in blocks of head and at most kHistoryBlockElements elements,
// with room for one element at least (what the library's adapter copies).
template <typename Head, typename Element>
std::vector<Bytes> Blocks(Head head, const std::vector<Element>& elements) {
  std::vector<Bytes> blocks;
  size_t at = 0;
  do {
    size_t n = std::min(kHistoryBlockElements, elements.size() - at);
    head.count = static_cast<int32_t>(n);
    head.last = at + n == elements.size() ? 1 : 0;
    Bytes bytes(sizeof(Head) + std::max<size_t>(n, 1) * sizeof(Element), 0);
    std::memcpy(bytes.data(), &head, sizeof(Head));
    if (n > 0) std::memcpy(bytes.data() + sizeof(Head), elements.data() + at, n * sizeof(Element));
    blocks.push_back(std::move(bytes));
    at += n;
  } while (at < elements.size());
  return blocks;
}

template <typename Head>
Head BlockHead(uint16_t id, const Market& market, const Instrument& item) {
  Head head{};
  head.request_id = static_cast<int16_t>(id);
  head.market_id = market.id;
  put_text(head.code, item.code);
  return head;
}

}  // namespace

std::vector<Bytes> history_blocks(const Universe& universe, HistoryKind kind, const void* request) {
  if (request == nullptr) return {};
  const bool bar_kind = kind == HistoryKind::kBars;
  HisBarRequest bars{};
  HisTickRequest ticks{};
  if (bar_kind) {
    std::memcpy(&bars, request, sizeof(bars));
  } else {
    std::memcpy(&ticks, request, sizeof(ticks));
  }
  const Market* market = universe.market(bar_kind ? bars.market : ticks.market);
  if (market == nullptr) return {};
  char code[sizeof(bars.code) + 1] = {};
  std::memcpy(code, bar_kind ? bars.code : ticks.code, sizeof(bars.code));
  int index = find_instrument(*market, code);
  if (index < 0) return {};
  Series series(universe, *market, market->instruments[static_cast<size_t>(index)]);
  const Instrument& item = series.item;
  switch (kind) {
    case HistoryKind::kBars: {
      if (bars.kline_type != 1 && bars.kline_type != 7) return {};
      auto head = BlockHead<ApiHisDataRsp>(bars.request_id, *market, item);
      head.kline_type = bars.kline_type;
      return Blocks(head, series.Bars(bars.kline_type, bars.start_date, bars.end_date));
    }
    case HistoryKind::kLevel1Ticks:
      return Blocks(BlockHead<ApiL1NewHisTickResp>(ticks.request_id, *market, item),
                    series.Level1Ticks(ticks.start_date, ticks.end_date));
    case HistoryKind::kAfterHoursTicks:
      return Blocks(BlockHead<ApiHisTickKcbResp>(ticks.request_id, *market, item),
                    series.AfterHoursTicks(ticks.start_date, ticks.end_date));
  }
  return {};
}

std::vector<Bytes> with_fault(HistoryFault fault, std::vector<Bytes> blocks) {
  if (blocks.empty()) return blocks;
  switch (fault) {
    case HistoryFault::kLoseLast:
      blocks.pop_back();
      break;
    case HistoryFault::kDuplicate:
      blocks.insert(blocks.begin(), blocks.front());
      break;
    case HistoryFault::kUnknownId: {
      Bytes stray = blocks.front();
      // Every block head begins with the request id.
      std::memcpy(stray.data(), &kStrayHistoryId, sizeof(kStrayHistoryId));
      blocks.insert(blocks.begin(), std::move(stray));
      break;
    }
    case HistoryFault::kNone:
    case HistoryFault::kDelay:
      break;
  }
  return blocks;
}

}  // namespace sim
