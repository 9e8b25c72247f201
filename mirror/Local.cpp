// Files of the storage, by descriptors and names.

#include "mirror/Local.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>

#include "platform/coordination/CoordinationState.h"
#include "platform/files/InodeMark.h"
#include "platform/identity/PlaceholderMark.h"

namespace docsource::mirror {
namespace {

constexpr std::int64_t perSecond = 1'000'000'000;
constexpr const char* markAttribute = "user.docsource.placeholder";
constexpr std::uint64_t blockUnit = 512;

std::int64_t nanoseconds(const statx_timestamp& time) {
  return time.tv_sec * perSecond + time.tv_nsec;
}

/// What the library was told by the system.
void setErrno(const Error& error) {
  const Error* cause = &error;
  while (cause->underlying()) cause = cause->underlying();
  errno = cause->domain() == posixErrorDomain ? static_cast<int>(cause->code()) : EIO;
  if (error.is(standardErrorDomain, 260)) errno = ENOENT;
}
bool ok(const Result<void>& result) {
  if (!result) setErrno(result.error());
  return result.ok();
}

std::string pathOf(int file) { return "/proc/self/fd/" + std::to_string(file); }

/// Whether a mark makes a placeholder of the file that carries it.
bool counts(std::string_view mark, const struct statx& status, const qx::InodeName& inode) {
  switch (qx::markedInode(mark, inode)) {
    case qx::MarkedInode::this_:
      return true;
    case qx::MarkedInode::other:
      return false;
    case qx::MarkedInode::none:
      break;
  }
  return status.stx_blocks * blockUnit < status.stx_size;
}

/// Whether nobody keeps readers of placeholders waiting, as far as is known.
bool isUnguarded() {
  const auto mechanism = qx::readCoordinationMechanism();
  return !mechanism || *mechanism == qx::CoordinationMechanism::cooperative;
}

/// Whether a directory gives its group or its access control list on to what is made in it
/// (inode(7), acl(5)).
bool givesOn(int directory) {
  struct stat status {};
  return ::fstat(directory, &status) != 0 || (status.st_mode & S_ISGID) != 0 ||
         ::fgetxattr(directory, "system.posix_acl_default", nullptr, 0) > 0;
}

std::optional<LocalEntry> entryOf(int directory, const char* name, int flags) {
  constexpr unsigned wanted = STATX_BASIC_STATS | STATX_BTIME;
  struct statx status {};
  if (::statx(directory, name, flags | AT_NO_AUTOMOUNT, wanted, &status) != 0) return std::nullopt;
  LocalEntry entry;
  const bool isOfAnother = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  if (S_ISREG(status.stx_mode) && !isOfAnother) entry.kind = Kind::file;
  if (S_ISDIR(status.stx_mode) && (!isOfAnother || *name == 0)) entry.kind = Kind::directory;
  qx::InodeName inode{status.stx_ino, std::nullopt};
  if (status.stx_mask & STATX_BTIME) {
    inode.birth = qx::InodeName::Time{status.stx_btime.tv_sec, status.stx_btime.tv_nsec};
  }
  entry.identity = qx::markWord(inode);
  entry.modified = nanoseconds(status.stx_mtime);
  entry.mode = status.stx_mode & 0777U;
  entry.names = status.stx_nlink;
  if (entry.kind != Kind::file) return entry;
  entry.size = static_cast<std::int64_t>(status.stx_size);
  entry.version = std::to_string(entry.size) + ":" + std::to_string(entry.modified) + ":" +
                  std::to_string(nanoseconds(status.stx_ctime));
  std::array<char, 1024> mark{};
  std::string path = *name == 0 ? pathOf(directory) : name;
  if (*name != 0 && directory != AT_FDCWD) path.insert(0, pathOf(directory) + "/");
  // A descriptor may be for the path alone, and is reached by its link.
  const ssize_t size = *name == 0
                           ? ::getxattr(path.c_str(), markAttribute, mark.data(), mark.size())
                           : ::lgetxattr(path.c_str(), markAttribute, mark.data(), mark.size());
  if (size >= 0) {
    const std::string_view text(mark.data(), static_cast<std::size_t>(size));
    entry.isPlaceholder = counts(text, status, inode);
    entry.isProviding = entry.isPlaceholder && text.starts_with("providing ");
    if (entry.isPlaceholder) {
      const auto mode = qx::modeIn(text);
      entry.isExposed = mode && entry.mode != 0 && !entry.isProviding && isUnguarded();
      if (mode && !entry.isExposed) entry.mode = *mode & 0777U;
      // Of one that platformd has hidden, root can read the mark, which does not say the mode.
      entry.isHidden = !mode && entry.mode == 0;
    }
  } else if (errno == EACCES) {
    entry.isHidden = true;
  } else if (errno != ENODATA && errno != EOPNOTSUPP) {
    return std::nullopt;
  }
  return entry;
}

}  // namespace

std::optional<LocalEntry> lookAtFile(int file) { return entryOf(file, "", AT_EMPTY_PATH); }

std::optional<LocalEntry> lookAt(int directory, const std::string& name) {
  return entryOf(directory, name.c_str(), AT_SYMLINK_NOFOLLOW);
}

std::optional<LocalEntry> lookAtHidden(int directory, const std::string& name) {
  auto entry = lookAt(directory, name);
  if (!entry || !entry->isHidden || entry->names > 1) return entry;
  const auto hidden = static_cast<mode_t>(entry->mode);
  if (::fchmodat(directory, name.c_str(), S_IRUSR, 0) != 0) return entry;
  entry = lookAt(directory, name);
  ::fchmodat(directory, name.c_str(), hidden, 0);
  return entry;
}

void believe(std::optional<LocalEntry>& entry, const Node& known) {
  if (!entry || !entry->isHidden || entry->identity != known.identity) return;
  entry->isPlaceholder = known.isPlaceholder;
  if (entry->isPlaceholder) entry->mode = known.mode.value_or(entry->mode);
}

qx::FileDescriptor openDirectoryBelow(int directory, const std::string& path) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  qx::FileDescriptor found(::openat(directory, ".", flags));
  for (std::size_t at = 0; found && at < path.size();) {
    const auto end = std::min(path.find('/', at), path.size());
    found.reset(::openat(found.get(), path.substr(at, end - at).c_str(), flags));
    at = end + 1;
  }
  return found;
}

