// History reply blocks: one skeleton for bars, after-hours ticks and level-1
// ticks (find the market, park the block until it is ready, find the
// instrument and the request, convert, deliver), told apart by a block
// description.
#include <algorithm>
#include <cstring>
#include <string>

#include "datamgr/DvDataMgr.h"
#include "history/his_convert.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"
#include "port/port.h"

namespace tavr {

namespace {

const char kFunction[] = "DvDataMgr::on_reply_data";
// The length of a history request's record; a financial one is shorter.
constexpr size_t kRecordFields = 5;

// The log texts of one kind of block, each behind its tag.
struct Texts {
  Texts(const char* tag, const char* count_tag)
      : received(std::string(tag) + " [id=%d] Received %s.%s Kline data %d bars[%s], cost (%0.0f ms)...."),
        no_market(std::string(tag) + " 市场[%s]不存在....."),
        not_ready(std::string(tag) + "市场[%s]初始化失败，无法获取代码信息..."),
        no_code(std::string(tag) + " Code %s not exist..."),
        not_found(std::string(tag) + "[id=%d] not found corresponding record!"),
        in_progress(std::string(count_tag) + "[id=%d] info %d, %d!"),
        returned(std::string(tag) + " [id=%d] Return %s.%s Kline data %d bars...."),
        short_block(std::string(tag) + " Block of %d bytes too short, dropped...."),
        bad_count(std::string(tag) + " [id=%d] Count %d does not match the %d elements received, %d converted....") {}
  std::string received, no_market, not_ready, no_code, not_found, in_progress, returned, short_block, bad_count;
};

constexpr char kAfterHoursTag[] = "[ApiHisTickKcbResp]";
constexpr char kLevel1Tag[] = "[ApiL1NewHisTickResp]";

struct BarBlock {
  using Head = ApiHisDataRsp;
  static constexpr const char* kTag = "[ApiHisDataRsp]";
  static const Texts& texts() {
    // The bar handler counts its blocks under the level-1 tick handler's tag.
    static const Texts t(kTag, kLevel1Tag);
    return t;
  }
  static bool last(const Head& h) { return h.last != 0; }
  // 0 for a type that converts nothing.
  static size_t element_size(const Head& h) {
    if (h.kline_type == 14) return sizeof(ApiHisBarTick);
    return h.kline_type == 1 || h.kline_type == 7 ? sizeof(ApiHisBar) : 0;
  }
  static void convert(const Head& h, const uint8_t* elements, size_t n, const HisBlock& b, QuoteRecords& out) {
    convert_bars(h.kline_type, elements, n, b, out);
  }
};

using TickConverter = void (*)(const uint8_t*, size_t, const HisBlock&, QuoteRecords&);

template <typename HeadType, typename Element, const char* Tag, TickConverter Convert>
struct TickBlock {
  using Head = HeadType;
  static constexpr const char* kTag = Tag;
  static const Texts& texts() {
    static const Texts t(Tag, Tag);
    return t;
  }
  static bool last(const Head& h) { return h.last != 0; }
  static size_t element_size(const Head&) { return sizeof(Element); }
  static void convert(const Head&, const uint8_t* elements, size_t n, const HisBlock& b, QuoteRecords& out) {
    Convert(elements, n, b, out);
  }
};

using AfterHoursBlock = TickBlock<ApiHisTickKcbResp, ApiHisTickKcb, kAfterHoursTag, &convert_after_hours_ticks>;
using Level1Block = TickBlock<ApiL1NewHisTickResp, ApiHisTickL1, kLevel1Tag, &convert_level1_ticks>;

// Elements that a block of size bytes holds: the count, or fewer when the
// bytes end first. A negative count converts nothing.
size_t Present(int32_t count, size_t size, size_t head, size_t element) {
  if (count <= 0 || element == 0) return 0;
  size_t fit = (size - head) / element;
  return std::min(static_cast<size_t>(count), fit);
}

// The list a block's records are delivered in. Its storage stays with the
// service thread from block to block, up to a bound: a new list per block is
// one large allocation each time, which the allocator serves by first
// merging the small blocks of the records just freed, record by record.
class RecordList {
 public:
  RecordList() { records_.swap(Spare()); }
  ~RecordList() {
    records_.clear();
    if (records_.capacity() <= kKeep) records_.swap(Spare());
  }
  RecordList(const RecordList&) = delete;
  RecordList& operator=(const RecordList&) = delete;
  QuoteRecords& get() { return records_; }

