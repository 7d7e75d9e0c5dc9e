#include "dataapi/sim/sim_api.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/replies.h"
#include "dataapi/sim/sim_control.h"
#include "port/port.h"

namespace sim {

namespace {

// KELQUOTE_SIM_CLOCK=yyyymmdd-hhmmss starts the clock there (a date of 0: the
// latest trading day), so that any host, not only one that links this
// control interface, can run a trading session at any hour.
void ApplyClockFromEnvironment(SimDataApi& api) {
  const char* text = std::getenv("KELQUOTE_SIM_CLOCK");
  if (text == nullptr || *text == '\0') return;
  int date = -1, hhmmss = -1;
  char tail = 0;
  bool ok = std::sscanf(text, "%d-%d%c", &date, &hhmmss, &tail) == 2 && date >= 0 && hhmmss >= 0;
  if (ok) {
    if (date == 0) date = trading_day_on_or_before(local_today());
    ok = api.set_clock(date, hhmmss);
  }
  if (!ok) std::fprintf(stderr, "KELQUOTE_SIM_CLOCK=%s is not yyyymmdd-hhmmss: the simulated clock follows the local clock\n", text);
}

}  // namespace

SimDataApi& SimDataApi::instance() {
  // Never destroyed: a host may still call in while the process exits. Its
  // callback thread runs as long, so the library stays loaded.
  static SimDataApi* api = [] {
    static const char anchor = 0;  // an address inside this library
    port::PinModule(&anchor);
    auto* created = new SimDataApi();
    ApplyClockFromEnvironment(*created);
    return created;
  }();
  return *api;
}

const char* SimDataApi::GetVersion() { return "kelquote simulated quote service 1.0"; }

int SimDataApi::RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) {
  std::lock_guard<std::mutex> lock(mu_);
  servers_ = servers != nullptr ? *servers : ServerTable();
  callback_ = callback;
  return 0;
}

int SimDataApi::Connect(ConnectResult* result) {
  std::lock_guard<std::mutex> lock(mu_);
  auto quote = servers_.find(0);
  bool has_quote_server = quote != servers_.end() && quote->second.servers[0].host[0] != '\0';
  if (!has_quote_server || refuse_connect_) {
    // What a vendor library reports when no quote server answers.
    if (result != nullptr) *result = ConnectResult{-1, 0, static_cast<int32_t>(servers_.size())};
    return -1;
  }
  if (result != nullptr) *result = ConnectResult{0, 0, 0};
  connected_ = true;
  // A new seed, or a new day since the universe was built, gives a new one.
  if (universe_ != nullptr &&
      (universe_->seed() != seed_ || trading_day_on_or_before(local_today()) > universe_->trade_date())) {
    universe_.reset();
  }
  universe();
  schedule();
  return 0;
}

int SimDataApi::Release() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    connected_ = false;
    stop_streams();
  }
  // After Release no callback may reach the library, except the one that may
  // be running this Release.
  callbacks_.cancel_all();
  return 0;
}

void SimDataApi::refuse_connect(bool refuse) {
  std::lock_guard<std::mutex> lock(mu_);
  refuse_connect_ = refuse;
}

bool SimDataApi::report_connection(int server, int status) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (callback_ == nullptr) return false;
    if (server == 0 && status != 1) connected_ = false;
    if (server == 0 && status == 1) connected_ = true;
    // A restored connection resumes the streams, as a vendor's library
    // subscribes again by itself.
    schedule();
  }
  deliver([server, status](CDataApiCallBack* callback) { callback->OnConnectStatus(server, status); });
  return true;
}

void SimDataApi::set_seed(uint64_t seed) {
  std::lock_guard<std::mutex> lock(mu_);
  seed_ = seed;
}

bool SimDataApi::change_market(int market_id) {
  Reply reply;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving() || !universe().change_market(market_id, local_today())) return false;
    quotes_->reset_market(market_id);
    reply = status_reply(*universe().market(market_id));
  }
  deliver(std::vector<Reply>{std::move(reply)});
  return true;
}

