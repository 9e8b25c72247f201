#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "docsource/placeholder.h"
#include "mirror/Items.h"
#include "platform/base/FileDescriptor.h"

/// What the mirror does to the files of its storage. Directories are passed as descriptors, and
/// names in them are never followed through a link. Functions that return false have set errno.
namespace docsource::mirror {

/// An entry of a directory as it is at the moment.
struct LocalEntry {
  /// Absent for what never leaves: links, devices, pipes, what lies on another file system.
  std::optional<Kind> kind;
  std::string identity;
  std::string version;
  std::int64_t size = 0;
  std::int64_t modified = 0;
  /// How many names the file has.
  std::uint64_t names = 1;
  /// The mode; for a placeholder, the document's.
  std::int64_t mode = 0;
  bool isPlaceholder = false;
  /// Whether it is a placeholder that is being filled, or whose filling was cut off.
  bool isProviding = false;
  /// Whether it is a placeholder to which somebody gave permissions where nobody guards it; `mode`
  /// has them.
  bool isExposed = false;
  /// Whether nobody may read it, so that it is not known whether it is a placeholder.
  bool isHidden = false;
};

/// Looks at a descriptor, or at an entry; absent with errno set.
std::optional<LocalEntry> lookAtFile(int file);
std::optional<LocalEntry> lookAt(int directory, const std::string& name);

/// Where the mark of an entry cannot be read, decides by what is known of that file.
void believe(std::optional<LocalEntry>& entry, const Node& known);

/// Opens a directory below another by its path ("" for itself); empty with errno set. Nothing on
/// the way may be a link.
qx::FileDescriptor openDirectoryBelow(int directory, const std::string& path);

/// Visits the names in a directory without "." and ".."; stops when `visit` returns false.
bool listDirectory(int directory, const std::function<bool(const std::string& name)>& visit);

/// Does the same for an entry that nobody may read; its owner may for that moment. Use it only
/// where no program comes by: in a directory of the mirror's own.
std::optional<LocalEntry> lookAtHidden(int directory, const std::string& name);

/// Opens a document without waiting for anybody who holds it.
qx::FileDescriptor openFile(int directory, const std::string& name, int flags);

/// Moves an entry, never over another.
bool moveEntry(int from, const std::string& name, int to, const std::string& newName);

using Announcement = Placeholder::Announcement;

/// Whether a program has emptied the placeholder of this content a moment ago. What it writes next
/// is content; platformd, which hears of it, takes the mark off.
bool wasJustEmptied(const LocalEntry& entry, const Node& content);

/// Makes a placeholder, which appears complete and never over another file. It is on disk after
/// syncFileSystem(). It is made in `aside`, which is on the same file system and which nobody
/// watches: where accesses are watched, each step would wait for leave.
std::optional<LocalEntry> makePlaceholder(int directory, int aside, const std::string& name,
                                          const Placeholder::Shape& shape);
/// Makes a directory with these permissions; it is on disk after syncFileSystem().
std::optional<LocalEntry> makeDirectory(int directory, const std::string& name, std::int64_t mode);
/// When this returns, everything that was done on the file system of the directory is on disk.
bool syncFileSystem(int directory);

/// Returns whether there is content in all of a file that may have been a placeholder: it has no
/// hole, and more than the zeros that a small one has in its first block.
bool holdsContent(int file, std::int64_t size);

/// Gives a placeholder another shape, and perhaps another inode, which is announced.
bool reshape(int file, const Placeholder::Shape& shape, const Announcement& announce);

enum class Giving { done, inUse, changed, failed };
/// Makes a placeholder of the shape `next` of a document whose content is that of `version`, unless
/// somebody has it open. Only `failed` sets errno.
Giving giveUpContent(int file, const std::string& version, const Placeholder::Shape& next,
                     const Announcement& announce);

/// Keeps others from opening the file (F_WRLCK) or opening it for writing (F_RDLCK), when nobody
/// has done so before; those who want to wait (fcntl(2), F_SETLEASE). Does not own the descriptor.
class Lease {
 public:
  Lease(int file, int kind);
  ~Lease();
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  /// Returns 0, or what prevented the lease: EAGAIN when somebody has the file open.
  int problem() const { return problem_; }

 private:
  int file_;
  int problem_ = 0;
};

/// Returns whether some program has the file open for writing; false where that cannot be asked.
bool isBeingWritten(int file);
/// Returns whether anybody but the caller has the file open; true where that cannot be asked.
bool isOpenElsewhere(int file);

Placeholder::Shape shapeOf(const Node& node);
/// Returns the shape of the content for a file that is here, whose permissions stay what they are;
/// those that were changed here are carried over afterwards. Only when the file is hidden, which
/// keeps them from being seen, they are named as they are known.
Placeholder::Shape shapeOf(const Node& content, const Node& here, const LocalEntry& now);

/// Returns the name with " (`what`)" before its last extension, and with a number from the second
/// attempt on, in at most 255 bytes.
std::string nameBeside(const std::string& name, const std::string& what, int attempt);

}  // namespace docsource::mirror
