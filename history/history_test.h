// What the history tests share: a started data manager whose markets SH, SZ,
// SQ and ZJ hold a few instruments, a fixed clock (Friday 2024-09-20
// 10:00:00) and a calendar with the Mid-Autumn holidays of that September.
#ifndef KELQUOTE_HISTORY_HISTORY_TEST_H_
#define KELQUOTE_HISTORY_HISTORY_TEST_H_

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log/MyLog.h"
#include "testkit/market_fixture.h"
#include "utils/utils.h"

namespace tavr {

class HistoryTest : public ::testing::Test {
 protected:
  static constexpr int32_t kToday = 20240920;
  static constexpr int64_t kMinute = 60000;
  static constexpr int64_t kDay = 86400000;

  static int64_t ms(int32_t date, int32_t hhmmss) { return utils::timeToMilliseconds(date, hhmmss); }

  HistoryTest() {
    fx_.mgr().set_clock([] { return ms(kToday, 100000) / 1000.0; });
    fx_.mgr().set_processor_count(2);
    fx_.mgr().start();
    auto star = testkit::code_init("688001", "STAR", 2, 100, 20190722);
    star.type_code = 539;
    fx_.init_market(2, {testkit::code_init("600000", "PF", 2, 100, 19991110), star});
    fx_.init_market(1, {testkit::code_init("000001", "PA", 2, 100), testkit::code_init("300001", "TX", 3, 100)});
    fx_.init_market(5, {testkit::code_init("cu2409", "CU", 0, 5)});
    fx_.init_market(9, {testkit::code_init("IF2409", "IF", 1, 1)});
    fx_.deliver(15, testkit::reply(ApiHolidayHead{2, 2}, std::vector<int32_t>{20240916, 20240917}));
    fx_.log().clear();
    fx_.api().clear_calls();
  }

  // A request straight to the data manager.
  uint16_t request(const std::string& market, const std::string& code, int32_t meta_id, int64_t period, int64_t start,
                   int64_t end, char kind = 1) {
    quoter::TSMetaInfo meta{market, code, meta_id, period};
    quoter::TRegionInfo region{start, end, 7};
    return fx_.mgr().request_his_kline(meta, region, market, kind);
  }

  struct Delivery {
    se::EQuoteSubStatus status;
    QuoteRecords records;
    se::EDataArrivedTag tag;
  };
  // A request through the client, whose callback notes each delivery; the id
  // the request went out with.
  int16_t host_request(const std::string& host_market, const std::string& code, int32_t meta_id, int64_t period,
                       int64_t start, int64_t end) {
    quoter::TSMetaInfo meta{host_market, code, meta_id, period};
    quoter::TRegionInfo region{start, end, 0};
    fx_.api().clear_calls();
    fx_.client().requestHistoryQuote(meta, region, "", [this](se::EQuoteSubStatus status, const QuoteRecords& records,
                                                              se::EDataArrivedTag tag) {
      std::lock_guard<std::mutex> lock(mu_);
      deliveries_.push_back({status, records, tag});
    });
    auto calls = fx_.api().calls();
    EXPECT_EQ(calls.size(), 1u);
    if (calls.empty()) return -1;
    return testkit::record_of<HisTickRequest>(calls.back()).request_id;  // the id leads both request records
  }
  std::vector<Delivery> deliveries() {
    std::lock_guard<std::mutex> lock(mu_);
    return deliveries_;
  }

  // Whether a line of level says text (function prefix included).
  bool logged(int level, const std::string& text) {
    for (const auto& line : fx_.log().lines()) {
      if (line.level == level && line.text.find(text) != std::string::npos) return true;
    }
    return false;
  }

  testkit::MarketFixture fx_;
  std::mutex mu_;
  std::vector<Delivery> deliveries_;
};

}  // namespace tavr

#endif  // KELQUOTE_HISTORY_HISTORY_TEST_H_
