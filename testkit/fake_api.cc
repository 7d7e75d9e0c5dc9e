#include "testkit/fake_api.h"

#include <chrono>
#include <thread>

namespace testkit {

void FakeDataApi::set_result(const std::string& op, int result) {
  std::lock_guard<std::mutex> lock(mu_);
  results_[op] = result;
}

void FakeDataApi::set_delay(const std::string& op, int us) {
  std::lock_guard<std::mutex> lock(mu_);
  delays_[op] = us;
}

void FakeDataApi::set_connect_result(ConnectResult result) {
  std::lock_guard<std::mutex> lock(mu_);
  connect_result_ = result;
}

std::vector<ApiCall> FakeDataApi::calls() const {
  std::lock_guard<std::mutex> lock(mu_);
  return calls_;
}

std::vector<ApiCall> FakeDataApi::calls(const std::string& op) const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<ApiCall> out;
  for (const ApiCall& call : calls_) {
    if (call.op == op) out.push_back(call);
  }
  return out;
}

size_t FakeDataApi::count(const std::string& op) const { return calls(op).size(); }

void FakeDataApi::clear_calls() {
  std::lock_guard<std::mutex> lock(mu_);
  calls_.clear();
}

CDataApiCallBack* FakeDataApi::callback() const {
  std::lock_guard<std::mutex> lock(mu_);
  return callback_;
}

ServerTable FakeDataApi::servers() const {
  std::lock_guard<std::mutex> lock(mu_);
  return servers_;
}

int FakeDataApi::RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    servers_ = servers != nullptr ? *servers : ServerTable();
    callback_ = callback;
  }
  return Int("RegisterServer", servers != nullptr ? static_cast<int64_t>(servers->size()) : -1);
}

void FakeDataApi::on_connect(std::function<void()> fn) {
  std::lock_guard<std::mutex> lock(mu_);
  on_connect_ = std::move(fn);
}

int FakeDataApi::Connect(ConnectResult* result) {
  int rc = Int("Connect", 0);
  std::function<void()> during;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (result != nullptr) *result = connect_result_;
    during = on_connect_;
  }
  if (during) during();
  return rc;
}

int FakeDataApi::Int(const char* op, int64_t arg) { return Rec(op, nullptr, 0, arg); }

int FakeDataApi::Rec(const char* op, const void* record, size_t size, int64_t arg) {
  int result = 0;
  int delay_us = 0;
  {
    std::lock_guard<std::mutex> lock(mu_);
    ApiCall call{op, {}, arg};
    if (record != nullptr) {
      const auto* bytes = static_cast<const uint8_t*>(record);
      call.bytes.assign(bytes, bytes + size);
    }
    calls_.push_back(std::move(call));
    auto it = results_.find(op);
    if (it != results_.end()) result = it->second;
    auto delay = delays_.find(op);
    if (delay != delays_.end()) delay_us = delay->second;
  }
  if (delay_us > 0) std::this_thread::sleep_for(std::chrono::microseconds(delay_us));
  return result;
}

}  // namespace testkit
