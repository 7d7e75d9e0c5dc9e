#include "testkit/market_fixture.h"

#include <atomic>
#include <cstring>
#include <memory>

namespace testkit {

MarketFixture::MarketFixture() {
  dir_.write("dravikcfg.dat", config_xml("<quote>" + servers_xml(1) + "</quote><history>" + servers_xml(1) +
                                         "</history>"));
  mgr_.set_api(&api_);
  mgr_.set_sleeper([](int) {});
  client_.attach_data_manager(&mgr_);
  mgr_.init(true);
  log_.enable_all_levels();
}

MarketFixture::~MarketFixture() { mgr_.stop(); }

void MarketFixture::init_market(uint8_t market_id, const std::vector<ApiCodeInit>& codes, float pre_close, float eps) {
  deliver(0, market_init(market_id, 20240102, codes));
  deliver(3, ref_info(market_id, codes, pre_close, eps));
}

void MarketFixture::deliver(int type, const std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> copy(bytes);
  mgr_.on_reply_data(type, copy.data(), copy.size());
}

int MarketFixture::subscribe(const std::string& host_market, const std::string& code, int32_t data_type) {
  quoter::TSMetaInfo meta;
  meta.market = host_market;
  meta.code = code;
  meta.metaId = data_type;
  auto id = std::make_shared<std::atomic<int>>(-1);
  int result = client_.subscribeQuote(
      meta, {}, "", [this, id](se::EQuoteSubStatus, const tavr::QuoteRecords& records, se::EDataArrivedTag) {
        std::lock_guard<std::mutex> lock(mu_);
        received_.push_back({id->load(), records});
      });
  id->store(result);
  return result;
}

std::vector<MarketFixture::Received> MarketFixture::received() {
  std::lock_guard<std::mutex> lock(mu_);
  return received_;
}

void MarketFixture::clear_received() {
  std::lock_guard<std::mutex> lock(mu_);
  received_.clear();
}

}  // namespace testkit
