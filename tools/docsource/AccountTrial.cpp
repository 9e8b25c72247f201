#include "tools/docsource/AccountTrial.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/plist/PropertyList.h"
#include "sdk/src/Bridge.h"
#include "tools/docsource/Command.h"

namespace tool {
namespace {

using docsource::Error;
using docsource::Result;
using qx::FileDescriptor;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A file in memory (memfd_create(2)) that is read from its beginning.
Result<FileDescriptor> fileWith(std::string_view text) {
  FileDescriptor file(::memfd_create("settings", MFD_CLOEXEC));
  const auto size = static_cast<ssize_t>(text.size());
  if (!file || ::write(file.get(), text.data(), text.size()) != size ||
      ::lseek(file.get(), 0, SEEK_SET) != 0) {
    return Error::posix(errno, "The settings cannot be handed to the account's program");
  }
  return file;
}

/// All that is written to the pipe until its other end is closed; false at the deadline. `sees` is
/// called with what has come so far.
bool readAll(int pipe, steady_clock::time_point deadline, std::string& text,
             const std::function<void(const std::string& text)>& sees) {
  std::array<char, 4096> piece{};
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count();
    pollfd ready{pipe, POLLIN, 0};
    constexpr std::int64_t longest = 3'600'000;
    if (left <= 0) return false;
    if (::poll(&ready, 1, static_cast<int>(std::min(left, longest))) <= 0) continue;
    const auto count = ::read(pipe, piece.data(), piece.size());
    if (count <= 0) return true;
    text.append(piece.data(), static_cast<std::size_t>(count));
    if (sees) sees(text);
  }
}

/// What the program prints when it is asked with that option; what it says last where it fails.
Result<std::string> ask(const std::string& program, std::string option,
                        const qx::Dictionary& settings, milliseconds timeout,
                        const std::function<void(const std::string& text)>& sees = {}) {
  const auto list = qx::PropertyList::write(settings);
  if (!list) return docsource::bridge::fromPlatform(list.error());
  auto input = fileWith(*list);
  if (!input) return input.error();
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return Error::posix(errno, "There is no pipe");
  const FileDescriptor ours(ends[0]);
  FileDescriptor theirs(ends[1]);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input->get(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDOUT_FILENO);
  std::string name = program;
  const std::array<char*, 3> words{name.data(), option.data(), nullptr};
  pid_t process = -1;
  const int failed =
      ::posix_spawn(&process, name.c_str(), &actions, nullptr, words.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return Error::posix(failed, program + " cannot be started");
  theirs.reset();
  std::string text;
  const bool isDone = readAll(ours.get(), steady_clock::now() + timeout, text, sees);
  if (!isDone) ::kill(process, SIGKILL);
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  if (!isDone) return complaint("The server did not answer in time (--timeout)");
  while (text.ends_with('\n')) text.pop_back();
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return text;
  if (text.empty()) text = program + " ended without saying why.";
  // A complaint is a sentence that gets its full stop.
  if (text.ends_with('.')) text.pop_back();
  return complaint(text.substr(text.rfind('\n') + 1));
}

}  // namespace

Result<std::string> tryAccount(const std::string& program, const qx::Dictionary& settings,
                               milliseconds timeout) {
  return ask(program, "--try", settings, timeout);
}

Result<account::Login> logIn(const std::string& program, const qx::Dictionary& settings,
                             const std::function<void(const std::string& page)>& show) {
  bool isShown = false;
  constexpr std::chrono::minutes patience(30);
  const auto said = ask(program, "--login", settings, patience, [&](const std::string& text) {
    const auto end = text.find('\n');
    if (end != std::string::npos && !std::exchange(isShown, true)) show(text.substr(0, end));
  });
  if (!said) return said.error();
  std::vector<std::string> lines;
  for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
    end = said->find('\n', at);
    lines.push_back(said->substr(at, end - at));
  }
  constexpr std::size_t expected = 4;  // the page, and what is known then
  if (lines.size() != expected) return complaint("The server's answer to the login is incomplete");
  return account::Login{lines[1], lines[2], lines[3]};
}

}  // namespace tool
