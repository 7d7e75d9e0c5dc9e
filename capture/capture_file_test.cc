// Reading capture files as a killed process or another build leaves them.
#include "capture/capture_file.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testkit/work_dir.h"

namespace capture {
namespace {

std::vector<uint8_t> Header(uint16_t version) {
  std::vector<uint8_t> bytes(kHeaderBytes);
  encode_header(FileHeader{version, 3, 1234567}, bytes.data());
  return bytes;
}

void Append(std::vector<uint8_t>& file, Kind kind, uint8_t code, uint64_t ns, const std::vector<uint8_t>& payload) {
  uint8_t head[kRecordHeadBytes];
  encode_record_head(kind, code, ns, payload.size(), head);
  file.insert(file.end(), head, head + sizeof(head));
  file.insert(file.end(), payload.begin(), payload.end());
}

class CaptureFileTest : public ::testing::Test {
 protected:
  std::string Write(const std::vector<uint8_t>& bytes) {
    std::string path = (dir_.path() / "t.kqcap").string();
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return path;
  }
  testkit::WorkDir dir_;
};

TEST_F(CaptureFileTest, ReadsUpToTheLastWholeRecordOfACutFile) {
  std::vector<uint8_t> file = Header(kVersion);
  Append(file, Kind::kCallback, 3, 10, std::vector<uint8_t>(249, 7));
  Append(file, Kind::kRequest, 7, 20, {5, 0, 0, 0, 'x'});
  Append(file, Kind::kResult, 7, 30, {5, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF});
  size_t whole = file.size();
  Append(file, Kind::kCallback, 3, 40, std::vector<uint8_t>(249, 8));
  // Cut inside the last record's payload, and inside its head.
  for (size_t cut : {whole + 100, whole + 5}) {
    Reader reader;
    ASSERT_TRUE(reader.open(Write(std::vector<uint8_t>(file.begin(), file.begin() + cut)))) << reader.error();
    EXPECT_EQ(reader.header().part, 3u);
    EXPECT_EQ(reader.header().start_unix_ns, 1234567);
    Record r;
    ASSERT_TRUE(reader.next(r));
    EXPECT_EQ(r.kind, Kind::kCallback);
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.ns, 10u);
    EXPECT_EQ(r.bytes, std::vector<uint8_t>(249, 7));
    ASSERT_TRUE(reader.next(r));
    EXPECT_EQ(r.number, 5u);
    EXPECT_EQ(r.bytes, std::vector<uint8_t>{'x'});
    ASSERT_TRUE(reader.next(r));
    EXPECT_EQ(r.number, 5u);
    EXPECT_EQ(r.result, -1);
    EXPECT_TRUE(r.bytes.empty());
    EXPECT_FALSE(reader.next(r));
    EXPECT_EQ(reader.truncated(), cut - whole);
    EXPECT_EQ(reader.error(), "");
    EXPECT_EQ(reader.records(), 3u);
  }
}

TEST_F(CaptureFileTest, RefusesAnotherVersionAForeignFileAndADamagedLength) {
  Reader other;
  EXPECT_FALSE(other.open(Write(Header(kVersion + 1))));
  EXPECT_NE(other.error().find("capture format version 2, this build reads version 1"), std::string::npos)
      << other.error();
  Reader foreign;
  EXPECT_FALSE(foreign.open(Write(std::vector<uint8_t>(64, 'a'))));
  EXPECT_NE(foreign.error().find("not a capture file"), std::string::npos);

  std::vector<uint8_t> file = Header(kVersion);
  Append(file, Kind::kCallback, 3, 10, {1, 2});
  size_t second = file.size();
  Append(file, Kind::kCallback, 3, 10, {1, 2});
  uint32_t huge = kMaxRecordLength + 1;
  std::memcpy(&file[second], &huge, 4);
  Reader damaged;
  ASSERT_TRUE(damaged.open(Write(file)));
  Record r;
  EXPECT_TRUE(damaged.next(r));
  EXPECT_FALSE(damaged.next(r));
  EXPECT_NE(damaged.error().find("damaged record at byte " + std::to_string(second)), std::string::npos);
}

}  // namespace
}  // namespace capture
