#pragma once

#include <memory>

#include "platform/conduit/QXConduitListener.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/platformd/DocSourceRegistry.h"

/// The service "com.veltro.FileCoordination": gives every connection an object of its own that
/// carries out QXFileCoordination for the process at the other end, upon one registry.
///
/// Who may what: adding doc sources takes the entitlement "com.veltro.file-coordination.host", as a
/// number that is true; removing one, the connection that added it; reading and writing, access to
/// the file as SandboxCheckByAuditToken() sees it. An item that does not exist yet counts as
/// accessible when its directory is, in the same way: a provider may be asked to make it.
///
/// The reply to didFinishWritingItemAtURL:completion: does not wait for the doc source.
class FileCoordinationService final : public QXConduitListenerDelegate,
                                      public std::enable_shared_from_this<FileCoordinationService> {
 public:
  static std::shared_ptr<FileCoordinationService> make(std::shared_ptr<DocSourceRegistry> registry);
  explicit FileCoordinationService(std::shared_ptr<DocSourceRegistry> registry);

  /// Begins to serve; until then clients wait.
  void resume() { listener_.resume(); }

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  const std::shared_ptr<DocSourceRegistry> registry_;
  QXConduitListener listener_;
};
