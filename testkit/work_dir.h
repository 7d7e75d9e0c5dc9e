// A scratch working directory for tests that touch the library's relative
// paths (./dravikcfg.dat, ./ini/, ../userdata/log/).
#ifndef KELQUOTE_TESTKIT_WORK_DIR_H_
#define KELQUOTE_TESTKIT_WORK_DIR_H_

#include <filesystem>
#include <string>

namespace testkit {

// Creates <tmp>/kq-XXXX/run (with ini/ when asked) beside userdata/log/ and
// makes it the working directory; restores the old one and removes the tree
// when destroyed.
class WorkDir {
 public:
  explicit WorkDir(bool with_ini = true);
  ~WorkDir();
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;

  const std::filesystem::path& path() const { return run_; }
  void write(const std::string& name, const std::string& content) const;
  std::string read(const std::string& name) const;

 private:
  std::filesystem::path old_;
  std::filesystem::path root_;
  std::filesystem::path run_;
};

// A configuration file text: <dravik><hq>...</hq></dravik> around the given
// inner XML of the "hq" element.
std::string config_xml(const std::string& hq_inner, const std::string& extra = "");

// Servers as XML children: n elements <s ip="127.0.0.<i>" port="<9000+i>"/>.
std::string servers_xml(int n);

}  // namespace testkit

#endif  // KELQUOTE_TESTKIT_WORK_DIR_H_
