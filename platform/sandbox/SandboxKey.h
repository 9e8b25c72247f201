#pragma once

#include <sodium.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace qx {

using SandboxKey = std::array<std::uint8_t, crypto_auth_KEYBYTES>;

/// What authenticates the sandbox extensions of one user: the key, which is the file "sandbox.key"
/// in the user's runtime directory, and the list of those that were taken back
/// (TakenBackExtensions.h).
///
/// A descriptor holds the directory, so that the user's daemon can hand it to a service that serves
/// all users. A file in it is believed only when it is a regular file that belongs to the user and
/// that nobody else can use, and it is opened beneath the directory without following a link
/// (openat2(2)). Immutable; any thread may use it.
class SandboxKeyStore {
 public:
  /// The runtime directory of this process's places. Its owner must be this process's user; for
  /// root, it is whoever owns the directory.
  static Result<SandboxKeyStore> own();
  /// A directory of `owner`'s; EPERM when it is not theirs, ENOTDIR when it is no directory.
  static Result<SandboxKeyStore> at(SharedDescriptor directory, uid_t owner);

  uid_t owner() const { return owner_; }
  int directory() const { return directory_->get(); }
  const SharedDescriptor& sharedDirectory() const { return directory_; }

  /// Absent when there is none, and, with a line in the log, when the file is not what it must be
  /// or not exactly as long as a key.
  std::optional<SandboxKey> readKey() const;
  /// Does the same, but makes a missing key. Processes that make one at the same time agree on one.
  /// Only in the runtime directory of this process's places.
  std::optional<SandboxKey> readOrMakeKey() const;

  /// Reads a whole file; absent when there is none. Files longer than `longest` are refused.
  Result<std::optional<std::string>> readFile(const char* name, std::size_t longest) const;

 private:
  SandboxKeyStore(SharedDescriptor directory, uid_t owner)
      : directory_(std::move(directory)), owner_(owner) {}

  SharedDescriptor directory_;
  uid_t owner_;
};

/// Tells this boot from every other one (random(4)); text without spaces.
const std::string& bootIdentifier();

/// The authentication code of a text in this boot, in hexadecimal.
std::string authenticationCode(const SandboxKey& key, std::string_view text);

}  // namespace qx
