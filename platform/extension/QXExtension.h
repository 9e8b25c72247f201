#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Completion.h"
#include "platform/base/Error.h"
#include "platform/base/UUID.h"
#include "platform/base/Value.h"
#include "platform/extension/QXExtensionContext.h"

/// The key of the matching attributes, and of an extension's "QXExtension" dictionary.
inline constexpr const char* QXExtensionPointName = "QXExtensionPointName";

/// An installed extension, as the extension host found it. Any thread may use it.
class QXExtension {
 public:
  /// Called with every installed extension that matches, in the byte order of the bundles' names,
  /// once soon after matching began and again at every change; one call at a time.
  using MatchingCallback = std::function<void(std::vector<std::shared_ptr<QXExtension>> extensions,
                                              std::optional<qx::Error> error)>;

  /// Begins to match extensions whose "QXExtension" dictionary holds all of `attributes`. Matching
  /// goes on for the life of the process; the context that is returned stands for it.
  static std::shared_ptr<void> beginMatchingExtensionsWithAttributes_completion(
      const qx::Dictionary& attributes, MatchingCallback callback);

  virtual ~QXExtension() = default;

  virtual std::optional<std::string> identifier() const = 0;
  virtual std::string bundlePath() const = 0;
  /// Returns whether both stand for the same installation: identifier, bundle path and Info.plist
  /// (device, inode, size, modification time) are equal.
  virtual bool isEqual(const QXExtension& other) const = 0;

  /// Opens a request, and starts the extension when it does not run. Answers once, with the request
  /// or with QXExtensionErrorDomain 1 (not installed) or 2 (could not be launched), on the calling
  /// thread or another.
  virtual void beginExtensionRequestWithInputItems_completion(
      const std::optional<qx::Array>& inputItems,
      qx::Completion<qx::UUID, qx::Error> completion) = 0;
  /// Ends a request. An absent or unknown identifier is ignored.
  virtual void cancelExtensionRequestWithIdentifier(const std::optional<qx::UUID>& request) = 0;
  /// The host-side context of an open request, or null.
  virtual std::shared_ptr<QXExtensionContext> _extensionContextForUUID(
      const std::optional<qx::UUID>& request) = 0;
};

/// The log shows an extension as its identifier and bundle path.
std::string logText(const QXExtension& extension);
