#include "fuzz/fuzz_entry.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "testkit/fake_api.h"
#include "testkit/records.h"
#include "testkit/work_dir.h"

namespace kqfuzz {

namespace {

using CB = CDataApiCallBack;
using S = RecordSlot;

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "kqfuzz: %s\n", what);
  std::abort();
}

// A started data manager on a fake vendor, SH initialised with a share, a
// STAR share and an index, each subscribed at both levels, so that records
// reach the conversions and the host. Lives until the process exits.
struct World {
  testkit::WorkDir dir;
  testkit::FakeDataApi api;
  tavr::KelQuoteClient client;
  tavr::DvDataMgr mgr;
  std::atomic<int64_t> delivered{0};

  World() {
    dir.write("dravikcfg.dat", testkit::config_xml("<quote>" + testkit::servers_xml(1) + "</quote><history>" +
                                                   testkit::servers_xml(1) + "</history>"));
    mgr.set_api(&api);
    mgr.set_sleeper([](int) {});
    mgr.set_processor_count(2);
    client.attach_data_manager(&mgr);
    if (!mgr.init(true)) Fail("init failed");
    reset_market();
    if (!mgr.start()) Fail("start failed");
    for (const char* code : {"600000", "688012", "000001"}) {
      for (int32_t type : {3000, 4002, 1010, 1801, 1802, 1804}) subscribe(code, type);
    }
    if (client.subWholeQuote("SH", [this](const tavr::QuoteMap&) { ++delivered; }) < 0) {
      Fail("whole-market subscribe failed");
    }
  }
  ~World() { mgr.stop(); }

  // Initialises SH again, so that an input finds it as the first one did
  // whatever the inputs before it did to it. Only while the service threads
  // are idle.
  void reset_market() {
    static const std::vector<ApiCodeInit> codes{testkit::code_init("600000", "A"),
                                                testkit::code_init("688012", "STAR"),
                                                testkit::code_init("000001", "INDEX", 3, 1)};
    auto init = testkit::market_init(2, 20240102, codes);
    mgr.on_reply_data(0, init.data(), init.size());
    auto ref = testkit::ref_info(2, codes, 10.0f, 0.5f);
    mgr.on_reply_data(3, ref.data(), ref.size());
  }

  void subscribe(const char* code, int32_t type) {
    quoter::TSMetaInfo meta;
    meta.market = "SH";
    meta.code = code;
    meta.metaId = type;
    int id = client.subscribeQuote(meta, {}, "", [this](se::EQuoteSubStatus, const tavr::QuoteRecords& records,
                                                        se::EDataArrivedTag) {
      for (const auto& record : records) {
        if (record == nullptr) Fail("null record delivered");
      }
      ++delivered;
    });
    if (id < 0) Fail("subscribe failed");
  }
};

World& world() {
  static World w;
  return w;
}

template <typename T>
T Read(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

int64_t CountOf(const RecordSlot& slot, const uint8_t* record) {
  const uint8_t* at = record + slot.count_at;
  switch (slot.count) {
    case S::kU16: return Read<uint16_t>(at);
    case S::kU32: return Read<uint32_t>(at);
    case S::kI32: break;
  }
  return Read<int32_t>(at);
}

size_t ElemOf(const RecordSlot& slot, const uint8_t* record) {
  if (slot.shape != S::kHisData) return slot.elem;
  return Read<int32_t>(record + 46) == 14 ? 21 : 48;
}

}  // namespace

