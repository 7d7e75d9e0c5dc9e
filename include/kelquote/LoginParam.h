// Login parameters of the quote client.
#ifndef KELQUOTE_INCLUDE_LOGINPARAM_H_
#define KELQUOTE_INCLUDE_LOGINPARAM_H_

#include <cstdint>
#include <string>

namespace tavr {

struct LoginParam {
  // 2 selects the real servers of the configuration; anything else the
  // simulated ones ("hq_sim", or "hq" when the file has none).
  int32_t environment = 2;
  std::string user;
  std::string password;
};

}  // namespace tavr

#endif  // KELQUOTE_INCLUDE_LOGINPARAM_H_
