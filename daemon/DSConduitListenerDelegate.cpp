#include "daemon/DSConduitListenerDelegate.h"

#include "platform/log/Log.h"

bool DSConduitListenerDelegate::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  connection->setExportedInterface(dsDaemonInterface());
  auto servicer = std::make_shared<DSConduitServicer>();
  servicer->setServer(server());
  servicer->setConnection(connection);
  connection->setExportedObject<DSDaemon>(std::move(servicer));
  connection->resume();
  DS_LOG("[INFO] New connection accepted.");
  return true;
}
