#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/identity/ProcessDirectory.h"
#include "platform/platformd/kernel/FanotifyGroup.h"

namespace qx::kernel {

/// The directory trees whose files are watched: the marks in both groups, and what tells which
/// file an event is about.
///
/// Every directory has a mark that covers the files in it, and every placeholder one of its own,
/// which follows it wherever it is moved and covers every hard link to it. Marks go with their
/// inodes only: a tree that is not looked after any more stays watched as long as the groups live.
/// Any thread; blocks on the file system.
class MarkedTrees {
 public:
  static constexpr std::size_t leastCrowd = 5000;

  /// The groups must outlive this. `best` is what to mark for where the file system has it:
  /// preAccess or openPermission.
  MarkedTrees(const AccessGroup& accesses, const ChangeGroup& changes, std::uint64_t best)
      : accesses_(accesses), changes_(changes), best_(best) {}

  /// What a look at a tree came to.
  struct Scan {
    std::size_t directories = 0;
    std::size_t placeholders = 0;
    /// What the marks are for; 0 when there is nothing to mark, `errnum` telling why.
    std::uint64_t mask = 0;
    int errnum = 0;
    /// The files that are content, where somebody else made them.
    std::vector<std::string> contents;
  };
  /// Whose a tree's files are that have holes and no sign of a placeholder.
  enum class Maker { provider, somebodyElse };
  /// Marks the directory and everything below it, each directory before it is looked through, so
  /// that what comes into it afterwards is told. Placeholders that were concealed are revealed.
  Scan mark(const std::string& directory, Maker maker = Maker::provider);

  /// The path of a marked directory, by ChangeGroup::keyOf().
  std::optional<std::string> directoryWithKey(const std::string& key) const;

  /// A path in the marked trees that leads to the open file, whatever it was opened by.
  std::optional<std::string> pathOf(int file, const struct stat& status) const;

  /// Looks at a file that may have become a placeholder. It is not opened before its provider has
  /// closed it, who may want it for himself (fcntl(2), F_SETLEASE). Returns whether it is one.
  bool examine(const std::string& path, bool isClosed);
  /// The same for one that somebody other than the provider made or changed: holes are meant.
  void examineForeign(const std::string& path, const struct stat& status, bool isModified);
  /// The file has its content: no more events until that changes.
  void settle(int file, const struct stat& status, std::uint64_t mask);

  /// Whether the file's modification time is another than when this was last asked or it was last
  /// looked at; false for a file seen for the first time.
  bool hasChanged(const struct stat& status);

  /// Makes the placeholders in the directories and below unreadable, whether marks have come to
  /// them or not, and for good: mark() makes none readable any more. Returns how many.
  std::size_t conceal(std::vector<std::string> directories);

  /// Whether so many files are known that it is time to forgetGone(); says it once for each time.
  bool isCrowded();
  /// Forgets files and directories that are not there any more: nothing tells of their end.
  void forgetGone();
  std::size_t countOfFiles() const;

 private:
  std::uint64_t markDirectory(int directory, int& errnum);
  bool examineLocked(const std::string& path, const struct stat& status, bool isClosed);

  const AccessGroup& accesses_;
  const ChangeGroup& changes_;
  const std::uint64_t best_;

  mutable std::mutex mutex_;
  // Under the mutex.
  std::map<std::string, std::string> paths_;         // of directories, by their key
  std::map<FileIdentity, std::string> directories_;  // the same, by identity
  std::map<FileIdentity, std::string> placeholders_;
  struct Time {
    std::pair<std::int64_t, std::int64_t> modified;
    std::uint64_t round = 0;  // in which it was learnt
  };
  std::map<FileIdentity, Time> times_;
  std::size_t crowd_ = leastCrowd;
  std::uint64_t round_ = 0;  // counts the times of forgetting
  bool isConcealing_ = false;
};

}  // namespace qx::kernel
