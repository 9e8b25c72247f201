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
///     "emptied inode:N:S.NNNNNNNNN"                a program has emptied it while it was filled;
///                             platformd makes an empty document of it
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
  /// Its size in bytes, as stat(2) reports it.
  std::uint64_t size = 0;
  /// The space that it occupies on the disk, in bytes (st_blocks * 512, inode(7)). File systems
  /// count blocks of extended attributes, so a placeholder may occupy one.
  std::uint64_t occupied = 0;
};

/// Returns the status of the regular file to which the path leads; an error for anything else. The
/// file is not opened, so asking brings in no content and waits for nobody. A file that nobody may
/// read, so that its mark cannot be read either, counts as a placeholder. Any thread may call it.
DOCSOURCE_API Result<PlaceholderStatus> placeholderStatus(const std::string& path);

/// Returns whether somebody has the file open or mapped, apart from the open file for which `file`
/// stands and its duplicates (fcntl(2), F_SETLEASE). The caller must own the file or have
/// CAP_LEASE, and the file system must have leases; otherwise it is an error. Any thread may call
/// it.
DOCSOURCE_API Result<bool> isFileInUse(int file);

class PlaceholderWriter;

/// A file that is a placeholder or may become one. It does not own the descriptor, which may be
/// open in any way. O_PATH suits best, because it needs no permission and prevents no eviction;
/// with another descriptor of the same process beside it nothing is evicted. Where content comes in
/// a new file, the descriptor stays that of the old one.
///
/// One thread at a time for each file. Errors are those of Error::file. The file system must have
/// extended attributes, and O_TMPFILE (open(2)). The caller owns the files, or has the capabilities
/// to act as their owner.
class DOCSOURCE_API Placeholder {
 public:
  using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

  /// The beginning of the names of files that the library leaves beside a document for a moment.
  static constexpr std::string_view sideName = ".docsource-";

  /// What a placeholder shows of its document.
  struct Shape {
    std::uint64_t size = 0;
    Time modified{};
    /// The time of the last access; when absent it stays as it is.
    std::optional<Time> accessed = std::nullopt;
    /// The permissions of the document (chmod(2)). When absent they stay as they are; a new file
    /// gets 0644 then, less the umask.
    std::optional<unsigned> mode = std::nullopt;
  };
  /// Returns the shape of a file. The permissions are the document's, also for a placeholder whose
  /// mark can be read.
  static Result<Shape> shapeOf(int file);

  /// Called with the file that will stand at the path, before it does and before anything is lost.
  /// A provider that knows its documents by their inodes notes the new one now. With an error the
  /// file stays what it is.
  using Announcement = std::function<Result<void>(int file)>;

  /// Makes a placeholder that appears at `path` at once and complete (open(2), O_TMPFILE). Gives
  /// error 256 over EEXIST when something is there already, which stays untouched.
  static Result<void> make(const std::string& path, const Shape& shape,
                           const Announcement& announce = {});

  explicit Placeholder(int file) : file_(file) {}

  PlaceholderState state() const;

  /// Makes the file a placeholder of that shape; its content is lost. Where readers are kept
  /// waiting, its first block holds zeros, because programs that copy files skip holes without
  /// reading, and would not wait for the content. Meanwhile the file is never smaller than the
  /// smaller of both sizes. An empty file becomes a placeholder without waiting for the disk: give
  /// it its name only after fsync(2), or after one syncfs(2) for many.
  Result<void> reset(const Shape& shape, const Announcement& announce = {}) const;

  /// Makes a placeholder fit the present way of coordination, when another one was in force before.
  /// For each placeholder at set-up.
  Result<void> adapt(const Announcement& announce = {}) const;

  /// Begins to bring in the whole content; nothing is left of an earlier attempt. The content of a
  /// present document is replaced; where it is filled in place the document is a placeholder from
  /// now on. With `goesOn`, what an earlier attempt has published stays, and the writer's parts()
  /// tells what that is: for a provider that has remembered which version that was. Otherwise a
  /// file with published parts is replaced by another one, which is published as a whole, so that
  /// programs that read those parts see no other content after them. With `onlyPlaceholder` it
  /// fails with ESTALE when the file is present: for who found a placeholder a moment ago, which a
  /// program may have emptied and written to since. What a program writes to a file that it has
  /// emptied is kept: the writer fails with ESTALE from then on.
  Result<PlaceholderWriter> fill(bool goesOn = false, bool onlyPlaceholder = false) const;

  enum class Eviction {
    evicted,
    /// It has no content, or is being filled.
    notPresent,
    /// A program has it open or mapped, or waits to open it; or it has several names and would have
    /// to change its inode. The kernel does not tell which program.
    inUse,
    /// It does not have the shape that was provided.
    changed,
  };
  /// Makes the document a placeholder again, of the shape `next` or its own, unless something
  /// prevents it. `provided` describes the content that the provider has: a document with another
  /// size or modification time, to the nanosecond, was changed, and one with other permissions,
  /// when `provided` names them. A change that keeps all of them is not
  /// seen. A program that opens it meanwhile waits, and then either finds a placeholder or has kept
  /// the content there. Needs what isFileInUse() needs. A program that waits to open the file makes
  /// the kernel send SIGURG, which does nothing unless it is handled.
  Result<Eviction> evict(const Shape& provided, const std::optional<Shape>& next = std::nullopt,
                         const Announcement& announce = {}) const;

 private:
  int file_;
};

/// Fills one placeholder. When it is destroyed without finish(), the file stays a placeholder or
/// becomes one again. What was written is given back, except for parts that were published.
class DOCSOURCE_API PlaceholderWriter {
 public:
  PlaceholderWriter(PlaceholderWriter&& other) noexcept;
  PlaceholderWriter& operator=(PlaceholderWriter&&) = delete;
  ~PlaceholderWriter();

  /// The file that will be the document: the placeholder itself, or a new one. It belongs to the
  /// writer. A provider that knows its documents by their inodes notes it before finish().
  int file() const;

  /// Writes after the bytes of the last call, at first at the beginning.
  Result<void> write(std::string_view bytes);
  /// Writes anywhere, in any order; write() continues after it.
  Result<void> writeAt(std::uint64_t offset, std::string_view bytes);

  /// What an earlier attempt has left, in order: offsets of the first byte and of the one after the
  /// last.
  using Parts = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
  Parts parts() const;
  /// Lets programs that only read, and wait only for these bytes, go on while the rest is being
  /// brought in. The bytes were written, or were there before. Makes them durable, and then has the
  /// mark say that they are there. An empty list says that there will be some; then
  /// Provider::readerWaits() is called. Does nothing where content comes in a new file. Any thread
  /// may call it, while another one writes; one at a time, and not during finish().
  Result<void> publish(const Parts& parts);

  /// Copies the whole of another open file, from its beginning, to the beginning of this one;
  /// write() continues after it. The kernel copies where it can (copy_file_range(2)), and begins to
  /// write to disk meanwhile.
  Result<void> copy(int source);

  /// Says that the content is complete: makes it durable, sets size, times and permissions, and
  /// makes the document present. The writer is of no use after that. After an error the file is a
  /// placeholder. An error over ESTALE says that another file stands at the path by now; it was
  /// left alone.
  Result<void> finish(const Placeholder::Shape& shape);

 private:
  friend class Placeholder;
  class Target;
  explicit PlaceholderWriter(std::unique_ptr<Target> target);

  std::unique_ptr<Target> target_;
  std::uint64_t position_ = 0;
};

}  // namespace docsource
