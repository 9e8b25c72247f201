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
/// peer exports. Silent until resume().
///
/// Ownership: the connection owns its exported object. Whoever holds the connection keeps it
/// open; a connection that a listener accepted is held by the listener until it ends. Proxies keep
/// the socket, not the connection.
///
/// Threads: any thread may call anything. Calls of the peer run on a thread of the reactor, one at
/// a time and in order; one that blocks holds up its own connection alone. Replies to our calls and
/// error handlers run on a thread of the reactor or on the global queue, in parallel; one that
/// blocks holds up nobody.
class QXConduitConnection final : public qx::conduit::ConduitChannel::Delegate,
                                  public std::enable_shared_from_this<QXConduitConnection> {
 public:
  using ErrorHandler = std::function<void(const qx::Error&)>;
  /// Told when the peer begins (true) or ends (false) a request on this connection.
  using RequestHandler = std::function<void(bool begins, const qx::UUID& request)>;

  /// Over a connected AF_UNIX stream socket.
  static std::shared_ptr<QXConduitConnection> overSocket(qx::FileDescriptor socket);
  /// To a named service; the error is that of connect(2).
  static qx::Result<std::shared_ptr<QXConduitConnection>> connectToService(
      const std::string& serviceName);

  explicit QXConduitConnection(std::shared_ptr<qx::conduit::ConduitChannel> channel,
                               std::optional<qx::UUID> request);
  ~QXConduitConnection() override;
  QXConduitConnection(const QXConduitConnection&) = delete;
  QXConduitConnection& operator=(const QXConduitConnection&) = delete;

  // Before resume().
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
  /// The process at the other end of a socket pair, of which the kernel knows only who made it
  /// (SO_PEERCRED, unix(7)). For the log; says nothing about who may do what.
  void setPeerProcess(pid_t process) { channel_->setPeerProcess(process); }
  /// Asked whenever the peer makes the connection keep something else than before; false ends it.
  void setAllowance(qx::conduit::ConduitChannel::Allowance allowance) {
    channel_->setAllowance(std::move(allowance));
  }
  /// Without one a peer that speaks of requests loses the connection.
  void setRequestHandler(RequestHandler handler);

  void resume();
  /// Ends the connection; calls in flight get QXConduitErrorDomain 4.
  void invalidate();
  bool isInvalid() const { return channel_->isClosed(); }
  /// The same, or the peer has hung up and nobody has come to notice it yet (POLLRDHUP, poll(2)).
  bool isGone() const;

  /// A proxy for the peer's object. `onError` is called once for each call of this proxy that
  /// fails (QXConduitErrorDomain), never from within the call.
  template <class Protocol>
  std::shared_ptr<Protocol> remoteObjectProxyWithErrorHandler(ErrorHandler onError) {
    return std::make_shared<typename qx::ProtocolTraits<Protocol>::Proxy>(
        channel_, remoteInterface_, request_, withFailureHandler(std::move(onError)));
  }

  /// The part of this connection that belongs to one request: its calls name the request. It lives
  /// independently of this object and does not end the connection when it goes.
  std::shared_ptr<QXConduitConnection> auxiliaryConnection(
      const qx::UUID& request, std::shared_ptr<const QXConduitInterface> remoteInterface) const;
  void beginRequest(const qx::UUID& request) { channel_->beginRequest(request); }
  /// Tells the peer that the request is over. A call of it that is in flight may still get its
  /// answer; one that is made after this fails with QXConduitErrorDomain 4.
  void endRequest(const qx::UUID& request) { channel_->endRequest(request); }
  /// The calls in flight of the request fail with QXConduitErrorDomain 4, and so do later ones.
  void failRequest(const qx::UUID& request);

  /// The peer as the kernel reported it when the connection was made.
  const qx::AuditToken& auditToken() const { return auditToken_; }
  pid_t processIdentifier() const { return auditToken_.processIdentifier(); }
  /// The peer's user with all groups, of that time too.
  qx::Result<qx::User> peerUser() const { return qx::User::ofPeer(channel_->socket()); }
  /// Asked anew at each call; absent when the peer does not hold it.
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
