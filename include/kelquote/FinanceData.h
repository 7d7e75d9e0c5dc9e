// Financial-statement records and the parameters of a financial request.
#ifndef KELQUOTE_INCLUDE_FINANCEDATA_H_
#define KELQUOTE_INCLUDE_FINANCEDATA_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kelquote/export.h"

namespace tavr {

// Base of every financial record. Records are created as their concrete class
// by std::make_shared, which destroys them correctly through this base.
class KELQUOTE_API DraVikIData {
 public:
  DraVikIData() = default;
  DraVikIData(const DraVikIData&) = default;
  DraVikIData& operator=(const DraVikIData&) = default;

  int32_t tag;  // left unset by the default constructor

 private:
  virtual void dosome();
};

// What a financial request asks for.
class KELQUOTE_API FinanceDataParam {
 public:
  FinanceDataParam() = default;
  FinanceDataParam(const FinanceDataParam&) = default;
  FinanceDataParam(FinanceDataParam&&) = default;
  FinanceDataParam& operator=(const FinanceDataParam&) = default;
  FinanceDataParam& operator=(FinanceDataParam&&) = default;
  ~FinanceDataParam() = default;

  std::string market;  // host market code
  std::string code;
  int64_t begin;       // first range value
  int64_t end;         // second range value
  std::vector<int32_t> types;  // type ids, 24501 to 24510
};

}  // namespace tavr

#endif  // KELQUOTE_INCLUDE_FINANCEDATA_H_
