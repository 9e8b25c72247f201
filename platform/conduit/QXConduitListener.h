#pragma once

#include <memory>
#include <string>

#include "platform/conduit/QXConduitConnection.h"
#include "platform/conduit/SandboxRoom.h"

class QXConduitListener;

/// Decides about each connection that arrives. Called on a thread of the reactor.
class QXConduitListenerDelegate {
 public:
  virtual ~QXConduitListenerDelegate() = default;
  /// Sets the connection up and resumes it. Returning false drops it.
  virtual bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) = 0;
};

/// The listener on a named service. The socket exists from creation on, so clients may connect and
/// wait; no connection is accepted before resume(). The listener holds each accepted connection
/// until the connection ends, and ends them all when it is destroyed.
class QXConduitListener {
 public:
  /// When the service name cannot be had, that is logged, and the listener stays without
  /// connections. A program that must not go on then calls qx::claimService() first.
  explicit QXConduitListener(std::string serviceName);
  ~QXConduitListener();
  QXConduitListener(const QXConduitListener&) = delete;
  QXConduitListener& operator=(const QXConduitListener&) = delete;

  /// Held weakly. Call this before resume().
  void setDelegate(const std::shared_ptr<QXConduitListenerDelegate>& delegate);

  /// For a service of one user, called before resume(). Listeners may share a room.
  void boundSandboxes(std::shared_ptr<qx::SandboxRoom> room);

  /// Begins to accept, and tells the service manager that the service is ready (sd_notify(3)).
  void resume();

 private:
  class State;
  std::shared_ptr<State> state_;
};
