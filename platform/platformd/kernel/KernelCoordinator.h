#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/DirectoryWatch.h"
#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/EventChannel.h"
#include "platform/platformd/kernel/FanotifyGroup.h"
#include "platform/platformd/kernel/FinishedWrites.h"
#include "platform/platformd/kernel/MarkedTrees.h"
#include "platform/platformd/kernel/ProcessLineage.h"
#include "platform/queue/Clock.h"
#include "platform/queue/Reactor.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {

/// The errno that tells a program why its file could not be provided: one that the kernel can
/// deliver (ENOSPC, EDQUOT, EPERM, EAGAIN or EIO).
int errnoFor(const Error& error);

/// Coordinates programs that never heard of it: has the files that they get at provided first, and
/// tells of the files that they have written. The worker's part; the groups are the holder's.
///
/// A file that is no placeholder is let through and not heard of again until it changes. For a
/// placeholder the registry is asked once, however many wait; all get its answer. Who works for
/// the doc source is let through. A doc source that was lost is waited for, up to `patience`; the
/// same goes for one that has not come back yet after a restart of the worker.
///
/// Held by shared pointers only. Everything is done on one serial queue, but for looking through
/// directories, which may take long and runs on the global queue.
class KernelCoordinator final : public DocSourceObserver,
                                public std::enable_shared_from_this<KernelCoordinator> {
 public:
  static constexpr std::chrono::seconds patience{30};

  KernelCoordinator(std::shared_ptr<DocSourceRegistry> registry, EventChannel holder,
                    AccessGroup accesses, ChangeGroup changes, std::uint64_t mask);

  /// Takes events; `onStop` is called, on the queue, when the holder asks for the end or is gone.
  void start(std::function<void()> onStop);
  void tellReady() const;

  /// The last that is to be done: sees to it that nobody reads zeros when the groups close, unless
  /// they stay open elsewhere.
  void stop();

  // DocSourceObserver
  void docSourceAdded(const DocSource& source, std::function<void()> onWatched) override;
  void docSourceRemoved(const DocSource& source) override;
  void docSourceLost(const DocSource& source) override;

 private:
  class Input;
  /// A program that waits.
  struct Request {
    int number = 0;
    pid_t process = 0;
    std::uint64_t mask = 0;
    FileDescriptor file;
  };
  /// A file that is waited for.
  struct File {
    std::vector<Request> requests;
    std::string docSource;  // that was asked; empty while there is none to ask
    std::uint64_t turn = 0;
    blkcnt_t blocks = 0;  // that it occupied when it was asked for,
    timespec changed{};   // and when it had been changed last
    Clock::TimerID deadline = 0;
  };
  struct Tree {
    DocSource source;
    std::string directory;
    bool isLost = false;
    std::unique_ptr<DirectoryWatch> watch;
  };

  // On the queue.
  void receive();
  void decide(Request request);
  bool isExempt(const Request& request, const std::optional<std::string>& path);
  void ask(const FileIdentity& identity);
  /// Asks for the files that nobody could be asked for.
  void askAgain();
  void await(const FileIdentity& identity);
  void provided(const FileIdentity& identity, std::uint64_t turn,
                const std::optional<Error>& error);
  void finish(const FileIdentity& identity, int errnum);
  void answer(Request request, int errnum) const;
  void changed();
  void apply(const ChangeEvent& change);
  void report(const std::string& path, pid_t writer);
  /// The innermost tree that holds the path, or null.
  Tree* treeWith(const std::string& path);
  void look(const std::string& directory, std::optional<pid_t> maker);
  void lookThrough(const DocSource& source, std::function<void()> onWatched = {});

  const std::shared_ptr<DocSourceRegistry> registry_;
  const EventChannel holder_;
  const AccessGroup accesses_;
  const ChangeGroup changes_;
  const std::shared_ptr<WorkQueue> queue_ = WorkQueue::serial("KernelCoordinator queue");
  MarkedTrees trees_;
  const Clock::Duration started_;

  // On the queue.
  std::function<void()> onStop_;
  bool isWithoutHolder_ = false;
  bool groupsStay_ = false;
  std::map<std::string, Tree> sources_;
  std::vector<std::string> removed_;  // directories of doc sources that were removed
  std::map<FileIdentity, File> files_;
  std::uint64_t lastTurn_ = 0;
  ProcessLineage lineage_;
  FinishedWrites writes_;
  std::vector<ChangeEvent> unplaced_;  // in directories that are not known yet
};

}  // namespace qx::kernel
