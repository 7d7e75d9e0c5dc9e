#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "testkit/log_capture.h"

namespace tavr {
namespace {

const char kInvalid[] = "收到无效[";

TEST(DispatcherTest, InvalidTypesAreLoggedOnceAndKnownOnesQuietly) {
  testkit::LogCapture log;
  DvDataMgr mgr;
  char payload[64] = {0};
  for (int type : {29, 41, -1, 1000}) {
    log.clear();
    mgr.on_reply_data(type, payload, sizeof(payload));
    ASSERT_EQ(log.lines().size(), 1u) << type;
    EXPECT_EQ(log.lines()[0].text, "[DvDataMgr::on_reply_data]: 收到无效[" + std::to_string(type) + "]类型数据.....");
    EXPECT_EQ(log.lines()[0].level, 20000);
  }
  log.clear();
  for (int type : {14, 17, 18, 19, 20, 21, 22, 23, 26, 27, 28, 32}) mgr.on_reply_data(type, payload, 0);
  EXPECT_EQ(log.count(kInvalid), 0u) << log.dump();
}

std::vector<uint8_t> PowerReply(uint16_t count, size_t items_present) {
  ApiPowerRsp head{};
  head.count = count;
  std::vector<uint8_t> bytes(sizeof(head) + items_present * sizeof(ApiPowerItem));
  std::memcpy(bytes.data(), &head, sizeof(head));
  for (size_t i = 0; i < items_present; ++i) {
    ApiPowerItem item{};
    item.date = 20240102;
    item.cash_dividend = 25;
    std::memcpy(bytes.data() + sizeof(head) + i * sizeof(item), &item, sizeof(item));
  }
  return bytes;
}

TEST(DispatcherTest, DividendRepliesAreConsumedWithinTheirBytes) {
  testkit::LogCapture log;
  DvDataMgr mgr;
  auto reply = PowerReply(3, 3);
  mgr.on_reply_data(16, reply.data(), reply.size());
  // A count larger than the copied bytes must not be read past (ASan checks).
  auto short_reply = PowerReply(60000, 1);
  mgr.on_reply_data(16, short_reply.data(), short_reply.size());
  mgr.on_reply_data(16, short_reply.data(), 10);  // not even a whole head
  EXPECT_EQ(log.count(kInvalid), 0u);
}

}  // namespace
}  // namespace tavr
