#include "market/base_code_info.h"

#include <gtest/gtest.h>

#include "testkit/records.h"

namespace tavr {
namespace {

TEST(BaseCodeInfoTest, ProductCodes) {
  const std::pair<const char*, const char*> cases[] = {
      {"IF2012", "IF"}, {"a2101", "a"},  {"SPD-XY", "XY"}, {"600000", "600000"}, {"IF", "IF"},
      {"SR401", "SR"},  {"ABC", "AB"},   {"A1", "A1"},     {"SPD-", ""},        {"AB-CD", "AB"},
  };
  for (auto [code, product] : cases) EXPECT_EQ(product_code_of(code), product) << code;
}

TEST(BaseCodeInfoTest, PriceDigitsFromTicks) {
  const std::pair<double, int> cases[] = {{1, 0}, {5, 0}, {0.2, 1}, {0.01, 2}, {0.001, 3}, {0.0001, 4},
                                          {0.05, 2}, {1e-8, 8}, {5e-9, 10}, {0, 10}, {-1, 10}};
  for (auto [tick, digits] : cases) EXPECT_EQ(price_digits_from_tick(tick), digits) << tick;
}

TEST(BaseCodeInfoTest, OptionsGoToTheSecondTable) {
  EXPECT_TRUE(in_other_codes(2, "10004567"));
  EXPECT_FALSE(in_other_codes(2, "600000"));
  EXPECT_FALSE(in_other_codes(2, "90001234"));
  EXPECT_TRUE(in_other_codes(1, "90001234"));
  EXPECT_FALSE(in_other_codes(1, "10004567"));
  EXPECT_FALSE(in_other_codes(1, "9000123"));
  EXPECT_FALSE(in_other_codes(9, "10004567"));
}

TEST(BaseCodeInfoTest, RecordFieldsFollowTheirRules) {
  auto info = make_base_code(testkit::code_init("600000", "  N浦发  ", 3, 0, 19991110), "SH");
  EXPECT_EQ(info->code, "600000");
  EXPECT_EQ(info->name, "N浦发");
  EXPECT_EQ(info->name2, info->name);
  EXPECT_TRUE(info->is_new_listing);
  EXPECT_EQ(info->volume_unit, 1);
  EXPECT_EQ(info->price_digits, 3);
  EXPECT_FLOAT_EQ(info->price_tick, 0.001f);
  EXPECT_EQ(info->list_date, 19991110u);
  EXPECT_DOUBLE_EQ(info->ref_a, 0.5);
  EXPECT_DOUBLE_EQ(info->ref_b, 10.0);
  EXPECT_EQ(info->limit_a, 1000000u);
  EXPECT_EQ(info->factor_b, 1);
  EXPECT_FALSE(make_base_code(testkit::code_init("600001", "浦N"), "SH")->is_new_listing);
}

TEST(BaseCodeInfoTest, HongKongNamesCutInsideACharacterAreMended) {
  // 23 bytes: eleven double-byte characters and half of a twelfth.
  std::string cut = std::string(22, '\xB0') + "\xB1";
  auto mended = make_base_code(testkit::code_init("0070001", cut), "HK");
  EXPECT_EQ(mended->name, std::string(22, '\xB0') + "\xCA\xFD");
  EXPECT_EQ(mended->name2, mended->name);
  // Five-character codes, even lengths and other markets keep their names.
  EXPECT_EQ(make_base_code(testkit::code_init("00700", cut), "HK")->name, cut);
  EXPECT_EQ(make_base_code(testkit::code_init("0070001", cut), "SH")->name, cut);
  std::string even(24, '\xB0');
  EXPECT_EQ(make_base_code(testkit::code_init("0070001", even), "HK")->name, even);
  // A field filled to its last byte is read without a terminator.
  std::string full(32, 'A');
  full[31] = 'Z';
  EXPECT_EQ(make_base_code(testkit::code_init("600000", full), "SH")->name, full);
}

}  // namespace
}  // namespace tavr
