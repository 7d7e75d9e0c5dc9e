#include "datamgr/callback_pro.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace tavr {
namespace {

// The vtable slot of a member function under the Itanium C++ ABI, which both
// of our toolchains use: the pointer-to-member holds 1 + the byte offset.
template <typename F>
long SlotOf(F member) {
  long value;
  static_assert(sizeof(member) >= sizeof(value));
  std::memcpy(&value, &member, sizeof(value));
  return (value - 1) / static_cast<long>(sizeof(void*));
}

TEST(CallbackSlotsTest, OperationsSitInTheVendorsSlots) {
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnMarketInit), 0);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnTickL1), 3);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespPower), 6);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnMarketStatus), 10);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespSCanner), 12);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespSharedFields), 17);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnTickL2), 22);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnOrderQueueL2), 26);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespShareData), 29);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespNegotiableShareHolderData), 39);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnConnectStatus), 40);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespHisTickKcbData), 45);
  EXPECT_EQ(SlotOf(&CDataApiCallBack::OnRespMarketPushData), 47);
  EXPECT_EQ(sizeof(CDataApiCallBack), sizeof(void*));  // no data, one vtable pointer
  EXPECT_EQ(SlotOf(&CDataApi::RegisterServer), 1);
  EXPECT_EQ(SlotOf(&CDataApi::Connect), 2);
  EXPECT_EQ(SlotOf(&CDataApi::SubscribeL1), 6);
  EXPECT_EQ(SlotOf(&CDataApi::UnsubscribeL2), 9);
  EXPECT_EQ(SlotOf(&CDataApi::Release), 52);
  EXPECT_EQ(SlotOf(&CDataApi::SubscribeMarketPush), 53);
  EXPECT_EQ(SlotOf(&CDataApi::UnsubscribeMarketPush), 54);
}

struct Queued {
  uint32_t type;
  std::vector<uint8_t> bytes;
};

// A started data manager whose service threads record every message instead
// of handling it.
class CallbackProTest : public ::testing::Test {
 protected:
  CallbackProTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" + testkit::servers_xml(1) + "</history>"));
    mgr_.set_api(&api_);
    mgr_.set_processor_count(2);
    mgr_.set_message_hook([this](uint32_t type, void* data, size_t size) {
      std::lock_guard<std::mutex> lock(mu_);
      auto* bytes = static_cast<uint8_t*>(data);
      queued_.push_back({type, std::vector<uint8_t>(bytes, bytes + size)});
    });
    EXPECT_TRUE(mgr_.init(true));
    EXPECT_TRUE(mgr_.start());
    log_.enable_all_levels();
  }
  ~CallbackProTest() override { mgr_.stop(); }

  // Calls op on a vendor-like thread with a record whose count sits at
  // count_at, and returns what was queued.
  template <typename Op>
  std::vector<Queued> Deliver(Op op, size_t count_at, int32_t count, int* rc = nullptr) {
    std::vector<uint8_t> record(record_bytes_, 0x5A);
    std::memcpy(record.data() + count_at, &count, sizeof(count));
    return DeliverRecord(op, record, rc);
  }
  template <typename Op>
  std::vector<Queued> DeliverRecord(Op op, const std::vector<uint8_t>& record, int* rc = nullptr) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      queued_.clear();
    }
    CDataApiCallBack* vendor_view = mgr_.callback();
    int result = 0;
    std::thread vendor([&] { result = (vendor_view->*op)(record.data()); });
    vendor.join();
    if (rc != nullptr) *rc = result;
    EXPECT_TRUE(mgr_.wait_idle(5000));
    std::lock_guard<std::mutex> lock(mu_);
    return queued_;
  }

  size_t record_bytes_ = 1 << 16;
  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  testkit::FakeDataApi api_;
  DvDataMgr mgr_;
  std::mutex mu_;
  std::vector<Queued> queued_;
};

using Op = int (CDataApiCallBack::*)(const void*);

