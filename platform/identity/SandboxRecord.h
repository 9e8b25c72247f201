#pragma once

#include <optional>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/identity/FlatpakInstance.h"
#include "platform/identity/ProcessDirectory.h"

/// Who is in a sandbox, and which application that sandbox is.
///
/// A process in another user namespace (user_namespaces(7)) than this one's is in a sandbox. Who
/// makes one for an application records it: the file named after the inode of the user namespace in
/// Places::sandboxRecords(), whose first line is the application's identifier. The processes of
/// that namespace and of all below it are that application, whatever they execute; nothing inside
/// can reach the records, nor leave the namespace. A record counts while its maker lives, which
/// holds a lock on it (flock(2)) and the namespace open, so that the inode is not another
/// namespace's. Flatpak keeps records of its own (FlatpakInstance.h), which are asked where there
/// is none of these.
namespace qx {

/// Of a user namespace, or what it was made in, the one that was made in this process's own; none
/// where there is no such.
FileDescriptor outermostNamespaceAround(FileDescriptor userNamespace);

class SandboxRecord {
 public:
  /// Records a namespace made below this process's one, for as long as this lives, and removes what
  /// makers that were killed have left. The identifier has no line break.
  static Result<SandboxRecord> make(FileDescriptor userNamespace, const std::string& application);

  SandboxRecord(SandboxRecord&&) = default;
  SandboxRecord& operator=(SandboxRecord&&) = delete;
  ~SandboxRecord();

 private:
  SandboxRecord(FileDescriptor userNamespace, FileDescriptor file, std::string path)
      : namespace_(std::move(userNamespace)), file_(std::move(file)), path_(std::move(path)) {}

  FileDescriptor namespace_;
  FileDescriptor file_;
  std::string path_;
};

struct Surroundings {
  bool isSandbox = false;
  /// Absent outside of a sandbox, and in one that is not recorded here.
  std::optional<std::string> application;
  /// Likewise, and not of Flatpak's making.
  std::optional<FlatpakApplication> flatpak;
};
/// As they are now, asked with a few system calls; absent when that cannot be told, or the process
/// is gone. Any thread.
std::optional<Surroundings> surroundingsOf(const ProcessDirectory& process);

}  // namespace qx
