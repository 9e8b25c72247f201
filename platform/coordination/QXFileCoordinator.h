#pragma once

#include <memory>

#include "platform/coordination/QXDocSource.h"

/// The daemon's side of the file-coordination service: keeps the doc sources that were added and
/// has them registered with the service whenever it is there. A service that is away, or goes and
/// comes back, gets them all (again); nothing is asked of the caller. Any thread.
class QXFileCoordinator {
 public:
  /// Keeps the doc source until it is removed. Adding one with the identifier of another replaces
  /// that one with the service. Returns when the service has answered, which watches the directory
  /// then; when it is not there; or after ten seconds, and then at once until it is there anew.
  static void _addDocSource(const std::shared_ptr<QXDocSource>& source);
  /// Removes this very object; another one that took over its identifier stays. Returns at once.
  static void _removeDocSource(const std::shared_ptr<QXDocSource>& source);
  /// Leaves the service for good, before the doc sources end: to the service they are lost then,
  /// and whoever waits for one waits for its return, where a failure would be the last word.
  static void leave();
};
