// Entry points that play a hostile vendor against the library: the
// configuration reader and every record slot of the callback adapter. The
// libFuzzer targets call them, and so does the regression test, so a crash
// input found by fuzzing replays in the normal suite without libFuzzer.
#ifndef KELQUOTE_FUZZ_FUZZ_ENTRY_H_
#define KELQUOTE_FUZZ_FUZZ_ENTRY_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dataapi/DataApi.h"
#include "dataapi/record_size.h"

namespace kqfuzz {

// data is the decrypted text of "./dravikcfg.dat"; the server table is read
// from it for both environments. Aborts when a table read as good is not.
int config_input(const uint8_t* data, size_t size);

// data is a run of chunks, each [slot][length: 2 bytes, little-endian][body]
// (a short last body takes what is left). Each body goes to the callback of
// the slot (an index into record_slots(), taken modulo their number) as a
// record of exactly the size the vendor's contract gives its count: a count
// that would need more bytes than the body has is lowered to what fits. Then
// waits until the service threads handled it all; aborts when they hang.
int record_input(const uint8_t* data, size_t size);

// Callbacks the host received so far from record inputs.
int64_t host_deliveries();

// The vendor's contract for one record slot: the bytes a record holds.
struct RecordSlot {
  int (CDataApiCallBack::*call)(const void*);
  const char* name;
  api_record::Layout layout;
};
const std::vector<RecordSlot>& record_slots();

// The record's size under slot's contract; the record holds at least
// min_size(slot) bytes.
size_t record_size(const RecordSlot& slot, const uint8_t* record);
size_t min_size(const RecordSlot& slot);
// Lowers the record's count until record_size fits in size bytes
// (size >= min_size), and returns the new record size.
size_t fit_count(const RecordSlot& slot, uint8_t* record, size_t size);

}  // namespace kqfuzz

#endif  // KELQUOTE_FUZZ_FUZZ_ENTRY_H_
