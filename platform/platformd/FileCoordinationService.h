#pragma once

#include <memory>

#include "platform/conduit/QXConduitListener.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/UserAccounts.h"

/// The service "com.veltro.FileCoordination". It gives every connection an object of its own that
/// carries out QXFileCoordination for the process at the other end; all use one registry.
///
/// Adding doc sources: where the service serves one user, that takes the entitlement
/// "com.veltro.file-coordination.host", as a number that is true. Where it serves all users it
/// knows nobody's bundles; adding takes a process outside of sandboxes and a directory that belongs
/// to its user, looked up with that user's rights, and readers and writers are named "pid:<n>".
/// Only the connection that added a doc source may remove it.
///
/// Reading and writing take access to the file as SandboxCheckByAuditToken() sees it. An item that
/// does not exist yet counts as accessible when its directory is; for a read, when the first
/// existing directory above it is, since a provider may be asked to make it. A read of what no doc
/// source owns, as far as the reader can see, answers at once without error, whatever it is.
///
/// The reply to didFinishWritingItemAtURL:completion: does not wait for the doc source.
class FileCoordinationService final : public QXConduitListenerDelegate,
                                      public std::enable_shared_from_this<FileCoordinationService> {
 public:
  static std::shared_ptr<FileCoordinationService> make(std::shared_ptr<DocSourceRegistry> registry,
                                                       std::shared_ptr<UserAccounts> accounts);
  FileCoordinationService(std::shared_ptr<DocSourceRegistry> registry,
                          std::shared_ptr<UserAccounts> accounts);

  /// Begins to serve; until then clients wait.
  void resume() { listener_.resume(); }

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  const std::shared_ptr<DocSourceRegistry> registry_;
  const std::shared_ptr<UserAccounts> accounts_;
  QXConduitListener listener_;
};