const std::vector<RecordSlot>& record_slots() {
  static const std::vector<RecordSlot> slots{
      {&CB::OnMarketInit, "OnMarketInit", S::kHeadPlus, 132, 84, 44},
      {&CB::OnMarketOtherBase, "OnMarketOtherBase", S::kHeadPlus, 107, 98, 5},
      {&CB::OnRespRefInfo, "OnRespRefInfo", S::kHeadPlus, 378, 370, 4},
      {&CB::OnTickL1, "OnTickL1", S::kFixed, 249, 0, 0},
      {&CB::OnRespHisData, "OnRespHisData", S::kHisData, 62, 48, 50},
      {&CB::OnRespHolidayInfo, "OnRespHolidayInfo", S::kHeadPlus, 12, 4, 4},
      {&CB::OnRespPower, "OnRespPower", S::kHeadPlus, 304, 264, 38, S::kU16},
      {&CB::OnRespHotListDef, "OnRespHotListDef", S::kHeadPlus, 174, 170, 0},
      {&CB::OnRespHotListData, "OnRespHotListData", S::kHeadPlus, 158, 148, 6},
      {&CB::OnHotList, "OnHotList", S::kHeadPlus, 156, 148, 4},
      {&CB::OnMarketStatus, "OnMarketStatus", S::kFixed, 13, 0, 0},
      {&CB::OnRespHisDataCount, "OnRespHisDataCount", S::kHeadPlus, 54, 8, 42},
      {&CB::OnRespSCanner, "OnRespSCanner", S::kHeadPlus, 5, 1, 0, S::kU32},
      {&CB::OnRespSharedFields, "OnRespSharedFields", S::kFixed, 8, 0, 0},
      {&CB::OnRespNewIssueList, "OnRespNewIssueList", S::kHeadPlus, 140, 136, 0},
      {&CB::OnTickL2, "OnTickL2", S::kLevel2, 8, 504, 4},
      {&CB::OnIndexL2, "OnIndexL2", S::kLevel2, 8, 108, 4},
      {&CB::OnTransL2, "OnTransL2", S::kLevel2, 8, 79, 4},
      {&CB::OnOrderL2, "OnOrderL2", S::kLevel2, 8, 62, 4},
      {&CB::OnOrderQueueL2, "OnOrderQueueL2", S::kLevel2, 8, 864, 4},
      {&CB::OnRespShareData, "OnRespShareData", S::kHeadPlus, 338, 296, 38},
      {&CB::OnRespHKRateData, "OnRespHKRateData", S::kHeadPlus, 30, 16, 10},
      {&CB::OnRespIndustryData, "OnRespIndustryData", S::kFixed, 326, 0, 0},
      {&CB::OnRespLatestShareData, "OnRespLatestShareData", S::kHeadPlus, 74, 64, 6},
      {&CB::OnRespFinancialData, "OnRespFinancialData", S::kHeadPlus, 614, 572, 38},
      {&CB::OnRespIncomeStatData, "OnRespIncomeStatData", S::kHeadPlus, 581, 539, 38},
      {&CB::OnRespCashFlowData, "OnRespCashFlowData", S::kHeadPlus, 733, 691, 38},
      {&CB::OnRespBalanceSheetData, "OnRespBalanceSheetData", S::kHeadPlus, 837, 795, 38},
      {&CB::OnRespSHNumberData, "OnRespSHNumberData", S::kHeadPlus, 122, 80, 38},
      {&CB::OnRespMostShareHolderData, "OnRespMostShareHolderData", S::kHeadPlus, 2242, 2200, 38},
      {&CB::OnRespNegotiableShareHolderData, "OnRespNegotiableShareHolderData", S::kHeadPlus, 2242, 2200, 38},
      {&CB::OnRespHisTickKcbData, "OnRespHisTickKcbData", S::kHeadPlus, 138, 80, 54},
      {&CB::OnRespL1HisTickData, "OnRespL1HisTickData", S::kHeadPlus, 272, 214, 54},
      {&CB::OnRespMarketPushData, "OnRespMarketPushData", S::kHeadPlus, 255, 249, 2},
  };
  return slots;
}

size_t min_size(const RecordSlot& slot) {
  return slot.shape == S::kLevel2 || slot.shape == S::kHisData ? slot.head + 1 : slot.head;
}

size_t record_size(const RecordSlot& slot, const uint8_t* record) {
  if (slot.shape == S::kFixed) return slot.head;
  int64_t n = CountOf(slot, record);
  size_t elem = ElemOf(slot, record);
  if (slot.shape == S::kHeadPlus) return n > 1 ? slot.head + static_cast<size_t>(n - 1) * elem : slot.head;
  return n > 0 ? slot.head + static_cast<size_t>(n) * elem : slot.head + 1;
}

size_t fit_count(const RecordSlot& slot, uint8_t* record, size_t size) {
  size_t need = record_size(slot, record);
  if (need <= size) return need;
  size_t elem = ElemOf(slot, record);
  size_t n = (size - slot.head) / elem + (slot.shape == S::kHeadPlus ? 1 : 0);
  uint8_t* at = record + slot.count_at;
  if (slot.count == S::kU16) {
    uint16_t v = static_cast<uint16_t>(n);
    std::memcpy(at, &v, sizeof(v));
  } else {
    uint32_t v = static_cast<uint32_t>(n);
    std::memcpy(at, &v, sizeof(v));
  }
  return record_size(slot, record);
}

int record_input(const uint8_t* data, size_t size) {
  World& w = world();
  w.reset_market();
  const auto& slots = record_slots();
  for (int chunk = 0; chunk < 8 && size >= 1; ++chunk) {
    const RecordSlot& slot = slots[data[0] % slots.size()];
    size_t length = size >= 3 ? data[1] | (data[2] << 8) : 0;
    size_t skip = std::min<size_t>(size, 3);
    length = std::min(length, size - skip);
    std::vector<uint8_t> body(std::max(length, min_size(slot)), 0);
    std::memcpy(body.data(), data + skip, length);
    size_t bytes = fit_count(slot, body.data(), body.size());
    // Exactly the record's bytes, so that reading past them is caught.
    std::unique_ptr<uint8_t[]> record(new uint8_t[bytes]);
    std::memcpy(record.get(), body.data(), bytes);
    (w.mgr.callback()->*slot.call)(record.get());
    data += skip + length;
    size -= skip + length;
  }
  if (!w.mgr.wait_idle(20000)) Fail("service threads still busy after 20 s");
  return 0;
}

int64_t host_deliveries() { return world().delivered.load(); }

int config_input(const uint8_t* data, size_t size) {
  World& w = world();
  w.dir.write("dravikcfg.dat", std::string(reinterpret_cast<const char*>(data), size));
  for (bool real : {true, false}) {
    if (!w.mgr.init_cfg(real)) continue;
    const ServerTable& table = w.mgr.server_table();
    if (table.size() != 3) Fail("server table without its three roles");
    for (const auto& [role, config] : table) {
      for (const auto& server : config.servers) {
        if (std::memchr(server.host, 0, sizeof(server.host)) == nullptr ||
            std::memchr(server.port, 0, sizeof(server.port)) == nullptr) {
          Fail("server address without its terminator");
        }
      }
    }
  }
  return 0;
}

}  // namespace kqfuzz
