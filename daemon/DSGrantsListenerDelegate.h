#pragma once

#include <memory>

#include "platform/conduit/QXConduitListener.h"
#include "servicer/DSServicer.h"

/// Accepts every connection to the service of the grants and gives each a servicer of its own, as
/// DSConduitListenerDelegate does for clients. Called on threads of the connection layer; holds the
/// server weakly.
class DSGrantsListenerDelegate final : public QXConduitListenerDelegate {
 public:
  /// Call this before the listener is resumed.
  void setServer(const std::shared_ptr<DSServer>& server) { server_ = server; }

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  std::weak_ptr<DSServer> server_;
};
