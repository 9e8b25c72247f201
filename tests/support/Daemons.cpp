#include "tests/support/Daemons.h"

#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"

namespace qx::test {
namespace {

/// Whether a descriptor becomes readable within the patience of the tests.
bool becomesReadable(int descriptor) {
  pollfd entry{descriptor, POLLIN, 0};
  const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(patience);
  return poll(&entry, 1, static_cast<int>(limit.count())) > 0;
}

}  // namespace

std::vector<std::string> asUser(uid_t user, const std::vector<std::string>& words) {
  const auto number = std::to_string(user);
  std::vector<std::string> all{"setpriv", "--reuid", number, "--regid", number, "--clear-groups"};
  all.insert(all.end(), words.begin(), words.end());
  return all;
}

std::string builtProgram(const std::string& name) {
  return std::filesystem::path(ownProgram()).parent_path() / name;
}

Daemon::Daemon(const std::string& program, const std::string& root,
               const std::map<std::string, std::string>& environment, std::optional<uid_t> user) {
  std::map<std::string, std::string> variables;
  for (char** each = environ; *each; ++each) {
    const std::string text(*each);
    const auto equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const char* of : {"NOTIFY_SOCKET", "JOURNAL_STREAM", "LISTEN_PID", "LISTEN_FDS"}) {
    variables.erase(of);
  }
  variables["DOCSOURCE_ROOT"] = root;
  variables["DOCSOURCE_LOG"] = "debug";
  for (const auto& [name, value] : environment) variables[name] = value;
  std::vector<std::string> texts;
  for (const auto& [name, value] : variables) texts.push_back(name + "=" + value);

  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
  state_->stream.reset(ends[0]);
  state_->stop.reset(eventfd(0, EFD_CLOEXEC));
  const FileDescriptor theirs(ends[1]), null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::string path = builtProgram(program);
  id_ = spawn(
      user ? asUser(*user, {path}) : std::vector{path},
      {{null.get(), STDIN_FILENO}, {theirs.get(), STDOUT_FILENO}, {theirs.get(), STDERR_FILENO}},
      texts);
  if (id_ < 0) state_->lines.put(path + " cannot be started");
  reader_ = std::thread([state = state_] { readLog(*state); });
}

Daemon::~Daemon() {
  EXPECT_EQ(end(SIGTERM), 0);
  // What it started may still be at its end, which is the concern of the tests of that.
  eventfd_write(state_->stop.get(), 1);
  reader_.join();
  const auto lines = state_->lines.all();
  const auto report = std::find_if(lines.begin(), lines.end(), [](const auto& line) {
    return line.find("Sanitizer: ") != std::string::npos ||
           line.find(": runtime error: ") != std::string::npos;
  });
  std::string text;
  for (auto line = report; line != lines.end(); ++line) text += *line + "\n";
  EXPECT_EQ(text, "");
  if (!testing::Test::HasFailure()) return;
  constexpr std::size_t mostShown = 200;
  for (auto at = lines.size() - std::min(lines.size(), mostShown); at < lines.size(); ++at) {
    std::cerr << lines[at] << "\n";
  }
}

void Daemon::readLog(State& state) {
  std::string pending;
  std::array<char, 65536> buffer{};
  for (;;) {
    std::array<pollfd, 2> entries{{{state.stream.get(), POLLIN, 0}, {state.stop.get(), POLLIN, 0}}};
    poll(entries.data(), entries.size(), -1);
    if (entries[0].revents == 0 && entries[1].revents != 0) return;
    const ssize_t count = read(state.stream.get(), buffer.data(), buffer.size());
    if (count <= 0) break;
    pending.append(buffer.data(), static_cast<std::size_t>(count));
    for (std::size_t end = 0; (end = pending.find('\n')) != std::string::npos;) {
      state.lines.put(pending.substr(0, end));
      pending.erase(0, end + 1);
    }
  }
  if (!pending.empty()) state.lines.put(pending);
  state.ended.put(true);
}

int Daemon::end(int signal) {
  if (id_ <= 0) return 0;
  kill(id_, signal);
  return wait();
}

int Daemon::wait() {
  if (id_ <= 0) return 0;
  const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, id_, 0)));
  if (!becomesReadable(process.get())) kill(id_, SIGKILL);
  int status = 0;
  waitpid(std::exchange(id_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::vector<std::string> Daemon::linesWith(std::string_view part) const {
  auto lines = state_->lines.all();
  std::erase_if(lines, [part](const auto& line) { return line.find(part) == std::string::npos; });
  return lines;
}

std::size_t Daemon::count(std::string_view part) const { return linesWith(part).size(); }

bool Daemon::logs(std::string_view part, std::size_t times) const {
  return state_->lines.waitUntil([&](const auto& lines) {
    const auto found = std::count_if(lines.begin(), lines.end(), [part](const auto& line) {
      return line.find(part) != std::string::npos;
    });
    return static_cast<std::size_t>(found) >= times;
  });
}

bool Daemon::everyProcessEnds() const { return state_->ended.waitForCount(1); }

}  // namespace qx::test
