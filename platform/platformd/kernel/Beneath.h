#pragma once

#include <sys/stat.h>

#include <array>
#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/FileDescriptor.h"

/// The ways in which this service reaches a user's file. Each of them ends in a descriptor, and
/// none follows a link. Whoever changes names meanwhile changes which file is found, but the file
/// is always one below the directory in which the search began. Whatever is done to a file is done
/// to such a descriptor, after its owner was checked. There is no state; any thread may call these;
/// they block on the file system and set errno when they fail.
namespace qx::kernel {

/// Opens a directory by an absolute path without links (openat2(2), RESOLVE_NO_SYMLINKS).
FileDescriptor openDirectoryStrictly(const std::string& path);

/// Does the same for a service that works for several users: no step of the path leads into a file
/// system that a program serves (EOPNOTSUPP), so that no user's program can keep the service
/// waiting. A service for one user goes wherever that user goes.
FileDescriptor openDirectoryPromptly(const std::string& path);

/// Returns whether a program serves the file system of an open file (fuse(4)), without asking that
/// program. What cannot be found out counts as served.
bool isServedByProgram(int file);

/// Opens what lies below an open directory, on the same mount and without a link anywhere, the last
/// name included (openat2(2), RESOLVE_BENEATH, RESOLVE_NO_XDEV, RESOLVE_NO_SYMLINKS).
FileDescriptor openBeneath(int directory, const std::string& path, int flags);

/// Opens the same inode once more, for reading or writing. The descriptor may be of any kind, but
/// must be known to be of a regular file or directory.
FileDescriptor reopen(int file, int flags);

/// The name under /proc by which this process reaches what a descriptor of any kind leads to.
std::string procPath(int file);

/// The path where it lies now, as seen from here (proc_pid_fd(5)); absent when it has no name any
/// more.
std::optional<std::string> pathOf(int file);

/// Visits each entry of an open directory except "." and "..".
void eachEntry(int directory, const std::function<void(const char* name)>& visit);

bool isBelow(std::string_view path, std::string_view directory);

/// A name for a file that outlives every rename, and this process (name_to_handle_at(2)). It is
/// good only on its own file system. Opening by it takes CAP_DAC_READ_SEARCH.
struct FileHandle {
  using FileSystem = std::array<char, 8>;  // f_fsid, statfs(2)

  FileSystem fileSystem{};
  int type = 0;
  std::string bytes;

  /// Absent where the file system has none.
  static std::optional<FileHandle> of(int file);
  /// Opens the file; `mount` is open for reading, on that file system.
  FileDescriptor open(int mount, int flags) const;

  /// As text without spaces, and from such text.
  std::string text() const;
  static std::optional<FileHandle> parse(std::string_view text);

  friend auto operator<=>(const FileHandle&, const FileHandle&) = default;
};

/// Absent when it cannot be asked.
std::optional<FileHandle::FileSystem> fileSystemOf(int file);

}  // namespace qx::kernel
