#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/URL.h"
#include "platform/base/Value.h"
#include "platform/identity/Bundles.h"

/// The registry record of an installed extension. It is immutable; any thread may use it.
class CatalogExtensionProxy {
 public:
  /// Returns the record of the installed extension with that identifier, or null.
  static std::shared_ptr<const CatalogExtensionProxy> catalogProxyForIdentifier(
      const std::optional<std::string>& identifier);

  explicit CatalogExtensionProxy(std::shared_ptr<const qx::Bundle> bundle)
      : bundle_(std::move(bundle)) {}

  /// The value under a key of Info.plist when it is a T, or null.
  template <class T>
  const T* objectForInfoDictionaryKey_ofClass(std::string_view key) const {
    return qx::find<T>(bundle_->info, key);
  }

  /// The container directories of the groups that the extension's entitlement
  /// "com.veltro.application-groups" lists, by group identifier. A group identifier that is no
  /// plain file name has none.
  std::map<std::string, qx::URL> groupContainerURLs() const;

 private:
  std::shared_ptr<const qx::Bundle> bundle_;
};
