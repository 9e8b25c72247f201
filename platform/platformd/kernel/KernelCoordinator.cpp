// Coordination of programs that do not ask for it.

#include "platform/platformd/kernel/KernelCoordinator.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/coordination/CoordinationState.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Placeholder.h"
#include "platform/queue/Thread.h"

namespace qx::kernel {
namespace {

std::string withoutSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

/// The path without links, as far as it leads anywhere. Where there are several users it came
/// without, and is not followed again: whoever has put a link there since gets nothing by it.
std::string canonical(const URL& directory) {
  const std::string path = directory.path().value_or("/");
  if (Places::servesMachine()) return withoutSlash(path);
  std::error_code problem;
  const auto resolved = std::filesystem::weakly_canonical(path, problem).string();
  return withoutSlash(problem ? path : resolved);
}

}  // namespace

/// Has the queue look at a descriptor whenever it is readable.
class KernelCoordinator::Input final : public ReactorHandler {
 public:
  using Look = void (KernelCoordinator::*)();

  static void begin(const std::shared_ptr<KernelCoordinator>& coordinator,
                    const std::shared_ptr<WorkQueue>& queue, int descriptor, Look look) {
    auto input = std::make_shared<Input>(coordinator, queue, descriptor, look);
    // Armed only once its number is known to ready().
    input->source_ = Reactor::shared().add(descriptor, 0, input);
    Reactor::shared().arm(input->source_, descriptor, EPOLLIN);
  }

  Input(std::shared_ptr<KernelCoordinator> coordinator, std::shared_ptr<WorkQueue> queue,
        int descriptor, Look look)
      : coordinator_(std::move(coordinator)),
        queue_(std::move(queue)),
        descriptor_(descriptor),
        look_(look) {}

  void ready(std::uint32_t /*events*/) override {
    const bool goesOn = queue_->sync([&] {
      ((*coordinator_).*look_)();
      return !coordinator_->isWithoutHolder_;
    });
    if (goesOn) Reactor::shared().arm(source_, descriptor_, EPOLLIN);
  }

