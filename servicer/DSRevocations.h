#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "acl/DSAccessControlStore.h"
#include "platform/base/Error.h"

/// A grant that is taken back, or without an item all of a consumer's from one provider. What that
/// comes to, DSGrantsServicer.h says.
struct DSRevocation {
  std::string providerID;
  std::optional<std::string> itemID;
  std::string consumerID;
};

/// Takes it back. Kept on disk until `done` is called, so that the next start goes on with it when
/// this process is killed in between. Waits for the disk; `done` is called once, on any thread.
void dsRevoke(const std::shared_ptr<DSAccessControlStore>& store, const DSRevocation& revocation,
              std::function<void(const std::optional<qx::Error>& error)> done);

/// Goes on with the revocations that the process before was killed in. Once, before anybody is
/// served. Of grants that were gone already, and were not named, every document of the consumer
/// goes from its sandboxes; what it still has a grant for comes back when it is shown again.
void dsGoOnWithRevocations(const std::shared_ptr<DSAccessControlStore>& store);
