#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"

namespace qx::test {

/// Starts a program with one of these descriptors at each number, and in the environment of the
/// test or in another; -1 when it cannot be executed.
inline pid_t spawn(std::vector<std::string> arguments,
                   const std::vector<std::pair<int, int>>& descriptors,
                   std::optional<std::vector<std::string>> environment = std::nullopt) {
  const auto pointersTo = [](std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  };
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const auto& [descriptor, number] : descriptors) {
    posix_spawn_file_actions_adddup2(&actions, descriptor, number);
  }
  pid_t id = -1;
  auto words = pointersTo(arguments);
  auto variables = environment ? pointersTo(*environment) : std::vector<char*>();
  if (posix_spawnp(&id, words[0], &actions, nullptr, words.data(),
                   environment ? variables.data() : environ) != 0) {
    id = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return id;
}

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
    id_ = spawn(std::move(arguments),
                {{childIn.get(), STDIN_FILENO}, {childOut.get(), STDOUT_FILENO}});
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
