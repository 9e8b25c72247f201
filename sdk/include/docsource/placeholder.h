#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "docsource/error.h"

/// Placeholders: files that have the name, size and times of a document and none of its content.
///
/// A placeholder is a sparse file with the extended attribute (xattr(7))
/// "user.docsource.placeholder". While the attribute is there, whatever its value, the content is
/// not to be trusted and the platform keeps readers waiting:
///
///     "placeholder"           nothing is there
///     "providing PID START"   that process fills it at the moment; START is when the process was
///                             started (proc_pid_stat(5), field 22). Once it is gone, the file is
///                             a placeholder like any other.
///     no attribute            the content is there
///
/// The attribute "user.docsource.provided" of a document holds the version() that was there when
/// it last agreed with what its provider has. A document that has neither attribute and occupies
/// less than its size counts as a placeholder for everybody but its provider (placeholderStatus).
///
/// The attribute comes, durably, before content goes, and goes after the content is there and
/// durable: a crash or a loss of power at any moment leaves a placeholder or the whole content.
namespace docsource {

enum class PlaceholderState { present, placeholder, providing };

struct PlaceholderStatus {
  PlaceholderState state = PlaceholderState::present;
  /// In bytes, as stat(2) tells it.
  std::uint64_t size = 0;
  /// What it takes of the disk, in bytes (st_blocks * 512, inode(7)). File systems count blocks of
  /// extended attributes in, so that a placeholder may occupy one.
  std::uint64_t occupied = 0;
  /// Whether the document was changed since it was provided; absent when nobody noted that.
  std::optional<bool> changed;
};

/// Of the regular file that the path leads to; an error for anything else. The file is not opened,
/// so that asking brings in no content and waits for nobody. Any thread.
DOCSOURCE_API Result<PlaceholderStatus> placeholderStatus(const std::string& path);

/// Whether somebody has the file open or mapped, apart from the open file that `file` stands for
/// and its duplicates (fcntl(2), F_SETLEASE). Needs to be the file's owner or CAP_LEASE, and a file
/// system with leases; an error otherwise. Any thread.
DOCSOURCE_API Result<bool> isFileInUse(int file);

/// Where the two texts that belong to a placeholder are kept. Extended attributes unless a provider
/// has something else, for file systems without them; others then know placeholders by their being
/// sparse alone. Operations on different files may come at the same time.
class DOCSOURCE_API PlaceholderMarks {
 public:
  static constexpr const char* placeholder = "placeholder";
  static constexpr const char* provided = "provided";

  virtual ~PlaceholderMarks();
  /// Absent when the file has no mark of that name.
  virtual std::optional<std::string> get(int file, const char* name) const = 0;
  /// These set errno when they fail. A mark that is set has to be durable after fsync(2) of `file`;
  /// clearing one that is not there succeeds.
  virtual bool set(int file, const char* name, const std::string& value) const = 0;
  virtual bool clear(int file, const char* name) const = 0;

  /// "user.docsource.<name>".
  static const PlaceholderMarks& extendedAttributes();
};

class PlaceholderWriter;

/// An open file, as a placeholder or as one that may become one. Neither owns the descriptor, which
/// is open for reading and writing, nor the marks; both have to outlive this object. One thread at
/// a time for each file. Errors are those of Error::file.
class DOCSOURCE_API Placeholder {
 public:
  using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

  /// What a placeholder shows of its document.
  struct Shape {
    std::uint64_t size = 0;
    Time modified{};
    /// The time of the last access stays what it is when absent.
    std::optional<Time> accessed;
  };
  static Result<Shape> shapeOf(int file);

  /// Makes a placeholder that appears at `path` at once and whole (open(2), O_TMPFILE). Error 256
  /// over EEXIST when there is something already, which stays untouched. `mode` as for open(2).
  static Result<void> make(const std::string& path, const Shape& shape, unsigned mode = 0644);

  explicit Placeholder(int file,
                       const PlaceholderMarks& marks = PlaceholderMarks::extendedAttributes())
      : file_(file), marks_(&marks) {}

  /// By the marks alone: what a provider that marks all its placeholders goes by.
  PlaceholderState state() const;

  /// The size becomes the shape's, all blocks but the first go, and what was in it is lost (the
  /// first holds zeros, and is there for programs that copy files: they skip holes without reading,
  /// and would not wait for the content). For a new file before it gets its name, for a
  /// placeholder whose document has changed, for what a crash has left. The file is never smaller
  /// than both sizes meanwhile. A new, empty file is not made durable: do that before it gets its
  /// name, for many files at once (syncfs(2)) or for one (fsync(2)).
  Result<void> reset(const Shape& shape) const;

  /// Begins to bring the content in: in place, so that whoever has the file open, or waits to read
  /// it, sees the result. In a placeholder nothing is left of an earlier attempt. Of a file with
  /// content, which is a placeholder from now on, what is not written over stays.
  Result<PlaceholderWriter> fill() const;

  /// Which content is in the file: inode, size and modification time. What a program changes
  /// without the time changing is not seen; the time of the last status change is left out, as
  /// attributes, permissions and renames move it too.
  Result<std::string> version() const;
  /// Whether the content is another one than when it was provided; true also when that is unknown.
  bool isChanged() const;
  /// The provider has the content of that version.
  Result<void> setUnchanged(const std::string& version) const;

  enum class Eviction {
    evicted,
    /// It has no content, or is being filled.
    notPresent,
    /// Some program has it open or mapped, or waits to open it. The kernel does not tell which.
    inUse,
    /// isChanged().
    changed,
  };
  /// Makes a placeholder of it again unless something speaks against it. Who opens it meanwhile
  /// waits, and finds a placeholder. Size and times stay, or become those of `shape`. Needs what
  /// isFileInUse() needs. A program that waits to open the file makes the kernel send SIGURG, which
  /// does nothing unless it is handled.
  Result<Eviction> evict(const std::optional<Shape>& shape = std::nullopt) const;

 private:
  friend class PlaceholderWriter;
  Error error(int errnum) const;
  Result<Eviction> markUnlessInUse() const;

  int file_;
  const PlaceholderMarks* marks_;
};

/// Fills one placeholder. Without finish() it becomes a placeholder again, and what was written is
/// given back, when the writer is destroyed.
class DOCSOURCE_API PlaceholderWriter {
 public:
  PlaceholderWriter(PlaceholderWriter&& other) noexcept;
  PlaceholderWriter& operator=(PlaceholderWriter&&) = delete;
  ~PlaceholderWriter();

  /// After the bytes of the last call, the first time at the beginning.
  Result<void> write(std::string_view bytes);
  /// Anywhere, in any order; write() goes on behind it.
  Result<void> writeAt(std::uint64_t offset, std::string_view bytes);

  /// The whole of another open file, from its beginning, to the beginning of this one; write() goes
  /// on behind it. The kernel copies where it can (copy_file_range(2)), and begins to write to disk
  /// meanwhile.
  Result<void> copy(int source);

  /// The content is complete: makes it durable, sets size and times, and makes it present. The
  /// writer is then of no more use. After an error the file is a placeholder.
  Result<void> finish(const Placeholder::Shape& shape);

 private:
  friend class Placeholder;
  PlaceholderWriter(const Placeholder& placeholder, const Placeholder::Shape& shape)
      : placeholder_(placeholder), shape_(shape) {}

  Placeholder placeholder_;
  Placeholder::Shape shape_;
  std::uint64_t position_ = 0;
  bool isOpen_ = true;
};

}  // namespace docsource
