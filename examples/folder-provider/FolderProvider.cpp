// The seven operations of a provider whose documents live in another directory.

#include "FolderProvider.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>
#include <vector>

#include "docsource/placeholder.h"

namespace folder {

using docsource::Descriptor;
using docsource::Error;
using docsource::Placeholder;
using docsource::PlaceholderMarks;
using docsource::Result;

namespace {

constexpr const char* placeholderMark = PlaceholderMarks::placeholder;
constexpr const char* identifierMark = "identifier";
constexpr const char* originMark = "origin";

constexpr const char* pathPrefix = "path:";
constexpr const char* sidePrefix = ".docsource-";
constexpr int attempts = 3;
/// Placeholders that set-up makes durable together.
constexpr std::size_t mostAside = 2000;

Error configurationError(std::string description) {
  return {folderProviderErrorDomain, static_cast<std::int64_t>(FolderProviderError::notConfigured),
          std::move(description)};
}
Error keepsChanging(const std::string& path) {
  return {folderProviderErrorDomain,
          static_cast<std::int64_t>(FolderProviderError::keepsChanging),
          "The file keeps changing while it is copied.",
          {{"URL", docsource::fileURL(path)}}};
}

/// The marks of one item, where the library keeps its own.
class ItemMarks final : public PlaceholderMarks {
 public:
  ItemMarks(const Marks& marks, std::string relative)
      : marks_(marks), relative_(std::move(relative)) {}
  std::optional<std::string> get(int file, const char* name) const override {
    return marks_.get(file, relative_, name);
  }
  bool set(int file, const char* name, const std::string& value) const override {
    return marks_.set(file, relative_, name, value);
  }
  bool clear(int file, const char* name) const override {
    return marks_.clear(file, relative_, name);
  }

