#include "platform/platformd/kernel/ReadCall.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

namespace qx::kernel {
namespace {

/// Which argument of a call that reads is the file, counted from 0; absent for all other calls. The
/// numbers that programs of 32 bits use for these mean nothing to them that reads or maps.
std::optional<int> fileArgument(long call) {
  switch (call) {
    case SYS_read:
    case SYS_pread64:
    case SYS_readv:
    case SYS_preadv:
    case SYS_preadv2:
    case SYS_splice:
    case SYS_copy_file_range:
      return 0;
    case SYS_sendfile:
      return 1;
    default:
      return std::nullopt;
  }
}

bool isOpenForReadingOnly(const ProcessDirectory& process, const std::string& descriptor) {
  const auto info = process.read(("fdinfo/" + descriptor).c_str());
  const auto at = info ? info->find("flags:") : std::string::npos;
  return at != std::string::npos &&
         (std::strtol(info->c_str() + at + 6, nullptr, 8) & O_ACCMODE) == O_RDONLY;
}

}  // namespace

ReadCall readCallOf(pid_t thread, const FileIdentity& file) {
  const auto process = ProcessDirectory::open(thread);
  const auto call = process ? process->read("syscall") : std::nullopt;
  if (!call) return ReadCall::no;
  if (call->starts_with("running")) return ReadCall::unknown;
  char* rest = nullptr;
  const auto argument = fileArgument(std::strtol(call->c_str(), &rest, 10));
  if (!argument) return ReadCall::no;
  unsigned long long descriptor = 0;
  for (int at = 0; at <= *argument; ++at) descriptor = std::strtoull(rest, &rest, 16);

  const std::unique_ptr<DIR, int (*)(DIR*)> all(
      fdopendir(openat(process->descriptor(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      &closedir);
  if (!all) return ReadCall::no;
  bool isFound = false;
  while (const dirent* entry = readdir(all.get())) {
    if (entry->d_name[0] == '.') continue;
    // Without asking a server, which may not answer.
    struct statx status {};
    if (statx(dirfd(all.get()), entry->d_name, AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) {
      continue;
    }
    const FileIdentity identity{makedev(status.stx_dev_major, status.stx_dev_minor),
                                status.stx_ino};
    if (identity != file) continue;
    if (!isOpenForReadingOnly(*process, entry->d_name)) return ReadCall::no;
    isFound = isFound || std::strtoull(entry->d_name, nullptr, 10) == descriptor;
  }
  return isFound ? ReadCall::yes : ReadCall::no;
}

}  // namespace qx::kernel
