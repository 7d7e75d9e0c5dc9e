// The reply dispatcher: one message type, one handler.
#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"

namespace tavr {

void DvDataMgr::on_reply_data(int msg_type, void* data, size_t size) {
  (void)data;
  (void)size;
  if (msg_type >= 0 && msg_type <= 40 && msg_type != 29) return;
  CMyLog::PrintLog(LOG_INFO, "DvDataMgr::on_reply_data", "收到无效[%d]类型数据.....", msg_type);
}

}  // namespace tavr
