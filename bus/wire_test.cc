// What a host or the gateway accepts from the wire: records whose bytes
// match their own counts, chunks in sequence, settings it can read, the
// subject a request is routed by.
#include "bus/wire.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "dataapi/ApiRecords.h"

namespace {

std::vector<uint8_t> Callback(int slot, const void* bytes, size_t size) {
  std::vector<uint8_t> out;
  bus::encode(capture::Kind::kCallback, static_cast<uint8_t>(slot), 1, bytes, size, nullptr, 0, nullptr, 0, &out);
  return out;
}

bool Accepts(const std::vector<uint8_t>& message) {
  bus::View v;
  std::string why;
  bool ok = bus::decode(message.data(), message.size(), &v, &why);
  EXPECT_EQ(ok, why.empty()) << why;
  return ok;
}

TEST(BusWire, RecordsMustHoldWhatTheirCountsPromise) {
  ApiL1Tick tick{};
  EXPECT_TRUE(Accepts(Callback(3, &tick, sizeof(tick))));
  EXPECT_FALSE(Accepts(Callback(3, &tick, sizeof(tick) - 1)));

  // A market's initialisation promising three codes but carrying one: the
  // library would read two codes beyond the message.
  std::vector<uint8_t> init(132, 0);
  uint32_t count = 3;
  std::memcpy(init.data() + 44, &count, 4);
  EXPECT_FALSE(Accepts(Callback(0, init.data(), init.size())));
  init.resize(132 + 2 * 84);
  EXPECT_TRUE(Accepts(Callback(0, init.data(), init.size())));

  int32_t both[2] = {0, 1};
  EXPECT_TRUE(Accepts(Callback(40, both, sizeof(both))));
  EXPECT_FALSE(Accepts(Callback(40, both, 4)));
  EXPECT_FALSE(Accepts(Callback(13, &tick, sizeof(tick))));  // a slot no record comes through

  std::vector<uint8_t> message = Callback(3, &tick, sizeof(tick));
  message[4] = 9;  // no such kind
  EXPECT_FALSE(Accepts(message));
  message = Callback(3, &tick, sizeof(tick));
  message.push_back(0);  // the length no longer matches
  EXPECT_FALSE(Accepts(message));
  EXPECT_FALSE(Accepts(std::vector<uint8_t>(8, 0)));
}

TEST(BusWire, ChunksComeTogetherOnlyInSequence) {
  auto chunk = [](uint32_t index, uint32_t count, const std::string& piece) {
    // Sized at once: GCC 12 warns wrongly of an insert after the head.
    std::vector<uint8_t> out(12 + piece.size());
    std::memcpy(out.data(), "KQCK", 4);
    std::memcpy(out.data() + 4, &index, 4);
    std::memcpy(out.data() + 8, &count, 4);
    std::memcpy(out.data() + 12, piece.data(), piece.size());
    return out;
  };
  bus::Assembly assembly;
  const uint8_t* out = nullptr;
  size_t size = 0;
  std::string why;
  auto a = chunk(0, 2, "abc"), b = chunk(1, 2, "def");
  EXPECT_FALSE(assembly.feed(a.data(), a.size(), &out, &size, &why));
  ASSERT_TRUE(assembly.feed(b.data(), b.size(), &out, &size, &why));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(out), size), "abcdef");

  // A piece lost on the way: the record is refused, not put together short.
  auto c = chunk(0, 3, "abc"), d = chunk(2, 3, "ghi");
  EXPECT_FALSE(assembly.feed(c.data(), c.size(), &out, &size, &why));
  EXPECT_FALSE(assembly.feed(d.data(), d.size(), &out, &size, &why));
  EXPECT_FALSE(why.empty());
}

TEST(BusWire, SubjectsAndSettings) {
  // A code cannot add tokens or wildcards to a subject.
  EXPECT_EQ(bus::code_token("A.*>", 32), "A~2E~2A~3E");
  EXPECT_EQ(bus::l1_subject("kq", 2, "600000", 32), "kq.l1.SH.600000");

  std::string path = ::testing::TempDir() + "/bus_settings";
  std::FILE* f = std::fopen(path.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("# the bus\nurl = nats://127.0.0.1:1\nreplicas = 3\nreplicas = lots\n", f);
  std::fclose(f);
  bus::Settings s;
  std::string error;
  EXPECT_FALSE(bus::read_settings_file(path, &s, &error));
  EXPECT_NE(error.find("line 4"), std::string::npos) << error;
  EXPECT_EQ(s.replicas, 3);
  EXPECT_FALSE(bus::read_settings_file(path + ".none", &s, &error));
  std::remove(path.c_str());

  // Gateways splitting the markets: names and numbers, the common requests
  // with the gateway of all markets unless said otherwise.
  EXPECT_TRUE(s.serves_common());
  EXPECT_TRUE(bus::apply_setting(&s, "markets", "SH, 1", &error)) << error;
  EXPECT_EQ(s.markets, (std::vector<std::string>{"SH", "SZ"}));
  EXPECT_FALSE(s.serves_common());
  EXPECT_TRUE(bus::apply_setting(&s, "common", "true", &error));
  EXPECT_TRUE(s.serves_common());
  EXPECT_FALSE(bus::apply_setting(&s, "markets", "SH,*", &error));
  EXPECT_FALSE(bus::apply_setting(&s, "markets", "any", &error));
  EXPECT_FALSE(bus::apply_setting(&s, "gateway", "a.b", &error));
  EXPECT_TRUE(bus::apply_setting(&s, "markets", "all", &error));
  EXPECT_TRUE(s.markets.empty());

  // A request goes by the market it concerns; market 0 (all) and the
  // requests of no market go to the common gateway.
  int32_t market = 1;
  EXPECT_EQ(bus::request_route(4, reinterpret_cast<const uint8_t*>(&market), 4), "SZ");
  market = 0;
  EXPECT_EQ(bus::request_route(5, reinterpret_cast<const uint8_t*>(&market), 4), bus::kCommonRoute);
  market = 2;
  EXPECT_EQ(bus::request_route(14, reinterpret_cast<const uint8_t*>(&market), 4), bus::kCommonRoute);
  ApiCodeItem item{};
  item.market = 2;
  EXPECT_EQ(bus::request_route(7, reinterpret_cast<const uint8_t*>(&item), sizeof(item)), "SH");
  FinanceRequest finance{};
  finance.market = 1;
  EXPECT_EQ(bus::request_route(29, reinterpret_cast<const uint8_t*>(&finance), sizeof(finance)), "SZ");
  ApiMarketItem push{1, 2};
  EXPECT_EQ(bus::request_route(54, reinterpret_cast<const uint8_t*>(&push), sizeof(push)), "SH");
}

}  // namespace
