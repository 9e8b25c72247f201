// The operations on grants. Each is one task on the store's serial queue, and the caller waits for
// it. A change also writes the file before the caller goes on, so that a grant that was
// acknowledged is on disk.

#include "acl/DSAccessControlStore.h"

#include "platform/log/Log.h"
#include "platform/notify/SystemNotifyCenter.h"

std::shared_ptr<DSAccessControlStore> DSAccessControlStore::sharedStore() {
  static auto& store =
      *new std::shared_ptr<DSAccessControlStore>(std::make_shared<DSAccessControlStore>());
  return store;
}

DSAccessControlStore::DSAccessControlStore()
    : syncQueue_(qx::WorkQueue::serial("DSAccessControlStore sync queue")) {
  qx::SystemNotifyCenter::addObserver("com.veltro.mobile.lockwardd.first_unlock",
                                      [] { sharedStore()->rereadAccessControl(); });
  syncQueueReadAccessControl();
}

bool DSAccessControlStore::isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
    const std::optional<std::string>& providerIdentifier,
    const std::optional<std::string>& itemIdentifier,
    const std::optional<std::string>& consumerIdentifier) {
  if (!providerIdentifier || !itemIdentifier || !consumerIdentifier) return false;
  return isAllowed(*providerIdentifier, *itemIdentifier, *consumerIdentifier);
}

bool DSAccessControlStore::isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
    const std::optional<std::string>& providerIdentifier,
    const std::optional<std::string>& itemIdentifier,
    const std::optional<std::string>& consumerIdentifier) {
  if (!providerIdentifier || providerIdentifier->empty()) return false;
  if (!consumerIdentifier || !itemIdentifier || itemIdentifier->empty()) return false;
  return isAllowed(*providerIdentifier, *itemIdentifier, *consumerIdentifier);
}

bool DSAccessControlStore::isAllowed(const std::string& provider, const std::string& item,
                                     const std::string& consumer) {
  return syncQueue_->sync(
      [&] { return syncQueueAccessControlDict->isAllowed(provider, item, consumer); });
}

void DSAccessControlStore::allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(
    const std::optional<std::string>& providerIdentifier,
    const std::optional<std::string>& itemIdentifier,
    const std::optional<std::string>& consumerIdentifier) {
  if (!providerIdentifier || !itemIdentifier || !consumerIdentifier) return;
  syncQueue_->sync(
      [&] { syncQueueAllow(*providerIdentifier, *itemIdentifier, *consumerIdentifier); });
}

void DSAccessControlStore::syncQueueAllow(const std::string& provider, const std::string& item,
                                          const std::string& consumer) {
  if (!syncQueueAccessControlDict->allow(provider, item, consumer)) {
    DS_LOG("[INFO] Provider ID %@ is already allowed to provide item ID “%@” to consumer ID %@.",
           provider, item, consumer);
    return;
  }
  DS_LOG("[INFO] Allowing provider ID %@ to provide item ID “%@” to consumer ID %@", provider, item,
         consumer);
  syncQueueCommitAccessControl();
}

void DSAccessControlStore::
    disallowProviderWithIdentifier_fromProvidingItemWithID_toConsumerWithIdentifier(
        const std::optional<std::string>& providerIdentifier,
        const std::optional<std::string>& itemIdentifier,
        const std::optional<std::string>& consumerIdentifier) {
  if (!providerIdentifier || !itemIdentifier || !consumerIdentifier) return;
  syncQueue_->sync([&] {
    if (syncQueueDisallow(*providerIdentifier, *itemIdentifier, *consumerIdentifier)) {
      syncQueueCommitAccessControl();
    }
  });
}

bool DSAccessControlStore::syncQueueDisallow(const std::string& provider, const std::string& item,
                                             const std::string& consumer) {
  if (!syncQueueAccessControlDict->disallow(provider, item, consumer)) return false;
  DS_LOG("[INFO] No longer allowing provider ID %@ to provide item ID “%@” to consumer ID %@",
         provider, item, consumer);
  return true;
}

void DSAccessControlStore::rereadAccessControl() {
  syncQueue_->async([store = shared_from_this()] { store->syncQueueReadAccessControl(); });
}
