// The signs of a placeholder.

#include "platform/platformd/kernel/Placeholder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string_view>
#include <tuple>

#include "platform/base/FileDescriptor.h"
#include "platform/files/InodeMark.h"
#include "platform/identity/PlaceholderMark.h"
#include "platform/platformd/kernel/Beneath.h"

namespace qx::kernel::Placeholder {
namespace {

constexpr const char* placeholderAttribute = "user.docsource.placeholder";
constexpr const char* vouchedAttribute = "trusted.docsource.placeholder";
constexpr const char* modeAttribute = "trusted.docsource.mode";
constexpr off_t blockUnit = 512;
/// Files that occupy no less than their size, in whole units, do not look as if they had holes.
constexpr off_t smallestSkipped = blockUnit;
/// What a file occupies holds its attributes too, and while it is written out some blocks twice: it
/// says little of a file of so many blocks.
constexpr off_t blocksInDoubt = 16;
constexpr mode_t permissions = 07777;

std::optional<std::string> attribute(int file, const char* name) {
  std::array<char, 1024> value{};
  const ssize_t size = getxattr(procPath(file).c_str(), name, value.data(), value.size());
  // One that is longer is a mark as well, which names no inode.
  if (size < 0) return errno == ERANGE ? std::optional<std::string>("") : std::nullopt;
  return std::string(value.data(), static_cast<std::size_t>(size));
}

bool setAttribute(int file, const char* name, const std::string& value) {
  return setxattr(procPath(file).c_str(), name, value.data(), value.size(), 0) == 0;
}

void removeAttribute(int file, const char* name) { removexattr(procPath(file).c_str(), name); }

MarkedInode inodeIn(const std::string& mark, int file) {
  const auto inode = inodeNameOf(file);
  return inode ? markedInode(mark, *inode) : MarkedInode::none;
}

/// An attribute of the service's own that is about this file, and was not copied to it.
std::optional<std::string> ownAttribute(int file, const char* name) {
  auto value = attribute(file, name);
  if (value && inodeIn(*value, file) == MarkedInode::this_) return value;
  return std::nullopt;
}

bool namesNoInode(int file) {
  const auto mark = attribute(file, placeholderAttribute);
  return mark && inodeIn(*mark, file) == MarkedInode::none;
}

}  // namespace

bool isOne(int file, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return false;
  const auto mark = attribute(file, placeholderAttribute);
  if (!mark) return false;
  const auto marked = inodeIn(*mark, file);
  if (marked != MarkedInode::none) return marked == MarkedInode::this_;
  return status.st_blocks * blockUnit < status.st_size || ownAttribute(file, vouchedAttribute);
}

bool isBeingFilled(int file) {
  const auto mark = ownAttribute(file, placeholderAttribute);
  return mark && qx::isBeingFilled(*mark);
}

std::optional<ByteRanges> partsThere(int file) {
  const auto mark = attribute(file, placeholderAttribute);
  if (!mark || inodeIn(*mark, file) != MarkedInode::this_) return std::nullopt;
  auto parts = qx::partsThere(*mark);
  return parts && qx::isBeingFilled(*mark) ? parts : std::nullopt;
}

void vouch(int file) {
  const auto inode = namesNoInode(file) ? inodeNameOf(file) : std::nullopt;
  if (inode) setAttribute(file, vouchedAttribute, markWord(*inode));
}

void stopVouching(int file) { removeAttribute(file, vouchedAttribute); }

void unmark(int file) {
  removeAttribute(file, placeholderAttribute);
  removeAttribute(file, vouchedAttribute);
}

bool empty(int path) {
  struct stat status;
  if (fstat(path, &status) != 0 || status.st_size != 0) {
    const FileDescriptor file = reopen(path, O_WRONLY);
    if (!file || ftruncate(file.get(), 0) != 0) return false;
  }
  unmark(path);
  return true;
}

bool emptyIfAsked(int file) {
  const auto mark = ownAttribute(file, placeholderAttribute);
  return mark && isEmptied(*mark) && empty(file);
}

bool anchor(int path, const struct stat& status) {
  if (status.st_size < smallestSkipped) return true;
  const FileDescriptor file = reopen(path, O_RDWR | O_NOATIME);
  struct timespec begin;
  struct stat now;
  if (!file || clock_gettime(CLOCK_REALTIME_COARSE, &begin) != 0 || fstat(file.get(), &now) != 0) {
    return false;
  }
  if (now.st_size < 1) return true;
  if (now.st_size <= blocksInDoubt * now.st_blksize) vouch(file.get());
  if (lseek(file.get(), 0, SEEK_DATA) == 0) return true;
  // Written to in memory, without changing it: what the provider puts there is never overwritten.
  void* page = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (page == MAP_FAILED) return false;
  __atomic_fetch_or(static_cast<unsigned char*>(page), 0, __ATOMIC_SEQ_CST);
  munmap(page, 1);
  // Not over the time that its provider has set meanwhile.
  struct stat after;
  const bool isOurs =
      fstat(file.get(), &after) == 0 && std::tie(after.st_mtim.tv_sec, after.st_mtim.tv_nsec) >=
                                            std::tie(begin.tv_sec, begin.tv_nsec);
  const timespec times[2] = {{0, UTIME_OMIT}, now.st_mtim};
  if (isOurs) futimens(file.get(), times);
  return true;
}

// Neither of the two opens the file: that would be told of, perhaps with nobody left to answer.

bool conceal(int file, const struct stat& status) {
  const auto inode = inodeNameOf(file);
  if (!inode) return false;
  // One that has no permissions already keeps what is remembered of it, here or in its mark.
  if ((status.st_mode & permissions) == 0) return true;
  std::array<char, 64> mode{};
  std::snprintf(mode.data(), mode.size(), " mode:%o owner:%u", status.st_mode & permissions,
                status.st_uid);
  return setAttribute(file, modeAttribute, markWord(*inode) + mode.data()) &&
         chmod(procPath(file).c_str(), 0) == 0;
}

void reveal(int file, const struct stat& status) {
  const auto remembered = ownAttribute(file, modeAttribute);
  if (!remembered) return;
  const auto at = remembered->find(" mode:");
  unsigned mode = 0;
  unsigned owner = 0;
  if (at == std::string::npos ||
      std::sscanf(remembered->c_str() + at, " mode:%o owner:%u", &mode, &owner) != 2) {
    return;
  }
  // Somebody who gave it permissions meanwhile meant them.
  const bool isUntouched = (status.st_mode & permissions) == 0 && status.st_uid == owner;
  if (isUntouched && chmod(procPath(file).c_str(), mode & permissions) != 0) return;
  removeAttribute(file, modeAttribute);
}

bool isHidden(int file, const struct stat& status) {
  if ((status.st_mode & permissions) != 0) return false;
  const auto mark = ownAttribute(file, placeholderAttribute);
  return mark && modeIn(*mark);
}

void revealHidden(int file, const struct stat& status) {
  if ((status.st_mode & permissions) != 0) return;
  const auto mark = ownAttribute(file, placeholderAttribute);
  const auto mode = mark ? modeIn(*mark) : std::nullopt;
  if (!mode || chmod(procPath(file).c_str(), *mode & 0777U) != 0) return;
  // What it says holds for files without permissions: those it has now are the user's to change. A
  // mark that its provider has taken off meanwhile does not come back.
  const auto left = withoutMode(*mark);
  setxattr(procPath(file).c_str(), placeholderAttribute, left.data(), left.size(), XATTR_REPLACE);
}

}  // namespace qx::kernel::Placeholder
