// Financial-statement records and the parameters of a financial request.
//
// Every record holds only values, so a host may keep and copy the records it
// receives as it likes. Items of the statements are named by position: item[0]
// is the service's first item of the statement, item[N-1] its last. Report
// dates are milliseconds since the epoch of the day's local midnight.
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
  DraVikIData();
  DraVikIData(const DraVikIData& other);
  DraVikIData& operator=(const DraVikIData& other);
  ~DraVikIData();

  int32_t tag = 0;

 private:
  virtual void dosome();
};

// Balance sheet of one report period: 123 items.
class KELQUOTE_API DravikCBalanceSheet : public DraVikIData {
 public:
  static constexpr int kItems = 123;
  DravikCBalanceSheet();
  DravikCBalanceSheet(const DravikCBalanceSheet& other);
  DravikCBalanceSheet& operator=(const DravikCBalanceSheet& other);
  ~DravikCBalanceSheet();

  int64_t report_date = 0;    // end of the report period
  int64_t announce_date = 0;  // day the report was published
  int32_t report_type = 0;    // 1 first quarter, 2 half year, 3 third quarter, 4 year
  double item[kItems] = {};
};

// Income statement of one report period: 60 items.
class KELQUOTE_API DravikCShareIncome : public DraVikIData {
 public:
  static constexpr int kItems = 60;
  DravikCShareIncome();
  DravikCShareIncome(const DravikCShareIncome& other);
  DravikCShareIncome& operator=(const DravikCShareIncome& other);
  ~DravikCShareIncome();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  int32_t report_type = 0;
  double item[kItems] = {};
};

// Cash-flow statement of one report period: 92 items.
class KELQUOTE_API DravikCShareCashFlow : public DraVikIData {
 public:
  static constexpr int kItems = 92;
  DravikCShareCashFlow();
  DravikCShareCashFlow(const DravikCShareCashFlow& other);
  DravikCShareCashFlow& operator=(const DravikCShareCashFlow& other);
  ~DravikCShareCashFlow();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  int32_t report_type = 0;
  double item[kItems] = {};
};

// Financial indicators per share of one report period: 41 items.
class KELQUOTE_API DravikCPerShare : public DraVikIData {
 public:
  static constexpr int kItems = 41;
  DravikCPerShare();
  DravikCPerShare(const DravikCPerShare& other);
  DravikCPerShare& operator=(const DravikCPerShare& other);
  ~DravikCPerShare();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  int32_t report_type = 0;
  double item[kItems] = {};
};

// Share capital structure of one report period: 3 items.
class KELQUOTE_API DravikCCapitalStructure : public DraVikIData {
 public:
  static constexpr int kItems = 3;
  DravikCCapitalStructure();
  DravikCCapitalStructure(const DravikCCapitalStructure& other);
  DravikCCapitalStructure& operator=(const DravikCCapitalStructure& other);
  ~DravikCCapitalStructure();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  int32_t report_type = 0;
  double item[kItems] = {};
};

// Number of shareholders at one report date: six figures.
class KELQUOTE_API Dravik_Cshare_holder_number : public DraVikIData {
 public:
  static constexpr int kItems = 6;
  Dravik_Cshare_holder_number();
  Dravik_Cshare_holder_number(const Dravik_Cshare_holder_number& other);
  Dravik_Cshare_holder_number& operator=(const Dravik_Cshare_holder_number& other);
  ~Dravik_Cshare_holder_number();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  int32_t item[kItems] = {};
};

// One holder of a top-ten list. Texts are GBK.
class KELQUOTE_API Dravik_Ctop10_share_holder_base_info : public DraVikIData {
 public:
  Dravik_Ctop10_share_holder_base_info();
  Dravik_Ctop10_share_holder_base_info(const Dravik_Ctop10_share_holder_base_info& other);
  Dravik_Ctop10_share_holder_base_info& operator=(const Dravik_Ctop10_share_holder_base_info& other);
  ~Dravik_Ctop10_share_holder_base_info();

  std::string name;        // the holder
  std::string kind;        // kind of holder
  int64_t shares = 0;      // shares held
  std::string share_kind;  // kind of the shares held
  double ratio = 0;        // percent of the shares the list counts
  std::string change;      // change since the previous report
  int32_t rank = 0;        // place in the list, from 1
};

// The ten largest holders of all shares at one report date.
class KELQUOTE_API Dravik_Ctop10_share_holder : public DraVikIData {
 public:
  Dravik_Ctop10_share_holder();
  Dravik_Ctop10_share_holder(const Dravik_Ctop10_share_holder& other);
  Dravik_Ctop10_share_holder& operator=(const Dravik_Ctop10_share_holder& other);
  ~Dravik_Ctop10_share_holder();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  std::vector<Dravik_Ctop10_share_holder_base_info> holders;  // in the service's order
};

// The ten largest holders of tradable shares at one report date.
class KELQUOTE_API Dravik_Ctop10_flow_share_holder : public DraVikIData {
 public:
  Dravik_Ctop10_flow_share_holder();
  Dravik_Ctop10_flow_share_holder(const Dravik_Ctop10_flow_share_holder& other);
  Dravik_Ctop10_flow_share_holder& operator=(const Dravik_Ctop10_flow_share_holder& other);
  ~Dravik_Ctop10_flow_share_holder();

  int64_t report_date = 0;
  int64_t announce_date = 0;
  std::vector<Dravik_Ctop10_share_holder_base_info> holders;
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
  int64_t begin = 0;   // first range value
  int64_t end = 0;     // second range value
  std::vector<int32_t> types;  // type ids, 24501 to 24510
};

}  // namespace tavr

#endif  // KELQUOTE_INCLUDE_FINANCEDATA_H_
