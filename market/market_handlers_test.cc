#include <atomic>
#include <ctime>
#include <numeric>
#include <thread>
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

// A data manager after init (not started): handlers are called directly, as
// a service thread would.
class MarketHandlersTest : public ::testing::Test {
 protected:
  MarketHandlersTest() {
    dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                    testkit::servers_xml(1) + "</history>"));
    mgr_.set_api(&api_);
    mgr_.set_client(&client_);
    mgr_.set_sleeper([this](int ms) { slept_.push_back(ms); });
    EXPECT_TRUE(mgr_.init(true));
    log_.enable_all_levels();
    client_.registerTradeDateAndStockListChangeCallBack(
        [this](int kind, std::string host) { notes_.push_back(std::to_string(kind) + host); });
  }

  void Deliver(int type, const std::vector<uint8_t>& bytes) {
    // A private copy, as the adapter makes, so that ASan sees any overread.
    std::vector<uint8_t> copy(bytes);
    mgr_.on_reply_data(type, copy.data(), copy.size());
  }
  void Status(uint8_t id, int32_t date, int32_t changed, uint32_t checksum) {
    ApiMarketStatus status = testkit::market_status(id, date, changed, checksum);
    Deliver(2, std::vector<uint8_t>(reinterpret_cast<uint8_t*>(&status),
                                    reinterpret_cast<uint8_t*>(&status) + sizeof(status)));
  }
  std::shared_ptr<MarketInfo> Market(const char* name) { return mgr_.markets().find(name); }
  void Holidays(const std::vector<int32_t>& dates) {
    Deliver(15, testkit::reply(ApiHolidayHead{2, static_cast<int32_t>(dates.size())}, dates));
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
    Deliver(31, testkit::reply(ApiHKRateHead{0, 0, 0, static_cast<uint32_t>(items.size())}, items));
  }
  void Init(uint8_t market, int32_t date) { Deliver(0, testkit::market_init(market, date, {testkit::code_init("CODE01", "x")})); }
  std::vector<int32_t> Days(const std::string& market, char variant) {
    std::vector<int64_t> ms;
    mgr_.get_market_trade_day_list(market, variant, ms);
    std::vector<int32_t> dates;
    for (int64_t m : ms) dates.push_back(static_cast<int32_t>(utils::millisecondsToTime(m) / 1000000));
    return dates;
  }
  static std::vector<int32_t> Tail(const std::vector<int32_t>& days, size_t n) {
    return std::vector<int32_t>(days.end() - std::min(n, days.size()), days.end());
  }
  int SleptMs() const { return std::accumulate(slept_.begin(), slept_.end(), 0); }
  size_t Codes(const char* name, bool other = false) {
    std::lock_guard<CodesMutex> lock(mgr_.markets().codes_mu);
    auto market = Market(name);
    return other ? market->other_codes.size() : market->base_codes.size();
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  testkit::FakeDataApi api_;
  KelQuoteClient client_;
  DvDataMgr mgr_;
  std::vector<std::string> notes_;
  std::vector<int> slept_;
};

const std::vector<ApiCodeInit> kShCodes = {testkit::code_init("600000", "浦发银行"),
                                           testkit::code_init("10004567", "50ETF购1月2500", 4, 1),
                                           testkit::code_init("688001", "华兴源创")};

TEST_F(MarketHandlersTest, StatusIsRecordedFirstThenComparedAndChangesReinitialise) {
  Status(2, 20240102, 1, 77);
  EXPECT_TRUE(log_.contains("首次启动记录市场[SH]的状态,无需重新初始化[Date: 20240102][CheckSum: 77]"));
  EXPECT_EQ(api_.count("ReqMarketInit"), 0u);

  Status(2, 20240102, 1, 77);
  EXPECT_TRUE(log_.contains("市场[SH]的状态未更新,无需重新初始化20240102[20240102]"));
  Status(2, 20240105, 0, 99);  // not changed, whatever the date
  EXPECT_EQ(api_.count("ReqMarketInit"), 0u);
  EXPECT_FALSE(Market("SH")->reinit_pending.load());

  Status(2, 20240103, 1, 77);
  EXPECT_TRUE(log_.contains("市场[SH]的状态有更新,开始重新初始化[Date: 20240103][CheckSum: 77]"));
  ASSERT_EQ(api_.count("ReqMarketInit"), 1u);
  EXPECT_EQ(api_.calls("ReqMarketInit")[0].arg, 2);
  EXPECT_TRUE(Market("SH")->reinit_pending.load());

  // Changed with date 0: re-initialises without storing.
  Status(2, 0, 1, 5);
  EXPECT_EQ(api_.count("ReqMarketInit"), 2u);
  std::lock_guard<CodesMutex> lock(mgr_.markets().codes_mu);
  EXPECT_EQ(Market("SH")->trade_date, 20240103);
  EXPECT_EQ(Market("SH")->status_checksum, 77u);
}

