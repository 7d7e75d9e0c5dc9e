// libFuzzer target: every record slot of the callback adapter and the
// handlers behind it.
#include "fuzz/fuzz_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return kqfuzz::record_input(data, size); }
