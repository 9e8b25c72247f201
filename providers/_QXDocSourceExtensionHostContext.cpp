#include "providers/_QXDocSourceExtensionHostContext.h"

const std::shared_ptr<const QXConduitInterface>&
_QXDocSourceExtensionHostContext::_extensionAuxiliaryHostProtocol() {
  static const auto& interface = *new std::shared_ptr<const QXConduitInterface>(
      QXConduitInterface::interfaceWithProtocol<_QXDocSourceHostProtocol>());
  return interface;
}

const std::shared_ptr<const QXConduitInterface>&
_QXDocSourceExtensionHostContext::_extensionAuxiliaryVendorProtocol() {
  static const auto& interface = *new std::shared_ptr<const QXConduitInterface>(
      QXConduitInterface::interfaceWithProtocol<_QXDocSourceVendor>());
  return interface;
}
