// The replay service against a capture written here: what it answers, and
// what it calls back with.
#include "dataapi/replay/replay_api.h"

#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "capture/catalog.h"
#include "port/port.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace replay {
namespace {

using capture::Kind;

// Keeps the request id and size of each reply, and the code of each tick.
class Sink final : public CDataApiCallBack {
 public:
  int OnRespHisData(const void* r) override { return Keep("bars", r); }
  int OnRespBalanceSheetData(const void* r) override { return Keep("balance", r); }
  int OnTickL1(const void* r) override {
    std::lock_guard<std::mutex> lock(mu);
    got.push_back("tick " + std::string(static_cast<const char*>(r) + 1));
    return 0;
  }
  int Keep(const char* what, const void* r) {
    uint16_t id;
    std::memcpy(&id, r, sizeof(id));
    std::lock_guard<std::mutex> lock(mu);
    got.push_back(std::string(what) + " " + std::to_string(id));
    return 0;
  }
  std::mutex mu;
  std::vector<std::string> got;
};

class CaptureWriter {
 public:
  CaptureWriter() {
    bytes_.resize(capture::kHeaderBytes);
    capture::encode_header(capture::FileHeader{}, bytes_.data());
  }
  template <typename T>
  void request(uint8_t op, const T& record, int32_t result) { request(op, &record, sizeof(record), result); }
  void request(uint8_t op, const void* record, size_t size, int32_t result) {
    uint32_t number = ++number_;
    add(Kind::kRequest, op, &number, 4, record, size);
    uint8_t fixed[8];
    std::memcpy(fixed, &number, 4);
    std::memcpy(fixed + 4, &result, 4);
    add(Kind::kResult, op, fixed, 8, nullptr, 0);
  }
  void callback(uint8_t slot, const std::vector<uint8_t>& bytes) {
    add(Kind::kCallback, slot, bytes.data(), bytes.size(), nullptr, 0);
  }
  std::string write(const std::filesystem::path& dir) const {
    std::string path = (dir / "r.kqcap").string();
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes_.data()), bytes_.size());
    return path;
  }

 private:
  void add(Kind kind, uint8_t code, const void* a, size_t an, const void* b, size_t bn) {
    uint8_t head[capture::kRecordHeadBytes];
    capture::encode_record_head(kind, code, ns_ += 1000, an + bn, head);
    bytes_.insert(bytes_.end(), head, head + sizeof(head));
    bytes_.insert(bytes_.end(), static_cast<const uint8_t*>(a), static_cast<const uint8_t*>(a) + an);
    if (bn > 0) bytes_.insert(bytes_.end(), static_cast<const uint8_t*>(b), static_cast<const uint8_t*>(b) + bn);
  }
  std::vector<uint8_t> bytes_;
  uint32_t number_ = 0;
  uint64_t ns_ = 0;
};

HisBarRequest Bars(uint16_t id, const char* code, int32_t start) {
  HisBarRequest r{};
  r.request_id = id;
  r.market = 2;
  testkit::set_text(r.code, code);
  r.kline_type = 1;
  r.start_date = start;
  r.end_date = start + 100;
  return r;
}

// Opens what w recorded, played as fast as possible into sink.
void Open(ReplayApi& api, const CaptureWriter& w, const testkit::WorkDir& dir, Sink& sink) {
  std::string error;
  ASSERT_TRUE(api.open(w.write(dir.path()), 0, &error)) << error;
  api.RegisterServer(nullptr, &sink);
}

