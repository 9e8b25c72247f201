// Access to a directory tree that no symbolic link leads out of.

#include "Tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

namespace folder {

using docsource::Descriptor;
using docsource::Error;
using docsource::Result;

std::string parentOf(const std::string& relative) {
  const auto slash = relative.rfind('/');
  return slash == std::string::npos ? "" : relative.substr(0, slash);
}

std::string nameOf(const std::string& relative) {
  const auto slash = relative.rfind('/');
  return slash == std::string::npos ? relative : relative.substr(slash + 1);
}

Result<Tree> Tree::open(const std::string& path) {
  Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return Error::file(errno, path);
  return Tree(path, std::move(directory));
}

Descriptor Tree::openItem(const std::string& relative, int flags, mode_t mode) const {
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  if ((flags & O_PATH) == 0) how.flags |= O_NONBLOCK;
  how.mode = mode;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const char* name = relative.empty() ? "." : relative.c_str();
  long fd = -1;
  do {
    // EAGAIN: something was renamed meanwhile, so that the kernel could not be sure.
    fd = ::syscall(SYS_openat2, directory_.get(), name, &how, sizeof how);
  } while (fd < 0 && (errno == EINTR || errno == EAGAIN));
  return Descriptor(static_cast<int>(fd));
}

Descriptor Tree::openFile(const std::string& relative, int flags) const {
  Descriptor file = openItem(relative, flags);
  struct stat status {};
  if (file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode)) return file;
  if (file) errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  return {};
}

bool Tree::makeDirectories(const std::string& relative) const {
  if (relative.empty() || openItem(relative, O_PATH | O_DIRECTORY)) return true;
  if (errno != ENOENT || !makeDirectories(parentOf(relative))) return false;
  const Descriptor parent = openItem(parentOf(relative), O_PATH | O_DIRECTORY);
  return parent &&
         (::mkdirat(parent.get(), nameOf(relative).c_str(), 0777) == 0 || errno == EEXIST);
}

bool Tree::move(const std::string& from, const Tree& into, const std::string& to,
                bool replace) const {
  const Descriptor source = openItem(parentOf(from), O_PATH | O_DIRECTORY);
  const Descriptor target = into.openItem(parentOf(to), O_PATH | O_DIRECTORY);
  return source && target &&
         ::renameat2(source.get(), nameOf(from).c_str(), target.get(), nameOf(to).c_str(),
                     replace ? 0 : RENAME_NOREPLACE) == 0;
}

bool Tree::link(const std::string& from, const std::string& to) const {
  const Descriptor source = openItem(parentOf(from), O_PATH | O_DIRECTORY);
  const Descriptor target = openItem(parentOf(to), O_PATH | O_DIRECTORY);
  return source && target &&
         ::linkat(source.get(), nameOf(from).c_str(), target.get(), nameOf(to).c_str(), 0) == 0;
}

bool Tree::remove(const std::string& relative) const {
  const Descriptor parent = openItem(parentOf(relative), O_PATH | O_DIRECTORY);
  return parent && ::unlinkat(parent.get(), nameOf(relative).c_str(), 0) == 0;
}

bool Tree::syncParent(const std::string& relative) const {
  const Descriptor parent = openItem(parentOf(relative), O_RDONLY | O_DIRECTORY);
  return parent && ::fsync(parent.get()) == 0;
}

bool Tree::syncAll() const { return ::syncfs(directory_.get()) == 0; }

bool Tree::walk(const Visitor& visitor) const { return walkDirectory("", visitor); }

bool Tree::walkDirectory(const std::string& relative, const Visitor& visitor) const {
  Descriptor directory = openItem(relative, O_RDONLY | O_DIRECTORY);
  if (!directory) return false;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(directory.get()), ::closedir);
  if (!entries) return false;
  const int fd = directory.release();
  bool complete = true;
  errno = 0;
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    struct stat status {};
    if (name == "." || name == "..") continue;
    if (::fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      complete = complete && errno == ENOENT;
    } else if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
      const std::string item =
          relative.empty() ? std::string(name) : relative + "/" + std::string(name);
      visitor(item, status);
      if (S_ISDIR(status.st_mode)) complete = walkDirectory(item, visitor) && complete;
    }
    errno = 0;
  }
  return complete && errno == 0;
}

}  // namespace folder
