// A process as /proc shows it (proc(5), proc_pid_stat(5), proc_pid_status(5)).

#include "platform/identity/ProcessDirectory.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <string_view>

namespace qx {
namespace {

std::vector<std::string_view> wordsOf(std::string_view text) {
  std::vector<std::string_view> words;
  for (;;) {
    auto begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return words;
    auto end = std::min(text.find_first_of(" \t", begin), text.size());
    words.push_back(text.substr(begin, end - begin));
    text.remove_prefix(end);
  }
}

template <class Number>
std::optional<Number> number(std::string_view text, int base = 10) {
  Number value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// The words of the line "Name:\t..." of a status file.
std::optional<std::vector<std::string_view>> statusLine(std::string_view status,
                                                        std::string_view name) {
  while (!status.empty()) {
    auto end = std::min(status.find('\n'), status.size());
    auto line = status.substr(0, end);
    if (line.starts_with(name)) return wordsOf(line.substr(name.size()));
    status.remove_prefix(std::min(end + 1, status.size()));
  }
  return std::nullopt;
}

}  // namespace

std::optional<ProcessDirectory> ProcessDirectory::open(pid_t process) {
  if (process <= 0) return std::nullopt;
  auto path = "/proc/" + std::to_string(process);
  FileDescriptor descriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) return std::nullopt;
  return ProcessDirectory(std::move(descriptor));
}

std::optional<ProcessDirectory> ProcessDirectory::open(const AuditToken& token) {
  auto directory = open(token.processIdentifier());
  if (!directory) return std::nullopt;
  auto state = directory->state();
  if (!state || state->startTime != token.startTime()) return std::nullopt;
  return directory;
}

std::optional<std::string> ProcessDirectory::read(const char* name) const {
  FileDescriptor file(openat(descriptor_.get(), name, O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string text;
  std::array<char, 4096> piece;
  for (;;) {
    ssize_t count = ::read(file.get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return text;
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
}

std::optional<ProcessDirectory::State> ProcessDirectory::state() const {
  auto text = read("stat");
  if (!text) return std::nullopt;
  // The second field is the program's name in parentheses, which may hold anything, parentheses
  // and spaces included; the third begins behind the last one.
  auto behindName = text->rfind(')');
  if (behindName == std::string::npos) return std::nullopt;
  auto fields = wordsOf(std::string_view(*text).substr(behindName + 1));
  constexpr std::size_t third = 3, startTime = 22;
  if (fields.size() <= startTime - third) return std::nullopt;
  auto parent = number<pid_t>(fields[1]);
  auto start = number<std::uint64_t>(fields[startTime - third]);
  if (!parent || !start) return std::nullopt;
  return State{fields[0][0], *parent, *start};
}

bool ProcessDirectory::isRunning() const {
  auto now = state();
  return now && now->isRunning();
}

std::optional<ProcessDirectory::Credentials> ProcessDirectory::credentials() const {
  auto status = read("status");
  if (!status) return std::nullopt;
  auto users = statusLine(*status, "Uid:");
  auto groups = statusLine(*status, "Gid:");
  auto supplementary = statusLine(*status, "Groups:");
  auto capabilities = statusLine(*status, "CapEff:");
  if (!users || users->size() != 4 || !groups || groups->size() != 4 || !supplementary ||
      !capabilities || capabilities->size() != 1) {
    return std::nullopt;
  }
  // Real, effective, saved set and file system.
  auto realUser = number<uid_t>((*users)[0]);
  auto effectiveUser = number<uid_t>((*users)[1]);
  auto fileSystemUser = number<uid_t>((*users)[3]);
  auto effectiveGroup = number<gid_t>((*groups)[1]);
  auto fileSystemGroup = number<gid_t>((*groups)[3]);
  auto effectiveCapabilities = number<std::uint64_t>((*capabilities)[0], 16);
  if (!realUser || !effectiveUser || !fileSystemUser || !effectiveGroup || !fileSystemGroup ||
      !effectiveCapabilities) {
    return std::nullopt;
  }
  Credentials credentials{
      *realUser, *effectiveUser,        *fileSystemUser, *effectiveGroup, *fileSystemGroup,
      {},        *effectiveCapabilities};
  for (auto word : *supplementary) {
    auto group = number<gid_t>(word);
    if (!group) return std::nullopt;
    credentials.groups.push_back(*group);
  }
  return credentials;
}

std::optional<uid_t> ProcessDirectory::user() const {
  struct stat status;
  if (fstat(descriptor_.get(), &status) != 0) return std::nullopt;
  return status.st_uid;
}

std::optional<FileIdentity> ProcessDirectory::executable() const {
  // Device and inode never change, so a network's file system need not be asked for them.
  struct statx status;
  if (statx(descriptor_.get(), "exe", AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) {
    return std::nullopt;
  }
  return FileIdentity{makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

std::optional<FileIdentity> ProcessDirectory::namespaceAt(const char* name) const {
  struct stat status;
  if (fstatat(descriptor_.get(), name, &status, 0) != 0) return std::nullopt;
  return identityOf(status);
}

std::optional<FileIdentity> ProcessDirectory::userNamespace() const {
  return namespaceAt("ns/user");
}

std::optional<FileIdentity> ProcessDirectory::mountNamespace() const {
  return namespaceAt("ns/mnt");
}

FileDescriptor ProcessDirectory::openUserNamespace() const {
  return FileDescriptor(openat(descriptor_.get(), "ns/user", O_RDONLY | O_CLOEXEC));
}

bool ProcessDirectory::isOutsideOfSandboxes() const {
  struct stat own;
  const auto theirs = userNamespace();
  return theirs && stat("/proc/self/ns/user", &own) == 0 && identityOf(own) == *theirs;
}

}  // namespace qx
