#include "daemon/DSGrantsListenerDelegate.h"

#include <utility>

#include "servicer/DSGrantsServicer.h"

bool DSGrantsListenerDelegate::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  connection->setExportedInterface(dsGrantsInterface());
  auto servicer = std::make_shared<DSGrantsServicer>();
  servicer->setServer(server_.lock());
  servicer->setConnection(connection);
  connection->setExportedObject<DSGrants>(std::move(servicer));
  connection->resume();
  return true;
}
