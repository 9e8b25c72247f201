#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/base/UUID.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/extension/QXExtensionContext.h"
#include "platform/identity/Bundles.h"
#include "platform/queue/Clock.h"
#include "platform/queue/Reactor.h"

namespace qx {

/// One running process of a provider extension, from its start to its reaping, with the requests
/// that are open in it.
///
/// It runs while requests are open and for 10 seconds after the last one; where its bundle says so
/// (keepsRunning()), it runs until it ends itself. After that, or when its connection is lost, it
/// is over: its connection is closed, upon which it should end; it is sent SIGTERM after 2 seconds
/// and SIGKILL after 5. Delays come from Clock::current(). Any thread may call it.
class ExtensionProcess final : public ReactorHandler,
                               public std::enable_shared_from_this<ExtensionProcess> {
 public:
  /// Starts the bundle's executable; the error is QXExtensionErrorDomain 2.
  static Result<std::shared_ptr<ExtensionProcess>> start(std::shared_ptr<const Bundle> bundle,
                                                         const QXExtensionPoint& point);

  ExtensionProcess(std::shared_ptr<const Bundle> bundle, const QXExtensionPoint& point);

  const Bundle& bundle() const { return *bundle_; }

  /// Begins a new request with its context; absent when the process is over.
  std::optional<UUID> beginRequest();
  /// Ends a request. Returns false when it is not one of this process.
  bool endRequest(const UUID& request);
  std::shared_ptr<QXExtensionContext> context(const UUID& request) const;

  /// Takes no more requests after those that are open. The process is over at once when there are
  /// none.
  void retire();
  /// Makes the process over now, whatever is open.
  void end();
  bool takesRequests() const;

  /// Waits until the process is reaped, and sends the signals of its schedule in real time. This is
  /// for the end of the program.
  void waitForExit();

  // ReactorHandler. The process has ended.
  void ready(std::uint32_t events) override;

 private:
  std::optional<Error> spawn();
  void requestEnded(const UUID& request);
  bool takesRequestsLocked() const { return !over_ && !retired_ && !connection_->isInvalid(); }
  void becameIdleLocked();
  void watchIdlenessLocked(Clock::Duration time);
  void sendSignal(int signal);
  void reap();

  const std::shared_ptr<const Bundle> bundle_;
  const QXExtensionPoint& point_;
  pid_t process_ = -1;
  FileDescriptor descriptor_;  // pidfd_open(2)
  Reactor::SourceID source_ = 0;
  std::shared_ptr<QXConduitConnection> connection_;

  mutable std::mutex mutex_;
  // Guarded by the mutex.
  std::map<UUID, std::shared_ptr<QXExtensionContext>> requests_;
  Clock::TimerID idleTimer_ = 0;
  Clock::Duration idleSince_{};
  std::set<int> sentSignals_;
  Clock::TimerID terminateTimer_ = 0;
  Clock::TimerID killTimer_ = 0;
  bool retired_ = false;
  bool over_ = false;
  bool reaped_ = false;
};

}  // namespace qx
