#include "market/market_info.h"

namespace tavr {

void MarketTable::add_market(const std::string& name, int32_t start_date, int32_t second_date) {
  auto market = std::make_shared<MarketInfo>();
  market->name = name;
  market->start_date = start_date;
  market->second_date = second_date;
  std::lock_guard<std::mutex> lock(mu_);
  markets_[name] = std::move(market);
  codes_mu.touch();  // what service threads kept of the old record is stale
}

std::shared_ptr<MarketInfo> MarketTable::find(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = markets_.find(name);
  return it == markets_.end() ? nullptr : it->second;
}

size_t MarketTable::size() const {
  std::lock_guard<std::mutex> lock(mu_);
  return markets_.size();
}

void MarketTable::clear_codes() {
  std::lock_guard<std::mutex> lock(mu_);
  std::lock_guard<CodesMutex> codes_lock(codes_mu);
  for (auto& [name, market] : markets_) {
    market->base_codes.clear();
    market->other_codes.clear();
  }
}

}  // namespace tavr
