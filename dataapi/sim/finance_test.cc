// The simulated service's financial answers as a host receives them.
#include <map>
#include <string>
#include <vector>

#include "dataapi/sim/finance.h"
#include "dataapi/sim/sim_host_test.h"
#include "finance/finance_kinds.h"

namespace sim {
namespace {

class SimFinanceTest : public SimHostTest {
 protected:
  ~SimFinanceTest() override {
    for (int kind = 1; kind <= 128; kind *= 2) SimSetFinanceReply(kind, 0);
  }
  // The first main-board share and the first index of SZ.
  void Pick() {
    ASSERT_EQ(api_->ReqMarketInit(kSZ), 0);
    auto init = Settle().at(0).bytes;
    auto head = Read<ApiMarketInitHead>(init);
    for (uint32_t i = 0; i < head.code_count; ++i) {
      auto code = Read<ApiCodeInit>(init, sizeof(head) + i * sizeof(ApiCodeInit));
      if (code.type_code == kTypeMainStock && share_.empty()) share_ = code.code;
      if (code.type_code == kTypeIndex && index_.empty()) index_ = code.code;
    }
    ASSERT_FALSE(share_.empty());
    ASSERT_FALSE(index_.empty());
  }
  // Every kind asked for code under base + bit; the answers by kind.
  std::map<std::string, std::vector<uint8_t>> AskAll(const std::string& code, uint16_t base = 100) {
    for (const tavr::FinanceKind& kind : tavr::kFinanceKinds) {
      FinanceRequest request{};
      request.request_id = static_cast<uint16_t>(base + kind.bit);
      request.market = kSZ;
      std::snprintf(request.code, sizeof(request.code), "%s", code.c_str());
      EXPECT_EQ((api_->*kind.request)(&request), 0);
    }
    std::map<std::string, std::vector<uint8_t>> answers;
    for (auto& record : Settle()) {
      EXPECT_NE(record.thread, std::this_thread::get_id());
      EXPECT_TRUE(answers.emplace(record.kind, record.bytes).second) << record.kind;
    }
    return answers;
  }

  std::string share_;
  std::string index_;
};

template <typename Item>
std::vector<Item> Items(const std::vector<uint8_t>& bytes) {
  std::vector<Item> items(static_cast<size_t>(std::max(0, +Read<ApiShareRsp>(bytes).count)));
  for (size_t i = 0; i < items.size(); ++i) items[i] = Read<Item>(bytes, sizeof(ApiShareRsp) + i * sizeof(Item));
  return items;
}

TEST_F(SimFinanceTest, AShareHasReportsThatHangTogether) {
  Connect();
  Pick();
  auto answers = AskAll(share_);
  ASSERT_EQ(answers.size(), 8u);
  const std::pair<const char*, int> bits[] = {{"balance", 1}, {"income", 2}, {"cash flow", 4}, {"per share", 8},
                                              {"capital", 16}, {"holder count", 32}, {"top ten", 64},
                                              {"top ten tradable", 128}};
  for (const auto& [kind, bit] : bits) {
    auto head = Read<ApiShareRsp>(answers[kind]);
    EXPECT_EQ(+head.request_id, 100 + bit) << kind;
    EXPECT_EQ(std::string(head.code), share_);
    EXPECT_EQ(+head.count, bit >= 64 ? kHolderPeriods : kStatementPeriods) << kind;
  }
  auto balance = Items<ApiBalanceSheetItem>(answers["balance"]);
  auto income = Items<ApiIncomeStatementItem>(answers["income"]);
  auto cash = Items<ApiCashFlowItem>(answers["cash flow"]);
  auto per = Items<ApiFinancialDataItem>(answers["per share"]);
  auto capital = Items<ApiShareItem>(answers["capital"]);
  for (size_t i = 0; i < balance.size(); ++i) {
    float b[sizeof(ApiBalanceSheetItem::items) / sizeof(float)];  // packed: copied out before use
    std::memcpy(b, balance[i].items, sizeof(b));
    double assets = b[balance::kTotalAssets];
    EXPECT_NEAR(assets, b[balance::kTotalLiabilities] + b[balance::kTotalEquity], assets * 1e-6);
    double current = 0;
    for (int k = 0; k < balance::kCurrentAssets; ++k) current += b[k];
    EXPECT_NEAR(current, b[balance::kCurrentAssets], assets * 1e-6);
    EXPECT_EQ(+cash[i].items[cash_flow::kEndCash], +b[balance::kCash]);
    EXPECT_EQ(+income[i].report_date, +balance[i].report_date);
    EXPECT_LE(+balance[i].report_date, +balance[i].announce_date);
    if (i > 0) {
      EXPECT_LT(+balance[i].report_date, +balance[i - 1].report_date);
    }
    double shares = capital[i].items[capital::kTotalShares];
    EXPECT_EQ(shares, capital[i].items[capital::kTradableShares] + capital[i].items[capital::kRestrictedShares]);
    EXPECT_NEAR(+per[i].items[per_share::kEps], income[i].items[income::kParentNetProfit] * 10000 / shares, 1e-4);
    EXPECT_NEAR(+per[i].items[per_share::kBookValue], b[balance::kParentEquity] * 10000 / shares, 1e-3);
  }
  for (const char* kind : {"top ten", "top ten tradable"}) {
    for (const auto& list : Items<ApiTopHolderItem>(answers[kind])) {
      ASSERT_EQ(+list.holder_count, 10);
      double stakes = 0;
      for (int h = 0; h < 10; ++h) {
        EXPECT_GT(std::strlen(list.holders[h].name), 0u);
        EXPECT_EQ(+list.holders[h].rank, h + 1);
        if (h > 0) {
          EXPECT_LE(+list.holders[h].shares, +list.holders[h - 1].shares);
        }
        stakes += list.holders[h].ratio;
      }
      EXPECT_LE(stakes, 100.0) << kind;
    }
  }
  EXPECT_EQ(AskAll(share_), answers) << "the same answers to the same questions";
}

TEST_F(SimFinanceTest, AKindCanBeSilentAnswerTwiceOrWithANegativeCount) {
  EXPECT_EQ(SimSetFinanceReply(3, 0), -1);
  EXPECT_EQ(SimSetFinanceReply(16, 4), -1);
  Connect();
  Pick();
  ASSERT_EQ(SimSetFinanceReply(1, 1), 0);
  ASSERT_EQ(SimSetFinanceReply(16, 2), 0);
  ASSERT_EQ(SimSetFinanceReply(64, 3), 0);
  FinanceRequest request{};
  std::snprintf(request.code, sizeof(request.code), "%s", share_.c_str());
  request.market = kSZ;
  EXPECT_EQ(api_->ReqBalanceSheet(&request), 0);
  EXPECT_EQ(api_->ReqShareData(&request), 0);
  EXPECT_EQ(api_->ReqMostShareHolder(&request), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].kind, "capital");
  EXPECT_EQ(records[1].bytes, records[0].bytes);
  EXPECT_EQ(records[2].kind, "top ten");
  EXPECT_EQ(+Read<ApiShareRsp>(records[2].bytes).count, -1);

  // Codes without reports are answered with none; other markets not at all.
  SimSetFinanceReply(1, 0);
  SimSetFinanceReply(16, 0);
  auto answers = AskAll(index_);
  for (const auto& [kind, bytes] : answers) EXPECT_EQ(+Read<ApiShareRsp>(bytes).count, kind == "top ten" ? -1 : 0);
  request.market = kSQ;
  EXPECT_EQ(api_->ReqShareData(&request), -1);
}

}  // namespace
}  // namespace sim
