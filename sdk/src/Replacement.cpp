// Two files change places.

#include "sdk/src/Replacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "docsource/placeholder.h"
#include "platform/base/UUID.h"
#include "platform/base/Value.h"
#include "sdk/src/PlaceholderMark.h"

namespace docsource {

Result<Replacement> Replacement::beginFor(int old) {
  Replacement made;
  std::string path(4096, '\0');
  const ssize_t size = ::readlink(mark::descriptorPath(old).c_str(), path.data(), path.size());
  if (size < 0 || ::fstat(old, &made.old_) != 0) return Error::posix(errno, "The document's name");
  path.resize(static_cast<std::size_t>(size));
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return Error::posix(ENOENT, "The document's name");
  made.path_ = path;
  made.name_ = path.substr(slash + 1);
  made.directory_ =
      Descriptor(::open(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!made.directory_) return made.error(errno);
  struct stat named {};
  const bool isNamed =
      ::fstatat(made.directory_.get(), made.name_.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0;
  if (!isNamed || named.st_ino != made.old_.st_ino || named.st_dev != made.old_.st_dev) {
    return made.error(isNamed ? ESTALE : errno);
  }
  made.file_ =
      Descriptor(::openat(made.directory_.get(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
  if (!made.file_) return made.error(errno);
  return made;
}

Replacement::~Replacement() {
  struct stat own {};
  if (!side_.empty() && ::fstat(file_.get(), &own) == 0 && isSide(own)) {
    ::unlinkat(directory_.get(), side_.c_str(), 0);
  }
}

Error Replacement::error(int errnum) const { return Error::file(errnum, path_); }

bool Replacement::isSide(const struct stat& expected) const {
  struct stat found {};
  return ::fstatat(directory_.get(), side_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
         found.st_ino == expected.st_ino && found.st_dev == expected.st_dev;
}

Result<void> Replacement::exchange() {
  side_ = std::string(Placeholder::sideName) + qx::describe(qx::UUID::random());
  if (::linkat(AT_FDCWD, mark::descriptorPath(file_.get()).c_str(), directory_.get(), side_.c_str(),
               AT_SYMLINK_FOLLOW) != 0) {
    side_.clear();
    return error(errno);
  }
  if (::renameat2(directory_.get(), side_.c_str(), directory_.get(), name_.c_str(),
                  RENAME_EXCHANGE) != 0) {
    return error(errno);
  }
  if (isSide(old_)) return {};
  if (auto given = giveBack(); !given) return given;
  return error(ESTALE);
}

Result<void> Replacement::undo() { return giveBack(); }

/// What is beside the new file returns to the path. Should a program have replaced the new file in
/// this moment, its file has the path, and the other one a name that can be seen.
Result<void> Replacement::giveBack() {
  const auto swap = [this] {
    return ::renameat2(directory_.get(), side_.c_str(), directory_.get(), name_.c_str(),
                       RENAME_EXCHANGE) == 0;
  };
  if (!swap()) {
    // The path has no file any more; the old one is needed nowhere else.
    return ::renameat2(directory_.get(), side_.c_str(), directory_.get(), name_.c_str(),
                       RENAME_NOREPLACE) == 0
               ? Result<void>()
               : error(errno);
  }
  struct stat own {};
  if (::fstat(file_.get(), &own) == 0 && isSide(own)) return settle();
  const auto seen = name_ + side_;
  if (!swap() || ::renameat2(directory_.get(), side_.c_str(), directory_.get(), seen.c_str(),
                             RENAME_NOREPLACE) != 0) {
    return error(errno);
  }
  return {};
}

Result<void> Replacement::settle() {
  if (::unlinkat(directory_.get(), side_.c_str(), 0) != 0) return error(errno);
  side_.clear();
  return {};
}

}  // namespace docsource