TEST_F(MarketHandlersTest, StatusOfAnUnknownMarketChangesNothing) {
  Status(3, 20240102, 1, 77);
  EXPECT_TRUE(log_.contains("收到市场[]的状态信息[20240102]"));
  EXPECT_EQ(api_.calls().size(), 1u);  // RegisterServer only
}

TEST_F(MarketHandlersTest, InitialisationFillsBothTablesAndSendsFollowUps) {
  Deliver(0, testkit::market_init(2, 20240102, kShCodes));
  EXPECT_TRUE(Market("SH")->initialised.load());
  EXPECT_EQ(Codes("SH"), 2u);
  EXPECT_EQ(Codes("SH", true), 1u);
  EXPECT_EQ(api_.count("ReqMarketOtherBase"), 1u);
  EXPECT_EQ(api_.count("ReqRefInfo"), 1u);
  EXPECT_EQ(api_.count("ReqLatestShare"), 1u);
  EXPECT_FALSE(Market("SH")->other_base_ready.load());
  EXPECT_TRUE(notes_.empty());  // no re-initialisation pending
  EXPECT_TRUE(log_.contains("收到市场[SH:desc]的初始化数据[2, 1],处理完成"));
  {
    std::lock_guard<std::mutex> lock(mgr_.calendar().mu);
    EXPECT_EQ(mgr_.calendar().max_trade_date, 20240102);
    EXPECT_EQ(mgr_.calendar().trade_days.count(20240102), 1u);
  }

  // Futures need only the reference data.
  Deliver(0, testkit::market_init(9, 20240103, {testkit::code_init("IF2401", "沪深300指数2401", 1, 1)}));
  EXPECT_EQ(api_.count("ReqRefInfo"), 2u);
  EXPECT_EQ(api_.count("ReqMarketOtherBase"), 1u);
  EXPECT_TRUE(Market("ZJ")->other_base_ready.load());
  std::lock_guard<std::mutex> lock(mgr_.calendar().mu);
  EXPECT_EQ(mgr_.calendar().max_trade_date, 20240103);
}

TEST_F(MarketHandlersTest, InvalidInitialisationsAreFiltered) {
  Deliver(0, testkit::market_init(3, 20240102, kShCodes));
  Deliver(0, testkit::market_init(2, 20240102, {}));
  EXPECT_EQ(log_.count("直接过滤"), 2u);
  EXPECT_FALSE(Market("SH")->initialised.load());
  // A count larger than the copy is read only as far as the copy goes.
  auto bytes = testkit::market_init(1, 20240102, {testkit::code_init("000001", "平安银行")});
  uint32_t claimed = 5000;
  std::memcpy(bytes.data() + offsetof(ApiMarketInitHead, code_count), &claimed, sizeof(claimed));
  Deliver(0, bytes);
  EXPECT_EQ(Codes("SZ"), 1u);
}

TEST_F(MarketHandlersTest, ReinitialisationClearsTheTablesAndNotifiesTwice) {
  Status(2, 20240102, 1, 77);
  Deliver(0, testkit::market_init(2, 20240102, kShCodes));
  Status(2, 20240103, 1, 78);
  Deliver(0, testkit::market_init(2, 20240103, {testkit::code_init("600036", "招商银行")}));
  EXPECT_TRUE(log_.contains("市场[SH]已初始化,需先清空原始数据"));
  EXPECT_EQ(Codes("SH"), 1u);
  EXPECT_EQ(Codes("SH", true), 0u);
  EXPECT_EQ(notes_, (std::vector<std::string>{"0SHO", "0SH", "1SHO", "1SH"}));
  // Every later initialisation notifies again.
  Deliver(0, testkit::market_init(2, 20240103, kShCodes));
  EXPECT_EQ(notes_.size(), 8u);
}