Universe& SimDataApi::universe() {
  if (universe_ == nullptr) {
    universe_ = std::make_unique<Universe>(seed_, local_today());
    quotes_ = std::make_unique<QuoteBook>(seed_);
  }
  return *universe_;
}

std::vector<const Market*> SimDataApi::markets(int32_t market_id) {
  std::vector<const Market*> chosen;
  for (const Market& market : universe().markets()) {
    if (market_id == 0 || market.id == market_id) chosen.push_back(&market);
  }
  return chosen;
}

SimDataApi::Reply SimDataApi::status_reply(const Market& market) {
  auto last = reported_.find(market.id);
  bool changed = last != reported_.end() && last->second != market.checksum;
  reported_[market.id] = market.checksum;
  return {&CDataApiCallBack::OnMarketStatus, market_status_reply(market, changed)};
}

int SimDataApi::ReqMarketStatus(int32_t market_id) {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    for (const Market* market : markets(market_id)) replies.push_back(status_reply(*market));
  }
  if (replies.empty()) return -1;
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqMarketInit(int32_t market_id) {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    for (const Market* market : markets(market_id)) {
      replies.emplace_back(&CDataApiCallBack::OnMarketInit, market_init_reply(*market));
    }
  }
  if (replies.empty()) return -1;
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqMarketOtherBase(int32_t market_id) {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    for (const Market* market : markets(market_id)) {
      replies.emplace_back(&CDataApiCallBack::OnMarketOtherBase, other_base_reply(*market));
    }
  }
  if (replies.empty()) return -1;
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqRefInfo(int32_t market_id) {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    for (const Market* market : markets(market_id)) {
      replies.emplace_back(&CDataApiCallBack::OnRespRefInfo, ref_info_reply(*market));
    }
  }
  if (replies.empty()) return -1;
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqLatestShare(int32_t market_id) {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    for (const Market* market : markets(market_id)) {
      replies.emplace_back(&CDataApiCallBack::OnRespLatestShareData, latest_share_reply(*market));
    }
  }
  if (replies.empty()) return -1;
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqBaseData() {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    const Universe& u = universe();
    replies.emplace_back(&CDataApiCallBack::OnRespSharedFields, shared_fields_reply(u.version(), u.latest_hk_rate()));
    replies.emplace_back(&CDataApiCallBack::OnRespNewIssueList, new_issue_reply(u.new_issues()));
  }
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqSharedFields() {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    const Universe& u = universe();
    replies.emplace_back(&CDataApiCallBack::OnRespSharedFields, shared_fields_reply(u.version(), u.latest_hk_rate()));
  }
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqNewIssueList(int32_t market_id) {
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving() || markets(market_id).empty()) return -1;
    std::vector<NewIssue> issues;
    for (const NewIssue& issue : universe().new_issues()) {
      if (market_id == 0 || issue.market_id == market_id) issues.push_back(issue);
    }
    replies.emplace_back(&CDataApiCallBack::OnRespNewIssueList, new_issue_reply(issues));
  }
  deliver(std::move(replies));
  return 0;
}

// Kind 2 is the exchanges' holiday list, the only kind the service keeps.
int SimDataApi::ReqHoliday(int32_t kind) {
  if (kind != 2) return -1;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
  }
  deliver(std::vector<Reply>{{&CDataApiCallBack::OnRespHolidayInfo, holiday_reply(kind, exchange_holidays())}});
  return 0;
}

// Begin and end of 0 stand for the connect's first and latest trading days.
int SimDataApi::ReqHKRate(const HKRateRequest* request) {
  if (request == nullptr) return -1;
  HKRateRequest copy;
  std::memcpy(&copy, request, sizeof(copy));
  std::vector<Reply> replies;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    const Universe& u = universe();
    int32_t begin = copy.begin;
    int32_t end = copy.end;
    if (begin == 0) begin = Universe::kHKConnectStart;
    if (end == 0) end = u.market(kHK)->trade_date;
    replies.emplace_back(&CDataApiCallBack::OnRespHKRateData,
                         hk_rate_reply(copy.field, begin, end, u.hk_rates(begin, end)));
  }
  deliver(std::move(replies));
  return 0;
}

