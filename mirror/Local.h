#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "docsource/placeholder.h"
#include "mirror/Items.h"
#include "platform/base/FileDescriptor.h"

/// What the mirror does to the files of its storage. Directories are handed over as descriptors,
/// and names in them never follow a link. Functions that return false have set errno.
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
  /// Of a placeholder, the document's.
  std::int64_t mode = 0;
  bool isPlaceholder = false;
  /// A placeholder that is being filled, or was when whoever filled it ended.
  bool isProviding = false;
  /// A placeholder that somebody gave permissions where nobody guards it; `mode` has them.
  bool isExposed = false;
  /// Nobody's to read, so that it is not known whether it is a placeholder.
  bool isHidden = false;
};

/// Of a descriptor, or of an entry; absent with errno set.
std::optional<LocalEntry> lookAtFile(int file);
std::optional<LocalEntry> lookAt(int directory, const std::string& name);

/// Where the mark of an entry cannot be read, what is known of that file decides what it is.
void believe(std::optional<LocalEntry>& entry, const Node& known);

/// Opens a directory below another by its path ("" for itself); empty with errno set. Nothing on
/// the way may be a link.
qx::FileDescriptor openDirectoryBelow(int directory, const std::string& path);

/// The names in a directory without "." and ".."; stops when `visit` returns false.
bool listDirectory(int directory, const std::function<bool(const std::string& name)>& visit);

/// The same of what is nobody's to read, which its owner may for that moment. Only where no program
/// comes by: in a directory of the mirror's own.
std::optional<LocalEntry> lookAtHidden(int directory, const std::string& name);

/// A document is opened without waiting for anybody who holds it.
qx::FileDescriptor openFile(int directory, const std::string& name, int flags);

/// Never over something.
bool moveEntry(int from, const std::string& name, int to, const std::string& newName);

using Announcement = Placeholder::Announcement;

/// Makes a placeholder, which appears whole, and over nothing. On disk after syncFileSystem().
std::optional<LocalEntry> makePlaceholder(int directory, const std::string& name,
                                          const Placeholder::Shape& shape);
/// Everything that was done on the file system of the directory is on disk.
bool syncFileSystem(int directory);

/// Whether there is content in all of a file that may have been a placeholder: no hole, and more
/// than the zeros that a small one has in its first block.
bool holdsContent(int file, std::int64_t size);

/// A placeholder gets another shape, and perhaps another inode, which is announced.
bool reshape(int file, const Placeholder::Shape& shape, const Announcement& announce);

enum class Giving { done, inUse, changed, failed };
/// Makes a placeholder of the shape `next` of a document whose content is that of `version`, unless
/// somebody has it open. Only `failed` sets errno.
Giving giveUpContent(int file, const std::string& version, const Placeholder::Shape& next,
                     const Announcement& announce);

/// Held from when nobody else has the file open (F_WRLCK) or open for writing (F_RDLCK); who wants
/// to waits (fcntl(2), F_SETLEASE). Does not own the descriptor.
class Lease {
 public:
  Lease(int file, int kind);
  ~Lease();
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  /// 0, or what stood in the way: EAGAIN when somebody has it open.
  int problem() const { return problem_; }

 private:
  int file_;
  int problem_ = 0;
};

/// Whether some program has the file open for writing; false where that cannot be asked.
bool isBeingWritten(int file);
/// Whether anybody but the caller has the file open; true where that cannot be asked.
bool isOpenElsewhere(int file);

Placeholder::Shape shapeOf(const Node& node);
/// With the permissions of what is here: those that were changed here are carried afterwards.
Placeholder::Shape shapeOf(const Node& content, const Node& here);

/// The name with " (`what`)" before its last extension, and a number from the second attempt on, of
/// at most 255 bytes.
std::string nameBeside(const std::string& name, const std::string& what, int attempt);

}  // namespace docsource::mirror
