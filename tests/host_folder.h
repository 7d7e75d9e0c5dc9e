// A host's working directory for the tests that load the shared libraries:
// <tmp>/kq-host-*/run holding dravikcfg.dat and ini/, beside userdata/log/.
#ifndef KELQUOTE_TESTS_HOST_FOLDER_H_
#define KELQUOTE_TESTS_HOST_FOLDER_H_

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace testhost {

namespace fs = std::filesystem;

// <tmp>/kq-host-*/run holding dravikcfg.dat and ini/, beside userdata/log/,
// as the working directory while alive.
class HostFolder {
 public:
  HostFolder() : old_(fs::current_path()) {
    auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    root_ = fs::temp_directory_path() / ("kq-host-" + std::to_string(stamp));
    fs::create_directories(root_ / "run" / "ini");
    fs::create_directories(root_ / "userdata" / "log");
    std::ofstream(root_ / "run" / "dravikcfg.dat", std::ios::binary)
        << "<?xml version=\"1.0\"?>\n<dravik><hq>"
           "<quote><server ip=\"127.0.0.1\" port=\"9001\"/></quote>"
           "<history><server ip=\"127.0.0.1\" port=\"9101\"/></history>"
           "</hq></dravik>\n";
    fs::current_path(root_ / "run");
  }
  ~HostFolder() {
    std::error_code ec;
    fs::current_path(old_, ec);
    // Windows keeps the open log file; the rest goes.
    fs::remove_all(root_, ec);
  }
  const fs::path& root() const { return root_; }

 private:
  fs::path old_;
  fs::path root_;
};

}  // namespace testhost

#endif  // KELQUOTE_TESTS_HOST_FOLDER_H_
