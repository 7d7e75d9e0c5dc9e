#include "log/MyLog.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "testkit/log_capture.h"
#include "testkit/work_dir.h"
#include "utils/utils.h"

namespace tavr {
namespace {

// InitLog's first call in a process differs from every later one, so the
// tests of that first call run in a fresh process each (death-test style).
class FreshProcessLogTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

#define CHECK_OR_EXIT(cond, code)                          \
  do {                                                     \
    if (!(cond)) {                                         \
      std::fprintf(stderr, "failed: %s\n", #cond);         \
      std::exit(code);                                     \
    }                                                      \
  } while (0)

TEST(MyLogTest, DefaultConfigurationTextIsExact) {
  const std::string& text = CMyLog::DefaultConfig();
  ASSERT_EQ(text.size(), 611u);
  std::vector<std::string> lines;
  size_t begin = 0;
  for (size_t end; (end = text.find("\r\n", begin)) != std::string::npos; begin = end + 2) {
    lines.push_back(text.substr(begin, end - begin));
  }
  lines.push_back(text.substr(begin));
  ASSERT_EQ(lines.size(), 10u);
  EXPECT_EQ(lines[0], "log4cplus.logger.KELLog = INFO, KELLog");
  EXPECT_EQ(lines[2], "log4cplus.appender.KELLog.File = ../userdata/log/DravikData.log ");
  EXPECT_EQ(lines[6],
            "log4cplus.appender.KELLog.layout.ConversionPattern = %D{ %Y-%m-%d %H:%M:%S.%q }[%p][%t]%m %n ");
  EXPECT_EQ(lines[9], "log4cplus.appender.KELLog.filters.1.AcceptOnMatch = true");
  for (size_t i = 0; i < lines.size(); ++i) {
    bool blank_end = !lines[i].empty() && lines[i].back() == ' ';
    EXPECT_EQ(blank_end, i >= 2 && i <= 8) << "line " << i + 1;
  }
}

TEST(MyLogTest, LongMessageIsCutAt1023CharactersAfterAFullPrefix) {
  testkit::LogCapture capture;
  std::string long_text(3000, 'x');
  std::string function(40, 'F');
  EXPECT_EQ(CMyLog::PrintLog(LOG_INFO, function.c_str(), "%s", long_text.c_str()), 0);
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "[" + function + "]: " + std::string(1023, 'x'));
  EXPECT_EQ(lines[0].level, LOG_INFO);
}

TEST(MyLogTest, OnlyTheSixLevelsAreWritten) {
  testkit::LogCapture capture;
  for (int level : {LOG_TRACE, LOG_DEBUG, LOG_INFO, LOG_WARN, LOG_ERROR, LOG_FATAL}) {
    CMyLog::PrintLog(level, "T::f", "level %d", level);
  }
  for (int level : {-1, 1, 15000, 20001, 60000}) {
    EXPECT_EQ(CMyLog::PrintLog(level, "T::f", "odd %d", level), 0);
  }
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 6u) << capture.dump();
  EXPECT_EQ(lines[0].text, "[T::f]: level 0");
  EXPECT_EQ(lines[5].level, LOG_FATAL);
  EXPECT_FALSE(capture.contains("odd"));
}

// The format check (gnu_printf on MinGW) accepts the C99 conversions, so the
// formatter behind PrintLog has to do them on every target.
TEST(MyLogTest, FormatsC99Conversions) {
  testkit::LogCapture capture;
  size_t big = 4000000000u;
  long long negative = -(1LL << 40);
  unsigned char small = 200;
  CMyLog::PrintLog(LOG_INFO, "T::f", "%zu %lld %hhu %.2Lf %.3f %s", big, negative, small, 2.25L, 0.125, "end");
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u) << capture.dump();
  EXPECT_EQ(lines[0].text, "[T::f]: 4000000000 -1099511627776 200 2.25 0.125 end");
}

TEST_F(FreshProcessLogTest, FirstInitWritesDefaultFileAndLogsInfoButNotDebug) {
  EXPECT_EXIT(
      {
        testkit::WorkDir dir;
        std::filesystem::create_directories("../userdata/log");
        CMyLog::InitLog();
        CHECK_OR_EXIT(dir.read("ini/KELQuoteLog.config") == CMyLog::DefaultConfig(), 2);
        CMyLog::PrintLog(LOG_DEBUG, "T::f", "hidden %d", 1);
        CMyLog::PrintLog(LOG_INFO, "T::f", "shown %d", 2);
        // A second init starts no second watcher and leaves the file alone.
        dir.write("ini/KELQuoteLog.config", "changed");
        CMyLog::InitLog();
        CHECK_OR_EXIT(dir.read("ini/KELQuoteLog.config") == "changed", 3);
        std::string log = dir.read("../userdata/log/DravikData.log");
        CHECK_OR_EXIT(log.find("[INFO][") != std::string::npos, 4);
        CHECK_OR_EXIT(log.find("[T::f]: shown 2") != std::string::npos, 5);
        CHECK_OR_EXIT(log.find("hidden") == std::string::npos, 6);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(FreshProcessLogTest, ExistingConfigurationIsNeverOverwritten) {
  EXPECT_EXIT(
      {
        testkit::WorkDir dir;
        std::string own = "log4cplus.logger.KELLog = ERROR\r\n";
        dir.write("ini/KELQuoteLog.config", own);
        CMyLog::InitLog();
        CHECK_OR_EXIT(dir.read("ini/KELQuoteLog.config") == own, 2);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(FreshProcessLogTest, MissingIniFolderCreatesNothingAndLoggingStillWorks) {
  EXPECT_EXIT(
      {
        testkit::WorkDir dir(/*with_ini=*/false);
        CMyLog::InitLog();
        CHECK_OR_EXIT(!std::filesystem::exists("ini"), 2);
        testkit::LogCapture capture;
        CMyLog::PrintLog(LOG_INFO, "T::f", "still %s", "here");
        CHECK_OR_EXIT(capture.contains("[T::f]: still here"), 3);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tavr
