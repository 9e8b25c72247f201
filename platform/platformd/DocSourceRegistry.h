#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/ByteRanges.h"
#include "platform/base/Completion.h"
#include "platform/base/Error.h"
#include "platform/base/URL.h"
#include "platform/identity/AuditToken.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/identity/UserIdentity.h"

/// The one that added doc sources and answers for them; in platformd, over a connection.
class DocSourceHost {
 public:
  virtual ~DocSourceHost() = default;
  /// The completion is called once: with the provider's own error, unchanged, or with the reason
  /// why the provider cannot be asked any more.
  virtual void provideItem(const std::string& docSource, const qx::URL& url,
                           const std::string& readerID, qx::Completion<qx::Error> completion) = 0;
  /// Says that, while an item is being provided, somebody waits for these bytes of it. It is a
  /// hint; hosts may ignore it.
  virtual void readerWaits(const std::string& /*docSource*/, const qx::URL& /*url*/,
                           qx::ByteRange /*bytes*/) {}
  /// The completion is called once: when the host has heard of it, or cannot hear of it any more.
  virtual void writerDidFinish(const std::string& docSource, const std::string& writerID,
                               const qx::URL& url, qx::Completion<> completion) = 0;
  /// The process of the host.
  virtual qx::AuditToken process() const { return {}; }
  /// Returns whether it cannot be reached any more.
  virtual bool isLost() const { return false; }
};

/// A doc source that is registered.
struct DocSource {
  std::uint64_t number;  // tells one registration from the next
  uid_t owner;  // whose it is; identifiers of different users have nothing to do with each other
  std::string identifier;
  qx::URL directory;
  std::shared_ptr<DocSourceHost> host;
};

/// Hears of doc sources that come and go. It is called from any thread, in no particular order for
/// calls of several threads, and returns at once.
class DocSourceObserver {
 public:
  virtual ~DocSourceObserver() = default;
  /// `onWatched` is called once, when everything that the directory holds now is watched, or it is
  /// known that it cannot be.
  virtual void docSourceAdded(const DocSource& source, std::function<void()> onWatched) = 0;
  virtual void docSourceRemoved(const DocSource& source) = 0;
};

/// The registered doc sources, and the coordination of those who read and write their items. It
/// does not know how readers and writers are heard of: the service hands it the coordinated
/// accesses of programs that ask, and whatever else learns of an access (from the kernel, of
/// programs that never ask) calls the same provide() and didFinishWriting().
///
/// An item belongs to the doc source whose directory contains it, and to the innermost where
/// directories are nested. The identity of the directories around the item decides, looked up with
/// the rights of the one who asks (`as`; with this process's own where it is absent). So a user who
/// cannot see a directory does not learn that it is registered, and no directory of another user is
/// touched on the way.
///
/// Held only by shared pointers. Any thread may call it; it may block on the file system, but never
/// on a host.
class DocSourceRegistry : public std::enable_shared_from_this<DocSourceRegistry> {
 public:
  /// When there are several users, a directory belongs to its owner only: it stops being a doc
  /// source's when it becomes somebody else's.
  explicit DocSourceRegistry(bool isForAllUsers = false) : isForAllUsers_(isForAllUsers) {}

  /// Called before the first doc source. Held weakly.
  void setObserver(const std::weak_ptr<DocSourceObserver>& observer) { observer_ = observer; }

  /// Adds a doc source of the host's user, in the place of one with the same identifier whose host
  /// is the same or lost. The error is DSNotPermittedError when that one's host is another and
  /// lives. Called back once: with that error; when the observer watches the directory; or at once
  /// where there is no observer.
  void add(const std::string& identifier, const qx::URL& providedItemsURL,
           const std::shared_ptr<DocSourceHost>& host, const qx::Completion<qx::Error>& completion);
  /// The error is DSNotFoundError for an identifier unknown for this user, DSNotPermittedError for
  /// one of another host.
  std::optional<qx::Error> remove(const std::string& identifier,
                                  const std::shared_ptr<DocSourceHost>& host);
  /// Forgets all doc sources of a host. Its provides that are under way end through their host.
  void forget(const std::shared_ptr<DocSourceHost>& host);

