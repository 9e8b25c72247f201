#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/identity/AuditToken.h"

namespace qx {

/// What tells one file from another, whatever names and mounts lead to it.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  friend auto operator<=>(const FileIdentity&, const FileIdentity&) = default;
};
inline FileIdentity identityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

/// The directory of one process below /proc (proc(5)), held open. It never becomes another
/// process's, and every question to it fails once the process is gone.
class ProcessDirectory {
 public:
  struct State {
    char letter = 0;
    pid_t parent = 0;
    std::uint64_t startTime = 0;
    bool isRunning() const { return letter != 'Z' && letter != 'X'; }
  };

  /// User and group numbers as they are seen from here.
  struct Credentials {
    uid_t realUser = 0;
    uid_t effectiveUser = 0;
    uid_t fileSystemUser = 0;
    gid_t effectiveGroup = 0;
    gid_t fileSystemGroup = 0;
    std::vector<gid_t> groups;
    std::uint64_t effectiveCapabilities = 0;
  };

  static std::optional<ProcessDirectory> open(pid_t process);
  /// Opens that of the very process that the token names; absent when it is gone.
  static std::optional<ProcessDirectory> open(const AuditToken& token);

  int descriptor() const { return descriptor_.get(); }

  /// Absent when the process is gone, like everything below.
  std::optional<State> state() const;
  bool isRunning() const;
  std::optional<Credentials> credentials() const;
  /// Returns the effective user, also of a process that has changed it. It is root for a process
  /// that may not be looked at (PR_SET_DUMPABLE, prctl(2)).
  std::optional<uid_t> user() const;
  /// Returns the executable; also absent when this process may not look at that one. A file system
  /// that does not answer holds nobody up.
  std::optional<FileIdentity> executable() const;
  /// Returns the user namespace of the process (namespaces(7)); absent like the executable.
  std::optional<FileIdentity> userNamespace() const;
  std::optional<FileIdentity> mountNamespace() const;
  /// Opens the user namespace.
  FileDescriptor openUserNamespace() const;
  /// Returns whether it is in the user namespace of this process. A process that is not is in a
  /// sandbox, or cannot be identified.
  bool isOutsideOfSandboxes() const;
  /// Reads a whole file.
  std::optional<std::string> read(const char* name) const;

 private:
  explicit ProcessDirectory(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
  std::optional<FileIdentity> namespaceAt(const char* name) const;
  FileDescriptor descriptor_;
};

}  // namespace qx
