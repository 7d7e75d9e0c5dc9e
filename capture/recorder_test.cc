// Capture inside the library: what a session writes, and what happens when
// the writer cannot keep up.
#include "capture/recorder.h"

#include <algorithm>
#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "capture/capture_file.h"
#include "capture/catalog.h"
#include "datamgr/DvDataMgr.h"
#include "port/port.h"
#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace tavr {
namespace {

namespace fs = std::filesystem;

std::vector<capture::Record> ReadAll(const std::string& path) {
  capture::Reader reader;
  EXPECT_TRUE(reader.open(path)) << reader.error();
  std::vector<capture::Record> records;
  capture::Record r;
  while (reader.next(r)) records.push_back(r);
  EXPECT_EQ(reader.error(), "");
  EXPECT_EQ(reader.truncated(), 0u);
  return records;
}

// Sends count level-1 sized callbacks whose first byte numbers them.
void RecordTicks(CaptureRecorder& rec, int count) {
  std::vector<uint8_t> tick(249);
  for (int i = 0; i < count; ++i) {
    tick[0] = static_cast<uint8_t>(i);
    rec.callback(3, tick.data(), tick.size());
  }
}

TEST(CaptureRecorderTest, DropsAndCountsWhatTheStalledWriterHasNoRoomFor) {
  testkit::WorkDir dir;
  testkit::LogCapture log;
  CaptureSettings settings;
  settings.folder = "cap";
  settings.buffer_bytes = 4096;
  CaptureRecorder rec(settings);
  ASSERT_TRUE(rec.begin());
  rec.pause_writer(true);
  RecordTicks(rec, 40);
  const int kept = 4096 / (249 + 16);
  EXPECT_EQ(rec.dropped(), 40 - kept);
  rec.pause_writer(false);
  rec.end();
  EXPECT_TRUE(log.contains("Capture buffer full, " + std::to_string(40 - kept) + " records dropped (" +
                           std::to_string(40 - kept) + " in all)"));
  std::vector<capture::Record> records = ReadAll(rec.path());
  ASSERT_EQ(records.size(), static_cast<size_t>(kept));
  for (int i = 0; i < kept; ++i) EXPECT_EQ(records[i].bytes[0], i);  // the first ones, in order
}

TEST(CaptureRecorderTest, RollsToNumberedFilesAtRecordBounds) {
  testkit::WorkDir dir;
  CaptureSettings settings;
  settings.folder = "cap";
  settings.roll_bytes = 1000;
  CaptureRecorder rec(settings);
  ASSERT_TRUE(rec.begin());
  RecordTicks(rec, 10);
  rec.end();
  std::string first = rec.path().substr(0, rec.path().find('.'));
  int seen = 0;
  for (uint32_t part = 0; part < 4; ++part) {
    std::string path = first + (part == 0 ? "" : "." + std::to_string(part)) + ".kqcap";
    capture::Reader reader;
    ASSERT_TRUE(reader.open(path)) << reader.error();
    EXPECT_EQ(reader.header().part, part);
    EXPECT_LE(fs::file_size(path), 1000u);
    capture::Record r;
    while (reader.next(r)) EXPECT_EQ(r.bytes[0], seen++);
  }
  EXPECT_EQ(seen, 10);
}

// A session of the data manager with the setting on: requests before their
// results, callbacks with their copied bytes, in the order they happened.
TEST(CaptureSessionTest, RecordsRequestsAndCallbacksOfASession) {
  testkit::WorkDir dir;
  dir.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" + testkit::servers_xml(1) + "</history>"));
  dir.write("ini/KELQuoteCapture.config", "# on\nenabled = true\nfolder = ../userdata/cap\n");
  testkit::FakeDataApi api;
  api.set_result("ReqMarketInit", -7);
  DvDataMgr mgr;
  mgr.set_api(&api);
  mgr.set_processor_count(2);
  ASSERT_TRUE(mgr.init(true));
  ASSERT_NE(mgr.capture(), nullptr);
  ASSERT_TRUE(mgr.start());
  ApiL1Tick tick = testkit::l1_tick(2, "600000", 93000, 10.5f);
  std::thread vendor([&] {
    mgr.callback()->OnTickL1(&tick);
    mgr.callback()->OnConnectStatus(1, 0);
  });
  vendor.join();
  mgr.stop();
  // What reached the vendor is what it would have got without capture.
  ASSERT_EQ(api.calls("ReqMarketInit").size(), 1u);
  EXPECT_EQ(api.calls("ReqMarketInit")[0].arg, 0);

  std::vector<capture::Record> records = ReadAll(mgr.capture()->path());
  ASSERT_TRUE(fs::path(mgr.capture()->path()).parent_path() == fs::path("../userdata/cap"));
  std::vector<std::string> seen;
  uint32_t init_number = 0;
  for (const capture::Record& r : records) {
    if (r.kind == capture::Kind::kRequest && r.code == 4) {
      init_number = r.number;
      EXPECT_EQ(r.bytes, std::vector<uint8_t>(4, 0));
    }
    if (r.kind == capture::Kind::kResult && r.code == 4) {
      EXPECT_EQ(r.number, init_number);
      EXPECT_EQ(r.result, -7);
    }
    if (r.kind == capture::Kind::kCallback && r.code == 3) {
      EXPECT_EQ(r.bytes, testkit::bytes_of(tick));
    }
    if (r.kind == capture::Kind::kCallback && r.code == 40) {
      EXPECT_EQ(r.bytes, (std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0}));
    }
    seen.push_back(std::to_string(static_cast<int>(r.kind)) + ":" + std::to_string(r.code));
  }
  // Connect first, its result next; the request for market data before its result; Release last.
  ASSERT_GE(seen.size(), 6u);
  EXPECT_EQ(seen[0], "2:3");
  EXPECT_EQ(seen[1], "3:3");
  auto at = [&](const std::string& s) { return std::find(seen.begin(), seen.end(), s) - seen.begin(); };
  EXPECT_LT(at("2:4"), at("3:4"));
  EXPECT_LT(at("1:3"), at("1:40"));
  EXPECT_EQ(seen[seen.size() - 2], "2:53");
  EXPECT_EQ(seen.back(), "3:53");
}

