// The directories of all documents that are shown are watched, on both sides (inotify(7)); whatever
// happens under a document's name there makes both sides be looked at, a moment later.

#include "platform/views/DocumentViews.h"

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/files/Inotify.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/identity/SandboxRecord.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/queue/Reactor.h"
#include "platform/queue/WorkQueue.h"
#include "platform/views/DocumentView.h"

namespace qx {
namespace {

using Look = DocumentView::Look;
using Outcome = DocumentView::Outcome;

/// What happens at once is looked at once.
constexpr std::chrono::milliseconds gathering(20);
/// For who replaces a document in two steps, and for a directory that is exchanged.
constexpr std::chrono::seconds grace(2);

constexpr std::uint32_t selfMask = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t shownMask =
    selfMask | IN_CREATE | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t outsideMask =
    selfMask | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

bool isEarlier(const timespec& one, const timespec& other) {
  return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

timespec now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return time;
}

constexpr int timeToEnd = 1000;  // milliseconds

/// Ends every process in the sandboxes of an application; how many there were.
std::size_t endSandboxes(const std::string& application) {
  std::size_t count = 0;
  std::error_code failed;
  for (std::filesystem::directory_iterator at("/proc", failed), end; !failed && at != end;
       at.increment(failed)) {
    const std::string name = at->path().filename();
    pid_t number = 0;
    const auto [behind, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error != std::errc() || behind != name.data() + name.size()) continue;
    // Opened first: if it is the application's still, so is the process that the number meant.
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, number, 0)));
    const auto directory = process ? ProcessDirectory::open(number) : std::nullopt;
    const auto around = directory ? surroundingsOf(*directory) : std::nullopt;
    if (!around || around->application != application) continue;
    // A process lives as long as one of its threads does, whatever became of the first.
    pollfd itsEnd{process.get(), POLLIN, 0};
    if (poll(&itsEnd, 1, 0) > 0) continue;
    ++count;
    syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0);
    poll(&itsEnd, 1, timeToEnd);
  }
  if (count != 0) {
    DS_LOG("[NOTICE] Ended %@ (%d processes): it hides a document that is being taken back.",
           application, count);
  }
  return count;
}

/// Everything is on the queue.
class Keeper final : public ReactorHandler, public std::enable_shared_from_this<Keeper> {
 public:
  static const std::shared_ptr<Keeper>& shared() {
    static const auto& keeper = *new std::shared_ptr<Keeper>(std::make_shared<Keeper>());
    return keeper;
  }

  void begin(DocumentViews::OnWritten onWritten, DocumentViews::OnMoved onMoved) {
    queue_->async([self = shared_from_this(), onWritten = std::move(onWritten),
                   onMoved = std::move(onMoved)] {
      self->onWritten_ = onWritten;
      self->onMoved_ = onMoved;
      self->source_ = Reactor::shared().add(self->inotify_.descriptor(), 0, self);
      Reactor::shared().arm(self->source_, self->inotify_.descriptor(), EPOLLIN);
      for (const auto& application : DocumentView::applications()) {
        const auto view = DocumentView::open(application);
        if (!view) continue;
        view->noteWhatWasCarriedOver();
        if (const auto time = view->toldUntil()) self->since_[application] = *time;
        for (const auto& directory : view->directories()) self->follow({application, directory});
      }
    });
  }

  void ready(std::uint32_t /*events*/) override {
    queue_->sync([this] { takeEvents(); });
    Reactor::shared().arm(source_, inotify_.descriptor(), EPOLLIN);
  }

  std::optional<Error> show(const std::string& application, const std::string& path) {
    return queue_->sync([&]() -> std::optional<Error> {
      auto view = DocumentView::open(application);
      if (!view) return std::nullopt;
      const auto document = DocumentView::documentAt(path);
      if (!document) return posixError(EXDEV, path + " is in no group container");
      if (!view->toldUntil()) view->setToldUntil(now());
      auto shown = view->show(*document);
      const auto status = view->shown(*document);
      // What others wrote to it before is not the application's writing; what is to be looked at
      // may be.
      const DocumentName name{application, *document};
      if (status && !pending_.contains(name)) told_.try_emplace(name, status->st_mtim);
      if (!shown) follow(folderOf(application, *document));
      return shown;
    });
  }

  std::optional<Error> hide(const std::string& application, const std::string& path) {
    return queue_->sync([&]() -> std::optional<Error> {
      auto view = DocumentView::open(application);
      const auto document = DocumentView::documentAt(path);
      if (!view || !document) return std::nullopt;
      takeEvents();
      return hide(*view, {application, *document});
    });
  }