int SimDataApi::ReqHisData(const HisBarRequest* request) {
  return answer_history(HistoryKind::kBars, request, &CDataApiCallBack::OnRespHisData);
}

int SimDataApi::ReqL1NewHisTick(const HisTickRequest* request) {
  return answer_history(HistoryKind::kLevel1Ticks, request, &CDataApiCallBack::OnRespL1HisTickData);
}

int SimDataApi::ReqHisTickKcb(const HisTickRequest* request) {
  return answer_history(HistoryKind::kAfterHoursTicks, request, &CDataApiCallBack::OnRespHisTickKcbData);
}

bool SimDataApi::set_history_fault(int fault, int delay_ms) {
  if (fault < static_cast<int>(HistoryFault::kNone) || fault > static_cast<int>(HistoryFault::kDelay)) return false;
  if (delay_ms < 0 || delay_ms > kMaxIntervalMs) return false;
  std::lock_guard<std::mutex> lock(mu_);
  history_fault_ = static_cast<HistoryFault>(fault);
  history_delay_ms_ = delay_ms;
  return true;
}

int SimDataApi::answer_history(HistoryKind kind, const void* request, Handler handler) {
  std::vector<Reply> replies;
  std::optional<Clock::time_point> when;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!serving()) return -1;
    std::vector<Bytes> blocks = history_blocks(universe(), kind, request);
    if (blocks.empty()) return -1;
    for (Bytes& block : with_fault(history_fault_, std::move(blocks))) replies.emplace_back(handler, std::move(block));
    if (history_fault_ == HistoryFault::kDelay) when = Clock::now() + std::chrono::milliseconds(history_delay_ms_);
  }
  deliver(std::move(replies), when);
  return 0;
}

void SimDataApi::deliver(std::vector<Reply> replies, std::optional<Clock::time_point> when) {
  if (when) {
    // One task, so that nothing posted meanwhile comes between the replies.
    auto all = std::make_shared<const std::vector<Reply>>(std::move(replies));
    deliver(
        [all](CDataApiCallBack* callback) {
          for (const Reply& reply : *all) (callback->*reply.first)(reply.second.data());
        },
        *when);
    return;
  }
  for (Reply& reply : replies) {
    auto bytes = std::make_shared<const std::vector<uint8_t>>(std::move(reply.second));
    Handler handler = reply.first;
    deliver([handler, bytes](CDataApiCallBack* callback) { (callback->*handler)(bytes->data()); });
  }
}

void SimDataApi::deliver(std::function<void(CDataApiCallBack*)> fn, std::optional<Clock::time_point> when) {
  CallbackThread::Task task = [this, fn = std::move(fn)] {
    CDataApiCallBack* callback;
    {
      std::lock_guard<std::mutex> lock(mu_);
      callback = callback_;
    }
    if (callback != nullptr) fn(callback);
  };
  if (when) {
    callbacks_.post_at(*when, std::move(task));
  } else {
    callbacks_.post(std::move(task));
  }
}

}  // namespace sim

CDataApi* GetApiInstance() { return &sim::SimDataApi::instance(); }

void SimRefuseConnect(int refuse) { sim::SimDataApi::instance().refuse_connect(refuse != 0); }

int SimReportConnection(int server, int status) {
  return sim::SimDataApi::instance().report_connection(server, status) ? 0 : -1;
}

int SimWaitIdle(int timeout_ms) { return sim::SimDataApi::instance().wait_idle(timeout_ms) ? 1 : 0; }

int SimChangeMarket(int market_id) { return sim::SimDataApi::instance().change_market(market_id) ? 0 : -1; }

void SimSetSeed(unsigned seed) { sim::SimDataApi::instance().set_seed(seed); }

int SimSetHistoryFault(int fault, int delay_ms) {
  return sim::SimDataApi::instance().set_history_fault(fault, delay_ms) ? 0 : -1;
}
