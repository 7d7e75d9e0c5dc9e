#include "dataapi/sim/sim_api.h"

namespace sim {

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
  if (!has_quote_server) {
    // No quote server to reach: what a vendor library reports for an empty list.
    if (result != nullptr) *result = ConnectResult{-1, 0, static_cast<int32_t>(servers_.size())};
    return -1;
  }
  if (result != nullptr) *result = ConnectResult{0, 0, 0};
  connected_ = true;
  return 0;
}

int SimDataApi::Release() {
  std::lock_guard<std::mutex> lock(mu_);
  connected_ = false;
  return 0;
}

}  // namespace sim

CDataApi* GetApiInstance() {
  static sim::SimDataApi* api = new sim::SimDataApi();
  return api;
}
