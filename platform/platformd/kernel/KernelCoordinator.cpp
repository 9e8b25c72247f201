// Coordination of programs that do not ask for it.

#include "platform/platformd/kernel/KernelCoordinator.h"

#include <sys/epoll.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Placeholder.h"

namespace qx::kernel {
namespace {

constexpr std::size_t mostUnplaced = 10000;
/// No process has descriptors beyond.
constexpr int mostNumbers = 1 << 16;

std::string canonical(const URL& directory) {
  const std::string path = directory.path().value_or("/");
  std::error_code problem;
  auto resolved = std::filesystem::weakly_canonical(path, problem).string();
  if (problem) resolved = path;
  while (resolved.size() > 1 && resolved.ends_with('/')) resolved.pop_back();
  return resolved;
}

bool isBelow(const std::string& path, const std::string& directory) {
  return path.size() > directory.size() && path.starts_with(directory) &&
         path[directory.size()] == '/';
}

std::optional<int> errnoOf(const Error& error) {
  if (error.is(DSErrorDomain, 3)) return EPERM;
  if (error.is(QXConduitErrorDomain, static_cast<std::int64_t>(ConduitErrorCode::connectionLost))) {
    return EAGAIN;
  }
  if (error.domain() != QXPOSIXErrorDomain) return std::nullopt;
  switch (error.code()) {
    case ENOSPC:
    case EDQUOT:
      return static_cast<int>(error.code());
    case EPERM:
    case EACCES:
    case EROFS:
      return EPERM;
    case EAGAIN:
    case ETIMEDOUT:
    case ECONNREFUSED:
    case ECONNRESET:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
      return EAGAIN;
    default:
      return EIO;
  }
}

}  // namespace

int errnoFor(const Error& error) {
  if (const auto underlying = error.underlyingError()) {
    if (const int errnum = errnoFor(*underlying); errnum != EIO) return errnum;
  }
  return errnoOf(error).value_or(EIO);
}

/// Has the queue look at a descriptor whenever it is readable.
class KernelCoordinator::Input final : public ReactorHandler {
 public:
  using Look = void (KernelCoordinator::*)();

  static void begin(const std::shared_ptr<KernelCoordinator>& coordinator, int descriptor,
                    Look look) {
    auto input = std::make_shared<Input>(coordinator, descriptor, look);
    // Armed only once its number is known to ready().
    input->source_ = Reactor::shared().add(descriptor, 0, input);
    Reactor::shared().arm(input->source_, descriptor, EPOLLIN);
  }

  Input(std::shared_ptr<KernelCoordinator> coordinator, int descriptor, Look look)
      : coordinator_(std::move(coordinator)), descriptor_(descriptor), look_(look) {}

  void ready(std::uint32_t /*events*/) override {
    coordinator_->queue_->sync([&] { ((*coordinator_).*look_)(); });
    if (coordinator_->queue_->sync([&] { return !coordinator_->isWithoutHolder_; })) {
      Reactor::shared().arm(source_, descriptor_, EPOLLIN);
    }
  }

