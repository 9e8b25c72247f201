#pragma once

#include <sys/types.h>

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Error.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/base/URL.h"

namespace qx {

/// How an item lies relative to a directory. The values are the platform's own.
enum class DirectoryRelationship { contains = 0, same = 1, other = 2 };

/// Questions and changes to the file system. There is no state; any thread may call them. Paths are
/// absolute.
namespace FileManager {

/// Returns whether anything of that name exists (stat(2), so a dangling link does not count).
bool fileExists(const std::string& path);

/// Makes a directory and its missing ancestors with default attributes (0777 less the umask).
std::optional<Error> createDirectory(const std::string& path);

/// Absent when the file cannot be opened; errno then tells why. A read that fails sets badbit.
std::unique_ptr<std::istream> inputStream(const std::string& path);

/// Returns how `item` lies relative to `directory`. It compares device and inode after resolving
/// symbolic links, so what is reached by a link that leads out of the directory is not contained.
/// For an item that does not exist yet, its deepest existing ancestor decides, and the rest of the
/// path is appended, ".." in it included. A link that leads to nothing counts as where it leads;
/// links of procfs are refused.
///
/// Fails with 260 of QXStandardErrorDomain, the directory's URL under QXURLErrorKey, when the
/// directory does not exist, and with 256 for any other reason (an absent URL or one that is not a
/// file URL among them).
Result<DirectoryRelationship> getRelationship_ofDirectoryAtURL_toItemAtURL(
    const std::optional<URL>& directory, const std::optional<URL>& item);

/// Answers the same question for one item and any number of directories. The way to the item is
/// walked once, at the first question that needs it, and only as far up as the answers need.
class ItemPlace {
 public:
  explicit ItemPlace(const std::optional<URL>& item)
      : item_(item), path_(item ? item->path() : std::nullopt) {}
  Result<DirectoryRelationship> relationshipToDirectoryAtURL(const std::optional<URL>& directory);

  struct Identity {
    dev_t device;
    ino_t inode;
    uid_t owner;
    friend bool operator==(const Identity& a, const Identity& b) {
      return a.device == b.device && a.inode == b.inode;
    }
  };
  /// Returns the directories that contain the item, the innermost first.
  Result<std::vector<Identity>> directories();

 private:
  class Walk;
  /// Returns the errno of what prevented the walk, or 0.
  int walk();
  /// Takes a path on which there are no links. Returns false when it is not known to be one.
  bool goStraight();
  /// Looks at the next directory above. Returns false when there is none.
  Result<bool> climb();

  const std::optional<URL> item_;
  const std::optional<std::string> path_;
  std::optional<int> walked_;          // what walk() returned
  std::vector<Identity> directories_;  // from the last one on the way up, as far as was looked
  std::size_t namesBelow_ = 0;         // names after the last one that are no directories
  FileDescriptor bottom_;              // while there may be more above: where it is looked from
  std::string above_;                  // the way from there to the next one
};

/// Removes a file or a whole tree without following links. ENOENT is no error.
std::optional<Error> removeTree(const std::string& path);

/// Returns the whole file, or the error.
Result<std::string> readFile(const std::string& path);

/// Replaces the file atomically and durably: a side file in the same directory is written and
/// renamed over the old one, and the directory is synced. A reader sees the old file or the new
/// one, whatever happens to the process or the machine. A failed write leaves the old file and no
/// side file. `write` is given a function that appends text. A link at `path` is replaced, not
/// followed. `mode` is the file's own, whatever the umask. A file size limit (RLIMIT_FSIZE) is an
/// error only where SIGXFSZ is ignored.
std::optional<Error> replaceFile(
    const std::string& path,
    const std::function<void(const std::function<void(std::string_view)>& append)>& write,
    unsigned mode = 0600);
std::optional<Error> replaceFile(const std::string& path, std::string_view text,
                                 unsigned mode = 0600);

/// Removes the side files of processes that were killed between naming one and renaming it. Only
/// for a directory in which nobody replaces a file meanwhile.
void removeSideFiles(const std::string& directory);

}  // namespace FileManager
}  // namespace qx
