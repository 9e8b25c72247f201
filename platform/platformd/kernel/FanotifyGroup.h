#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/ByteRanges.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/platformd/kernel/Beneath.h"

namespace qx::kernel {

/// An access to the content of a file, before it happens (fanotify(7), since Linux 6.14). The
/// headers of older C libraries do not have it.
inline constexpr std::uint64_t preAccess = 0x00100000;
/// The opening of a file, for kernels and file systems that have nothing better.
inline constexpr std::uint64_t openPermission = 0x00010000;

/// A program that waits for permission to access a file.
struct AccessEvent {
  /// The file, opened by the kernel for this event; using it causes no event. Its number names the
  /// event in the process that read it, so it stays open until the event is answered.
  FileDescriptor file;
  /// The thread that waits, and its process.
  pid_t thread = 0;
  pid_t process = 0;
  std::uint64_t mask = 0;
  /// Which bytes it wants, in whole pages. Absent where the kernel does not tell. For a mapping it
  /// says little, since a program may extend one without asking (mremap(2)).
  std::optional<ByteRange> range;
};

/// A group that is asked before content is accessed (FAN_CLASS_PRE_CONTENT). While it has a
/// descriptor anywhere, programs wait for its answers; when the last one closes, the kernel lets
/// them all through. Marks belong to inodes, so neither mounts nor other names lead around them.
/// Any thread may use it; the descriptor is non-blocking.
class AccessGroup {
 public:
  /// Makes a group; EPERM without CAP_SYS_ADMIN.
  ///
  /// To report an event the kernel opens the file. `waitsForLeases` decides what happens when
  /// somebody holds a lease on it (fcntl(2), F_SETLEASE): either the kernel waits for the lease,
  /// and everybody else with it, or the program that accesses the file fails with EPERM.
  static Result<AccessGroup> create(bool waitsForLeases = false);
  explicit AccessGroup(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  int descriptor() const { return descriptor_.get(); }

  /// Returns the events that have come, without waiting.
  std::vector<AccessEvent> read() const;

  /// Answers the event whose descriptor has this number in the process that read it. 0 allows;
  /// otherwise the program's call fails with the errno (EPERM, EIO, EBUSY, ETXTBSY, EAGAIN, ENOSPC
  /// or EDQUOT; an old kernel makes all others EPERM). Returns false when nobody waits any more.
  bool answer(int number, int errnum) const;

  /// Returns whether the kernel, and the directory's file system, report accesses (preAccess).
  bool knowsAccess(const std::string& directory) const;

  /// Each returns an errno, or 0, and takes a descriptor of any kind. The mark belongs to the
  /// inode.
  int watchDirectory(int directory, std::uint64_t mask) const;
  int watchFile(int file, std::uint64_t mask) const;
  /// As watchFile(), but the mark is forgotten when the kernel forgets the inode. One that the file
  /// has for good stays so.
  int watchFileInMemory(int file, std::uint64_t mask) const;
  int unwatchFile(int file, std::uint64_t mask) const;
  /// Reports no more events for the file until its content changes. The mark is forgotten when the
  /// kernel forgets the inode.
  int ignoreFile(int file, std::uint64_t mask) const;
  int stopIgnoring(int file, std::uint64_t mask) const;

 private:
  FileDescriptor descriptor_;
};

/// Something that happened in a directory.
struct ChangeEvent {
  std::uint64_t mask = 0;
  pid_t process = 0;
  /// Absent when events were lost.
  std::optional<FileHandle> directory;
  std::string name;
  /// What the entry is, or was.
  std::optional<FileHandle> target;
};

/// A group that is told afterwards: of entries that come and go, content that changes, and files
/// that are closed after writing (FAN_REPORT_DFID_NAME_TARGET, since Linux 5.17).
class ChangeGroup {
 public:
  static Result<ChangeGroup> create();
  explicit ChangeGroup(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  int descriptor() const { return descriptor_.get(); }
  /// Reads everything, or a few hundred events.
  std::vector<ChangeEvent> read(bool all) const;
  int watchDirectory(int directory) const;
  /// Has it told when a file gets a name, new or moved, anywhere on the file system of that file.
  int watchNames(int file) const;

 private:
  FileDescriptor descriptor_;
};

}  // namespace qx::kernel
