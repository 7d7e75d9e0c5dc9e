#include <atomic>
#include <chrono>
#include <bit>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "finance/finance_kinds.h"
#include "testkit/market_fixture.h"
#include "utils/utils.h"

namespace tavr {
namespace {

constexpr uint16_t kFailed = kRequestFailed;

struct Delivery {
  std::string market;
  std::vector<int32_t> types;
  FinanceResult data;
  se::EQuoteSubStatus status;
};

class FinanceTest : public ::testing::Test {
 protected:
  FinanceTest() {
    EXPECT_TRUE(fx_.mgr().start());
    api().clear_calls();
    fx_.log().clear();
  }

  DvDataMgr& mgr() { return fx_.mgr(); }
  testkit::FakeDataApi& api() { return fx_.api(); }
  testkit::LogCapture& log() { return fx_.log(); }

  // Asks through the client, as a host does; the id the data manager gave.
  short Request(std::vector<int32_t> types, FinanceCallback callback = nullptr) {
    FinanceDataParam param;
    param.market = "SZ";
    param.code = "000001";
    param.types = std::move(types);
    if (!callback) {
      callback = [this](std::string market, const FinanceDataParam& p, const FinanceResult& data,
                        se::EQuoteSubStatus status) {
        std::lock_guard<std::mutex> lock(mu_);
        deliveries_.push_back({market, p.types, data, status});
      };
    }
    int mask = finance_mask_of(param.types, "test");
    size_t next = api().calls().size();
    fx_.client().requestFinanceData(param, std::move(callback));
    auto calls = api().calls();
    if (calls.size() <= next) return -1;
    // The first request goes out for the lowest kind.
    return static_cast<short>(testkit::record_of<FinanceRequest>(calls[next]).request_id - (mask & -mask));
  }
  std::vector<Delivery> deliveries() {
    std::lock_guard<std::mutex> lock(mu_);
    return deliveries_;
  }
  template <int Kind, typename Item>
  void Reply(short base, const std::vector<Item>& items, int32_t count) {
    fx_.deliver(MsgType(Kind), testkit::finance_reply<Kind>(static_cast<uint16_t>(base + Kind), items, count));
  }
  static int MsgType(int kind) {
    const int types[] = {37, 35, 36, 34, 30, 38, 39, 40};  // by bit, from bit 0
    return types[std::countr_zero(static_cast<unsigned>(kind))];
  }

  testkit::MarketFixture fx_;
  std::mutex mu_;
  std::vector<Delivery> deliveries_;
};

template <typename Item>
Item Period(int32_t report_date, int32_t announce_date) {
  Item item;
  std::memset(&item, 0, sizeof(item));
  testkit::set_text(item.code, "000001");
  item.report_date = report_date;
  item.announce_date = announce_date;
  return item;
}

template <typename Item>
Item Statement(double first) {
  auto item = Period<Item>(20231231, 20240329);
  item.report_type = 4;
  constexpr size_t n = sizeof(item.items) / sizeof(item.items[0]);
  for (size_t i = 0; i < n; ++i) item.items[i] = static_cast<float>(first + static_cast<double>(i));
  return item;
}

ApiTopHolderItem TopHolders(int32_t count, int present) {
  auto item = Period<ApiTopHolderItem>(20230930, 20231028);
  item.holder_count = count;
  for (int i = 0; i < present; ++i) {
    ApiShareHolder& h = item.holders[i];
    testkit::set_text(h.name, "holder" + std::to_string(i + 1));
    testkit::set_text(h.kind, "kind");
    h.shares = 1000000 - i;
    testkit::set_text(h.share_kind, "A");
    h.ratio = 10.5 - i;
    testkit::set_text(h.change, "same");
    h.rank = i + 1;
  }
  return item;
}

template <typename Record>
const Record& Only(const FinanceResult& data, int32_t key) {
  static const Record none;
  auto it = data.find(key);
  if (it == data.end() || it->second.size() != 1) {
    ADD_FAILURE() << "no single record under " << key;
    return none;
  }
  return static_cast<const Record&>(*it->second[0]);
}

TEST(FinanceKindsTest, MaskTextListsTheWordsFromBitZero) {
  EXPECT_EQ(finance_mask_text(0), "");
  EXPECT_EQ(finance_mask_text(5), "BALANCESHEET CASHFLOW ");
  EXPECT_EQ(finance_mask_text(255),
            "BALANCESHEET INCOMESTATE CASHFLOW FINANCEIND SHARESTRUCT HOLDERCOUNT TOP10HOLDER TOP10NEG ");
}

TEST_F(FinanceTest, OneRequestPerKindGoesOutInBitOrderUnderBasePlusBit) {
  uint16_t base = mgr().request_finance_data("SZ", "000001", {24510, 24506, 24505, 24507, 24501, 24506, 7}, 5, 6);
  ASSERT_NE(base, kFailed);
  const char* ops[] = {"ReqBalanceSheet", "ReqShareData", "ReqSHNumber"};
  const int bits[] = {1, 16, 32};
  auto calls = api().calls();
  ASSERT_EQ(calls.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].op, ops[i]);
    ASSERT_EQ(calls[i].bytes.size(), 38u);
    auto request = testkit::record_of<FinanceRequest>(calls[i]);
    EXPECT_EQ(+request.request_id, base + bits[i]);
    EXPECT_EQ(+request.market, 1);
    EXPECT_STREQ(request.code, "000001");
  }
  for (int refused : {24505, 24507, 7}) {
    std::string line = "[DvDataMgr::request_finance_data]: No such file...[" + std::to_string(refused) + "]";
    EXPECT_EQ(log().count(line), 1u) << line;
  }
  std::string processing =
      "[DvDataMgr::request_finance_data]: [id=" + std::to_string(base) + "]Finance request is processing[31]....";
  for (const testkit::LogLine& line : log().lines()) {
    if (line.text.find("No such file") != std::string::npos) {
      EXPECT_EQ(line.level, 40000);
    }
    if (line.text == processing) {
      EXPECT_EQ(line.level, 20000);
    }
  }
  EXPECT_TRUE(log().contains(processing));
  // Later requests skip the ids the pending one answers under.
  for (int i = 0; i < 40; ++i) {
    int id = mgr().next_serial();
    EXPECT_TRUE(id != base && id != base + 1 && id != base + 16 && id != base + 32) << id;
  }

