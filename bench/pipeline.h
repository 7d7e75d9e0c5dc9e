// The real pipeline for benchmarks: a started data manager on the default log
// configuration, markets initialised, a host client; the benchmark thread
// plays the vendor and calls the callback object directly.
#ifndef KELQUOTE_BENCH_PIPELINE_H_
#define KELQUOTE_BENCH_PIPELINE_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/fake_api.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace bench {

using Clock = std::chrono::steady_clock;

inline int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

class Pipeline {
 public:
  // SH gets instruments 600000 + i for i < sh_instruments. With capture,
  // the deployment's setting turns capture on; api replaces the fake vendor.
  explicit Pipeline(int sh_instruments = 1, bool capture = false, CDataApi* api = nullptr);
  ~Pipeline();

  tavr::DvDataMgr& mgr() { return mgr_; }
  tavr::KelQuoteClient& client() { return client_; }
  CDataApiCallBack* vendor() { return mgr_.callback(); }
  // The vendor's side of requests: what the library sent.
  testkit::FakeDataApi& api() { return api_; }
  int subscribe(const std::string& code, int32_t data_type, tavr::QuoteCallback callback);

  // Waits until counter reaches target; false after 60 s.
  static bool WaitFor(const std::atomic<int64_t>& counter, int64_t target);

 private:
  testkit::WorkDir dir_;
  testkit::FakeDataApi api_;
  tavr::KelQuoteClient client_;
  tavr::DvDataMgr mgr_;
};

// Sorted copy's quantile (q in [0, 1]).
int64_t Quantile(std::vector<int64_t> values, double q);

}  // namespace bench

#endif  // KELQUOTE_BENCH_PIPELINE_H_
