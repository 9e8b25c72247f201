#pragma once

#include <memory>
#include <optional>
#include <string>

#include "acl/AccessControlList.h"
#include "acl/DSAccessControl.h"
#include "platform/queue/WorkQueue.h"

/// The daemon's single table of grants: which provider extension may provide which item to which
/// consumer application. Kept in memory and, as one property list, in the file
/// "Library/DocSource/AccessControl.plist" of the daemon's home directory (mode 0600).
///
/// All state belongs to one serial queue. Every operation may be called from any thread but never
/// from a task that runs on that queue. Queries and changes wait until they have run; a change
/// returns after the file has been written. A write that fails is logged and the change stays in
/// force in memory. Nothing is reported to the callers otherwise.
///
/// Identifiers are opaque byte strings in UTF-8, compared exactly.
///
/// Only ever held by a shared pointer: a reading that is still to come keeps its store.
class DSAccessControlStore : public DSAccessControl,
                             public std::enable_shared_from_this<DSAccessControlStore> {
 public:
  /// The store of this process, made on the first call (safe under concurrent first calls) and
  /// never destroyed.
  static std::shared_ptr<DSAccessControlStore> sharedStore();

  /// Registers for the first-unlock notification, at which the shared store reads the file again,
  /// and reads the file before it returns. Places decides where the file is; the directory is made
  /// at the first reading in the process and never again.
  DSAccessControlStore();

  /// False when one of the three is absent.
  bool isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
      const std::optional<std::string>& providerIdentifier,
      const std::optional<std::string>& itemIdentifier,
      const std::optional<std::string>& consumerIdentifier) override;

  /// False when one of the three is absent or provider or item identifier is empty; an empty
  /// consumer identifier is looked up like any other.
  bool isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
      const std::optional<std::string>& providerIdentifier,
      const std::optional<std::string>& itemIdentifier,
      const std::optional<std::string>& consumerIdentifier);

  /// Adds a grant and writes the file; a grant that exists is left alone and nothing is written.
  /// A call with an argument absent is ignored.
  void allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(
      const std::optional<std::string>& providerIdentifier,
      const std::optional<std::string>& itemIdentifier,
      const std::optional<std::string>& consumerIdentifier);

  /// Takes a grant away, with the entries that it leaves empty, and writes the file; without such
  /// a grant nothing happens. A call with an argument absent is ignored.
  void disallowProviderWithIdentifier_fromProvidingItemWithID_toConsumerWithIdentifier(
      const std::optional<std::string>& providerIdentifier,
      const std::optional<std::string>& itemIdentifier,
      const std::optional<std::string>& consumerIdentifier);

  /// Has the file read again on the queue and returns at once. A file that is missing then leaves
  /// the list as it is; one that cannot be parsed empties it.
  void rereadAccessControl();

  /// The queue that serialises every access to the list.
  const std::shared_ptr<qx::WorkQueue>& syncQueue() const { return syncQueue_; }

 private:
  bool isAllowed(const std::string& provider, const std::string& item, const std::string& consumer);

  // These two take no lock: they run on the queue, the first reading in the constructor apart.
  void syncQueueReadAccessControl();
  void syncQueueCommitAccessControl();

  std::shared_ptr<qx::WorkQueue> syncQueue_;
  /// The list in memory; only on the queue. Absent only within a reading.
  std::optional<AccessControlList> syncQueueAccessControlDict;
};
