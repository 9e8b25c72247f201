#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "acl/AccessControlList.h"
#include "acl/DSAccessControl.h"
#include "platform/queue/WorkQueue.h"

/// The daemon's single table of grants: which provider extension may provide which item to which
/// consumer application. It is kept in memory and, as one property list, in the file
/// "Library/DocSource/AccessControl.plist" of the daemon's home directory (mode 0600).
///
/// All state belongs to one serial queue. Every operation may be called from any thread but never
/// from a task that runs on that queue. Queries and changes wait until they have run; a change
/// returns after the file has been written. A write that fails is logged, and the change stays in
/// force in memory; except by revoke() it is not reported to the callers.
///
/// A request that is under way while a grant is taken back (it has asked a provider and grants
/// afterwards) must not bring the grant back. moment() prevents that.
///
/// Identifiers are opaque byte strings in UTF-8, compared exactly.
///
/// The store is only ever held by a shared pointer: a reading that is still to come keeps it alive.
class DSAccessControlStore : public DSAccessControl,
                             public std::enable_shared_from_this<DSAccessControlStore> {
 public:
  /// The store of this process, made on the first call (safe under concurrent first calls) and
  /// never destroyed.
  static std::shared_ptr<DSAccessControlStore> sharedStore();

  /// Registers for the first-unlock notification, at which the shared store reads the file again,
  /// and reads the file before it returns. Places decides where the file is; its directory is made
  /// once per process, at the first reading.
  DSAccessControlStore();

  /// Returns false when one of the three is absent.
  bool isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
      const std::optional<std::string>& providerIdentifier,
      const std::optional<std::string>& itemIdentifier,
      const std::optional<std::string>& consumerIdentifier) override;

  /// Returns false when one of the three is absent, or the provider or item identifier is empty; an
  /// empty consumer identifier is looked up like any other.
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

  /// A point in time, kept by whoever is about to ask a provider before making or using a grant.
  /// What is taken back after that moment stays taken back for that request.
  class Moment;
  /// Any thread may call this; it never waits for the queue.
  std::shared_ptr<const Moment> moment();

  /// Returns whether such a grant was taken back since then. An absent argument means no grant.
  bool wasRevokedSince(const Moment& moment, const std::optional<std::string>& providerIdentifier,
                       const std::optional<std::string>& itemIdentifier,
                       const std::optional<std::string>& consumerIdentifier) const;

  /// Adds a grant as allowProvider... does, unless it was taken back since then. Returns whether it
  /// is there now.
  bool allowUnlessRevokedSince(const Moment& moment,
                               const std::optional<std::string>& providerIdentifier,
                               const std::optional<std::string>& itemIdentifier,
                               const std::optional<std::string>& consumerIdentifier);

  using Grant = AccessControlList::Grant;
  /// Returns every grant, by provider, then by consumer, then in the order in which they were made.
  std::vector<Grant> grants();

  struct Revocation {
    /// The items whose grants are gone: the one that was asked for, or all there were.
    std::vector<std::string> items;
    /// The error of writing the file, which may then still hold the grants; a restart would bring
    /// them back.
    std::optional<qx::Error> error;
  };
  /// Takes a grant back, or, without an item, every grant of the consumer from the provider. Unless
  /// there is an error, the file is without them when this returns, whether they had been there or
  /// not.
  Revocation revoke(const std::string& provider, const std::optional<std::string>& item,
                    const std::string& consumer);

  /// Has the file read again on the queue and returns at once. A file that is missing then leaves
  /// the list as it is; one that cannot be parsed empties it.
  void rereadAccessControl();

  /// The queue that serialises every access to the list.
  const std::shared_ptr<qx::WorkQueue>& syncQueue() const { return syncQueue_; }

 private:
  bool isAllowed(const std::string& provider, const std::string& item, const std::string& consumer);

  // These two take no lock: they run on the queue, except for the first reading, in the
  // constructor.
  void syncQueueReadAccessControl();
  std::optional<qx::Error> syncQueueCommitAccessControl();
  void syncQueueAllow(const std::string& provider, const std::string& item,
                      const std::string& consumer);
  /// Does not write the file. Returns false when there was no such grant.
  bool syncQueueDisallow(const std::string& provider, const std::string& item,
                         const std::string& consumer);

  std::shared_ptr<qx::WorkQueue> syncQueue_;
  /// The list in memory; only on the queue. Absent only within a reading.
  std::optional<AccessControlList> syncQueueAccessControlDict;
  /// Whether the last writing failed; used only on the queue.
  bool syncQueueFileIsBehind_ = false;

  /// What was taken back while requests were under way. The numbers count revocations.
  struct TakenBack {
    std::uint64_t number;
    std::string provider;
    std::optional<std::string> item;
    std::string consumer;
  };
  void forget(std::uint64_t moment);
  mutable std::mutex revocationsMutex_;
  // Guarded by that mutex.
  std::uint64_t revocations_ = 0;
  std::multiset<std::uint64_t> moments_;  // of the requests under way
  std::deque<TakenBack> takenBack_;       // since the first of them
};

/// A number of revocations; the store is told when nobody keeps it any more.
class DSAccessControlStore::Moment {
 public:
  Moment(std::shared_ptr<DSAccessControlStore> store, std::uint64_t revocations)
      : store_(std::move(store)), revocations_(revocations) {}
  ~Moment() { store_->forget(revocations_); }
  Moment(const Moment&) = delete;
  Moment& operator=(const Moment&) = delete;

 private:
  friend class DSAccessControlStore;
  const std::shared_ptr<DSAccessControlStore> store_;
  const std::uint64_t revocations_;
};
