// The replay service's one export: the vendor's entry point.
#include "dataapi/replay/replay_api.h"
#include "port/port.h"

CDataApi* GetApiInstance() {
  // Never destroyed: a host may still call in while the process exits.
  static replay::ReplayApi* api = [] {
    static const char anchor = 0;  // an address inside this library
    port::PinModule(&anchor);
    return new replay::ReplayApi();
  }();
  return api;
}