TEST(ReplayApiTest, AnswersRequestsWithTheirRecordedRepliesUnderTheLibrarysIds) {
  testkit::WorkDir dir;
  CaptureWriter w;
  w.request(capture::kConnect, nullptr, 0, 0);
  w.request(16, Bars(21, "600000", 20250101), 0);
  w.callback(4, testkit::his_bars<ApiHisBar>(21, 2, "600000", 1, true, {ApiHisBar{}}));
  w.callback(4, testkit::his_bars<ApiHisBar>(77, 2, "600000", 1, true, {}));  // a request not in the file
  FinanceRequest balance{22, 1, "000001"};
  w.request(32, balance, 0);
  w.callback(36, testkit::finance_reply<1, ApiBalanceSheetItem>(22, {}, 0));
  w.callback(3, testkit::bytes_of(testkit::l1_tick(2, "600000", 93000, 10)));

  ReplayApi api;
  Sink sink;
  Open(api, w, dir, sink);
  if (::testing::Test::HasFatalFailure()) return;
  ConnectResult result{-5, -5, -5};
  ASSERT_EQ(api.Connect(&result), 0);
  EXPECT_EQ(result.code, 0);
  // The library asks late and with ids and dates of its own; nothing
  // recorded after a request may reach it before.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  {
    std::lock_guard<std::mutex> lock(sink.mu);
    EXPECT_TRUE(sink.got.empty());
  }
  HisBarRequest other = Bars(400, "600001", 20250101);
  EXPECT_EQ(api.ReqHisData(&other), -1);
  HisBarRequest bars = Bars(300, "600000", 20260101);
  EXPECT_EQ(api.ReqHisData(&bars), 0);
  FinanceRequest asked{301, 1, "000001"};
  EXPECT_EQ(api.ReqBalanceSheet(&asked), 0);
  ASSERT_TRUE(api.wait_done(5000));
  std::lock_guard<std::mutex> lock(sink.mu);
  EXPECT_EQ(sink.got, (std::vector<std::string>{"bars 300", "balance 301", "tick 600000"}));
  EXPECT_EQ(api.unmatched_replies(), 1);
  EXPECT_EQ(api.ReqBalanceSheet(&asked), -1);  // each recorded request answers once
}

// A later file of a rolled session: no connect in it, nothing to wait for.
TEST(ReplayApiTest, AFileWithoutAConnectPlaysFromItsStartOnce) {
  testkit::WorkDir dir;
  CaptureWriter w;
  w.callback(3, testkit::bytes_of(testkit::l1_tick(2, "600000", 93000, 10)));
  ReplayApi api;
  Sink sink;
  Open(api, w, dir, sink);
  if (::testing::Test::HasFatalFailure()) return;
  ASSERT_EQ(api.Connect(nullptr), 0);
  ASSERT_TRUE(api.wait_done(5000));
  EXPECT_EQ(api.Connect(nullptr), -1);  // the file has nothing after its end
  std::lock_guard<std::mutex> lock(sink.mu);
  EXPECT_EQ(sink.got, std::vector<std::string>{"tick 600000"});
}

TEST(ReplayApiTest, ABadFileOrSpeedRefusesTheConnectWithTheReason) {
  testkit::WorkDir dir;
  ReplayApi api;
  std::string error;
  port::SetEnvironment("KELQUOTE_REPLAY_FILE", "");
  EXPECT_FALSE(api.open_from_environment(&error));
  EXPECT_EQ(error, "KELQUOTE_REPLAY_FILE names no capture file");
  port::SetEnvironment("KELQUOTE_REPLAY_FILE", "missing.kqcap");
  port::SetEnvironment("KELQUOTE_REPLAY_SPEED", "fast");
  EXPECT_FALSE(api.open_from_environment(&error));
  EXPECT_EQ(error, "KELQUOTE_REPLAY_SPEED is a number of 0 or more, not \"fast\"");
  port::SetEnvironment("KELQUOTE_REPLAY_SPEED", "2");
  EXPECT_FALSE(api.open_from_environment(&error));
  EXPECT_EQ(error, "missing.kqcap: cannot open the file");
  ConnectResult result{};
  EXPECT_EQ(api.Connect(&result), -1);
  EXPECT_EQ(result.code, -1);
}

}  // namespace
}  // namespace replay