TEST_F(CallbackProTest, CopySizesFollowTheCountAtItsBoundaries) {
  struct Case {
    Op op;
    uint32_t type;
    size_t count_at;
    int32_t count;
    size_t size;
  };
  const Case cases[] = {
      {&CDataApiCallBack::OnRespHolidayInfo, 15, 4, 0, 12},
      {&CDataApiCallBack::OnRespHolidayInfo, 15, 4, 1, 12},
      {&CDataApiCallBack::OnRespHolidayInfo, 15, 4, 3, 20},
      {&CDataApiCallBack::OnRespHolidayInfo, 15, 4, -7, 12},
      {&CDataApiCallBack::OnMarketInit, 0, 44, 2, 216},
      {&CDataApiCallBack::OnMarketOtherBase, 1, 5, 3, 107 + 2 * 98},
      {&CDataApiCallBack::OnRespRefInfo, 3, 4, 2, 748},
      {&CDataApiCallBack::OnTickL1, 4, 0, 99, 249},
      {&CDataApiCallBack::OnMarketStatus, 2, 0, 99, 13},
      {&CDataApiCallBack::OnRespSharedFields, 24, 0, 99, 8},
      {&CDataApiCallBack::OnRespIndustryData, 32, 0, 99, 326},
      {&CDataApiCallBack::OnTickL2, 6, 4, 0, 9},
      {&CDataApiCallBack::OnTickL2, 6, 4, -1, 9},
      {&CDataApiCallBack::OnTickL2, 6, 4, 2, 1016},
      {&CDataApiCallBack::OnIndexL2, 7, 4, 1, 116},
      {&CDataApiCallBack::OnTransL2, 8, 4, 3, 8 + 3 * 79},
      {&CDataApiCallBack::OnOrderL2, 9, 4, 3, 8 + 3 * 62},
      {&CDataApiCallBack::OnOrderQueueL2, 10, 4, 1, 872},
      {&CDataApiCallBack::OnRespHisDataCount, 14, 42, 3, 70},
      {&CDataApiCallBack::OnRespNewIssueList, 25, 0, 2, 276},
      {&CDataApiCallBack::OnRespHKRateData, 31, 10, 2, 46},
      {&CDataApiCallBack::OnRespLatestShareData, 33, 6, 2, 138},
      {&CDataApiCallBack::OnRespShareData, 30, 38, 1, 338},
      {&CDataApiCallBack::OnRespFinancialData, 34, 38, 2, 614 + 572},
      {&CDataApiCallBack::OnRespIncomeStatData, 35, 38, 2, 581 + 539},
      {&CDataApiCallBack::OnRespCashFlowData, 36, 38, 2, 733 + 691},
      {&CDataApiCallBack::OnRespBalanceSheetData, 37, 38, 2, 837 + 795},
      {&CDataApiCallBack::OnRespSHNumberData, 38, 38, 2, 202},
      {&CDataApiCallBack::OnRespMostShareHolderData, 39, 38, 2, 4442},
      {&CDataApiCallBack::OnRespNegotiableShareHolderData, 40, 38, 0, 2242},
      {&CDataApiCallBack::OnRespHisTickKcbData, 12, 54, 2, 218},
      {&CDataApiCallBack::OnRespL1HisTickData, 11, 54, 2, 486},
      {&CDataApiCallBack::OnRespMarketPushData, 5, 2, 3, 255 + 2 * 249},
      {&CDataApiCallBack::OnRespHotListDef, 17, 0, 2, 344},
      {&CDataApiCallBack::OnRespHotListData, 18, 6, 2, 306},
      {&CDataApiCallBack::OnHotList, 19, 4, 2, 304},
  };
  for (const Case& c : cases) {
    int rc = -2;
    auto queued = Deliver(c.op, c.count_at, c.count, &rc);
    ASSERT_EQ(queued.size(), 1u) << "type " << c.type;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(queued[0].type, c.type);
    EXPECT_EQ(queued[0].bytes.size(), c.size) << "type " << c.type << " count " << c.count;
  }
}