  // Codes are cut to the field; without an API object each kind is logged.
  api().clear_calls();
  std::string long_code(40, '6');
  ASSERT_NE(mgr().request_finance_data("SH", long_code, {24509}, 0, 0), kFailed);
  auto request = testkit::record_of<FinanceRequest>(api().calls("ReqMostShareHolder").at(0));
  EXPECT_EQ(std::string(request.code), long_code.substr(0, 31));
  EXPECT_EQ(+request.market, 2);
  mgr().set_api(nullptr);
  log().clear();
  EXPECT_NE(mgr().request_finance_data("SZ", "000001", {24502, 24503}, 0, 0), kFailed);
  EXPECT_EQ(log().count("[DvDataMgr::request_finance_data]: Missing DataApi handler!!!"), 2u);
  EXPECT_TRUE(log().contains("Finance request is processing[6]...."));
  mgr().set_api(&api());
}

TEST_F(FinanceTest, RefusedRequestsSendNothing) {
  struct Case {
    std::vector<int32_t> types;
    const char* line;
  } cases[] = {
      {std::vector<int32_t>(21, 24501), "[DvDataMgr::request_finance_data]: Finance request ids vector size[21] error...."},
      {{24505}, "[DvDataMgr::request_finance_data]: NO valid file id exist...."},
      {{}, "[DvDataMgr::request_finance_data]: NO valid file id exist...."},
  };
  for (const Case& c : cases) {
    log().clear();
    EXPECT_EQ(mgr().request_finance_data("SZ", "000001", c.types, 0, 0), kFailed);
    EXPECT_TRUE(log().contains(c.line)) << log().dump();
  }
  EXPECT_TRUE(api().calls().empty());
  EXPECT_NE(mgr().request_finance_data("SZ", "000001", std::vector<int32_t>(20, 24501), 0, 0), kFailed);
  EXPECT_EQ(api().count("ReqBalanceSheet"), 1u);
  mgr().stop();
  EXPECT_EQ(mgr().request_finance_data("SZ", "000001", {24501}, 0, 0), kFailed);
  EXPECT_TRUE(log().contains("后台已断开，无法发送请求，需要客户端重启..."));
}

