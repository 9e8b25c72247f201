#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base/Completion.h"
#include "platform/base/Result.h"
#include "platform/extension/ExtensionProcess.h"
#include "platform/extension/QXExtension.h"
#include "platform/queue/Clock.h"

namespace qx {

/// Starts, keeps and ends the processes of the installed extensions, one process for each, and
/// follows the installed bundles. It is what QXExtension stands on. Any thread may call it.
///
/// Processes are started on threads of the pool, one start at a time for each bundle and with no
/// lock held, so that a slow start holds up only those who asked for that extension.
///
/// An extension whose "QXExtension" dictionary has QXExtensionKeepsRunning true is started as soon
/// as a matching finds it. When it dies it is started again: after a second, then after twice as
/// long each time, up to a minute. After it has run for a minute, the delay begins with a second
/// again.
class ExtensionHost {
 public:
  static ExtensionHost& shared();

  std::shared_ptr<void> beginMatching(const Dictionary& attributes,
                                      QXExtension::MatchingCallback callback);

  /// Begins a request in the process of this very installation, or of the one that is there now
  /// under its identifier and path. Answers once: on the calling thread when the process runs,
  /// otherwise from the global queue, when it has been started or could not be.
  void beginRequest(const std::shared_ptr<const Bundle>& asked, Completion<UUID, Error> answer);
  /// Ends a request. Unknown requests are ignored.
  void endRequest(const Bundle& bundle, const UUID& request);
  std::shared_ptr<QXExtensionContext> context(const Bundle& bundle, const UUID& request);

  /// Ends every extension process and returns when they are gone; nothing is started any more.
  void shutdown();

  /// Lets go of a process that was reaped.
  void forget(const ExtensionProcess& process);

  /// Makes an extension point known; called by QXExtensionPoint itself.
  void addPoint(const QXExtensionPoint& point);

 private:
  class Matching;

  /// A caller that asked for a process that is being started.
  struct Waiting {
    std::shared_ptr<const Bundle> asked;
    Completion<UUID, Error> answer;
  };
  /// What runs, or will run, for one bundle path.
  struct Place {
    /// The process of the installation that is there, or of the last one.
    std::shared_ptr<ExtensionProcess> process;
    bool isStarting = false;
    std::vector<Waiting> waiting;  // for the start
    // Used for an extension that keeps running:
    Clock::Duration startedAt{};
    Clock::Duration nextDelay{};
    Clock::TimerID restart = 0;
  };

  ExtensionHost();
  std::shared_ptr<ExtensionProcess> processOf(const Bundle& bundle);
  std::shared_ptr<ExtensionProcess> processWithRequest(const Bundle& bundle, const UUID& request);
  void retireUninstalled();
  void keepRunning(const Bundle& bundle);

  /// Has the place's process started, unless that is under way. Called with the mutex held.
  void startSoonLocked(const std::string& path, Place& place);
  /// Starts the process of whatever is installed there, if none runs, and answers those who wait
  /// for it.
  void start(const std::string& path);
  Result<std::shared_ptr<ExtensionProcess>> runningProcess(
      const std::shared_ptr<const Bundle>& bundle);
  /// Starts the process after a delay: the last start failed, or the process died. Called with the
  /// mutex held.
  void startLaterLocked(const std::string& path, Place& place);

  std::mutex mutex_;
  std::condition_variable startEnded_;
  // Guarded by the mutex.
  std::map<std::string, const QXExtensionPoint*, std::less<>> points_;
  std::map<std::string, Place, std::less<>> places_;
  unsigned starts_ = 0;  // under way
  /// Processes that were replaced or ended, until they are reaped.
  std::vector<std::weak_ptr<ExtensionProcess>> leaving_;
  std::vector<std::shared_ptr<Matching>> matchings_;
  bool shutDown_ = false;
};

/// Returns whether both are the same installation.
bool isSameInstallation(const Bundle& a, const Bundle& b);
/// Returns whether the extension is to run all the time.
bool keepsRunning(const Bundle& bundle);

}  // namespace qx
