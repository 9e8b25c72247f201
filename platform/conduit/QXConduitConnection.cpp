#include "platform/conduit/QXConduitConnection.h"

#include <poll.h>

#include <utility>

#include "platform/base/Errors.h"
#include "platform/conduit/ServiceSocket.h"
#include "platform/identity/Bundles.h"

using qx::conduit::ConduitChannel;

std::shared_ptr<QXConduitConnection> QXConduitConnection::overSocket(qx::FileDescriptor socket) {
  auto connection =
      std::make_shared<QXConduitConnection>(ConduitChannel::make(std::move(socket)), std::nullopt);
  connection->auditToken_ = qx::AuditToken::ofPeer(connection->channel_->socket());
  connection->channel_->setDelegate(connection);
  return connection;
}

qx::Result<std::shared_ptr<QXConduitConnection>> QXConduitConnection::connectToService(
    const std::string& serviceName) {
  auto socket = qx::connectToServiceSocket(serviceName);
  if (!socket) return socket.error();
  return overSocket(std::move(*socket));
}

QXConduitConnection::QXConduitConnection(std::shared_ptr<ConduitChannel> channel,
                                         std::optional<qx::UUID> request)
    : channel_(std::move(channel)), request_(request) {}

QXConduitConnection::~QXConduitConnection() {
  if (!request_) channel_->close();
}

void QXConduitConnection::setExportedInterface(
    std::shared_ptr<const QXConduitInterface> interface) {
  exportedInterface_ = std::move(interface);
}

void QXConduitConnection::setRemoteObjectInterface(
    std::shared_ptr<const QXConduitInterface> interface) {
  remoteInterface_ = std::move(interface);
}

void QXConduitConnection::setInvalidationHandler(std::function<void()> handler) {
  invalidationHandler_ = std::move(handler);
}

void QXConduitConnection::setFailureHandler(std::function<void()> handler) {
  failureHandler_ = std::move(handler);
}

QXConduitConnection::ErrorHandler QXConduitConnection::withFailureHandler(
    ErrorHandler onError) const {
  if (!failureHandler_) return onError;
  return [onError = std::move(onError), onFailure = failureHandler_](const qx::Error& error) {
    if (onError) onError(error);
    onFailure();
  };
}

void QXConduitConnection::setRequestHandler(RequestHandler handler) {
  requestHandler_ = std::move(handler);
}

void QXConduitConnection::resume() { channel_->start(); }

void QXConduitConnection::invalidate() { channel_->close(); }

bool QXConduitConnection::isGone() const {
  pollfd hangUp{channel_->socket(), POLLRDHUP, 0};
  return isInvalid() || ::poll(&hangUp, 1, 0) != 0;
}

std::shared_ptr<QXConduitConnection> QXConduitConnection::auxiliaryConnection(
    const qx::UUID& request, std::shared_ptr<const QXConduitInterface> remoteInterface) const {
  auto auxiliary = std::make_shared<QXConduitConnection>(channel_, request);
  auxiliary->auditToken_ = auditToken_;
  auxiliary->remoteInterface_ = std::move(remoteInterface);
  return auxiliary;
}

void QXConduitConnection::failRequest(const qx::UUID& request) {
  channel_->failCallsOfRequest(
      request, qx::conduitError(qx::ConduitErrorCode::connectionLost,
                                "The request was given up before the call was answered."));
}

std::optional<qx::Value> QXConduitConnection::valueForEntitlement(std::string_view name) const {
  return qx::entitlementOfProcess(auditToken_, name);
}

void QXConduitConnection::receivedCall(std::shared_ptr<qx::conduit::IncomingCall> call,
                                       std::string_view operation, qx::conduit::Decoder& arguments,
                                       const std::optional<qx::UUID>& /*request*/) {
  const auto* description =
      exportedInterface_ && exportedObject_ ? exportedInterface_->find(operation) : nullptr;
  if (!description) {
    call->fail(qx::conduitError(
        qx::ConduitErrorCode::noSuchOperation,
        "There is no operation \"" + std::string(operation.substr(0, 200)) + "\"."));
  } else if (!description->run(exportedObject_.get(), arguments, call)) {
    call->fail(qx::conduitError(qx::ConduitErrorCode::argumentsDoNotMatch,
                                "The arguments of \"" + description->name +
                                    "\" are not of the declared number and types."));
  }
}

bool QXConduitConnection::receivedRequest(bool begins, const qx::UUID& request) {
  if (!requestHandler_) return false;
  requestHandler_(begins, request);
  return true;
}

void QXConduitConnection::channelEnded() {
  if (invalidationHandler_) std::exchange(invalidationHandler_, nullptr)();
  if (forget_) std::exchange(forget_, nullptr)();
}
