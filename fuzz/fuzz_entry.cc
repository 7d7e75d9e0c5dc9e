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

}  // namespace

const std::vector<RecordSlot>& record_slots() {
  static const std::vector<RecordSlot> slots{
      {&CB::OnMarketInit, "OnMarketInit", api_record::layout(0)},
      {&CB::OnMarketOtherBase, "OnMarketOtherBase", api_record::layout(1)},
      {&CB::OnRespRefInfo, "OnRespRefInfo", api_record::layout(2)},
      {&CB::OnTickL1, "OnTickL1", api_record::layout(3)},
      {&CB::OnRespHisData, "OnRespHisData", api_record::layout(4)},
      {&CB::OnRespHolidayInfo, "OnRespHolidayInfo", api_record::layout(5)},
      {&CB::OnRespPower, "OnRespPower", api_record::layout(6)},
      {&CB::OnRespHotListDef, "OnRespHotListDef", api_record::layout(7)},
      {&CB::OnRespHotListData, "OnRespHotListData", api_record::layout(8)},
      {&CB::OnHotList, "OnHotList", api_record::layout(9)},
      {&CB::OnMarketStatus, "OnMarketStatus", api_record::layout(10)},
      {&CB::OnRespHisDataCount, "OnRespHisDataCount", api_record::layout(11)},
      {&CB::OnRespSCanner, "OnRespSCanner", api_record::layout(12)},
      {&CB::OnRespSharedFields, "OnRespSharedFields", api_record::layout(17)},
      {&CB::OnRespNewIssueList, "OnRespNewIssueList", api_record::layout(18)},
      {&CB::OnTickL2, "OnTickL2", api_record::layout(22)},
      {&CB::OnIndexL2, "OnIndexL2", api_record::layout(23)},
      {&CB::OnTransL2, "OnTransL2", api_record::layout(24)},
      {&CB::OnOrderL2, "OnOrderL2", api_record::layout(25)},
      {&CB::OnOrderQueueL2, "OnOrderQueueL2", api_record::layout(26)},
      {&CB::OnRespShareData, "OnRespShareData", api_record::layout(29)},
      {&CB::OnRespHKRateData, "OnRespHKRateData", api_record::layout(30)},
      {&CB::OnRespIndustryData, "OnRespIndustryData", api_record::layout(31)},
      {&CB::OnRespLatestShareData, "OnRespLatestShareData", api_record::layout(32)},
      {&CB::OnRespFinancialData, "OnRespFinancialData", api_record::layout(33)},
      {&CB::OnRespIncomeStatData, "OnRespIncomeStatData", api_record::layout(34)},
      {&CB::OnRespCashFlowData, "OnRespCashFlowData", api_record::layout(35)},
      {&CB::OnRespBalanceSheetData, "OnRespBalanceSheetData", api_record::layout(36)},
      {&CB::OnRespSHNumberData, "OnRespSHNumberData", api_record::layout(37)},
      {&CB::OnRespMostShareHolderData, "OnRespMostShareHolderData", api_record::layout(38)},
      {&CB::OnRespNegotiableShareHolderData, "OnRespNegotiableShareHolderData", api_record::layout(39)},
      {&CB::OnRespHisTickKcbData, "OnRespHisTickKcbData", api_record::layout(45)},
      {&CB::OnRespL1HisTickData, "OnRespL1HisTickData", api_record::layout(46)},
      {&CB::OnRespMarketPushData, "OnRespMarketPushData", api_record::layout(47)},
  };
  return slots;
}

size_t min_size(const RecordSlot& slot) { return api_record::min_bytes(slot.layout); }

size_t record_size(const RecordSlot& slot, const uint8_t* record) { return api_record::size(slot.layout, record); }

size_t fit_count(const RecordSlot& slot, uint8_t* record, size_t size) {
  const api_record::Layout& l = slot.layout;
  size_t need = api_record::size(l, record);
  if (need != 0 && need <= size) return need;  // 0: a count beyond any record
  size_t elem = l.shape == api_record::Shape::kHisData && api_record::read_at<int32_t>(record, 46) == 14 ? 21 : l.elem;
  size_t n = (size - l.head) / elem + (l.shape == api_record::Shape::kHeadPlus ? 1 : 0);
  uint8_t* at = record + l.count_at;
  if (l.count == api_record::Count::kU16) {
    uint16_t v = static_cast<uint16_t>(n);
    std::memcpy(at, &v, sizeof(v));
  } else {
    uint32_t v = static_cast<uint32_t>(n);
    std::memcpy(at, &v, sizeof(v));
  }
  return api_record::size(l, record);
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
