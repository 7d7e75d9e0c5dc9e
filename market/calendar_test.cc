#include <ctime>
#include <tuple>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"
#include "utils/utils.h"

namespace tavr {
namespace {

class CalendarTest : public ::testing::Test {
 protected:
  CalendarTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                    testkit::servers_xml(1) + "</history>"));
    mgr_.set_api(&api_);
    mgr_.set_client(&client_);
    mgr_.set_sleeper([this](int ms) { slept_.push_back(ms); });
    EXPECT_TRUE(mgr_.init(true));
    log_.enable_all_levels();
  }

  void Holidays(const std::vector<int32_t>& dates) {
    auto bytes = testkit::reply(ApiHolidayHead{2, static_cast<int32_t>(dates.size())}, dates);
    mgr_.on_reply_data(15, bytes.data(), bytes.size());
  }
  void Rates(const std::vector<std::tuple<int32_t, float, float>>& rates) {
    std::vector<ApiHKRateItem> items;
    for (auto [date, a, b] : rates) {
      ApiHKRateItem item{};
      item.date = date;
      item.rate_a = a;
      item.rate_b = b;
      items.push_back(item);
    }
    auto bytes = testkit::reply(ApiHKRateHead{0, 0, 0, static_cast<uint32_t>(items.size())}, items);
    mgr_.on_reply_data(31, bytes.data(), bytes.size());
  }
  void Init(uint8_t market, int32_t date) {
    auto bytes = testkit::market_init(market, date, {testkit::code_init("CODE01", "x")});
    mgr_.on_reply_data(0, bytes.data(), bytes.size());
  }
  std::vector<int32_t> Days(const std::string& market, char variant) {
    std::vector<int64_t> ms;
    mgr_.get_market_trade_day_list(market, variant, ms);
    std::vector<int32_t> dates;
    for (int64_t m : ms) dates.push_back(static_cast<int32_t>(utils::millisecondsToTime(m) / 1000000));
    return dates;
  }
  std::vector<int32_t> Tail(const std::vector<int32_t>& days, size_t n) {
    return std::vector<int32_t>(days.end() - std::min(n, days.size()), days.end());
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  testkit::FakeDataApi api_;
  KelQuoteClient client_;
  DvDataMgr mgr_;
  std::vector<int> slept_;
};

TEST_F(CalendarTest, HolidaysRebuildTradingDaysFromTheLatestTradingDay) {
  Init(2, 20241008);  // Tuesday after the National Day week
  // 2024-10-01..07 closed; 2024-10-05 is a Saturday in the list too.
  Holidays({20241001, 20241002, 20241003, 20241004, 20241005, 20241007});
  auto days = Days("SH", 1);
  EXPECT_EQ(Tail(days, 4), (std::vector<int32_t>{20240926, 20240927, 20240930, 20241008}));
  EXPECT_EQ(days.front(), 19901219);  // the earliest date is always present
  EXPECT_TRUE(log_.contains("[ApiHolidayRsp] Holiday information end....."));
  // No weekend day anywhere.
  for (int32_t d : days) {
    std::tm tm{};
    tm.tm_year = d / 10000 - 1900;
    tm.tm_mon = d / 100 % 100 - 1;
    tm.tm_mday = d % 100;
    tm.tm_hour = 12;
    std::mktime(&tm);
    ASSERT_TRUE(tm.tm_wday != 0 && tm.tm_wday != 6) << d;
  }
}

TEST_F(CalendarTest, TheEarliestDateStaysEvenAsAHoliday) {
  Init(2, 19901221);
  Holidays({19901219, 19901220});
  EXPECT_EQ(Days("SH", 1), (std::vector<int32_t>{19901219, 19901221}));
}

