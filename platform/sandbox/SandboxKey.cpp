// The key of the sandbox extensions.

#include "platform/sandbox/SandboxKey.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "platform/base/UUID.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx {
namespace {

constexpr const char* keyName = "sandbox.key";

/// Writes a new key under a name of its own and gives it the real name, if that is still free.
std::optional<Error> makeKey(int directory) {
  const auto side = std::string(keyName) + "." + UUID::random().text();
  FileDescriptor file(
      openat(directory, side.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) return posixError(errno, "making " + side);
  SandboxKey key;
  randombytes_buf(key.data(), key.size());
  ssize_t written = write(file.get(), key.data(), key.size());
  sodium_memzero(key.data(), key.size());
  std::optional<Error> failure;
  if (written != static_cast<ssize_t>(key.size())) {
    failure = posixError(written < 0 ? errno : ENOSPC, "writing " + side);
  } else if (linkat(directory, side.c_str(), directory, keyName, 0) != 0 && errno != EEXIST) {
    failure = posixError(errno, std::string("making ") + keyName);
  }
  unlinkat(directory, side.c_str(), 0);
  return failure;
}

}  // namespace

Result<SandboxKeyStore> SandboxKeyStore::own() {
  FileDescriptor directory(
      open(Places::runtimeDirectory().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return posixError(errno, "The runtime directory cannot be opened");
  struct stat status;
  if (fstat(directory.get(), &status) != 0) return posixError(errno, "The runtime directory");
  const uid_t owner = geteuid() == 0 ? status.st_uid : geteuid();
  return at(std::make_shared<const FileDescriptor>(std::move(directory)), owner);
}

Result<SandboxKeyStore> SandboxKeyStore::at(SharedDescriptor directory, uid_t owner) {
  struct stat status;
  if (fstat(directory->get(), &status) != 0) return posixError(errno, "The directory of the key");
  if (!S_ISDIR(status.st_mode)) return posixError(ENOTDIR, "The key is to be in a directory");
  if (status.st_uid != owner) return posixError(EPERM, "The directory belongs to another user");
  return SandboxKeyStore(std::move(directory), owner);
}

Result<std::optional<std::string>> SandboxKeyStore::readFile(const char* name,
                                                             std::size_t longest) const {
  open_how how{};
  how.flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
  const FileDescriptor file(
      static_cast<int>(syscall(SYS_openat2, directory(), name, &how, sizeof how)));
  if (!file && errno == ENOENT) return std::optional<std::string>();
  if (!file) return posixError(errno, "It cannot be opened");
  struct stat status;
  if (fstat(file.get(), &status) != 0) return posixError(errno, "It cannot be looked at");
  if (!S_ISREG(status.st_mode)) return posixError(EINVAL, "It is not a regular file");
  if (status.st_uid != owner_) return posixError(EPERM, "It belongs to another user");
  if (status.st_mode & 077) return posixError(EPERM, "Others may use it");
  if (status.st_size > static_cast<off_t>(longest)) return posixError(EFBIG, "It is too long");
  // One more than there was, to know that there is no more.
  std::string text(static_cast<std::size_t>(status.st_size) + 1, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t count = read(file.get(), text.data() + size, text.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return posixError(errno, "It cannot be read");
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  if (size == text.size()) return posixError(EBUSY, "It is being written");
  text.resize(size);
  return std::optional(std::move(text));
}

std::optional<SandboxKey> SandboxKeyStore::readKey() const {
  SandboxKey key;
  auto text = readFile(keyName, key.size());
  if (text && !*text) return std::nullopt;
  if (!text || (*text)->size() != key.size()) {
    DS_LOG("[ERROR] Refusing the sandbox key of user %d: %@", owner_,
           text ? posixError(EINVAL, "It has the wrong size") : text.error());
    return std::nullopt;
  }
  std::string& bytes = **text;
  std::copy(bytes.begin(), bytes.end(), key.begin());
  sodium_memzero(bytes.data(), bytes.size());
  return key;
}

std::optional<SandboxKey> SandboxKeyStore::readOrMakeKey() const {
  struct stat status;
  if (fstatat(directory(), keyName, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
    const FileDescriptor writable(
        openat(directory(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (auto failure = makeKey(writable.get())) {
      DS_LOG("[ERROR] Cannot make the sandbox key: %@", *failure);
    }
  }
  return readKey();
}

const std::string& bootIdentifier() {
  static const auto& identifier = *[] {
    const auto text = FileManager::readFile("/proc/sys/kernel/random/boot_id");
    return new std::string(text ? text->substr(0, text->find('\n')) : "unknown");
  }();
  return identifier;
}

std::string authenticationCode(const SandboxKey& key, std::string_view text) {
  // No text that is authenticated holds a line break.
  const std::string message = bootIdentifier() + "\n" + std::string(text);
  std::array<std::uint8_t, crypto_auth_BYTES> code;
  crypto_auth(code.data(), reinterpret_cast<const unsigned char*>(message.data()), message.size(),
              key.data());
  return hexEncode(code);
}

}  // namespace qx
