#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/base/FileDescriptor.h"
#include "tests/support/Gate.h"
#include "tests/support/Mailbox.h"

namespace qx::test {

/// The words that run a program as another user, by number; for root alone.
std::vector<std::string> asUser(uid_t user, const std::vector<std::string>& words);

/// The path of a program of this build.
std::string builtProgram(const std::string& name);

/// A program of the system, running with its log caught, line by line. Ended at the latest with
/// this object, by its process number; it fails the test when it does not end well then, and for
/// every report of a sanitizer in its log.
class Daemon {
 public:
  /// Starts `program` of this build with DOCSOURCE_ROOT=`root` and the log at debug; `environment`
  /// adds to that or replaces it. As another user where there is one, which takes root
  /// (setpriv(1)).
  Daemon(const std::string& program, const std::string& root,
         const std::map<std::string, std::string>& environment = {},
         std::optional<uid_t> user = std::nullopt);
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon();

  /// -1 once it has been waited for.
  pid_t id() const { return id_; }

  /// Sends a signal and waits for the end.
  int end(int signal);
  /// The exit status of a program that ends by itself, or -(the number of the signal that ended
  /// it). One that does not end within the patience of the tests is killed.
  int wait();

  /// Its lines, and those of the processes that it started and that share its log stream.
  const Mailbox<std::string>& log() const { return state_->lines; }
  bool logs(std::string_view part, std::size_t times = 1) const;
  std::size_t count(std::string_view part) const;
  /// The lines that hold a text.
  std::vector<std::string> linesWith(std::string_view part) const;

  /// Whether nobody is left that could write to the log: neither the program nor any process that
  /// inherited its standard error.
  bool everyProcessEnds() const;

 private:
  struct State {
    Mailbox<std::string> lines;
    Mailbox<bool> ended;
    FileDescriptor stream;
    FileDescriptor stop;
  };
  static void readLog(State& state);

  pid_t id_ = -1;
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::thread reader_;
};

}  // namespace qx::test
