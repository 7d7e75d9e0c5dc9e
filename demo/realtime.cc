#include "demo/demo.h"

namespace demo {

void ShowRealtime(tavr::BaseQuoteClient&, int) {}

}  // namespace demo
