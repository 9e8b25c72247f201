#pragma once

#include <functional>
#include <memory>
#include <string>

namespace qx::kernel {

/// Tells when another directory may be at one of many paths: a missing one came, one was moved,
/// deleted or made anew (inotify(7), one instance for all of them), or something was mounted or
/// unmounted anywhere (proc_pid_mountinfo(5)). Any thread may use it.
class TreeWatch {
 public:
  /// Called on a thread of the reactor, with a path; with each path when anything may have changed.
  using Callback = std::function<void(const std::string& path)>;

  static std::unique_ptr<TreeWatch> start(Callback callback);

  virtual ~TreeWatch() = default;
  virtual void add(const std::string& path) = 0;
  virtual void remove(const std::string& path) = 0;
};

}  // namespace qx::kernel
