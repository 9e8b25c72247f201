#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "docsource/remote.h"
#include "mirror/ChangeJournal.h"
#include "mirror/Database.h"
#include "mirror/Departures.h"
#include "mirror/Ignore.h"
#include "mirror/Items.h"
#include "mirror/Listing.h"
#include "mirror/Local.h"
#include "mirror/Mirror.h"
#include "platform/base/FileDescriptor.h"
#include "platform/files/Inotify.h"

namespace docsource::mirror {

/// Keeps two trees in agreement: the storage here and the remote there. For each item it knows what
/// is here, what is there, and what both last agreed on (Items). It looks at one side and notes
/// what it sees (observe), or compares the three nodes of one item and does the one next thing that
/// brings them together (settle). Wherever it is cut off, the next look sees what has happened, and
/// the comparison goes on from there.
///
/// What always holds:
///
/// 1. Content that exists only once is never destroyed. A file here is given up only as a
///    placeholder, or with the very content that was agreed on and can still be had there. It is
///    first taken aside, looked at again, and destroyed when nobody has it open.
/// 2. A version there that was not seen here is never overwritten or removed: every change names
///    the version that it replaces, which is the agreed one. The agreed version moves on only while
///    the document is a placeholder that shows the new version's size and time under its name, or
///    when the content here was compared with it, or was just carried there.
/// 3. A placeholder is filled with the agreed version and no other. So whatever content appears in
///    it descends from that version.
/// 4. When the remote does not answer, or is not the one that it was, nothing changes here because
///    of it. When something is missing in a listing, the remote is asked once more before anything
///    is removed.
/// 5. Nothing is uploaded that is not whole: the file rests, is written to disk, and is the same
///    before and after it was read. A placeholder is never uploaded.
/// 6. An item here is its inode, number and birth. A file that takes the name of a document whose
///    inode is gone is that document (editors save like that). A file whose inode is known keeps
///    its item under its new name. A placeholder always is the item for which it was made.
///    Attributes of files decide only whether there is content.
/// 7. Programs may read parts of a document before all of it is here. What is in one inode descends
///    from one version, which is noted by the inode before any part is published. The next attempt
///    continues with the parts of that version; for any other version the document gets another
///    inode.
/// 8. Of two contents that know nothing of each other both are kept, the remote's under the name.
///
/// The order of steps: content comes before the note of it here (a crash leaves content that is
/// compared), and a remote's answer before its note (a crash leaves two equal contents, which are
/// compared).
///
/// step() and what it calls belong to one thread, the engine's, which holds the mutex except while
/// the remote works or bytes are copied. Every other public member may be called from any thread.
/// After the mutex was released everything is loaded again. An item with a transfer under way is
/// busy: nothing else touches it.
class Engine {
 public:
  /// Runs a transfer, now or on another thread; never while the engine's mutex is held.
  using Executor = std::function<void(std::function<void()>)>;
  /// Called when step() has something to do, from any thread.
  using Wake = std::function<void()>;
  struct Transfer;

  Engine(MirrorOptions options, Remote& remote, Executor executor, Wake wake);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  Result<void> open();
  /// No transfer is begun any more, and those under way are given up.
  void close();

  /// Does one round: looks at what has changed here and there, and settles what is due. Returns
  /// whether there is more to do at once.
  bool step();
  /// How long step() has nothing to do unless something happens, in milliseconds; absent if for
  /// ever.
  std::optional<std::int64_t> idleFor();
  /// Becomes readable when something has changed here.
  int descriptor() const { return inotify_.descriptor(); }

  // As in Mirror.h.
  Result<void> provide(const std::string& path);
  void hurry(const std::string& path, std::uint64_t offset, std::uint64_t size);
  Result<void> evict(const std::string& path);
  Result<void> pin(const std::string& path, bool isPinned);
  Result<MirrorStatus> status(const std::string& path);
  std::vector<MirrorTransfer> transfers();
  Result<void> cancel(const std::string& path);
  std::vector<MirrorConflict> conflicts();
  ChangeJournal& changes() { return changes_; }
  /// Returns the paths of those items that are here, without the root.
  std::vector<std::string> pathsOf(const std::vector<ItemNumber>& numbers);
  Result<void> take(const std::string& copy);
  void beginSync(bool confirmRemovals);
  bool isQuiet();
  MirrorHealth health();
  void itemChanged(const std::string& path);
  Result<std::string> identifierForItem(const std::string& path);
  Result<std::string> pathForItem(const std::string& identifier);

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Numbers = std::vector<ItemNumber>;
  /// A place by its directory and its name.
  using Key = std::pair<ItemNumber, std::string>;

