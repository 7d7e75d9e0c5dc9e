// libFuzzer target: the configuration reader.
#include "fuzz/fuzz_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return kqfuzz::config_input(data, size); }
