// A history request from the host to its last block, against the simulated
// quote service: every block through the vendor callback, the queue and the
// service threads.
#include <chrono>
#include <condition_variable>
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
    if (client_.data_manager() != nullptr) client_.data_manager()->stop();
  }

  struct Answer {
    std::vector<se::EDataArrivedTag> tags;
    QuoteRecords records;
  };
  Answer Ask(const std::string& code, int32_t meta_id, int64_t period, int64_t start, int64_t end) {
    quoter::TSMetaInfo meta{"SH", code, meta_id, period};
    quoter::TRegionInfo region{start, end, 0};
    Answer answer;
    std::mutex mu;
    std::condition_variable cv;
    client_.requestHistoryQuote(meta, region, "", [&](se::EQuoteSubStatus status, const QuoteRecords& records,
                                                      se::EDataArrivedTag tag) {
      std::lock_guard<std::mutex> lock(mu);
      EXPECT_EQ(status, se::kQuoteData);
      answer.tags.push_back(tag);
      answer.records.insert(answer.records.end(), records.begin(), records.end());
      cv.notify_all();
    });
    std::unique_lock<std::mutex> lock(mu);
    EXPECT_TRUE(cv.wait_for(lock, std::chrono::seconds(30), [&] {
      return !answer.tags.empty() && answer.tags.back() == se::kArrivedLast;
    }));
    return answer;
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  KelQuoteClient client_;
};

TEST_F(HistoryScenarioTest, BarsOfAShareArriveInOrderUpToTheLastBlock) {
  bool ok = false;
  client_.goLogin(LoginParam{}, [&](bool result, std::string) { ok = result; });
  ASSERT_TRUE(ok);
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
  client_.getStockList("SH", 0, list);  // waits for the market
  std::vector<int64_t> days;
  client_.getTradeDateList("SH", days);
  ASSERT_GT(days.size(), 1500u);

  // Daily bars of about six years: several blocks, one bar a trading day.
  const int64_t first = days[days.size() - 1500];
  Answer daily = Ask("600000", 3001, 86400000, first, days.back() + 1);
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

}  // namespace
}  // namespace tavr