TEST_F(CallbackProTest, CountsReadAsTheVendorWritesThem) {
  // Power: unsigned 16-bit count at 38, so 0xFFFF is 65535 elements.
  std::vector<uint8_t> power(size_t{18} << 20, 0);
  uint16_t n16 = 2;
  std::memcpy(power.data() + 38, &n16, 2);
  auto queued = DeliverRecord(&CDataApiCallBack::OnRespPower, power);
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(queued[0].bytes.size(), 304u + 264u);
  n16 = 0xFFFF;
  std::memcpy(power.data() + 38, &n16, 2);
  queued = DeliverRecord(&CDataApiCallBack::OnRespPower, power);
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(queued[0].bytes.size(), 304u + 65534u * 264u);

  // Scanner: unsigned 32-bit count, so 0 is not positive and copies the head.
  for (auto [count, size] : {std::pair<uint32_t, size_t>{0, 5}, {1, 5}, {4, 8}}) {
    std::vector<uint8_t> scanner(64, 0);
    std::memcpy(scanner.data(), &count, 4);
    queued = DeliverRecord(&CDataApiCallBack::OnRespSCanner, scanner);
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0].type, 25u);  // shares the new-issue list's code
    EXPECT_EQ(queued[0].bytes.size(), size);
  }
}

TEST_F(CallbackProTest, HistoryBarsSizeByTheirKind) {
  std::vector<uint8_t> record(2048, 0);
  auto set = [&](size_t at, int32_t v) { std::memcpy(record.data() + at, &v, 4); };
  set(50, 10);
  set(46, 14);
  EXPECT_EQ(DeliverRecord(&CDataApiCallBack::OnRespHisData, record).at(0).bytes.size(), 272u);
  set(46, 3);
  EXPECT_EQ(DeliverRecord(&CDataApiCallBack::OnRespHisData, record).at(0).bytes.size(), 542u);
  set(50, 0);
  EXPECT_EQ(DeliverRecord(&CDataApiCallBack::OnRespHisData, record).at(0).bytes.size(), 63u);
  set(50, -3);
  EXPECT_EQ(DeliverRecord(&CDataApiCallBack::OnRespHisData, record).at(0).bytes.size(), 63u);
}

TEST_F(CallbackProTest, CopiesTheRecordBytesExactly) {
  std::vector<uint8_t> record(64);
  for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(i * 7 + 1);
  int32_t count = 3;
  std::memcpy(record.data() + 4, &count, 4);
  auto queued = DeliverRecord(&CDataApiCallBack::OnRespHolidayInfo, record);
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(queued[0].bytes, std::vector<uint8_t>(record.begin(), record.begin() + 20));
}

TEST_F(CallbackProTest, AbsurdCountsAreDroppedWithoutReadingOrAllocating) {
  // Each record is only a head long: copying what the count claims would
  // read far outside it (ASan would tell).
  const std::pair<Op, size_t> ops[] = {
      {&CDataApiCallBack::OnRespMostShareHolderData, 38},
      {&CDataApiCallBack::OnTickL2, 4},
      {&CDataApiCallBack::OnRespHisData, 50},
      {&CDataApiCallBack::OnMarketInit, 44},
  };
  record_bytes_ = 4096;
  for (auto [op, at] : ops) {
    log_.clear();
    int rc = 0;
    auto queued = Deliver(op, at, 0x7FFFFFFF, &rc);
    EXPECT_TRUE(queued.empty());
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(log_.count("out of range, dropped"), 1u) << log_.dump();
  }
  std::vector<uint8_t> scanner(16, 0);
  uint32_t huge = 0xFFFFFFFFu;
  std::memcpy(scanner.data(), &huge, 4);
  int rc = 0;
  EXPECT_TRUE(DeliverRecord(&CDataApiCallBack::OnRespSCanner, scanner, &rc).empty());
  EXPECT_EQ(rc, -1);
}

