#include "dataapi/sim/sim_api.h"

#include "dataapi/sim/sim_control.h"

namespace sim {

SimDataApi& SimDataApi::instance() {
  // Never destroyed: a host may still call in while the process exits.
  static SimDataApi* api = new SimDataApi();
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
  return 0;
}

int SimDataApi::Release() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    connected_ = false;
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
  }
  deliver([server, status](CDataApiCallBack* callback) { callback->OnConnectStatus(server, status); });
  return true;
}

void SimDataApi::deliver(std::function<void(CDataApiCallBack*)> fn) {
  callbacks_.post([this, fn = std::move(fn)] {
    CDataApiCallBack* callback;
    {
      std::lock_guard<std::mutex> lock(mu_);
      callback = callback_;
    }
    if (callback != nullptr) fn(callback);
  });
}

}  // namespace sim

CDataApi* GetApiInstance() { return &sim::SimDataApi::instance(); }

void SimRefuseConnect(int refuse) { sim::SimDataApi::instance().refuse_connect(refuse != 0); }

int SimReportConnection(int server, int status) {
  return sim::SimDataApi::instance().report_connection(server, status) ? 0 : -1;
}

int SimWaitIdle(int timeout_ms) { return sim::SimDataApi::instance().wait_idle(timeout_ms) ? 1 : 0; }
