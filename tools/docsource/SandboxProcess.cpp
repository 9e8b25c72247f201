// Bubblewrap says on a pipe which process it made first in the namespaces (--info-fd), and has that
// wait, before it becomes the application, until another pipe has something to read (--block-fd).
// In between the user namespace is recorded. It is the outermost that bubblewrap makes; the one
// that it makes within, to forbid more of them, counts as below it.

#include "tools/docsource/SandboxProcess.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/identity/Bubblewrap.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/identity/SandboxRecord.h"
#include "tools/docsource/SystemCallFilter.h"

namespace tool {
namespace {

using qx::FileDescriptor;
using qx::Result;

qx::Error failure(int errnum, const char* what) { return qx::posixError(errnum, what); }

struct Pipe {
  FileDescriptor output, input;

  static Result<Pipe> make() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return failure(errno, "No pipe can be made");
    return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  }
};

/// A started process, killed and waited for unless its end has been waited for.
class Child {
 public:
  explicit Child(pid_t id) : id_(id) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (id_ <= 0) return;
    ::kill(id_, SIGKILL);
    wait();
  }
  pid_t id() const { return id_; }
  int wait() {
    int status = 0;
    while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) continue;
    id_ = -1;
    constexpr int killed = 128;
    return WIFEXITED(status) ? WEXITSTATUS(status) : killed + WTERMSIG(status);
  }

 private:
  pid_t id_;
};

/// The descriptors, at their numbers, and the standard streams are all that it gets of this one's.
Result<pid_t> spawn(const std::string& program, std::vector<std::string> words,
                    std::vector<std::string> variables,
                    const std::vector<const FileDescriptor*>& inherited) {
  // Whatever else is open would be a way out.
  if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
    return failure(errno, "The descriptors cannot be kept out of the sandbox");
  }
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (const auto* one : inherited) {
    ::posix_spawn_file_actions_adddup2(&actions, one->get(), one->get());
  }
  pid_t id = -1;
  const int failed = ::posix_spawn(&id, program.c_str(), &actions, nullptr,
                                   pointersTo(words).data(), pointersTo(variables).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return failure(failed, (program + " cannot be started").c_str());
  return id;
}

/// The number behind "child-pid" in what bubblewrap tells; absent when it ends without telling.
std::optional<pid_t> firstProcess(const FileDescriptor& information) {
  std::string text;
  std::array<char, 512> piece{};
  for (ssize_t count = 1; count > 0 && text.find('}') == std::string::npos;) {
    count = ::read(information.get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR)
      count = 1;
    else if (count > 0)
      text.append(piece.data(), static_cast<std::size_t>(count));
  }
  const auto process = qx::toldByBubblewrap(text, "child-pid");
  return process ? std::optional(static_cast<pid_t>(*process)) : std::nullopt;
}

Result<qx::SandboxRecord> record(pid_t first, pid_t bubblewrap, const std::string& application) {
  const auto process = qx::ProcessDirectory::open(first);
  // It may have made the one within by now.
  auto userNamespace =
      process ? qx::outermostNamespaceAround(process->openUserNamespace()) : FileDescriptor();
  // Asked last: until then the number was that of bubblewrap's child.
  const auto state = process ? process->state() : std::nullopt;
  if (!state || state->parent != bubblewrap || !userNamespace) {
    return failure(ESRCH, "The sandbox ended before its application began");
  }
  return qx::SandboxRecord::make(std::move(userNamespace), application);
}

}  // namespace

std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (auto& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

Result<int> runSandbox(const std::string& bubblewrap, const std::string& application,
                       std::vector<std::string> arguments, std::vector<std::string> environment,
                       const std::vector<FileDescriptor>& inherited) {
  const pid_t parent = ::getppid();
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return failure(errno, "prctl");
  if (::getppid() != parent) return failure(ESRCH, "Who ran this program has ended");
  const auto filter = systemCallFilter();
  if (!filter) return filter.error();
  auto information = Pipe::make(), start = Pipe::make();
  if (!information) return information.error();
  if (!start) return start.error();

  std::vector<std::string> words{"bwrap",      "--die-with-parent",
                                 "--seccomp",  std::to_string(filter->get()),
                                 "--info-fd",  std::to_string(information->input.get()),
                                 "--block-fd", std::to_string(start->output.get())};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<const FileDescriptor*> descriptors{&*filter, &information->input, &start->output};
  for (const auto& each : inherited) descriptors.push_back(&each);
  const auto started = spawn(bubblewrap, std::move(words), std::move(environment), descriptors);
  if (!started) return started.error();
  Child child(*started);
  information->input.reset();
  const auto first = firstProcess(information->output);
  // Without a word it has ended, and said why.
  if (!first) return child.wait();
  const auto recorded = record(*first, child.id(), application);
  if (!recorded) return recorded.error();
  if (::write(start->input.get(), "x", 1) != 1) return failure(errno, "The sandbox has ended");
  return child.wait();
}

}  // namespace tool
