#pragma once

#include <functional>
#include <memory>

#include "daemon/DSConduitListenerDelegate.h"
#include "daemon/DSGrantsListenerDelegate.h"
#include "platform/conduit/QXConduitListener.h"
#include "servicer/DSConduitServicer.h"

/// The daemon's server: the listener on "com.veltro.DocSource" with its delegate, the one on
/// "com.veltro.DocSource.Grants" with its own, and the order in which the first unlock of the
/// device, the provider instances and the listeners' resumption come.
///
/// Owned by the entry point for the life of the process. Holds the access control store weakly; the
/// store keeps itself alive. Used on the main thread; accessControlStore() on any.
class DSServer final : public std::enable_shared_from_this<DSServer> {
 public:
  /// Null before startCompletion().
  const std::shared_ptr<QXConduitListener>& listener() const { return listener_; }
  const std::shared_ptr<DSConduitListenerDelegate>& listenerDelegate() const {
    return listenerDelegate_;
  }

  /// Null when the store is gone.
  std::shared_ptr<DSAccessControlStore> accessControlStore() const {
    return accessControlStore_.lock();
  }
  /// Before startCompletion().
  void setAccessControlStore(const std::shared_ptr<DSAccessControlStore>& store) {
    accessControlStore_ = store;
  }

  /// Called once. Connections are accepted when the provider instances have been created, or, on a
  /// device that was not unlocked since boot, at once; the completion, which may be absent, is
  /// called then.
  void startCompletion(std::function<void()> completion);

 private:
  void resumeListeners();

  std::shared_ptr<QXConduitListener> listener_;
  std::shared_ptr<DSConduitListenerDelegate> listenerDelegate_;
  std::shared_ptr<QXConduitListener> grantsListener_;
  std::shared_ptr<DSGrantsListenerDelegate> grantsListenerDelegate_;
  std::weak_ptr<DSAccessControlStore> accessControlStore_;
};
