// Connection state: the vendor's connection reports and the request gate.
#include "datamgr/DvDataMgr.h"
#include "kelquote/KelQuoteClient.h"
#include "log/MyLog.h"

namespace tavr {

void DvDataMgr::on_connect_status(int server, int status) {
  const char* function = "CMyCallBackPro::OnConnectStatus";
  CMyLog::PrintLog(LOG_INFO, function, "Receive connect message[%d--%d]...", server, status);
  if (server != 0) {
    // Only the real-time quote server's connection gates requests.
    CMyLog::PrintLog(LOG_INFO, function, "Ignore History connect status message...");
    return;
  }
  // The host hears of the change before the state changes.
  switch (status) {
    case 0:
      client()->onConnectStatusChange(1, "Dravik后台数据连接中断，尝试重连中....");
      set_connected(false);
      break;
    case 1:
      client()->onConnectStatusChange(0, "Dravik后台数据连接恢复正常....");
      set_connected(true);
      break;
    case 2:
      client()->onConnectStatusChange(2, "Dravik后台数据连接失败，请稍后重新登陆....");
      stop_from_vendor();
      break;
    default:
      break;
  }
}

bool DvDataMgr::pass_request_gate(const char* function) {
  if (!is_started()) {
    CMyLog::PrintLog(LOG_ERROR, function, "后台已断开，无法发送请求，需要客户端重启...");
    return false;
  }
  for (int attempt = 0; !is_connected() && attempt < 5; ++attempt) {
    waitDynamicTime(attempt, function, "Connect Status", 0);
  }
  if (!is_connected()) {
    CMyLog::PrintLog(LOG_ERROR, function, "后台已断开，等待重连中...");
    return false;
  }
  return true;
}

}  // namespace tavr
