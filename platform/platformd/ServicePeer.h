#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/conduit/QXConduitConnection.h"
#include "platform/identity/AuditToken.h"
#include "platform/identity/UserIdentity.h"
#include "platform/platformd/UserAccounts.h"

/// The user at the other end of a connection to a service of platformd. What that user makes it
/// hold, the connection itself and what its frames make it keep, is charged here. Any thread may
/// use it.
class ServicePeer : public std::enable_shared_from_this<ServicePeer> {
 public:
  /// Returns null for an unknown peer, and for one whose user has too many connections.
  static std::shared_ptr<ServicePeer> accept(QXConduitConnection& connection,
                                             UserAccounts& accounts);

  const qx::AuditToken& process() const { return process_; }
  const qx::User& user() const { return user_; }
  UserAccount& account() const { return *account_; }

  /// Returns whether the process is now in the same user namespace as this service.
  bool isOutsideOfSandboxes() const;

  /// Runs what may block on the user's files, one task after the other for this connection. `task`
  /// gets a charge for the call that it carries out, and holds it until the call is answered.
  /// Returns false, and runs nothing, when the user has too many calls under way.
  bool run(std::function<void(UserAccount::Charge charge)> task);
  /// Does the same for the rest of a call that has its charge.
  void goOn(std::function<void()> task) { account_->run(lane_, std::move(task)); }

  /// Runs `work` as the peer's user and returns what it returned. It is only for file operations: a
  /// thread that is started meanwhile would stay that user's. EPERM, or absent, where this process
  /// cannot take that identity.
  template <class F>
  auto asUser(F&& work) const {
    const qx::UserIdentity identity(user_);
    return identity.errnum() == 0 ? std::optional(std::forward<F>(work)()) : std::nullopt;
  }

  ServicePeer(const qx::AuditToken& process, qx::User user, std::shared_ptr<UserAccount> account)
      : process_(process), user_(std::move(user)), account_(std::move(account)) {}

 private:
  /// Charges the account, for an application in a sandbox only as far as half of it is left to the
  /// user's other programs. Empty past the bound.
  UserAccount::Charge charge(UserAccount::Kind kind, std::size_t amount = 1) const;
  bool mayKeep(const qx::conduit::ConduitChannel::Kept& kept);

  const qx::AuditToken process_;
  const qx::User user_;
  const std::shared_ptr<UserAccount> account_;
  const std::shared_ptr<UserAccount::Lane> lane_ = account_->makeLane();
  UserAccount::Charge connection_;
  std::mutex mutex_;
  // Guarded by the mutex.
  UserAccount::Charge bytes_;
  UserAccount::Charge descriptors_;
};
