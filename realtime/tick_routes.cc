#include "realtime/tick_routes.h"

namespace tavr {

TickRoutes*& TickRoutes::current() {
  thread_local TickRoutes* routes = nullptr;
  return routes;
}

}  // namespace tavr
