// Which provider owns a URL: the one whose provided-items directory holds the item.

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"
#include "providers/DSExtensionDocSourceRegistry.h"

namespace {

/// Whether the query failed only because the provider's directory is not there yet.
bool isMissingDirectory(const qx::Error& error, const std::optional<qx::URL>& directory) {
  if (!error.is(QXStandardErrorDomain, qx::fileNoSuchFileError)) return false;
  const auto* missing = qx::find<qx::URL>(error.info(), QXURLErrorKey);
  return missing && directory && *missing == *directory;
}

}  // namespace

std::shared_ptr<DSExtensionDocSource> DSExtensionDocSource::providerForURL_outExcludedURL(
    const std::optional<qx::URL>& url, bool* outExcludedURL) {
  std::shared_ptr<DSExtensionDocSource> owner;
  bool isExcluded = false;
  qx::FileManager::ItemPlace item(url);
  registry().registryQueue->sync([&] {
    for (const auto& [key, instance] : registry().instances) {
      const auto directory = instance->providedItemsURL();
      const auto relationship = item.relationshipToDirectoryAtURL(directory);
      if (relationship) {
        if (*relationship == qx::DirectoryRelationship::contains) {
          DS_LOG("[INFO] Resolved URL to provider %@.", instance->identifier());
          owner = instance;
          return;
        }
        if (*relationship == qx::DirectoryRelationship::same) {
          DS_LOG("[DEBUG] Ignoring URLs that exactly match the document container folder");
          isExcluded = true;
          return;
        }
      } else if (isMissingDirectory(relationship.error(), directory)) {
        DS_LOG(
            "[DEBUG] Doc source %@ doesn't have a provided items directory; it may not have run so "
            "far.",
            instance->identifier());
      } else {
        DS_LOG("[ERROR] Cannot get the relationship between URL %@ and %@. Error: %@", directory,
               url, relationship.error());
      }
    }
  });
  if (outExcludedURL) *outExcludedURL = isExcluded;
  return owner;
}

std::shared_ptr<DSExtensionDocSource> DSExtensionDocSource::providerForURL(
    const std::optional<qx::URL>& url) {
  return providerForURL_outExcludedURL(url, nullptr);
}