TEST_F(CallbackProTest, TraceLinesNameTheRecord) {
  std::vector<uint8_t> record(4096, 0);
  int16_t id = 321;
  std::memcpy(record.data(), &id, 2);
  std::memcpy(record.data() + 6, "600000", 7);
  int32_t count = 2;
  std::memcpy(record.data() + 54, &count, 4);
  DeliverRecord(&CDataApiCallBack::OnRespL1HisTickData, record);
  DeliverRecord(&CDataApiCallBack::OnRespHisTickKcbData, record);
  EXPECT_TRUE(log_.contains("[CMyCallBackPro::OnRespL1HisTickData]: 收到tick new 数据[600000][321]...")) << log_.dump();
  EXPECT_TRUE(log_.contains("[CMyCallBackPro::OnRespHisTickKcbData]: 收到tick stib 数据[600000][321]..."));

  std::vector<uint8_t> push(4096, 0);
  int16_t market = 2;
  std::memcpy(push.data(), &market, 2);
  count = 5;
  std::memcpy(push.data() + 2, &count, 4);
  DeliverRecord(&CDataApiCallBack::OnRespMarketPushData, push);
  EXPECT_TRUE(log_.contains("[CMyCallBackPro::OnRespMarketPushData]: 收到Market Push 数据[2][5]..."));
}

TEST_F(CallbackProTest, SlotsTheAdapterDoesNotServeQueueNothing) {
  std::vector<uint8_t> record(64, 1);
  EXPECT_TRUE(DeliverRecord(&CDataApiCallBack::OnRespUnused13, record).empty());
  EXPECT_TRUE(DeliverRecord(&CDataApiCallBack::OnRespUnused41, record).empty());
}

// While the service threads are held up, stream callbacks beyond the limit
// are refused and counted, with one line a second, not one a record; the
// replies a request waits for (a history block, a financial statement) are
// still taken. Once drained, the queue takes records again; after stop it
// takes nothing.
TEST(CallbackLimitTest, AFullQueueDropsStreamsOnly) {
  testkit::WorkDir dir;
  dir.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                 testkit::servers_xml(1) + "</history>"));
  testkit::LogCapture log;
  testkit::FakeDataApi api;
  DvDataMgr mgr;
  mgr.set_api(&api);
  mgr.set_processor_count(2);
  std::atomic<bool> hold{true}, held{false};
  std::atomic<int> replies{0};
  mgr.set_message_hook([&](uint32_t type, void*, size_t) {
    if (type == 13 || type == 37) ++replies;
    if (type != 4) return;
    held = true;
    while (hold) std::this_thread::yield();
  });
  ASSERT_TRUE(mgr.init(true));
  ASSERT_TRUE(mgr.start());
  log.enable_all_levels();
  mgr.set_queue_limit(64 << 10);
  ApiL1Tick tick = testkit::l1_tick(2, "600000", 93000, 10.0f);
  ASSERT_EQ(mgr.callback()->OnTickL1(&tick), 0);
  while (!held) std::this_thread::yield();
  int queued = 0;
  for (int i = 0; i < 2000; ++i) queued += mgr.callback()->OnTickL1(&tick) == 0 ? 1 : 0;
  EXPECT_GT(queued, 100);
  EXPECT_LT(queued, 2000);
  EXPECT_LE(mgr.queue_held_bytes(), size_t{64} << 10);
  EXPECT_EQ(mgr.queue_size(), static_cast<size_t>(queued));
  EXPECT_EQ(log.count("Queue full["), 1u) << log.dump();
  EXPECT_TRUE(log.contains("callbacks dropped (1 in all)..."));
  std::vector<uint8_t> reply(1024, 0);
  EXPECT_EQ(mgr.callback()->OnRespHisData(reply.data()), 0);
  EXPECT_EQ(mgr.callback()->OnRespBalanceSheetData(reply.data()), 0);

  hold = false;
  ASSERT_TRUE(mgr.wait_idle(5000));
  EXPECT_EQ(replies.load(), 2);
  int rc = -1;
  for (int i = 0; i < 200 && rc != 0; ++i) {
    port::SleepMs(10);
    rc = mgr.callback()->OnTickL1(&tick);
  }
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(mgr.stop());
  EXPECT_EQ(mgr.callback()->OnTickL1(&tick), -1);
  EXPECT_EQ(mgr.callback()->OnRespHisData(reply.data()), -1);
  EXPECT_EQ(mgr.queue_size(), 0u);
}

}  // namespace
}  // namespace tavr
