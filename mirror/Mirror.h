#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "docsource/error.h"
#include "docsource/remote.h"

namespace docsource {

/// Of one account. Times are what the programs use; tests use others.
struct MirrorOptions {
  /// The document storage, absolute. Made when it is missing.
  std::string storage;
  /// A directory of the mirror's own on the same file system, beside the storage: the database and
  /// what is under way. Made when it is missing.
  std::string state;
  /// In the names of conflict copies.
  std::string host;
  /// So long a document is left alone after it was changed before it is uploaded.
  std::chrono::milliseconds rest{2000};
  /// A document that some program has open for writing rests longer.
  std::chrono::milliseconds restWhileOpen{60000};
  /// How often what is here is looked through, since nobody tells of what is written through a name
  /// outside of the storage or through a mapping; less often with more than ten thousand items.
  std::chrono::milliseconds lookThroughHere{100000};
  /// How often a remote is looked through that cannot tell what changed.
  std::chrono::milliseconds lookThrough{45000};
  /// Uploads and downloads that the mirror begins itself, at a time. Downloads that somebody waits
  /// for come on top, each on the thread that waits.
  unsigned transfers = 4;
  /// Small documents that are brought in because a program goes through their directory, at a time.
  unsigned transfersAhead = 12;
  /// So many bytes of content may be here. What is more is given back, that first which was not
  /// read for longest; never what is pinned, changed or open. Absent: nothing is given back.
  std::optional<std::uint64_t> keep;
};

enum class MirrorItemState {
  present,
  placeholder,
  providing,
  /// Changed here, not uploaded yet.
  changed,
  uploading,
  failed,
  /// There is a conflict copy of it, or it is one.
  conflict,
  /// Stays here: a link, a second name of a file, a special file, a temporary file of an editor, or
  /// what .docsourceignore names.
  localOnly,
};

struct MirrorStatus {
  MirrorItemState state = MirrorItemState::present;
  /// Why it failed or stays here, one sentence.
  std::optional<std::string> reason;
  bool isDirectory = false;
  bool isPinned = false;
};

struct MirrorTransfer {
  std::string path;
  bool isUpload = false;
  /// Bytes.
  std::uint64_t done = 0;
  std::uint64_t total = 0;
};

/// Two versions of one document. Taking the remote's: remove `copy`. Taking ours: Mirror::take.
struct MirrorConflict {
  /// Where the remote's version is.
  std::string path;
  /// Where ours is.
  std::string copy;
  std::chrono::sys_seconds since;
};

struct MirrorHealth {
  enum class State {
    ok,
    /// Nothing is known of the remote yet: the first look is under way.
    starting,
    offline,
    unauthorised,
    /// Another remote is in its place; nothing is changed here or there.
    wrongRemote,
    /// More is gone than is believed without asking: sync(true) confirms it.
    needsConfirmation,
    /// The mirror itself cannot work, its disk being full for example.
    broken,
  };
  State state = State::starting;
  std::chrono::sys_seconds since;
  /// One sentence for a person, absent when ok.
  std::optional<std::string> reason;
  /// Items that have something to be carried to the remote (changed documents, new directories,
  /// moves, removals), and those of them that failed.
  std::uint64_t waiting = 0;
  std::uint64_t failed = 0;
  /// Items of the account.
  std::uint64_t items = 0;
  /// What waits for a confirmation: removals to be carried out here, and there.
  std::uint64_t removalsHere = 0;
  std::uint64_t removalsThere = 0;
};

/// What became different of what status(), conflicts(), transfers() and health() tell; how much of
/// a transfer is done does not count.
struct MirrorChanges {
  /// To ask for what comes after.
  std::uint64_t last = 0;
  /// Items that are here; absent when everything may be different.
  std::optional<std::vector<std::string>> paths;
};

/// The documents of one remote in one directory: shown as placeholders, brought in when they are
/// wanted, carried back when they change, and kept in agreement both ways. Engine.h says what is
/// promised and how it is held.
///
/// Paths are absolute and below the storage, links before the storage resolved or not. Errors are
/// those of Error::file for what is not there (ENOENT) or not below the storage (EINVAL), and those
/// of the remote (remoteErrorDomain).
///
/// Threads: everything may be called from any thread, after start() and before stop(). What is said
/// to wait does so on the caller's thread and holds up nobody else.
class Mirror {
 public:
  Mirror(MirrorOptions options, std::unique_ptr<Remote> remote);
  /// Stops.
  ~Mirror();
  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  /// Makes the storage where it is missing, opens the database and begins. Never waits for the
  /// remote. An error when storage or database cannot be had, or another process has them.
  Result<void> start();
  /// Ends what is under way and waits for it. What could not be carried out yet waits for the next
  /// start.
  void stop();

  /// Brings the content of a document in and waits for that; success when it is there. Everything
  /// below, for a directory. The document may have a second name outside of the storage.
  Result<void> provide(const std::string& path);
  /// While it is being brought in: somebody waits for these bytes, which come first where the
  /// remote can begin anywhere, and can be read as soon as they are there. Returns at once.
  void hurry(const std::string& path, std::uint64_t offset, std::uint64_t size);
  /// Makes a placeholder of it again, and of what is below it. EBUSY when a program has it open,
  /// or it has not been uploaded, or is pinned; nothing is left out silently.
  Result<void> evict(const std::string& path);
  /// Kept present from now on, as everything below it, and what will be there later. Returns
  /// before it is brought in.
  Result<void> pin(const std::string& path);
  /// The item and everything below it; an error when a directory above is pinned.
  Result<void> unpin(const std::string& path);

  Result<MirrorStatus> status(const std::string& path);
  /// In the order in which they began.
  std::vector<MirrorTransfer> transfers();
  /// Gives up the transfers of an item or of everything below it. A reader gets the error
  /// `cancelled`; an upload is `failed` until the document changes or sync() is called. ENOENT when
  /// there is none.
  Result<void> cancel(const std::string& path);

  std::vector<MirrorConflict> conflicts();
  /// Our version, the copy, takes the place of the remote's, which is then replaced there.
  Result<void> take(const std::string& copy);

  /// Looks for changes on both sides now, tries again what failed, and waits until nothing is left
  /// to do or the remote cannot be had. `confirmRemovals` allows what waits for a confirmation at
  /// this moment.
  Result<void> sync(bool confirmRemovals = false);
  MirrorHealth health();

  /// After those that were told with `last`; 0 asks for everything.
  MirrorChanges changesAfter(std::uint64_t last);
  /// Calls once, when there are such: from any thread, at once or later, or never when the mirror
  /// stops. The callback calls nothing of the mirror on that thread.
  void whenChangedAfter(std::uint64_t last, std::function<void()> isThere);

  /// Whatever has changed at the path is looked at. A hint; nothing depends on its coming.
  void itemChanged(const std::string& path);

  /// The same for an item as long as it exists, whatever it is called and however it is saved. For
  /// a document that was made a moment ago, too.
  Result<std::string> identifierForItem(const std::string& path);
  Result<std::string> pathForItem(const std::string& identifier);

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

/// A directory of this machine, perhaps on a mounted share (extensions/folder). `directory` is
/// absolute; nothing in it is looked at before the first operation.
std::unique_ptr<Remote> makeFolderRemote(const std::string& directory);

}  // namespace docsource
