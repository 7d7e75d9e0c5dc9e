#include "datamgr/config.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "datamgr/DvDataMgr.h"
#include "testkit/log_capture.h"
#include "testkit/work_dir.h"

namespace tavr {
namespace {

using testkit::config_xml;
using testkit::servers_xml;

std::string Lists(int quote, int history, int massive) {
  std::string out = "<quote>" + servers_xml(quote) + "</quote><history>" + servers_xml(history) + "</history>";
  if (massive >= 0) out += "<massive>" + servers_xml(massive) + "</massive>";
  return out;
}

class ConfigTest : public ::testing::Test {
 protected:
  bool Read(const std::string& xml, bool is_real = true) {
    dir_.write("dravikcfg.dat", xml);
    return GetIPPort(quote_, history_, massive_, is_real, "./dravikcfg.dat");
  }
  bool InitCfg(const std::string& xml, bool is_real = true) {
    dir_.write("dravikcfg.dat", xml);
    return mgr_.init_cfg(is_real);
  }
  int Count(int role) {
    // The number of entries before the copied terminator.
    const ServerLoginConfig& cfg = mgr_.server_table().at(role);
    int n = 0;
    while (n < 10 && cfg.servers[n].host[0] != '\0') ++n;
    return n;
  }

  testkit::WorkDir dir_;
  testkit::LogCapture log_;
  ServerAddress quote_[kMaxServers], history_[kMaxServers], massive_[kMaxServers];
  DvDataMgr mgr_;
};

TEST_F(ConfigTest, DecryptFailuresAndBrokenDocumentsAreReported) {
  EXPECT_FALSE(GetIPPort(quote_, history_, massive_, true, "./none.dat"));
  EXPECT_TRUE(log_.contains("[GetIPPort]: [./none.dat] not exist!"));
  std::filesystem::create_directory("adir");
  EXPECT_FALSE(GetIPPort(quote_, history_, massive_, true, "./adir"));
  EXPECT_TRUE(log_.contains("[./adir]: fail to read!"));
  // Refused by its size alone, not read into memory first.
  { std::ofstream("huge.dat") << "<dravik>"; }
  std::filesystem::resize_file("huge.dat", std::uintmax_t{1} << 30);
  EXPECT_FALSE(GetIPPort(quote_, history_, massive_, true, "./huge.dat"));
  EXPECT_TRUE(log_.contains("[./huge.dat]: fail to read!"));

  EXPECT_FALSE(Read("<dravik><hq>"));
  EXPECT_TRUE(log_.contains("xml parse error!!!"));
  EXPECT_FALSE(Read("<other/>"));
  EXPECT_TRUE(log_.contains("node:dravik not exist!"));
  EXPECT_FALSE(Read("<dravik><hq_sim>" + Lists(1, 1, 1) + "</hq_sim></dravik>", false));
  EXPECT_TRUE(log_.contains("node:hq not exist!"));
  EXPECT_FALSE(Read(config_xml("<history>" + servers_xml(1) + "</history>")));
  EXPECT_TRUE(log_.contains("node:quote not exist!"));
  EXPECT_FALSE(Read(config_xml("<quote/><history>" + servers_xml(1) + "</history>")));
  EXPECT_TRUE(log_.contains("node:quote is null!"));
  EXPECT_FALSE(Read(config_xml("<quote>" + servers_xml(1) + "</quote>")));
  EXPECT_TRUE(log_.contains("node:history not exist!"));
  EXPECT_FALSE(Read(config_xml("<quote>" + servers_xml(1) + "</quote><history/>")));
  EXPECT_TRUE(log_.contains("node:history is null!"));
}

TEST_F(ConfigTest, ShortHistoryListShortensEveryRole) {
  ASSERT_TRUE(InitCfg(config_xml(Lists(3, 1, -1))));
  EXPECT_TRUE(log_.contains("node:massive not exist!"));
  EXPECT_EQ(log_.count("]-[1]"), 3u) << log_.dump();
  EXPECT_TRUE(log_.contains("[DvDataMgr::init_cfg]: [Real]Connect to Quote server [127.0.0.1:9001]-[1]"));
  EXPECT_TRUE(log_.contains("[Real]Connect to History server [127.0.0.1:9001]-[1]"));
  // The massive list is empty, so its role shows an empty first entry.
  EXPECT_TRUE(log_.contains("[Real]Connect to Massive History server [:]-[1]"));
  EXPECT_EQ(Count(0), 1);
  EXPECT_EQ(Count(1), 1);
  EXPECT_STREQ(mgr_.server_table().at(2).servers[0].host, "");
  const ServerLoginConfig& quote = mgr_.server_table().at(0);
  EXPECT_STREQ(quote.user, "9999");
  EXPECT_STREQ(mgr_.server_table().at(1).user, "9001");
  EXPECT_STREQ(mgr_.server_table().at(2).user, "9002");
  EXPECT_STREQ(quote.password, "590316");
  EXPECT_EQ(quote.setting_a, 5);
  EXPECT_EQ(quote.setting_b, 180);
  EXPECT_EQ(quote.setting_c, 10);
}

TEST_F(ConfigTest, EmptyMassiveListEmptiesEveryRoleButSucceeds) {
  ASSERT_TRUE(InitCfg(config_xml(Lists(2, 2, 0))));
  EXPECT_TRUE(log_.contains("node:massive is null!"));
  EXPECT_EQ(log_.count("]-[0]"), 3u) << log_.dump();
  EXPECT_EQ(Count(0), 0);
  EXPECT_EQ(mgr_.server_table().size(), 3u);
}

TEST_F(ConfigTest, SimulatedEnvironmentUsesHqSimOrFallsBackToHq) {
  std::string sim = "<hq_sim><quote><s ip=\"sim-host\" port=\"1\"/></quote><history>" + servers_xml(1) +
                    "</history></hq_sim>";
  ASSERT_TRUE(InitCfg(config_xml(Lists(1, 1, 1), sim), false));
  EXPECT_TRUE(log_.contains("[Sim]Connect to Quote server [sim-host:1]-[1]"));
  log_.clear();
  ASSERT_TRUE(InitCfg(config_xml(Lists(1, 1, 1), sim), true));
  EXPECT_TRUE(log_.contains("[Real]Connect to Quote server [127.0.0.1:9001]-[1]"));
  log_.clear();
  ASSERT_TRUE(InitCfg(config_xml(Lists(1, 1, 1)), false));
  EXPECT_TRUE(log_.contains("[Sim]Connect to Quote server [127.0.0.1:9001]-[1]"));
}

TEST_F(ConfigTest, TenOrMoreServersUseAllTenWithoutTerminator) {
  ASSERT_TRUE(InitCfg(config_xml(Lists(12, 11, 10))));
  EXPECT_EQ(log_.count("]-[10]"), 3u) << log_.dump();
  const ServerLoginConfig& quote = mgr_.server_table().at(0);
  EXPECT_STREQ(quote.servers[9].host, "127.0.0.10");
  EXPECT_STREQ(quote.servers[9].port, "9010");
}

TEST_F(ConfigTest, LongHostsAndPortsAreCut) {
  std::string host(60, 'h'), port(9, '7');
  std::string quote = "<quote><s ip=\"" + host + "\" port=\"" + port + "\"/></quote>";
  ASSERT_TRUE(InitCfg(config_xml(quote + "<history>" + servers_xml(1) + "</history>")));
  const ServerLoginConfig& cfg = mgr_.server_table().at(0);
  EXPECT_EQ(std::string(cfg.servers[0].host), std::string(49, 'h'));
  EXPECT_EQ(std::string(cfg.servers[0].port), std::string(7, '7'));
  // One record serves every role and is zeroed once: behind the history
  // host's terminator the vendor still finds the rest of the quote host.
  const ServerLoginConfig& history = mgr_.server_table().at(1);
  EXPECT_STREQ(history.servers[0].host, "127.0.0.1");
  EXPECT_EQ(std::string(history.servers[0].host + 10), std::string(39, 'h'));
}

TEST_F(ConfigTest, ServerWithoutAttributesEndsTheList) {
  ASSERT_TRUE(InitCfg(config_xml("<quote>" + servers_xml(1) + "<s/>" + servers_xml(1) + "</quote><history>" +
                                 servers_xml(3) + "</history>")));
  EXPECT_EQ(Count(0), 1);
}

TEST_F(ConfigTest, FailedReadLeavesInitCfgFalse) {
  EXPECT_FALSE(mgr_.init_cfg(true));
  EXPECT_TRUE(log_.contains("[DvDataMgr::init_cfg]: GetIPPort failed!"));
}

}  // namespace
}  // namespace tavr
