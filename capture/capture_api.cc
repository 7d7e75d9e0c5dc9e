#include "capture/capture_api.h"

namespace tavr {

// The server table holds passwords: only the call is recorded.
int CaptureApi::RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) {
  return CallBytes(2, nullptr, 0, &CDataApi::RegisterServer, servers, callback);
}

// The result record carries what the service filled in.
int CaptureApi::Connect(ConnectResult* result) {
  uint32_t number = rec_->request(3, nullptr, 0);
  int rc = vendor_->Connect(result);
  rec_->result(3, number, rc, result, result != nullptr ? sizeof(*result) : 0);
  return rc;
}

}  // namespace tavr