  // What was seen on one side and is not in the tree yet.
  struct Observation {
    /// Directories that have to be read, and whether everything below them has to be as well.
    std::deque<std::pair<ItemNumber, bool>> directories;
    std::set<std::pair<ItemNumber, std::string>> names;
    /// Items that are not in their place any more, and entries that belong to no known item.
    std::set<ItemNumber> missing;
    std::map<std::pair<ItemNumber, std::string>, Node> found;
    /// When the first and the last item disappeared, while more may still disappear.
    std::optional<std::int64_t> firstGone;
    std::int64_t lastGone = 0;
    bool isEmpty() const {
      return directories.empty() && names.empty() && missing.empty() && found.empty();
    }
  };

  // EngineObserve.cpp
  bool observeHere(Lock& lock);
  bool observeThere(Lock& lock);
  void takeEvents();
  void lookHere(ItemNumber directory, const std::string& name);
  void noteHere(ItemNumber directory, int file, const std::string& name, bool recursive);
  void readDirectoryHere(ItemNumber directory, bool recursive);
  Result<void> identify(Lock& lock);
  Result<void> readDirectoryThere(Lock& lock, ItemNumber directory, bool recursive);
  void listAhead(Lock& lock);
  std::shared_ptr<Listing> nextListing(ItemNumber directory, const std::string& path);
  void popDirectoryThere();
  void endListings();
  std::unordered_map<std::string, std::pair<ItemNumber, Node>> entriesOf(Side side,
                                                                         ItemNumber directory);
  Result<void> lookThere(Lock& lock, ItemNumber directory, const std::string& name);
  std::optional<ItemNumber> note(Side side, Node node, bool recursive);
  bool noteAsBefore(Side side, const std::pair<ItemNumber, Node>& known, const Node& node,
                    bool recursive);
  void noteGone(Side side, const Place& place);
  void beginChange(const Place& place);
  void endChange(const Place& place);
  bool isOvertaken(Side side, const Place& place);
  std::optional<ItemNumber> itemThere(const std::string& path);
  void missNowhere(Side side);
  void noteAbsent(Side side, ItemNumber directory, Numbers seen);
  Result<void> resolve(Lock& lock, Side side);
  void assign(Side side, const std::set<ItemNumber>& still);
  void dropMissing(Side side);
  Result<bool> isStillAt(Lock& lock, Side side, const Item& item);
  void removeFrom(Side side, ItemNumber number, bool movedOut);
  void put(Side side, Item& item, Node node);
  Item goneOrNew(Side side, const Node& node);
  std::optional<Item> movingTo(Side side, const Node& node);
  std::optional<Item> renamedTo(Side side, const Node& node);
  bool restoreMark(int directory, const std::string& name, const LocalEntry& entry);
  std::vector<Item> knownHere(const std::string& identity);
  void freeLinks(const std::string& identity);
  Observation& seen(Side side) { return side == Side::here ? here_ : there_; }
  bool stays(ItemNumber directory, const std::string& name, const LocalEntry& entry);
  bool cleanUp(ItemNumber number, int directory, const std::string& name, const LocalEntry& entry);
  bool finishRemoval(const std::string& name);
  void reveal(const Place& place);
  void recoverAside();
  Node nodeHere(Place place, const LocalEntry& entry) const;
  static Node nodeThere(Place place, const RemoteItem& item);
  static void agreeOnContent(Item& item, const Node& there);