// The replay calls a record back through the slot it was recorded under.
TEST(CaptureSessionTest, EachCallbackIsRecordedUnderItsOwnSlot) {
  testkit::WorkDir dir;
  dir.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                 testkit::servers_xml(1) + "</history>"));
  dir.write("ini/KELQuoteCapture.config", "enabled = true\n");
  testkit::FakeDataApi api;
  DvDataMgr mgr;
  mgr.set_api(&api);
  mgr.set_processor_count(2);
  mgr.set_message_hook([](uint32_t, void*, size_t) {});  // counts of 0: nothing for the handlers
  ASSERT_TRUE(mgr.init(true));
  ASSERT_TRUE(mgr.start());
  std::vector<uint8_t> zeros(4096);
  std::vector<int> called;
  for (int slot = 0; slot < capture::kSlots; ++slot) {
    if (capture::Callback fn = capture::slot_callback(slot)) {
      (mgr.callback()->*fn)(zeros.data());
      called.push_back(slot);
    }
  }
  mgr.stop();
  std::vector<int> recorded;
  for (const capture::Record& r : ReadAll(mgr.capture()->path())) {
    if (r.kind == capture::Kind::kCallback) recorded.push_back(r.code);
  }
  EXPECT_EQ(recorded, called);
}

TEST(CaptureSessionTest, ABadSettingIsLoggedAndLeavesCaptureOff) {
  testkit::WorkDir dir;
  testkit::LogCapture log;
  dir.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" + testkit::servers_xml(1) + "</history>"));
  dir.write("ini/KELQuoteCapture.config", "enabled = true\nroll_mb = lots\n");
  testkit::FakeDataApi api;
  DvDataMgr mgr;
  mgr.set_api(&api);
  ASSERT_TRUE(mgr.init(true));
  EXPECT_EQ(mgr.capture(), nullptr);
  EXPECT_EQ(mgr.api(), &api);
  EXPECT_TRUE(log.contains(std::string("[CaptureSettings::read]: ") + port::CaptureConfigPath() +
                           " line 2: roll_mb is 1 to 1048576, not \"lots\", capture stays off..."));
}

}  // namespace
}  // namespace tavr
