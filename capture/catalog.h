// What the numbers of a capture stand for: callback slots and request
// operations of the quote API by their positions, where a request and its
// replies keep the request id, and which instrument a record is about.
#ifndef KELQUOTE_CAPTURE_CATALOG_H_
#define KELQUOTE_CAPTURE_CATALOG_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "dataapi/DataApi.h"

namespace capture {

inline constexpr int kSlots = 48;
inline constexpr int kOps = 55;

// Operations of CDataApi by virtual-table position (counted from 1).
enum Op : uint8_t {
  kRegisterServer = 2,
  kConnect = 3,
  kRelease = 53,
};

// The slot's operation name ("OnTickL1"); null for a slot no record comes through.
const char* slot_name(int slot);
// The operation's name ("ReqHisData"); null outside 1 to kOps.
const char* op_name(int op);

using Callback = int (CDataApiCallBack::*)(const void*);
// The record callback of slot; null for none and for OnConnectStatus (slot 40),
// whose recorded bytes are its two ints.
Callback slot_callback(int slot);
inline constexpr int kConnectStatusSlot = 40;

// Where the 16-bit request id sits in a reply of slot, or in the request
// record of op: byte 0, or -1 when it carries none.
int reply_id_at(int slot);
int request_id_at(int op);

// "600000.SH"-style key of the instrument (or "SH" for a market's packages)
// a callback record is about; empty when it is about none.
std::string instrument_of(int slot, const uint8_t* bytes, size_t size);

// The service's market name of its numeric id ("SH" for 2), or the number.
std::string market_name(int id);

}  // namespace capture

#endif  // KELQUOTE_CAPTURE_CATALOG_H_