 private:
  const Marks& marks_;
  const std::string relative_;
};

/// What tells one content of a file from another.
std::string versionOf(const Descriptor& file) {
  const auto version = Placeholder(file.get()).version();
  return version ? *version : "none";
}

bool isSideFile(const std::string& relative) { return nameOf(relative).starts_with(sidePrefix); }

/// Whether a placeholder is as reset() leaves it; what a crash has left may occupy more.
bool shows(const Descriptor& placeholder, const Placeholder::Shape& shape) {
  constexpr blkcnt_t blockUnit = 512;
  struct stat status {};
  const auto now = Placeholder::shapeOf(placeholder.get());
  return now && now->size == shape.size && now->modified == shape.modified &&
         ::fstat(placeholder.get(), &status) == 0 &&
         status.st_blocks * blockUnit <= 2 * status.st_blksize;  // the first, and the attributes
}

bool setTimes(const Descriptor& file, const struct stat& like) {
  const timespec times[2] = {like.st_atim, like.st_mtim};
  return ::futimens(file.get(), times) == 0;
}

/// The whole of `from`, from its beginning, to the end of `to`.
Result<void> copyContent(const Descriptor& from, const std::string& fromPath, const Descriptor& to,
                         const std::string& toPath) {
  std::string buffer(1U << 20U, '\0');
  off_t position = 0;
  while (true) {
    const ssize_t count = ::pread(from.get(), buffer.data(), buffer.size(), position);
    if (count == 0) return {};
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Error::file(errno, fromPath);
    if (!writeAll(to.get(), buffer.data(), static_cast<std::size_t>(count))) {
      return Error::file(errno, toPath);
    }
    position += count;
  }
}

}  // namespace

Result<FolderProvider::Places> FolderProvider::places() const {
  if (!documentStorage()) return configurationError("The extension has no document storage.");
  auto storage = Tree::open(*documentStorage());
  if (!storage) return storage.error();
  auto hidden = Tree::open(std::filesystem::path(*documentStorage()).parent_path().string() +
                           "/.folder-provider");
  if (!hidden) return hidden.error();
  return Places{*std::move(storage), *std::move(hidden),
                infoString("FolderProviderMarks") != "files"};
}

Result<Tree> FolderProvider::origin() const {
  const auto path = infoString("FolderProviderOrigin");
  if (!path || !path->starts_with('/')) {
    return configurationError(
        "Info.plist names no directory (an absolute path) under \"FolderProviderOrigin\".");
  }
  return Tree::open(*path);
}

Result<std::string> FolderProvider::relativePath(const Places& places,
                                                 const std::string& path) const {
  // The storage may be named through a link in front of it; links inside it are never followed.
  namespace fs = std::filesystem;
  std::error_code problem;
  const fs::path root = fs::canonical(places.storage.path(), problem);
  fs::path item = fs::path(path);
  if (!item.has_filename()) item = item.parent_path();
  const fs::path parent = problem ? fs::path() : fs::weakly_canonical(item.parent_path(), problem);
  const std::string relative =
      problem ? "" : (parent / item.filename()).lexically_relative(root).string();
  if (relative.empty() || relative == "." || relative == ".." || relative.starts_with("../")) {
    return Error(std::string(docsource::daemonErrorDomain), 2,
                 "The file is not one of this provider's documents.",
                 {{"URL", docsource::fileURL(path)}});
  }
  return relative;
}

Result<FolderProvider::Item> FolderProvider::itemAt(const std::string& path) {
  std::shared_lock layout(layout_);
  auto here = places();
  if (!here) return here.error();
  auto relative = relativePath(*here, path);
  if (!relative) return relative.error();
  std::unique_lock lock(lockFor(*relative));
  return Item{std::move(layout), *std::move(here), *std::move(relative), std::move(lock)};
}

std::mutex& FolderProvider::lockFor(const std::string& relative) {
  return itemLocks_[std::hash<std::string>()(relative) % itemLocks_.size()];
}

/// The identifier that an origin file has, or gets when it has none and `assign`.
std::string FolderProvider::identifierOf(const Places& places, const Descriptor& originFile,
                                         const std::string& relative, bool assign) const {
  if (places.useAttributes) {
    if (auto identifier = attribute(originFile.get(), identifierMark)) return *identifier;
    if (assign) {
      std::string made = randomText(16);
      if (setAttribute(originFile.get(), identifierMark, made)) return made;
    }
  }
  return pathPrefix + relative;
}

Result<FolderProvider::OriginFile> FolderProvider::originOf(
    const Places& places, const Tree& origin, const std::string& relative,
    const std::optional<std::string>& identifier) const {
  Descriptor there = origin.openFile(relative, O_RDONLY);
  const int problem = errno;
  const auto found = there ? attribute(there.get(), identifierMark) : std::nullopt;
  const bool named = identifier && !identifier->starts_with(pathPrefix) && places.useAttributes;
  if (there && (!named || found == identifier)) return OriginFile{relative, std::move(there)};
  if (named) {
    std::optional<OriginFile> elsewhere;
    origin.walk([&](const std::string& candidate, const struct stat& status) {
      if (elsewhere || !S_ISREG(status.st_mode)) return;
      Descriptor file = origin.openFile(candidate, O_RDONLY);
      if (file && attribute(file.get(), identifierMark) == identifier) {
        elsewhere = OriginFile{candidate, std::move(file)};
      }
    });
    if (elsewhere) return *std::move(elsewhere);
  }
  // A file without an identifier of its own was put in the item's place by an editor.
  if (there && !found) return OriginFile{relative, std::move(there)};
  return Error::file(there ? ENOENT : problem, origin.pathOf(relative));
}

Result<FolderProvider::SideFile> FolderProvider::makeAside(const Places& places, const Marks& marks,
                                                           const std::string& relative,
                                                           const Descriptor& originFile,
                                                           const std::string& identifier) const {
  const std::string path = places.storage.pathOf(relative);
  const ItemMarks itemMarks(marks, relative);
  struct stat status {};
  const auto shape = Placeholder::shapeOf(originFile.get());
  SideFile side{"side-" + randomText(8), {}};
  if (!shape) return shape.error();
  if (::fstat(originFile.get(), &status) != 0) return Error::file(errno, path);
  side.file = places.hidden.openItem(side.name, O_RDWR | O_CREAT | O_EXCL, status.st_mode & 0777U);
  if (!side.file) return Error::file(errno, path);
  const auto shown = Placeholder(side.file.get(), itemMarks).reset(*shape);
  if (shown && ::fchmod(side.file.get(), (status.st_mode & 0777U) | S_IRUSR | S_IWUSR) == 0 &&
      marks.set(side.file.get(), relative, identifierMark, identifier)) {
    return side;
  }
  const auto error = shown ? Error::file(errno, path) : shown.error();
  places.hidden.remove(side.name);
  return error;
}

Result<void> FolderProvider::putInPlace(const Places& places, const std::string& side,
                                        const std::string& relative) const {
  if (places.storage.makeDirectories(parentOf(relative)) &&
      places.hidden.move(side, places.storage, relative, false)) {
    return {};
  }
  const int problem = errno;
  places.hidden.remove(side);
  if (problem == EEXIST) return {};
  return Error::file(problem, places.storage.pathOf(relative));
}

Result<void> FolderProvider::makePlaceholder(const Places& places, const std::string& relative,
                                             const Descriptor& originFile,
                                             const std::string& identifier) const {
  // Made aside, marked, and only then put in its place: nobody sees an empty file that passes for
  // a document.
  const Marks marks(places.hidden, places.useAttributes);
  const auto side = makeAside(places, marks, relative, originFile, identifier);
  if (!side) return side.error();
  if (::fsync(side->file.get()) != 0) {
    const auto error = Error::file(errno, places.storage.pathOf(relative));
    places.hidden.remove(side->name);
    return error;
  }
  return putInPlace(places, side->name, relative);
}

Result<void> FolderProvider::bringIn(const Places& places, const std::string& relative,
                                     const Descriptor& item, const OriginFile& from) const {
  const Marks marks(places.hidden, places.useAttributes);
  const ItemMarks itemMarks(marks, relative);
  const std::string path = places.storage.pathOf(relative);
  auto writer = Placeholder(item.get(), itemMarks).fill();
  if (!writer) return writer.error();
  for (int attempt = 0; attempt < attempts; ++attempt) {
    const std::string version = versionOf(from.file);
    const auto shape = Placeholder::shapeOf(from.file.get());
    if (!shape) return shape.error();
    auto copied = writer->copy(from.file.get());
    if (!copied) return copied;
    if (versionOf(from.file) != version) continue;
    if (!marks.set(item.get(), relative, originMark, version)) return Error::file(errno, path);
    return writer->finish(*shape);
  }
  return keepsChanging(path);
}

Result<void> FolderProvider::writeBack(const Places& places, const Tree& origin,
                                       const std::string& relative, const Descriptor& item) const {
  const Marks marks(places.hidden, places.useAttributes);
  const ItemMarks itemMarks(marks, relative);
  const Placeholder document(item.get(), itemMarks);
  if (!document.isChanged()) return {};

  const auto knownOrigin = marks.get(item.get(), relative, originMark);
  auto identifier = marks.get(item.get(), relative, identifierMark);
  auto old = originOf(places, origin, relative, identifier);
  if (!old && !old.error().is(docsource::standardErrorDomain, 260)) return old.error();
  const std::string target = old ? old->relative : relative;
  const std::string side =
      (parentOf(target).empty() ? "" : parentOf(target) + "/") + sidePrefix + randomText(8);
  const auto failed = [&] { return Error::file(errno, origin.pathOf(target)); };
  if (!origin.makeDirectories(parentOf(target))) return failed();
  // The file that an editor put in the document's place has no identifier of its own.
  if (!identifier && old) identifier = identifierOf(places, old->file, target, true);
  if (!identifier) identifier = places.useAttributes ? randomText(16) : pathPrefix + relative;

  for (int attempt = 0; attempt < attempts; ++attempt) {
    const std::string version = versionOf(item);
    struct stat status {};
    struct stat oldStatus {};
    if (::fstat(item.get(), &status) != 0) return failed();
    const bool likeOld = old && ::fstat(old->file.get(), &oldStatus) == 0;
    const Descriptor copy = origin.openItem(side, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (!copy) return failed();
    const auto copied =
        copyContent(item, places.storage.pathOf(relative), copy, origin.pathOf(target));
    if (!copied) {
      origin.remove(side);
      return copied.error();
    }
    bool done = ::fchmod(copy.get(), (likeOld ? oldStatus : status).st_mode & 0777U) == 0 &&
                setTimes(copy, status);
    if (done && !identifier->starts_with(pathPrefix) &&
        !setAttribute(copy.get(), identifierMark, *identifier)) {
      done = errno == ENOTSUP;
    }
    done = done && ::fsync(copy.get()) == 0;
    if (done && versionOf(item) != version) {
      origin.remove(side);
      continue;
    }
    // A version of the origin that was never seen here stays beside it.
    if (done && likeOld && knownOrigin && knownOrigin != versionOf(old->file)) {
      done = origin.link(target, target + ".conflict-" + randomText(4));
    }
    if (!done || !origin.move(side, origin, target, true) || !origin.syncParent(target)) {
      const int problem = errno;
      origin.remove(side);
      errno = problem;
      return failed();
    }
    if (!marks.set(item.get(), relative, identifierMark, *identifier) ||
        !marks.set(item.get(), relative, originMark, versionOf(copy))) {
      return Error::file(errno, places.storage.pathOf(relative));
    }
    return document.setUnchanged(version);
  }
  return keepsChanging(places.storage.pathOf(relative));
}

// The operations.

Result<void> FolderProvider::performInitialSetup() {
  const std::unique_lock layout(layout_);
  if (!documentStorage()) return configurationError("The extension has no document storage.");
  const auto from = origin();
  if (!from) return from.error();
  const std::string container = std::filesystem::path(*documentStorage()).parent_path().string();
  for (const auto& [path, mode] : {std::pair(*documentStorage(), mode_t{0755}),
                                   std::pair(container + "/.folder-provider", mode_t{0700})}) {
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return Error::file(errno, path);
  }
  const auto here = places();
  if (!here) return here.error();
  return reconcile(*here, *from);
}

/// Makes the storage mirror the origin, without touching any content.
Result<void> FolderProvider::reconcile(const Places& places, const Tree& origin) {
  const Marks marks(places.hidden, places.useAttributes);

  // What a crash left half made.
  places.hidden.walk([&](const std::string& relative, const struct stat& status) {
    if (S_ISREG(status.st_mode) && relative.starts_with("side-")) places.hidden.remove(relative);
  });

  std::map<std::string, std::string> here;  // identifier to path
  places.storage.walk([&](const std::string& relative, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return;
    const Descriptor item = places.storage.openFile(relative, O_RDONLY);
    const auto identifier = item ? marks.get(item.get(), relative, identifierMark) : std::nullopt;
    if (identifier) here.emplace(*identifier, relative);
  });

  std::vector<std::string> files;
  const bool complete = origin.walk([&](const std::string& relative, const struct stat& status) {
    if (S_ISDIR(status.st_mode)) {
      places.storage.makeDirectories(relative);
    } else if (!isSideFile(relative)) {
      files.push_back(relative);
    }
  });

  // Copies carry the identifier along; the file in the place where the item is known keeps it.
  std::map<std::string, std::string> owners;  // identifier to path
  for (const auto& relative : files) {
    const Descriptor file = origin.openFile(relative, O_RDONLY);
    const auto identifier = file ? attribute(file.get(), identifierMark) : std::nullopt;
    if (!identifier) continue;
    const auto known = here.find(*identifier);
    const auto [owner, first] = owners.emplace(*identifier, relative);
    if (!first && known != here.end() && known->second == relative) owner->second = relative;
  }

  std::map<std::string, std::string> identifiers;  // path to identifier
  for (const auto& relative : files) {
    const Descriptor file = origin.openFile(relative, O_RDONLY);
    if (!file) continue;  // not readable for us, or gone again
    if (places.useAttributes) {
      const auto own = attribute(file.get(), identifierMark);
      const auto item = places.storage.openFile(relative, O_RDONLY);
      const auto kept = item ? marks.get(item.get(), relative, identifierMark) : std::nullopt;
      if (own && owners[*own] != relative) {
        setAttribute(file.get(), identifierMark, randomText(16));
      } else if (!own && kept && !kept->starts_with(pathPrefix) && !owners.contains(*kept)) {
        // An editor put another file in the place of the one that bore the identifier.
        setAttribute(file.get(), identifierMark, *kept);
      }
    }
    identifiers.emplace(relative, identifierOf(places, file, relative, true));
  }

  // Renamed in the origin since: the document follows, perhaps to where another one has to leave.
  for (bool moving = true; moving;) {
    moving = false;
    for (const auto& [relative, identifier] : identifiers) {
      const auto known = here.find(identifier);
      if (known == here.end() || known->second == relative ||
          places.storage.openItem(relative, O_PATH) ||
          !places.storage.makeDirectories(parentOf(relative)) ||
          !marks.copy(known->second, relative) ||
          !places.storage.move(known->second, places.storage, relative, false)) {
        continue;
      }
      marks.forget(std::exchange(known->second, relative));
      moving = true;
    }
  }

  std::map<std::string, std::string> index;
  std::optional<Error> failure;
  const auto note = [&failure](const Result<void>& result) {
    if (!result && !failure) failure = result.error();
    return result.ok();
  };

  // New ones are made aside, many of them, made durable together, and then put in their places.
  const Marks newMarks(places.hidden, places.useAttributes, Marks::Durable::later);
  std::map<std::string, std::string> aside;  // path to side file
  const auto putAllInPlace = [&] {
    const bool isDurable = aside.empty() || places.hidden.syncAll();
    if (!isDurable) note(Error::file(errno, places.hidden.path()));
    for (const auto& [relative, side] : aside) {
      if (!isDurable) {
        places.hidden.remove(side);
      } else if (note(putInPlace(places, side, relative))) {
        index.emplace(identifiers.at(relative), relative);
      }
    }
    aside.clear();
  };
  for (const auto& [relative, identifier] : identifiers) {
    const Descriptor file = origin.openFile(relative, O_RDONLY);
    if (!file) continue;
    const Descriptor item = places.storage.openFile(relative, O_RDWR);
    if (!item) {
      if (errno != ENOENT) continue;  // something else stands in its place
      const auto side = makeAside(places, newMarks, relative, file, identifier);
      if (side) {
        aside.emplace(relative, side->name);
      } else {
        note(side.error());
      }
      if (aside.size() >= mostAside) putAllInPlace();
      continue;
    }
    const bool isPlaceholder = marks.get(item.get(), relative, placeholderMark).has_value();
    const auto kept = marks.get(item.get(), relative, identifierMark);
    // Content of another document keeps its identifier; set-up does not decide about content.
    if (kept && kept != identifier && !isPlaceholder) continue;
    if (kept != identifier) marks.set(item.get(), relative, identifierMark, identifier);
    index.emplace(identifier, relative);
    // A placeholder shows the size and time that the origin has now.
    if (isPlaceholder) {
      const ItemMarks itemMarks(marks, relative);
      const auto shape = Placeholder::shapeOf(file.get());
      if (shape && shows(item, *shape)) continue;
      note(shape ? Placeholder(item.get(), itemMarks).reset(*shape) : shape.error());
    }
  }
  putAllInPlace();

  // Placeholders of what is no more go; content stays, it may be the only one left.
  if (complete) {
    std::vector<std::string> gone;
    places.storage.walk([&](const std::string& relative, const struct stat& status) {
      if (!S_ISREG(status.st_mode) || origin.openItem(relative, O_PATH)) return;
      const bool isGone = errno == ENOENT || errno == ENOTDIR;
      const Descriptor item = places.storage.openFile(relative, O_RDONLY);
      if (isGone && item && marks.get(item.get(), relative, placeholderMark)) {
        gone.push_back(relative);
      }
    });
    for (const auto& relative : gone) {
      if (places.storage.remove(relative)) marks.forget(relative);
    }
  }
  {
    const std::lock_guard lock(indexMutex_);
    index_ = std::move(index);
  }
  if (failure) return *failure;
  return {};
}

Result<void> FolderProvider::providePlaceholder(const std::string& path) {
  const auto found = itemAt(path);
  if (!found) return found.error();
  const Places& here = found->places;
  const std::string& relative = found->relative;
  if (here.storage.openItem(relative, O_PATH)) return {};
  if (errno != ENOENT) return Error::file(errno, path);
  const auto from = origin();
  if (!from) return from.error();
  const auto file = originOf(here, *from, relative, std::nullopt);
  if (!file) return file.error();
  return makePlaceholder(here, relative, file->file,
                         identifierOf(here, file->file, relative, true));
}

Result<void> FolderProvider::startProviding(const std::string& path) {
  const auto found = itemAt(path);
  if (!found) return found.error();
  const Places& here = found->places;
  const std::string& relative = found->relative;
  const Marks marks(here.hidden, here.useAttributes);

  Descriptor item = here.storage.openFile(relative, O_RDWR);
  if (!item && errno != ENOENT) return Error::file(errno, path);
  const bool isThere = static_cast<bool>(item);
  const bool isPlaceholder = isThere && marks.get(item.get(), relative, placeholderMark);
  const ItemMarks itemMarks(marks, relative);
  // What was made or changed here is newer than the origin and is there already.
  if (isThere && !isPlaceholder && Placeholder(item.get(), itemMarks).isChanged()) return {};

  const auto from = origin();
  if (!from) {
    // Content that is there can be had without the origin.
    if (isThere && !isPlaceholder) return {};
    return from.error();
  }
  const auto identifier = isThere ? marks.get(item.get(), relative, identifierMark) : std::nullopt;
  const auto file = originOf(here, *from, relative, identifier);
  if (!file) {
    if (isThere && !isPlaceholder) return {};
    return file.error();
  }
  if (isThere && !isPlaceholder &&
      marks.get(item.get(), relative, originMark) == versionOf(file->file)) {
    return {};
  }
  if (!isThere) {
    const auto made =
        makePlaceholder(here, relative, file->file, identifierOf(here, file->file, relative, true));
    if (!made) return made.error();
    item = here.storage.openFile(relative, O_RDWR);
    if (!item) return Error::file(errno, path);
  }
  return bringIn(here, relative, item, *file);
}

Result<void> FolderProvider::itemChanged(const std::string& path) {
  const auto found = itemAt(path);
  if (!found) return found.error();
  const Places& here = found->places;
  const std::string& relative = found->relative;
  const Descriptor item = here.storage.openFile(relative, O_RDWR);
  if (!item) return Error::file(errno, path);
  const Marks marks(here.hidden, here.useAttributes);
  if (marks.get(item.get(), relative, placeholderMark)) return {};
  const auto to = origin();
  if (!to) return to.error();
  return writeBack(here, *to, relative, item);
}

Result<void> FolderProvider::stopProviding(const std::string& path) {
  const auto found = itemAt(path);
  if (!found) return found.error();
  const Places& here = found->places;
  const std::string& relative = found->relative;
  const Descriptor item = here.storage.openFile(relative, O_RDWR);
  if (!item) return Error::file(errno, path);
  const Marks marks(here.hidden, here.useAttributes);
  if (marks.get(item.get(), relative, placeholderMark)) return {};

  const auto from = origin();
  if (!from) return {};  // the only content left is this one
  const auto file =
      originOf(here, *from, relative, marks.get(item.get(), relative, identifierMark));
  if (!file) return {};
  const auto shape = Placeholder::shapeOf(file->file.get());
  if (!shape) return shape.error();
  // What was changed stays, and who has it open goes on reading what is there.
  const ItemMarks itemMarks(marks, relative);
  const auto evicted = Placeholder(item.get(), itemMarks).evict(*shape);
  if (!evicted) return evicted.error();
  return {};
}

Result<std::string> FolderProvider::identifierForItem(const std::string& path) {
  const auto found = itemAt(path);
  if (!found) return found.error();
  const Places& here = found->places;
  const std::string& relative = found->relative;
  const Marks marks(here.hidden, here.useAttributes);
  const auto known = [&](std::string identifier) {
    const std::lock_guard lock(indexMutex_);
    index_[identifier] = relative;
    return identifier;
  };

  const Descriptor item = here.storage.openFile(relative, O_RDONLY);
  if (!item && errno == EISDIR) return pathPrefix + relative;
  if (!item && errno != ENOENT) return Error::file(errno, path);
  if (item) {
    if (auto identifier = marks.get(item.get(), relative, identifierMark)) {
      return known(*std::move(identifier));
    }
  }
  const auto from = origin();
  const auto file =
      from ? originOf(here, *from, relative, std::nullopt) : Result<OriginFile>(from.error());
  if (!item && !file) return file.error();
  std::string identifier = pathPrefix + relative;
  if (file) {
    identifier = identifierOf(here, file->file, relative, true);
  } else if (here.useAttributes) {
    identifier = randomText(16);  // made here, not in the origin yet
  }
  if (item && !marks.set(item.get(), relative, identifierMark, identifier)) {
    return Error::file(errno, path);
  }
  return known(std::move(identifier));
}

Result<std::string> FolderProvider::pathForItem(const std::string& identifier) {
  const std::shared_lock layout(layout_);
  const auto here = places();
  if (!here) return here.error();
  const Marks marks(here->hidden, here->useAttributes);
  const auto bears = [&](const std::string& relative) {
    const Descriptor item = here->storage.openFile(relative, O_RDONLY);
    return item && marks.get(item.get(), relative, identifierMark) == identifier;
  };

  std::optional<std::string> relative;
  {
    const std::lock_guard lock(indexMutex_);
    if (const auto found = index_.find(identifier); found != index_.end()) {
      relative = found->second;
    }
  }
  if (relative && !bears(*relative)) relative.reset();
  if (!relative) {
    here->storage.walk([&](const std::string& candidate, const struct stat& status) {
      if (!relative && S_ISREG(status.st_mode) && bears(candidate)) relative = candidate;
    });
  }
  if (!relative && identifier.starts_with(pathPrefix)) {
    const std::string named = identifier.substr(std::string(pathPrefix).size());
    if (!named.empty() && here->storage.openItem(named, O_PATH | O_DIRECTORY)) relative = named;
  }
  if (!relative) return Error::noSuchItem(identifier);

  const Descriptor item = here->storage.openFile(*relative, O_RDONLY);
  if (item && marks.get(item.get(), *relative, placeholderMark)) {
    const auto from = origin();
    if (!from) return from.error();
    // A placeholder of what is no more stands for nothing.
    const auto file = originOf(*here, *from, *relative, identifier);
    if (!file && file.error().is(docsource::standardErrorDomain, 260)) {
      return Error::noSuchItem(identifier);
    }
    if (!file) return file.error();
  }
  const std::lock_guard lock(indexMutex_);
  index_[identifier] = *relative;
  return here->storage.pathOf(*relative);
}

}  // namespace folder