TEST_F(MarketHandlersTest, ReferenceDataUpdatesTicksAndContinuousContracts) {
  Deliver(0, testkit::market_init(9, 20240103,
                                  {testkit::code_init("IF2401", "沪深300指数2401", 1, 1),
                                   testkit::code_init("IF", "沪深主连-IF2401", 1, 1),
                                   testkit::code_init("IF00", "沪深次主连-IF2402", 1, 1)}));
  ApiRefInfoHead head{9, 4};
  std::vector<ApiRefInfoItem> items(4);
  const char* codes[] = {"IF2401", "IF", "IF00", "IH9999"};
  for (int i = 0; i < 4; ++i) {
    std::memset(&items[i], 0, sizeof(items[i]));
    testkit::set_text(items[i].code, codes[i]);
    items[i].tick = 0.2f;
    items[i].eps = i == 0 ? 0.0 : 1.5;
    items[i].pre_close = 3500.0;
  }
  Deliver(3, testkit::reply(head, items));
  EXPECT_TRUE(Market("ZJ")->ref_info_ready.load());
  EXPECT_TRUE(log_.contains("[ApiRefInfoRsp] [IH9999.ZJ]  Code Not exist!!!"));
  EXPECT_EQ(mgr_.continuous_contract(1, "IF"), "IF2401");
  EXPECT_EQ(mgr_.continuous_contract(2, "IF00"), "IF2402");
  EXPECT_TRUE(log_.contains("Insert Recent contract IF2402...."));
  std::lock_guard<CodesMutex> lock(mgr_.markets().codes_mu);
  std::shared_ptr<BaseCodeInfo> info;
  ASSERT_EQ(DvDataMgr::find_code(*Market("ZJ"), "IF2401", info), 1);
  EXPECT_EQ(info->price_digits, 1);
  EXPECT_FLOAT_EQ(info->price_tick, 0.2f);
  EXPECT_DOUBLE_EQ(info->ref_a, 999999.99);
  EXPECT_DOUBLE_EQ(info->ref_b, 3500.0);
  ASSERT_NE(info->ref_info, nullptr);
}

TEST_F(MarketHandlersTest, CodeListsWaitForReadinessAndCopyTheTable) {
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
  mgr_.get_market_code_list("SH", "SH", 1, list);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(SleptMs(), 5 * 400 + 5 * 1000);
  EXPECT_TRUE(log_.contains("市场[SH-1]初始化失败，无法获取代码列表..."));
  mgr_.get_market_code_list("XX", "XX", 1, list);
  EXPECT_TRUE(log_.contains("市场[XX-1]不存在..."));

  Deliver(0, testkit::market_init(2, 20240102, kShCodes));
  ApiRefInfoHead head{2, 0};
  Deliver(3, testkit::reply(head, std::vector<ApiRefInfoItem>{}));
  slept_.clear();
  mgr_.get_market_code_list("SH", "SH", 1, list);
  EXPECT_TRUE(slept_.empty());
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]->code, "600000");
  EXPECT_EQ(list[0]->market, "SH");
  EXPECT_EQ(list[0]->priceDigits, 2);
  EXPECT_NEAR(list[0]->priceTick, 0.01, 1e-9);
  EXPECT_EQ(list[1]->code, "688001");

  ApiMarketOtherBaseHead other{2, {0}, 1};
  ApiOtherBaseItem item{};
  testkit::set_text(item.code, "10004567");
  item.margin = 1;
  Deliver(1, testkit::reply(other, std::vector<ApiOtherBaseItem>{item}));
  list.clear();
  mgr_.get_market_code_list("SHO", "SH", 2, list);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]->code, "10004567");
  EXPECT_EQ(list[0]->market, "SH");  // not the host's "SHO"
  EXPECT_EQ(list[0]->priceDigits, 4);
  EXPECT_TRUE(log_.contains("[ApiMarketOtherBaseRsp] Code=10004567.SH, 0 [True, False],[False,False,False]..."));
}

