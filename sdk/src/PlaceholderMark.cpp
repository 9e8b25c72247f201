// The extended attribute that makes a placeholder of a file.

#include "sdk/src/PlaceholderMark.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "platform/files/InodeMark.h"
#include "platform/identity/PlaceholderMark.h"
#include "platform/identity/ProcessDirectory.h"
#include "sdk/src/AsOwner.h"

namespace docsource::mark {
namespace {

constexpr std::string_view placeholderWord = "placeholder";
constexpr std::string_view providingWord = "providing ";
constexpr std::string_view emptiedWord = "emptied";
/// With it the platform says of an inode that a mark that names none holds for it. Only those who
/// administer the machine can read it, and nobody else set it.
constexpr const char* platformAttribute = "trusted.docsource.placeholder";
constexpr mode_t permissions = 07777;
/// Of one attribute (XATTR_SIZE_MAX).
constexpr std::size_t mostBytes = 65536;

enum class Power { permitted, owner };

std::optional<std::string> valueOf(int file, const char* name, Power power) {
  const auto path = descriptorPath(file);
  std::array<char, 1024> value{};
  const auto get = [&] {
    return static_cast<int>(::getxattr(path.c_str(), name, value.data(), value.size()));
  };
  const int size = power == Power::owner ? asOwner(file, get) : get();
  if (size < 0) return std::nullopt;
  return std::string(value.data(), static_cast<std::size_t>(size));
}

bool set(int file, std::string text, std::optional<mode_t> mode,
         const std::optional<qx::ByteRanges>& parts, int flags = 0) {
  const auto inode = qx::inodeNameOf(file);
  if (!inode) return false;
  text += " " + qx::markWord(*inode);
  if (mode) text.append(" ").append(qx::modeWord(*mode));
  if (parts) text.append(" ").append(qx::partsWord(*parts));
  const auto path = descriptorPath(file);
  return asOwner(file, [&] {
           return ::setxattr(path.c_str(), attribute, text.data(), text.size(), flags);
         }) == 0;
}

Mark readWith(Power power, int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return {};
  const auto value = valueOf(file, attribute, power);
  if (!value) {
    // It may have been hidden since it was looked at.
    const bool isHidden =
        errno == EACCES && ::fstat(file, &status) == 0 && (status.st_mode & permissions) == 0;
    return {isHidden ? PlaceholderState::placeholder : PlaceholderState::present, std::nullopt,
            std::nullopt, isHidden, false};
  }
  const auto inode = qx::inodeNameOf(file);
  if (!inode) return {};
  const auto named = qx::markedInode(*value, *inode);
  if (named == qx::MarkedInode::other) return {};
  if (named == qx::MarkedInode::none && status.st_blocks * 512 >= status.st_size) {
    const auto confirmed = valueOf(file, platformAttribute, Power::permitted);
    if (!confirmed || qx::markedInode(*confirmed, *inode) != qx::MarkedInode::this_) return {};
  }
  return {qx::isBeingFilled(*value) ? PlaceholderState::providing : PlaceholderState::placeholder,
          qx::modeIn(*value), qx::partsThere(*value), false, qx::isEmptied(*value)};
}

}  // namespace

std::string descriptorPath(int file) { return "/proc/self/fd/" + std::to_string(file); }

Mark read(int file) { return readWith(Power::permitted, file); }
Mark readAsOwner(int file) { return readWith(Power::owner, file); }

bool setPlaceholder(int file, std::optional<mode_t> mode,
                    const std::optional<qx::ByteRanges>& parts) {
  return set(file, std::string(placeholderWord), mode, parts);
}

bool setProviding(int file, std::optional<mode_t> mode, const std::optional<qx::ByteRanges>& parts,
                  bool isMarked) {
  const auto self = qx::ProcessDirectory::open(::getpid());
  const auto state = self ? self->state() : std::nullopt;
  return set(file,
             std::string(providingWord) + std::to_string(::getpid()) + " " +
                 std::to_string(state ? state->startTime : 0),
             mode, parts, isMarked ? XATTR_REPLACE : 0);
}

bool setEmptied(int file) {
  return set(file, std::string(emptiedWord), std::nullopt, std::nullopt, XATTR_REPLACE);
}

bool clear(int file) {
  const auto path = descriptorPath(file);
  return asOwner(file, [&] { return ::removexattr(path.c_str(), attribute); }) == 0 ||
         errno == ENODATA;
}

void copyOtherAttributes(int from, int to) {
  const auto source = descriptorPath(from);
  const auto target = descriptorPath(to);
  const ssize_t size = ::listxattr(source.c_str(), nullptr, 0);
  std::string names(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  const ssize_t filled = ::listxattr(source.c_str(), names.data(), names.size());
  names.resize(filled > 0 ? static_cast<std::size_t>(filled) : 0);
  std::string value(names.empty() ? 0 : mostBytes, '\0');
  for (std::size_t at = 0; at < names.size(); at = names.find('\0', at) + 1) {
    const char* name = names.data() + at;
    if (!std::string_view(name).starts_with("user.") || name == std::string_view(attribute)) {
      continue;
    }
    const int length = asOwner(from, [&] {
      return static_cast<int>(::getxattr(source.c_str(), name, value.data(), value.size()));
    });
    if (length < 0) continue;
    ::setxattr(target.c_str(), name, value.data(), static_cast<std::size_t>(length), 0);
  }
}

}  // namespace docsource::mark
