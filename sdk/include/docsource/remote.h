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

/// The other side of a mirror, where documents really live. A remote is one class in one file. It
/// translates these operations to what its server or directory can do, and decides nothing.
namespace docsource {

/// What can prevent an operation of a remote. Every other error that a remote returns counts as
/// `failed`.
enum class RemoteProblem : std::int64_t {
  /// The operation is tried again later, for this item only.
  failed = 1,
  notFound = 2,
  /// The item does not have the version that the condition names, or exists where it must not;
  /// nothing was changed. Also: a read found another version than the one that was asked for.
  changedMeanwhile = 3,
  notPermitted = 4,
  noRoom = 5,
  /// The remote asks to wait, with this and everything else; see remoteRetryAfter().
  notNow = 6,
  notAuthorised = 7,
  /// The remote cannot be reached. Whether an operation that changes something was carried out is
  /// not known.
  unreachable = 8,
  /// What answers is not the remote that this one was, for example another directory in a mount
  /// point's place.
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
  /// Stays the same as long as the item exists, whatever its name, and is never used again for
  /// another. Empty where the remote has no identifiers.
  std::string identifier;
  /// For a file, differs for every other content. Never empty. Not used for directories.
  std::string version;
  std::uint64_t size = 0;
  /// Absent where the remote keeps none.
  std::optional<RemoteTime> modified;
  /// The permission bits; absent where the remote keeps none.
  std::optional<unsigned> mode;
  /// The versions of a file that came before this one, the last first, each of which the writer of
  /// the next had seen; an empty one stands for nothing, where the file was made. Filled in only by
  /// look(), and only where RemoteCapabilities::ancestors is set: who finds another version than
  /// his own there, without his own among these, has been overwritten unseen.
  std::vector<std::string> ancestors;
  /// Only from list(): why nothing more than the name can be told of the entry, or why it can have
  /// no such name here; one sentence's end, as "it has no size". Whatever is known under the name
  /// stays as it is, and the directory's status tells of it.
  std::optional<std::string> trouble;
};

/// What goes with a file that is written.
struct RemoteAttributes {
  std::optional<RemoteTime> modified;
  std::optional<unsigned> mode;
};

struct RemoteCapabilities {
  /// RemoteItem::identifier is filled in.
  bool identifiers = false;
  /// The remote itself checks conditions, in one step with the change. Otherwise it compares and
  /// then writes.
  bool conditions = false;
  /// RemoteItem::ancestors is filled in; of use where there are no conditions.
  bool ancestors = false;
  /// read() can begin anywhere.
  bool ranges = false;
  /// changes() tells within seconds what has changed, and costs little. Otherwise the whole remote
  /// is listed once a minute.
  bool changes = false;
  bool modes = false;
  bool modificationTimes = false;
};

/// The content of a file that is uploaded.
class DOCSOURCE_API RemoteSource {
 public:
  virtual ~RemoteSource();
  /// Returns the next bytes, at most `most`; empty at the end. Only at the end is it known whether
  /// what was read is one whole content: an error there, as anywhere, means that the remote must
  /// not show what it was given. After an error or the end it is not called again.
  virtual Result<std::string_view> read(std::size_t most) = 0;
  /// Returns how many bytes there will be.
  virtual std::uint64_t size() const = 0;
};

/// Paths are relative to what was chosen as the account's top, without a slash at either end, parts
/// separated by one slash; the top itself is "". They are bytes, as file systems have them.
///
/// Any thread may call, several operations at a time; but the mirror never has two under way that
/// change the same item. An operation may wait; the mirror then waits only with that operation.
/// Nothing is thrown.
class DOCSOURCE_API Remote {
 public:
  using Visitor = std::function<void(const RemoteItem&)>;
  using Sink = std::function<Result<void>(std::string_view)>;

  /// What changed since a cursor.
  struct Changes {
    /// For the next call.
    std::string cursor;
    /// Whether everything has to be listed, because the remote cannot tell what changed or there
    /// was too much.
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

  /// Returns what tells this remote from every other. It is compared with what was noted when the
  /// account was first used, before anything else is believed. Never empty. When there is nothing
  /// that can be asked, the error is `unreachable`. With `create` the remote may leave a mark of
  /// its own at the other side; the mirror asks so once, at the first use.
  virtual Result<std::string> identity(bool create) = 0;

  /// Visits every entry of a directory, in any order. An error after some entries means that
  /// nothing is known about the rest; what is wrong with one entry is its RemoteItem::trouble. What
  /// is neither file nor directory is left out, and so is what the remote put there for itself. Up
  /// to four directories are listed at a time.
  virtual Result<void> list(const std::string& path, const Visitor& visit) = 0;
  virtual Result<RemoteItem> look(const std::string& path) = 0;

  /// Returns what changed since the cursor. An empty cursor asks for a first one; what is listed
  /// after that is up to date with it.
  virtual Result<Changes> changes(const std::string& cursor) = 0;
  /// Calls back, from any thread, whenever changes() has something to tell; an empty callback ends
  /// that. It is for a remote that is itself told of changes. Returns false where it is not.
  virtual bool notifyOfChanges(std::function<void()> callback);

  /// At most `length` bytes from `offset` on, in order, all of that version; fewer only at the end.
  /// An error of the sink ends it and is returned.
  virtual Result<void> read(const std::string& path, const std::string& version,
                            std::uint64_t offset, std::uint64_t length, const Sink& sink) = 0;

  /// Makes or replaces a file, which appears whole or not at all. With a version, it replaces only
  /// that version; without one, it writes only where there is nothing; otherwise the error is
  /// `changedMeanwhile`. Returns what was written, with the version of that content and never of
  /// one that another has put in its place since; the same holds for move() and setAttributes().
  virtual Result<RemoteItem> write(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes, RemoteSource& source) = 0;
  /// The error is `changedMeanwhile` when there is something already.
  virtual Result<RemoteItem> makeDirectory(const std::string& path,
                                           const RemoteAttributes& attributes) = 0;
  /// Moves only that version of a file, or a directory (no version) with all below it, and returns
  /// the item as it is now. When something is there, the error is `changedMeanwhile`. A remote with
  /// no such operation copies and then removes, and goes on where an attempt was broken off.
  virtual Result<RemoteItem> move(const std::string& from, const std::string& to,
                                  const std::optional<std::string>& ifVersion) = 0;
  /// Removes a file of that version, or (no version) an empty directory. The error is
  /// `changedMeanwhile` when the file has another version or the directory is not empty, and
  /// `notFound` when there is nothing.
  virtual Result<void> remove(const std::string& path,
                              const std::optional<std::string>& ifVersion) = 0;
  /// Sets only mode and time; does nothing for what the remote does not keep. Changes only that
  /// version of a file. Returns the item as it is now.
  virtual Result<RemoteItem> setAttributes(const std::string& path,
                                           const std::optional<std::string>& ifVersion,
                                           const RemoteAttributes& attributes) = 0;
};

}  // namespace docsource