  // EngineSettle.cpp
  bool settleDue(Lock& lock);
  bool makeNewHere(Lock& lock, std::size_t atLeast);
  std::optional<LocalEntry> makeHere(int directory, const Node& there);
  void agreeOnNew(ItemNumber number, const Node& here);
  enum class Outcome { done, again, later };
  Outcome settle(Lock& lock, ItemNumber number);
  Outcome settleOnce(Lock& lock, Item item);
  Outcome newHere(Lock& lock, const Item& item);
  Outcome removeStray(const Item& item);
  void relink(const std::string& identity, const Node& now);
  bool unlinkOthers(const Item& item);
  Outcome newThere(Lock& lock, const Item& item);
  Outcome meet(Lock& lock, Item item);
  Outcome goneThere(Lock& lock, const Item& item);
  std::optional<Outcome> askAgain(Lock& lock, const Item& item);
  Outcome goneHere(Lock& lock, const Item& item);
  Outcome both(Lock& lock, Item item);
  std::optional<Outcome> keepOverwritten(Lock& lock, const Item& item);
  Outcome attributes(Lock& lock, Item item);
  Outcome cover(const Item& item);
  Outcome moveHere(Lock& lock, const Item& item);
  Outcome moveThere(Lock& lock, const Item& item);
  Outcome refresh(const Item& item);
  bool leaveToOtherNames(const Item& item);
  std::optional<Outcome> reshapeHere(const Item& item, const Node& content,
                                     std::optional<std::int64_t> mode, Node& now);
  Announcement announceFor(ItemNumber number, Lock* lock);
  Outcome conflict(const Item& item);
  Result<RemoteItem> moveThere(Lock& lock, const Item& item, const Place& to);
  void noteMoved(const Item& item, const Place& to, const RemoteItem& moved);
  Result<bool> endMove(Lock& lock, const Item& item, const Place& to);
  void endMoves(Lock& lock);
  bool isInDoubt(ItemNumber directory);
  static std::string decisionOn(const LocalEntry& entry);
  bool removeEntry(int directory, const Place& place,
                   const std::function<bool(const LocalEntry&)>& isIt,
                   const std::optional<LocalEntry>& decided = {});
  Outcome removeHere(Lock& lock, const Item& noted);
  bool haveParent(Lock& lock, Side side, ItemNumber parent);
  bool haveRoom(Lock& lock, Side side, const Item& item, const Place& place);
  Outcome waitForClosing(const Item& item);
  Outcome waitForRoomThere(ItemNumber number);
  bool moveBeside(Lock& lock, const Item& item, const Place& place);
  bool setAside(const Item& item);
  bool setAsideUnknown(const Place& place);
  std::string conflictText() const;
  Outcome waitFor(ItemNumber number, std::int64_t milliseconds);
  Outcome waitForOthers(ItemNumber number);
  void lookAgain(Side side, const Place& place) {
    seen(side).names.emplace(place.parent, place.name);
  }
  static std::string pair(const Item& item);
  bool areDifferent(const Item& item);
  bool areOfOtherSizes(const Item& item);
  bool wasSent(const Place& place, const std::string& hash);
  void carrySent(const Place& from, const Place& to);
  std::optional<Item> senderTo(const Node& there);
  void adopt(const Item& sender, const Item& arrived);
  std::optional<Place> sentTo(ItemNumber number);
  void countRemovals();
  std::optional<std::int64_t> goingUntil(Side side);
  std::string heldBack();
  Outcome failed(const Item& item, const Error& error);
  Outcome failedHere(const Item& item, int errnum, const std::string& what);

  // EngineTransfer.cpp
  Outcome upload(Lock& lock, const Item& item);
  Outcome download(Lock& lock, const Item& item);
  Outcome compare(Lock& lock, const Item& item);
  Outcome recognise(Lock& lock, const Item& item);
  bool isTouchedOnly(const Item& item);
  std::shared_ptr<Transfer> begin(const Item& item, bool isUpload, std::int64_t total);
  void end(const std::shared_ptr<Transfer>& transfer);
  Outcome run(Lock& lock, std::function<void()> work);
  Result<void> fill(const std::shared_ptr<Transfer>& transfer);
  Result<void> fillOnce(const std::shared_ptr<Transfer>& transfer, const Item& item);
  Result<std::string> fetch(PlaceholderWriter& writer, Transfer& transfer, const Item& item,
                            const std::string& path);
  Result<std::string> hashThere(const std::string& path, const std::string& version,
                                Transfer& transfer);

  // EngineSpace.cpp
  Result<void> evictFile(const Item& item, const std::string& path);
  bool giveBack();
  void noteReader(const Item& item);
  bool bringAhead(Lock& lock);
  Numbers documentsAfter(const Item& item, ItemNumber top, std::size_t most);
  bool collectBelow(ItemNumber directory, const std::string& after, std::size_t most,
                    std::size_t& looks, Numbers& found);

  // Engine.cpp
  std::int64_t now() const;
  void change(ItemNumber number, const std::function<void(Item&)>& edit);
  template <class F>
  auto remotely(Lock& lock, F work) -> decltype(work());
  Error trouble(const Error& error);
  bool isInTrouble() const;
  void wellAgain();
  Result<qx::FileDescriptor> directoryHere(ItemNumber number);
  Result<qx::FileDescriptor> fileHere(const Item& item, int flags);
  Result<Item> find(Lock& lock, const std::string& path);
  std::string absolute(Side side, ItemNumber number);
  bool isBusy(ItemNumber number) const { return busy_.contains(number); }
  bool isBusyBelow(Side side, ItemNumber directory);
  bool isPinned(const Item& item);
  template <class F>
  auto guarded(F work) -> decltype(work());

