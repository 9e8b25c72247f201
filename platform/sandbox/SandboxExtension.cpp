// Sandbox extensions: tokens that name a file and what may be done with it.
//
// A token is "1:class:random:path:code": the version, the extension class, 16 random bytes in
// hexadecimal, the path with all but plain characters percent-encoded, and the authentication code
// of everything before it (crypto_auth of libsodium) in hexadecimal. Nothing of a token is looked
// at before its code is found to be right.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <sodium.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "platform/base/UUID.h"
#include "platform/log/Log.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxKey.h"

namespace {

constexpr std::string_view version = "1";
constexpr std::size_t longestToken = 4096;

using Code = std::array<std::uint8_t, crypto_auth_BYTES>;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

bool isReady() {
  static const bool ready = sodium_init() >= 0;
  return ready;
}

bool isPlain(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("/-._~").find(character) != std::string_view::npos;
}

std::string encoded(std::string_view path) {
  std::string text;
  for (char character : path) {
    if (isPlain(character)) {
      text += character;
    } else {
      auto byte = static_cast<std::uint8_t>(character);
      text += '%' + qx::hexEncode(std::span(&byte, 1));
    }
  }
  return text;
}

std::optional<std::string> decoded(std::string_view text) {
  std::string path;
  while (!text.empty()) {
    if (text.front() != '%') {
      path += text.front();
      text.remove_prefix(1);
      continue;
    }
    auto byte = qx::hexDecode(text.substr(1, 2));
    if (!byte || byte->size() != 1) return std::nullopt;
    path += static_cast<char>(byte->front());
    text.remove_prefix(3);
  }
  return path;
}

/// Cuts off what stands before the next colon.
std::string_view field(std::string_view& rest) {
  auto end = std::min(rest.find(':'), rest.size());
  auto text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return text;
}

/// The path of an existing entry with all links in its directory resolved; absent when the entry
/// itself is a link.
std::optional<std::string> canonicalEntry(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos || path.find('\0') != std::string::npos) return std::nullopt;
  auto name = path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  std::array<char, PATH_MAX> directory;
  if (!realpath(path.substr(0, slash + 1).c_str(), directory.data())) return std::nullopt;
  std::string canonical = directory.data();
  if (canonical != "/") canonical += '/';
  canonical += name;
  struct stat status;
  if (lstat(canonical.c_str(), &status) != 0 || S_ISLNK(status.st_mode)) return std::nullopt;
  return canonical;
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
  auto canonical = canonicalEntry(path);
  if (!canonical) return std::nullopt;
  auto key = qx::readOrMakeSandboxKey();
  if (!key) return std::nullopt;

  std::array<std::uint8_t, 16> random;
  randombytes_buf(random.data(), random.size());
  std::string token(version);
  for (const auto& part :
       {std::string(extensionClass), qx::hexEncode(random), encoded(*canonical)}) {
    token += ':' + part;
  }
  Code code;
  crypto_auth(code.data(), bytesOf(token), token.size(), key->data());
  token += ':' + qx::hexEncode(code);
  if (token.size() > longestToken) return std::nullopt;
  return token;
}

qx::Result<qx::FileDescriptor> qx::consumeSandboxExtension(std::string_view token) {
  auto end = token.rfind(':');
  if (token.size() > longestToken || end == std::string_view::npos || !isReady()) return invalid();
  auto content = token.substr(0, end);
  auto code = hexDecode(token.substr(end + 1));
  // One spelling only: a code in capitals is an altered token.
  if (!code || code->size() != crypto_auth_BYTES || hexEncode(*code) != token.substr(end + 1)) {
    return invalid();
  }
  auto key = readSandboxKey();
  if (!key ||
      crypto_auth_verify(code->data(), bytesOf(content), content.size(), key->data()) != 0) {
    return invalid();
  }

  auto rest = content;
  auto tokenVersion = field(rest);
  auto extensionClass = field(rest);
  field(rest);  // the random number
  auto path = decoded(rest);
  bool mayWrite = extensionClass == sandboxExtensionReadWrite;
  if (tokenVersion != version || (!mayWrite && extensionClass != sandboxExtensionRead) || !path ||
      !path->starts_with('/')) {
    return invalid();
  }

  open_how how{};
  how.flags = static_cast<std::uint64_t>((mayWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_CLOEXEC |
                                         O_NOCTTY);
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  auto failure = [&](int errnum) { return fileError(errnum, URL::fileURL(*path)); };
  FileDescriptor file(
      static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path->c_str(), &how, sizeof how)));
  if (!file) return failure(errno);
  struct stat status;
  if (fstat(file.get(), &status) != 0) return failure(errno);
  if (!S_ISREG(status.st_mode)) return failure(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  int flags = fcntl(file.get(), F_GETFL);
  if (flags < 0 || fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK) < 0) return failure(errno);
  return file;
}
