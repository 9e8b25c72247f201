// The trees that are guarded.

#include "platform/platformd/kernel/GuardedTrees.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Placeholder.h"

namespace qx::kernel {
namespace {

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/// A directory on that file system: the one at the path, or the nearest above that is there.
FileDescriptor mountAt(std::string path, const FileHandle::FileSystem& fileSystem) {
  for (;; path = parentOf(path)) {
    FileDescriptor directory = openDirectoryPromptly(path);
    if (directory && fileSystemOf(directory.get()) == fileSystem) return directory;
    if (directory || path == "/") return {};
  }
}

std::string join(const std::string& directory, const std::string& name) {
  return directory == "/" ? "/" + name : directory + "/" + name;
}

/// All that is asked for with this kind of events: where accesses are told, openings are too, for
/// the programs that look for holes before they read.
std::uint64_t eventsFor(std::uint64_t mask) { return mask | openPermission; }

}  // namespace

GuardedTrees::GuardedTrees(const AccessGroup& accesses, const ChangeGroup& changes,
                           std::uint64_t best, GuardList list, std::size_t mostPinned)
    : accesses_(accesses),
      changes_(changes),
      best_(best),
      pinned_(mostPinned),
      list_(std::move(list)) {
  for (const auto& entry : list_.all()) {
    if (entry.kind != Guarded::Kind::tree) continue;
    auto& tree = trees_[entry.path];
    tree.entry = entry;
    tree.isRemembered = true;
  }
}

FileDescriptor GuardedTrees::openRoot(const std::string& path, uid_t owner) {
  FileDescriptor root = openDirectoryPromptly(path);
  struct stat status;
  if (root && (fstat(root.get(), &status) != 0 || status.st_uid != owner)) {
    root.reset();
    errno = EACCES;
  }
  return root;
}

std::uint64_t GuardedTrees::markDirectory(int directory, dev_t device, int& errnum) {
  std::uint64_t mask = best_;
  errnum = accesses_.watchDirectory(directory, eventsFor(mask));
  if (mask == preAccess && (errnum == EINVAL || errnum == EOPNOTSUPP)) {
    mask = openPermission;
    errnum = accesses_.watchDirectory(directory, mask);
  }
  if (errnum != 0) return 0;
  // Without this one finished writes are not heard of, which is no reason to show zeros.
  changes_.watchDirectory(directory);
  const std::lock_guard lock(mutex_);
  masks_[device] = mask;
  return mask;
}

bool GuardedTrees::tellsOfOpeningsOnly(dev_t device) const {
  const std::lock_guard lock(mutex_);
  const auto known = masks_.find(device);
  return (known == masks_.end() ? best_ : known->second) == openPermission;
}

void GuardedTrees::walk(
    int root, const std::string& path, uid_t owner,
    const std::function<bool(int, const struct stat&, const std::string&)>& enter,
    const Visit& visit) {
  std::vector<std::string> open{"."};  // relative to the root
  while (!open.empty()) {
    const std::string name = std::move(open.back());
    open.pop_back();
    const FileDescriptor directory = openBeneath(root, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    const std::string whole = name == "." ? path : join(path, name);
    struct stat status;
    if (!directory) {
      // What is no longer there, or has become a link, is nobody's loss.
      if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != EXDEV) {
        DS_LOG("[ERROR] A directory of documents is not watched. Error: %@",
               posixError(errno, whole + " cannot be opened"));
      }
      continue;
    }
    if (fstat(directory.get(), &status) != 0 || status.st_uid != owner ||
        !enter(directory.get(), status, whole)) {
      continue;
    }
    eachEntry(directory.get(), [&](const char* entry) {
      const int wanted = visit ? O_PATH : O_PATH | O_DIRECTORY;
      const FileDescriptor file = openBeneath(directory.get(), entry, wanted);
      struct stat its;
      if (!file || fstat(file.get(), &its) != 0 || its.st_uid != owner) return;
      if (S_ISDIR(its.st_mode)) {
        open.push_back(name == "." ? entry : name + "/" + entry);
      } else if (S_ISREG(its.st_mode)) {
        visit(file.get(), its, join(whole, entry));
      }
    });
  }
}

GuardedTrees::Scan GuardedTrees::mark(int root, const std::string& path, uid_t owner,
                                      bool wantsContents) {
  Scan scan;
  walk(
      root, path, owner,
      [&](int directory, const struct stat& status, const std::string& name) {
        int errnum = 0;
        const std::uint64_t mask = markDirectory(directory, status.st_dev, errnum);
        if (name == path) {
          scan.mask = mask;
          scan.errnum = errnum;
        } else if (mask == 0) {
          DS_LOG("[ERROR] A directory of documents is not watched. Error: %@",
                 posixError(errnum, name + " cannot be marked"));
        }
        if (mask != 0) ++scan.directories;
        return mask != 0;
      },
      [&](int file, const struct stat& status, const std::string& name) {
        if (examine(file, status, owner, true)) {
          ++scan.placeholders;
        } else if (wantsContents) {
          scan.contents.push_back(name);
        }
      });
  if (scan.mask == 0 && scan.errnum == 0) scan.errnum = ENOENT;
  return scan;
}

std::size_t GuardedTrees::countPlaceholders(int root, const std::string& path, uid_t owner) {
  std::size_t count = 0;
  walk(
      root, path, owner, [](int, const struct stat&, const std::string&) { return true; },
      [&](int file, const struct stat& status, const std::string&) {
        if (Placeholder::isOne(file, status)) ++count;
      });
  return count;
}

GuardedTrees::Scan GuardedTrees::lookAt(const std::string& path, uid_t owner) {
  const FileDescriptor root = openRoot(path, owner);
  Scan scan;
  struct stat status;
  if (!root || fstat(root.get(), &status) != 0) {
    scan.errnum = errno;
    std::optional<FileHandle> before;
    {
      const std::lock_guard lock(mutex_);
      if (const auto tree = trees_.find(path); tree != trees_.end()) {
        tree->second.identity.reset();
        before = tree->second.entry.handle;
      }
    }
    if (before) wasMoved(*before);
    return scan;
  }
  std::optional<Guarded> before;
  Guarded now{Guarded::Kind::tree, owner, path, FileHandle::of(root.get())};
  {
    const std::lock_guard listLock(listMutex_);
    {
      const std::lock_guard lock(mutex_);
      auto& tree = trees_[path];
      tree.identity = identityOf(status);
      if (tree.isRemembered && tree.entry != now) before = tree.entry;
      tree.entry = now;
    }
    if (before) list_.remove(*before);
    const bool isRemembered = list_.add(now);
    if (!isRemembered) DS_LOG("[ERROR] %@ is guarded until the next start only.", path);
    const std::lock_guard lock(mutex_);
    trees_[path].isRemembered = isRemembered;
  }
  scan = mark(root.get(), path, owner, false);
  // The directory that was there before may hold placeholders still, wherever it is now.
  if (before && before->handle && before->handle != now.handle) wasMoved(*before->handle);
  return scan;
}

GuardedTrees::Scan GuardedTrees::claim(uid_t owner, const std::string& path) {
  {
    const std::lock_guard listLock(listMutex_);
    const FileDescriptor root = openRoot(path, owner);
    const int errnum = root ? 0 : errno;
    std::optional<Guarded> isNew;
    {
      const std::lock_guard lock(mutex_);
      const auto known = trees_.find(path);
      const bool isOthers = known != trees_.end() && known->second.entry.owner != owner;
      if (errnum == EACCES || (!root && isOthers)) {
        Scan refused;
        refused.errnum = EACCES;
        return refused;
      }
      auto& tree = trees_[path];
      // Those of whom it was before are no claims on this one.
      tree.claims = isOthers ? 1 : tree.claims + 1;
      if (known == trees_.end()) {
        isNew = tree.entry = {Guarded::Kind::tree, owner, path, std::nullopt};
      }
    }
    if (isNew && !root) {
      const bool isRemembered = list_.add(*isNew);
      const std::lock_guard lock(mutex_);
      trees_[path].isRemembered = isRemembered;
    }
  }
  return lookAt(path, owner);
}

bool GuardedTrees::release(uid_t owner, const std::string& path) {
  {
    const std::lock_guard lock(mutex_);
    const auto tree = trees_.find(path);
    if (tree == trees_.end() || tree->second.entry.owner != owner || tree->second.claims == 0 ||
        --tree->second.claims > 0) {
      return false;
    }
  }
  const FileDescriptor root = openRoot(path, owner);
  if (root && countPlaceholders(root.get(), path, owner) != 0) return false;
  const std::lock_guard listLock(listMutex_);
  std::optional<Guarded> forgotten;
  {
    const std::lock_guard lock(mutex_);
    const auto tree = trees_.find(path);
    // One that is away may hold placeholders when it comes back.
    if (tree == trees_.end() || tree->second.claims > 0) return false;
    if (!root && tree->second.entry.handle && tree->second.isRemembered) return false;
    forgotten = tree->second.entry;
    trees_.erase(tree);
  }
  list_.remove(*forgotten);
  return true;
}

std::optional<GuardedTrees::Scan> GuardedTrees::lookAgain(const std::string& path) {
  uid_t owner = 0;
  std::optional<FileIdentity> identity;
  {
    const std::lock_guard lock(mutex_);
    const auto tree = trees_.find(path);
    if (tree == trees_.end()) return std::nullopt;
    owner = tree->second.entry.owner;
    identity = tree->second.identity;
  }
  const FileDescriptor root = openRoot(path, owner);
  struct stat status;
  if (root && fstat(root.get(), &status) == 0 && identity == identityOf(status)) {
    return std::nullopt;
  }
  if (!root && !identity) return std::nullopt;
  return lookAt(path, owner);
}

void GuardedTrees::markAgain(const std::string& path) {
  const auto tree = placeOf(join(path, "."));
  if (tree) lookAt(path, tree->owner);
}

void GuardedTrees::watch(int directory, uid_t owner) {
  struct stat status;
  int errnum = 0;
  if (fstat(directory, &status) != 0 || status.st_uid != owner) return;
  markDirectory(directory, status.st_dev, errnum);
}

GuardedTrees::Scan GuardedTrees::look(int directory, uid_t owner, bool wantsContents) {
  return mark(directory, pathOf(directory).value_or("/"), owner, wantsContents);
}

void GuardedTrees::markDirectories() {
  std::set<Guarded> entries;
  {
    const std::lock_guard lock(listMutex_);
    entries = list_.all();
  }
  for (const auto& entry : entries) {
    if (entry.kind != Guarded::Kind::tree) continue;
    const FileDescriptor root = openRoot(entry.path, entry.owner);
    if (!root) continue;
    walk(
        root.get(), entry.path, entry.owner,
        [this](int directory, const struct stat& status, const std::string&) {
          int errnum = 0;
          return markDirectory(directory, status.st_dev, errnum) != 0;
        },
        nullptr);
  }
}

GuardedTrees::Scan GuardedTrees::guardAll() {
  Scan all;
  std::set<Guarded> entries;
  {
    const std::lock_guard lock(listMutex_);
    entries = list_.all();
  }
  for (const auto& entry : entries) {
    const auto scan =
        entry.kind == Guarded::Kind::tree ? lookAt(entry.path, entry.owner) : guardMoved(entry);
    all.directories += scan.directories;
    all.placeholders += scan.placeholders;
    if (scan.placeholders != 0 || entry.kind != Guarded::Kind::tree || scan.mask == 0) continue;
    const std::lock_guard listLock(listMutex_);
    std::optional<Guarded> forgotten;
    {
      const std::lock_guard lock(mutex_);
      const auto tree = trees_.find(entry.path);
      if (tree == trees_.end() || tree->second.claims > 0) continue;
      forgotten = tree->second.entry;
      trees_.erase(tree);
    }
    list_.remove(*forgotten);
  }
  return all;
}

GuardedTrees::Scan GuardedTrees::guardMoved(const Guarded& entry) {
  Scan scan;
  const FileDescriptor mount = mountAt(entry.path, entry.handle->fileSystem);
  if (!mount) return scan;
  const FileDescriptor file = entry.handle->open(mount.get(), O_PATH);
  struct stat status;
  if (file && fstat(file.get(), &status) == 0 && status.st_uid == entry.owner) {
    if (S_ISDIR(status.st_mode)) {
      const FileDescriptor directory = reopen(file.get(), O_RDONLY | O_DIRECTORY);
      if (directory) scan = look(directory.get(), entry.owner, false);
    } else if (S_ISREG(status.st_mode)) {
      scan.placeholders = examine(file.get(), status, entry.owner, true, false) ? 1 : 0;
    }
  }
  if (scan.placeholders == 0) {
    const std::lock_guard lock(listMutex_);
    list_.remove(entry);
  }
  return scan;
}

void GuardedTrees::wasMoved(const FileHandle& what) {
  const FileDescriptor mount = mountOf(what.fileSystem);
  const FileDescriptor file = mount ? what.open(mount.get(), O_PATH) : FileDescriptor();
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || status.st_nlink == 0) {
    pinned_.giveBack(what);
    return;
  }
  const auto path = pathOf(file.get());
  const auto place = path ? placeOf(*path) : std::nullopt;
  if (place && place->owner == status.st_uid && S_ISDIR(status.st_mode)) return;
  std::size_t placeholders = 0;
  if (S_ISDIR(status.st_mode)) {
    const FileDescriptor directory = reopen(file.get(), O_RDONLY | O_DIRECTORY);
    if (directory) placeholders = look(directory.get(), status.st_uid, false).placeholders;
  } else if (S_ISREG(status.st_mode) && Placeholder::isOne(file.get(), status)) {
    if (verified(path, identityOf(status))) return;
    watchPlaceholder(file.get(), status, false);
    placeholders = 1;
  }
  if (placeholders == 0) return;
  const Guarded entry{Guarded::Kind::moved, status.st_uid, pathOf(mount.get()).value_or("/"), what};
  const std::lock_guard lock(listMutex_);
  if (list_.add(entry)) return;
  // What cannot be remembered is out of reach from now on.
  if (S_ISREG(status.st_mode)) Placeholder::conceal(file.get(), status);
}