 private:
  const std::shared_ptr<KernelCoordinator> coordinator_;
  const int descriptor_;
  const Look look_;
  Reactor::SourceID source_ = 0;
};

KernelCoordinator::KernelCoordinator(std::shared_ptr<DocSourceRegistry> registry,
                                     EventChannel holder, AccessGroup accesses, ChangeGroup changes,
                                     std::uint64_t mask)
    : registry_(std::move(registry)),
      holder_(std::move(holder)),
      accesses_(std::move(accesses)),
      changes_(std::move(changes)),
      trees_(accesses_, changes_, mask),
      started_(Clock::current().now()) {}

void KernelCoordinator::start(std::function<void()> onStop) {
  onStop_ = std::move(onStop);
  Input::begin(shared_from_this(), holder_.descriptor(), &KernelCoordinator::receive);
  Input::begin(shared_from_this(), changes_.descriptor(), &KernelCoordinator::changed);
}

void KernelCoordinator::tellReady() const { holder_.send({Message::Kind::ready}, -1, true); }

void KernelCoordinator::receive() {
  EventChannel::Received received;
  for (;;) {
    switch (holder_.receive(received)) {
      case EventChannel::State::nothing:
        return;
      case EventChannel::State::ended:
        if (!std::exchange(isWithoutHolder_, true)) onStop_();
        return;
      case EventChannel::State::message:
        break;
    }
    if (received.message.kind == Message::Kind::stop) {
      groupsStay_ = received.message.errnum != 0;
      onStop_();
    } else if (received.message.kind == Message::Kind::event && received.descriptor) {
      decide({received.message.number, received.message.process, received.message.mask,
              std::move(received.descriptor)});
    }
  }
}

void KernelCoordinator::answer(Request request, int errnum) const {
  // The file first: who goes on may want to know that nobody else has it open.
  request.file.reset();
  holder_.send({Message::Kind::answer, request.number, request.process, errnum, 0}, -1, true);
}

KernelCoordinator::Tree* KernelCoordinator::treeWith(const std::string& path) {
  Tree* innermost = nullptr;
  for (auto& [identifier, tree] : sources_) {
    if (!isBelow(path, tree.directory)) continue;
    if (!innermost || tree.directory.size() > innermost->directory.size()) innermost = &tree;
  }
  return innermost;
}

bool KernelCoordinator::isExempt(const Request& request, const std::optional<std::string>& path) {
  if (const Tree* tree = path ? treeWith(*path) : nullptr) {
    return lineage_.belongsTo(request.process, tree->source.identifier,
                              tree->source.host->process());
  }
  return std::any_of(sources_.begin(), sources_.end(), [&](const auto& entry) {
    return entry.second.source.host->process().processIdentifier() == request.process;
  });
}

void KernelCoordinator::decide(Request request) {
  struct stat status;
  if (fstat(request.file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    answer(std::move(request), 0);
    return;
  }
  const FileIdentity identity = identityOf(status);
  const bool isAwaited = files_.contains(identity);
  auto state = Placeholder::ofFile(request.file.get(), status);
  if (!isAwaited && (state == Placeholder::State::placeholder ||
                     (state == Placeholder::State::markedPlaceholder && status.st_size == 0))) {
    // Perhaps it was emptied, or made, by whoever writes now: its change was queued before this.
    changed();
    state = Placeholder::ofFile(request.file.get(), status);
  }
  if (!isAwaited && state == Placeholder::State::content) {
    // Whoever makes a file now may be gone when the change is told: whose process it is, is
    // remembered.
    if (status.st_size == 0) isExempt(request, trees_.pathOf(request.file.get(), status));
    trees_.settle(request.file.get(), status, request.mask);
    answer(std::move(request), 0);
    return;
  }
  if (isExempt(request, trees_.pathOf(request.file.get(), status))) {
    answer(std::move(request), 0);
    return;
  }
  files_[identity].requests.push_back(std::move(request));
  if (!isAwaited) ask(identity);
}

/// Asks the doc source that the file belongs to, if it is there.
void KernelCoordinator::ask(const FileIdentity& identity) {
  File& file = files_.at(identity);
  struct stat status;
  const Request& first = file.requests.front();
  const auto path = fstat(first.file.get(), &status) == 0 ? trees_.pathOf(first.file.get(), status)
                                                          : std::nullopt;
  const Tree* tree = path ? treeWith(*path) : nullptr;
  if (!tree) {
    const bool isAbandoned =
        path && std::any_of(removed_.begin(), removed_.end(),
                            [&](const auto& directory) { return isBelow(*path, directory); });
    // Right after the start doc sources have yet to come back.
    if (isAbandoned || Clock::current().now() - started_ > patience) {
      finish(identity, EAGAIN);
    } else {
      await(identity);
    }
    return;
  }
  if (tree->isLost || tree->source.host->isLost()) {
    await(identity);
    return;
  }
  file.docSource = tree->source.identifier;
  if (file.deadline != 0) Clock::current().cancel(std::exchange(file.deadline, 0));
  file.turn = ++lastTurn_;
  file.blocks = status.st_blocks;
  file.changed = status.st_ctim;
  registry_->provide(
      URL::fileURL(*path), ProcessLineage::identifierOf(first.process),
      [self = shared_from_this(), identity, turn = file.turn](const std::optional<Error>& error) {
        self->queue_->async([=] { self->provided(identity, turn, error); });
      });
}

/// Waits, but not for ever, until there is a doc source to ask.
void KernelCoordinator::await(const FileIdentity& identity) {
  File& file = files_.at(identity);
  file.docSource.clear();
  if (file.deadline != 0) return;
  file.turn = ++lastTurn_;
  file.deadline =
      Clock::current().schedule(patience, [weak = weak_from_this(), identity, turn = file.turn] {
        const auto self = weak.lock();
        if (!self) return;
        self->queue_->async([self, identity, turn] {
          const auto found = self->files_.find(identity);
          if (found == self->files_.end() || found->second.turn != turn) return;
          DS_LOG("[NOTICE] No doc source came for a file that %d wait for.",
                 found->second.requests.size());
          self->finish(identity, EAGAIN);
        });
      });
}

void KernelCoordinator::askAgain() {
  std::vector<FileIdentity> unasked;
  for (const auto& [identity, file] : files_) {
    if (file.docSource.empty()) unasked.push_back(identity);
  }
  for (const auto& identity : unasked) {
    // Who works for the doc source that came back does not wait for it.
    File& file = files_.at(identity);
    std::erase_if(file.requests, [&](Request& request) {
      struct stat status;
      const bool isFree = fstat(request.file.get(), &status) == 0 &&
                          isExempt(request, trees_.pathOf(request.file.get(), status));
      if (isFree) answer(std::move(request), 0);
      return isFree;
    });
    if (file.requests.empty()) {
      finish(identity, 0);
    } else {
      ask(identity);
    }
  }
}

void KernelCoordinator::provided(const FileIdentity& identity, std::uint64_t turn,
                                 const std::optional<Error>& error) {
  const auto found = files_.find(identity);
  if (found == files_.end() || found->second.turn != turn) return;
  File& file = found->second;
  if (error) {
    const auto tree = sources_.find(file.docSource);
    if (tree != sources_.end() && (tree->second.isLost || tree->second.source.host->isLost())) {
      await(identity);
    } else {
      finish(identity, errnoFor(*error));
    }
    return;
  }
  const Request& first = file.requests.front();
  struct stat status;
  if (fstat(first.file.get(), &status) != 0) {
    finish(identity, EIO);
    return;
  }
  if (const auto path = trees_.pathOf(first.file.get(), status)) {
    // Whether anything was written, its time of change tells even when it needed no new block.
    if (status.st_ctim.tv_sec != file.changed.tv_sec ||
        status.st_ctim.tv_nsec != file.changed.tv_nsec) {
      Placeholder::unmarkOurs(*path);
    }
  }
  const auto state = Placeholder::ofFile(first.file.get(), status);
  // The provider's word counts for a file with holes of its own, if it put anything there.
  const bool isThere = state == Placeholder::State::content ||
                       (state == Placeholder::State::placeholder && status.st_blocks > file.blocks);
  if (!isThere) {
    // Content that came as another file is found by whoever opens the name again.
    finish(identity, status.st_nlink == 0 ? EAGAIN : EIO);
    return;
  }
  for (const auto& request : file.requests) {
    trees_.settle(request.file.get(), status, request.mask);
  }
  finish(identity, 0);
}

/// Answers all who wait for the file.
void KernelCoordinator::finish(const FileIdentity& identity, int errnum) {
  auto node = files_.extract(identity);
  if (!node) return;
  if (node.mapped().deadline != 0) Clock::current().cancel(node.mapped().deadline);
  for (auto& request : node.mapped().requests) answer(std::move(request), errnum);
}

void KernelCoordinator::docSourceAdded(const DocSource& source, std::function<void()> onWatched) {
  queue_->async([self = shared_from_this(), source, onWatched = std::move(onWatched)] {
    const auto known = self->sources_.find(source.identifier);
    if (known != self->sources_.end() && known->second.source.number > source.number) {
      onWatched();
      return;
    }
    Tree tree{source, canonical(source.directory), false, nullptr};
    std::erase(self->removed_, tree.directory);
    tree.watch =
        DirectoryWatch::start(source.directory.path().value_or("/"),
                              [weak = std::weak_ptr(self), source](const std::string& name) {
                                // The directory itself came, or went.
                                const auto coordinator = weak.lock();
                                if (coordinator && name.empty()) coordinator->lookThrough(source);
                              });
    self->sources_.insert_or_assign(source.identifier, std::move(tree));
    self->lookThrough(source, onWatched);
    self->askAgain();
  });
}

void KernelCoordinator::docSourceRemoved(const DocSource& source) {
  queue_->async([self = shared_from_this(), source] {
    const auto known = self->sources_.find(source.identifier);
    if (known == self->sources_.end() || known->second.source.number != source.number) return;
    // The marks stay: what nobody provides any more is refused, not shown as zeros.
    self->removed_.push_back(known->second.directory);
    self->sources_.erase(known);
    std::vector<FileIdentity> abandoned;
    for (const auto& [identity, file] : self->files_) {
      if (file.docSource == source.identifier) abandoned.push_back(identity);
    }
    for (const auto& identity : abandoned) self->finish(identity, EAGAIN);
    self->askAgain();
  });
}

void KernelCoordinator::docSourceLost(const DocSource& source) {
  queue_->async([self = shared_from_this(), source] {
    const auto known = self->sources_.find(source.identifier);
    if (known == self->sources_.end() || known->second.source.number != source.number) return;
    known->second.isLost = true;
  });
}

/// Marks a doc source's tree. What becomes of the doc source meanwhile changes nothing in that: the
/// marks keep readers from zeros whether it is there or not.
void KernelCoordinator::lookThrough(const DocSource& source, std::function<void()> onWatched) {
  WorkQueue::global().async([self = shared_from_this(), source, onWatched = std::move(onWatched)] {
    const std::string directory = canonical(source.directory);
    const auto scan = self->trees_.mark(directory);
    if (scan.mask == 0 && scan.errnum == ENOENT) {
      DS_LOG("[INFO] %@ is watched for doc source %@ when it appears.", directory,
             source.identifier);
      if (onWatched) onWatched();
      return;
    }
    if (scan.mask == 0) {
      DS_LOG("[ERROR] Cannot watch %@ for doc source %@. Error: %@", directory, source.identifier,
             posixError(scan.errnum, "The directory cannot be marked"));
    } else {
      if (scan.mask == openPermission) {
        DS_LOG(
            "[NOTICE] Programs that open files of doc source %@ are coordinated when they open "
            "them: the kernel does not tell of accesses there.",
            source.identifier);
      }
      DS_LOG("[INFO] Watching %d directories with %d placeholders of doc source %@.",
             scan.directories, scan.placeholders, source.identifier);
    }
    self->queue_->async([self, source, directory, onWatched] {
      const auto known = self->sources_.find(source.identifier);
      if (known != self->sources_.end() && known->second.source.number == source.number) {
        known->second.directory = directory;
      }
      for (const auto& change : std::exchange(self->unplaced_, {})) self->apply(change);
      self->askAgain();
      if (onWatched) onWatched();
    });
  });
}

/// Marks a directory that came into a tree; what its maker put into it before counts as written.
void KernelCoordinator::look(const std::string& directory, std::optional<pid_t> maker) {
  WorkQueue::global().async([self = shared_from_this(), directory, maker] {
    auto scan = self->trees_.mark(
        directory, maker ? MarkedTrees::Maker::somebodyElse : MarkedTrees::Maker::provider);
    self->queue_->async([self, maker, contents = std::move(scan.contents)] {
      for (const auto& path : contents) self->report(path, *maker);
      for (const auto& change : std::exchange(self->unplaced_, {})) self->apply(change);
    });
  });
}

void KernelCoordinator::changed() {
  for (const auto& change : changes_.read()) apply(change);
  if (trees_.isCrowded()) {
    WorkQueue::global().async([self = shared_from_this()] { self->trees_.forgetGone(); });
  }
}

void KernelCoordinator::apply(const ChangeEvent& change) {
  if (change.directory.empty()) {
    DS_LOG("[NOTICE] Changes of files were lost; looking at everything again.");
    writes_.clear();
    for (const auto& [identifier, tree] : sources_) lookThrough(tree.source);
    return;
  }
  if (change.process == getpid()) return;
  const auto directory = trees_.directoryWithKey(change.directory);
  if (!directory) {
    if (unplaced_.size() < mostUnplaced) unplaced_.push_back(change);
    return;
  }
  if (change.name.empty() || change.name == ".") return;
  const std::string path = *directory + "/" + change.name;
  const Tree* tree = treeWith(path);
  if (!tree) {
    // Of a doc source that was removed: nobody can tell who works for it.
    trees_.examine(path, false);
    return;
  }
  const bool isForeign =
      !lineage_.belongsTo(change.process, tree->source.identifier, tree->source.host->process());
  if (change.mask & FAN_ONDIR) {
    if (change.mask & (FAN_CREATE | FAN_MOVED_TO)) {
      look(path, isForeign ? std::optional(change.process) : std::nullopt);
    }
    return;
  }
  struct stat status;
  const bool isFile = lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  if (isFile && isForeign && (change.mask & FAN_MODIFY) && status.st_size == 0) {
    // Emptied without a look at what it stood for.
    Placeholder::unmark(path);
  }
  if (isForeign && (change.mask & FAN_MODIFY)) writes_.modified(path, change.process);
  auto writers =
      change.mask & FAN_CLOSE_WRITE ? writes_.closed(path, change.process) : std::vector<pid_t>();
  if (isFile && isForeign && writers.empty() && (change.mask & FAN_CLOSE_WRITE) &&
      trees_.hasChanged(status) && !(change.mask & FAN_ATTRIB)) {
    // Through a mapping, which tells only by the time; one that was set says nothing.
    writers.push_back(change.process);
  }
  if (!isFile) return;
  const bool isModified = (change.mask & FAN_MODIFY) != 0;
  if (isForeign) {
    trees_.examineForeign(path, status, isModified);
  } else {
    if (isModified) Placeholder::setLocal(path, false);
    trees_.examine(path, (change.mask & (FAN_CLOSE_WRITE | FAN_MOVED_TO)) != 0);
  }
  if (isForeign && (change.mask & FAN_MOVED_TO)) writers.push_back(change.process);
  for (const pid_t writer : writers) report(path, writer);
}

void KernelCoordinator::report(const std::string& path, pid_t writer) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      Placeholder::ofPath(path, status) != Placeholder::State::content) {
    return;
  }
  trees_.hasChanged(status);
  registry_->didFinishWriting(URL::fileURL(path), ProcessLineage::identifierOf(writer));
}

void KernelCoordinator::stop() {
  queue_->sync([&] {
    if (!groupsStay_) {
      // Also where the marks have not come to yet.
      std::vector<std::string> directories = removed_;
      for (const auto& [identifier, tree] : sources_) directories.push_back(tree.directory);
      const std::size_t concealed = trees_.conceal(std::move(directories));
      DS_LOG("[NOTICE] Stopping; %d placeholders are unreadable until the next start.", concealed);
    }
    if (!isWithoutHolder_) {
      holder_.send({Message::Kind::stopped}, -1, true);
      return;
    }
    // Nobody else is left to answer. Events are known by the numbers that the holder had for them.
    for (int number = 0; number < mostNumbers; ++number) accesses_.answer(number, EAGAIN);
    for (auto events = accesses_.read(); !events.empty(); events = accesses_.read()) {
      for (const auto& event : events) accesses_.answer(event.file.get(), EAGAIN);
    }
  });
}

}  // namespace qx::kernel
