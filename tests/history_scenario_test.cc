// A history request from the host to its last block, against the simulated
// quote service: every block through the vendor callback, the queue and the
// service threads.
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "dataapi/sim/sim_control.h"
#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/log_capture.h"
#include "testkit/work_dir.h"

namespace tavr {
namespace {

class HistoryScenarioTest : public ::testing::Test {
 protected:
  HistoryScenarioTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                    testkit::servers_xml(1) + "</history>"));
  }
  ~HistoryScenarioTest() override {
    SimSetHistoryFault(0, 0);
    if (client_.data_manager() != nullptr) client_.data_manager()->stop();
  }

  struct Answer {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<se::EDataArrivedTag> tags;
    QuoteRecords records;
  };
  // Held by the callback too: a request that never ends keeps its callback.
  std::shared_ptr<Answer> Request(const std::string& code, int32_t meta_id, int64_t period, int64_t start,
                                  int64_t end) {
    quoter::TSMetaInfo meta{"SH", code, meta_id, period};
    quoter::TRegionInfo region{start, end, 0};
    auto answer = std::make_shared<Answer>();
    client_.requestHistoryQuote(meta, region, "", [answer](se::EQuoteSubStatus status, const QuoteRecords& records,
                                                           se::EDataArrivedTag tag) {
      std::lock_guard<std::mutex> lock(answer->mu);
      EXPECT_EQ(status, se::kQuoteData);
      answer->tags.push_back(tag);
      answer->records.insert(answer->records.end(), records.begin(), records.end());
      answer->cv.notify_all();
    });
    return answer;
  }
  std::shared_ptr<Answer> Ask(const std::string& code, int32_t meta_id, int64_t period, int64_t start, int64_t end) {
    auto answer = Request(code, meta_id, period, start, end);
    std::unique_lock<std::mutex> lock(answer->mu);
    EXPECT_TRUE(answer->cv.wait_for(lock, std::chrono::seconds(30), [&] {
      return !answer->tags.empty() && answer->tags.back() == se::kArrivedLast;
    }));
    return answer;
  }
  // Logs in and waits for SH; its trading days (ms).
  std::vector<int64_t> Start() {
    bool ok = false;
    client_.goLogin(LoginParam{}, [&](bool result, std::string) { ok = result; });
    EXPECT_TRUE(ok);
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
    client_.getStockList("SH", 0, list);  // waits for the market
    std::vector<int64_t> days;
    client_.getTradeDateList("SH", days);
    return days;
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  KelQuoteClient client_;
};

TEST_F(HistoryScenarioTest, BarsOfAShareArriveInOrderUpToTheLastBlock) {
  std::vector<int64_t> days = Start();
  ASSERT_GT(days.size(), 1500u);

  // Daily bars of about six years: several blocks, one bar a trading day.
  const int64_t first = days[days.size() - 1500];
  auto answer = Ask("600000", 3001, 86400000, first, days.back() + 1);
  const Answer& daily = *answer;
  ASSERT_GE(daily.tags.size(), 2u);
  for (size_t i = 0; i + 1 < daily.tags.size(); ++i) EXPECT_EQ(daily.tags[i], se::kArrivedPartial);
  std::vector<int64_t> expected(days.end() - 1500, days.end());
  ASSERT_EQ(daily.records.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto* bar = dynamic_cast<const quoter::KLineData*>(daily.records[i].get());
    ASSERT_NE(bar, nullptr);
    ASSERT_EQ(bar->time, expected[i]);
    EXPECT_GT(bar->close, 0);
  }
  EXPECT_FALSE(log_.contains("not found corresponding record!"));
}

// The service loses, doubles, misaddresses or delays blocks: every request
// still gets what arrived for it, and a block for no open request is refused.
TEST_F(HistoryScenarioTest, RequestsOutliveTheServicesHistoryFaults) {
  EXPECT_EQ(SimSetHistoryFault(5, 0), -1);
  EXPECT_EQ(SimSetHistoryFault(4, -1), -1);
  std::vector<int64_t> days = Start();
  ASSERT_GT(days.size(), 5u);
  const int64_t end = days.back() + 1;
  const int64_t minutes = days[days.size() - 5];  // five days of minutes: blocks of 1000 and 200
  const int64_t three_days = days[days.size() - 3];
  auto partial = [](size_t n) { return std::vector<se::EDataArrivedTag>(n, se::kArrivedPartial); };
  auto time = [](const QuoteRecords& r, size_t i) { return r.at(i)->time; };

  // Without its last block a request stays open after its first.
  ASSERT_EQ(SimSetHistoryFault(1, 0), 0);
  auto open = Request("600000", 3001, 60000, minutes, end);
  ASSERT_EQ(SimWaitIdle(10000), 1);
  ASSERT_TRUE(client_.data_manager()->wait_idle(10000));
  {
    std::lock_guard<std::mutex> lock(open->mu);
    EXPECT_EQ(open->tags, partial(1));
    EXPECT_EQ(open->records.size(), 1000u);
  }

  // A block that comes twice is delivered twice while its request is open,
  // and refused once the last block has closed it.
  ASSERT_EQ(SimSetHistoryFault(2, 0), 0);
  auto twice = Ask("600000", 3001, 60000, minutes, end);
  auto expected = partial(2);
  expected.push_back(se::kArrivedLast);
  EXPECT_EQ(twice->tags, expected);
  ASSERT_EQ(twice->records.size(), 2200u);
  EXPECT_EQ(time(twice->records, 999), time(twice->records, 1999));
  EXPECT_LT(time(twice->records, 1999), time(twice->records, 2000));
  const size_t refused = log_.count("not found corresponding record!");
  auto closed = Ask("600000", 3001, 86400000, three_days, end);
  EXPECT_EQ(closed->tags, std::vector<se::EDataArrivedTag>{se::kArrivedLast});
  EXPECT_EQ(closed->records.size(), 3u);
  EXPECT_TRUE(log_.wait_for("not found corresponding record!", refused + 1));

  // A block under an id that no request holds is refused; the request it
  // copies ends as usual.
  ASSERT_EQ(SimSetHistoryFault(3, 0), 0);
  auto copied = Ask("600000", 3001, 86400000, three_days, end);
  EXPECT_EQ(copied->records.size(), 3u);
  EXPECT_TRUE(log_.wait_for("[ApiHisDataRsp][id=32000] not found corresponding record!"));

  // A late answer still arrives whole.
  ASSERT_EQ(SimSetHistoryFault(4, 300), 0);
  auto asked = std::chrono::steady_clock::now();
  auto late = Ask("600000", 3001, 60000, minutes, end);
  EXPECT_GE(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(300));
  EXPECT_EQ(late->records.size(), 1200u);
  EXPECT_EQ(late->tags.size(), 2u);
}

}  // namespace
}  // namespace tavr
