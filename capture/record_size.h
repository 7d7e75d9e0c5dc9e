// How many bytes a callback record of a slot holds, read from its own count
// as the library's adapter reads it: what a relay of the records (the bus)
// must carry, and what it checks a received record against before handing
// it on, so that no count promises more bytes than a message brought.
#ifndef KELQUOTE_CAPTURE_RECORD_SIZE_H_
#define KELQUOTE_CAPTURE_RECORD_SIZE_H_

#include <cstddef>

namespace capture {

// The bytes of the record of slot at record (which holds at least
// min_record_bytes(slot)); 0 for a slot that carries no record or a count
// beyond 64 MiB.
size_t callback_size(int slot, const void* record);
// The bytes that must be readable before callback_size can read the count;
// 0 for a slot that carries no record.
size_t min_record_bytes(int slot);

}  // namespace capture

#endif  // KELQUOTE_CAPTURE_RECORD_SIZE_H_
