#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/base/UUID.h"
#include "platform/conduit/QXConduitConnection.h"

/// The host's side of one request to an extension. An extension point derives its own class from
/// it and registers that class with a QXExtensionPoint.
class QXExtensionContext {
 public:
  virtual ~QXExtensionContext() = default;

  /// The connection that carries this request's messages, and no others.
  const std::shared_ptr<QXConduitConnection>& _auxiliaryConnection() const { return auxiliary_; }
  void setAuxiliaryConnection(std::shared_ptr<QXConduitConnection> connection) {
    auxiliary_ = std::move(connection);
  }

 private:
  std::shared_ptr<QXConduitConnection> auxiliary_;
};

/// What the extension host knows of an extension point: the class of its host-side contexts, and
/// the interfaces that the two ends of a request's connection speak. It is made at start-up, before
/// the first request, as an object that lives as long as the process.
struct QXExtensionPoint {
  template <class Context>
  static QXExtensionPoint withContext(std::string name) {
    return QXExtensionPoint(
        std::move(name), [] { return std::make_shared<Context>(); },
        Context::_extensionAuxiliaryHostProtocol(), Context::_extensionAuxiliaryVendorProtocol());
  }

  QXExtensionPoint(std::string pointName,
                   std::function<std::shared_ptr<QXExtensionContext>()> contextMaker,
                   std::shared_ptr<const QXConduitInterface> host,
                   std::shared_ptr<const QXConduitInterface> vendor);

  std::string name;
  std::function<std::shared_ptr<QXExtensionContext>()> makeContext;
  std::shared_ptr<const QXConduitInterface> hostProtocol;
  std::shared_ptr<const QXConduitInterface> vendorProtocol;
};
