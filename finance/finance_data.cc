// The exported financial records. Their special members are defined here, in
// the library, so that a host built against the header uses the library's.
#include "kelquote/FinanceData.h"

namespace tavr {

void DraVikIData::dosome() {}

#define KELQUOTE_FINANCE_RECORD(Class)                   \
  Class::Class() = default;                              \
  Class::Class(const Class&) = default;                  \
  Class& Class::operator=(const Class&) = default;       \
  Class::~Class() = default;

KELQUOTE_FINANCE_RECORD(DraVikIData)
KELQUOTE_FINANCE_RECORD(DravikCBalanceSheet)
KELQUOTE_FINANCE_RECORD(DravikCShareIncome)
KELQUOTE_FINANCE_RECORD(DravikCShareCashFlow)
KELQUOTE_FINANCE_RECORD(DravikCPerShare)
KELQUOTE_FINANCE_RECORD(DravikCCapitalStructure)
KELQUOTE_FINANCE_RECORD(Dravik_Cshare_holder_number)
KELQUOTE_FINANCE_RECORD(Dravik_Ctop10_share_holder_base_info)
KELQUOTE_FINANCE_RECORD(Dravik_Ctop10_share_holder)
KELQUOTE_FINANCE_RECORD(Dravik_Ctop10_flow_share_holder)

#undef KELQUOTE_FINANCE_RECORD

}  // namespace tavr