std::vector<std::string> GuardedTrees::paths() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> all;
  for (const auto& [path, tree] : trees_) all.push_back(path);
  return all;
}

std::optional<GuardedTrees::Place> GuardedTrees::placeOf(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  for (std::string above = parentOf(path);; above = parentOf(above)) {
    const auto tree = trees_.find(above);
    if (tree != trees_.end()) return Place{path, above, tree->second.entry.owner};
    if (above == "/") return std::nullopt;
  }
}

FileDescriptor GuardedTrees::mountOf(const FileHandle::FileSystem& fileSystem) const {
  std::vector<std::string> candidates;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [path, tree] : trees_) {
      const auto& handle = tree.entry.handle;
      if (handle && handle->fileSystem == fileSystem) candidates.push_back(path);
    }
  }
  for (const auto& path : candidates) {
    if (auto mount = mountAt(path, fileSystem)) return mount;
  }
  return {};
}

FileDescriptor GuardedTrees::openByHandle(const FileHandle& handle, int flags) const {
  const FileDescriptor mount = mountOf(handle.fileSystem);
  return mount ? handle.open(mount.get(), flags) : FileDescriptor();
}

std::optional<GuardedTrees::Place> GuardedTrees::verified(const std::optional<std::string>& path,
                                                          const FileIdentity& identity) const {
  auto place = path ? placeOf(*path) : std::nullopt;
  if (!place) return std::nullopt;
  const FileDescriptor root = openRoot(place->tree, place->owner);
  const auto below = place->path.substr(place->tree == "/" ? 1 : place->tree.size() + 1);
  const FileDescriptor file = root ? openBeneath(root.get(), below, O_PATH) : FileDescriptor();
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || identityOf(status) != identity) {
    return std::nullopt;
  }
  // What somebody else put into a tree is not the tree's.
  if (status.st_uid != place->owner) return std::nullopt;
  return place;
}

