#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/queue/Once.h"
#include "platform/queue/WorkQueue.h"
#include "providers/DSExtensionDocSource.h"

/// The process-wide state of the registry. Only the source files of DSExtensionDocSource use it.
struct DSExtensionDocSource::Registry {
  using Table = std::map<std::string, std::shared_ptr<DSExtensionDocSource>, std::less<>>;

  /// Read in synchronous blocks on the registry queue, and written in barriers on it.
  Table instances;

  const std::shared_ptr<qx::WorkQueue> refreshQueue =
      qx::WorkQueue::serial("DSExtensionDocSource refresh operations queue");
  const std::shared_ptr<qx::WorkQueue> registryQueue =
      qx::WorkQueue::concurrent("DSExtensionDocSource concurrent queue");

  qx::OnceGuard startUp;
  std::shared_ptr<void> matchingContext;
  std::mutex pendingMutex;
  Callback pendingCompletion;
  std::weak_ptr<DSAccessControl> accessControl;
};
