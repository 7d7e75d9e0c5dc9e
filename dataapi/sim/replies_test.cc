// What the library relies on in the simulated service's replies: each holds
// what the library's callback adapter copies of it, texts keep their
// terminating NUL, and names and history blocks read as the library reads
// them.
#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "dataapi/sim/calendar.h"
#include "dataapi/sim/copy_rules_test.h"
#include "dataapi/sim/finance.h"
#include "dataapi/sim/history.h"
#include "dataapi/sim/quotes.h"
#include "dataapi/sim/replies.h"

namespace sim {
namespace {

constexpr int32_t kToday = 20261123;  // a Monday

const Universe& Default() {
  static const Universe universe(Universe::kDefaultSeed, kToday);
  return universe;
}

template <typename T>
T Read(const Bytes& bytes, size_t offset = 0) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

const Instrument* Find(const Market& market, const std::string& code) {
  int at = find_instrument(market, code);
  return at < 0 ? nullptr : &market.instruments[static_cast<size_t>(at)];
}

void ExpectAdapterSize(const Bytes& reply, const CopyRule& rule, const std::string& what) {
  ASSERT_GE(reply.size(), rule.head) << what;
  if (rule.elem == 0 || CountOf(reply.data(), rule) > 0) {
    EXPECT_EQ(reply.size(), AdapterSize(reply.data(), rule)) << what;
  }
}

// A level-2 message: the adapter copies the 8-byte head and count elements.
void ExpectLevel2Size(const Bytes& message, size_t elem, const std::string& what) {
  if (message.empty()) return;  // not sent
  ASSERT_GE(message.size(), 8u) << what;
  EXPECT_EQ(message.size(), 8 + static_cast<size_t>(CountOf(message.data(), CopyRule{8, elem, 4})) * elem) << what;
}

TEST(RepliesTest, EveryReplyHoldsWhatTheAdapterCopies) {
  const Universe& u = Default();
  QuoteBook book(u.seed());
  const Stamp trading{100000, 0, kToday, 1};
  for (const Market& market : u.markets()) {
    ExpectAdapterSize(market_status_reply(market, false), kStatusRule, market.name + " status");
    ExpectAdapterSize(market_init_reply(market), kInitRule, market.name + " init");
    ExpectAdapterSize(other_base_reply(market), kOtherBaseRule, market.name + " other base");
    ExpectAdapterSize(ref_info_reply(market), kRefInfoRule, market.name + " reference");
    ExpectAdapterSize(latest_share_reply(market), kLatestShareRule, market.name + " share capital");
    ExpectAdapterSize(book.market_package(market, trading), kMarketPushRule, market.name + " package");
  }
  ExpectAdapterSize(shared_fields_reply(1, 0.9f), kSharedFieldsRule, "shared fields");
  ExpectAdapterSize(new_issue_reply(u.new_issues()), kNewIssueRule, "new issues");
  ExpectAdapterSize(new_issue_reply({}), kNewIssueRule, "no new issue");
  ExpectAdapterSize(holiday_reply(2, exchange_holidays()), kHolidayRule, "holidays");
  ExpectAdapterSize(hk_rate_reply(0, 20141117, kToday, u.hk_rates(0, kToday)), kHKRateRule, "rates");
  ExpectAdapterSize(hk_rate_reply(0, 20300101, 20300102, {}), kHKRateRule, "no rate");

  const Market& sh = *u.market(kSH);
  for (const char* code : {"600519", "000001"}) {  // a share and an index
    for (int64_t step = 1; step < 4; ++step) {
      Level2Messages m = book.level2(sh, static_cast<size_t>(find_instrument(sh, code)), Stamp{100000, 0, kToday, step});
      ExpectLevel2Size(m.snapshot, m.index ? kL2IndexElem : kL2SnapshotElem, std::string(code) + " snapshot");
      ExpectLevel2Size(m.transactions, kL2TransactionElem, std::string(code) + " transactions");
      ExpectLevel2Size(m.orders, kL2OrderElem, std::string(code) + " orders");
      ExpectLevel2Size(m.queues, kL2QueueElem, std::string(code) + " queues");
    }
  }

  const std::pair<int, CopyRule> kinds[] = {{1, kBalanceRule},  {2, kIncomeRule},   {4, kCashFlowRule},
                                            {8, kFinancialRule}, {16, kShareRule},    {32, kSHNumberRule},
                                            {64, kTopHolderRule}, {128, kTopHolderRule}};
  FinanceRequest request{};
  request.market = kSH;
  std::strcpy(request.code, "600519");
  for (const auto& [kind, rule] : kinds) {
    const std::string what = "finance " + std::to_string(kind);
    ExpectAdapterSize(finance_reply(kind, request, Find(sh, "600519"), u.seed(), kToday, false), rule, what);
    ExpectAdapterSize(finance_reply(kind, request, nullptr, u.seed(), kToday, false), rule, what + " of none");
    ExpectAdapterSize(finance_reply(kind, request, Find(sh, "600519"), u.seed(), kToday, true), rule, what + " -1");
  }
}

TEST(RepliesTest, TextsKeepTheirNulAndNamesReadAsTheLibraryReadsThem) {
  char field[8];
  put_text(field, std::string("ABCDEFGHIJ"));
  EXPECT_STREQ(field, "ABCDEFG");

  // The library reads the contract behind a continuous code from the name's
  // last piece.
  for (uint8_t id : {kSQ, kSN, kDL, kZZ, kZJ}) {
    const Market& market = *Default().market(id);
    int continuous = 0;
    for (const Instrument& item : market.instruments) {
      if (item.type_code != kTypeContinuous) continue;
      ++continuous;
      std::string contract = item.name.substr(item.name.rfind('-') + 1);
      const Instrument* named = Find(market, contract);
      ASSERT_NE(named, nullptr) << item.code << " stands for " << contract;
      EXPECT_EQ(named->type_code, kTypeFuture) << item.code;
      EXPECT_EQ(contract.rfind(item.code.substr(0, item.code.find_first_of("0123456789")), 0), 0u) << item.code;
    }
    EXPECT_GT(continuous, 0) << market.name;
  }

  // Hong Kong names fill their field with a NUL at its end; only names of
  // codes beyond five characters are cut inside a character (the library
  // mends those).
  const Market& hk = *Default().market(kHK);
  Bytes reply = market_init_reply(hk);
  int cut = 0;
  for (size_t i = 0; i < hk.instruments.size(); ++i) {
    auto item = Read<ApiCodeInit>(reply, sizeof(ApiMarketInitHead) + i * sizeof(ApiCodeInit));
    ASSERT_EQ(item.name[sizeof(item.name) - 1], '\0') << item.code;
    size_t length = strnlen(item.name, sizeof(item.name));
    size_t at = 0;
    while (at < length) at += static_cast<unsigned char>(item.name[at]) >= 0x81 ? 2 : 1;
    if (at > length) {
      ++cut;
      EXPECT_GT(strnlen(item.code, sizeof(item.code)), 5u) << item.code;
    }
  }
  EXPECT_GT(cut, 0);
}

// The elements of every block, checking the blocks' heads on the way.
template <typename Head, typename Element>
size_t CheckBlocks(const std::vector<Bytes>& blocks, int16_t id) {
  size_t elements = 0;
  for (size_t b = 0; b < blocks.size(); ++b) {
    auto head = Read<Head>(blocks[b]);
    EXPECT_EQ(+head.request_id, id);
    EXPECT_EQ(+head.last != 0, b + 1 == blocks.size());
    EXPECT_LE(+head.count, static_cast<int32_t>(kHistoryBlockElements));
    // Room for one element at least: what the adapter copies of an empty block.
    EXPECT_EQ(blocks[b].size(), sizeof(Head) + std::max(+head.count, 1) * sizeof(Element));
    elements += static_cast<size_t>(std::max(+head.count, 0));
  }
  return elements;
}

TEST(HistoryBlocksTest, BlocksCarryTheRequestAndEndWithTheLastOne) {
  const Universe& u = Default();
  const Market& sh = *u.market(kSH);
  HisBarRequest bars{};
  bars.request_id = 42;
  bars.market = kSH;
  std::strcpy(bars.code, "600519");
  bars.start_date = 20200101;
  bars.end_date = kToday;
  bars.kline_type = 1;  // daily
  auto blocks = history_blocks(u, HistoryKind::kBars, &bars);
  ASSERT_GT(blocks.size(), 1u);
  EXPECT_EQ((CheckBlocks<ApiHisDataRsp, ApiHisBar>(blocks, 42)), trading_days(20200101, sh.trade_date).size());

  // A main-board share trades no after hours: one empty last block.
  HisTickRequest late{};
  late.request_id = 43;
  late.market = kSH;
  std::strcpy(late.code, "600519");
  late.start_date = late.end_date = 20261120;
  auto none = history_blocks(u, HistoryKind::kAfterHoursTicks, &late);
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ((CheckBlocks<ApiHisTickKcbResp, ApiHisTickKcb>(none, 43)), 0u);
}

}  // namespace
}  // namespace sim
