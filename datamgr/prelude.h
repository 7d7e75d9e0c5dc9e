// Small memory and thread routines of the data manager.
#ifndef KELQUOTE_DATAMGR_PRELUDE_H_
#define KELQUOTE_DATAMGR_PRELUDE_H_

#include <cstddef>
#include <cstdint>

#include "port/port.h"

namespace tavr {

// A block of size bytes behind a hidden 8-byte size word. Adds size + 8 to
// the process-wide count of bytes in use. Aborts the process when memory is
// exhausted.
void* zmalloc(size_t size);
// Releases a zmalloc block (null allowed) and subtracts it from the count.
void zfree(void* p);
// Bytes currently held through zmalloc, size words included.
size_t zmalloc_used_memory();

using ThreadHandle = port::Thread*;
using ThreadFunction = unsigned (*)(void*);

// Starts function(argument) on a new thread. Returns null when function is null.
ThreadHandle thread_create(ThreadFunction function, void* argument);
// Waits for the thread to end, without time-out, and releases its handle.
void thread_join(ThreadHandle handle);

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_PRELUDE_H_
