#pragma once

#include <sys/stat.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx {

/// What one application that runs in sandboxes sees of documents: a directory tree of its own,
/// which its sandboxes have in the place of the directory of the group containers. A document is in
/// it under its own path, as a hard link to the document. So what is read and written there is the
/// document's, also a placeholder's content that is brought in on demand. Directories on the way to
/// a document are the view's own; whatever else the application makes in them is its data.
///
/// On disk, in Places::documentViews():
///
///     IDENTIFIER/shown/   what the application sees, and changes as it likes
///     IDENTIFIER/known/   under the same path each document that is shown, as a second hard link:
///                         the file that both sides had when they last were the same; a symbolic
///                         link to where the document is shown now, since it was renamed
///     IDENTIFIER/next     a link on its way to its place
///     IDENTIFIER/next-known   the same, until it is among those that are known
///     IDENTIFIER/told     its time: what was written before is known to the providers
///
/// Nothing else is kept. Whose file is newer is told by comparing three inodes: a side that has
/// another file than the known one has replaced the document. Every step leaves a state from which
/// the next look goes on, so whoever does this may be killed at any time.
///
/// The application may do anything to its tree at any moment. Directories are opened beneath the
/// view without following links (openat2(2)), files are judged when they have been linked to where
/// the application cannot reach them, and never opened. It cannot make hard links, which the
/// system-call filter of its sandbox refuses: so there is one name for each link that was made
/// here.
///
/// One thread at a time for each application; blocks on the file system. `document` is a path
/// relative to the directory of the group containers.
class DocumentView {
 public:
  /// What a document is called, beside itself, while it goes from the view. Who has it open is
  /// heard of by this name afterwards (inotify(7)).
  static constexpr const char* removedName = ".docsource.removed";

  /// Makes an application's view where there is none, readable by its user alone.
  static std::optional<Error> make(const std::string& application);
  /// The directory that is bound into the sandbox, of a view that was made.
  static std::string shownDirectory(const std::string& application);
  /// Absent when the application has no view, because it was never run in a sandbox.
  static std::optional<DocumentView> open(const std::string& application);
  /// The applications that have one.
  static std::vector<std::string> applications();

  /// Returns the document to which an absolute path leads; absent for what is not below the
  /// directory of the group containers, after links on the way are resolved.
  static std::optional<std::string> documentAt(const std::string& path);
  static std::string pathOf(const std::string& document);
  /// The hidden file beside it.
  static std::string siblingOf(const std::string& document);

  /// Notes what was carried over when the process before was killed, so that it is not taken for a
  /// change of the other side. Called before anything else is done with the view.
  void noteWhatWasCarriedOver() const;

  /// Returns whether a name in a directory is a document that is shown, or the hidden sibling of
  /// one. A name that may be a sibling itself has none.
  bool isShown(const std::string& document) const;
  /// The directories of all documents that are shown.
  std::vector<std::string> directories() const;
  /// The documents that are shown in one, and the names that such had once.
  std::vector<std::string> documentsIn(const std::string& directory) const;

  /// Shows a document, and its hidden sibling if it exists. What the application had under those
  /// names gets other names.
  std::optional<Error> show(const std::string& document);

  enum class Look {
    early,    // somebody may be in the middle of replacing a file: what is missing may come
    writing,  // the same, and the application has its file still open
    late,     // who had something in mind has had the time
  };
  enum class Outcome {
    settled,  // both sides have the same file, or it is no document
    saved,    // the application's file has become the document
    waiting,  // something is missing, or changed meanwhile: look again, late
    moved,    // the document has another name now, or none, and is in the view no more, except for
              // what the application saved under the old one; it is known until follow() or
              // forget(), so that it is seen again by who looks next
  };
  /// Makes both sides the same. The application's file becomes the document when it is a plain file
  /// of its own; a file that has replaced the document outside goes into the view. When both have
  /// replaced it, the application's file stands beside the document from then on, under a name that
  /// says so. When the document is gone and the look is late, it goes from the view; when the
  /// application removed it, it comes back.
  Result<Outcome> settle(const std::string& document, Look look);

  /// Says that what was moved is shown as `to` now. What the application has saved under the old
  /// name is taken to the new one, to be settled there.
  Result<Outcome> follow(const std::string& document, const std::string& to) const;
  /// Says that what was moved will not be shown. What the application has saved is a new document.
  Result<Outcome> forget(const std::string& document) const;
  /// Returns the document that had this name once, and is shown under another.
  std::optional<std::string> followed(const std::string& document) const;
  /// Takes what the application has under the old name to the new one, `to`, to be settled there,
  /// if it is from before the document was followed: a save that began under the old name.
  std::optional<Error> carryOn(const std::string& document, const std::string& to) const;

  /// Ends what runs in the application's sandboxes. Returns how many processes there were.
  using EndSandboxes = std::function<std::size_t()>;
  /// Takes a document and its sibling out of the view, under whatever name the application has put
  /// them. `endSandboxes` is called when the application keeps moving them about while they are
  /// looked for, or has them where they cannot be looked for while it runs.
  std::optional<Error> hide(const std::string& document, const EndSandboxes& endSandboxes);

  /// Returns directories to be watched: that of the view, and the document's own, empty where there
  /// is none.
  Result<FileDescriptor> makeShownFolder(const std::string& directory) const {
    return makeDirectories("shown", directory);
  }
  FileDescriptor outsideFolder(const std::string& directory) const;
  /// A document as the view has it.
  std::optional<struct stat> shown(const std::string& document) const;
  std::optional<struct stat> known(const std::string& document) const;

  /// Absent while nothing has been told.
  std::optional<timespec> toldUntil() const;
  void setToldUntil(const timespec& time) const;

 private:
  struct Folder {
    std::string name;  // of the document, in each
    FileDescriptor known, shown, outside;
  };
  using Files = std::vector<FileIdentity>;

  DocumentView(std::string application, FileDescriptor root, FileDescriptor documents)
      : application_(std::move(application)),
        root_(std::move(root)),
        documents_(std::move(documents)) {}

  Folder folderOf(const std::string& document) const;
  FileDescriptor shownFolder(const std::string& directory) const;
  Result<Folder> makeFolderOf(const std::string& document) const;
  Result<FileDescriptor> makeDirectories(const char* tree, const std::string& directory) const;

  void dropNext() const;
  std::optional<Error> prepare(const FileDescriptor& from, const std::string& name) const;
  std::optional<Error> record(const Folder& folder) const;
  Result<bool> place(const Folder& folder, const std::optional<struct stat>& expected) const;
  std::optional<Error> takeIn(const Folder& folder,
                              const std::optional<struct stat>& expected) const;
  Result<Outcome> takeOut(const Folder& folder, const std::optional<struct stat>& replaced) const;
  static std::optional<Error> removeShown(const Folder& folder,
                                          const std::optional<struct stat>& file);
  std::optional<Error> carry(const Folder& folder, const std::string& to) const;
  std::optional<Error> putBeside(const Folder& folder, const Folder& to) const;
  std::optional<Error> keepNext(const Folder& folder) const;
  static std::optional<Error> putAside(const Folder& folder);
  std::optional<Error> removeEverywhere(const Files& files, const EndSandboxes& end) const;

  std::string application_;
  FileDescriptor root_;
  FileDescriptor documents_;  // the directory of the group containers
};

}  // namespace qx