TEST_F(MarketHandlersTest, StockListsStayConsistentWhileAMarketReinitialises) {
  std::vector<ApiCodeInit> many;
  for (int i = 0; i < 2000; ++i) many.push_back(testkit::code_init(std::to_string(600000 + i), "股票"));
  Deliver(0, testkit::market_init(2, 20240102, many));
  ApiRefInfoHead head{2, 0};
  Deliver(3, testkit::reply(head, std::vector<ApiRefInfoItem>{}));
  std::atomic<bool> done{false};
  std::thread reinit([&] {
    for (int round = 0; round < 20; ++round) {
      Deliver(0, testkit::market_init(2, 20240102, many));
      Deliver(3, testkit::reply(head, std::vector<ApiRefInfoItem>{}));
    }
    done = true;
  });
  int lists = 0;
  while (!done.load()) {
    std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> list;
    mgr_.get_market_code_list("SH", "SH", 1, list);
    // Either a whole table or, during the rebuild, part of it: never garbage.
    for (const auto& detail : list) ASSERT_EQ(detail->code.size(), 6u);
    ++lists;
  }
  reinit.join();
  EXPECT_GT(lists, 0);
}

// ---- The calendar ----

TEST_F(MarketHandlersTest, HolidaysRebuildTradingDaysFromTheLatestTradingDay) {
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

TEST_F(MarketHandlersTest, TheEarliestDateStaysEvenAsAHoliday) {
  Init(2, 19901221);
  Holidays({19901219, 19901220});
  EXPECT_EQ(Days("SH", 1), (std::vector<int32_t>{19901219, 19901221}));
}

TEST_F(MarketHandlersTest, AFullCalendarIsNotRebuilt) {
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

TEST_F(MarketHandlersTest, ListsStopAtTheMarketsTradingDayOnceInitialised) {
  Init(2, 20241008);
  Holidays({});
  Init(9, 20241004);  // ZJ announces an earlier day
  auto zj = Days("ZJ", 1);
  EXPECT_EQ(zj.back(), 20241004);
  EXPECT_EQ(zj.front(), 20100416);
  // A market not initialised has no last day; SH options start in 2017.
  EXPECT_EQ(Days("DL", 1).back(), 20241008);
  EXPECT_EQ(Days("SH", 2).front(), 20170222);
  // The host's list may hold days already: the line counts those appended.
  std::vector<int64_t> host(3, 0);
  log_.clear();
  mgr_.get_market_trade_day_list("ZJ", 1, host);
  size_t total;
  {
    std::lock_guard<std::mutex> lock(mgr_.calendar().mu);
    total = mgr_.calendar().trade_days.size();
  }
  EXPECT_TRUE(log_.contains("[DvDataMgr::get_market_trade_day_list]: Return " + std::to_string(zj.size()) + "[" +
                            std::to_string(total) + "] trading days for market [ZJ][1]...."));
  EXPECT_EQ(host.size(), zj.size() + 3);
}

TEST_F(MarketHandlersTest, TradingDayListsWaitForHolidaysThenGiveUp) {
  EXPECT_TRUE(Days("SH", 1).empty());
  EXPECT_EQ(slept_, (std::vector<int>{400, 400, 400, 400, 400, 1000, 1000, 1000, 1000, 1000}));
  EXPECT_TRUE(log_.contains("市场[SH-1]节假日初始化失败，无法获取交易日列表..."));
  EXPECT_TRUE(Days("XX", 1).empty());
  EXPECT_TRUE(log_.contains("市场[XX]不存在..."));
}

TEST_F(MarketHandlersTest, RatesKeepTheFirstEntryAndMakeTheHongKongCalendar) {
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
  mgr_.get_HKC_trade_day_list(2, days);  // appended to the three above
  EXPECT_EQ(days.size(), 5u);
  EXPECT_TRUE(log_.contains("Return 2 trading days for market HK[2]...."));

  // Through the client: "HGT" and "SGT" read the Hong Kong calendar.
  client_.attach_data_manager(&mgr_);
  std::vector<int64_t> host_days;
  client_.getTradeDateList("SGT", host_days);
  EXPECT_EQ(host_days.size(), 2u);
}

}  // namespace
}  // namespace tavr