std::optional<GuardedTrees::Place> GuardedTrees::locate(int file, const struct stat& status) const {
  const FileIdentity identity = identityOf(status);
  if (auto place = verified(pathOf(file), identity)) return place;
  // Through a mount that is not to be seen from here: by that of the tree.
  const auto handle = FileHandle::of(file);
  const FileDescriptor here = handle ? openByHandle(*handle, O_PATH) : FileDescriptor();
  return here ? verified(pathOf(here.get()), identity) : std::nullopt;
}

std::optional<GuardedTrees::Place> GuardedTrees::search(const struct stat& status) const {
  const FileIdentity identity = identityOf(status);
  for (const auto& path : paths()) {
    const auto owner = placeOf(join(path, "."));
    const FileDescriptor root = owner ? openRoot(path, owner->owner) : FileDescriptor();
    if (!root) continue;
    std::optional<std::string> found;
    walk(
        root.get(), path, owner->owner,
        [&](int, const struct stat& its, const std::string&) {
          return !found && its.st_dev == identity.device;
        },
        [&](int, const struct stat& its, const std::string& name) {
          if (identityOf(its) == identity) found = name;
        });
    if (found) return placeOf(*found);
  }
  return std::nullopt;
}

std::optional<GuardedTrees::Directory> GuardedTrees::directory(const FileHandle& handle) const {
  Directory found;
  found.file = openByHandle(handle, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
  struct stat status;
  if (!found.file || fstat(found.file.get(), &status) != 0) return std::nullopt;
  const auto path = pathOf(found.file.get());
  if (!path) return std::nullopt;
  found.path = *path;
  found.owner = status.st_uid;
  // The directory itself may be the tree's.
  found.place = placeOf(join(*path, "."));
  if (found.place && found.place->owner != status.st_uid) found.place.reset();
  return found;
}

bool GuardedTrees::mayBeForgotten(int file, uid_t owner) const {
  const auto handle = FileHandle::of(file);
  // Each time, because a file system that was mounted anew tells of nothing.
  if (!handle || pinned_.take(*handle, owner)) return false;
  if (!names() || names()->watchNames(file) != 0) return false;
  // The names that it got before.
  struct stat status;
  return fstat(file, &status) == 0 && status.st_nlink == 1;
}

void GuardedTrees::watchPlaceholder(int file, const struct stat& status, bool isCovered) const {
  const bool inMemory = isCovered && mayBeForgotten(file, status.st_uid);
  const auto watch = [&](std::uint64_t mask) {
    return inMemory ? accesses_.watchFileInMemory(file, mask) : accesses_.watchFile(file, mask);
  };
  if (watch(eventsFor(best_)) != 0 && best_ == preAccess) watch(openPermission);
}

void GuardedTrees::wasNamed(const FileHandle& what) const {
  // What is in no tree is no concern of this service, placeholder or not.
  if (!pinned_.hasRefused(what)) return;
  const FileDescriptor file = openByHandle(what, O_PATH);
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      !Placeholder::isOne(file.get(), status)) {
    return;
  }
  const auto path = pathOf(file.get());
  const bool isCovered = status.st_nlink == 1 && path && placeOf(*path);
  if (!isCovered) watchPlaceholder(file.get(), status, false);
}

