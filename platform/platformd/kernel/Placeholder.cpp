// The signs of a placeholder.

#include "platform/platformd/kernel/Placeholder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/base/FileDescriptor.h"

namespace qx::kernel::Placeholder {
namespace {

constexpr const char* placeholderAttribute = "user.docsource.placeholder";
constexpr const char* providedAttribute = "user.docsource.provided";
constexpr const char* localAttribute = "user.docsource.local";
constexpr const char* modeAttribute = "user.docsource.concealed-mode";
constexpr const char* ours = "sparse";
constexpr off_t blockUnit = 512;
/// Files that occupy no less than their size, in whole units, do not look as if they had holes.
constexpr off_t smallestSkipped = blockUnit;

template <class HasAttribute>
State stateOf(const struct stat& status, HasAttribute has) {
  if (!S_ISREG(status.st_mode)) return State::content;
  if (has(placeholderAttribute)) return State::markedPlaceholder;
  if (status.st_blocks * blockUnit >= status.st_size) return State::content;
  return has(providedAttribute) || has(localAttribute) ? State::content : State::placeholder;
}

}  // namespace

State ofFile(int file, const struct stat& status) {
  return stateOf(status, [&](const char* name) { return fgetxattr(file, name, nullptr, 0) >= 0; });
}

State ofPath(const std::string& path, const struct stat& status) {
  return stateOf(status,
                 [&](const char* name) { return lgetxattr(path.c_str(), name, nullptr, 0) >= 0; });
}

void anchor(const std::string& path, const struct stat& status) {
  if (status.st_size < smallestSkipped) return;
  // Not for ever where the provider has it to itself (fcntl(2), F_SETLEASE).
  const FileDescriptor file(
      open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOATIME));
  if (!file || lseek(file.get(), 0, SEEK_DATA) == 0) return;
  struct stat now;
  if (fstat(file.get(), &now) != 0 || now.st_ino != status.st_ino || now.st_size < 1) return;
  if (now.st_size <= now.st_blksize &&
      fgetxattr(file.get(), placeholderAttribute, nullptr, 0) < 0 &&
      fsetxattr(file.get(), placeholderAttribute, ours, std::strlen(ours), XATTR_CREATE) != 0) {
    return;
  }
  // Written to in memory, without changing it: what the provider puts there is never overwritten.
  void* page = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (page == MAP_FAILED) return;
  __atomic_fetch_or(static_cast<unsigned char*>(page), 0, __ATOMIC_SEQ_CST);
  munmap(page, 1);
  const timespec times[2] = {{0, UTIME_OMIT}, now.st_mtim};
  futimens(file.get(), times);
}

void unmarkOurs(const std::string& path) {
  std::array<char, 16> value{};
  const ssize_t size = lgetxattr(path.c_str(), placeholderAttribute, value.data(), value.size());
  if (size > 0 && std::string_view(value.data(), static_cast<std::size_t>(size)) == ours) {
    unmark(path);
  }
}

void setLocal(const std::string& path, bool isLocal) {
  if (isLocal) {
    lsetxattr(path.c_str(), localAttribute, "1", 1, 0);
  } else {
    lremovexattr(path.c_str(), localAttribute);
  }
}

void unmark(const std::string& path) { lremovexattr(path.c_str(), placeholderAttribute); }

bool conceal(const std::string& path, const struct stat& status) {
  const std::string mode = std::to_string(status.st_mode & 07777U);
  // One that has no permissions already keeps what is remembered of it.
  if (lsetxattr(path.c_str(), modeAttribute, mode.data(), mode.size(), XATTR_CREATE) != 0 &&
      (status.st_mode & 07777U) != 0) {
    return false;
  }
  return chmod(path.c_str(), 0) == 0;
}

void reveal(const std::string& path, const struct stat& status) {
  std::array<char, 16> text{};
  if (lgetxattr(path.c_str(), modeAttribute, text.data(), text.size() - 1) <= 0) return;
  // Somebody who gave it permissions meanwhile meant them.
  const auto mode = static_cast<mode_t>(std::strtoul(text.data(), nullptr, 10)) & 07777U;
  if ((status.st_mode & 07777U) == 0 && chmod(path.c_str(), mode) != 0) return;
  lremovexattr(path.c_str(), modeAttribute);
}

}  // namespace qx::kernel::Placeholder
