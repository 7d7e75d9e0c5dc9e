// The bus service's exports: the vendor's entry point, and its counters for
// tools that want them (found with dlsym).
#include "dataapi/bus/bus_api.h"
#include "port/port.h"

namespace {

busapi::BusApi* Instance() {
  // Never destroyed: a host may still call in while the process exits.
  static busapi::BusApi* api = [] {
    static const char anchor = 0;  // an address inside this library
    port::PinModule(&anchor);
    return new busapi::BusApi();
  }();
  return api;
}

}  // namespace

CDataApi* GetApiInstance() { return Instance(); }

extern "C" DATAAPI_API void KqBusStats(int64_t out[7]) {
  busapi::BusStats s = Instance()->stats();
  out[0] = s.delivered;
  out[1] = s.caught_up;
  out[2] = s.duplicates;
  out[3] = s.refused;
  out[4] = s.restores;
  out[5] = s.gaps;
  out[6] = s.lost;
}

extern "C" DATAAPI_API int64_t KqBusVerify() { return Instance()->verify(); }
