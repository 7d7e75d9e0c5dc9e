// The library's implementation of the vendor callback interface: every record
// callback copies the record into a queued message; only the connection
// status is handled on the vendor's thread.
#ifndef KELQUOTE_DATAMGR_CALLBACK_PRO_H_
#define KELQUOTE_DATAMGR_CALLBACK_PRO_H_

#include "dataapi/DataApi.h"

namespace tavr {

class DvDataMgr;

class CMyCallBackPro : public CDataApiCallBack {
 public:
  explicit CMyCallBackPro(DvDataMgr* mgr) : mgr_(mgr) {}

 private:
  DvDataMgr* mgr_;
};

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_CALLBACK_PRO_H_