TEST_F(FinanceTest, TheLastKindDeliversEverythingOnceAndLaterRepliesAreStrays) {
  short base = Request({24506, 24510});
  ASSERT_GT(base, 0);
  std::string id = std::to_string(base);
  Reply<32>(base, std::vector<ApiSHNumberItem>{Period<ApiSHNumberItem>(20231231, 20240120)}, 1);
  EXPECT_TRUE(log().contains("[DvDataMgr::on_reply_data]: [ApiSHNumberResp] code:000001.SZ: serino=" + id +
                             ",Count=1"));
  EXPECT_TRUE(log().contains("[ApiSHNumberResp][id=" + id + "] code:000001.SZ Waiting for files [SHARESTRUCT ]!!!!"));
  EXPECT_TRUE(deliveries().empty());

  Reply<16>(base, std::vector<ApiShareItem>{Statement<ApiShareItem>(1), Statement<ApiShareItem>(2)}, 2);
  EXPECT_TRUE(log().contains("[ApiShareRsp][id=" + id + "] code:000001.SZ Return financial files...."));
  Reply<16>(base, std::vector<ApiShareItem>{Statement<ApiShareItem>(1)}, 1);
  EXPECT_TRUE(log().contains("[ApiShareRsp] code:000001.SZ Missing Request id[" + id + "]!!!!"));

  auto got = deliveries();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].market, "SZ");
  EXPECT_EQ(got[0].status, se::kQuoteData);
  ASSERT_EQ(got[0].data.size(), 2u);
  EXPECT_EQ(got[0].data.at(24506).size(), 2u);
  EXPECT_EQ(got[0].data.at(24510).size(), 1u);
}

TEST_F(FinanceTest, ARepeatedKindSubtractsItsBitAgainAndANegativeCountFailsTheDelivery) {
  short base = Request({24506, 24510});
  std::vector<ApiShareItem> share{Statement<ApiShareItem>(1)};
  Reply<16>(base, share, 1);
  Reply<16>(base, share, 1);
  Reply<32>(base, std::vector<ApiSHNumberItem>{}, 0);
  std::string id = "][id=" + std::to_string(base) + "] code:000001.SZ Waiting for files [";
  EXPECT_TRUE(log().contains("[ApiShareRsp" + id + "HOLDERCOUNT ]!!!!"));
  EXPECT_TRUE(log().contains("[ApiShareRsp" + id + "SHARESTRUCT ]!!!!"));
  // 16 - 32 leaves -16: its low byte names the four upper kinds.
  EXPECT_TRUE(log().contains("[ApiSHNumberResp" + id + "SHARESTRUCT HOLDERCOUNT TOP10HOLDER TOP10NEG ]!!!!"));
  EXPECT_TRUE(deliveries().empty());

  short other = Request({24509});
  Reply<64>(other, std::vector<ApiTopHolderItem>{}, -1);
  auto got = deliveries();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].status, se::kQuoteFailure);
  ASSERT_EQ(got[0].data.count(24509), 1u);
  EXPECT_TRUE(got[0].data.at(24509).empty());
}

TEST_F(FinanceTest, TwoRequestsInFlightKeepTheirOwnRecords) {
  short first = Request({24506, 24501});
  short second = Request({24506});
  ASSERT_NE(first, second);
  Reply<16>(first, std::vector<ApiShareItem>{Statement<ApiShareItem>(100)}, 1);
  Reply<16>(second, std::vector<ApiShareItem>{Statement<ApiShareItem>(200)}, 1);
  Reply<1>(first, std::vector<ApiBalanceSheetItem>{Statement<ApiBalanceSheetItem>(300)}, 1);
  auto got = deliveries();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].types, std::vector<int32_t>{24506});
  ASSERT_EQ(got[0].data.size(), 1u);
  EXPECT_EQ(Only<DravikCCapitalStructure>(got[0].data, 24506).item[0], 200);
  ASSERT_EQ(got[1].data.size(), 2u);
  EXPECT_EQ(Only<DravikCCapitalStructure>(got[1].data, 24506).item[0], 100);
  EXPECT_EQ(Only<DravikCBalanceSheet>(got[1].data, 24501).item[0], 300);
}

