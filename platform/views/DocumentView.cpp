// Both sides of a document by names and inodes.

#include "platform/views/DocumentView.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/files/InodeMark.h"
#include "platform/files/Inotify.h"
#include "platform/files/Places.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/sandbox/EncodedPath.h"

namespace qx {
namespace {

using kernel::eachEntry;
using kernel::openBeneath;
using kernel::openDirectoryStrictly;

constexpr const char* nextLink = "next";
/// The same file once more, on its way to be known. Alone, it tells that the link has come to its
/// place.
constexpr const char* nextKnown = "next-known";
constexpr const char* toldMark = "told";
constexpr int mostAsides = 100;

using Status = std::optional<struct stat>;

Status statusOf(const FileDescriptor& directory, const std::string& name) {
  struct stat status;
  if (!directory || fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  return status;
}

bool isSame(const Status& one, const Status& other) {
  return one && other && identityOf(*one) == identityOf(*other);
}

bool isFile(const Status& status) { return status && S_ISREG(status->st_mode); }

bool isLater(const InodeName::Time& one, const InodeName::Time& other) {
  return one.seconds != other.seconds ? one.seconds > other.seconds
                                      : one.nanoseconds > other.nanoseconds;
}

std::pair<std::string, std::string> split(const std::string& document) {
  const auto slash = document.rfind('/');
  if (slash == std::string::npos) return {"", document};
  return {document.substr(0, slash), document.substr(slash + 1)};
}

std::string joined(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "/" + name;
}

std::optional<std::string> resolved(const std::string& path) {
  std::array<char, PATH_MAX> buffer{};
  if (!realpath(path.c_str(), buffer.data())) return std::nullopt;
  return std::string(buffer.data());
}

std::string rootOf(const std::string& application) {
  return Places::documentViews() + "/" + application;
}

bool isName(const std::string& application) {
  return !application.empty() && application.find('/') == std::string::npos &&
         application.find('\0') == std::string::npos && application != "." && application != "..";
}

/// A directory in another, to be looked through and changed: what an application has taken off its
/// permissions is given back.
FileDescriptor openDirectory(const FileDescriptor& above, const std::string& name) {
  const auto found = openBeneath(above.get(), name, O_PATH | O_DIRECTORY);
  struct stat status;
  if (!found || fstat(found.get(), &status) != 0) return {};
  if (status.st_uid == geteuid() && (status.st_mode & S_IRWXU) != S_IRWXU) {
    chmod(kernel::procPath(found.get()).c_str(), (status.st_mode & 07777) | S_IRWXU);
  }
  return kernel::reopen(found.get(), O_RDONLY | O_DIRECTORY);
}

FileDescriptor openTree(const FileDescriptor& root, const char* tree,
                        const std::string& directory) {
  const std::string path = std::string(tree) + "/" + directory;
  auto found = openBeneath(root.get(), path, O_RDONLY | O_DIRECTORY);
  struct stat status;
  if (found ? fstat(found.get(), &status) == 0 && (status.st_mode & S_IRWXU) == S_IRWXU
            : errno != EACCES) {
    return found;
  }
  found = root.duplicate();
  for (std::size_t begin = 0; found && begin < path.size();) {
    const auto end = std::min(path.find('/', begin), path.size());
    found = openDirectory(found, path.substr(begin, end - begin));
    begin = end + 1;
  }
  return found;
}

/// Whether the file that was to be linked has lost its name before or after it: linkat(2) finds no
/// file then, or makes its only name. A look at what has the name now follows.
bool isReplaced(const std::optional<Error>& unlinkable, const Status& file) {
  return unlinkable ? unlinkable->code() == ENOENT : file && file->st_nlink < 2;
}

/// A plain file of the user's that has so many names.
bool isOwnFile(const Status& status, nlink_t names) {
  constexpr mode_t special = S_ISUID | S_ISGID | S_ISVTX;
  return isFile(status) && status->st_uid == geteuid() && status->st_nlink == names &&
         (status->st_mode & special) == 0;
}

/// "letter (WORD).txt" of "letter.txt". A name that would be too long for a file system loses its
/// end, but not in the middle of a character.
std::string withWord(const std::string& name, const std::string& word) {
  const auto dot = name.rfind('.');
  const auto end = dot == std::string::npos || dot == 0 ? name.size() : dot;
  const auto added = " (" + word + ")";
  auto ending = name.substr(end);
  if (ending.size() + added.size() >= NAME_MAX) ending.clear();
  const auto room = NAME_MAX - std::min<std::size_t>(NAME_MAX, added.size() + ending.size());
  auto kept = std::min(end, room);
  while (kept > 0 && kept < end && (static_cast<unsigned char>(name[kept]) & 0xC0U) == 0x80U)
    --kept;
  return name.substr(0, kept) + added + ending;
}

/// Gives a file the name of a document with a word, and a number where others have that.
std::optional<Error> moveTo(const FileDescriptor& to, const FileDescriptor& from,
                            const std::string& file, const std::string& name,
                            const std::string& word) {
  for (int number = 1; number <= mostAsides; ++number) {
    const auto numbered = number > 1 ? word + " " + std::to_string(number) : word;
    if (renameat2(from.get(), file.c_str(), to.get(), withWord(name, numbered).c_str(),
                  RENAME_NOREPLACE) == 0 ||
        errno == ENOENT) {
      return std::nullopt;
    }
    if (errno != EEXIST) break;
  }
  return posixError(errno, name + " cannot be kept under another name");
}

}  // namespace

std::optional<Error> DocumentView::make(const std::string& application) {
  if (!isName(application)) return posixError(EINVAL, application);
  if (auto error = FileManager::createDirectory(Places::documentViews())) return error;
  const auto root = rootOf(application);
  for (const auto& path : {root, root + "/shown", root + "/known"}) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
      return fileError(errno, URL::fileURL(path));
    }
    struct stat status;
    if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      return fileError(ENOTDIR, URL::fileURL(path));
    }
  }
  return std::nullopt;
}

