// The simulated service's financial data. Texts are GBK: this file is
// compiled with the GBK execution character set.
#include "dataapi/sim/finance.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>

#include "dataapi/sim/replies.h"
#include "dataapi/sim/sim_api.h"
#include "dataapi/sim/sim_control.h"

namespace sim {

namespace {

// Raw output of mt19937_64 only, as the universe draws: the same figures on
// every platform. One stream per share and salt.
class Draw {
 public:
  Draw(uint64_t seed, const std::string& code, int64_t salt) : engine_(Seed(seed, code, salt)) {}
  double unit() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }
  double between(double lo, double hi) { return lo + (hi - lo) * unit(); }
  int64_t range(int64_t lo, int64_t hi) { return lo + static_cast<int64_t>(engine_() % static_cast<uint64_t>(hi - lo + 1)); }

 private:
  static uint64_t Seed(uint64_t seed, const std::string& code, int64_t salt) {
    uint64_t h = 1469598103934665603ULL ^ seed;
    for (char c : code) h = (h ^ static_cast<uint8_t>(c)) * 1099511628211ULL;
    return (h ^ static_cast<uint64_t>(salt)) * 1099511628211ULL;
  }
  std::mt19937_64 engine_;
};

double Cents(double value) { return std::round(value * 100) / 100; }

// Month and day of the quarters' ends.
const int32_t kEnds[] = {331, 630, 930, 1231};

struct ReportPeriod {
  int32_t end;       // yyyymmdd
  int32_t announce;  // yyyymmdd
  int32_t type;      // 1 to 4: quarters of the year
  int back;          // periods before the newest
};

// The latest periods published by trade_date, newest first; none ends
// before the share listed.
std::vector<ReportPeriod> Periods(const Instrument& stock, uint64_t seed, int32_t trade_date, size_t most) {
  static const int32_t kAnnounceMonth[] = {400, 800, 1000, 10300};  // the year's report: next March
  std::vector<ReportPeriod> periods;
  for (int32_t year = trade_date / 10000; year > trade_date / 10000 - 4 && periods.size() < most; --year) {
    for (int type = 4; type >= 1 && periods.size() < most; --type) {
      int32_t end = year * 10000 + kEnds[type - 1];
      if (end < static_cast<int32_t>(stock.list_date)) return periods;
      Draw draw(seed, stock.code, end);
      int32_t announce = year * 10000 + kAnnounceMonth[type - 1] + static_cast<int32_t>(draw.range(15, 29));
      if (announce <= trade_date) periods.push_back({end, announce, type, static_cast<int>(periods.size())});
    }
  }
  return periods;
}

// n parts of total, none negative, that add up to it.
std::vector<int64_t> Split(Draw& draw, int64_t total, size_t n) {
  std::vector<int64_t> weights(n);
  int64_t sum = 0;
  for (int64_t& w : weights) sum += (w = draw.range(1, 10));
  std::vector<int64_t> parts(n);
  int64_t left = total;
  for (size_t i = 0; i + 1 < n; ++i) left -= (parts[i] = total * weights[i] / sum);
  parts[n - 1] = left;
  return parts;
}

// One period's statements. Money in ten thousand yuan; the balance sheet and
// the cash flows in whole units, so that their sums stay exact in floats.
struct Report {
  std::array<double, 123> balance{};
  std::array<double, 60> income{};
  std::array<double, 92> cash_flow{};
  std::array<double, 41> per_share{};
  std::array<double, 3> capital{};
};

void Place(std::array<double, 123>& items, int at, const std::vector<int64_t>& parts) {
  for (size_t i = 0; i < parts.size(); ++i) items[at + i] = static_cast<double>(parts[i]);
}

Report ReportOf(const Instrument& stock, uint64_t seed, int32_t trade_date, const ReportPeriod& period) {
  Draw traits(seed, stock.code, 0);  // the same for every period of the share
  const double growth = traits.between(-0.10, 0.25);
  const double margin = traits.between(0.04, 0.25);
  const double leverage = traits.between(0.20, 0.75);
  const double minority_share = traits.between(0.0, 0.08);
  Draw draw(seed, stock.code, period.end);
  const double shares = static_cast<double>(stock.total_shares);
  Report r;

  // The last full year earns the share's earnings per share.
  double profit = stock.eps * shares / 10000;
  for (int y = period.end / 10000; y < trade_date / 10000 - 1; ++y) profit /= 1 + growth;
  for (int y = trade_date / 10000 - 1; y < period.end / 10000; ++y) profit *= 1 + growth;
  profit = Cents(profit * period.type / 4 * (period.type == 4 ? 1 : draw.between(0.92, 1.08)));
  auto& in = r.income;
  double minority_profit = Cents(profit * minority_share);
  double net = profit + minority_profit;
  double tax = net > 0 ? Cents(net / 3) : 0;
  double revenue = Cents(std::fabs(profit) / margin * draw.between(0.95, 1.05));
  in[income::kRevenue] = in[1] = revenue;
  in[21] = Cents(revenue * 0.002);
  in[22] = Cents(revenue * 0.001);
  in[income::kTotalProfit] = net + tax;
  in[income::kOperatingProfit] = in[income::kTotalProfit] - in[21] + in[22];
  double costs = in[income::kOperatingCosts] = revenue - in[income::kOperatingProfit];
  const double cost_shares[] = {0.75, 0.01, 0.06, 0.08, 0.05};
  for (int i = 0; i < 5; ++i) costs -= (in[3 + i] = Cents(in[income::kOperatingCosts] * cost_shares[i]));
  in[8] = costs;
  in[income::kIncomeTax] = tax;
  in[income::kNetProfit] = net;
  in[income::kParentNetProfit] = profit;
  in[27] = minority_profit;
  in[income::kBasicEps] = in[29] = std::round(profit * 10000 / shares * 10000) / 10000;

  // Equity from the net assets per share, growing into the present.
  auto& b = r.balance;
  int64_t parent = std::llround(stock.net_assets_per_share * shares / 10000 * (1 - 0.015 * period.back));
  int64_t minority = std::llround(static_cast<double>(parent) * minority_share);
  int64_t equity = parent + minority;
  int64_t assets = std::llround(static_cast<double>(equity) / (1 - leverage));
  int64_t liabilities = assets - equity;
  int64_t current_assets = std::llround(static_cast<double>(assets) * draw.between(0.3, 0.7));
  int64_t current_liabilities = std::llround(static_cast<double>(liabilities) * draw.between(0.5, 0.9));
  Place(b, 0, Split(draw, current_assets, 8));
  Place(b, 11, Split(draw, assets - current_assets, 8));
  Place(b, 27, Split(draw, current_liabilities, 8));
  Place(b, 38, Split(draw, liabilities - current_liabilities, 4));
  int64_t capital = stock.total_shares / 10000;
  int64_t rest = parent - capital;
  int64_t reserve = rest > 0 ? rest * 4 / 10 : 0;
  int64_t surplus = rest > 0 ? rest / 10 : 0;
  Place(b, balance::kShareCapital, {capital, reserve, surplus, rest - reserve - surplus, parent, minority, equity});
  b[balance::kCurrentAssets] = static_cast<double>(current_assets);
  b[balance::kNonCurrentAssets] = static_cast<double>(assets - current_assets);
  b[balance::kTotalAssets] = static_cast<double>(assets);
  b[balance::kCurrentLiabilities] = static_cast<double>(current_liabilities);
  b[balance::kNonCurrentLiabilities] = static_cast<double>(liabilities - current_liabilities);
  b[balance::kTotalLiabilities] = static_cast<double>(liabilities);
  b[balance::kLiabilitiesAndEquity] = static_cast<double>(liabilities + equity);

  // Cash flows that end at the balance sheet's cash.
  auto& c = r.cash_flow;
  int64_t end_cash = std::llround(b[balance::kCash]);
  int64_t operating = std::llround(profit * draw.between(0.6, 1.4));
  int64_t investing = -std::llround(static_cast<double>(assets) * draw.between(0.01, 0.06) * period.type / 4);
  int64_t financing = std::llround(static_cast<double>(liabilities) * draw.between(-0.03, 0.03));
  if (end_cash - (operating + investing + financing) < 0) financing -= operating + investing + financing - end_cash / 2;
  int64_t paid_out = std::llround(revenue * draw.between(0.7, 0.9));
  int64_t invested_in = std::llround(static_cast<double>(-investing) * draw.between(0.1, 0.5));
  int64_t raised = std::llround(static_cast<double>(liabilities) * draw.between(0.02, 0.08));
  const int64_t flows[][2] = {{3, paid_out + operating}, {8, paid_out}, {cash_flow::kOperatingNet, operating},
                              {20, invested_in}, {21, invested_in - investing}, {cash_flow::kInvestingNet, investing},
                              {30, raised}, {31, raised - financing}, {cash_flow::kFinancingNet, financing},
                              {cash_flow::kNetChange, operating + investing + financing},
                              {cash_flow::kBeginCash, end_cash - operating - investing - financing},
                              {cash_flow::kEndCash, end_cash}};
  for (const auto& flow : flows) c[flow[0]] = static_cast<double>(flow[1]);

  auto per = [&](double wan) { return std::round(wan * 10000 / shares * 10000) / 10000; };
  auto& p = r.per_share;
  p[per_share::kEps] = p[1] = in[income::kBasicEps];
  p[per_share::kBookValue] = per(static_cast<double>(parent));
  p[per_share::kOperatingCashFlow] = per(static_cast<double>(operating));
  p[4] = per(static_cast<double>(reserve));
  p[5] = per(static_cast<double>(rest - reserve - surplus));
  p[per_share::kRoe] = Cents(profit / static_cast<double>(parent) * 100);
  p[7] = Cents((revenue - in[3]) / revenue * 100);
  p[8] = Cents(net / revenue * 100);
  p[per_share::kDebtRatio] = Cents(static_cast<double>(liabilities) / static_cast<double>(assets) * 100);
  p[10] = Cents(static_cast<double>(current_assets) / static_cast<double>(current_liabilities));

  r.capital = {shares, static_cast<double>(stock.float_shares),
               static_cast<double>(stock.total_shares - stock.float_shares)};
  return r;
}

template <typename Item>
Item Dated(const Instrument& stock, const ReportPeriod& period) {
  Item item;
  std::memset(&item, 0, sizeof(item));
  put_text(item.code, stock.code);
  item.report_date = period.end;
  item.announce_date = period.announce;
  return item;
}

template <typename Item, size_t N>
Item Statement(const Instrument& stock, const ReportPeriod& period, const std::array<double, N>& values) {
  static_assert(sizeof(Item::items) / sizeof(Item::items[0]) == N);
  auto item = Dated<Item>(stock, period);
  item.report_type = period.type;
  using Value = std::remove_reference_t<decltype(item.items[0])>;
  for (size_t i = 0; i < N; ++i) item.items[i] = static_cast<Value>(values[i]);
  return item;
}

// Holders at a quarter's end: the share's usual number, drifting a little.
int32_t Holders(const Instrument& stock, uint64_t seed, int32_t end) {
  double usual = static_cast<double>(stock.total_shares) / static_cast<double>(Draw(seed, stock.code, 3).range(8000, 60000));
  Draw draw(seed, stock.code, -end);
  return static_cast<int32_t>(std::max(1000.0, usual * draw.between(0.9, 1.1)));
}

ApiSHNumberItem HolderNumber(const Instrument& stock, uint64_t seed, const ReportPeriod& period) {
  auto item = Dated<ApiSHNumberItem>(stock, period);
  int32_t year = period.end / 10000;
  int32_t before = period.type == 1 ? (year - 1) * 10000 + kEnds[3] : year * 10000 + kEnds[period.type - 2];
  item.holders = Holders(stock, seed, period.end);
  item.previous_holders = Holders(stock, seed, before);
  item.restricted_holders = stock.total_shares > stock.float_shares ? static_cast<int32_t>(Draw(seed, stock.code, 4).range(1, 30)) : 0;
  item.float_holders = item.holders - item.restricted_holders;
  item.shares_per_holder = Cents(static_cast<double>(stock.total_shares) / item.holders);
  item.change_pct = Cents((item.holders - item.previous_holders) * 100.0 / item.previous_holders);
  return item;
}

struct HolderName {
  const char* name;
  const char* kind;
};
const HolderName kHolders[] = {
    {"香港中央结算有限公司", "境外法人"},
    {"中国证券金融股份有限公司", "境内一般法人"},
    {"中央汇金资产管理有限责任公司", "国有法人"},
    {"全国社保基金一零三组合", "基金、理财产品等"},
    {"基本养老保险基金八零二组合", "基金、理财产品等"},
    {"招商银行股份有限公司－兴全合润混合型证券投资基金", "基金、理财产品等"},
    {"中国人寿保险股份有限公司－传统－普通保险产品", "基金、理财产品等"},
    {"华夏人寿保险股份有限公司－自有资金", "境内一般法人"},
    {"张伟", "境内自然人"},
    {"王芳", "境内自然人"},
    {"李建国", "境内自然人"},
    {"陈静", "境内自然人"},
    {"刘洋", "境内自然人"},
};

// The ten largest holders of all shares, or of the tradable ones. The first
// is the share's parent company; the stakes fall and add up to less than the
// whole.
ApiTopHolderItem TopTen(const Instrument& stock, uint64_t seed, const ReportPeriod& period, bool tradable) {
  const int64_t base = tradable ? stock.float_shares : stock.total_shares;
  Draw traits(seed, stock.code, tradable ? 1 : 2);
  Draw draw(seed, stock.code, period.end * 4 + (tradable ? 1 : 2));
  std::vector<int> order(std::size(kHolders));
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<int>(i);
  for (size_t i = order.size() - 1; i > 0; --i) std::swap(order[i], order[traits.range(0, static_cast<int64_t>(i))]);

  // The company's name without the marks of special treatment or a first day.
  size_t mark = stock.name.find_first_not_of("*STN");
  std::string prefix = mark == std::string::npos ? stock.name : stock.name.substr(mark);
  auto item = Dated<ApiTopHolderItem>(stock, period);
  item.holder_count = 10;
  double stake = traits.between(0.15, 0.45) * draw.between(0.97, 1.03);
  int64_t held = 0;
  for (int i = 0; i < 10; ++i) {
    ApiShareHolder& h = item.holders[i];
    int64_t shares = std::min<int64_t>(std::llround(static_cast<double>(base) * stake), (base * 95 / 100 - held) / 2);
    shares = shares / 100 * 100;
    held += shares;
    put_text(h.name, i == 0 ? prefix.substr(0, 4) + "集团有限公司" : kHolders[order[i - 1]].name);
    put_text(h.kind, i == 0 ? "境内一般法人" : kHolders[order[i - 1]].kind);
    h.shares = shares;
    put_text(h.share_kind, !tradable && i == 0 && stock.float_shares < stock.total_shares ? "限售流通A股" : "流通A股");
    h.ratio = Cents(static_cast<double>(shares) * 100 / static_cast<double>(base));
    int64_t moved = draw.range(-3, 3) * shares / 100 / 100 * 100;
    std::string change = moved == 0 ? "不变" : (moved > 0 ? "增加 " : "减少 ") + std::to_string(std::llabs(moved));
    put_text(h.change, i > 2 && draw.range(0, 9) == 0 ? "新进" : change);
    h.rank = i + 1;
    stake *= traits.between(0.3, 0.8);
  }
  return item;
}

template <int Kind, typename Item>
Bytes Pack(const FinanceRequest& request, const std::vector<Item>& items, bool negative) {
  ApiFinanceRsp<Kind> head;
  std::memset(&head, 0, sizeof(head));
  head.request_id = request.request_id;
  head.market = request.market;
  std::memcpy(head.code, request.code, sizeof(head.code));
  size_t used = negative ? 0 : items.size();
  head.count = negative ? -1 : static_cast<int32_t>(used);
  // The adapter copies one element's room even for none.
  Bytes bytes(sizeof(head) + std::max<size_t>(used, 1) * sizeof(Item), 0);
  std::memcpy(bytes.data(), &head, sizeof(head));
  if (used > 0) std::memcpy(bytes.data() + sizeof(head), items.data(), used * sizeof(Item));
  return bytes;
}

std::atomic<int> g_modes[8];

int KindIndex(int kind) {
  for (int i = 0; i < 8; ++i) {
    if (kind == 1 << i) return i;
  }
  return -1;
}

}  // namespace

