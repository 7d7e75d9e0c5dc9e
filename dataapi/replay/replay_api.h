// The replay service: a CDataApi that plays a capture file back into the
// library instead of talking to servers. Callbacks come in their recorded
// order, on one thread of the service, at the recorded pace or faster;
// each request the library sends is matched to the recorded one and gets
// its recorded result, and the replies of a request that carries an id
// come back under the library's new id.
#ifndef KELQUOTE_DATAAPI_REPLAY_REPLAY_API_H_
#define KELQUOTE_DATAAPI_REPLAY_REPLAY_API_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/capture_file.h"
#include "dataapi/numbered_api.h"

namespace replay {

class ReplayApi final : public NumberedApi {
 public:
  ReplayApi() = default;
  ~ReplayApi();
  ReplayApi(const ReplayApi&) = delete;
  ReplayApi& operator=(const ReplayApi&) = delete;

  // How long the player waits for the library to send a recorded request
  // before it goes on without it (a host that asks less than the recorded one).
  static constexpr int kRequestWaitMs = 2000;
  static constexpr uint64_t kSettleNs = 2000000;

  // Loads the capture at path, to be played at speed times the recorded
  // pace (0: as fast as the library takes it). False with error set for a
  // file that cannot be read or a speed below 0.
  bool open(const std::string& path, double speed, std::string* error);
  // Reads the file and the speed from KELQUOTE_REPLAY_FILE and
  // KELQUOTE_REPLAY_SPEED (1 when unset), as a host's process has them.
  bool open_from_environment(std::string* error);
  // Waits until the player has gone through the whole capture; false on time-out.
  bool wait_done(int timeout_ms);
  // Recorded replies of a request the library never sent (their id has no
  // match), which the player left out.
  int64_t unmatched_replies() const { return unmatched_.load(); }

  const char* GetVersion() override { return "kelquote replay service 1.0"; }
  int RegisterServer(const ServerTable* servers, CDataApiCallBack* callback) override;
  int Connect(ConnectResult* result) override;
  int Release() override;

 private:
  struct Event {
    capture::Kind kind;
    uint8_t code;
    bool consumed = false;  // a request the library has sent in the replay
    uint64_t ns;
    size_t at, size;  // its bytes in bytes_
    int32_t result = -1;  // a request's recorded result
    size_t out_at = 0, out_size = 0;  // what the recorded call filled in
  };

  // Matches a request of the library to the first recorded one not yet
  // matched: its recorded result, or -1 when none matches.
  int Request(uint8_t op, const void* bytes, size_t size) override;
  // Callers hold mu_: the index of the matching recorded request, or -1.
  long match(uint8_t op, const uint8_t* bytes, size_t size);
  void stop_player();
  void play(size_t from);
  void deliver(const Event& event, CDataApiCallBack* callback);

  std::mutex mu_;
  std::condition_variable cv_;
  bool loaded_ = false;
  bool connects_in_file_ = false;
  bool played_ = false;  // a connect started the player since the file was opened
  double speed_ = 1;
  std::vector<Event> events_;
  std::vector<uint8_t> bytes_;
  std::map<uint8_t, std::deque<size_t>> pending_;  // unmatched requests by operation, in order
  std::map<uint16_t, uint16_t> ids_;               // recorded request id to the library's
  bool done_ = false;
  std::atomic<CDataApiCallBack*> callback_{nullptr};
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> unmatched_{0};
  std::thread player_;
  std::vector<uint8_t> scratch_;  // the player's
};

}  // namespace replay

#endif  // KELQUOTE_DATAAPI_REPLAY_REPLAY_API_H_
