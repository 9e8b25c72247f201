#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"

namespace qx::test {

/// A program run by a test, which talks to it through its standard input and output. Ended at the
/// latest with this object.
class ChildProcess {
 public:
  /// Returns when the program has taken the place of the fork. No process (id() is -1) when it
  /// cannot be executed.
  explicit ChildProcess(std::vector<std::string> arguments) {
    std::array<int, 2> in{}, out{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) return;
    FileDescriptor childIn(in[0]), childOut(out[1]);
    toChild_.reset(in[1]);
    fromChild_.reset(out[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childIn.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOut.get(), STDOUT_FILENO);
    std::vector<char*> pointers;
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    if (posix_spawnp(&id_, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) id_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() { end(); }

  pid_t id() const { return id_; }

  /// Kills and reaps it.
  void end() {
    if (id_ <= 0) return;
    kill(id_, SIGKILL);
    waitpid(std::exchange(id_, -1), nullptr, 0);
  }

  /// Waits for its end of its own accord; the exit status, or -1 when a signal ended it.
  int wait() {
    int status = 0;
    toChild_.reset();
    if (id_ <= 0 || waitpid(std::exchange(id_, -1), &status, 0) < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void writeLine(const std::string& line) {
    auto text = line + "\n";
    if (write(toChild_.get(), text.data(), text.size()) < 0) toChild_.reset();
  }

  /// Its next line of output; what there was when its output ended.
  std::string readLine() {
    std::string line;
    char character = 0;
    while (read(fromChild_.get(), &character, 1) == 1 && character != '\n') line += character;
    return line;
  }

  std::string ask(const std::string& line) {
    writeLine(line);
    return readLine();
  }

 private:
  pid_t id_ = -1;
  FileDescriptor toChild_;
  FileDescriptor fromChild_;
};

}  // namespace qx::test
