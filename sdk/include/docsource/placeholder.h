#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "docsource/error.h"

/// Placeholders: files that have the name, size and times of a document and none of its content.
///
/// A placeholder is a sparse regular file with the extended attribute (xattr(7))
/// "user.docsource.placeholder", the mark. It is words, separated by single spaces:
///
///     "placeholder inode:N:S.NNNNNNNNN"            nothing is there
///     "providing PID START inode:N:S.NNNNNNNNN"    that process fills it at the moment; START is
///                             when the process was started (proc_pid_stat(5), field 22). Once it
///                             is gone, the file is a placeholder like any other.
///     "there:BEGIN-END,..."   a further word: these bytes are in the file and on disk already, and
///                             are not taken out of it again
///     "mode:OCTAL"            a further word: the permissions of the document, where those of the
///                             placeholder are others
///
/// The word that begins with "inode:" names the inode that the mark was made for, by its number and
/// time of birth (statx(2)). On any other inode the mark means nothing: attributes are copied along
/// with content. A mark without that word counts while the file occupies less than its size. A file
/// without a mark is a document, however sparse.
///
/// The mark comes, durably, before content goes, and goes after the content is there and durable: a
/// crash or a loss of power at any moment leaves a placeholder or the whole content.
///
/// There are two ways to keep programs from reading what is not there; the library takes the one
/// that the machine needs at that moment. Where the platform keeps readers waiting (the file
/// "coordination" in the runtime directory says "access" or "open"), a document is filled and
/// emptied in place. Everywhere else, cooperative, a placeholder has no permissions, and content
/// comes and goes with a file that takes the other one's place: the inode changes, and nobody can
/// open what is not there. While two files change places, a file with a name that begins with
/// Placeholder::sideName lies beside them; a crash may leave it, and the provider removes it.
namespace docsource {

enum class PlaceholderState { present, placeholder, providing };

struct PlaceholderStatus {
  PlaceholderState state = PlaceholderState::present;
  /// In bytes, as stat(2) tells it.
  std::uint64_t size = 0;
  /// What it takes of the disk, in bytes (st_blocks * 512, inode(7)). File systems count blocks of
  /// extended attributes in, so that a placeholder may occupy one.
  std::uint64_t occupied = 0;
};

/// Of the regular file that the path leads to; an error for anything else. The file is not opened,
/// so that asking brings in no content and waits for nobody. A file that is nobody's to read, and
/// whose mark therefore cannot be read either, counts as a placeholder. Any thread.
DOCSOURCE_API Result<PlaceholderStatus> placeholderStatus(const std::string& path);

/// Whether somebody has the file open or mapped, apart from the open file that `file` stands for
/// and its duplicates (fcntl(2), F_SETLEASE). Needs to be the file's owner or CAP_LEASE, and a file
/// system with leases; an error otherwise. Any thread.
DOCSOURCE_API Result<bool> isFileInUse(int file);

class PlaceholderWriter;

/// A file, as a placeholder or as one that may become one. Does not own the descriptor, which may
/// be open in any way; O_PATH suits best, as it asks for no permission and is in nobody's way (with
/// another descriptor of the same process beside it nothing is evicted).
/// Where content comes in a file of its own, the descriptor keeps to the old one. One thread at a
/// time for each file. Errors are those of Error::file; the file system must have extended
/// attributes, and O_TMPFILE (open(2)). The caller owns the files, or has the capabilities to do as
/// if.
class DOCSOURCE_API Placeholder {
 public:
  using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

  /// How the names of files begin that the library leaves beside a document for a moment.
  static constexpr std::string_view sideName = ".docsource-";

  /// What a placeholder shows of its document.
  struct Shape {
    std::uint64_t size = 0;
    Time modified{};
    /// The time of the last access stays what it is when absent.
    std::optional<Time> accessed = std::nullopt;
    /// The permissions of the document (chmod(2)). They stay what they are when absent; those of a
    /// new one are 0644 then, less the umask.
    std::optional<unsigned> mode = std::nullopt;
  };
  /// The permissions are the document's, of a placeholder as well, where its mark can be read.
  static Result<Shape> shapeOf(int file);

  /// Told of the file that will stand at the path, before it does and before anything is lost: a
  /// provider that knows its documents by their inodes notes the new one now. With an error the
  /// file stays what it is.
  using Announcement = std::function<Result<void>(int file)>;

