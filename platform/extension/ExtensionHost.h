#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base/Result.h"
#include "platform/extension/ExtensionProcess.h"
#include "platform/extension/QXExtension.h"

namespace qx {

/// Starts, keeps and ends the processes of the installed extensions, one to each, and follows the
/// installed bundles. What stands behind QXExtension. Any thread.
class ExtensionHost {
 public:
  static ExtensionHost& shared();

  std::shared_ptr<void> beginMatching(const Dictionary& attributes,
                                      QXExtension::MatchingCallback callback);

  /// In the process of this very installation, or of the one that is there now under its identifier
  /// and path; started when it does not run.
  Result<UUID> beginRequest(const std::shared_ptr<const Bundle>& asked);
  /// Unknown requests are ignored.
  void endRequest(const Bundle& bundle, const UUID& request);
  std::shared_ptr<QXExtensionContext> context(const Bundle& bundle, const UUID& request);

  /// Ends every extension process and returns when they are gone; nothing is started any more.
  void shutdown();

  /// A process that was reaped is held no longer.
  void forget(const ExtensionProcess& process);

  /// Makes an extension point known; called by QXExtensionPoint itself.
  void addPoint(const QXExtensionPoint& point);

 private:
  class Matching;

  ExtensionHost();
  std::shared_ptr<ExtensionProcess> processOf(const Bundle& bundle);
  std::shared_ptr<ExtensionProcess> processWithRequest(const Bundle& bundle, const UUID& request);
  void retireUninstalled();

  std::mutex starting_;  // one start at a time; requests to what runs do not wait for it
  std::mutex mutex_;
  // Under the mutex.
  std::map<std::string, const QXExtensionPoint*, std::less<>> points_;
  /// By bundle path: the process of the installation that is there, or of the last one.
  std::map<std::string, std::shared_ptr<ExtensionProcess>, std::less<>> processes_;
  /// Those that were replaced or ended, until they are reaped.
  std::vector<std::weak_ptr<ExtensionProcess>> leaving_;
  std::vector<std::shared_ptr<Matching>> matchings_;
  bool shutDown_ = false;
};

/// Whether both are the same installation.
bool isSameInstallation(const Bundle& a, const Bundle& b);

}  // namespace qx
