#include "log/sized_rolling_appender.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <log4cplus/helpers/property.h>
#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

#include "testkit/work_dir.h"

namespace tavr {
namespace {

std::string Slurp(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// A line end as a text-mode stream, log4cplus's among them, writes it here.
std::string TextNewline(const std::filesystem::path& scratch) {
  std::ofstream(scratch) << '\n';
  return Slurp(scratch);
}

log4cplus::helpers::Properties Props(const std::string& file, const std::string& text_mode = "Text") {
  log4cplus::helpers::Properties p;
  p.setProperty("File", file);
  p.setProperty("TextMode", text_mode);
  p.setProperty("MaxFileSize", "200KB");
  p.setProperty("MaxBackupIndex", "2");
  p.setProperty("layout", "log4cplus::PatternLayout");
  p.setProperty("layout.ConversionPattern", "%m%n");
  return p;
}

// Both appenders, fed the same lines, leave the same files behind; in text
// mode a line end may take more bytes on disk than in the line.
void ExpectSameFilesAsLog4cplus(const std::string& text_mode) {
  SCOPED_TRACE(text_mode);
  testkit::WorkDir dir;
  log4cplus::SharedAppenderPtr plain(new log4cplus::RollingFileAppender(Props("plain.log", text_mode)));
  log4cplus::SharedAppenderPtr sized(new SizedRollingFileAppender(Props("sized.log", text_mode)));
  plain->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
  sized->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
  for (int i = 0; i < 9000; ++i) {
    log4cplus::spi::InternalLoggingEvent event("KELLog", log4cplus::INFO_LOG_LEVEL,
                                               "line " + std::to_string(i) + std::string(60, 'x'), nullptr, 0);
    plain->doAppend(event);
    sized->doAppend(event);
  }
  plain->close();
  sized->close();
  for (const char* suffix : {"", ".1", ".2"}) {
    std::string a = Slurp(dir.path() / ("plain.log" + std::string(suffix)));
    std::string b = Slurp(dir.path() / ("sized.log" + std::string(suffix)));
    EXPECT_FALSE(a.empty()) << suffix;
    EXPECT_EQ(a, b) << suffix;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "sized.log.3"));
}

TEST(SizedRollingAppenderTest, RollsOverExactlyAsLog4cplusDoes) { ExpectSameFilesAsLog4cplus("Text"); }

TEST(SizedRollingAppenderTest, RollsOverExactlyAsLog4cplusDoesInBinaryMode) {
  ExpectSameFilesAsLog4cplus("Binary");
}

TEST(SizedRollingAppenderTest, ContinuesAnExistingFileAtItsSize) {
  testkit::WorkDir dir;
  dir.write("grown.log", std::string(200 * 1024 + 10, 'y'));
  log4cplus::SharedAppenderPtr sized(new SizedRollingFileAppender(Props("grown.log")));
  sized->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
  log4cplus::spi::InternalLoggingEvent event("KELLog", log4cplus::INFO_LOG_LEVEL, "next", nullptr, 0);
  sized->doAppend(event);
  sized->close();
  // Already beyond the limit: the old content rolled to .1 before the line.
  EXPECT_EQ(Slurp(dir.path() / "grown.log"), "next" + TextNewline(dir.path() / "newline.txt"));
  EXPECT_EQ(Slurp(dir.path() / "grown.log.1").size(), 200u * 1024 + 10);
}

TEST(SizedRollingAppenderTest, BatchedLinesReachTheFileWhenTheBatchEnds) {
  testkit::WorkDir dir;
  log4cplus::SharedAppenderPtr sized(new SizedRollingFileAppender(Props("batch.log")));
  sized->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
  auto line = [&](const std::string& text) {
    sized->doAppend(log4cplus::spi::InternalLoggingEvent("KELLog", log4cplus::INFO_LOG_LEVEL, text, nullptr, 0));
  };
  const std::string nl = TextNewline(dir.path() / "newline.txt");
  line("alone");
  EXPECT_EQ(Slurp(dir.path() / "batch.log"), "alone" + nl);  // flushed at once
  {
    SizedRollingFileAppender::FlushBatch batch;
    line("one");
    {
      SizedRollingFileAppender::FlushBatch inner;
      line("two");
    }
    EXPECT_EQ(Slurp(dir.path() / "batch.log"), "alone" + nl);  // held until the outer batch ends
    line("three");
  }
  EXPECT_EQ(Slurp(dir.path() / "batch.log"), "alone" + nl + "one" + nl + "two" + nl + "three" + nl);
  sized->close();
}

}  // namespace
}  // namespace tavr