TEST_F(CalendarTest, AFullCalendarIsNotRebuilt) {
  Init(2, 20241008);
  Holidays({});
  size_t before;
  {
    std::lock_guard<std::mutex> lock(mgr_.calendar().mu);
    before = mgr_.calendar().trade_days.size();
    ASSERT_GT(before, 100u);
  }
  Holidays({20241008, 20240930});
  std::lock_guard<std::mutex> lock(mgr_.calendar().mu);
  EXPECT_EQ(mgr_.calendar().trade_days.size(), before);
  EXPECT_EQ(mgr_.calendar().holidays.size(), 2u);
}

TEST_F(CalendarTest, ListsStopAtTheMarketsTradingDayOnceInitialised) {
  Init(2, 20241008);
  Holidays({});
  Init(9, 20241004);  // ZJ announces an earlier day
  auto zj = Days("ZJ", 1);
  EXPECT_EQ(zj.back(), 20241004);
  EXPECT_EQ(zj.front(), 20100416);
  // A market not initialised has no last day; SH options start in 2017.
  EXPECT_EQ(Days("DL", 1).back(), 20241008);
  EXPECT_EQ(Days("SH", 2).front(), 20170222);
  EXPECT_TRUE(log_.contains("trading days for market [SH][2]"));
}

TEST_F(CalendarTest, TradingDayListsWaitForHolidaysThenGiveUp) {
  EXPECT_TRUE(Days("SH", 1).empty());
  EXPECT_EQ(slept_, (std::vector<int>{400, 400, 400, 400, 400, 1000, 1000, 1000, 1000, 1000}));
  EXPECT_TRUE(log_.contains("市场[SH-1]节假日初始化失败，无法获取交易日列表..."));
  EXPECT_TRUE(Days("XX", 1).empty());
  EXPECT_TRUE(log_.contains("市场[XX]不存在..."));
}

TEST_F(CalendarTest, RatesKeepTheFirstEntryAndMakeTheHongKongCalendar) {
  std::vector<int64_t> days;
  mgr_.get_HKC_trade_day_list(1, days);
  EXPECT_TRUE(days.empty());
  EXPECT_EQ(slept_.size(), 20u);
  EXPECT_EQ(api_.count("ReqHKRate"), 1u);  // re-requested once, at the tenth wait
  EXPECT_TRUE(log_.contains("港股汇率初始化失败，无法获取交易日列表..."));

  Init(10, 20241008);  // adds an empty rate for its trading day
  Rates({{20141117, 0.79f, 0.80f}, {20161205, 0.88f, 0.89f}, {20241008, 0.91f, 0.92f}});
  Rates({{20141117, 0.5f, 0.5f}});
  // Dates no exchange has are refused, with one line a reply.
  Rates({{20240230, 1.0f, 1.0f}, {19800102, 1.0f, 1.0f}, {99991231, 1.0f, 1.0f}, {-5, 1.0f, 1.0f}});
  EXPECT_TRUE(log_.contains("[ApiHKRateRsp] 4 rates of invalid dates refused, first [20240230]..."));
  {
    std::lock_guard<std::mutex> lock(mgr_.calendar().mu);
    EXPECT_EQ(mgr_.calendar().hk_rates.size(), 3u);
    EXPECT_FLOAT_EQ(mgr_.calendar().hk_rates.at(20141117).first, 0.79f);
    EXPECT_FLOAT_EQ(mgr_.calendar().hk_rates.at(20241008).first, 0.0f);
  }
  days.clear();
  mgr_.get_HKC_trade_day_list(1, days);
  EXPECT_EQ(days.size(), 3u);
  days.clear();
  mgr_.get_HKC_trade_day_list(2, days);
  EXPECT_EQ(days.size(), 2u);

  // Through the client: "HGT" and "SGT" read the Hong Kong calendar.
  client_.attach_data_manager(&mgr_);
  std::vector<int64_t> host_days;
  client_.getTradeDateList("SGT", host_days);
  EXPECT_EQ(host_days.size(), 2u);
}

}  // namespace
}  // namespace tavr
