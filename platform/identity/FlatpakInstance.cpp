// A Flatpak's instance by its mount namespace, and the file in its root that names it.

#include "platform/identity/FlatpakInstance.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>

#include "platform/files/Places.h"
#include "platform/identity/Bubblewrap.h"

namespace qx {
namespace {

/// Larger than any that is not meant to do harm.
constexpr off_t largest = off_t{1} << 20;

/// A plain file of this user's, opened without following a link.
FileDescriptor openOwn(int directory, const char* name) {
  open_how how{};
  how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  FileDescriptor file(static_cast<int>(syscall(SYS_openat2, directory, name, &how, sizeof how)));
  struct stat status;
  const bool isGood = file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                      status.st_uid == geteuid();
  return isGood ? std::move(file) : FileDescriptor();
}

std::string contentOf(const FileDescriptor& file) {
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || status.st_size > largest) return {};
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t size = pread(file.get(), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

/// Whether another process holds a lock on it.
bool isLocked(const FileDescriptor& file) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return file && fcntl(file.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/// The number of the instance that runs in a mount namespace.
std::optional<std::string> instanceIn(const FileIdentity& mountNamespace) {
  std::error_code failed;
  for (std::filesystem::directory_iterator at(Places::flatpakInstances(), failed), end;
       !failed && at != end; at.increment(failed)) {
    const FileDescriptor directory(
        open(at->path().c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) continue;
    const auto information = contentOf(openOwn(directory.get(), "bwrapinfo.json"));
    if (toldByBubblewrap(information, "mnt-namespace") == mountNamespace.inode &&
        isLocked(openOwn(directory.get(), ".ref"))) {
      return at->path().filename().string();
    }
  }
  return std::nullopt;
}

/// The value of a key in a group of a key file; absent where it is not there or empty.
std::optional<std::string> valueOf(std::string_view file, std::string_view group,
                                   std::string_view key) {
  std::string_view current;
  while (!file.empty()) {
    const auto end = std::min(file.find('\n'), file.size());
    const auto line = file.substr(0, end);
    file.remove_prefix(std::min(end + 1, file.size()));
    if (line.starts_with('[') && line.ends_with(']')) {
      current = line.substr(1, line.size() - 2);
    } else if (current == group && line.starts_with(key) && line.size() > key.size() + 1 &&
               line[key.size()] == '=') {
      return std::string(line.substr(key.size() + 1));
    }
  }
  return std::nullopt;
}

/// Whether root installed what is there.
bool isRoots(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && status.st_uid == 0;
}

}  // namespace

std::optional<FlatpakApplication> flatpakApplicationOf(const ProcessDirectory& process) {
  const auto mountNamespace = process.mountNamespace();
  const auto instance = mountNamespace ? instanceIn(*mountNamespace) : std::nullopt;
  if (!instance) return std::nullopt;
  const FileDescriptor root(openat(process.descriptor(), "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const auto file = root ? openOwn(root.get(), ".flatpak-info") : FileDescriptor();
  struct statvfs mount {};
  if (!file || fstatvfs(file.get(), &mount) != 0 || (mount.f_flag & ST_RDONLY) == 0) {
    return std::nullopt;
  }
  const auto text = contentOf(file);
  auto identifier = valueOf(text, "Application", "name");
  if (!identifier || valueOf(text, "Instance", "instance-id") != instance) return std::nullopt;
  const auto files = valueOf(text, "Instance", "app-path");
  return FlatpakApplication{*std::move(identifier), files && isRoots(*files)};
}

}  // namespace qx
