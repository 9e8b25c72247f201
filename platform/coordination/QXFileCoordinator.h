#pragma once

#include <memory>

#include "platform/coordination/QXDocSource.h"

/// The daemon's side of the file-coordination service. It keeps the doc sources that were added,
/// and registers them with the service whenever that is there, also after it was away; the caller
/// need do nothing. Any thread may call it.
class QXFileCoordinator {
 public:
  /// Keeps the doc source until it is removed. When its identifier is that of another, it replaces
  /// that one with the service. Returns when the service, which then watches the directory, has
  /// answered; when the service is not there; or after ten seconds, and from then on at once until
  /// the service is there anew.
  static void _addDocSource(const std::shared_ptr<QXDocSource>& source);
  /// Removes this very object; another one that took over its identifier stays. Returns at once.
  static void _removeDocSource(const std::shared_ptr<QXDocSource>& source);
  /// Leaves the service for good, before the doc sources end. To the service they are then lost: a
  /// program that waits for one waits for its return, while a failure would be final.
  static void leave();
};
