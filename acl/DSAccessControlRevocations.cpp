// Taking grants back. A request that makes or uses a grant asks a provider in between. It keeps the
// moment at which it began, and does not bring back what was taken back after that moment. A
// revocation is written down on the queue before the grant goes. So a request either finds it
// there, or has added its grant before, which then goes with the others. What no request under way
// can ask about any more is not kept.

#include <algorithm>

#include "acl/DSAccessControlStore.h"

std::shared_ptr<const DSAccessControlStore::Moment> DSAccessControlStore::moment() {
  const std::lock_guard lock(revocationsMutex_);
  moments_.insert(revocations_);
  return std::make_shared<const Moment>(shared_from_this(), revocations_);
}

void DSAccessControlStore::forget(std::uint64_t moment) {
  const std::lock_guard lock(revocationsMutex_);
  moments_.erase(moments_.find(moment));
  while (!takenBack_.empty() &&
         (moments_.empty() || takenBack_.front().number <= *moments_.begin())) {
    takenBack_.pop_front();
  }
}

bool DSAccessControlStore::wasRevokedSince(
    const Moment& moment, const std::optional<std::string>& providerIdentifier,
    const std::optional<std::string>& itemIdentifier,
    const std::optional<std::string>& consumerIdentifier) const {
  const std::lock_guard lock(revocationsMutex_);
  return std::any_of(takenBack_.begin(), takenBack_.end(), [&](const TakenBack& each) {
    return each.number > moment.revocations_ && each.provider == providerIdentifier &&
           each.consumer == consumerIdentifier && (!each.item || each.item == itemIdentifier);
  });
}

bool DSAccessControlStore::allowUnlessRevokedSince(
    const Moment& moment, const std::optional<std::string>& providerIdentifier,
    const std::optional<std::string>& itemIdentifier,
    const std::optional<std::string>& consumerIdentifier) {
  if (!providerIdentifier || !itemIdentifier || !consumerIdentifier) return false;
  return syncQueue_->sync([&] {
    if (wasRevokedSince(moment, providerIdentifier, itemIdentifier, consumerIdentifier)) {
      return false;
    }
    syncQueueAllow(*providerIdentifier, *itemIdentifier, *consumerIdentifier);
    return true;
  });
}

std::vector<DSAccessControlStore::Grant> DSAccessControlStore::grants() {
  return syncQueue_->sync([&] { return syncQueueAccessControlDict->grants(); });
}

DSAccessControlStore::Revocation DSAccessControlStore::revoke(
    const std::string& provider, const std::optional<std::string>& item,
    const std::string& consumer) {
  return syncQueue_->sync([&] {
    {
      const std::lock_guard lock(revocationsMutex_);
      ++revocations_;
      if (!moments_.empty()) takenBack_.push_back({revocations_, provider, item, consumer});
    }
    Revocation revocation;
    revocation.items = item ? std::vector<std::string>{*item}
                            : syncQueueAccessControlDict->itemsOf(provider, consumer);
    bool hasChanged = false;
    for (const auto& each : revocation.items) {
      hasChanged |= syncQueueDisallow(provider, each, consumer);
    }
    if (hasChanged || syncQueueFileIsBehind_) revocation.error = syncQueueCommitAccessControl();
    return revocation;
  });
}
