#include "quoter/quoter.h"

namespace quoter {

QuoterBase::QuoterBase() = default;
QuoterBase::~QuoterBase() = default;

}  // namespace quoter
