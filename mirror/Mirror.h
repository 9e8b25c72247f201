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

/// The options of one account. The times are those that the programs use; tests use others.
struct MirrorOptions {
  /// The document storage, absolute. Made when it is missing.
  std::string storage;
  /// A directory of the mirror's own on the same file system, beside the storage: the database and
  /// what is under way. Made when it is missing.
  std::string state;
  /// The name of this machine in the names of conflict copies.
  std::string host;
  /// How long a document is left alone after a change before it is uploaded.
  std::chrono::milliseconds rest{2000};
  /// The same for a document that some program has open for writing.
  std::chrono::milliseconds restWhileOpen{60000};
  /// How often what is here is looked through, since nobody reports what is written through a name
  /// outside of the storage or through a mapping. It is done less often with more than ten thousand
  /// items.
  std::chrono::milliseconds lookThroughHere{100000};
  /// How often a remote that cannot tell what changed is looked through.
  std::chrono::milliseconds lookThrough{45000};
  /// How many uploads and downloads the mirror begins by itself at a time. Downloads for which
  /// somebody waits come on top, each on the thread that waits.
  unsigned transfers = 4;
  /// How many small documents are brought in at a time because a program goes through their
  /// directory.
  unsigned transfersAhead = 12;
  /// How many items that are new at the remote are made here at a time; so many appear before the
  /// rest of the remote is known.
  unsigned newAtATime = 250;
  /// How many bytes of content may be here. When there are more, content is given back, and first
  /// what has not been read for the longest time; never what is pinned, changed or open. When
  /// absent, nothing is given back.
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

/// Two versions of one document. To take the remote's, remove `copy`; to take ours, call
/// Mirror::take.
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
    /// Nothing is known of the remote yet, because the first look is under way.
    starting,
    offline,
    unauthorised,
    /// Another remote is in its place; nothing is changed here or there.
    wrongRemote,
    /// More has disappeared than is believed without asking: sync(true) confirms it.
    needsConfirmation,
    /// The mirror itself cannot work, for example because its disk is full.
    broken,
  };
  State state = State::starting;
  std::chrono::sys_seconds since;
  /// One sentence for a person, absent when ok.
  std::optional<std::string> reason;
  /// How many items have something to be carried to the remote (changed documents, new directories,
  /// moves, removals), and how many of them failed.
  std::uint64_t waiting = 0;
  std::uint64_t failed = 0;
  /// How many items the account has.
  std::uint64_t items = 0;
  /// How many removals wait for a confirmation, to be carried out here and there.
  std::uint64_t removalsHere = 0;
  std::uint64_t removalsThere = 0;
};

/// What has changed of what status(), conflicts(), transfers() and health() tell. The progress of a
/// transfer does not count.
struct MirrorChanges {
  /// Pass this to ask for what comes after.
  std::uint64_t last = 0;
  /// Items that are here; absent when everything may have changed.
  std::optional<std::vector<std::string>> paths;
};

/// The documents of one remote in one directory. They are shown as placeholders, brought in when
/// they are wanted, carried back when they change, and kept in agreement both ways. Engine.h says
/// what is promised and how it is kept.
///
/// Paths are absolute and below the storage; links above the storage may be resolved or not. Errors
/// are those of Error::file for what does not exist (ENOENT) or is not below the storage (EINVAL),
/// and those of the remote (remoteErrorDomain).
///
/// Everything may be called from any thread, after start() and before stop(). What is said to wait
/// does so on the caller's thread and holds up nobody else.
class Mirror {
 public:
  Mirror(MirrorOptions options, std::unique_ptr<Remote> remote);
  /// Stops.
  ~Mirror();
  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  /// Makes the storage where it is missing, opens the database and begins. It never waits for the
  /// remote. It is an error when storage or database cannot be had, or another process has them.
  Result<void> start();
  /// Ends what is under way and waits for that. What could not be carried over yet waits for the
  /// next start.
  void stop();

  /// Brings in the content of a document, or of everything below a directory, and waits for that.
  /// Succeeds when it is there. The document may have a second name outside of the storage.
  Result<void> provide(const std::string& path);
  /// Says that somebody waits for these bytes of a document that is being brought in. They come
  /// first where the remote can begin anywhere, and can be read as soon as they are there. Returns
  /// at once.
  void hurry(const std::string& path, std::uint64_t offset, std::uint64_t size);
  /// Makes a placeholder of it again, and of everything below it. EBUSY when a program has it open,
  /// or it has not been uploaded, or is pinned; nothing is left out silently.
  Result<void> evict(const std::string& path);
  /// Keeps it present from now on, with everything below it and what will be there later. Returns
  /// before it is brought in.
  Result<void> pin(const std::string& path);
  /// Unpins the item and everything below it; it is an error when a directory above is pinned.
  Result<void> unpin(const std::string& path);

  Result<MirrorStatus> status(const std::string& path);
  /// Returns them in the order in which they began.
  std::vector<MirrorTransfer> transfers();
  /// Cancels the transfers of an item, or of everything below it. A reader gets the error
  /// `cancelled`; an upload is `failed` until the document changes or sync() is called. ENOENT when
  /// there is none.
  Result<void> cancel(const std::string& path);

  std::vector<MirrorConflict> conflicts();
  /// Puts our version, the copy, in the place of the remote's, which is then replaced there.
  Result<void> take(const std::string& copy);

  /// Looks for changes on both sides now, tries again what failed, and waits until nothing is left
  /// to do or the remote cannot be reached. `confirmRemovals` allows what waits for a confirmation
  /// at this moment.
  Result<void> sync(bool confirmRemovals = false);
  MirrorHealth health();

  /// Returns the changes after those that were told with `last`; 0 asks for everything.
  MirrorChanges changesAfter(std::uint64_t last);
  /// Calls once, when there are such changes: from any thread, at once or later, or never when the
  /// mirror stops. The callback must not call the mirror on that thread.
  void whenChangedAfter(std::uint64_t last, std::function<void()> isThere);

  /// Looks at whatever has changed at the path. It is a hint; nothing depends on its coming.
  void itemChanged(const std::string& path);

  /// Returns the identifier, which stays the same as long as the item exists, whatever its name and
  /// however it is saved; also for a document that was just made.
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
