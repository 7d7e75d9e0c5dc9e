// The server configuration: the decrypted "./dravikcfg.dat" XML read into
// address lists.
#ifndef KELQUOTE_DATAMGR_CONFIG_H_
#define KELQUOTE_DATAMGR_CONFIG_H_

#include <string>

namespace tavr {

struct ServerAddress {
  std::string ip;
  std::string port;
};

constexpr int kMaxServers = 10;

// Fills the three lists (each kMaxServers long, constructed empty) from the
// file at path: the "hq" servers, or "hq_sim" ones when isReal is false and the
// file has them. An entry with an empty ip ends a list; the entry after a
// short history or massive list is written into the quote list, so all roles
// end up with the quote list's length. Returns false with one ERROR line.
bool GetIPPort(ServerAddress* quoteList, ServerAddress* historyList, ServerAddress* massiveList,
               bool isReal, const char* path);

}  // namespace tavr

#endif  // KELQUOTE_DATAMGR_CONFIG_H_
