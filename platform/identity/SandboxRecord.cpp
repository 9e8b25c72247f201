#include "platform/identity/SandboxRecord.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/nsfs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "platform/base/Errors.h"
#include "platform/files/Places.h"

namespace qx {
namespace {

/// User namespaces are nested no deeper (user_namespaces(7)).
constexpr int deepest = 33;

std::string pathOf(const FileIdentity& userNamespace) {
  return Places::sandboxRecords() + "/" + std::to_string(userNamespace.inode);
}

std::optional<FileIdentity> identityOf(const FileDescriptor& file) {
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return std::nullopt;
  return qx::identityOf(status);
}

FileDescriptor parentOf(const FileDescriptor& userNamespace) {
  return FileDescriptor(ioctl(userNamespace.get(), NS_GET_PARENT));
}

std::optional<FileIdentity> ownNamespace() {
  struct stat status;
  if (stat("/proc/self/ns/user", &status) != 0) return std::nullopt;
  return qx::identityOf(status);
}

/// Whether nobody holds the lock on the record any more; if so this process does.
bool isLeft(const FileDescriptor& record, int lock) {
  return flock(record.get(), lock | LOCK_NB) == 0;
}

std::optional<std::string> applicationOf(const FileIdentity& userNamespace) {
  const FileDescriptor record(
      open(pathOf(userNamespace).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status;
  if (!record || fstat(record.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_uid != geteuid() || isLeft(record, LOCK_SH)) {
    return std::nullopt;
  }
  std::array<char, 4096> text;
  const ssize_t size = pread(record.get(), text.data(), text.size(), 0);
  if (size <= 0) return std::nullopt;
  const std::string_view line(text.data(), static_cast<std::size_t>(size));
  const auto end = line.find('\n');
  if (end == 0 || end == std::string_view::npos) return std::nullopt;
  return std::string(line.substr(0, end));
}

/// With the directory locked, so that no record appears under a name that is being removed.
void removeLeftRecords() {
  std::error_code failed;
  for (std::filesystem::directory_iterator at(Places::sandboxRecords(), failed), end;
       !failed && at != end; at.increment(failed)) {
    const FileDescriptor record(
        open(at->path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (record && isLeft(record, LOCK_EX)) unlink(at->path().c_str());
  }
}

}  // namespace

FileDescriptor outermostNamespaceAround(FileDescriptor userNamespace) {
  for (int depth = 0; depth < deepest; ++depth) {
    auto above = parentOf(userNamespace);
    const auto parent = identityOf(above);
    if (!parent) break;
    if (parent == ownNamespace()) return userNamespace;
    userNamespace = std::move(above);
  }
  return FileDescriptor();
}

Result<SandboxRecord> SandboxRecord::make(FileDescriptor userNamespace,
                                          const std::string& application) {
  const auto identity = identityOf(userNamespace);
  const auto parent = identityOf(parentOf(userNamespace));
  if (!identity || !parent || parent != ownNamespace()) {
    return posixError(EINVAL, "A sandbox has a user namespace of its own");
  }
  const auto directory = Places::sandboxRecords();
  if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) return posixError(errno, directory);
  const FileDescriptor folder(
      open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  if (!folder || flock(folder.get(), LOCK_EX) != 0) return posixError(errno, directory);
  removeLeftRecords();

  // Locked and complete before it has its name.
  const auto path = pathOf(*identity), side = path + ".new";
  const auto line = application + "\n";
  FileDescriptor file(open(side.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file || flock(file.get(), LOCK_EX) != 0 ||
      write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
      rename(side.c_str(), path.c_str()) != 0) {
    auto error = posixError(errno, path);
    unlink(side.c_str());
    return error;
  }
  return SandboxRecord(std::move(userNamespace), std::move(file), path);
}

SandboxRecord::~SandboxRecord() {
  if (file_) unlink(path_.c_str());
}

std::optional<Surroundings> surroundingsOf(const ProcessDirectory& process) {
  const auto own = ownNamespace();
  const auto its = process.userNamespace();
  if (!own || !its) return std::nullopt;
  if (*own == *its) return Surroundings{};
  // Each namespace from the process's own outwards, up to a recorded one or ours.
  auto current = process.openUserNamespace();
  for (int depth = 0; depth < deepest; ++depth) {
    const auto identity = identityOf(current);
    if (!identity && depth == 0) return std::nullopt;
    if (!identity) break;
    if (*identity == *own) break;
    if (auto application = applicationOf(*identity)) {
      return Surroundings{true, std::move(application), {}};
    }
    current = parentOf(current);
  }
  return Surroundings{true, {}, flatpakApplicationOf(process)};
}

}  // namespace qx