bool set_finance_mode(int kind, FinanceMode mode) {
  int index = KindIndex(kind);
  if (index < 0 || mode < FinanceMode::kNormal || mode > FinanceMode::kNegativeCount) return false;
  g_modes[index].store(static_cast<int>(mode));
  return true;
}

FinanceMode finance_mode(int kind) {
  int index = KindIndex(kind);
  return index < 0 ? FinanceMode::kNormal : static_cast<FinanceMode>(g_modes[index].load());
}

Bytes finance_reply(int kind, const FinanceRequest& request, const Instrument* stock, uint64_t seed,
                    int32_t trade_date, bool negative) {
  std::vector<ReportPeriod> periods;
  if (stock != nullptr) periods = Periods(*stock, seed, trade_date, kind >= 64 ? kHolderPeriods : kStatementPeriods);
  std::vector<Report> reports;
  if (kind <= 16) {
    for (const ReportPeriod& period : periods) reports.push_back(ReportOf(*stock, seed, trade_date, period));
  }
  auto statements = [&](auto item, auto field) {
    std::vector<decltype(item)> items;
    for (size_t i = 0; i < periods.size(); ++i) {
      items.push_back(Statement<decltype(item)>(*stock, periods[i], reports[i].*field));
    }
    return items;
  };
  auto holders = [&](bool tradable) {
    std::vector<ApiTopHolderItem> items;
    for (const ReportPeriod& period : periods) items.push_back(TopTen(*stock, seed, period, tradable));
    return items;
  };
  switch (kind) {
    case 1: return Pack<1>(request, statements(ApiBalanceSheetItem{}, &Report::balance), negative);
    case 2: return Pack<2>(request, statements(ApiIncomeStatementItem{}, &Report::income), negative);
    case 4: return Pack<4>(request, statements(ApiCashFlowItem{}, &Report::cash_flow), negative);
    case 8: return Pack<8>(request, statements(ApiFinancialDataItem{}, &Report::per_share), negative);
    case 16: return Pack<16>(request, statements(ApiShareItem{}, &Report::capital), negative);
    case 32: {
      std::vector<ApiSHNumberItem> items;
      for (const ReportPeriod& period : periods) items.push_back(HolderNumber(*stock, seed, period));
      return Pack<32>(request, items, negative);
    }
    case 64: return Pack<64>(request, holders(false), negative);
    default: return Pack<128>(request, holders(true), negative);
  }
}

