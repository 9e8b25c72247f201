#pragma once

#include <memory>

#include "platform/conduit/QXConduitListener.h"
#include "servicer/DSConduitServicer.h"

/// Accepts every connection and gives each a servicer of its own; clients are vetted operation by
/// operation. Called on threads of the connection layer; holds the server weakly.
class DSConduitListenerDelegate final : public QXConduitListenerDelegate {
 public:
  std::shared_ptr<DSServer> server() const { return server_.lock(); }
  /// Call this before the listener is resumed.
  void setServer(const std::shared_ptr<DSServer>& server) { server_ = server; }

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  std::weak_ptr<DSServer> server_;
};
