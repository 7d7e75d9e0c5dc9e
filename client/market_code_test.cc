#include <string>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"

namespace tavr {
namespace {

TEST(MarketCodeTest, HostCodesTranslateBothWays) {
  struct Row {
    const char* host;
    const char* market;
    char variant;
    bool known;
  };
  const Row rows[] = {
      {"SH", "SH", 1, true},   {"SZ", "SZ", 1, true},   {"IF", "ZJ", 1, true},  {"SF", "SQ", 1, true},
      {"INE", "SN", 1, true},  {"DF", "DL", 1, true},   {"ZF", "ZZ", 1, true},  {"SHO", "SH", 2, true},
      {"SZO", "SZ", 2, true},  {"HGT", "HK", 1, true},  {"SGT", "HK", 2, true}, {"XX", "XX", 1, false},
      {"sh", "sh", 1, false},  {"", "", 1, false},      {"HK", "HK", 1, false}, {"ZJ", "ZJ", 1, false},
  };
  for (const Row& row : rows) {
    std::string market = "garbage";
    char variant = 9;
    EXPECT_EQ(KelQuoteClient::market_id_transfer_to_dravik(row.host, market, variant), row.known) << row.host;
    EXPECT_EQ(market, row.market) << row.host;
    EXPECT_EQ(variant, row.variant) << row.host;
    // Every known host code survives the round trip.
    if (row.known) {
      EXPECT_EQ(KelQuoteClient::market_id_transfer_from_dravik(market, variant), row.host);
    }
  }
}

TEST(MarketCodeTest, ServiceNamesToHostCodesPerVariant) {
  struct Row {
    const char* market;
    const char* v1;
    const char* v2;
    const char* other;  // variants 0 and 3
  };
  const Row rows[] = {
      {"SH", "SH", "SHO", "SH"}, {"SZ", "SZ", "SZO", "SZ"}, {"HK", "HGT", "SGT", "SGT"}, {"ZJ", "IF", "", "IF"},
      {"SQ", "SF", "", "SF"},    {"SN", "INE", "", "INE"},  {"DL", "DF", "", "DF"},      {"ZZ", "ZF", "", "ZF"},
      {"XX", "XX", "", "XX"},    {"sh", "sh", "", "sh"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(KelQuoteClient::market_id_transfer_from_dravik(row.market, 1), row.v1) << row.market;
    EXPECT_EQ(KelQuoteClient::market_id_transfer_from_dravik(row.market, 2), row.v2) << row.market;
    EXPECT_EQ(KelQuoteClient::market_id_transfer_from_dravik(row.market, 0), row.other) << row.market;
    EXPECT_EQ(KelQuoteClient::market_id_transfer_from_dravik(row.market, 3), row.other) << row.market;
  }
}

TEST(MarketCodeTest, NamesAndIds) {
  const std::pair<const char*, int32_t> ids[] = {{"SZ", 1}, {"SH", 2}, {"SQ", 5}, {"SN", 6},
                                                 {"DL", 7}, {"ZZ", 8}, {"ZJ", 9}, {"HK", 10}};
  for (auto [name, id] : ids) {
    EXPECT_EQ(DvDataMgr::get_market_id_by_name(name), id);
    EXPECT_EQ(DvDataMgr::get_market_name_by_id(id), name);
  }
  for (const char* name : {"XX", "", "sh", "SHO"}) EXPECT_EQ(DvDataMgr::get_market_id_by_name(name), -1) << name;
  for (int32_t id : {-1, 0, 3, 4, 11, 255, INT32_MIN}) EXPECT_EQ(DvDataMgr::get_market_name_by_id(id), "") << id;
}

}  // namespace
}  // namespace tavr
