#include <cstring>

#include "history/history_test.h"

namespace tavr {
namespace {

const char kReq[] = "[DvDataMgr::request_his_kline]: ";

TEST_F(HistoryTest, RefusedRequestsSendNothing) {
  struct Case {
    const char* market;
    const char* code;
    char kind;
    int32_t meta;
    int64_t period;
    int64_t start, end;
    const char* line;
  };
  const int64_t end = ms(20240919, 100000);
  const Case cases[] = {
      {"XX", "600000", 1, 3001, kDay, 0, end, "[DvDataMgr::request_his_kline]: 市场[XX]信息不存在..."},
      {"SH", "999999", 1, 3001, kDay, 0, end, "[DvDataMgr::request_his_kline]: 代码[999999.SH]不存在(或者未上市)..."},
      {"SH", "600000", 2, 3001, kDay, 0, end, "代码[600000.SH]不存在(或者未上市)..."},  // not an option
      {"SH", "600000", 1, 3001, kDay, 0, 0, "Time range error: start[0] >= end[0]!"},
      {"SH", "600000", 1, 3001, kDay, end, end, "Time range error: start[1726711200000] >= end[1726711200000]!"},
      {"SH", "600000", 1, 3001, 59999, 0, end, "[GetKLineType]: Request MetaId[3001]: Period[59999] error...."},
      {"SH", "600000", 1, 3001, 59999, 0, end, "[DvDataMgr::request_his_kline]: GetKLineType[3001] failed!"},
      {"SH", "600000", 1, 2999, kDay, 0, end, "GetKLineType[2999] failed!"},
  };
  for (const Case& c : cases) {
    fx_.log().clear();
    EXPECT_EQ(request(c.market, c.code, c.meta, c.period, c.start, c.end, c.kind), kRequestFailed) << c.line;
    EXPECT_TRUE(logged(LOG_ERROR, c.line)) << fx_.log().dump();
  }
  EXPECT_EQ(fx_.api().calls().size(), 0u);

  fx_.mgr().stop();
  EXPECT_EQ(request("SH", "600000", 3001, kDay, 0, end), kRequestFailed);
  EXPECT_TRUE(logged(LOG_ERROR, std::string(kReq) + "后台已断开，无法发送请求，需要客户端重启..."));
}

TEST_F(HistoryTest, RangesOperationsAndRecordsSent) {
  struct Case {
    const char* market;
    const char* code;
    int32_t meta;
    int64_t period;
    int64_t start, end;
    const char* op;
    int32_t type;  // 0 for ticks
    int32_t start_date, end_date;
  };
  const Case cases[] = {
      // The future is cut at the present; daily bars start at the listing.
      {"SH", "600000", 3001, kDay, 0, ms(20240925, 0), "ReqHisData", 1, 19991110, kToday},
      {"SH", "600000", 3001, 2 * kDay, ms(20240102, 0), ms(20240201, 0), "ReqHisData", 1, 20240102, 20240201},
      // More than ten years by year number: four months back, day lowered.
      {"SH", "600000", 3001, 5 * kMinute, ms(20130102, 93000), ms(20240630, 120000), "ReqHisData", 7, 20240229,
       20240630},
      {"SH", "600000", 3001, kMinute, ms(20140102, 93000), ms(20240630, 120000), "ReqHisData", 7, 20140102, 20240630},
      {"SH", "600000", 3001, kDay - 1, 0, ms(20230731, 100000), "ReqHisData", 7, 20230331, 20230731},
      {"SH", "600000", 3001, kMinute, 0, ms(20230630, 100000), "ReqHisData", 7, 20230228, 20230630},
      // Ticks: five days back; after hours only from 15:00:00 on the boards that trade then.
      {"SZ", "000001", 3000, 0, 0, ms(20240301, 100000), "ReqL1NewHisTick", 0, 20240225, 20240301},
      {"SZ", "000001", 3000, 0, 0, ms(20240103, 100000), "ReqL1NewHisTick", 0, 20231229, 20240103},
      {"SZ", "300001", 3000, 0, ms(20240919, 150000), ms(20240919, 153000), "ReqHisTickKcb", 0, 20240919, 20240919},
      {"SZ", "300001", 3000, 0, ms(20240919, 145959), ms(20240919, 153000), "ReqL1NewHisTick", 0, 20240919,
       20240919},
      {"SZ", "000001", 3000, 0, ms(20240919, 150000), ms(20240919, 153000), "ReqL1NewHisTick", 0, 20240919,
       20240919},
      {"SH", "688001", 3000, 0, ms(20240919, 150000), ms(20240919, 153000), "ReqHisTickKcb", 0, 20240919, 20240919},
      {"SH", "600000", 3000, 0, ms(20240919, 150000), ms(20240919, 153000), "ReqL1NewHisTick", 0, 20240919,
       20240919},
      // Night sessions belong to the next trade date (Monday and Tuesday are holidays)...
      {"SQ", "cu2409", 3001, kMinute, ms(20240913, 213000), ms(20240914, 140000), "ReqHisData", 7, 20240918,
       20240918},
      {"SQ", "cu2409", 3001, kMinute, ms(20240911, 90000), ms(20240912, 140000), "ReqHisData", 7, 20240911, 20240912},
      {"SQ", "cu2409", 3001, kMinute, ms(20240911, 90000), ms(20240912, 213000), "ReqHisData", 7, 20240911, 20240913},
      // ... except on the financial futures market.
      {"ZJ", "IF2409", 3001, kMinute, ms(20240913, 213000), ms(20240914, 140000), "ReqHisData", 7, 20240913,
       20240914},
  };
  for (const Case& c : cases) {
    std::string what = std::string(c.market) + " " + c.code + " " + std::to_string(c.start);
    fx_.api().clear_calls();
    uint16_t id = request(c.market, c.code, c.meta, c.period, c.start, c.end);
    ASSERT_NE(id, kRequestFailed) << what << fx_.log().dump();
    auto calls = fx_.api().calls();
    ASSERT_EQ(calls.size(), 1u) << what;
    EXPECT_EQ(calls[0].op, c.op) << what;
    // Bars carry their K-line type before the dates; both end on 0 and 1.
    const size_t dates_at = c.type != 0 ? 42 : 38;
    ASSERT_EQ(calls[0].bytes.size(), dates_at + 16) << what;
    const uint8_t* bytes = calls[0].bytes.data();
    int32_t tail[5] = {};
    std::memcpy(tail, bytes + 38, calls[0].bytes.size() - 38);
    if (c.type != 0) {
      EXPECT_EQ(tail[0], c.type) << what;
    }
    const int32_t* dates = c.type != 0 ? tail + 1 : tail;
    EXPECT_EQ(dates[0], c.start_date) << what;
    EXPECT_EQ(dates[1], c.end_date) << what;
    EXPECT_EQ(dates[2], 0);
    EXPECT_EQ(dates[3], 1);
    size_t code_len = std::strlen(c.code);
    uint16_t sent_id;
    int32_t market_id;
    std::memcpy(&sent_id, bytes, 2);
    std::memcpy(&market_id, bytes + 2, 4);
    EXPECT_EQ(sent_id, id);
    EXPECT_EQ(market_id, DvDataMgr::get_market_id_by_name(c.market));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes + 6)), c.code);
    for (size_t i = 6 + code_len; i < 38; ++i) EXPECT_EQ(bytes[i], 0) << what << " byte " << i;
  }
  EXPECT_TRUE(logged(LOG_INFO, std::string(kReq) +
                                   "cu2409.SQ HisKline request MINUTE_1 bar: begin time[213000] >= [210000], adjust "
                                   "date[20240913] to next trade date [20240918]...."));
  EXPECT_TRUE(logged(LOG_INFO, "cu2409.SQ HisKline request MINUTE_1 bar: end time[140000] >= [210000], adjust "
                               "date[20240914] to [20240918]...."));
  EXPECT_TRUE(logged(LOG_INFO, "600000.SH HisKline MINUTE_1 Request (id = 23):[20130102 - 20240630] ...."));
  EXPECT_TRUE(logged(LOG_INFO, "600000.SH HisKline request DAILY bar information(id = 21):[19991110-20240920]...."));
  EXPECT_TRUE(logged(LOG_DEBUG, "600000.SH Original HisKline request DAILY bar information(id = 21): (7)[0-" +
                                    std::to_string(ms(20240925, 0)) + "]...."));
  EXPECT_TRUE(logged(LOG_TRACE, "Return request info(id = 21)!!!"));
  EXPECT_TRUE(logged(LOG_DEBUG, "[GetKLineType]: Request with MetaId[3000] is received...."));
}

