#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "acl/DSAccessControlStore.h"
#include "platform/base/Error.h"

/// A grant that is taken back or, without an item, all grants of a consumer from one provider.
/// DSGrantsServicer.h says what that means.
struct DSRevocation {
  std::string providerID;
  std::optional<std::string> itemID;
  std::string consumerID;
};

/// Carries out a revocation. It is kept on disk until `done` is called, so that the next start
/// finishes it when this process is killed in between. Waits for the disk; `done` is called once,
/// on any thread.
void dsRevoke(const std::shared_ptr<DSAccessControlStore>& store, const DSRevocation& revocation,
              std::function<void(const std::optional<qx::Error>& error)> done);

/// Finishes the revocations in which the process before was killed. Called once, before anybody is
/// served. Where the grants were gone already and their items are not known, every document of the
/// consumer goes from its sandboxes; those that are still granted come back when they are shown
/// again.
void dsGoOnWithRevocations(const std::shared_ptr<DSAccessControlStore>& store);