bool listDirectory(int directory, const std::function<bool(const std::string& name)>& visit) {
  const int own = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (own < 0) return false;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(own), ::closedir);
  if (!stream) return false;
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (!entry) return errno == 0;
    const std::string name(&entry->d_name[0]);
    if (name != "." && name != ".." && !visit(name)) return true;
  }
}

qx::FileDescriptor openFile(int directory, const std::string& name, int flags) {
  return qx::FileDescriptor(
      ::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool wasJustEmptied(const LocalEntry& entry, const Node& content) {
  constexpr std::int64_t aMoment = 5 * perSecond;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return entry.isPlaceholder && entry.size == 0 && content.size > 0 &&
         now.tv_sec * perSecond + now.tv_nsec - entry.modified < aMoment;
}

bool moveEntry(int from, const std::string& name, int to, const std::string& newName) {
  return ::renameat2(from, name.c_str(), to, newName.c_str(), RENAME_NOREPLACE) == 0;
}

std::optional<LocalEntry> makePlaceholder(int directory, int aside, const std::string& name,
                                          const Placeholder::Shape& shape) {
  const auto makeIn = [&](int maker) -> std::optional<LocalEntry> {
    const qx::FileDescriptor made(::openat(maker, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!made || !ok(Placeholder(made.get()).reset(shape)) ||
        ::linkat(AT_FDCWD, pathOf(made.get()).c_str(), directory, name.c_str(),
                 AT_SYMLINK_FOLLOW) != 0) {
      return std::nullopt;
    }
    return lookAtFile(made.get());
  };
  const bool isInherited = givesOn(directory);
  auto entry = makeIn(isInherited ? directory : aside);
  // Quotas of projects and encryption keep to their directories (link(2), EXDEV).
  if (!entry && !isInherited && errno == EXDEV) entry = makeIn(directory);
  if (entry && entry->isHidden) {
    entry->isPlaceholder = true;
    entry->mode = shape.mode.value_or(0);
  }
  return entry;
}

std::optional<LocalEntry> makeDirectory(int directory, const std::string& name, std::int64_t mode) {
  if (::mkdirat(directory, name.c_str(), 0700) != 0 ||
      ::fchmodat(directory, name.c_str(), static_cast<mode_t>(mode), 0) != 0) {
    return std::nullopt;
  }
  return lookAt(directory, name);
}

bool syncFileSystem(int directory) { return ::syncfs(directory) == 0; }

bool holdsContent(int file, std::int64_t size) {
  if (::lseek(file, 0, SEEK_HOLE) < size) return false;
  // No block of a file system is larger.
  constexpr std::int64_t largestBlock = 64 << 10U;
  if (size > largestBlock) return true;
  std::string text(static_cast<std::size_t>(size), '\0');
  return ::pread(file, text.data(), text.size(), 0) != size ||
         text.find_first_not_of('\0') != std::string::npos;
}

bool reshape(int file, const Placeholder::Shape& shape, const Announcement& announce) {
  return ok(Placeholder(file).reset(shape, announce));
}

Giving giveUpContent(int file, const std::string& version, const Placeholder::Shape& next,
                     const Announcement& announce) {
  const auto now = lookAtFile(file);
  if (!now) return Giving::failed;
  if (now->isPlaceholder || now->version != version) return Giving::changed;
  const Placeholder::Shape provided{static_cast<std::uint64_t>(now->size),
                                    Placeholder::Time(std::chrono::nanoseconds(now->modified)),
                                    std::nullopt, static_cast<unsigned>(now->mode)};
  const auto evicted = Placeholder(file).evict(provided, next, announce);
  if (!evicted) {
    setErrno(evicted.error());
    return Giving::failed;
  }
  switch (*evicted) {
    case Placeholder::Eviction::evicted:
      return Giving::done;
    case Placeholder::Eviction::inUse:
      return Giving::inUse;
    default:
      return Giving::changed;
  }
}

Lease::Lease(int file, int kind) : file_(file) {
  // Instead of SIGIO, which ends a process that does not expect it.
  if (::fcntl(file_, F_SETSIG, SIGURG) != 0 || ::fcntl(file_, F_SETLEASE, kind) != 0) {
    problem_ = errno;
  }
}
Lease::~Lease() {
  if (problem_ == 0) ::fcntl(file_, F_SETLEASE, F_UNLCK);
  ::fcntl(file_, F_SETSIG, 0);
}

bool isBeingWritten(int file) {
  // A lease for reading needs a descriptor that cannot write.
  const qx::FileDescriptor reader(
      ::open(("/proc/self/fd/" + std::to_string(file)).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return reader && Lease(reader.get(), F_RDLCK).problem() == EAGAIN;
}

bool isOpenElsewhere(int file) { return Lease(file, F_WRLCK).problem() != 0; }

Placeholder::Shape shapeOf(const Node& node) {
  return {static_cast<std::uint64_t>(node.size),
          Placeholder::Time(std::chrono::nanoseconds(node.modified.value_or(0))), std::nullopt,
          node.mode ? std::optional(static_cast<unsigned>(*node.mode)) : std::nullopt};
}

Placeholder::Shape shapeOf(const Node& content, const Node& here, const LocalEntry& now) {
  auto shape = shapeOf(content);
  shape.mode.reset();
  // None is what a hidden placeholder has of which nobody knows any.
  if (now.isHidden && here.mode.value_or(0) != 0) shape.mode = static_cast<unsigned>(*here.mode);
  return shape;
}

std::string nameBeside(const std::string& name, const std::string& what, int attempt) {
  constexpr std::size_t longest = 255;
  constexpr std::size_t longestExtension = 32;
  const std::string added =
      " (" + what + (attempt > 1 ? " " + std::to_string(attempt) : std::string()) + ")";
  auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || name.size() - dot > longestExtension) {
    dot = name.size();
  }
  const std::string extension = name.substr(dot);
  // One such remark is enough.
  const auto before = name.rfind(" (" + what.substr(0, what.find(' ')), dot);
  if (before != std::string::npos && before > 0 && name[dot - 1] == ')') dot = before;
  std::size_t stem = std::min(dot, longest - added.size() - extension.size());
  // Not in the middle of a character of UTF-8.
  while (stem > 0 && stem < dot && (static_cast<unsigned char>(name[stem]) & 0xC0U) == 0x80U) {
    --stem;
  }
  return name.substr(0, stem) + added + extension;
}

}  // namespace docsource::mirror
