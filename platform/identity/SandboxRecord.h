#pragma once

#include <optional>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/identity/FlatpakInstance.h"
#include "platform/identity/ProcessDirectory.h"

/// Records which application a sandbox is.
///
/// A process in another user namespace (user_namespaces(7)) than this one's is in a sandbox.
/// Whoever makes one for an application records it in the file in Places::sandboxRecords() that is
/// named after the inode of the user namespace. Its first line is the application's identifier. The
/// processes of that namespace and of all below it are that application, whatever they execute;
/// nothing inside can reach the records, nor leave the namespace. A record counts while its maker
/// lives, which holds a lock on it (flock(2)) and keeps the namespace open, so that no other
/// namespace gets the inode. Flatpak keeps records of its own (FlatpakInstance.h), which are
/// consulted when there is none of these.
namespace qx {

/// Returns the namespace, among a user namespace and those around it, that was made directly in
/// this process's own; none where there is no such namespace.
FileDescriptor outermostNamespaceAround(FileDescriptor userNamespace);

class SandboxRecord {
 public:
  /// Records a namespace that was made below this process's one, for as long as this object lives,
  /// and removes what makers that were killed have left. The identifier has no line break.
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
  /// The application; absent outside of a sandbox, and in one that is not recorded here.
  std::optional<std::string> application;
  /// The Flatpak application; absent likewise, and in a sandbox that Flatpak did not make.
  std::optional<FlatpakApplication> flatpak;
};
/// Returns the present surroundings, with a few system calls; absent when they cannot be told, or
/// the process is gone. Any thread may call it.
std::optional<Surroundings> surroundingsOf(const ProcessDirectory& process);

}  // namespace qx
