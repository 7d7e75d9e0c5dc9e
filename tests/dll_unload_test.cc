// A host that loads the library at run time, uses it, ends the session and
// unloads it, several times in one process, from a thread that lives on
// after each unload and ends last: the library must serve each new session,
// and what the thread took from it (its log and configuration buffers) must
// not outlive the code that frees it.
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "kelquote/BaseQuoteClient.h"
#include "port/port.h"
#include "tests/host_folder.h"

#if defined(__SANITIZE_ADDRESS__)
// The leak check's record of the thread storage of modules loaded at run time
// goes wrong with this glibc: at exit it scans a bogus range and crashes.
// That storage is left unscanned instead.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options() { return "intercept_tls_get_addr=0"; }
#endif
#if defined(__SANITIZE_THREAD__)
// glibc frees an ended detached thread's storage of a run-time loaded module
// from another thread; the race detector sees no order between the two.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "race:_dl_deallocate_tls\n";
}
#endif

namespace {

using GetClient = tavr::BaseQuoteClient* (*)();
using ReportConnection = int (*)(int, int);

// Waits up to 10 s for pred.
bool WaitFor(const std::function<bool()>& pred) {
  for (int i = 0; i < 1000; ++i) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return pred();
}

// One session: load, log in, take some quotes, end the session, unload.
void OneSession(int round) {
  SCOPED_TRACE("round " + std::to_string(round));
  void* library = port::LoadModule(KQ_LIBRARY);
  ASSERT_NE(library, nullptr) << KQ_LIBRARY;
  void* service = port::LoadModule(KQ_SERVICE);
  auto get_client = reinterpret_cast<GetClient>(port::ModuleSymbol(library, "getKelClient"));
  auto report = reinterpret_cast<ReportConnection>(port::ModuleSymbol(service, "SimReportConnection"));
  ASSERT_TRUE(get_client != nullptr && report != nullptr);

  tavr::BaseQuoteClient* client = get_client();
  std::atomic<int> status{-1};
  client->registerQuoterConnectCallBack([&](int code, std::string) { status = code; });
  bool logged_in = false;
  client->goLogin(tavr::LoginParam{}, [&](bool ok, std::string) { logged_in = ok; });
  ASSERT_TRUE(logged_in);

  quoter::TSMetaInfo meta;
  meta.market = "SH";
  meta.code = "600000";
  meta.metaId = 3000;
  std::atomic<int> quotes{0};
  int id = client->subscribeQuote(meta, {}, "", [&](se::EQuoteSubStatus, const tavr::QuoteRecords&,
                                                    se::EDataArrivedTag) { ++quotes; });
  ASSERT_GE(id, 0);
  EXPECT_TRUE(WaitFor([&] { return quotes > 0; }));
  client->unsubscribe(id);

  ASSERT_EQ(report(0, 2), 0);
  ASSERT_TRUE(WaitFor([&] { return status == 2; }));
  port::UnloadModule(service);
  port::UnloadModule(library);
}

TEST(DllUnloadTest, AHostLoadsUsesAndUnloadsTheLibraryAgainAndAgain) {
  testhost::HostFolder folder;
  std::thread host([&] {
    for (int round = 0; round < 3 && !::testing::Test::HasFatalFailure(); ++round) OneSession(round);
    // The thread ends now, after the last unload, with whatever the library
    // left in its slots.
  });
  host.join();
}

}  // namespace