  std::optional<Error> hideAll(const std::string& application) {
    return queue_->sync([&]() -> std::optional<Error> {
      auto view = DocumentView::open(application);
      if (!view) return std::nullopt;
      takeEvents();
      std::optional<Error> failure;
      for (const auto& directory : view->directories()) {
        for (const auto& document : view->documentsIn(directory)) {
          auto left = hide(*view, {application, document});
          if (left && !failure) failure = std::move(left);
        }
      }
      return failure;
    });
  }

 private:
  /// A directory of documents, of one application.
  using FolderName = std::pair<std::string, std::string>;
  using DocumentName = std::pair<std::string, std::string>;
  struct Folder {
    Inotify::Watch shown, outside;
  };

  /// Where documents are that have gone from a view.
  struct MoveSearch {
    std::map<std::string, FileIdentity> moved;
    std::map<std::string, std::string> found;

    std::vector<URL> choose(const std::string& application, const std::vector<URL>& granted) {
      std::vector<URL> chosen;
      const auto view = DocumentView::open(application);
      if (!view) return chosen;
      std::map<FileIdentity, std::string> byFile;
      for (const auto& [document, file] : moved) byFile[file] = document;
      std::vector<std::pair<std::string, URL>> others;
      for (const auto& url : granted) {
        const auto path = url.path();
        struct stat status;
        if (!path || lstat(path->c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        const auto document = DocumentView::documentAt(*path);
        if (!document || view->known(*document)) continue;
        const auto it = byFile.find(identityOf(status));
        if (it == byFile.end()) {
          others.emplace_back(*document, url);
          continue;
        }
        found[it->second] = *document;
        chosen.push_back(url);
      }
      // Renamed, and then replaced by another file.
      if (moved.size() == found.size() + 1 && others.size() == 1) {
        for (const auto& [document, file] : moved) {
          found.try_emplace(document, others.front().first);
        }
        chosen.push_back(others.front().second);
      }
      return chosen;
    }
  };

  static FolderName folderOf(const std::string& application, const std::string& document) {
    const auto slash = document.rfind('/');
    return {application, slash == std::string::npos ? "" : document.substr(0, slash)};
  }

  std::optional<Error> hide(DocumentView& view, const DocumentName& name) {
    // What was saved while it was granted is the document's.
    for (const auto& each : {name.second, DocumentView::siblingOf(name.second)}) {
      settle(view, {name.first, each}, true);
      told_.erase({name.first, each});
    }
    return view.hide(name.second, [&] { return endSandboxes(name.first); });
  }

  /// Watches a directory of documents on both sides, and then makes them the same: whatever happens
  /// afterwards is heard of.
  void follow(const FolderName& name) {
    const auto& [application, directory] = name;
    const auto view = DocumentView::open(application);
    if (!view) return;
    Folder folder;
    const auto shown = view->makeShownFolder(directory);
    const auto outside = view->outsideFolder(directory);
    if (shown) folder.shown = inotify_.watch(kernel::procPath(shown->get()), shownMask);
    if (outside) folder.outside = inotify_.watch(kernel::procPath(outside.get()), outsideMask);
    const auto known = folders_.find(name);
    const bool isNew = known == folders_.end() ||
                       known->second.shown.number() != folder.shown.number() ||
                       known->second.outside.number() != folder.outside.number();
    if (isNew) {
      byWatch_.insert({folder.shown.number(), name});
      byWatch_.insert({folder.outside.number(), name});
      folders_[name] = std::move(folder);
      lookAtAll(name);
    }
  }

  void unfollow(const FolderName& name) {
    const auto folder = folders_.find(name);
    if (folder == folders_.end()) return;
    for (const int number : {folder->second.shown.number(), folder->second.outside.number()}) {
      byWatch_.erase({number, name});
    }
    folders_.erase(folder);
  }

  /// After events were lost: a directory may be another, and a document too.
  void followAllAnew() {
    writing_.clear();
    std::set<FolderName> names;
    for (const auto& [name, folder] : folders_) names.insert(name);
    for (const auto& name : names) {
      unfollow(name);
      follow(name);
    }
  }

  void lookAtAll(const FolderName& name) {
    const auto view = DocumentView::open(name.first);
    if (!view) return;
    for (const auto& document : view->documentsIn(name.second)) {
      look({name.first, document}, true);
      look({name.first, DocumentView::siblingOf(document)}, true);
    }
  }

  void takeEvents() {
    for (const auto& event : inotify_.read()) {
      if (event.isOverflow()) {
        followAllAnew();
        continue;
      }
      // Handling one may change which there are.
      std::set<FolderName> concerned;
      for (auto at = byWatch_.lower_bound({event.watch, {}});
           at != byWatch_.end() && at->first == event.watch; ++at) {
        concerned.insert(at->second);
      }
      for (const auto& name : concerned) handle(event, name);
    }
  }

  void handle(const Inotify::Event& event, const FolderName& name) {
    if (event.name.empty()) {
      // The directory itself came away; there may be another in its place.
      if ((event.mask & (selfMask | IN_IGNORED)) != 0) goOnLater(name);
      return;
    }
    if (event.name == DocumentView::removedName && (event.mask & IN_CLOSE_WRITE) != 0) {
      return lookAtAll(name);
    }
    const DocumentName document{name.first,
                                name.second.empty() ? event.name : name.second + "/" + event.name};
    if (!pending_.contains(document)) {
      const auto view = DocumentView::open(name.first);
      if (!view || (!view->isShown(document.second) && !view->followed(document.second))) return;
    }
    const bool isOurs = folders_.at(name).shown.number() == event.watch;
    if (isOurs && (event.mask & IN_CREATE) != 0 && (event.mask & IN_ISDIR) == 0) {
      writing_.insert(document);
    } else if (isOurs) {
      writing_.erase(document);
    }
    look(document, isOurs && (event.mask & IN_CLOSE_WRITE) != 0);
  }

  void goOnLater(const FolderName& name) {
    unfollow(name);
    queue_->after(grace, [self = shared_from_this(), name] { self->follow(name); });
  }

  void look(const DocumentName& document, bool isClosed) {
    if (pending_.empty()) {
      pendingSince_ = now();
      queue_->after(gathering, [self = shared_from_this()] { self->lookAtSome(); });
    }
    auto& wasClosed = pending_[document];
    wasClosed = wasClosed || isClosed;
  }

  /// A few, in turn, so that who grants or revokes need not wait for all. Called as long as there
  /// are any.
  void lookAtSome() {
    constexpr int atATime = 256;
    std::map<std::string, std::optional<DocumentView>> views;
    for (int count = 0; count < atATime && !pending_.empty(); ++count) {
      auto next = pending_.upper_bound(lastLookedAt_);
      if (next == pending_.end()) next = pending_.begin();
      const auto [name, wasClosed] = *next;
      pending_.erase(next);
      lastLookedAt_ = name;
      auto [view, isNew] = views.try_emplace(name.first);
      if (isNew) view->second = DocumentView::open(name.first);
      if (view->second) settle(*view->second, name, wasClosed);
    }
    if (!pending_.empty())
      return queue_->async([self = shared_from_this()] { self->lookAtSome(); });
    for (const auto& [application, view] : views) {
      lookedUntil_[application] = pendingSince_;
      noteTold(application);
    }
  }

  /// Once nobody is being told of anything any more: this process may be killed meanwhile.
  void noteTold(const std::string& application) {
    const auto until = lookedUntil_.find(application);
    if (until == lookedUntil_.end() || telling_[application] != 0) return;
    if (const auto view = DocumentView::open(application)) view->setToldUntil(until->second);
    lookedUntil_.erase(until);
  }

  void settle(DocumentView& view, const DocumentName& name, bool isClosed, bool isLate = false) {
    const auto& [application, document] = name;
    if (const auto to = view.followed(document)) {
      if (!writing_.contains(name)) report(name, view.carryOn(document, *to));
      return settle(view, {application, *to}, isClosed);
    }
    const auto before = isLate ? view.known(document) : std::nullopt;
    // Late as well: who removed the document first may still be writing the new one.
    const auto look = writing_.contains(name) ? Look::writing : isLate ? Look::late : Look::early;
    const auto outcome = view.settle(document, look);
    if (!outcome) return report(name, outcome.error());
    switch (*outcome) {
      case Outcome::saved:
        return tell(view, name);
      case Outcome::settled:
        if (isClosed && isWritten(view, name)) tell(view, name);
        return;
      case Outcome::waiting:
        if (!waiting_.insert(name).second) return;
        return queue_->after(grace, [self = shared_from_this(), name] {
          self->waiting_.erase(name);
          if (auto later = DocumentView::open(name.first)) self->settle(*later, name, false, true);
        });
      case Outcome::moved:
        if (before) moved_[application][document] = identityOf(*before);
        return askWhere(application);
    }
  }

  static void report(const DocumentName& name, const std::optional<Error>& error) {
    if (!error) return;
    DS_LOG("[ERROR] What %@ and others have of %@ cannot be made the same. Error: %@", name.first,
           DocumentView::pathOf(name.second), *error);
  }

  /// For all that were moved until now at once.
  void askWhere(const std::string& application) {
    if (!onMoved_ || moved_[application].empty() || !searches_.insert(application).second) return;
    const auto search = std::make_shared<MoveSearch>();
    search->moved = std::exchange(moved_[application], {});
    const auto choose = [application, search](const std::vector<URL>& granted) {
      return search->choose(application, granted);
    };
    const auto done = [self = shared_from_this(), application, search] {
      self->queue_->async([self, application, search] {
        for (const auto& [document, file] : search->moved) {
          const auto to = search->found.find(document);
          self->follow({application, document},
                       to == search->found.end() ? std::nullopt : std::optional(to->second));
        }
        self->searches_.erase(application);
        self->askWhere(application);
      });
    };
    WorkQueue::global().async(
        [onMoved = onMoved_, application, choose, done] { onMoved(application, choose, done); });
  }

  void follow(const DocumentName& name, const std::optional<std::string>& to) {
    auto view = DocumentView::open(name.first);
    if (!view) return;
    const auto outcome = to ? view->follow(name.second, *to) : view->forget(name.second);
    if (!outcome) return report(name, outcome.error());
    if (*outcome == Outcome::saved) return tell(*view, name);
    if (!to) return;
    // What it wrote while it was moved is told of as well.
    const DocumentName now{name.first, *to};
    if (const auto told = told_.extract(name)) {
      told_[now] = told.mapped();
    } else {
      told_.erase(now);
    }
    settle(*view, name, true);
  }

  /// Whether the file is later than what was told of it, or than the time since which is told.
  bool isWritten(const DocumentView& view, const DocumentName& name) const {
    const auto status = view.shown(name.second);
    const auto told = told_.find(name);
    const auto since = since_.find(name.first);
    const auto known = told != told_.end()     ? told->second
                       : since != since_.end() ? since->second
                                               : start_;
    return status && isEarlier(known, status->st_mtim);
  }

  void tell(const DocumentView& view, const DocumentName& name) {
    if (const auto status = view.shown(name.second)) told_[name] = status->st_mtim;
    if (!onWritten_) return;
    ++telling_[name.first];
    const auto done = [self = shared_from_this(), application = name.first] {
      self->queue_->async([self, application] {
        if (--self->telling_[application] == 0) self->noteTold(application);
      });
    };
    WorkQueue::global().async([onWritten = onWritten_, application = name.first,
                               url = URL::fileURL(DocumentView::pathOf(name.second)),
                               done] { onWritten(application, url, done); });
  }

  const std::shared_ptr<WorkQueue> queue_ = WorkQueue::serial("DocumentViews queue");
  const timespec start_ = now();
  Inotify inotify_{Inotify::Removed::reported};
  Reactor::SourceID source_ = 0;
  // On the queue.
  DocumentViews::OnWritten onWritten_;
  DocumentViews::OnMoved onMoved_;
  std::map<std::string, timespec> since_;  // of applications that ran before
  std::map<FolderName, Folder> folders_;
  std::set<std::pair<int, FolderName>> byWatch_;
  std::map<DocumentName, bool> pending_;  // to be looked at; whether the application closed it
  timespec pendingSince_{};
  DocumentName lastLookedAt_;
  std::set<DocumentName> waiting_;  // to be looked at late
  std::set<DocumentName> writing_;  // made by the application, and not closed since
  std::map<DocumentName, timespec> told_;
  std::map<std::string, std::map<std::string, FileIdentity>> moved_;  // by application
  std::set<std::string> searches_;               // for what was moved, of which application
  std::map<std::string, std::size_t> telling_;   // of how many writings, by application
  std::map<std::string, timespec> lookedUntil_;  // what was written before is told, or is being
};

}  // namespace

void DocumentViews::begin(OnWritten onWritten, OnMoved onMoved) {
  Keeper::shared()->begin(std::move(onWritten), std::move(onMoved));
}

std::optional<Error> DocumentViews::show(const std::string& application, const URL& document) {
  const auto path = document.path();
  return path ? Keeper::shared()->show(application, *path) : std::nullopt;
}

std::optional<Error> DocumentViews::hide(const std::string& application, const URL& document) {
  const auto path = document.path();
  return path ? Keeper::shared()->hide(application, *path) : std::nullopt;
}

std::optional<Error> DocumentViews::hideAll(const std::string& application) {
  return Keeper::shared()->hideAll(application);
}

}  // namespace qx
