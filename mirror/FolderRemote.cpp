// A directory as a remote.
//
// A version is inode, size and modification time. A file is replaced by one that was written beside
// it and is exchanged with it (renameat2(2), RENAME_EXCHANGE): what comes out is looked at before
// it is destroyed, and goes back when it is not the version that was to be replaced. Where a file
// system cannot exchange, the version is compared and the file renamed over it.
//
// What is under way has a hidden name and is locked (flock(2)) as long as its process lives.
// Whoever lists a directory ends what another one left there: what was not written to its end goes,
// and so does what was to be replaced or removed, which its name tells by hashes of versions.
// Anything else that came out of an exchange is somebody's document, and gets a name.
//
// The directory is known by a hidden file in it, which holds a random name. Between two questions
// for that, it is known by its inode: everything is done below a descriptor that was compared.

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <set>
#include <unordered_map>

#include "mirror/Local.h"
#include "mirror/Mirror.h"
#include "platform/base/UUID.h"
#include "platform/files/Inotify.h"
#include "platform/queue/Reactor.h"

namespace docsource {
namespace {

using mirror::lookAt;

/// Begins the names of what is being written; never shown.
constexpr const char* ownPrefix = ".docsource-";
/// Ends them, and those of what is on its way out.
constexpr const char* sideEnding = ".new";
constexpr const char* oldEnding = ".old";
constexpr const char* markName = ".docsource-remote";
constexpr unsigned watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                   IN_CLOSE_WRITE | IN_ATTRIB | IN_ONLYDIR;

constexpr long cifsMagic = 0xFF534D42;
constexpr long smb2Magic = 0xFE534D42;
constexpr long fuseMagic = 0x65735546;
constexpr long nineMagic = 0x01021997;

bool isOwn(const std::string& name) { return name.starts_with(ownPrefix); }

/// Stands for a version in the name of what may be destroyed when it is of that version.
std::string sign(const std::string& version) {
  return "." + std::to_string(std::hash<std::string>()(version)) + ".";
}

/// Keeps others from a hidden file.
bool lock(int file) { return ::flock(file, LOCK_EX | LOCK_NB) == 0; }

/// `changed` for what stands in the way of an operation because another one was there first.
Error errorOf(int errnum, const std::string& what, const std::string& path) {
  const auto text = Error::posix(errnum, what + " \"" + path + "\"").description();
  switch (errnum) {
    case ENOENT:
    case ENOTDIR:
      return remoteError(RemoteProblem::notFound, text);
    case EEXIST:
    case ENOTEMPTY:
    case ESTALE:
    case EISDIR:
      return remoteError(RemoteProblem::changedMeanwhile, text);
    case EACCES:
    case EPERM:
    case EROFS:
      return remoteError(RemoteProblem::notPermitted, text);
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return remoteError(RemoteProblem::noRoom, text);
    case ENOTCONN:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ETIMEDOUT:
    case ENODEV:
      return remoteError(RemoteProblem::unreachable, text);
    default:
      return remoteError(RemoteProblem::failed, text);
  }
}

/// What is written and not yet in its place; gone with this object.
class SideFile {
 public:
  SideFile(int directory, mode_t mode) : directory_(directory) {
    name_ = ownPrefix + qx::UUID::random().text() + sideEnding;
    file_ = qx::FileDescriptor(
        ::openat(directory, name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (file_) lock(file_.get());
  }
  ~SideFile() {
    if (file_ && !isKept_) ::unlinkat(directory_, name_.c_str(), 0);
  }
  SideFile(const SideFile&) = delete;
  SideFile& operator=(const SideFile&) = delete;

  int get() const { return file_.get(); }
  explicit operator bool() const { return static_cast<bool>(file_); }
  const std::string& name() const { return name_; }
  void keep() { isKept_ = true; }
  bool rename(const std::string& name) {
    if (::renameat(directory_, name_.c_str(), directory_, name.c_str()) != 0) return false;
    name_ = name;
    return true;
  }

 private:
  const int directory_;
  std::string name_;
  qx::FileDescriptor file_;
  bool isKept_ = false;
};

/// Calls back when there are events to be taken.
class Teller final : public qx::ReactorHandler {
 public:
  explicit Teller(std::function<void()> callback) : callback_(std::move(callback)) {}
  /// No call begins or goes on after the return.
  void silence() {
    const std::lock_guard lock(mutex_);
    callback_ = nullptr;
  }
  void ready(std::uint32_t) override {
    const std::lock_guard lock(mutex_);
    if (callback_) callback_();
  }

 private:
  std::mutex mutex_;
  std::function<void()> callback_;
};

class FolderRemote final : public Remote {
 public:
  explicit FolderRemote(std::string directory) : path_(std::move(directory)) {}
  ~FolderRemote() override { FolderRemote::notifyOfChanges({}); }

  RemoteCapabilities capabilities() const override {
    RemoteCapabilities able;
    const std::lock_guard lock(mutex_);
    able.identifiers = hasIdentifiers_;
    able.ranges = true;
    able.changes = isWatched_;
    able.modes = true;
    able.modificationTimes = true;
    return able;
  }

  Result<std::string> identity(bool create) override {
    qx::FileDescriptor root(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) return away(errno);
    const auto entry = mirror::lookAtFile(root.get());
    if (!entry) return away(errno);
    std::string name(64, '\0');
    qx::FileDescriptor mark(::openat(root.get(), markName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!mark && errno == ENOENT && create) {
      SideFile made(root.get(), 0644);
      const auto text = qx::UUID::random().text();
      if (made && ::write(made.get(), text.data(), text.size()) > 0 && ::fsync(made.get()) == 0 &&
          ::renameat2(root.get(), made.name().c_str(), root.get(), markName, RENAME_NOREPLACE) ==
              0) {
        made.keep();
      }
      mark.reset(::openat(root.get(), markName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    }
    if (!mark && errno != ENOENT && errno != EACCES) return away(errno);
    const ssize_t size = mark ? ::read(mark.get(), name.data(), name.size()) : 0;
    if (size < 0) return away(errno);
    name.resize(static_cast<std::size_t>(size));
    struct statfs status {};
    const std::lock_guard lock(mutex_);
    if (::fstatfs(root.get(), &status) == 0) {
      const auto kind = static_cast<long>(status.f_type) & 0xFFFFFFFFL;
      const bool isRemote = kind == NFS_SUPER_MAGIC || kind == cifsMagic || kind == smb2Magic ||
                            kind == nineMagic || kind == fuseMagic;
      hasIdentifiers_ = !isRemote || kind == NFS_SUPER_MAGIC;
      isShared_ = isRemote;
    }
    root_ = entry->identity;
    // Where no mark can be left, the directory itself has to do.
    return name.empty() ? entry->identity : name;
  }

  Result<void> list(const std::string& path, const Visitor& visit) override {
    const auto directory = open(path);
    if (!directory) return directory.error();
    watch(path, directory->get());
    std::optional<Error> problem;
    const bool isWhole = mirror::listDirectory(directory->get(), [&](const std::string& name) {
      if (isOwn(name)) {
        endAbandoned(directory->get(), name, isShared());
        return true;
      }
      const auto item = itemAt(directory->get(), name);
      if (item) {
        visit(*item);
      } else if (errno != ENOENT && errno != ELOOP) {
        problem = errorOf(errno, "Cannot look at", joined(path, name));
      }
      return !problem;
    });
    if (!isWhole) return errorOf(errno, "Cannot list", path);
    return problem ? Result<void>(*problem) : Result<void>();
  }

  Result<RemoteItem> look(const std::string& path) override {
    const auto [parent, name] = split(path);
    const auto directory = open(parent);
    if (!directory) return directory.error();
    const auto item = itemAt(directory->get(), name);
    if (!item) return errorOf(errno == ELOOP ? ENOENT : errno, "Cannot look at", path);
    return *item;
  }

  Result<Changes> changes(const std::string& cursor) override {
    const std::lock_guard lock(mutex_);
    Changes changes;
    changes.cursor = "1";
    if (!inotify_ && !isShared_) inotify_ = std::make_unique<qx::Inotify>();
    isWatched_ = inotify_ && inotify_->descriptor() >= 0 && !isShared_ && !isBlind_;
    takeEvents();
    changes.everything = cursor.empty() || !isWatched_ || hasMissed_;
    hasMissed_ = false;
    changes.items.assign(changed_.begin(), changed_.end());
    changed_.clear();
    return changes;
  }

  bool notifyOfChanges(std::function<void()> callback) override {
    const std::lock_guard lock(mutex_);
    if (teller_) teller_->silence();
    if (source_ != 0) qx::Reactor::shared().remove(source_, inotify_->descriptor());
    source_ = 0;
    teller_ = callback ? std::make_shared<Teller>(std::move(callback)) : nullptr;
    listen();
    return true;
  }

  Result<void> read(const std::string& path, const std::string& version, std::uint64_t offset,
                    std::uint64_t length, const Sink& sink) override {
    const auto [parent, name] = split(path);
    const auto directory = open(parent);
    if (!directory) return directory.error();
    const auto file = mirror::openFile(directory->get(), name, O_RDONLY);
    if (!file) return errorOf(errno, "Cannot open", path);
    const auto isOfVersion = [&] {
      const auto entry = mirror::lookAtFile(file.get());
      return entry && versionOf(*entry) == version;
    };
    if (!isOfVersion()) return changedError(path);
    constexpr std::size_t piece = 1U << 20U;
    std::string buffer;
    while (length > 0) {
      buffer.resize(static_cast<std::size_t>(std::min<std::uint64_t>(length, piece)));
      const ssize_t count =
          ::pread(file.get(), buffer.data(), buffer.size(), static_cast<off_t>(offset));
      if (count < 0) return errorOf(errno, "Cannot read", path);
      if (count == 0) break;
      // Of bytes that were read it is known afterwards of which version they are.
      if (!isOfVersion()) return changedError(path);
      buffer.resize(static_cast<std::size_t>(count));
      if (auto taken = sink(buffer); !taken) return taken;
      offset += static_cast<std::uint64_t>(count);
      length -= static_cast<std::uint64_t>(count);
    }
    return isOfVersion() ? Result<void>() : changedError(path);
  }

  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& ifVersion,
                           const RemoteAttributes& attributes, RemoteSource& source) override {
    const auto [parent, name] = split(path);
    const auto directory = open(parent);
    if (!directory) return directory.error();
    if (auto fits = check(directory->get(), name, path, ifVersion); !fits) return fits.error();
    SideFile side(directory->get(), 0600);
    if (!side) return errorOf(errno, "Cannot write", path);
    constexpr std::size_t piece = 1U << 20U;
    for (off_t offset = 0;;) {
      const auto bytes = source.read(piece);
      if (!bytes) return bytes.error();
      if (bytes->empty()) break;
      for (auto rest = *bytes; !rest.empty();) {
        const ssize_t count = ::pwrite(side.get(), rest.data(), rest.size(), offset);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return errorOf(count < 0 ? errno : EIO, "Cannot write", path);
        rest.remove_prefix(static_cast<std::size_t>(count));
        offset += count;
      }
    }
    if (auto set = apply(side.get(), path, {attributes.modified, attributes.mode.value_or(0644)});
        !set) {
      return set.error();
    }
    if (::fsync(side.get()) != 0) return errorOf(errno, "Cannot write", path);
    // What is told of it is what was written, not what others make of it once it has its name.
    const auto entry = mirror::lookAtFile(side.get());
    if (!entry) return errorOf(errno, "Cannot look at", path);
    // On disk now; whoever finds the name finds all of it.
    if (!ifVersion) {
      if (!putNew(directory->get(), side, name)) {
        return errorOfNew(errno, directory->get(), name, "Cannot write", path);
      }
    } else if (auto put = replace(directory->get(), side, name, path, *ifVersion); !put) {
      return put.error();
    }
    ::fsync(directory->get());
    return itemOf(name, *entry);
  }

  Result<RemoteItem> makeDirectory(const std::string& path,
                                   const RemoteAttributes& attributes) override {
    const auto [parent, name] = split(path);
    const auto directory = open(parent);
    if (!directory) return directory.error();
    const mode_t mode = attributes.mode.value_or(0755);
    if (::mkdirat(directory->get(), name.c_str(), mode) != 0 ||
        ::fchmodat(directory->get(), name.c_str(), mode, 0) != 0 ||
        ::fsync(directory->get()) != 0) {
      return errorOfNew(errno, directory->get(), name, "Cannot make", path);
    }
    if (const auto made = mirror::openDirectoryBelow(directory->get(), name)) {
      watch(path, made.get());
      // What was put there before it was watched.
      mirror::listDirectory(made.get(), [&](const std::string& entry) {
        const std::lock_guard lock(mutex_);
        changed_.insert(joined(path, entry));
        return true;
      });
    }
    const auto item = itemAt(directory->get(), name);
    if (!item) return errorOf(errno, "Cannot look at", path);
    return *item;
  }

  Result<RemoteItem> move(const std::string& from, const std::string& to,
                          const std::optional<std::string>& ifVersion) override {
    const auto [fromParent, fromName] = split(from);
    const auto [toParent, toName] = split(to);
    const auto source = open(fromParent);
    if (!source) return source.error();
    const auto goal = open(toParent);
    if (!goal) return goal.error();
    if (auto fits = check(source->get(), fromName, from, ifVersion, true); !fits) {
      return fits.error();
    }
    if (!renameNew(source->get(), fromName, goal->get(), toName)) {
      return errorOfNew(errno, goal->get(), toName, "Cannot move to", to);
    }
    ::fsync(goal->get());
    ::fsync(source->get());
    const auto item = itemAt(goal->get(), toName);
    if (!item) return errorOf(errno, "Cannot look at", to);
    if (!ifVersion) movedDirectory(from, to);
    // Somebody may have put another content under the new name already.
    if (ifVersion && item->version != *ifVersion) return changedError(to);
    return *item;
  }

  Result<void> remove(const std::string& path,
                      const std::optional<std::string>& ifVersion) override {
    const auto [parent, name] = split(path);
    const auto directory = open(parent);
    if (!directory) return directory.error();
    if (!ifVersion) {
      const auto remove = [&, entry = name.c_str()] {
        return ::unlinkat(directory->get(), entry, AT_REMOVEDIR) == 0;
      };
      if (!remove() && (errno != ENOTEMPTY || !clear(directory->get(), name) || !remove())) {
        return errorOf(errno, "Cannot remove", path);
      }
      ::fsync(directory->get());
      return {};
    }
    if (auto fits = check(directory->get(), name, path, ifVersion); !fits) return fits;
    // Taken aside first: what was put there in the last moment comes back.
    const std::string aside =
        ownPrefix + qx::UUID::random().text() + sign(*ifVersion) + &oldEnding[1];
    const auto held = hold(directory->get(), name);
    if (!renameNew(directory->get(), name, directory->get(), aside)) {
      return errorOf(errno, "Cannot remove", path);
    }
    const auto taken = lookAt(directory->get(), aside);
    if (!taken || !isSame(*taken, *ifVersion) || isInUse(directory->get(), aside)) {
      bringBack(directory->get(), aside, name);
      return changedError(path);
    }
    if (::unlinkat(directory->get(), aside.c_str(), 0) != 0) {
      const int problem = errno;
      bringBack(directory->get(), aside, name);
      return errorOf(problem, "Cannot remove", path);
    }
    ::fsync(directory->get());
    return {};
  }

  Result<RemoteItem> setAttributes(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes) override {
    const auto [parent, name] = split(path);
    const auto directory = open(parent);
    if (!directory) return directory.error();
    if (auto fits = check(directory->get(), name, path, ifVersion, true); !fits)
      return fits.error();
    const auto file =
        mirror::openFile(directory->get(), name, ifVersion ? O_RDONLY : O_RDONLY | O_DIRECTORY);
    if (!file) return errorOf(errno, "Cannot open", path);
    // A time that is set would hide what somebody writes at that moment.
    const mirror::Lease lease(file.get(), F_RDLCK);
    if (ifVersion && lease.problem() == EAGAIN) {
      return remoteError(RemoteProblem::failed, "\"" + path + "\" is being written at the remote.");
    }
    const auto before = mirror::lookAtFile(file.get());
    if (ifVersion && (!before || versionOf(*before) != *ifVersion)) return changedError(path);
    if (auto set = apply(file.get(), path, attributes); !set) return set.error();
    const auto entry = mirror::lookAtFile(file.get());
    if (!entry) return errorOf(errno, "Cannot look at", path);
    return itemOf(name, *entry);
  }

 private:
  static std::string joined(const std::string& parent, const std::string& name) {
    return parent.empty() ? name : parent + "/" + name;
  }
  static std::pair<std::string, std::string> split(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
  }
  static Error changedError(const std::string& path) {
    return remoteError(RemoteProblem::changedMeanwhile,
                       "\"" + path + "\" was changed meanwhile at the remote.");
  }
  static Error takenError(const std::string& path) {
    return remoteError(RemoteProblem::notPermitted,
                       "At the remote \"" + path + "\" is a link or a special file.");
  }
  /// Of a name that was to be new.
  static Error errorOfNew(int errnum, int directory, const std::string& name,
                          const std::string& what, const std::string& path) {
    const auto entry = errnum == EEXIST ? lookAt(directory, name) : std::nullopt;
    return entry && !entry->kind ? takenError(path) : errorOf(errnum, what, path);
  }
  Error away(int errnum) const {
    return remoteError(
        RemoteProblem::unreachable,
        Error::posix(errnum, "The directory " + path_ + " cannot be reached").description());
  }

  /// Inode, size and time; of the change time nothing, which permissions and names move too.
  std::string versionOf(const mirror::LocalEntry& entry) const {
    const std::string text = std::to_string(entry.size) + ":" + std::to_string(entry.modified);
    const std::lock_guard lock(mutex_);
    return hasIdentifiers_ ? text + ":" + entry.identity : text;
  }
  bool isSame(const mirror::LocalEntry& entry, const std::string& version) const {
    return entry.kind == mirror::Kind::file && versionOf(entry) == version;
  }

  RemoteItem itemOf(const std::string& name, const mirror::LocalEntry& entry) const {
    RemoteItem item;
    item.name = name;
    item.kind = entry.kind == mirror::Kind::file ? RemoteKind::file : RemoteKind::directory;
    {
      const std::lock_guard lock(mutex_);
      if (hasIdentifiers_) item.identifier = entry.identity;
    }
    item.mode = static_cast<unsigned>(entry.mode);
    if (item.kind == RemoteKind::directory) return item;
    item.version = versionOf(entry);
    item.size = static_cast<std::uint64_t>(entry.size);
    item.modified = RemoteTime(std::chrono::nanoseconds(entry.modified));
    return item;
  }

  /// Absent with errno: ELOOP for what is neither file nor directory.
  std::optional<RemoteItem> itemAt(int directory, const std::string& name) const {
    const auto entry = lookAt(directory, name);
    if (!entry) return std::nullopt;
    errno = ELOOP;
    if (!entry->kind) return std::nullopt;
    return itemOf(name, *entry);
  }

  /// The directory of that path, below the one whose identity was asked for last.
  Result<qx::FileDescriptor> open(const std::string& path) const {
    const qx::FileDescriptor root(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) return away(errno);
    const auto entry = mirror::lookAtFile(root.get());
    if (!entry) return away(errno);
    {
      const std::lock_guard lock(mutex_);
      if (entry->identity != root_) {
        return remoteError(RemoteProblem::unreachable,
                           "Another directory is in the place of " + path_ + ".");
      }
    }
    auto directory = mirror::openDirectoryBelow(root.get(), path);
    if (!directory) return errorOf(errno, "Cannot open", path);
    return directory;
  }

  /// Whether a change may begin: the version is there, or nothing where none is named.
  Result<void> check(int directory, const std::string& name, const std::string& path,
                     const std::optional<std::string>& ifVersion, bool orDirectory = false) const {
    const auto entry = lookAt(directory, name);
    if (!entry && errno != ENOENT) return errorOf(errno, "Cannot look at", path);
    if (!entry) {
      return ifVersion || orDirectory ? Result<void>(errorOf(ENOENT, "Cannot find", path))
                                      : Result<void>();
    }
    if (!entry->kind) return takenError(path);
    if (ifVersion ? !isSame(*entry, *ifVersion)
                  : !orDirectory || entry->kind != mirror::Kind::directory) {
      return changedError(path);
    }
    // Who writes in it would go on in what is removed.
    if (ifVersion && isInUse(directory, name)) {
      return remoteError(RemoteProblem::failed, "\"" + path + "\" is being written at the remote.");
    }
    return {};
  }

  bool isShared() const {
    const std::lock_guard lock(mutex_);
    return isShared_;
  }

  /// Keeps others from a document that is about to get a hidden name, as long as the descriptor is
  /// open. Not on a share, where such a lock may keep programs from reading.
  qx::FileDescriptor hold(int directory, const std::string& name) const {
    auto file = isShared() ? qx::FileDescriptor() : mirror::openFile(directory, name, O_RDONLY);
    if (file) ::flock(file.get(), LOCK_SH | LOCK_NB);
    return file;
  }

  /// Ends what a process that was ended left under a hidden name. On a share nobody may know of
  /// locks, and only what is `onlyOld` is left by somebody for certain.
  void endAbandoned(int directory, const std::string& name, bool onlyOld) const {
    const bool isNew = name.ends_with(sideEnding);
    if (!isNew && !name.ends_with(oldEnding)) return;
    const auto file = mirror::openFile(directory, name, O_RDONLY);
    if (!file || (!lock(file.get()) && errno == EWOULDBLOCK)) return;
    if (mirror::isBeingWritten(file.get())) return;
    struct stat status {};
    constexpr std::time_t day = 86400;
    if (::fstat(file.get(), &status) != 0) return;
    if (onlyOld && std::time(nullptr) - status.st_ctime < day) return;
    const auto entry = lookAt(directory, name);
    if (!entry || entry->kind != mirror::Kind::file) return;
    if (isNew || name.find(sign(versionOf(*entry))) != std::string::npos) {
      ::unlinkat(directory, name.c_str(), 0);
    } else {
      bringBack(directory, name, "Recovered document");
    }
  }

  static bool isInUse(int directory, const std::string& name) {
    const auto file = mirror::openFile(directory, name, O_RDONLY);
    return file && mirror::isBeingWritten(file.get());
  }

  /// Removes what was left under hidden names in a directory; whether nothing else is in it.
  bool clear(int parent, const std::string& name) const {
    const auto directory = mirror::openDirectoryBelow(parent, name);
    bool isClear = static_cast<bool>(directory);
    const auto leave = [&](const std::string& entry) {
      if (isOwn(entry)) endAbandoned(directory.get(), entry, false);
      isClear = isOwn(entry) && !lookAt(directory.get(), entry) && errno == ENOENT;
      return isClear;
    };
    if (isClear) isClear = mirror::listDirectory(directory.get(), leave) && isClear;
    if (!isClear) errno = ENOTEMPTY;
    return isClear;
  }

  Result<void> apply(int file, const std::string& path, const RemoteAttributes& attributes) const {
    if (attributes.mode && ::fchmod(file, *attributes.mode) != 0) {
      return errorOf(errno, "Cannot set the permissions of", path);
    }
    if (attributes.modified) {
      const auto time = attributes.modified->time_since_epoch().count();
      constexpr std::int64_t perSecond = 1'000'000'000;
      const auto rest = ((time % perSecond) + perSecond) % perSecond;
      const timespec times[2] = {{0, UTIME_OMIT}, {(time - rest) / perSecond, rest}};
      if (::futimens(file, times) != 0) return errorOf(errno, "Cannot set the time of", path);
    }
    return {};
  }

  /// A rename over nothing; by a second name where the file system has no such rename.
  static bool renameNew(int from, const std::string& name, int to, const std::string& newName) {
    if (::renameat2(from, name.c_str(), to, newName.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    const auto entry = lookAt(from, name);
    if (entry && entry->kind == mirror::Kind::file &&
        ::linkat(from, name.c_str(), to, newName.c_str(), 0) == 0) {
      return ::unlinkat(from, name.c_str(), 0) == 0;
    }
    if (entry && entry->kind == mirror::Kind::file && errno != EPERM && errno != EOPNOTSUPP) {
      return false;
    }
    // Compared and then renamed, as far as such a file system allows.
    if (lookAt(to, newName) || errno != ENOENT) {
      errno = EEXIST;
      return false;
    }
    return ::renameat(from, name.c_str(), to, newName.c_str()) == 0;
  }

  static bool putNew(int directory, SideFile& side, const std::string& name) {
    if (!renameNew(directory, side.name(), directory, name)) return false;
    side.keep();
    return true;
  }

  /// Returns to its name, or, where there is another by now, beside it.
  static void bringBack(int directory, const std::string& aside, const std::string& name) {
    if (renameNew(directory, aside, directory, name)) return;
    for (int attempt = 1; attempt < 100 && errno == EEXIST; ++attempt) {
      if (renameNew(directory, aside, directory, mirror::nameBeside(name, "kept", attempt))) return;
    }
  }

  Result<void> replace(int directory, SideFile& side, const std::string& name,
                       const std::string& path, const std::string& version) const {
    if (auto fits = check(directory, name, path, version); !fits) return fits;
    const auto written = mirror::lookAtFile(side.get());
    const auto held = hold(directory, name);
    if (!written || !side.rename(ownPrefix + qx::UUID::random().text() + sign(version) +
                                 sign(versionOf(*written)) + &oldEnding[1])) {
      return errorOf(errno, "Cannot write", path);
    }
    const char* own = side.name().c_str();
    if (::renameat2(directory, own, directory, name.c_str(), RENAME_EXCHANGE) != 0) {
      if (errno != EINVAL && errno != ENOSYS) return errorOf(errno, "Cannot write", path);
      if (::renameat(directory, own, directory, name.c_str()) != 0) {
        return errorOf(errno, "Cannot write", path);
      }
      side.keep();
      return {};
    }
    const auto taken = lookAt(directory, side.name());
    if (taken && isSame(*taken, version) && !isInUse(directory, side.name())) return {};
    // Somebody was faster: his goes back, and what comes out then is ours, or his who was faster
    // still and is not to be lost either.
    const bool isBack = ::renameat2(directory, own, directory, name.c_str(), RENAME_EXCHANGE) == 0;
    const auto ours = mirror::lookAtFile(side.get());
    const auto out = lookAt(directory, side.name());
    if (!isBack || !ours || !out || ours->identity != out->identity) {
      side.keep();
      bringBack(directory, side.name(), name);
    }
    return changedError(path);
  }

  /// Watches a directory that is being listed, before it is read.
  void watch(const std::string& path, int directory) {
    const std::lock_guard lock(mutex_);
    if (!inotify_ || isShared_) return;
    auto watch = inotify_->watch("/proc/self/fd/" + std::to_string(directory), watchedEvents);
    if (!watch) {
      isBlind_ = true;  // too many directories: the remote is looked through instead
      return;
    }
    const int number = watch.number();
    watches_.insert_or_assign(number, std::pair(path, std::move(watch)));
  }

  /// What is watched below goes on under its new path.
  void movedDirectory(const std::string& from, const std::string& to) {
    const std::lock_guard lock(mutex_);
    for (auto& [number, watched] : watches_) {
      std::string& path = watched.first;
      if (path == from || path.starts_with(from + "/")) path.replace(0, from.size(), to);
    }
  }

  /// Has the callback called at the next event, once. The mutex is held.
  void listen() {
    if (!teller_ || !inotify_ || inotify_->descriptor() < 0) return;
    auto& reactor = qx::Reactor::shared();
    if (source_ != 0) return reactor.arm(source_, inotify_->descriptor(), EPOLLIN);
    source_ = reactor.add(inotify_->descriptor(), EPOLLIN, teller_);
  }

  void takeEvents() {
    if (!inotify_) return;
    for (const auto& event : inotify_->read()) {
      hasMissed_ = hasMissed_ || event.isOverflow();
      if (event.mask & IN_IGNORED) watches_.erase(event.watch);
      const auto watched = watches_.find(event.watch);
      if (watched == watches_.end() || event.name.empty() || isOwn(event.name)) continue;
      changed_.insert(joined(watched->second.first, event.name));
    }
    listen();
  }

  const std::string path_;
  mutable std::mutex mutex_;
  std::string root_;
  bool hasIdentifiers_ = true;
  bool isShared_ = false;
  bool isWatched_ = false;
  bool isBlind_ = false;
  bool hasMissed_ = false;
  std::unique_ptr<qx::Inotify> inotify_;
  std::unordered_map<int, std::pair<std::string, qx::Inotify::Watch>> watches_;
  std::set<std::string> changed_;
  std::shared_ptr<Teller> teller_;
  qx::Reactor::SourceID source_ = 0;
};

}  // namespace

std::unique_ptr<Remote> makeFolderRemote(const std::string& directory) {
  return std::make_unique<FolderRemote>(directory);
}

}  // namespace docsource