std::string DocumentView::shownDirectory(const std::string& application) {
  return rootOf(application) + "/shown";
}

std::optional<DocumentView> DocumentView::open(const std::string& application) {
  if (!isName(application)) return std::nullopt;
  const auto views = resolved(Places::documentViews());
  if (!views) return std::nullopt;
  auto root = openDirectoryStrictly(*views + "/" + application);
  const auto containers = resolved(Places::groupContainers());
  auto documents = containers ? openDirectoryStrictly(*containers) : FileDescriptor();
  if (!root || !documents) return std::nullopt;
  return DocumentView(application, std::move(root), std::move(documents));
}

std::vector<std::string> DocumentView::applications() {
  std::vector<std::string> all;
  const FileDescriptor views(
      ::open(Places::documentViews().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (views) eachEntry(views.get(), [&](const char* name) { all.emplace_back(name); });
  return all;
}

std::optional<std::string> DocumentView::documentAt(const std::string& path) {
  const auto canonical = canonicalEntryPath(path);
  const auto containers = resolved(Places::groupContainers());
  if (!canonical || !containers || !kernel::isBelow(*canonical, *containers)) return std::nullopt;
  return canonical->substr(containers->size() + 1);
}

std::string DocumentView::pathOf(const std::string& document) {
  return resolved(Places::groupContainers()).value_or(Places::groupContainers()) + "/" + document;
}

std::string DocumentView::siblingOf(const std::string& document) {
  const auto slash = document.rfind('/');
  return std::string(document).insert(slash == std::string::npos ? 0 : slash + 1, ".");
}

DocumentView::Folder DocumentView::folderOf(const std::string& document) const {
  const auto [directory, name] = split(document);
  return {name, openTree(root_, "known", directory), shownFolder(directory),
          outsideFolder(directory)};
}

FileDescriptor DocumentView::shownFolder(const std::string& directory) const {
  return openTree(root_, "shown", directory);
}

FileDescriptor DocumentView::outsideFolder(const std::string& directory) const {
  return openBeneath(documents_.get(), directory.empty() ? "." : directory, O_RDONLY | O_DIRECTORY);
}

std::optional<struct stat> DocumentView::shown(const std::string& document) const {
  const auto [directory, name] = split(document);
  return statusOf(shownFolder(directory), name);
}

std::optional<struct stat> DocumentView::known(const std::string& document) const {
  const auto [directory, name] = split(document);
  return statusOf(openTree(root_, "known", directory), name);
}

std::optional<timespec> DocumentView::toldUntil() const {
  const auto status = statusOf(root_, toldMark);
  return status ? std::optional(status->st_mtim) : std::nullopt;
}

void DocumentView::setToldUntil(const timespec& time) const {
  const FileDescriptor file(
      openat(root_.get(), toldMark, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  const timespec times[] = {time, time};
  if (file) futimens(file.get(), times);
}

bool DocumentView::isShown(const std::string& document) const {
  const auto [directory, name] = split(document);
  const auto known = openTree(root_, "known", directory);
  const auto isKnown = [&known, &of = name](std::size_t dots) {
    return isFile(statusOf(known, of.substr(dots)));
  };
  if (isKnown(0)) return true;
  // A sibling has no sibling of its own: that would be one more document each time.
  return name.starts_with('.') && isKnown(1) && !(name.starts_with("..") && isKnown(2));
}

std::vector<std::string> DocumentView::directories() const {
  std::vector<std::string> all, open{""};
  while (!open.empty()) {
    const auto directory = std::move(open.back());
    open.pop_back();
    const auto known = openTree(root_, "known", directory);
    if (!known) continue;
    bool hasDocuments = false;
    eachEntry(known.get(), [&](const char* name) {
      const auto status = statusOf(known, name);
      if (status && S_ISDIR(status->st_mode)) {
        open.push_back(joined(directory, name));
      }
      hasDocuments = hasDocuments || (status && !S_ISDIR(status->st_mode));
    });
    if (hasDocuments) all.push_back(directory);
  }
  return all;
}

std::vector<std::string> DocumentView::documentsIn(const std::string& directory) const {
  std::vector<std::string> all;
  const auto known = openTree(root_, "known", directory);
  if (!known) return all;
  eachEntry(known.get(), [&](const char* name) {
    const auto status = statusOf(known, name);
    if (status && !S_ISDIR(status->st_mode)) all.push_back(joined(directory, name));
  });
  return all;
}

/// What stands in the way of a directory of the view gets another name.
Result<FileDescriptor> DocumentView::makeDirectories(const char* tree,
                                                     const std::string& directory) const {
  auto at = openTree(root_, tree, "");
  for (std::size_t begin = 0; at && begin < directory.size();) {
    const auto end = std::min(directory.find('/', begin), directory.size());
    const auto name = directory.substr(begin, end - begin);
    auto below = openBeneath(at.get(), name, O_RDONLY | O_DIRECTORY);
    if (!below) {
      const auto there = statusOf(at, name);
      if (there && !S_ISDIR(there->st_mode)) {
        if (auto error = putAside({name, {}, at.duplicate(), {}})) return *error;
      }
      if (mkdirat(at.get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
        return posixError(errno, directory);
      }
      below = openBeneath(at.get(), name, O_RDONLY | O_DIRECTORY);
    }
    at = std::move(below);
    begin = end + 1;
  }
  if (!at) return posixError(errno, directory);
  return at;
}

Result<DocumentView::Folder> DocumentView::makeFolderOf(const std::string& document) const {
  auto folder = folderOf(document);
  const auto [directory, name] = split(document);
  if (!folder.known) {
    auto made = makeDirectories("known", directory);
    if (!made) return made.error();
    folder.known = *std::move(made);
  }
  if (!folder.shown) {
    auto made = makeDirectories("shown", directory);
    if (!made) return made.error();
    folder.shown = *std::move(made);
  }
  return folder;
}

void DocumentView::dropNext() const {
  unlinkat(root_.get(), nextKnown, 0);
  // A directory that the application had put in a document's place when a process before was
  // killed.
  if (unlinkat(root_.get(), nextLink, 0) != 0 && errno != ENOENT) {
    (void)moveTo(openTree(root_, "shown", ""), root_, nextLink, "directory", "aside");
  }
}

/// A link to the file of that name, where nobody else changes it.
std::optional<Error> DocumentView::prepare(const FileDescriptor& from,
                                           const std::string& name) const {
  dropNext();
  if (linkat(from.get(), name.c_str(), root_.get(), nextLink, 0) != 0) {
    return posixError(errno, "The document " + name + " cannot be linked");
  }
  return std::nullopt;
}

/// The file that was prepared is what both sides have.
std::optional<Error> DocumentView::record(const Folder& folder) const {
  if (renameat(root_.get(), nextKnown, folder.known.get(), folder.name.c_str()) != 0) {
    return posixError(errno, folder.name);
  }
  dropNext();
  return std::nullopt;
}

void DocumentView::noteWhatWasCarriedOver() const {
  for (const auto& directory : directories()) {
    const auto shown = shownFolder(directory);
    const auto removed = statusOf(shown, removedName);
    if (isFile(removed) && removed->st_nlink > 1) unlinkat(shown.get(), removedName, 0);
  }
  const auto carried = statusOf(root_, nextKnown);
  const auto next = statusOf(root_, nextLink);
  // The link that is still on its way has not come anywhere.
  if (!carried || isSame(next, carried)) {
    if (next) dropNext();
    return;
  }
  for (const auto& directory : directories()) {
    for (const auto& document : documentsIn(directory)) {
      for (const auto& each : {document, siblingOf(document)}) {
        const auto folder = folderOf(each);
        // It may have been renamed outside since then.
        if (!isSame(statusOf(folder.outside, folder.name), carried) &&
            !isSame(statusOf(folder.shown, folder.name), carried)) {
          continue;
        }
        if (next && !isSame(next, statusOf(folder.known, folder.name))) (void)keepNext(folder);
        (void)record(folder);
        return;
      }
    }
  }
}

/// Puts what was prepared into the view, in the place of the file that was expected there; whether
/// it has come there. What the application put there meanwhile is kept.
Result<bool> DocumentView::place(const Folder& folder, const Status& expected) const {
  if (linkat(root_.get(), nextLink, root_.get(), nextKnown, 0) != 0) {
    return posixError(errno, folder.name);
  }
  const auto move = [&](unsigned flags) {
    return renameat2(root_.get(), nextLink, folder.shown.get(), folder.name.c_str(), flags) == 0;
  };
  if (expected && move(RENAME_EXCHANGE)) {
    if (!isSame(statusOf(root_, nextLink), expected)) {
      if (auto error = keepNext(folder)) return *error;
    }
    return true;
  }
  if (move(RENAME_NOREPLACE)) return true;
  const int reason = errno;
  dropNext();
  if (reason == EEXIST) return false;
  return posixError(reason, folder.name);
}

/// Brings the document into the view. Where the application is faster, that is left to the look
/// that follows.
std::optional<Error> DocumentView::takeIn(const Folder& folder, const Status& expected) const {
  auto unlinkable = prepare(folder.outside, folder.name);
  const auto file = statusOf(root_, nextLink);
  if (isReplaced(unlinkable, file)) {
    dropNext();
    return std::nullopt;
  }
  if (unlinkable) return unlinkable;
  if (!isFile(file)) {
    dropNext();
    return posixError(EINVAL, folder.name + " is no document");
  }
  const auto isThere = place(folder, expected);
  if (!isThere) return isThere.error();
  return *isThere ? record(folder) : std::nullopt;
}

/// Only a plain file that has no other name: a link to something else would become the document,
/// and two documents one. Settled where the application's file is none.
Result<DocumentView::Outcome> DocumentView::takeOut(const Folder& folder,
                                                    const Status& replaced) const {
  const auto unlinkable = prepare(folder.shown, folder.name);
  const auto file = statusOf(root_, nextLink);
  if (isReplaced(unlinkable, file)) {
    dropNext();
    return Outcome::settled;
  }
  // For want of space, perhaps: that is no reason to give the application's file another name.
  if (unlinkable && unlinkable->code() != EPERM) return *unlinkable;
  if (unlinkable || !isOwnFile(file, 2)) {
    dropNext();
    // A file with other names is another document, which nobody loses.
    const bool isOther = isFile(file) && file->st_nlink > 2;
    if (auto error = isOther ? removeShown(folder, file) : putAside(folder)) return *error;
    if (!replaced) return Outcome::settled;
    if (auto error = takeIn(folder, std::nullopt)) return *error;
    return Outcome::settled;
  }
  const auto move = [&](unsigned flags) {
    return renameat2(root_.get(), nextLink, folder.outside.get(), folder.name.c_str(), flags) == 0;
  };
  // Exchanged, so that neither a file that replaced the document a moment ago is lost, nor a name
  // made that the document has no more.
  if (linkat(root_.get(), nextLink, root_.get(), nextKnown, 0) != 0 ||
      !move(replaced ? RENAME_EXCHANGE : RENAME_NOREPLACE)) {
    const int reason = errno;
    dropNext();
    if (reason == (replaced ? ENOENT : EEXIST)) return Outcome::waiting;
    return posixError(reason, folder.name + " cannot be put in the document's place");
  }
  if (replaced && !isSame(statusOf(root_, nextLink), replaced)) {
    // The look that follows has both.
    const bool isBack = move(RENAME_EXCHANGE);
    if (auto error = isBack ? std::nullopt : keepNext(folder)) return *error;
    dropNext();
    return Outcome::waiting;
  }
  if (auto error = record(folder)) return *error;
  return Outcome::saved;
}

/// Takes a file out of the view that is no loss there. What the application put in its place
/// meanwhile stays.
std::optional<Error> DocumentView::removeShown(const Folder& folder, const Status& file) {
  // It stays in its directory, so that who watches that hears of what is written to it still.
  const int shown = folder.shown.get();
  const auto inTheWay = statusOf(folder.shown, removedName);
  if (inTheWay && S_ISDIR(inTheWay->st_mode)) {
    (void)moveTo(folder.shown, folder.shown, removedName, folder.name, "aside");
  }
  if (renameat(shown, folder.name.c_str(), shown, removedName) != 0) {
    return errno == ENOENT ? std::nullopt : std::optional(posixError(errno, folder.name));
  }
  if (isSame(statusOf(folder.shown, removedName), file)) {
    unlinkat(shown, removedName, 0);
  } else if (renameat2(shown, removedName, shown, folder.name.c_str(), RENAME_NOREPLACE) != 0) {
    return moveTo(folder.shown, folder.shown, removedName, folder.name, "aside");
  }
  return std::nullopt;
}

/// Both have replaced the document: the application's file stands beside it, as `to` has it.
std::optional<Error> DocumentView::putBeside(const Folder& folder, const Folder& to) const {
  const auto unlinkable = prepare(folder.shown, folder.name);
  const auto file = statusOf(root_, nextLink);
  const bool isGone = isReplaced(unlinkable, file);
  if (isGone || unlinkable || !isOwnFile(file, 2)) {
    dropNext();
    return isGone ? std::nullopt : putAside(folder);
  }
  return moveTo(to.outside, root_, nextLink, to.name, "changed by " + application_);
}

/// What came out of the view where something else was expected is a version of the application's.
std::optional<Error> DocumentView::keepNext(const Folder& folder) const {
  const auto file = statusOf(root_, nextLink);
  if (isFile(file) && file->st_nlink > 1) return std::nullopt;  // another document
  return isOwnFile(file, 1)
             ? moveTo(folder.outside, root_, nextLink, folder.name, "changed by " + application_)
             : moveTo(folder.shown, root_, nextLink, folder.name, "aside");
}

/// What the application has under a name that it cannot have stays its own, under another.
std::optional<Error> DocumentView::putAside(const Folder& folder) {
  return moveTo(folder.shown, folder.shown, folder.name, folder.name, "aside");
}

std::optional<Error> DocumentView::show(const std::string& document) {
  const auto folder = makeFolderOf(document);
  if (!folder) return folder.error();
  const auto theirs = statusOf(folder->outside, folder->name);
  if (!isFile(theirs)) return fileError(theirs ? EINVAL : ENOENT, URL::fileURL(pathOf(document)));
  for (int attempt = 0; !isFile(statusOf(folder->known, folder->name)); ++attempt) {
    if (attempt == mostAsides) return posixError(EBUSY, folder->name);
    // Whatever the application had there before it was granted the document is not a save of it.
    const auto ours = statusOf(folder->shown, folder->name);
    const bool isIt = isSame(ours, theirs);
    if (ours && !isIt) {
      if (auto error = putAside(*folder)) return error;
    }
    if (auto error = takeIn(*folder, isIt ? ours : std::nullopt)) return error;
  }
  for (const auto& each : {document, siblingOf(document)}) {
    if (const auto settled = settle(each, Look::late); !settled) return settled.error();
  }
  return std::nullopt;
}

Result<DocumentView::Outcome> DocumentView::settle(const std::string& document, Look look) {
  if (!isShown(document)) return Outcome::settled;
  const auto made = makeFolderOf(document);
  if (!made) return made.error();
  const Folder& folder = *made;
  auto known = statusOf(folder.known, folder.name);
  if (!isFile(known)) known.reset();
  auto ours = statusOf(folder.shown, folder.name);
  auto theirs = statusOf(folder.outside, folder.name);
  if (!isFile(theirs)) theirs.reset();

  if (isSame(ours, theirs)) {
    if (isSame(known, ours)) return Outcome::settled;
    // It was carried over, but nobody got as far as saying so.
    if (auto error = prepare(folder.outside, folder.name)) return *error;
    if (!isSame(statusOf(root_, nextLink), ours)) {
      dropNext();
      return Outcome::waiting;
    }
    if (renameat(root_.get(), nextLink, root_.get(), nextKnown) != 0) {
      return posixError(errno, folder.name);
    }
    if (auto error = record(folder)) return *error;
    return Outcome::saved;
  }
  const bool weChanged = ours && !isSame(ours, known);
  const bool theyChanged = theirs && !isSame(theirs, known);
  if (weChanged && look == Look::writing && isFile(ours)) return Outcome::settled;
  if (weChanged && theyChanged) {
    // A sibling that is known to nobody yet may be on both sides: the document's is the one.
    if (auto error = known ? putBeside(folder, folder) : putAside(folder)) return *error;
  }
  if (theyChanged) {
    if (auto error = takeIn(folder, ours)) return *error;
    return Outcome::settled;
  }
  if (weChanged && (theirs || (!known && folder.outside))) return takeOut(folder, theirs);
  if (!known) return Outcome::settled;
  if (look != Look::late) return Outcome::waiting;
  if (!theirs) {
    if (ours && !weChanged) {
      if (auto error = removeShown(folder, known)) return *error;
    }
    return Outcome::moved;
  }
  // The application may have given the document another name, to make a new one: one file must not
  // be both.
  if (theirs->st_nlink > 2) {
    bool isElsewhere = false;
    eachEntry(folder.shown.get(), [&](const char* name) {
      isElsewhere = isElsewhere || isSame(statusOf(folder.shown, name), theirs);
    });
    if (isElsewhere) return Outcome::settled;
  }
  if (auto error = takeIn(folder, std::nullopt)) return *error;
  return Outcome::settled;
}

Result<DocumentView::Outcome> DocumentView::forget(const std::string& document) const {
  const auto folder = folderOf(document);
  const auto known = statusOf(folder.known, folder.name);
  // What has come back there meanwhile is shown as any other.
  if (!isFile(known) || statusOf(folder.outside, folder.name)) return Outcome::settled;
  const auto ours = statusOf(folder.shown, folder.name);
  if (ours && !isSame(ours, known) && folder.outside) return takeOut(folder, std::nullopt);
  unlinkat(folder.known.get(), folder.name.c_str(), 0);
  return Outcome::settled;
}

Result<DocumentView::Outcome> DocumentView::follow(const std::string& document,
                                                   const std::string& to) const {
  const auto folder = folderOf(document);
  const auto known = statusOf(folder.known, folder.name);
  if (!isFile(known) || statusOf(folder.outside, folder.name)) return Outcome::settled;
  const auto now = this->known(to);
  if (!isFile(now)) return forget(document);
  if (!isSame(now, known)) {
    // It was replaced as well: as when both replace it.
    const auto ours = statusOf(folder.shown, folder.name);
    if (ours && !isSame(ours, known) && !isSame(ours, now)) {
      if (auto error = putBeside(folder, folderOf(to))) return *error;
    }
    if (ours) {
      if (auto error = removeShown(folder, ours)) return *error;
    }
    unlinkat(folder.known.get(), folder.name.c_str(), 0);
    return Outcome::settled;
  }
  if (auto error = carry(folder, to)) return *error;
  dropNext();
  if (symlinkat(to.c_str(), root_.get(), nextLink) != 0 ||
      renameat(root_.get(), nextLink, folder.known.get(), folder.name.c_str()) != 0) {
    return posixError(errno, document);
  }
  return Outcome::settled;
}

std::optional<std::string> DocumentView::followed(const std::string& document) const {
  constexpr int most = 8;
  std::string at = document;
  for (int count = 0; count < most; ++count) {
    const auto [directory, name] = split(at);
    const auto known = openTree(root_, "known", directory);
    const auto status = statusOf(known, name);
    if (isFile(status)) return count > 0 ? std::optional(at) : std::nullopt;
    std::array<char, PATH_MAX> target{};
    const auto size = status && S_ISLNK(status->st_mode)
                          ? readlinkat(known.get(), name.c_str(), target.data(), target.size())
                          : -1;
    if (size <= 0) break;
    at.assign(target.data(), static_cast<std::size_t>(size));
  }
  return std::nullopt;
}

std::optional<Error> DocumentView::carryOn(const std::string& document,
                                           const std::string& to) const {
  const auto folder = folderOf(document);
  const auto file = inodeNameOf(folder.shown.get(), folder.name);
  const auto mark = inodeNameOf(folder.known.get(), folder.name);
  const bool isFromBefore =
      file && file->birth && mark && mark->birth && !isLater(*file->birth, *mark->birth);
  return isFromBefore ? carry(folder, to) : std::nullopt;
}

std::optional<Error> DocumentView::carry(const Folder& folder, const std::string& to) const {
  const auto ours = statusOf(folder.shown, folder.name);
  const auto made = makeFolderOf(to);
  if (!made) return made.error();
  const auto known = statusOf(made->known, made->name);
  if (isSame(ours, known)) return removeShown(folder, known);
  if (!isOwnFile(ours, 1)) return std::nullopt;
  const auto move = [&](unsigned flags) {
    return renameat2(folder.shown.get(), folder.name.c_str(), made->shown.get(), made->name.c_str(),
                     flags) == 0;
  };
  if (move(RENAME_EXCHANGE)) {
    return isSame(statusOf(folder.shown, folder.name), known) ? removeShown(folder, known)
                                                              : std::nullopt;
  }
  return move(RENAME_NOREPLACE) || errno == ENOENT || errno == EEXIST
             ? std::nullopt
             : std::optional(posixError(errno, made->name));
}

namespace {

/// Removes all names of these files below a directory. While somebody may move things there it
/// watches what it looks at (inotify(7)).
class Search {
 public:
  Search(const std::vector<FileIdentity>& files, const FileDescriptor& top, bool isQuiet)
      : files_(files), top_(top), isQuiet_(isQuiet) {
    look(top_, 0);
    while (!raised_.empty()) {
      const auto directory = std::move(raised_.back());
      raised_.pop_back();
      look(directory, 0);
    }
  }

  /// Whether it is certain that there are none now: nothing was found, and nothing was moved.
  bool isClean() { return !hasFound_ && isSure_ && (isQuiet_ || inotify_.read().empty()); }
  /// Whether looking once more may tell: everything could be looked at, and watched.
  bool isSure() const { return isSure_; }

 private:
  /// No document lies deeper; what does was put there so that it is not found.
  static constexpr int deepest = 128;

  void look(const FileDescriptor& directory, int depth) {
    if (!isQuiet_) {
      // There may be none left: every program of the user takes from the same store.
      watches_.push_back(inotify_.watch(kernel::procPath(directory.get()), IN_MOVED_TO));
      isSure_ = isSure_ && watches_.back();
    }
    eachEntry(directory.get(), [&](const char* name) {
      const auto status = statusOf(directory, name);
      if (!status) return;
      if (S_ISDIR(status->st_mode)) {
        auto below = openDirectory(directory, name);
        if (below && depth < deepest) return look(below, depth + 1);
        if (!below || !isQuiet_ || !raise(directory, name)) {
          isSure_ = false;
        } else {
          raised_.push_back(std::move(below));
        }
      } else if (std::find(files_.begin(), files_.end(), identityOf(*status)) != files_.end()) {
        hasFound_ = true;
        unlinkat(directory.get(), name, 0);
      }
    });
  }

  /// Moves what lies too deep up to the top, so that no depth is too deep.
  bool raise(const FileDescriptor& directory, const char* name) {
    for (;; ++lastNumber_) {
      const auto raisedName = "moved up " + std::to_string(lastNumber_);
      if (renameat2(directory.get(), name, top_.get(), raisedName.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
      }
      if (errno != EEXIST) return false;
    }
  }

  const std::vector<FileIdentity>& files_;
  const FileDescriptor& top_;
  const bool isQuiet_;
  Inotify inotify_;
  std::vector<Inotify::Watch> watches_;
  std::vector<FileDescriptor> raised_;
  int lastNumber_ = 1;
  bool hasFound_ = false;
  bool isSure_ = true;
};

}  // namespace

std::optional<Error> DocumentView::removeEverywhere(const Files& files,
                                                    const EndSandboxes& end) const {
  constexpr int patience = 20, most = 500;
  for (const char* tree : {"known", "shown"}) {
    const auto directory = openTree(root_, tree, "");
    if (!directory) return posixError(errno, "The view cannot be opened");
    bool isEnding = false, isClean = false;
    for (int attempt = 1; !isClean; ++attempt) {
      if (attempt == most) return posixError(EBUSY, "The document cannot be taken out of a view");
      // What was killed may be in the middle of something still.
      const bool isQuiet = isEnding && end() == 0;
      Search search(files, directory, isQuiet);
      isClean = search.isClean() && (!isQuiet || end() == 0);
      isEnding = isEnding || attempt == patience || !search.isSure();
    }
  }
  return std::nullopt;
}

std::optional<Error> DocumentView::hide(const std::string& document,
                                        const EndSandboxes& endSandboxes) {
  Files files;
  bool isAlone = true;
  for (const auto& each : {document, siblingOf(document)}) {
    const auto folder = folderOf(each);
    const auto known = statusOf(folder.known, folder.name);
    const auto theirs = statusOf(folder.outside, folder.name);
    for (const auto& file : {known, theirs}) {
      if (isFile(file)) files.push_back(identityOf(*file));
    }
    // The file that is known last is the one that tells, should this be done again.
    const auto ours = statusOf(folder.shown, folder.name);
    if (isSame(ours, known) || isSame(ours, theirs)) {
      unlinkat(folder.shown.get(), folder.name.c_str(), 0);
    }
    if (known) unlinkat(folder.known.get(), folder.name.c_str(), 0);
    const auto left = statusOf(folder.outside, folder.name);
    const bool isTheOnlyName =
        known ? isSame(left, known) && left->st_nlink == 1 : !left || left->st_nlink == 1;
    isAlone = isAlone && isTheOnlyName;
  }
  dropNext();
  return isAlone ? std::nullopt : removeEverywhere(files, endSandboxes);
}

}  // namespace qx
