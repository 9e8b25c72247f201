// Descriptors of files below a directory.

#include "platform/platformd/kernel/Beneath.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

#include "platform/base/Text.h"
#include "platform/files/Places.h"

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

/// STATX_MNT_ID_UNIQUE of later headers (Linux 6.8).
constexpr unsigned uniqueMountName = 0x4000;
constexpr std::size_t mostMounts = 4096;

/// The mount that an open file is on, named in one of the two ways (statx(2)); absent where the
/// kernel does not know that one. The file system is not asked anything.
std::optional<std::uint64_t> mountOf(int file, unsigned kind) {
  struct statx status {};
  if (statx(file, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, kind, &status) != 0 ||
      (status.stx_mask & kind) == 0) {
    return std::nullopt;
  }
  return status.stx_mnt_id;
}

/// By the list of mounts (proc_pid_mountinfo(5)).
bool isOfProgram(std::uint64_t mount) {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    if (!line.starts_with(std::to_string(mount) + " ")) continue;
    const auto type = line.find(" - ");
    return type == std::string::npos || line.compare(type + 3, 4, "fuse") == 0;
  }
  return true;
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

bool isServedByProgram(int file) {
  // Mounts of which it is known, by the names that the kernel never uses again.
  static auto& known = *new std::map<std::uint64_t, bool>;
  static auto& mutex = *new std::mutex;
  const auto unique = mountOf(file, uniqueMountName);
  if (unique) {
    const std::lock_guard lock(mutex);
    if (const auto found = known.find(*unique); found != known.end()) return found->second;
  }
  const auto number = mountOf(file, STATX_MNT_ID);
  const bool isServed = !number || isOfProgram(*number);
  if (unique) {
    const std::lock_guard lock(mutex);
    if (known.size() >= mostMounts) known.clear();
    known[*unique] = isServed;
  }
  return isServed;
}

FileDescriptor openDirectoryPromptly(const std::string& path) {
  if (!Places::servesMachine()) return openDirectoryStrictly(path);
  FileDescriptor directory(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (std::size_t at = 1; directory && at < path.size();) {
    const auto end = std::min(path.find('/', at), path.size());
    const std::string name = path.substr(at, end - at);
    at = end + 1;
    if (name.empty()) continue;
    // The first directory of a mount is found in the file system above it, which is none of a
    // program's.
    directory = persistently([&] {
      return open2(directory.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW,
                   RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS);
    });
    if (directory && isServedByProgram(directory.get())) {
      directory.reset();
      errno = EOPNOTSUPP;
    }
  }
  if (!directory) return {};
  return FileDescriptor(
      openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
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
