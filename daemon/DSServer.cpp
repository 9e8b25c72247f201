#include "daemon/DSServer.h"

#include <cstddef>
#include <utility>

#include "platform/base/FileDescriptor.h"
#include "platform/device/KeyState.h"
#include "platform/log/Log.h"
#include "platform/notify/SystemNotifyCenter.h"
#include "platform/queue/WorkQueue.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSGrants.h"
#include "servicer/DSRevocations.h"
#include "servicer/DSShownDocuments.h"

namespace {

constexpr const char* firstUnlockNotification = "com.veltro.mobile.lockwardd.first_unlock";
constexpr int unlockedLockState = 3;
/// What connections may keep before those of sandboxed applications get no more.
constexpr std::size_t mostBytesForSandboxes = 64U << 20U;

}  // namespace

void DSServer::startCompletion(std::function<void()> completion) {
  DS_LOG("[INFO] Server starting.");
  listener_ = std::make_shared<QXConduitListener>(dsDaemonServiceName);
  listenerDelegate_ = std::make_shared<DSConduitListenerDelegate>();
  listenerDelegate_->setServer(shared_from_this());
  listener_->setDelegate(listenerDelegate_);
  grantsListener_ = std::make_shared<QXConduitListener>(dsGrantsServiceName);
  grantsListenerDelegate_ = std::make_shared<DSGrantsListenerDelegate>();
  grantsListenerDelegate_->setServer(shared_from_this());
  grantsListener_->setDelegate(grantsListenerDelegate_);
  // The rest is for the user's other programs, and for extensions.
  const auto room =
      std::make_shared<qx::SandboxRoom>(qx::raiseDescriptorLimit() / 4, mostBytesForSandboxes);
  listener_->boundSandboxes(room);
  grantsListener_->boundSandboxes(room);

  qx::SystemNotifyCenter::addObserver(
      firstUnlockNotification, [] { DSExtensionDocSource::createInstancesCompletion(nullptr); });

  if (DeviceLockState() == unlockedLockState || DeviceUnlockedSinceBoot() != 0) {
    DSExtensionDocSource::createInstancesCompletion(
        [self = weak_from_this(), completion = std::move(completion)] {
          if (auto server = self.lock()) server->resumeListeners();
          if (completion) completion();
        });
    return;
  }
  DS_LOG("[INFO] Not instantiating doc sources until first unlock.");
  resumeListeners();
  if (completion) qx::WorkQueue::global().async(std::move(completion));
}

void DSServer::resumeListeners() {
  dsBeginToShowDocuments();
  if (const auto store = accessControlStore()) dsGoOnWithRevocations(store);
  grantsListener_->resume();
  listener_->resume();
}
