#include "testkit/fake_api.h"

namespace testkit {

void FakeDataApi::set_result(const std::string& op, int result) {
  std::lock_guard<std::mutex> lock(mu_);
  results_[op] = result;
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

int FakeDataApi::Int(const char* op, int64_t arg) {
  std::lock_guard<std::mutex> lock(mu_);
  calls_.push_back(ApiCall{op, {}, arg});
  auto it = results_.find(op);
  return it == results_.end() ? 0 : it->second;
}

void FakeDataApi::before_call(std::function<void(const std::string& op)> fn) {
  std::lock_guard<std::mutex> lock(mu_);
  before_call_ = std::move(fn);
}

int FakeDataApi::Rec(const char* op, const void* record, size_t size, int64_t arg) {
  std::function<void(const std::string&)> before;
  {
    std::lock_guard<std::mutex> lock(mu_);
    before = before_call_;
  }
  if (before) before(op);
  std::lock_guard<std::mutex> lock(mu_);
  ApiCall call{op, {}, arg};
  if (record != nullptr) {
    const auto* bytes = static_cast<const uint8_t*>(record);
    call.bytes.assign(bytes, bytes + size);
  }
  calls_.push_back(std::move(call));
  auto it = results_.find(op);
  return it == results_.end() ? 0 : it->second;
}

}  // namespace testkit
