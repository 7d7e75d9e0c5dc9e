// The vocabulary of markets: host codes, the service's market names and its
// numeric market ids.
#include <array>
#include <string_view>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"

namespace tavr {

namespace {

struct HostMarket {
  std::string_view host;
  std::string_view market;
  char variant;
};

// Matched in this order; the first row wins.
constexpr std::array<HostMarket, 11> kHostMarkets = {{
    {"SH", "SH", 1},
    {"SZ", "SZ", 1},
    {"IF", "ZJ", 1},
    {"SF", "SQ", 1},
    {"INE", "SN", 1},
    {"DF", "DL", 1},
    {"ZF", "ZZ", 1},
    {"SHO", "SH", 2},
    {"SZO", "SZ", 2},
    {"HGT", "HK", 1},
    {"SGT", "HK", 2},
}};

struct ServiceMarket {
  std::string_view market;
  std::string_view first;   // variant 1, and any variant but 2
  std::string_view second;  // variant 2; empty when the market has none
};

constexpr std::array<ServiceMarket, 8> kServiceMarkets = {{
    {"SH", "SH", "SHO"},
    {"SZ", "SZ", "SZO"},
    {"HK", "HGT", "SGT"},
    {"ZJ", "IF", ""},
    {"SQ", "SF", ""},
    {"SN", "INE", ""},
    {"DL", "DF", ""},
    {"ZZ", "ZF", ""},
}};

// Index = numeric id; 3 and 4 are unassigned.
constexpr std::array<std::string_view, 11> kMarketIds = {"", "SZ", "SH", "", "", "SQ", "SN", "DL", "ZZ", "ZJ", "HK"};

}  // namespace

bool KelQuoteClient::market_id_transfer_to_dravik(const std::string& host_code, std::string& market, char& variant) {
  market = host_code;
  variant = 1;
  for (const HostMarket& row : kHostMarkets) {
    if (row.host == host_code) {
      market = row.market;
      variant = row.variant;
      return true;
    }
  }
  return false;
}

std::string KelQuoteClient::market_id_transfer_from_dravik(const std::string& market, char variant) {
  for (const ServiceMarket& row : kServiceMarkets) {
    if (row.market != market) continue;
    if (variant == 2) return std::string(row.second);
    // Hong Kong has no default: only variant 1 is the northbound code.
    if (row.market == "HK" && variant != 1) return std::string(row.second);
    return std::string(row.first);
  }
  return variant == 2 ? std::string() : market;
}

int32_t DvDataMgr::get_market_id_by_name(const std::string& name) {
  for (size_t id = 0; id < kMarketIds.size(); ++id) {
    if (!kMarketIds[id].empty() && kMarketIds[id] == name) return static_cast<int32_t>(id);
  }
  return -1;
}

std::string DvDataMgr::get_market_name_by_id(int32_t id) {
  if (id < 0 || static_cast<size_t>(id) >= kMarketIds.size()) return std::string();
  return std::string(kMarketIds[id]);
}

}  // namespace tavr