// The record is in place before the send: a failed send leaves it, and the
// range it keeps is the one first computed, with the end as adjusted.
TEST_F(HistoryTest, RecordIsKeptBeforeTheSendAndAfterAFailedOne) {
  fx_.api().set_result("ReqHisData", -1);
  EXPECT_EQ(request("SQ", "cu2409", 3001, kDay, ms(20240913, 213000), ms(20240914, 140000)), kRequestFailed);
  EXPECT_TRUE(logged(LOG_ERROR, std::string(kReq) + "Failed to send request!!!"));
  auto calls = fx_.api().calls("ReqHisData");
  ASSERT_EQ(calls.size(), 1u);
  int16_t id = static_cast<int16_t>(testkit::record_of<HisBarRequest>(calls[0]).request_id);

  ApiHisBar bar{};
  bar.date = 20240918;
  fx_.deliver(13, testkit::his_bars(id, 5, "cu2409", 1, true, std::vector<ApiHisBar>{bar}));
  EXPECT_FALSE(fx_.log().contains("not found corresponding record!")) << fx_.log().dump();
  EXPECT_TRUE(logged(LOG_TRACE, "insert line #1[1]: 20240918000000 [20240913213000 - 20240918140000]...."));
  EXPECT_TRUE(logged(LOG_INFO, "No request found in kline request list[id=" + std::to_string(id)));
}

}  // namespace
}  // namespace tavr
