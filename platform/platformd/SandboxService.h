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
/// handed over, and where there is none the one that the user has by default. Where platformd
/// serves one user, that user's runtime directory, and no other. Any thread.
class KeyDirectories {
 public:
  /// Until it is removed again; `number` names it.
  std::uint64_t add(qx::SandboxKeyStore store);
  void remove(std::uint64_t number);
  /// All of a user's, with the rights of the calling thread.
  std::vector<qx::SandboxKeyStore> of(uid_t user);

 private:
  std::mutex mutex_;
  // Under the mutex.
  std::uint64_t last_ = 0;
  std::map<std::uint64_t, qx::SandboxKeyStore> handedOver_;
};

/// The service "com.veltro.Sandbox": redeems sandbox extensions. Whoever holds a token that is good
/// by a key of the own user gets the descriptor of the file that it names, opened with that user's
/// rights and no others: nobody gets anything here that the user could not open.
///
/// A user's daemon hands its runtime directory over, in which the key lies, from outside of
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
