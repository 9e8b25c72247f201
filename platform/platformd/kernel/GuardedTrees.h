#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/identity/ProcessDirectory.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/platformd/kernel/FanotifyGroup.h"
#include "platform/platformd/kernel/GuardList.h"
#include "platform/platformd/kernel/PinnedInodes.h"

namespace qx::kernel {

/// The directory trees whose placeholders are guarded, their marks in both groups, and where in
/// them a file lies.
///
/// Every directory has a mark that covers the files in it. Every placeholder has one of its own,
/// which follows it wherever it is moved and covers every hard link to it. Such a mark keeps the
/// inode in memory, so only some of a user's placeholders have it for good (PinnedInodes), and
/// those that have several names or lie in no directory with a mark. The others have theirs for as
/// long as the kernel keeps the inode; when one of them gets another name, anywhere on the file
/// system, that is told, and the mark is for good from then on.
///
/// A tree that was added once stays until a look finds no placeholder in it and no doc source
/// claims it. What was moved
/// out and holds placeholders is guarded by itself. All of that is on the list (GuardList), so that
/// the next start guards it before anybody can read.
///
/// A tree, and everything in it that is touched, belongs to the tree's owner: directories and files
/// of others in it are passed over. Nothing is kept of single files or directories, and no
/// descriptor, which would prevent a file system from being unmounted. Any thread may use it; it
/// blocks on the file system.
class GuardedTrees {
 public:
  /// The groups must outlive this. `best` is what accesses are marked for where the file system
  /// supports it: preAccess or openPermission.
  GuardedTrees(const AccessGroup& accesses, const ChangeGroup& changes, std::uint64_t best,
               GuardList list, std::size_t mostPinned = PinnedInodes::usual);

  /// The result of a look at a tree.
  struct Scan {
    std::size_t directories = 0;
    std::size_t placeholders = 0;
    /// What the marks are for; 0 when there is nothing to mark, and `errnum` then tells why.
    std::uint64_t mask = 0;
    int errnum = 0;
    /// The files that are content, when they were asked for.
    std::vector<std::string> contents;
  };

  /// Marks the directories of everything that is on the list, and no file: what comes into them is
  /// reported from then on.
  void markDirectories();
  /// Marks everything that is on the list. What holds no placeholder is forgotten, unless it is
  /// claimed meanwhile.
  Scan guardAll();
  /// A doc source claims the tree. Remembers it, and then marks it, each directory before it is
  /// looked through, so that what comes into it afterwards is reported. Reveals placeholders that
  /// were concealed. `path` is without links. Gives EACCES, and remembers nothing, for a directory
  /// that is not the owner's, and for one that is away and was another's.
  Scan claim(uid_t owner, const std::string& path);
  /// Takes one claim of the owner's back. A tree without a claim is forgotten at once when it holds
  /// no placeholder, or when it is away and there is no room to remember it. Returns whether it was
  /// forgotten.
  bool release(uid_t owner, const std::string& path);
  /// Looks whether another directory is at the path now, and marks it. Absent when there is none.
  std::optional<Scan> lookAgain(const std::string& path);
  /// Marks again what is there, because events were lost.
  void markAgain(const std::string& path);
  /// Quickly marks a directory that came into a tree, and only that.
  void watch(int directory, uid_t owner);
  /// Marks a directory that came into a tree, and everything below it.
  Scan look(int directory, uid_t owner, bool wantsContents);

  std::vector<std::string> paths() const;

  /// Where a file lies in the trees.
  struct Place {
    std::string path;
    std::string tree;
    uid_t owner = 0;
  };
  /// Returns the place of an open file, however it was opened; absent when none of the paths that
  /// are found quickly lies in a tree. search(), which looks through all trees, finds every other
  /// name of it.
  std::optional<Place> locate(int file, const struct stat& status) const;
  std::optional<Place> search(const struct stat& status) const;
  /// Returns the innermost tree that holds the path.
  std::optional<Place> placeOf(const std::string& path) const;

  /// A directory that an event names.
  struct Directory {
    FileDescriptor file;
    std::string path;
    uid_t owner = 0;
    /// Empty when it lies in none.
    std::optional<Place> place;
  };
  /// Absent when the directory does not exist any more.
  std::optional<Directory> directory(const FileHandle& handle) const;

