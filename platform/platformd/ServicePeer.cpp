#include "platform/platformd/ServicePeer.h"

#include <utility>

#include "platform/identity/ProcessDirectory.h"
#include "platform/log/Log.h"

using Kind = UserAccount::Kind;

std::shared_ptr<ServicePeer> ServicePeer::accept(QXConduitConnection& connection,
                                                 UserAccounts& accounts) {
  auto user = connection.peerUser();
  if (!user || connection.auditToken().isNobody()) return nullptr;
  auto account = accounts.of(user->user);
  auto peer =
      std::make_shared<ServicePeer>(connection.auditToken(), std::move(*user), std::move(account));
  peer->connection_ = peer->charge(Kind::descriptor);
  if (!peer->connection_) {
    DS_LOG("[INFO] Dropping a connection of PID %d: user %d has too many.",
           connection.processIdentifier(), peer->user().user);
    return nullptr;
  }
  connection.setAllowance([peer](const auto& kept) { return peer->mayKeep(kept); });
  return peer;
}

UserAccount::Charge ServicePeer::charge(Kind kind, std::size_t amount) const {
  auto charge = account_->charge(kind, amount);
  // The process is looked at only when it matters.
  if (charge && account_->isHalfUsed(kind) && !isOutsideOfSandboxes()) return {};
  return charge;
}

bool ServicePeer::mayKeep(const qx::conduit::ConduitChannel::Kept& kept) {
  const std::lock_guard lock(mutex_);
  // Given back first: more of the same is not twice as much.
  bytes_ = {};
  descriptors_ = {};
  if (kept.bytes != 0) bytes_ = charge(Kind::byte, kept.bytes);
  if (kept.descriptors != 0) descriptors_ = charge(Kind::descriptor, kept.descriptors);
  return static_cast<bool>(bytes_) == (kept.bytes != 0) &&
         static_cast<bool>(descriptors_) == (kept.descriptors != 0);
}

bool ServicePeer::isOutsideOfSandboxes() const {
  const auto directory = qx::ProcessDirectory::open(process_);
  return directory && directory->isOutsideOfSandboxes() && directory->isRunning();
}

bool ServicePeer::run(std::function<void(UserAccount::Charge charge)> task) {
  auto charge = std::make_shared<UserAccount::Charge>(this->charge(Kind::call));
  if (!*charge) return false;
  account_->run(lane_, [task = std::move(task), charge] { task(std::move(*charge)); });
  return true;
}
