// The key of the sandbox extensions.

#include "platform/sandbox/SandboxKey.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/UUID.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx {
namespace {

bool mayOwnKey(uid_t user) {
  if (user == geteuid()) return true;
  struct stat directory;
  return geteuid() == 0 && stat(Places::runtimeDirectory().c_str(), &directory) == 0 &&
         directory.st_uid == user;
}

/// Writes a new key under a name of its own and gives it the real name, if that is still free.
std::optional<Error> makeKey() {
  const auto path = Places::sandboxKey();
  const auto side = path + "." + UUID::random().text();
  FileDescriptor file(open(side.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) return posixError(errno, "making " + side);
  SandboxKey key;
  randombytes_buf(key.data(), key.size());
  ssize_t written = write(file.get(), key.data(), key.size());
  sodium_memzero(key.data(), key.size());
  std::optional<Error> failure;
  if (written != static_cast<ssize_t>(key.size())) {
    failure = posixError(written < 0 ? errno : ENOSPC, "writing " + side);
  } else if (link(side.c_str(), path.c_str()) != 0 && errno != EEXIST) {
    failure = posixError(errno, "making " + path);
  }
  unlink(side.c_str());
  return failure;
}

}  // namespace

std::optional<SandboxKey> readSandboxKey() {
  const auto path = Places::sandboxKey();
  auto refused = [&](std::string_view why) {
    DS_LOG("[ERROR] Refusing the sandbox key %@: %@", path, why);
    return std::nullopt;
  };
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return std::nullopt;
  if (!file) return refused(posixError(errno, "open").text());
  struct stat status;
  if (fstat(file.get(), &status) != 0) return refused(posixError(errno, "stat").text());
  if (!S_ISREG(status.st_mode)) return refused("it is not a regular file");
  if (!mayOwnKey(status.st_uid)) return refused("it belongs to another user");
  if (status.st_mode & 077) return refused("others may use it");
  SandboxKey key;
  if (status.st_size != static_cast<off_t>(key.size())) return refused("it has the wrong size");
  if (read(file.get(), key.data(), key.size()) != static_cast<ssize_t>(key.size())) {
    return refused("it cannot be read");
  }
  return key;
}

std::optional<SandboxKey> readOrMakeSandboxKey() {
  struct stat status;
  if (lstat(Places::sandboxKey().c_str(), &status) != 0 && errno == ENOENT) {
    if (auto failure = makeKey()) DS_LOG("[ERROR] Cannot make the sandbox key: %@", *failure);
  }
  return readSandboxKey();
}

}  // namespace qx