 private:
  static constexpr size_t kKeep = 4096;
  static QuoteRecords& Spare() {
    static port::ThreadLocal<QuoteRecords> spare;
    return spare.get();
  }
  QuoteRecords records_;
};

}  // namespace

template <typename Block>
void DvDataMgr::history_reply(const void* data, size_t size, bool parked) {
  using Head = typename Block::Head;
  const Texts& texts = Block::texts();
  Head head;
  if (data == nullptr || size < sizeof(head)) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, texts.short_block.c_str(), static_cast<int>(size));
    return;
  }
  std::memcpy(&head, data, sizeof(head));
  const int16_t id = head.request_id;
  const uint16_t key = static_cast<uint16_t>(id);
  const int32_t count = head.count;
  const bool last = Block::last(head);
  const std::string name = get_market_name_by_id(head.market_id);
  const std::string code = field_text(head.code);
  if (!parked) {
    CMyLog::PrintLog(LOG_INFO, kFunction, texts.received.c_str(), id, code.c_str(), name.c_str(), count,
                     last ? "Last" : "Continue", since_sent(key));
  }
  auto market = markets_.find(name);
  if (market == nullptr) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, texts.no_market.c_str(), name.c_str());
    return;
  }
  if (!parked && park(*market, ParkedBlock{&DvDataMgr::history_reply<Block>, Block::kTag, texts.not_ready.c_str(),
                                          name, {}, 1, {}}, data, size)) {
    return;
  }
  HisBlock block;
  if (instrument_view(*market, code, block.instrument) == 0) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, texts.no_code.c_str(), code.c_str());
    return;
  }
  std::vector<int32_t> range;
  {
    std::lock_guard<std::mutex> lock(his_request_mu_);
    auto it = his_request_infos.find(key);
    if (it == his_request_infos.end() || it->second.size() != kRecordFields) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, texts.not_found.c_str(), id);
      return;
    }
    if (!last) {
      int in_progress = ++it->second[4];
      CMyLog::PrintLog(LOG_INFO, kFunction, texts.in_progress.c_str(), id, in_progress, in_progress);
    }
    range = it->second;
  }
  // A non-last block counts itself out once delivered, even when a throw cuts
  // it short: the count is of the blocks being delivered.
  struct Delivering {
    DvDataMgr* mgr;
    uint16_t key;
    ~Delivering() {
      if (mgr == nullptr) return;
      std::lock_guard<std::mutex> lock(mgr->his_request_mu_);
      auto it = mgr->his_request_infos.find(key);
      if (it != mgr->his_request_infos.end() && it->second.size() == kRecordFields) --it->second[4];
    }
  } delivering{last ? nullptr : this, key};

  block.id = id;
  block.count = count;
  block.code = code;
  block.market = name;
  block.range_start = int64_t{range[0]} * 1000000 + range[1];
  block.range_end = int64_t{range[2]} * 1000000 + range[3];
  const size_t element = Block::element_size(head);
  const size_t n = Present(count, size, sizeof(Head), element);
  if (element != 0 && (count < 0 || static_cast<int64_t>(n) < count)) {
    CMyLog::PrintLog(LOG_ERROR, kFunction, texts.bad_count.c_str(), id, count,
                     static_cast<int>((size - sizeof(Head)) / element), static_cast<int>(n));
  }
  RecordList list;
  QuoteRecords& records = list.get();
  records.reserve(n);
  Block::convert(head, static_cast<const uint8_t*>(data) + sizeof(Head), n, block, records);

  if (last) {
    // A request's blocks form a strand, handled one at a time in order: the
    // other blocks of the id have been delivered.
    std::lock_guard<std::mutex> lock(his_request_mu_);
    auto it = his_request_infos.find(key);
    if (it != his_request_infos.end() && it->second.size() == kRecordFields) his_request_infos.erase(it);
  }
  client()->onRequestHistory(id, records, last);
  CMyLog::PrintLog(LOG_INFO, kFunction, texts.returned.c_str(), id, code.c_str(), name.c_str(),
                   static_cast<int>(records.size()));
}

