#pragma once

#include <optional>
#include <string>

#include "servicer/DSGrants.h"
#include "servicer/DSServicer.h"

/// Carries out the interface to the grants for one connection.
///
/// When a revocation has answered without an error, the access-control file is without the grant,
/// durably; bookmarks of that consumer for that item do not resolve; no token for the document that
/// was issued before redeems, for anybody; the consumer's sandboxes do not show it any more; and no
/// request that was under way brings any of it back. A daemon that was killed in the middle of it
/// finishes it at its next start.
///
/// With an error, the grant may be gone already and the rest undone. Whoever asks again begins
/// where it stopped. The exception is a revocation of all items: it does not know any more of
/// grants that are gone.
///
/// Operations run on the thread on which the connection delivers them, and wait for the disk there.
/// What has to be asked of providers is answered from the providers' threads.
class DSGrantsServicer final : public DSGrants, public DSServicer {
 public:
  void grantsCompletion(qx::Completion<qx::Error, qx::Array> completion) override;
  void revokeItemWithID_ofProviderID_forConsumerID_completion(
      const std::optional<std::string>& itemID, const std::optional<std::string>& providerID,
      const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) override;
};