bool GuardedTrees::examine(int file, const struct stat& status, uid_t owner, bool isClosed,
                           bool isCovered) const {
  if (status.st_uid != owner) return false;
  const bool isOne = Placeholder::isOne(file, status);
  if (isOne) {
    watchPlaceholder(file, status, isCovered);
    accesses_.stopIgnoring(file, preAccess);
  }
  // Not while the provider may hold a lease: openings that are told fail then. It holds none on
  // what it has made without permissions.
  bool shallAnchor = isOne && (isClosed || Placeholder::isHidden(file, status));
  if (shallAnchor) {
    accesses_.stopIgnoring(file, openPermission);
    shallAnchor = !Placeholder::anchor(file, status);
  }
  // Not before, or whoever opens it in between, by a name in a directory without a mark, is asked
  // nothing.
  {
    const std::lock_guard lock(permissionsMutex_);
    struct stat now;
    if (!isConcealing_ && fstat(file, &now) == 0) {
      Placeholder::reveal(file, now);
      if (isOne) Placeholder::revealHidden(file, now);
    }
  }
  // What nobody could open before.
  if (shallAnchor) Placeholder::anchor(file, status);
  return isOne;
}

bool GuardedTrees::settle(int file) const {
  // No leave is given to a placeholder, not for a moment: others read it, and this process may be
  // killed before it takes the leave back.
  struct stat status;
  if (fstat(file, &status) == 0 && Placeholder::isOne(file, status)) return false;
  if (accesses_.unwatchFile(file, eventsFor(best_)) == 0) {
    if (const auto handle = FileHandle::of(file)) pinned_.giveBack(*handle);
  }
  accesses_.ignoreFile(file, eventsFor(best_));
  // Looked at again after that: a provider that marks it now, and then sets its time, withdraws
  // this leave.
  if (fstat(file, &status) != 0 || !Placeholder::isOne(file, status)) return true;
  watchPlaceholder(file, status, false);
  accesses_.stopIgnoring(file, eventsFor(best_));
  return false;
}

