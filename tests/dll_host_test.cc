// A host of the shared libraries, linked as a terminal links them: kelquote,
// quoter, utils and the simulated DataApi. Nothing of the library is compiled
// in, so these tests see what crosses the module boundaries: the exported
// singleton and type information, callbacks from the library's threads into
// the host, host exceptions thrown through them, the GBK texts.
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "dataapi/sim/sim_control.h"
#include "tests/host_folder.h"
#include "kelquote/KelQuoteClient.h"
#include "utils/utils.h"

namespace {

using testhost::HostFolder;
namespace fs = std::filesystem;

// Connection reports as the host receives them on the library's thread.
class Reports {
 public:
  void add(int code, std::string text) {
    std::lock_guard<std::mutex> lock(mu_);
    reports_.emplace_back(code, std::move(text));
    cv_.notify_all();
  }
  // Waits until n reports have arrived; false after 5 s.
  bool wait(size_t n) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(5), [&] { return reports_.size() >= n; });
  }
  std::vector<std::pair<int, std::string>> all() {
    std::lock_guard<std::mutex> lock(mu_);
    return reports_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::pair<int, std::string>> reports_;
};

TEST(DllHostTest, TheExportedClientIsOneObjectOfTheExportedClass) {
  tavr::BaseQuoteClient* client = getKelClient();
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(getKelClient(), client);
  EXPECT_EQ(&tavr::KelQuoteClient::get(), client);
  EXPECT_EQ(tavr::KelQuoteClient::m_instance, client);
  // Type information compared across modules.
  EXPECT_EQ(dynamic_cast<tavr::KelQuoteClient*>(client), client);
}

TEST(DllHostTest, ASessionReachesTheHostAndSurvivesAThrowingCallback) {
  HostFolder folder;
  tavr::BaseQuoteClient* client = getKelClient();
  Reports reports;
  client->registerQuoterConnectCallBack([&reports](int code, std::string text) {
    reports.add(code, text);
    if (code == 1) throw std::runtime_error("host failure");
  });

  bool called = false, logged_in = false;
  std::string reason;
  client->goLogin(tavr::LoginParam{}, [&](bool ok, std::string text) {
    called = true;
    logged_in = ok;
    reason = std::move(text);
  });
  ASSERT_TRUE(called) << "the login callback runs before goLogin returns";
  ASSERT_TRUE(logged_in) << utils::safeGbk2Utf8(reason);
  EXPECT_TRUE(fs::exists("ini/KELQuoteLog.config"));
  EXPECT_GT(fs::file_size(folder.root() / "userdata" / "log" / "DravikData.log"), 0u);

  // The loss report's callback throws on the library's thread; the library
  // keeps the exception and goes on reporting.
  ASSERT_EQ(SimReportConnection(0, 0), 0);
  ASSERT_TRUE(reports.wait(1));
  ASSERT_EQ(SimReportConnection(0, 1), 0);
  ASSERT_TRUE(reports.wait(2)) << "no report after the host's exception";
  ASSERT_EQ(SimReportConnection(0, 2), 0);
  ASSERT_TRUE(reports.wait(3));
  EXPECT_EQ(SimWaitIdle(5000), 1);

  auto got = reports.all();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].first, 1);
  EXPECT_EQ(got[1].first, 0);
  EXPECT_EQ(got[2].first, 2);
  // The library's texts are GBK; this file's literals are UTF-8.
  EXPECT_NE(got[0].second, "Dravik后台数据连接中断，尝试重连中....");
  EXPECT_EQ(utils::safeGbk2Utf8(got[0].second), "Dravik后台数据连接中断，尝试重连中....");
}

TEST(DllHostTest, FinancialRecordsCrossTheModulesAsValues) {
  HostFolder folder;
  tavr::BaseQuoteClient* client = getKelClient();
  bool logged_in = false;
  client->goLogin(tavr::LoginParam{}, [&](bool ok, std::string) { logged_in = ok; });
  ASSERT_TRUE(logged_in);
  std::vector<std::shared_ptr<ttservice::CInstrumentDetail>> shares;
  client->getStockList("SZ", 0, shares);
  ASSERT_FALSE(shares.empty());

  tavr::FinanceDataParam param;
  param.market = "SZ";
  param.code = shares[0]->code;
  param.types = {24509, 24506};
  std::mutex mu;
  std::condition_variable cv;
  tavr::FinanceResult got;
  bool done = false;
  client->requestFinanceData(param, [&](std::string market, const tavr::FinanceDataParam& asked,
                                        const tavr::FinanceResult& data, se::EQuoteSubStatus status) {
    EXPECT_EQ(market, "SZ");
    EXPECT_EQ(asked.types, param.types);
    EXPECT_EQ(status, se::kQuoteData);
    std::lock_guard<std::mutex> lock(mu);
    got = data;
    done = true;
    cv.notify_all();
  });
  {
    std::unique_lock<std::mutex> lock(mu);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(5), [&] { return done; }));
  }
  ASSERT_EQ(got.size(), 2u);
  ASSERT_FALSE(got[24509].empty());
  ASSERT_FALSE(got[24506].empty());
  // Type information of the library's records, and copies made by its
  // exported members, in the host.
  auto* top = dynamic_cast<tavr::Dravik_Ctop10_share_holder*>(got[24509][0].get());
  ASSERT_NE(top, nullptr);
  EXPECT_EQ(dynamic_cast<tavr::DravikCCapitalStructure*>(got[24509][0].get()), nullptr);
  ASSERT_EQ(top->holders.size(), 10u);
  tavr::Dravik_Ctop10_share_holder copy(*top);
  copy.holders[0].name = "host";
  copy.holders.pop_back();
  EXPECT_EQ(top->holders.size(), 10u);
  EXPECT_NE(top->holders[0].name, "host");
  EXPECT_NE(utils::safeGbk2Utf8(top->holders[0].name).find("集团有限公司"), std::string::npos);
  tavr::Dravik_Ctop10_share_holder assigned;
  assigned = copy;
  EXPECT_EQ(assigned.holders.size(), 9u);
  EXPECT_EQ(assigned.report_date, top->report_date);
  auto* capital = dynamic_cast<tavr::DravikCCapitalStructure*>(got[24506][0].get());
  ASSERT_NE(capital, nullptr);
  EXPECT_GT(capital->item[0], 0);

  ASSERT_EQ(SimReportConnection(0, 2), 0);
  EXPECT_EQ(SimWaitIdle(5000), 1);
}

}  // namespace
