#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "docsource/error.h"

/// The other side of a mirror: where documents really live. A remote is one class in one file; it
/// translates these operations to what its server or directory can do and decides nothing.
namespace docsource {

/// What can stand in the way of an operation of a remote. Everything else that a remote returns as
/// an error counts as `failed`.
enum class RemoteProblem : std::int64_t {
  /// Tried again later, for this item alone.
  failed = 1,
  notFound = 2,
  /// The item is not of the version that the condition names, or exists where it must not; nothing
  /// was changed. Also when a read finds another version than the one that was asked for.
  changedMeanwhile = 3,
  notPermitted = 4,
  noRoom = 5,
  /// The remote asks to wait, for this and everything else; see remoteRetryAfter().
  notNow = 6,
  notAuthorised = 7,
  /// Cannot be reached. Whether an operation that changes something was carried out is unknown.
  unreachable = 8,
  /// What answers is not the remote that this one was: another directory in a mount point's place.
  notTheSame = 9,
  /// The caller gave it up.
  cancelled = 10,
};

inline constexpr std::string_view remoteErrorDomain = "DocSourceRemoteErrorDomain";

/// `description` is one sentence for a person: what happened, to what, and what to do about it.
DOCSOURCE_API Error remoteError(RemoteProblem problem, std::string description,
                                std::optional<std::chrono::seconds> retryAfter = std::nullopt);
DOCSOURCE_API RemoteProblem remoteProblemOf(const Error& error);
DOCSOURCE_API std::optional<std::chrono::seconds> remoteRetryAfter(const Error& error);

using RemoteTime = std::chrono::sys_time<std::chrono::nanoseconds>;

enum class RemoteKind { file, directory };

/// An item as the remote has it.
struct RemoteItem {
  RemoteKind kind = RemoteKind::file;
  /// The last part of its path: bytes without a slash, never empty, "." or "..".
  std::string name;
  /// The same as long as the item exists, whatever it is called; never used again for another.
  /// Empty where the remote has no such thing.
  std::string identifier;
  /// Of a file: another one for every other content. Never empty. Not used for directories.
  std::string version;
  std::uint64_t size = 0;
  /// Absent where the remote keeps none.
  std::optional<RemoteTime> modified;
  /// The permission bits; absent where the remote keeps none.
  std::optional<unsigned> mode;
};

/// What goes with a file that is written.
struct RemoteAttributes {
  std::optional<RemoteTime> modified;
  std::optional<unsigned> mode;
};

struct RemoteCapabilities {
  /// RemoteItem::identifier is filled in.
  bool identifiers = false;
  /// Conditions are checked by the remote itself, in one step with the change. Otherwise it
  /// compares and then writes.
  bool conditions = false;
  /// read() can begin anywhere.
  bool ranges = false;
  /// changes() tells within seconds what has changed and costs little. Otherwise the whole remote
  /// is listed once a minute.
  bool changes = false;
  bool modes = false;
  bool modificationTimes = false;
};

/// The content of a file that is uploaded.
class DOCSOURCE_API RemoteSource {
 public:
  virtual ~RemoteSource();
  /// The next bytes, at most `most`; empty at the end. At the end it is known whether what was read
  /// is one whole content: an error there, as anywhere, means that the remote must not show what it
  /// was given. After an error or the end it is not called again.
  virtual Result<std::string_view> read(std::size_t most) = 0;
  /// How much there will be, in bytes.
  virtual std::uint64_t size() const = 0;
};

/// Paths are relative to what was chosen as the account's top, without a slash at either end, parts
/// separated by one slash; the top itself is "". Bytes, as file systems have them.
///
/// Threads: any, several operations at a time; the mirror never has two that change something under
/// way for the same item. An operation may wait; the mirror waits with it and with nothing else.
/// Nothing is thrown.
class DOCSOURCE_API Remote {
 public:
  using Visitor = std::function<void(const RemoteItem&)>;
  using Sink = std::function<Result<void>(std::string_view)>;

  /// What changed since a cursor.
  struct Changes {
    /// For the next call.
    std::string cursor;
    /// The remote cannot tell, or there was too much: everything has to be listed.
    bool everything = false;
    /// Directories whose entries have to be listed again; `recursive` with all below them.
    struct Directory {
      std::string path;
      bool recursive = false;
    };
    std::vector<Directory> directories;
    /// Paths of single entries that came, changed or went.
    std::vector<std::string> items;
  };

  virtual ~Remote();

  virtual RemoteCapabilities capabilities() const = 0;

  /// What tells this remote from every other: compared with what was noted when the account was
  /// first used, before anything else is believed. Never empty. Where nothing is there to be asked:
  /// `unreachable`. With `create` the remote may leave a mark of its own at the other side; the
  /// mirror asks so once, at the first use.
  virtual Result<std::string> identity(bool create) = 0;

  /// Every entry of a directory, in any order. An error after some entries means that nothing is
  /// known about the rest. What is neither file nor directory is left out, and so is what the
  /// remote put there for itself.
  virtual Result<void> list(const std::string& path, const Visitor& visit) = 0;
  virtual Result<RemoteItem> look(const std::string& path) = 0;

  /// An empty cursor asks for one; what is found afterwards by listing is up to date with it.
  virtual Result<Changes> changes(const std::string& cursor) = 0;
  /// Calls back, from any thread, whenever changes() has something to tell; empty ends that. For a
  /// remote that is told itself. Returns false where it is not.
  virtual bool notifyOfChanges(std::function<void()> callback);

  /// At most `length` bytes from `offset` on, in order, all of that version; fewer only at the end.
  /// An error of the sink ends it and is returned.
  virtual Result<void> read(const std::string& path, const std::string& version,
                            std::uint64_t offset, std::uint64_t length, const Sink& sink) = 0;

  /// Makes or replaces a file, which appears whole or not at all. With a version only in place of
  /// that version, without one only where there is nothing; otherwise `changedMeanwhile`. Returns
  /// what was written, with the version of that content and never of one that another has put in
  /// its place since; the same holds for move() and setAttributes().
  virtual Result<RemoteItem> write(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes, RemoteSource& source) = 0;
  /// `changedMeanwhile` when there is something already.
  virtual Result<RemoteItem> makeDirectory(const std::string& path,
                                           const RemoteAttributes& attributes) = 0;
  /// Of a file only that version, of a directory (no version) with all below it. Never over
  /// something: `changedMeanwhile`. Returns the item as it is now. A remote that has no such
  /// operation copies and then removes.
  virtual Result<RemoteItem> move(const std::string& from, const std::string& to,
                                  const std::optional<std::string>& ifVersion) = 0;
  /// A file of that version, or (no version) an empty directory; `changedMeanwhile` when the file
  /// is another or the directory is not empty, `notFound` when there is nothing.
  virtual Result<void> remove(const std::string& path,
                              const std::optional<std::string>& ifVersion) = 0;
  /// Mode and time only; does nothing for what the remote does not keep. Of a file only that
  /// version. Returns the item as it is now.
  virtual Result<RemoteItem> setAttributes(const std::string& path,
                                           const std::optional<std::string>& ifVersion,
                                           const RemoteAttributes& attributes) = 0;
};

}  // namespace docsource
