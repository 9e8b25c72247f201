// Descriptors of files below a directory.

#include "platform/platformd/kernel/Beneath.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include "platform/base/Text.h"

namespace qx::kernel {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

FileDescriptor open2(int directory, const char* path, int flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = resolve;
  long descriptor = -1;
  do {
    descriptor = syscall(SYS_openat2, directory, path, &how, sizeof how);
  } while (descriptor < 0 && errno == EINTR);
  return FileDescriptor(static_cast<int>(descriptor));
}

/// How often a path is followed anew on which something is renamed meanwhile (EAGAIN).
constexpr int attempts = 16;

template <class Open>
FileDescriptor persistently(Open open) {
  FileDescriptor found;
  for (int attempt = 0; attempt < attempts && !found; ++attempt) {
    found = open();
    if (!found && errno != EAGAIN) break;
  }
  return found;
}

}  // namespace

FileDescriptor openDirectoryStrictly(const std::string& path) {
  return persistently([&] {
    return open2(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK,
                 RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS);
  });
}

FileDescriptor openBeneath(int directory, const std::string& path, int flags) {
  return persistently([&] {
    return open2(directory, path.c_str(), flags | O_NOFOLLOW,
                 RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS);
  });
}

std::string procPath(int file) { return "/proc/self/fd/" + std::to_string(file); }

FileDescriptor reopen(int file, int flags) {
  return FileDescriptor(open(procPath(file).c_str(), flags | O_CLOEXEC | O_NONBLOCK));
}

std::optional<std::string> pathOf(int file) {
  std::array<char, PATH_MAX + 16> link{};
  const ssize_t size = readlink(procPath(file).c_str(), link.data(), link.size());
  if (size <= 0 || link[0] != '/') return std::nullopt;
  return std::string(link.data(), static_cast<std::size_t>(size));
}

void eachEntry(int directory, const std::function<void(const char* name)>& visit) {
  FileDescriptor copy(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseDirectory> entries(copy ? fdopendir(copy.get()) : nullptr);
  if (!entries) return;
  copy.release();
  while (const dirent* entry = readdir(entries.get())) {
    const std::string_view name(entry->d_name);
    if (name != "." && name != "..") visit(entry->d_name);
  }
}

bool isBelow(std::string_view path, std::string_view directory) {
  if (directory == "/") return path.size() > 1 && path.front() == '/';
  return path.size() > directory.size() && path.starts_with(directory) &&
         path[directory.size()] == '/';
}

std::optional<FileHandle::FileSystem> fileSystemOf(int file) {
  struct statfs status;
  if (fstatfs(file, &status) != 0) return std::nullopt;
  FileHandle::FileSystem name;
  static_assert(sizeof status.f_fsid == sizeof name);
  std::memcpy(name.data(), &status.f_fsid, name.size());
  return name;
}

std::optional<FileHandle> FileHandle::of(int file) {
  alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> room{};
  auto* handle = reinterpret_cast<file_handle*>(room.data());
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = 0;
  const auto fileSystem = fileSystemOf(file);
  if (!fileSystem || name_to_handle_at(file, "", handle, &mount, AT_EMPTY_PATH) != 0) {
    return std::nullopt;
  }
  return FileHandle{*fileSystem, handle->handle_type,
                    std::string(room.data() + sizeof(file_handle), handle->handle_bytes)};
}

FileDescriptor FileHandle::open(int mount, int flags) const {
  alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> room{};
  if (bytes.size() > MAX_HANDLE_SZ) {
    errno = EINVAL;
    return {};
  }
  auto* handle = reinterpret_cast<file_handle*>(room.data());
  handle->handle_bytes = static_cast<unsigned>(bytes.size());
  handle->handle_type = type;
  std::memcpy(room.data() + sizeof(file_handle), bytes.data(), bytes.size());
  return FileDescriptor(open_by_handle_at(mount, handle, flags | O_CLOEXEC));
}

std::string FileHandle::text() const {
  const auto hex = [](std::string_view binary) {
    return hexEncode({reinterpret_cast<const std::uint8_t*>(binary.data()), binary.size()});
  };
  return hex({fileSystem.data(), fileSystem.size()}) + ":" + std::to_string(type) + ":" +
         hex(bytes);
}

std::optional<FileHandle> FileHandle::parse(std::string_view text) {
  const auto first = text.find(':');
  const auto second = first == text.npos ? text.npos : text.find(':', first + 1);
  if (second == text.npos) return std::nullopt;
  const auto fileSystem = hexDecode(text.substr(0, first));
  const auto bytes = hexDecode(text.substr(second + 1));
  const auto number = text.substr(first + 1, second - first - 1);
  FileHandle handle;
  const auto parsed = std::from_chars(number.data(), number.data() + number.size(), handle.type);
  if (!fileSystem || fileSystem->size() != handle.fileSystem.size() || !bytes ||
      bytes->size() > MAX_HANDLE_SZ || parsed.ec != std::errc() ||
      parsed.ptr != number.data() + number.size()) {
    return std::nullopt;
  }
  std::memcpy(handle.fileSystem.data(), fileSystem->data(), handle.fileSystem.size());
  handle.bytes.assign(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  return handle;
}

}  // namespace qx::kernel