  /// Makes a placeholder that appears at `path` at once and whole (open(2), O_TMPFILE). Error 256
  /// over EEXIST when there is something already, which stays untouched.
  static Result<void> make(const std::string& path, const Shape& shape,
                           const Announcement& announce = {});

  explicit Placeholder(int file) : file_(file) {}

  PlaceholderState state() const;

  /// A placeholder of that shape from now on; what was in it is lost. Where readers are kept
  /// waiting, its first block holds zeros: programs that copy files skip holes without reading, and
  /// would not wait for the content. The file is never smaller than both sizes meanwhile. A file
  /// that was empty is made one without waiting for the disk: give it its name only after
  /// fsync(2), or one syncfs(2) for many.
  Result<void> reset(const Shape& shape, const Announcement& announce = {}) const;

  /// For each placeholder at set-up: sees that it is what the present way of coordination needs,
  /// which another one may have preceded.
  Result<void> adapt(const Announcement& announce = {}) const;

  /// Begins to bring the content in, all of it; nothing is left of an earlier attempt. Of a
  /// document that is present the content is another one afterwards; where it is filled in place it
  /// is a placeholder from now on.
  /// With `goesOn`, what an earlier attempt has published stays, and is told by the writer's
  /// parts(): for a provider that has remembered which version that is of. Otherwise a file with
  /// published parts is replaced by another one, which is published as a whole: who read them sees
  /// no other content behind them.
  Result<PlaceholderWriter> fill(bool goesOn = false) const;

  enum class Eviction {
    evicted,
    /// It has no content, or is being filled.
    notPresent,
    /// Some program has it open or mapped, or waits to open it, or it has several names and has to
    /// change its inode. The kernel does not tell which program.
    inUse,
    /// It is not of the shape that was provided.
    changed,
  };
  /// Makes a placeholder of it again, of the shape `next` or its own, unless something speaks
  /// against it. `provided` tells the content that the provider has: with another size or
  /// modification time, to the nanosecond, it was changed. What a program changes without the time
  /// changing is not seen. Who opens it meanwhile waits, and then finds a placeholder, or has kept
  /// the content there. Needs what isFileInUse() needs. A program that waits to open the file makes
  /// the kernel send SIGURG, which does nothing unless it is handled.
  Result<Eviction> evict(const Shape& provided, const std::optional<Shape>& next = std::nullopt,
                         const Announcement& announce = {}) const;

 private:
  int file_;
};

/// Fills one placeholder. Without finish() it stays or becomes one again when the writer is
/// destroyed; what was written is given back, unless parts of it were published, which stay.
class DOCSOURCE_API PlaceholderWriter {
 public:
  PlaceholderWriter(PlaceholderWriter&& other) noexcept;
  PlaceholderWriter& operator=(PlaceholderWriter&&) = delete;
  ~PlaceholderWriter();

  /// The file that will be the document: the placeholder itself, or a new one. Belongs to the
  /// writer; a provider that knows its documents by their inodes notes it before finish().
  int file() const;

  /// After the bytes of the last call, the first time at the beginning.
  Result<void> write(std::string_view bytes);
  /// Anywhere, in any order; write() goes on behind it.
  Result<void> writeAt(std::uint64_t offset, std::string_view bytes);

  /// What is there already of an earlier attempt, in order: offsets of the first byte and of the
  /// one behind the last.
  using Parts = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
  Parts parts() const;
  /// Lets programs go on that only read and wait for nothing else than these bytes, which were
  /// written or were there before, while the rest is being brought in: makes them durable, and then
  /// has the mark say that they are there. With none it says that there will be some, which has
  /// Provider::readerWaits() called. Does nothing where content comes in a file of its own. Any
  /// thread, while another one writes; one at a time, and not during finish().
  Result<void> publish(const Parts& parts);

  /// The whole of another open file, from its beginning, to the beginning of this one; write() goes
  /// on behind it. The kernel copies where it can (copy_file_range(2)), and begins to write to disk
  /// meanwhile.
  Result<void> copy(int source);

  /// The content is complete: makes it durable, sets size, times and permissions, and makes it
  /// present. The writer is then of no more use. After an error the file is a placeholder. An error
  /// over ESTALE says that another file stands at the path by now, which was left alone.
  Result<void> finish(const Placeholder::Shape& shape);

 private:
  friend class Placeholder;
  class Target;
  explicit PlaceholderWriter(std::unique_ptr<Target> target);

  std::unique_ptr<Target> target_;
  std::uint64_t position_ = 0;
};

}  // namespace docsource
