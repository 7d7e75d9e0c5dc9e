// Calls into the host. A host callback that throws is the host's fault and
// must cost nobody else anything: the exception stays here, is logged as the
// service threads log a message that failed, and the caller goes on with the
// next subscriber or notification.
#ifndef KELQUOTE_CLIENT_HOST_CALL_H_
#define KELQUOTE_CLIENT_HOST_CALL_H_

#include <utility>

#include "log/MyLog.h"

namespace tavr {

// How many host callbacks the calling thread is inside: a removal made from
// inside one must not wait (see subscriber_registry.h).
int& host_call_depth();

// Calls callback(args...) unless it is empty; nothing it throws escapes.
template <typename Callback, typename... Args>
void host_call(const Callback& callback, Args&&... args) {
  if (!callback) return;
  int& depth = host_call_depth();
  struct Inside {
    int& depth;
    explicit Inside(int& d) : depth(d) { ++depth; }
    ~Inside() { --depth; }
  } inside(depth);
  try {
    callback(std::forward<Args>(args)...);
  } catch (...) {
    CMyLog::PrintLog(LOG_FATAL, "DvDataMgr::DataServiceThread", "数据服务线程, do bussiness catch Exception!!!...");
  }
}

}  // namespace tavr

#endif  // KELQUOTE_CLIENT_HOST_CALL_H_
