// The simulated service as a host sees it: through GetApiInstance and the
// control functions that the DataApi library exports.
#include <algorithm>
#include <string>
#include <vector>

#include "dataapi/sim/sim_host_test.h"
#include "dataapi/sim/universe.h"

namespace sim {
namespace {

std::vector<std::string> Codes(const std::vector<uint8_t>& init) {
  auto head = Read<ApiMarketInitHead>(init);
  std::vector<std::string> codes;
  for (uint32_t i = 0; i < head.code_count; ++i) {
    codes.emplace_back(Read<ApiCodeInit>(init, sizeof(head) + i * sizeof(ApiCodeInit)).code);
  }
  return codes;
}

class SimApiTest : public SimHostTest {
 protected:
  std::vector<uint8_t> InitOf(int market_id) {
    EXPECT_EQ(api_->ReqMarketInit(market_id), 0);
    auto records = Settle();
    EXPECT_EQ(records.size(), 1u);
    return records.empty() ? std::vector<uint8_t>() : records[0].bytes;
  }

};

TEST_F(SimApiTest, RequestsWhileNotConnectedAnswerNothing) {
  HKRateRequest rates{};
  EXPECT_EQ(api_->ReqMarketStatus(0), -1);
  EXPECT_EQ(api_->ReqMarketInit(0), -1);
  EXPECT_EQ(api_->ReqMarketOtherBase(kSH), -1);
  EXPECT_EQ(api_->ReqRefInfo(kSH), -1);
  EXPECT_EQ(api_->ReqLatestShare(kSH), -1);
  EXPECT_EQ(api_->ReqBaseData(), -1);
  EXPECT_EQ(api_->ReqHoliday(2), -1);
  EXPECT_EQ(api_->ReqHKRate(&rates), -1);
  EXPECT_EQ(SimChangeMarket(kSH), -1);
  Connect();
  api_->Release();
  EXPECT_EQ(api_->ReqMarketStatus(0), -1);
  EXPECT_TRUE(Settle().empty());
}

TEST_F(SimApiTest, EveryMarketsStatusAndDataArriveOnTheServicesThread) {
  Connect();
  ASSERT_EQ(api_->ReqMarketStatus(0), 0);
  ASSERT_EQ(api_->ReqMarketInit(0), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 16u);
  std::vector<int> status_ids;
  std::vector<int> init_ids;
  for (size_t i = 0; i < records.size(); ++i) {
    const auto& record = records[i];
    EXPECT_NE(record.thread, std::this_thread::get_id());
    EXPECT_EQ(record.thread, records[0].thread);
    if (i < 8) {
      ASSERT_EQ(record.kind, "status");
      auto status = Read<ApiMarketStatus>(record.bytes);
      status_ids.push_back(status.market_id);
      EXPECT_EQ(+status.changed, 0);
      EXPECT_NE(+status.checksum, 0u);
      continue;
    }
    ASSERT_EQ(record.kind, "init");
    auto head = Read<ApiMarketInitHead>(record.bytes);
    init_ids.push_back(head.market_id);
    EXPECT_GT(+head.code_count, 0u);
    EXPECT_EQ(+head.trade_date, +Read<ApiMarketStatus>(records[i - 8].bytes).date);
    EXPECT_EQ(record.bytes.size(), sizeof(head) + head.code_count * sizeof(ApiCodeInit));
  }
  std::vector<int> ids{kSZ, kSH, kSQ, kSN, kDL, kZZ, kZJ, kHK};
  EXPECT_EQ(status_ids, ids);
  EXPECT_EQ(init_ids, ids);
  EXPECT_EQ(api_->ReqMarketInit(3), -1);  // no market has id 3
}

TEST_F(SimApiTest, AStockMarketsFollowUpRepliesCoverItsInstruments) {
  Connect();
  std::vector<std::string> codes = Codes(InitOf(kSH));
  ASSERT_EQ(api_->ReqMarketOtherBase(kSH), 0);
  ASSERT_EQ(api_->ReqRefInfo(kSH), 0);
  ASSERT_EQ(api_->ReqLatestShare(kSH), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 3u);

  ASSERT_EQ(records[0].kind, "other base");
  auto other = Read<ApiMarketOtherBaseHead>(records[0].bytes);
  EXPECT_EQ(+other.market_id, kSH);
  ASSERT_EQ(+other.count, static_cast<int32_t>(codes.size()));
  int options = 0;
  for (int32_t i = 0; i < other.count; ++i) {
    auto item = Read<ApiOtherBaseItem>(records[0].bytes, sizeof(other) + i * sizeof(ApiOtherBaseItem));
    EXPECT_EQ(std::string(item.code), codes[i]);
    if (item.board == kBoardOption) ++options;
  }
  EXPECT_GT(options, 500);

  ASSERT_EQ(records[1].kind, "reference");
  auto ref = Read<ApiRefInfoHead>(records[1].bytes);
  EXPECT_EQ(+ref.count, static_cast<int32_t>(codes.size()));
  auto first = Read<ApiRefInfoItem>(records[1].bytes, sizeof(ref));
  EXPECT_EQ(std::string(first.code), codes[0]);
  EXPECT_FLOAT_EQ(+first.tick, 0.01f);

  ASSERT_EQ(records[2].kind, "share capital");
  auto shares = Read<ApiLatestShareHead>(records[2].bytes);
  EXPECT_GT(+shares.count, 2000);
  auto share = Read<ApiLatestShareItem>(records[2].bytes, sizeof(shares));
  EXPECT_GE(+share.total_shares, +share.float_shares);
  EXPECT_GT(+share.float_shares, 0);
}

TEST_F(SimApiTest, BaseDataSendsTheSharedFieldsThenTheNewIssues) {
  Connect();
  ASSERT_EQ(api_->ReqBaseData(), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].kind, "shared fields");
  EXPECT_NEAR(+Read<ApiSharedFields>(records[0].bytes).rate, 0.915, 0.02);
  ASSERT_EQ(records[1].kind, "new issues");
  auto head = Read<ApiNewIssueHead>(records[1].bytes);
  EXPECT_GT(+head.count, 0);
  auto issue = Read<ApiNewIssueItem>(records[1].bytes, sizeof(head));
  EXPECT_TRUE(issue.market_id == kSH || issue.market_id == kSZ);
  EXPECT_EQ(std::strlen(issue.code), 6u);
}

TEST_F(SimApiTest, HolidaysAndConnectRates) {
  Connect();
  EXPECT_EQ(api_->ReqHoliday(1), -1);
  ASSERT_EQ(api_->ReqHoliday(2), 0);
  HKRateRequest january{};
  january.field = 7;
  january.begin = 20240101;
  january.end = 20240131;
  ASSERT_EQ(api_->ReqHKRate(&january), 0);
  HKRateRequest all{};
  ASSERT_EQ(api_->ReqHKRate(&all), 0);
  auto records = Settle();
  ASSERT_EQ(records.size(), 3u);

  auto holidays = Read<ApiHolidayHead>(records[0].bytes);
  EXPECT_EQ(+holidays.kind, 2);
  std::vector<int32_t> days(static_cast<size_t>(holidays.count));
  std::memcpy(days.data(), records[0].bytes.data() + sizeof(holidays), days.size() * sizeof(int32_t));
  for (int32_t day : {20241001, 20241002, 20241003, 20241004, 20241007}) {
    EXPECT_NE(std::find(days.begin(), days.end(), day), days.end()) << day;
  }

  auto head = Read<ApiHKRateHead>(records[1].bytes);
  EXPECT_EQ(+head.field, 7);
  EXPECT_EQ(+head.begin, 20240101);
  EXPECT_EQ(+head.end, 20240131);
  ASSERT_EQ(+head.count, 22u);  // January 2024 without New Year's Day
  for (uint32_t i = 0; i < head.count; ++i) {
    auto rate = Read<ApiHKRateItem>(records[1].bytes, sizeof(head) + i * sizeof(ApiHKRateItem));
    EXPECT_EQ(rate.date / 100, 202401);
    EXPECT_NEAR(+rate.rate_a, 0.915, 0.02);
  }
  auto whole = Read<ApiHKRateHead>(records[2].bytes);
  EXPECT_EQ(+whole.begin, Universe::kHKConnectStart);
  EXPECT_GT(+whole.count, 2800u);
  EXPECT_EQ(+Read<ApiHKRateItem>(records[2].bytes, sizeof(whole)).date, Universe::kHKConnectStart);
}

TEST_F(SimApiTest, AChangedMarketReportsItAndServesFreshData) {
  Connect();
  ASSERT_EQ(api_->ReqMarketStatus(kSZ), 0);
  auto before = Settle();
  ASSERT_EQ(before.size(), 1u);
  std::vector<std::string> codes = Codes(InitOf(kSZ));

  ASSERT_EQ(SimChangeMarket(kSZ), 0);
  auto reported = Settle();
  ASSERT_EQ(reported.size(), 1u);
  ASSERT_EQ(reported[0].kind, "status");
  auto old_status = Read<ApiMarketStatus>(before[0].bytes);
  auto new_status = Read<ApiMarketStatus>(reported[0].bytes);
  EXPECT_EQ(+new_status.market_id, kSZ);
  EXPECT_EQ(+new_status.changed, 1);
  EXPECT_NE(+new_status.checksum, +old_status.checksum);
  EXPECT_GE(+new_status.date, +old_status.date);

  std::vector<std::string> fresh = Codes(InitOf(kSZ));
  ASSERT_EQ(fresh.size(), codes.size() + 1);  // a new listing
  std::vector<std::string> added;
  std::set_difference(fresh.begin(), fresh.end(), codes.begin(), codes.end(), std::back_inserter(added));
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].substr(0, 4), "3016");

  // Reported once: the next status of the market is unchanged.
  ASSERT_EQ(api_->ReqMarketStatus(kSZ), 0);
  auto again = Settle();
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(+Read<ApiMarketStatus>(again[0].bytes).changed, 0);
  EXPECT_EQ(+Read<ApiMarketStatus>(again[0].bytes).checksum, +new_status.checksum);
  EXPECT_EQ(SimChangeMarket(4), -1);
}

TEST_F(SimApiTest, ASeedPicksItsUniverseFromTheNextConnect) {
  auto connect_with = [&](unsigned seed) {
    SimSetSeed(seed);
    api_->Release();
    Connect();
    return InitOf(kZJ);
  };
  std::vector<uint8_t> first = connect_with(99);
  SimSetSeed(98);
  EXPECT_EQ(InitOf(kZJ), first);  // not before the next connect
  std::vector<uint8_t> other = connect_with(98);
  std::vector<uint8_t> again = connect_with(99);
  EXPECT_NE(other, first);
  EXPECT_EQ(again, first);
  connect_with(static_cast<unsigned>(Universe::kDefaultSeed));
}

}  // namespace
}  // namespace sim
