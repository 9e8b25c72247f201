// Sandbox extensions: tokens that name a file and what may be done with it.
//
// A token is "2:class:random:time:path:code": the version, the extension class, 16 random bytes in
// hexadecimal, when it was issued (BootTime), the path with all but plain characters
// percent-encoded, and the authentication code of everything before it (crypto_auth of libsodium,
// over the boot as well) in hexadecimal. Nothing of a token is looked at before its code is found
// to be right.

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sodium.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <functional>
#include <mutex>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/log/Log.h"
#include "platform/sandbox/EncodedPath.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxKey.h"
#include "platform/sandbox/TakenBackExtensions.h"

namespace {

constexpr std::string_view version = "2";
constexpr std::size_t longestToken = 4096;

bool isReady() {
  static const bool ready = sodium_init() >= 0;
  return ready;
}

/// Cuts off what stands before the next colon.
std::string_view field(std::string_view& rest) {
  auto end = std::min(rest.find(':'), rest.size());
  auto text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return text;
}

/// Without following a link anywhere in the path.
qx::FileDescriptor openWithoutLinks(const std::string& path, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return qx::FileDescriptor(
      static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

/// The path by which a regular file is reached without a link; absent when there is none, and when
/// the file is not the one that the path given leads to any more.
std::optional<std::string> pathWithoutLinks(const std::string& path) {
  auto canonical = qx::canonicalEntryPath(path);
  if (!canonical) return std::nullopt;
  const auto file = openWithoutLinks(*canonical, O_PATH);
  struct stat opened, named;
  if (!file || fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) return std::nullopt;
  if (lstat(path.c_str(), &named) != 0 || qx::identityOf(named) != qx::identityOf(opened)) {
    return std::nullopt;
  }
  return canonical;
}

/// Adds to what was taken back, one at a time.
std::optional<qx::Error> takeBack(const std::function<void(qx::TakenBackExtensions& all)>& add) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const auto store = qx::SandboxKeyStore::own();
  if (!store) return store.error();
  auto known = qx::TakenBackExtensions::read(*store);
  qx::TakenBackExtensions all;
  if (known) {
    all = std::move(*known);
  } else {
    DS_LOG("[ERROR] What was taken back cannot be read: every sandbox extension is. Error: %@",
           known.error());
    all.addEverything();
  }
  add(all);
  return all.write();
}

qx::Error invalid() {
  return qx::posixError(EBADMSG, "The sandbox extension is forged, altered or stale");
}

}  // namespace

std::optional<std::string> SandboxIssueFileExtension(std::string_view extensionClass,
                                                     const std::string& path, unsigned) {
  if (extensionClass != qx::sandboxExtensionReadWrite && extensionClass != qx::sandboxExtensionRead)
    return std::nullopt;
  if (!path.starts_with('/') || !isReady()) return std::nullopt;
  const auto issued = qx::bootTimeNow();
  auto canonical = pathWithoutLinks(path);
  if (!canonical) return std::nullopt;
  const auto store = qx::SandboxKeyStore::own();
  const auto key = store ? store->readOrMakeKey() : std::nullopt;
  if (!key) return std::nullopt;

  std::array<std::uint8_t, 16> random;
  randombytes_buf(random.data(), random.size());
  std::string token(version);
  for (const auto& part : {std::string(extensionClass), qx::hexEncode(random),
                           std::to_string(issued), qx::encodedPath(*canonical)}) {
    token += ':' + part;
  }
  token += ':' + qx::authenticationCode(*key, token);
  if (token.size() > longestToken) return std::nullopt;
  return token;
}

std::optional<qx::Error> SandboxTakeBackFileExtensions(const std::string& path) {
  const std::string canonical = qx::canonicalEntryPath(path).value_or(path);
  struct stat status;
  const bool isThere = lstat(canonical.c_str(), &status) == 0;
  const auto file = isThere ? std::optional(qx::identityOf(status)) : std::nullopt;
  return takeBack([&](qx::TakenBackExtensions& all) { all.add(canonical, file); });
}

std::optional<qx::Error> SandboxTakeBackAllFileExtensions() {
  return takeBack([](qx::TakenBackExtensions& all) { all.addEverything(); });
}

qx::Result<qx::FileDescriptor> qx::consumeSandboxExtension(std::string_view token) {
  const auto store = SandboxKeyStore::own();
  return store ? consumeSandboxExtension(token, *store) : invalid();
}

qx::Result<qx::FileDescriptor> qx::consumeSandboxExtension(std::string_view token,
                                                           const SandboxKeyStore& store) {
  auto end = token.rfind(':');
  if (token.size() > longestToken || end == std::string_view::npos || !isReady()) return invalid();
  auto content = token.substr(0, end);
  // One spelling only: a code in capitals is an altered token.
  const auto code = token.substr(end + 1);
  const auto key = store.readKey();
  if (!key) return invalid();
  const auto right = authenticationCode(*key, content);
  if (code.size() != right.size() || sodium_memcmp(code.data(), right.data(), right.size()) != 0) {
    return invalid();
  }

  auto rest = content;
  auto tokenVersion = field(rest);
  auto extensionClass = field(rest);
  field(rest);  // the random number
  const auto time = field(rest);
  BootTime issued = 0;
  const auto [timeEnd, problem] = std::from_chars(time.data(), time.data() + time.size(), issued);
  auto path = decodedPath(rest);
  bool mayWrite = extensionClass == sandboxExtensionReadWrite;
  if (tokenVersion != version || (!mayWrite && extensionClass != sandboxExtensionRead) ||
      problem != std::errc() || timeEnd != time.data() + time.size() || !path ||
      !path->starts_with('/') || path->find('\0') != std::string::npos) {
    return invalid();
  }
  const auto takenBack = TakenBackExtensions::read(store);
  if (!takenBack) {
    DS_LOG("[ERROR] Refusing sandbox extensions of user %d. Error: %@", store.owner(),
           takenBack.error());
    return invalid();
  }

  auto failure = [&](int errnum) { return fileError(errnum, URL::fileURL(*path)); };
  // Looked at before it is opened: opening a device or a pipe may do something.
  const FileDescriptor place = openWithoutLinks(*path, O_PATH);
  struct stat status, opened;
  if (!place || fstat(place.get(), &status) != 0) return failure(errno);
  if (!S_ISREG(status.st_mode)) return failure(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  if (takenBack->include(issued, *path, identityOf(status))) return invalid();
  FileDescriptor file =
      openWithoutLinks(*path, (mayWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_NOCTTY);
  if (!file || fstat(file.get(), &opened) != 0) return failure(errno);
  if (identityOf(opened) != identityOf(status)) return failure(EAGAIN);
  int flags = fcntl(file.get(), F_GETFL);
  if (flags < 0 || fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK) < 0) return failure(errno);
  return file;
}
