#pragma once

#include <memory>

#include "platform/coordination/QXDocSource.h"

/// The daemon's side of the file-coordination service: keeps the doc sources that were added and
/// has them registered with the service whenever it is there. A service that is away, or goes and
/// comes back, gets them all (again); nothing is asked of the caller. Any thread; returns at once.
class QXFileCoordinator {
 public:
  /// Keeps the doc source until it is removed. Adding one with the identifier of another replaces
  /// that one with the service.
  static void _addDocSource(const std::shared_ptr<QXDocSource>& source);
  /// Removes this very object; another one that took over its identifier stays.
  static void _removeDocSource(const std::shared_ptr<QXDocSource>& source);
};