  const MirrorOptions options_;
  Remote& remote_;
  const Executor executor_;
  const Wake wake_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Database> database_;
  std::optional<Items> items_;
  qx::FileDescriptor storage_;
  qx::FileDescriptor aside_;
  std::string storagePath_;
  std::string identifierPrefix_;
  std::atomic<bool> isClosed_ = false;

  qx::Inotify inotify_;
  std::unordered_map<ItemNumber, qx::Inotify::Watch> watches_;
  std::unordered_map<int, ItemNumber> watched_;
  std::unordered_map<ItemNumber, IgnoreRules> ignoreRules_;
  /// Inodes that documents are about to get: those of files that take the place of others.
  std::map<std::string, ItemNumber> coming_;
  Departures departures_;
  /// Places of files that nobody may read and that belong to no known item; and, by their identity,
  /// what those were that were looked at.
  std::vector<Place> hidden_;
  std::map<std::string, LocalEntry> revealed_;
  bool isObservingHere_ = false;
  Observation here_;
  Observation there_;

  std::int64_t lookHereAt_ = 0;
  std::int64_t lookThereAt_ = 0;
  std::int64_t makeNewAt_ = 0;  // while the remote is being listed
  std::atomic<bool> isToldOfChanges_ = false;
  std::atomic<bool> shallLookThere_ = true;
  bool hasLookedThere_ = false;
  /// The remote was found to be the one that it was, at least once.
  bool isIdentified_ = false;
  std::optional<std::string> cursor_;
  /// Listings of the first of the directories that have to be read there, in their order.
  std::deque<std::shared_ptr<Listing>> listings_;
  /// Places there that uploads are changing; places of which an upload, or the remote, has told
  /// something since it was asked for a listing that is not noted yet, with the count of such news
  /// at that time; and those of the first kind of which the remote has told since.
  std::multiset<Key> changing_;
  std::map<Key, std::uint64_t> overtaken_;
  std::set<Key> heard_;
  /// How much news of this kind there was, and what of it is known to the answer that is noted.
  std::uint64_t learnt_ = 0;
  std::uint64_t asOf_ = 0;
  /// Items whose move there was begun and not answered, and when it is asked next what has become
  /// of them. It may be done for one half: what is below them waits until that is known.
  std::set<ItemNumber> inDoubt_;
  std::int64_t endMovesAt_ = 0;

  std::optional<Error> trouble_;
  std::int64_t troubleUntil_ = 0;
  std::int64_t troubleTries_ = 0;
  /// Whether somebody wants the remote to be asked now, whatever its trouble was.
  bool shallTryAgain_ = false;
  std::chrono::sys_seconds since_{};
  MirrorHealth::State state_ = MirrorHealth::State::starting;
  std::optional<std::string> broken_;

  std::set<ItemNumber> settling_;
  /// Whether removals wait for a confirmation, as counted at the beginning of a round.
  bool areHeldHere_ = false;
  bool areHeldThere_ = false;
  /// Items whose two contents were compared and differ, with the names of both contents.
  std::map<ItemNumber, std::string> different_;
  std::map<ItemNumber, std::shared_ptr<Transfer>> busy_;
  /// Places here of documents that are being filled. What is written there is looked at when the
  /// filling has ended: noting each piece would mean to wait for the disk each time.
  std::multiset<Key> filling_;
  /// A program that reads the small documents of a tree: the directory in which all of them lie,
  /// when it last waited for one, and how many are brought in ahead of it at a time.
  struct Walk {
    ItemNumber top = 0;
    std::int64_t at = 0;
    std::size_t ahead = 0;
  };
  Walk walk_;
  /// Documents that it may want next, and those of them that are on their way.
  std::deque<ItemNumber> ahead_;
  unsigned aheadUnderWay_ = 0;
  /// When to look next whether there is more content here than may be; and what has come so lately
  /// that it stays for now, by the time of its coming.
  std::int64_t giveBackAt_ = 0;
  /// Whether something has changed since no more content was found here than may be.
  bool mayNeedSpace_ = true;
  std::map<ItemNumber, std::int64_t> arrived_;
  std::uint64_t transfersBegun_ = 0;
  /// The changes of items as status() tells of them; the root stands for the mirror as health()
  /// does.
  ChangeJournal changes_;
};

}  // namespace docsource::mirror
