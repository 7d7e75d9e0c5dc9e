#include "testkit/work_dir.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>

namespace testkit {

WorkDir::WorkDir(bool with_ini) : old_(std::filesystem::current_path()) {
  static std::atomic<int> serial{0};
  auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  root_ = std::filesystem::temp_directory_path() /
          ("kq-" + std::to_string(stamp) + "-" + std::to_string(serial++));
  run_ = root_ / "run";
  std::filesystem::create_directories(run_);
  std::filesystem::create_directories(root_ / "userdata" / "log");
  if (with_ini) std::filesystem::create_directories(run_ / "ini");
  std::filesystem::current_path(run_);
}

WorkDir::~WorkDir() {
  std::error_code ec;
  std::filesystem::current_path(old_, ec);
  std::filesystem::remove_all(root_, ec);
}

void WorkDir::write(const std::string& name, const std::string& content) const {
  std::ofstream out(run_ / name, std::ios::binary);
  out << content;
}

std::string WorkDir::read(const std::string& name) const {
  std::ifstream in(run_ / name, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string config_xml(const std::string& hq_inner, const std::string& extra) {
  return "<?xml version=\"1.0\"?>\n<dravik>\n<hq>" + hq_inner + "</hq>" + extra + "\n</dravik>\n";
}

std::string servers_xml(int n) {
  std::string out;
  for (int i = 0; i < n; ++i) {
    out += "<s ip=\"127.0.0." + std::to_string(i + 1) + "\" port=\"" + std::to_string(9001 + i) + "\"/>";
  }
  return out;
}

}  // namespace testkit
