#include "capture/catalog.h"

#include <cstring>

#include <gtest/gtest.h>

namespace capture {
namespace {

// The vtable slot of a member function under the Itanium C++ ABI (both of
// our toolchains): the pointer-to-member holds 1 + the byte offset.
long SlotOf(Callback member) {
  long value;
  std::memcpy(&value, &member, sizeof(value));
  return (value - 1) / static_cast<long>(sizeof(void*));
}

// Replay calls back through this table: a slot off by one would hand a
// record to the wrong conversion.
TEST(CatalogTest, EachSlotsCallbackSitsInThatSlot) {
  int named = 0;
  for (int slot = 0; slot < kSlots; ++slot) {
    if (Callback callback = slot_callback(slot)) {
      EXPECT_EQ(SlotOf(callback), slot) << slot_name(slot);
      ++named;
    }
  }
  EXPECT_EQ(named, 34);
  EXPECT_STREQ(slot_name(kConnectStatusSlot), "OnConnectStatus");
  EXPECT_STREQ(op_name(kConnect), "Connect");
  EXPECT_STREQ(op_name(kRelease), "Release");
  EXPECT_STREQ(op_name(16), "ReqHisData");
  EXPECT_STREQ(op_name(55), "UnsubscribeMarketPush");
}

TEST(CatalogTest, NamesTheInstrumentOfARecord) {
  uint8_t tick[249] = {2, '6', '0', '0', '0', '0', '0'};
  EXPECT_EQ(instrument_of(3, tick, sizeof(tick)), "600000.SH");
  EXPECT_EQ(instrument_of(3, tick, 30), "");  // too short to hold the code
  uint8_t push[6] = {1, 0};
  EXPECT_EQ(instrument_of(47, push, sizeof(push)), "SZ");
  uint8_t finance[42] = {21, 0, 1, 0, 0, 0, '0', '0', '0', '0', '0', '1'};
  EXPECT_EQ(instrument_of(36, finance, sizeof(finance)), "000001.SZ");
  EXPECT_EQ(instrument_of(10, tick, sizeof(tick)), "");
}

}  // namespace
}  // namespace capture
