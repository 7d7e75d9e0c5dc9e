// The service's replies as the bytes it lends to the callbacks, built from
// the packed records of ApiRecords.h.
//
// A reply headed by a count carries the head and count elements. The
// library's adapter copies head + max(count, 1) elements (the head's size is
// counted with one element), so an empty reply still carries one zeroed
// element's room.
#ifndef KELQUOTE_DATAAPI_SIM_REPLIES_H_
#define KELQUOTE_DATAAPI_SIM_REPLIES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "dataapi/ApiRecords.h"
#include "dataapi/sim/universe.h"

namespace sim {

using Bytes = std::vector<uint8_t>;

// Copies text into a fixed field as the service does: NUL-terminated, cut
// to the field's size less one byte, wherever that falls in the text (a
// double-byte character may lose its second byte).
void put_text(char* field, size_t size, const std::string& text);
template <size_t N>
void put_text(char (&field)[N], const std::string& text) {
  put_text(field, N, text);
}

// ApiMarketStatus.
Bytes market_status_reply(const Market& market, bool changed);
// ApiMarketInitHead and an ApiCodeInit per instrument.
Bytes market_init_reply(const Market& market);
// ApiMarketOtherBaseHead and an ApiOtherBaseItem per instrument of the stock
// markets; the other markets have none.
Bytes other_base_reply(const Market& market);
// ApiRefInfoHead and an ApiRefInfoItem per instrument.
Bytes ref_info_reply(const Market& market);
// ApiLatestShareHead and an ApiLatestShareItem per share.
Bytes latest_share_reply(const Market& market);
// ApiSharedFields.
Bytes shared_fields_reply(int32_t version, float rate);
// ApiNewIssueHead and an ApiNewIssueItem per issue.
Bytes new_issue_reply(const std::vector<NewIssue>& issues);
// ApiHolidayHead and an int32 yyyymmdd per day.
Bytes holiday_reply(int32_t kind, const std::vector<int32_t>& days);
// ApiHKRateHead and an ApiHKRateItem per trading day.
Bytes hk_rate_reply(uint16_t field, int32_t begin, int32_t end, const std::vector<HKRate>& rates);

}  // namespace sim

#endif  // KELQUOTE_DATAAPI_SIM_REPLIES_H_