namespace {
bool Ready(const MarketInfo& market) { return market.initialised.load() && market.ref_info_ready.load(); }
}  // namespace

bool DvDataMgr::park(const MarketInfo& market, ParkedBlock block, const void* data, size_t size) {
  {
    std::lock_guard<std::mutex> lock(parked_mu_);
    bool queued = draining_.count(block.market) != 0 ||
                  std::any_of(parked_.begin(), parked_.end(),
                              [&](const ParkedBlock& p) { return p.market == block.market; });
    if (!queued && Ready(market)) return false;
    // The first wait step's line comes now, the others when due.
    int ms = log_wait_step(1, block.tag, block.market, 0);
    const auto* bytes = static_cast<const uint8_t*>(data);
    block.bytes.assign(bytes, bytes + size);
    block.due = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    parked_.push_back(std::move(block));
  }
  {
    std::lock_guard<std::mutex> lock(timer_mu_);
    timer_poke_ = true;
  }
  timer_cv_.notify_all();
  return true;
}

void DvDataMgr::release_parked(const MarketInfo& market) {
  const std::string& name = market.name;
  {
    std::lock_guard<std::mutex> lock(parked_mu_);
    if (draining_.count(name) != 0) return;
    draining_.insert(name);
  }
  // Drains while the market stays ready. The drain ends under the same lock
  // that finds nothing left, so a block parked behind it is never stranded.
  while (true) {
    ParkedBlock block;
    {
      std::lock_guard<std::mutex> lock(parked_mu_);
      auto it = std::find_if(parked_.begin(), parked_.end(), [&](const ParkedBlock& p) { return p.market == name; });
      if (it == parked_.end() || !Ready(market)) {
        draining_.erase(name);
        return;
      }
      block = std::move(*it);
      parked_.erase(it);
    }
    try {
      (this->*block.handle)(block.bytes.data(), block.bytes.size(), true);
    } catch (...) {
      // The rest stay parked for the next release or their expiry.
      std::lock_guard<std::mutex> lock(parked_mu_);
      draining_.erase(name);
      throw;
    }
  }
}

std::chrono::steady_clock::time_point DvDataMgr::age_parked(std::chrono::steady_clock::time_point now) {
  auto next = std::chrono::steady_clock::time_point::max();
  std::lock_guard<std::mutex> lock(parked_mu_);
  for (auto it = parked_.begin(); it != parked_.end();) {
    if (draining_.count(it->market) != 0) {
      ++it;
      continue;
    }
    while (it->due <= now && it->waits < 20) {
      it->due += std::chrono::milliseconds(log_wait_step(++it->waits, it->tag, it->market, 0));
    }
    if (it->due <= now) {
      CMyLog::PrintLog(LOG_ERROR, kFunction, it->give_up, it->market.c_str());
      it = parked_.erase(it);
      continue;
    }
    next = std::min(next, it->due);
    ++it;
  }
  return next;
}

void DvDataMgr::on_reply_data(const ApiHisDataRsp* data, size_t size) { history_reply<BarBlock>(data, size); }
void DvDataMgr::on_reply_data(const ApiHisTickKcbResp* data, size_t size) {
  history_reply<AfterHoursBlock>(data, size);
}
void DvDataMgr::on_reply_data(const ApiL1NewHisTickResp* data, size_t size) {
  history_reply<Level1Block>(data, size);
}

}  // namespace tavr
