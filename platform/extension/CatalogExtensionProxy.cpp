#include "platform/extension/CatalogExtensionProxy.h"

#include "platform/files/Places.h"

namespace {

bool isPlainFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

// Of two bundles with one identifier the later one counts, as it does in the list of matching
// extensions.
std::shared_ptr<const CatalogExtensionProxy> CatalogExtensionProxy::catalogProxyForIdentifier(
    const std::optional<std::string>& identifier) {
  std::shared_ptr<const qx::Bundle> found;
  for (auto& bundle : qx::BundleCatalog::shared().bundles(qx::BundleKind::extension)) {
    if (bundle->identifier == identifier) found = std::move(bundle);
  }
  return found ? std::make_shared<const CatalogExtensionProxy>(std::move(found)) : nullptr;
}

std::map<std::string, qx::URL> CatalogExtensionProxy::groupContainerURLs() const {
  std::map<std::string, qx::URL> urls;
  const auto* groups = qx::find<qx::Array>(bundle_->entitlements, "com.veltro.application-groups");
  if (!groups) return urls;
  for (const qx::Value& group : *groups) {
    const auto* name = group.as<std::string>();
    if (!name || !isPlainFileName(*name)) continue;
    urls.emplace(*name, qx::URL::fileURL(qx::Places::groupContainers() + "/" + *name, true));
  }
  return urls;
}
