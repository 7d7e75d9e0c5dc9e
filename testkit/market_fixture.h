// A data manager with its markets initialised from given instruments, bound
// to its own client: the ground for tests of the real-time handlers.
#ifndef KELQUOTE_TESTKIT_MARKET_FIXTURE_H_
#define KELQUOTE_TESTKIT_MARKET_FIXTURE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/fake_api.h"
#include "testkit/log_capture.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace testkit {

class MarketFixture {
 public:
  MarketFixture();
  ~MarketFixture();

  // Initialises a market with the instruments and a reference reply that
  // gives each a reference close and an earnings per share.
  void init_market(uint8_t market_id, const std::vector<ApiCodeInit>& codes, float pre_close = 0, float eps = 1);
  // Runs a message through the dispatcher on this thread, from a private copy.
  void deliver(int type, const std::vector<uint8_t>& bytes);
  // Subscribes through the client; records arrive in received().
  int subscribe(const std::string& host_market, const std::string& code, int32_t data_type);

  struct Received {
    int id;
    tavr::QuoteRecords records;
  };
  std::vector<Received> received();
  void clear_received();

  tavr::DvDataMgr& mgr() { return mgr_; }
  tavr::KelQuoteClient& client() { return client_; }
  FakeDataApi& api() { return api_; }
  LogCapture& log() { return log_; }

 private:
  WorkDir dir_;
  LogCapture log_;
  FakeDataApi api_;
  tavr::KelQuoteClient client_;
  tavr::DvDataMgr mgr_;
  std::mutex mu_;
  std::vector<Received> received_;
};

}  // namespace testkit

#endif  // KELQUOTE_TESTKIT_MARKET_FIXTURE_H_