  /// Looks at a file of that owner that may have become a placeholder. If it is one, its accesses
  /// are reported from now on, whatever was allowed before; only then does it get back the
  /// permissions that it had, if it was concealed. `isCovered` says that its directory has a mark.
  /// It is not opened before its provider has closed it, because the provider may want a lease on
  /// it (fcntl(2), F_SETLEASE). Returns whether it is one.
  bool examine(int file, const struct stat& status, uid_t owner, bool isClosed,
               bool isCovered = true) const;
  /// Has no more events reported for the file until its content changes. Returns false, and takes
  /// that back, when it is, or has just become, a placeholder.
  bool settle(int file) const;
  /// Returns whether only openings are reported of the files of that device.
  bool tellsOfOpeningsOnly(dev_t device) const;

  /// Where the files are reported that get a name, in a tree or elsewhere, for wasNamed(). Null
  /// where the kernel has no such group; every mark is for good then. It ends with this process:
  /// what it would have told until the next one serves, that finds by looking.
  const ChangeGroup* names() const { return names_.ok() ? &*names_ : nullptr; }
  void wasNamed(const FileHandle& what) const;
  /// Something left a tree, or lost its name there. Guards it by itself if it is a placeholder, or
  /// a directory that holds some. May wait for the disk.
  void wasMoved(const FileHandle& what);

  /// Makes all guarded placeholders unreadable, whether they have marks yet or not, and for good:
  /// nothing makes any of them readable again. Returns how many.
  std::size_t conceal();

 private:
  struct Tree {
    Guarded entry;
    std::optional<FileIdentity> identity;  // of what was marked last
    std::size_t claims = 0;
    bool isRemembered = false;
  };
  using Visit = std::function<void(int file, const struct stat& status, const std::string& path)>;

  std::uint64_t markDirectory(int directory, dev_t device, int& errnum);
  Scan mark(int root, const std::string& path, uid_t owner, bool wantsContents);
  /// Visits the regular files of the owner, unless nobody wants that; a directory for which `enter`
  /// returns false is left out.
  static void walk(int root, const std::string& path, uid_t owner,
                   const std::function<bool(int directory, const struct stat& status,
                                            const std::string& path)>& enter,
                   const Visit& visit);
  /// Opens the directory at a path, if it is the owner's; empty, with errno set, otherwise.
  static FileDescriptor openRoot(const std::string& path, uid_t owner);
  static std::size_t countPlaceholders(int root, const std::string& path, uid_t owner);
  /// Marks what is at the tree's path, and remembers which directory that is.
  Scan lookAt(const std::string& path, uid_t owner);
  Scan guardMoved(const Guarded& entry);
  /// Has a placeholder's accesses reported, wherever it gets to. `isCovered` says that its
  /// directory has a mark.
  void watchPlaceholder(int file, const struct stat& status, bool isCovered) const;
  /// Returns whether its mark may go with its inode: it comes back by the directory's.
  bool mayBeForgotten(int file, uid_t owner) const;
  FileDescriptor mountOf(const FileHandle::FileSystem& fileSystem) const;
  FileDescriptor openByHandle(const FileHandle& handle, int flags) const;
  std::optional<Place> verified(const std::optional<std::string>& path,
                                const FileIdentity& identity) const;

  const AccessGroup& accesses_;
  const ChangeGroup& changes_;
  const Result<ChangeGroup> names_ = ChangeGroup::create();
  const std::uint64_t best_;
  mutable PinnedInodes pinned_;
  std::atomic<bool> isConcealing_{false};
  /// Held for what is done to the permissions of a placeholder. No other one is taken meanwhile.
  mutable std::mutex permissionsMutex_;

  mutable std::mutex mutex_;
  // Guarded by the mutex.
  std::map<std::string, Tree, std::less<>> trees_;  // by their paths
  std::map<dev_t, std::uint64_t> masks_;            // what is marked on each device

  std::mutex listMutex_;  // before the other one
  GuardList list_;
};

}  // namespace qx::kernel