 private:
  const std::shared_ptr<KernelCoordinator> coordinator_;
  const std::shared_ptr<WorkQueue> queue_;
  const int descriptor_;
  const Look look_;
  Reactor::SourceID source_ = 0;
};

KernelCoordinator::KernelCoordinator(std::shared_ptr<DocSourceRegistry> registry,
                                     EventChannel holder, AccessGroup accesses, ChangeGroup changes,
                                     std::uint64_t mask, GuardList list, std::size_t mostPinned)
    : registry_(std::move(registry)),
      holder_(std::move(holder)),
      accesses_(std::move(accesses)),
      changeGroup_(std::move(changes)),
      mask_(mask),
      trees_(accesses_, changeGroup_, mask, std::move(list), mostPinned) {}

void KernelCoordinator::onQueue(WorkQueue::Task task) {
  queue_->async([self = shared_from_this(), task = std::move(task)] { task(); });
}

void KernelCoordinator::slowly(uid_t user, WorkQueue::Task task) {
  std::shared_ptr<WorkQueue> queue;
  {
    const std::lock_guard lock(mutex_);
    auto& known = slowQueues_[user];
    if (!known) known = WorkQueue::serial("KernelCoordinator queue of " + std::to_string(user));
    queue = known;
  }
  queue->async([self = shared_from_this(), task = std::move(task)] { task(); });
}

void KernelCoordinator::start(std::function<void()> onStop) {
  onStop_ = std::move(onStop);
  // What is called back later finds nothing to do once this is gone.
  const auto toQueue = [weak = weak_from_this()](WorkQueue::Task task) {
    if (const auto self = weak.lock()) self->onQueue(std::move(task));
  };
  const auto toSlowQueue = [weak = weak_from_this()](uid_t user, WorkQueue::Task task) {
    if (const auto self = weak.lock()) self->slowly(user, std::move(task));
  };
  changes_ = std::make_unique<Changes>(
      changeGroup_, trees_, claims_,
      [this](const std::optional<FileIdentity>& file) {
        if (file) return readers_->arrived(*file);
        // With a directory any number may have come, and directories may come all the time.
        if (std::exchange(isLookingSoon_, true)) return;
        Clock::current().schedule(std::chrono::seconds(1), [weak = weak_from_this()] {
          const auto self = weak.lock();
          if (!self) return;
          self->onQueue([self] {
            self->isLookingSoon_ = false;
            self->readers_->askAgain();
          });
        });
      },
      [this](const FileIdentity& file) { readers_->progressed(file); },
      [this](pid_t program, const FileDescriptor& file, const struct stat& status) {
        readers_->wasModified(program, file, status);
      },
      [this](std::optional<uid_t> user) { lookAtAll(user); }, toQueue, toSlowQueue);
  readers_ = std::make_unique<Readers>(
      registry_, holder_, accesses_, trees_, claims_, *programs_, [this] { drain(true); }, toQueue,
      toSlowQueue);
  watch_ = TreeWatch::start([weak = weak_from_this()](const std::string& path) {
    const auto self = weak.lock();
    const auto tree = self ? self->trees_.placeOf(path + "/.") : std::nullopt;
    if (tree) self->slowly(tree->owner, [self, path] { self->lookAgain(path); });
  });
  for (const auto& path : trees_.paths()) watch_->add(path);
  const auto self = shared_from_this();
  auto alone = startThread("without-holder", [self] { self->answerWithoutHolder(); });
  if (alone.joinable()) {
    alone.detach();
  } else {
    allAnswered_.set_value();
  }
  Input::begin(self, queue_, holder_.descriptor(), &KernelCoordinator::receive);
  Input::begin(self, queue_, changeGroup_.descriptor(), &KernelCoordinator::drainSome);
  if (const ChangeGroup* names = trees_.names()) {
    Input::begin(self, namesQueue_, names->descriptor(), &KernelCoordinator::drainNames);
  }
  WorkQueue::global().async([self = shared_from_this()] {
    self->trees_.markDirectories();
    self->queue_->sync([&] { self->announce(); });
    const auto scan = self->trees_.guardAll();
    DS_LOG("[INFO] Guarding %d directories with %d placeholders from before.", scan.directories,
           scan.placeholders);
    self->holder_.send({Message::Kind::ready}, -1, true);
  });
}

/// From now on providers make placeholders that can be read.
void KernelCoordinator::announce() {
  const auto mechanism =
      mask_ == preAccess ? CoordinationMechanism::access : CoordinationMechanism::open;
  if (!isStopping_ && readCoordinationMechanism() != mechanism) {
    announceCoordinationMechanism(mechanism);
  }
}

void KernelCoordinator::drain(bool all) { changes_->drain(all); }

/// This process touches files itself, and asks itself then. When the holder, which lets it through,
/// has fallen, whatever waits for that would wait for ever, and so would who waits for the end of
/// this process: a holder that was started since. From then on this thread answers.
void KernelCoordinator::answerWithoutHolder() {
  std::array<pollfd, 2> ends{{{holder_.descriptor(), 0, 0}, {isOver_.get(), POLLIN, 0}}};
  while (poll(ends.data(), ends.size(), -1) < 0 && errno == EINTR) {
  }
  if (!holder_.hasEnded()) return allAnswered_.set_value();
  // Events are known by the numbers that the holder had for them.
  const auto most = static_cast<int>(std::min<std::size_t>(raiseDescriptorLimit(), 1U << 20U));
  for (int number = 0; number < most; ++number) accesses_.answer(number, EAGAIN);
  // Those who go on come again; those who came before are among the first.
  constexpr int mostRounds = 1000;
  ends[0] = {accesses_.descriptor(), POLLIN, 0};
  for (int rounds = 0; rounds < mostRounds;) {
    if (poll(ends.data(), ends.size(), -1) < 0) continue;
    const bool isOver = (ends[1].revents & POLLIN) != 0;
    const auto events = accesses_.read();
    if (isOver && (events.empty() || ++rounds == mostRounds)) break;
    // What is content stays open to everybody. No file is opened here.
    for (const auto& each : events) {
      struct stat status {};
      const bool isAbsent =
          each.process != getpid() &&
          (fstat(each.file.get(), &status) != 0 || Placeholder::isOne(each.file.get(), status));
      accesses_.answer(each.file.get(), isAbsent ? EAGAIN : 0);
    }
  }
  allAnswered_.set_value();
}

void KernelCoordinator::lookAtAll(std::optional<uid_t> user) {
  for (const auto& path : trees_.paths()) {
    const auto tree = trees_.placeOf(path == "/" ? "/." : path + "/.");
    if (!tree || (user && *user != tree->owner)) continue;
    slowly(tree->owner, [this, path] {
      trees_.markAgain(path);
      DS_LOG("[INFO] Looked at %@ again.", path);
    });
  }
}

void KernelCoordinator::drainNames() {
  for (const auto& change : trees_.names()->read(false)) {
    if (change.target) {
      trees_.wasNamed(*change.target);
      continue;
    }
    // Anybody who makes files faster than they are looked at can bring this about.
    if (std::exchange(looksAtNamesSoon_, true)) continue;
    DS_LOG("[NOTICE] New names of files were lost; looking at everything again.");
    namesQueue_->after(std::chrono::seconds(10), [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      self->looksAtNamesSoon_ = false;
      self->lookAtAll(std::nullopt);
    });
  }
}

void KernelCoordinator::receive() {
  EventChannel::Received received;
  for (;;) {
    switch (holder_.receive(received)) {
      case EventChannel::State::nothing:
        return;
      case EventChannel::State::ended:
        if (!isWithoutHolder_.exchange(true)) onStop_();
        return;
      case EventChannel::State::message:
        break;
    }
    const Message& message = received.message;
    if (message.kind == Message::Kind::stop) {
      groupsStay_ = message.errnum != 0;
      onStop_();
    } else if (message.kind == Message::Kind::event && received.descriptor) {
      Readers::Access access{message.number, message.process, message.mask, message.thread, {}};
      if (message.hasRange != 0) access.range = ByteRange{message.begin, message.end};
      readers_->decide(access, std::move(received.descriptor));
    }
  }
}

void KernelCoordinator::docSourceAdded(const DocSource& source, std::function<void()> onWatched) {
  onQueue([this, source, onWatched = std::move(onWatched)] {
    std::optional<Claims::Claim> replaced;
    // Where links lead, which may take long to find out, is looked at when the tree is marked.
    const std::string tree = withoutSlash(source.directory.path().value_or("/"));
    if (!claims_.add(source, tree, replaced)) return onWatched();
    programs_->learn(source.owner);
    slowly(source.owner, [this, source, onWatched, replaced] {
      claim(source, onWatched);
      if (replaced) release(replaced->source.owner, replaced->tree);
    });
    readers_->askAgain();
  });
}

void KernelCoordinator::docSourceRemoved(const DocSource& source) {
  onQueue([this, source] {
    const auto removed = claims_.remove(source);
    if (!removed) return;
    // The marks stay: who reads what nobody provides any more waits, and is not shown zeros.
    slowly(source.owner,
           [this, owner = source.owner, tree = removed->tree] { release(owner, tree); });
    readers_->lookWhoIsAway();
  });
}

/// Marks a doc source's tree. What becomes of the doc source meanwhile changes nothing in that: the
/// marks keep readers from zeros whether it is there or not.
void KernelCoordinator::claim(const DocSource& source, const std::function<void()>& onWatched) {
  const std::string path = canonical(source.directory);
  const auto scan = trees_.claim(source.owner, path);
  if (scan.errnum != EACCES) {
    watch_->add(path);
    lookAgain(path);  // before the watch another directory may have come
  }
  if (scan.mask == 0 && scan.errnum == ENOENT) {
    DS_LOG("[INFO] %@ is watched for doc source %@ when it appears.", path, source.identifier);
  } else if (scan.mask == 0) {
    DS_LOG("[ERROR] Cannot watch %@ for doc source %@. Error: %@", path, source.identifier,
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
  onQueue([this, source, path, onWatched] {
    if (Claims::Claim* known = claims_.find(source)) known->tree = path;
    readers_->askAgain();
    onWatched();
  });
}

void KernelCoordinator::release(uid_t owner, const std::string& path) {
  if (trees_.release(owner, path)) watch_->remove(path);
}

void KernelCoordinator::lookAgain(const std::string& path) {
  const auto scan = trees_.lookAgain(path);
  if (!scan) return;
  DS_LOG("[INFO] Watching %d directories with %d placeholders in %@, which has changed.",
         scan->directories, scan->placeholders, path);
  onQueue([this] { readers_->askAgain(); });
}

void KernelCoordinator::stop() {
  queue_->sync([&] {
    isStopping_ = true;
    if (!groupsStay_) {
      // What becomes a placeholder from now on is unreadable from the start.
      withdrawCoordinationMechanism();
      // Also where the marks have not come to yet.
      const std::size_t concealed = trees_.conceal();
      DS_LOG("[NOTICE] Stopping; %d placeholders are unreadable until the next start.", concealed);
    }
    eventfd_write(isOver_.get(), 1);
    allAnswered_.get_future().wait();
    if (!isWithoutHolder_) holder_.send({Message::Kind::stopped}, -1, true);
  });
}

}  // namespace qx::kernel
