#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/conduit/QXConduitListener.h"
#include "platform/platformd/UserAccounts.h"
#include "platform/sandbox/SandboxKey.h"

/// The directories in which the keys of the users are looked for: those that each user's daemon has
/// handed over, and where there is none the user's default one. Where platformd serves one user, it
/// is only that user's runtime directory. Any thread may use it.
class KeyDirectories {
 public:
  /// Adds a directory until it is removed again; `number` names it.
  std::uint64_t add(qx::SandboxKeyStore store);
  void remove(std::uint64_t number);
  /// Returns all of a user's, looked up with the rights of the calling thread.
  std::vector<qx::SandboxKeyStore> of(uid_t user);

 private:
  std::mutex mutex_;
  // Guarded by the mutex.
  std::uint64_t last_ = 0;
  std::map<std::uint64_t, qx::SandboxKeyStore> handedOver_;
};

/// The service "com.veltro.Sandbox", which redeems sandbox extensions. Whoever holds a token that
/// is good by a key of their own user gets the descriptor of the file that it names. The file is
/// opened with that user's rights, so nobody gets anything here that they could not open.
///
/// A user's daemon hands over its runtime directory, in which the key lies, from outside of
/// sandboxes; it counts for as long as the connection lives.
class SandboxService final : public QXConduitListenerDelegate,
                             public std::enable_shared_from_this<SandboxService> {
 public:
  static std::shared_ptr<SandboxService> make(std::shared_ptr<UserAccounts> accounts);
  explicit SandboxService(std::shared_ptr<UserAccounts> accounts);

  /// Begins to serve; until then clients wait.
  void resume() { listener_.resume(); }

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  const std::shared_ptr<UserAccounts> accounts_;
  const std::shared_ptr<KeyDirectories> keys_ = std::make_shared<KeyDirectories>();
  QXConduitListener listener_;
};
