// Replays the checked-in seeds and every crash input kept under
// regressions/<target>/ through the fuzz entry points: a fault that fuzzing
// found stays fixed in every build, without libFuzzer.
#include "fuzz/fuzz_entry.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace kqfuzz {
namespace {

namespace fs = std::filesystem;

// Feeds every file of corpus/<target> and regressions/<target>; returns how
// many there were.
int Replay(const std::string& target, int (*entry)(const uint8_t*, size_t)) {
  int count = 0;
  for (const char* folder : {"corpus", "regressions"}) {
    fs::path dir = fs::path(KELQUOTE_FUZZ_DIR) / folder / target;
    if (!fs::is_directory(dir)) continue;
    for (const auto& file : fs::directory_iterator(dir)) {
      if (!file.is_regular_file() || file.path().filename().string().front() == '.') continue;
      std::ifstream in(file.path(), std::ios::binary);
      std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      SCOPED_TRACE(file.path().string());
      entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  return count;
}

TEST(FuzzInputsTest, ConfigurationInputsReplay) { EXPECT_GT(Replay("config", &config_input), 0); }

// The seeds are records the simulated service sent: they reach the host.
TEST(FuzzInputsTest, RecordInputsReplayAndSeedsReachTheHost) {
  int64_t before = host_deliveries();
  EXPECT_GT(Replay("record", &record_input), 0);
  EXPECT_GT(host_deliveries(), before);
}

// Counts that claim more than the body holds are lowered to what it holds.
TEST(FuzzInputsTest, CountsAgreeWithTheBytes) {
  for (const RecordSlot& slot : record_slots()) {
    SCOPED_TRACE(slot.name);
    std::vector<uint8_t> record(min_size(slot) + 3 * slot.layout.elem + 1, 0x7F);
    size_t size = fit_count(slot, record.data(), record.size());
    EXPECT_LE(size, record.size());
    EXPECT_EQ(size, record_size(slot, record.data()));
    if (slot.layout.shape != api_record::Shape::kFixed) {
      EXPECT_GT(size + slot.layout.elem, record.size());
    }
  }
}

}  // namespace
}  // namespace kqfuzz
