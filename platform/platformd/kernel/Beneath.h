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

/// The ways in which this service comes to a user's file. Every one of them ends in a descriptor,
/// and none follows a link: whoever changes names meanwhile changes which file is found, never that
/// it is one below the directory from which it was looked for. What is done to a file is done to
/// such a descriptor, after it was seen whose it is. Stateless; any thread; blocks on the file
/// system. What fails sets errno.
namespace qx::kernel {

/// A directory, by an absolute path without links (openat2(2), RESOLVE_NO_SYMLINKS).
FileDescriptor openDirectoryStrictly(const std::string& path);

/// The same for a service that works for several users: no step of the path leads into a file
/// system that a program serves (EOPNOTSUPP), so that no user's program can keep the service
/// waiting. A service for one user goes wherever that user goes.
FileDescriptor openDirectoryPromptly(const std::string& path);

/// Whether a program serves the file system of an open file (fuse(4)); found out without asking
/// that program. What cannot be found out counts as served.
bool isServedByProgram(int file);

/// What lies below an open directory, on the same mount and without a link anywhere, the last name
/// included (openat2(2), RESOLVE_BENEATH, RESOLVE_NO_XDEV, RESOLVE_NO_SYMLINKS).
FileDescriptor openBeneath(int directory, const std::string& path, int flags);

/// The same inode once more, opened in earnest; for a descriptor of any kind that is known to be of
/// a regular file or directory.
FileDescriptor reopen(int file, int flags);

/// The name by which the process finds what a descriptor leads to; of any kind.
std::string procPath(int file);

/// Where it lies now, as seen from here (proc_pid_fd(5)); absent when it has no name any more.
std::optional<std::string> pathOf(int file);

/// Tells of each entry of an open directory but the two that every one has.
void eachEntry(int directory, const std::function<void(const char* name)>& visit);

bool isBelow(std::string_view path, std::string_view directory);

/// A name for a file that outlasts every rename, and this process (name_to_handle_at(2)). It is
/// good on its own file system only. Opening by it takes CAP_DAC_READ_SEARCH.
struct FileHandle {
  using FileSystem = std::array<char, 8>;  // f_fsid, statfs(2)

  FileSystem fileSystem{};
  int type = 0;
  std::string bytes;

  /// Absent where the file system has none.
  static std::optional<FileHandle> of(int file);
  /// `mount` is open for reading, on that file system.
  FileDescriptor open(int mount, int flags) const;

  /// As text without spaces, and back.
  std::string text() const;
  static std::optional<FileHandle> parse(std::string_view text);

  friend auto operator<=>(const FileHandle&, const FileHandle&) = default;
};

/// Absent when it cannot be asked.
std::optional<FileHandle::FileSystem> fileSystemOf(int file);

}  // namespace qx::kernel
