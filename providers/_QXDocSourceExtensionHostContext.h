#pragma once

#include <memory>

#include "platform/extension/QXExtensionContext.h"
#include "providers/_QXDocSourceVendor.h"

/// The host-side context of a request to a provider extension. The extension host makes one for
/// each request; the two interfaces describe the two ends of the request's connection.
class _QXDocSourceExtensionHostContext final : public QXExtensionContext,
                                               public _QXDocSourceHostProtocol {
 public:
  /// The interface that the extension may call. It is the same object every time.
  static const std::shared_ptr<const QXConduitInterface>& _extensionAuxiliaryHostProtocol();
  /// The interface that the daemon calls. It is the same object every time.
  static const std::shared_ptr<const QXConduitInterface>& _extensionAuxiliaryVendorProtocol();
};

/// The extension point of document providers.
inline constexpr const char* docSourceExtensionPoint = "com.veltro.docsource-nonui";
/// Makes the extension host use this context class for the extension point, in every program that
/// includes this header.
inline const QXExtensionPoint docSourceExtensionPointRegistration =
    QXExtensionPoint::withContext<_QXDocSourceExtensionHostContext>(docSourceExtensionPoint);