  /// Returns whether the item belongs to a doc source.
  bool owns(const qx::URL& url, const std::optional<qx::User>& as = std::nullopt) {
    return placeOf(url, as).owner != nullptr;
  }

  /// Has the item brought in for a reader. Called back once: at once and without error when no doc
  /// source owns the item, otherwise when its provider has answered. While a file is being
  /// provided, further readers of it wait for the same answer, and the provider hears only of the
  /// first. A provider is asked for 64 files at a time and others wait their turn, so that a
  /// provider that does not answer leaves room on a connection that it shares with others. Readers
  /// of several users take turns, and a quarter of the 64 is kept for the provider's own user; a
  /// call without `as` counts as that user's.
  void provide(const qx::URL& url, const std::string& readerID,
               qx::Completion<qx::Error> completion,
               const std::optional<qx::User>& as = std::nullopt);
  /// Does the same for an item that is known to be this doc source's; nothing is looked up.
  void provide(const DocSource& owner, const qx::URL& url, const std::string& readerID,
               qx::Completion<qx::Error> completion);

  /// Says that somebody waits for these bytes of an item of this doc source that is being provided.
  static void hurry(const DocSource& owner, const qx::URL& url, qx::ByteRange bytes) {
    owner.host->readerWaits(owner.identifier, url, bytes);
  }

  /// Tells the owner, if there is one, that the item was written. Called back when the owner has
  /// heard.
  void didFinishWriting(const qx::URL& url, const std::string& writerID,
                        qx::Completion<> completion = {},
                        const std::optional<qx::User>& as = std::nullopt);
  /// Tells this doc source that an item was written that is known to be its own; nothing is looked
  /// up.
  static void didFinishWriting(const DocSource& owner, const qx::URL& url,
                               const std::string& writerID, qx::Completion<> completion = {});

 private:
  using SourcePointer = std::shared_ptr<const DocSource>;
  using Key = std::pair<uid_t, std::string>;
  struct Entry {
    SourcePointer source;
    std::optional<qx::FileIdentity> directory;  // as it was when it was last looked at
  };
  /// A file while it is being provided.
  using Item = std::pair<std::uint64_t, std::string>;
  /// What a provider is asked.
  struct Provide {
    Item item;
    SourcePointer owner;
    qx::URL url;
    std::string readerID;
    uid_t reader;
  };
  /// What a provider is being asked, and what it has yet to be asked, by user.
  struct Turns {
    std::size_t underWay = 0;
    std::size_t underWayOfOthers = 0;
    std::map<uid_t, std::deque<Provide>> waiting;
    uid_t last = 0;  // whose turn it was

    bool hasRoomFor(const Provide& provide) const;
    void begin(const Provide& provide);
    void end(const Provide& provide);
    std::optional<Provide> takeNext();
  };

  /// Whose an item is, and one name for its file, whichever links lead to it.
  struct Place {
    SourcePointer owner;
    std::string file;
  };
  Place placeOf(const qx::URL& url, const std::optional<qx::User>& as);
  SourcePointer ownerOf(const qx::URL& url, std::optional<uid_t> user);
  /// Looks again at the directories of a user's doc sources, or of all. Returns whether any has
  /// changed.
  bool lookAgain(std::optional<uid_t> user);
  void provide(const Provide& provide, qx::Completion<qx::Error> completion);
  void ask(const Provide& provide);
  void answered(const Provide& provide, const std::optional<qx::Error>& error);

  const bool isForAllUsers_;
  std::weak_ptr<DocSourceObserver> observer_;
  mutable std::mutex mutex_;
  std::uint64_t lastNumber_ = 0;
  std::map<Key, Entry> sources_;
  std::map<Item, std::vector<qx::Completion<qx::Error>>> readers_;
  std::map<std::uint64_t, Turns> turns_;  // by the number of the doc source
};