int SimDataApi::finance(int kind, const FinanceRequest* request) {
  static const std::pair<int, Handler> kAnswers[] = {
      {1, &CDataApiCallBack::OnRespBalanceSheetData},    {2, &CDataApiCallBack::OnRespIncomeStatData},
      {4, &CDataApiCallBack::OnRespCashFlowData},        {8, &CDataApiCallBack::OnRespFinancialData},
      {16, &CDataApiCallBack::OnRespShareData},          {32, &CDataApiCallBack::OnRespSHNumberData},
      {64, &CDataApiCallBack::OnRespMostShareHolderData}, {128, &CDataApiCallBack::OnRespNegotiableShareHolderData},
  };
  if (request == nullptr) return -1;
  FinanceRequest copy;
  std::memcpy(&copy, request, sizeof(copy));
  FinanceMode mode = finance_mode(kind);
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    const Market* market = universe().market(copy.market);
    if (market == nullptr || (market->id != kSH && market->id != kSZ)) return -1;
    if (mode == FinanceMode::kNever) return 0;
    // Shares have reports; any other code is answered with none.
    std::string code(copy.code, std::find(copy.code, copy.code + sizeof(copy.code), '\0'));
    auto it = std::lower_bound(market->instruments.begin(), market->instruments.end(), code,
                               [](const Instrument& i, const std::string& c) { return i.code < c; });
    const Instrument* stock = it != market->instruments.end() && it->code == code && it->is_stock() ? &*it : nullptr;
    Handler handler = kAnswers[KindIndex(kind)].second;
    replies.emplace_back(handler, finance_reply(kind, copy, stock, universe().seed(), market->trade_date,
                                                mode == FinanceMode::kNegativeCount));
    if (mode == FinanceMode::kTwice) replies.push_back(replies.back());
  }
  deliver(std::move(replies));
  return 0;
}

}  // namespace sim

int SimSetFinanceReply(int kind, int mode) {
  return sim::set_finance_mode(kind, static_cast<sim::FinanceMode>(mode)) ? 0 : -1;
}
