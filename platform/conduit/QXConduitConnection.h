#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/base/Error.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/base/UUID.h"
#include "platform/base/Value.h"
#include "platform/conduit/QXConduitInterface.h"
#include "platform/conduit/QXProtocol.h"
#include "platform/identity/AuditToken.h"
#include "platform/identity/UserIdentity.h"

/// One end of a conduit: exports an object to the peer and gives proxies for the object that the
/// peer exports. It is silent until resume().
///
/// The connection owns its exported object. Whoever holds the connection keeps it open; a listener
/// holds a connection that it accepted until the connection ends. Proxies keep the socket, not the
/// connection.
///
/// Any thread may call anything. Calls of the peer run on a thread of the reactor, one at a time
/// and in order; one that blocks holds up only its own connection. Replies to our calls and error
/// handlers run on a thread of the reactor or on the global queue, in parallel; one that blocks
/// holds up nobody.
class QXConduitConnection final : public qx::conduit::ConduitChannel::Delegate,
                                  public std::enable_shared_from_this<QXConduitConnection> {
 public:
  using ErrorHandler = std::function<void(const qx::Error&)>;
  /// Told when the peer begins (true) or ends (false) a request on this connection.
  using RequestHandler = std::function<void(bool begins, const qx::UUID& request)>;

  /// Makes a connection over a connected AF_UNIX stream socket.
  static std::shared_ptr<QXConduitConnection> overSocket(qx::FileDescriptor socket);
  /// Connects to a named service; the error is that of connect(2).
  static qx::Result<std::shared_ptr<QXConduitConnection>> connectToService(
      const std::string& serviceName);

  explicit QXConduitConnection(std::shared_ptr<qx::conduit::ConduitChannel> channel,
                               std::optional<qx::UUID> request);
  ~QXConduitConnection() override;
  QXConduitConnection(const QXConduitConnection&) = delete;
  QXConduitConnection& operator=(const QXConduitConnection&) = delete;

  // Call this before resume().
  void setExportedInterface(std::shared_ptr<const QXConduitInterface> interface);
  template <class Protocol>
  void setExportedObject(std::type_identity_t<std::shared_ptr<Protocol>> object) {
    exportedObject_ = std::move(object);
  }
  void setRemoteObjectInterface(std::shared_ptr<const QXConduitInterface> interface);
  /// Called once, when the connection is over, from the global queue.
  void setInvalidationHandler(std::function<void()> handler);
  /// Called after the error handler of each call that fails.
  void setFailureHandler(std::function<void()> handler);
  /// Names the process at the other end of a socket pair, of which the kernel knows only who made
  /// it (SO_PEERCRED, unix(7)). This is for the log; it decides nothing.
  void setPeerProcess(pid_t process) { channel_->setPeerProcess(process); }
  /// Asked whenever what the peer makes the connection keep changes; false ends the connection.
  void setAllowance(qx::conduit::ConduitChannel::Allowance allowance) {
    channel_->setAllowance(std::move(allowance));
  }
  /// Without a handler, a peer that begins a request loses the connection.
  void setRequestHandler(RequestHandler handler);

  void resume();
  /// Ends the connection. Calls in flight get QXConduitErrorDomain 4.
  void invalidate();
  bool isInvalid() const { return channel_->isClosed(); }
  /// Returns whether the connection has ended, or the peer has hung up and nobody has noticed it
  /// yet (POLLRDHUP, poll(2)).
  bool isGone() const;

  /// Makes a proxy for the peer's object. `onError` is called once for each call of this proxy that
  /// fails (QXConduitErrorDomain), never from within the call.
  template <class Protocol>
  std::shared_ptr<Protocol> remoteObjectProxyWithErrorHandler(ErrorHandler onError) {
    return std::make_shared<typename qx::ProtocolTraits<Protocol>::Proxy>(
        channel_, remoteInterface_, request_, withFailureHandler(std::move(onError)));
  }

  /// Makes the part of this connection that belongs to one request: its calls name the request. It
  /// lives independently of this object, and does not end the connection when it goes.
  std::shared_ptr<QXConduitConnection> auxiliaryConnection(
      const qx::UUID& request, std::shared_ptr<const QXConduitInterface> remoteInterface) const;
  void beginRequest(const qx::UUID& request) { channel_->beginRequest(request); }
  /// Tells the peer that the request is over. A call of it that is in flight may still get its
  /// answer; a later call fails with QXConduitErrorDomain 4.
  void endRequest(const qx::UUID& request) { channel_->endRequest(request); }
  /// Makes the calls in flight of the request fail with QXConduitErrorDomain 4, and later ones too.
  void failRequest(const qx::UUID& request);

  /// The peer as the kernel reported it when the connection was made.
  const qx::AuditToken& auditToken() const { return auditToken_; }
  pid_t processIdentifier() const { return auditToken_.processIdentifier(); }
  /// The peer's user with all groups, also of the time when the connection was made.
  qx::Result<qx::User> peerUser() const { return qx::User::ofPeer(channel_->socket()); }
  /// Looks the entitlement up anew at each call; absent when the peer does not hold it.
  std::optional<qx::Value> valueForEntitlement(std::string_view name) const;

 private:
  friend class QXConduitListener;

  ErrorHandler withFailureHandler(ErrorHandler onError) const;

  // ConduitChannel::Delegate
  void receivedCall(std::shared_ptr<qx::conduit::IncomingCall> call, std::string_view operation,
                    qx::conduit::Decoder& arguments,
                    const std::optional<qx::UUID>& request) override;
  bool receivedRequest(bool begins, const qx::UUID& request) override;
  void channelEnded() override;

  const std::shared_ptr<qx::conduit::ConduitChannel> channel_;
  const std::optional<qx::UUID> request_;  // of an auxiliary connection
  qx::AuditToken auditToken_;
  std::shared_ptr<const QXConduitInterface> exportedInterface_;
  std::shared_ptr<void> exportedObject_;
  std::shared_ptr<const QXConduitInterface> remoteInterface_;
  std::function<void()> invalidationHandler_;
  std::function<void()> forget_;  // by the listener that holds the connection
  std::function<void()> failureHandler_;
  RequestHandler requestHandler_;
};
