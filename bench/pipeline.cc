#include "bench/pipeline.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace bench {

Pipeline::Pipeline(int sh_instruments, bool capture, CDataApi* api) {
  dir_.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                  testkit::servers_xml(1) + "</history>"));
  if (capture) dir_.write("ini/KELQuoteCapture.config", "enabled = true\n");
  mgr_.set_api(api != nullptr ? api : &api_);
  client_.attach_data_manager(&mgr_);
  mgr_.init(true);
  std::vector<ApiCodeInit> codes;
  std::vector<ApiRefInfoItem> refs;
  for (int i = 0; i < sh_instruments; ++i) {
    codes.push_back(testkit::code_init(std::to_string(600000 + i), "BENCH", 2, 100));
    ApiRefInfoItem ref;
    std::memset(&ref, 0, sizeof(ref));
    testkit::set_text(ref.code, std::to_string(600000 + i));
    ref.eps = 0.5;
    ref.pre_close = 10;
    ref.tick = 0.01f;
    refs.push_back(ref);
  }
  auto init = testkit::market_init(2, 20240102, codes);
  mgr_.on_reply_data(0, init.data(), init.size());
  auto ref = testkit::reply(ApiRefInfoHead{2, static_cast<int32_t>(refs.size())}, refs);
  mgr_.on_reply_data(3, ref.data(), ref.size());
  mgr_.start();
}

Pipeline::~Pipeline() { mgr_.stop(); }

int Pipeline::subscribe(const std::string& code, int32_t data_type, tavr::QuoteCallback callback) {
  quoter::TSMetaInfo meta;
  meta.market = "SH";
  meta.code = code;
  meta.metaId = data_type;
  return client_.subscribeQuote(meta, {}, "", std::move(callback));
}

bool Pipeline::WaitFor(const std::atomic<int64_t>& counter, int64_t target) {
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (counter.load(std::memory_order_acquire) < target) {
    if (Clock::now() > deadline) return false;
    // Sleeps: a spinning benchmark thread would take a core from the pipeline.
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return true;
}

int64_t Quantile(std::vector<int64_t> values, double q) {
  if (values.empty()) return 0;
  size_t at = std::min(values.size() - 1, static_cast<size_t>(q * (values.size() - 1) + 0.5));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[at];
}

}  // namespace bench
