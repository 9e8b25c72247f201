#pragma once

#include <functional>
#include <memory>

#include "daemon/DSConduitListenerDelegate.h"
#include "daemon/DSGrantsListenerDelegate.h"
#include "platform/conduit/QXConduitListener.h"
#include "servicer/DSConduitServicer.h"

/// The daemon's server. It has the listener on "com.veltro.DocSource" and the one on
/// "com.veltro.DocSource.Grants", each with its delegate, and decides the order of the first unlock
/// of the device, the making of the provider instances, and the resumption of the listeners.
///
/// The entry point owns it for the life of the process. It holds the access control store weakly;
/// the store keeps itself alive. It is used on the main thread; accessControlStore() may be called
/// on any.
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
  /// Call this before startCompletion().
  void setAccessControlStore(const std::shared_ptr<DSAccessControlStore>& store) {
    accessControlStore_ = store;
  }

  /// Call this once. Connections are accepted when the provider instances have been created, or at
  /// once on a device that was not unlocked since boot. The completion, which may be absent, is
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