std::size_t GuardedTrees::conceal() {
  isConcealing_ = true;
  std::size_t concealed = 0;
  const auto concealOne = [&](int file, const struct stat& status, const std::string&) {
    if (!Placeholder::isOne(file, status)) return;
    const std::lock_guard lock(permissionsMutex_);
    struct stat now;
    if (fstat(file, &now) == 0 && Placeholder::conceal(file, now)) ++concealed;
  };
  const auto concealAll = [&](int root, const std::string& path, uid_t owner) {
    walk(
        root, path, owner, [](int, const struct stat&, const std::string&) { return true; },
        concealOne);
  };
  std::set<Guarded> moved;
  {
    const std::lock_guard lock(listMutex_);
    moved = list_.all();
  }
  for (const auto& path : paths()) {
    const auto tree = placeOf(join(path, "."));
    const FileDescriptor root = tree ? openRoot(path, tree->owner) : FileDescriptor();
    if (root) concealAll(root.get(), path, tree->owner);
  }
  for (const auto& entry : moved) {
    if (entry.kind != Guarded::Kind::moved) continue;
    const FileDescriptor mount = mountAt(entry.path, entry.handle->fileSystem);
    const FileDescriptor file = mount ? entry.handle->open(mount.get(), O_PATH) : FileDescriptor();
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || status.st_uid != entry.owner) continue;
    if (S_ISREG(status.st_mode)) concealOne(file.get(), status, entry.path);
    if (!S_ISDIR(status.st_mode)) continue;
    if (const FileDescriptor root = reopen(file.get(), O_RDONLY | O_DIRECTORY)) {
      concealAll(root.get(), entry.path, entry.owner);
    }
  }
  return concealed;
}

}  // namespace qx::kernel
