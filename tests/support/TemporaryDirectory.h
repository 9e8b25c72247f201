#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace qx::test {

/// A directory of its own for one test (mkdtemp(3)), removed with everything in it at the end.
/// path() is resolved, so that it compares equal to what the kernel reports, and short enough for
/// sockets below it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "docsource-test.XXXXXX").string();
    if (!::mkdtemp(name.data())) std::abort();
    path_ = std::filesystem::canonical(name).string();
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  /// The path of an entry; nothing is made.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace qx::test