TEST_F(FinanceTest, ARequestMadeWhileADeliveryRunsGoesThrough) {
  std::promise<void> entered;
  std::promise<short> asked;
  std::future<short> answer = asked.get_future();
  std::atomic<bool> answered{false};
  short base = Request({24506}, [&](std::string, const FinanceDataParam&, const FinanceResult&, se::EQuoteSubStatus) {
    entered.set_value();
    // The host waits, inside its callback, for a request from another thread.
    answered = answer.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  });
  auto bytes = testkit::finance_reply<16>(static_cast<uint16_t>(base + 16),
                                          std::vector<ApiShareItem>{Statement<ApiShareItem>(1)}, 1);
  ASSERT_EQ(mgr().callback()->OnRespShareData(bytes.data()), 0);
  ASSERT_EQ(entered.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  asked.set_value(Request({24510}));
  ASSERT_TRUE(mgr().wait_idle(10000));
  EXPECT_TRUE(answered);
  EXPECT_GT(answer.get(), 0);
}

TEST_F(FinanceTest, ElementsBecomeRecordsFieldByField) {
  short base = Request({24501, 24502, 24503, 24504, 24506, 24508, 24509, 24510});
  Reply<1>(base, std::vector<ApiBalanceSheetItem>{Statement<ApiBalanceSheetItem>(1)}, 1);
  Reply<2>(base, std::vector<ApiIncomeStatementItem>{Statement<ApiIncomeStatementItem>(2)}, 1);
  Reply<4>(base, std::vector<ApiCashFlowItem>{Statement<ApiCashFlowItem>(3)}, 1);
  Reply<8>(base, std::vector<ApiFinancialDataItem>{Statement<ApiFinancialDataItem>(4)}, 1);
  Reply<16>(base, std::vector<ApiShareItem>{Statement<ApiShareItem>(5)}, 1);
  auto count = Period<ApiSHNumberItem>(20231231, 20240120);
  count.holders = 41;
  count.float_holders = 52;
  count.restricted_holders = 64;
  count.previous_holders = 72;
  count.shares_per_holder = 1.5;
  Reply<32>(base, std::vector<ApiSHNumberItem>{count}, 1);
  Reply<64>(base, std::vector<ApiTopHolderItem>{TopHolders(10, 10)}, 1);
  Reply<128>(base, std::vector<ApiTopHolderItem>{TopHolders(2, 2)}, 1);
  auto got = deliveries();
  ASSERT_EQ(got.size(), 1u);
  const FinanceResult& data = got[0].data;
  ASSERT_EQ(data.size(), 8u);

  const int64_t year_end = utils::timeToMilliseconds(20231231, 0);
  const auto& balance = Only<DravikCBalanceSheet>(data, 24501);
  EXPECT_EQ(balance.report_date, year_end);
  EXPECT_EQ(balance.announce_date, utils::timeToMilliseconds(20240329, 0));
  EXPECT_EQ(balance.report_type, 4);
  EXPECT_EQ(balance.item[122], 123);
  EXPECT_EQ(Only<DravikCShareIncome>(data, 24502).item[59], 61);
  EXPECT_EQ(Only<DravikCShareCashFlow>(data, 24503).item[91], 94);
  EXPECT_EQ(Only<DravikCPerShare>(data, 24504).item[40], 44);
  EXPECT_EQ(Only<DravikCCapitalStructure>(data, 24506).item[2], 7);

  const auto& holders = Only<Dravik_Cshare_holder_number>(data, 24510);
  EXPECT_EQ(holders.report_date, year_end);
  EXPECT_EQ(std::vector<int32_t>(holders.item, holders.item + 6), (std::vector<int32_t>{41, 52, 64, 72, 0, 0}));

  const auto& top = Only<Dravik_Ctop10_share_holder>(data, 24509);
  EXPECT_EQ(top.report_date, utils::timeToMilliseconds(20230930, 0));
  ASSERT_EQ(top.holders.size(), 10u);
  const auto& tenth = top.holders[9];
  EXPECT_EQ(tenth.name, "holder10");
  EXPECT_EQ(tenth.kind, "kind");
  EXPECT_EQ(tenth.shares, 999991);
  EXPECT_EQ(tenth.share_kind, "A");
  EXPECT_EQ(tenth.ratio, 1.5);
  EXPECT_EQ(tenth.change, "same");
  EXPECT_EQ(tenth.rank, 10);
  EXPECT_EQ(Only<Dravik_Ctop10_flow_share_holder>(data, 24508).holders.size(), 2u);
}

TEST_F(FinanceTest, BadRepliesAreLoggedAndReadOnlyWithinTheirBytes) {
  short base = Request({24509, 24506});
  std::string id = "[id=" + std::to_string(base) + "] code:000001.SZ ";
  Reply<64>(base, std::vector<ApiTopHolderItem>{TopHolders(12, 11)}, 1);
  EXPECT_TRUE(log().contains("[ApiMostShareHolderResp]" + id + "Holder count[12] beyond [11], the rest dropped...."));
  Reply<16>(base, std::vector<ApiShareItem>{Statement<ApiShareItem>(1)}, 3);
  EXPECT_TRUE(log().contains("[ApiShareRsp]" + id + "Count[3] beyond the reply, 1 read...."));
  auto got = deliveries();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(Only<Dravik_Ctop10_share_holder>(got[0].data, 24509).holders.size(), 11u);
  EXPECT_EQ(got[0].data.at(24506).size(), 1u);

  std::vector<uint8_t> stub(10, 0);
  fx_.deliver(30, stub);
  EXPECT_TRUE(log().contains("[ApiShareRsp] Short reply[10 bytes] dropped...."));
  fx_.deliver(30, testkit::finance_reply<16>(7, std::vector<ApiShareItem>{}, 0));
  EXPECT_TRUE(log().contains("[ApiShareRsp] code:000001.SZ Missing Request id[65527]!!!!"));
  EXPECT_EQ(deliveries().size(), 1u);
}

}  // namespace
}  // namespace tavr
