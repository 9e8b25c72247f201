#include "servicer/DSShownDocuments.h"

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "acl/DSAccessControlStore.h"
#include "platform/log/Log.h"
#include "platform/views/DocumentViews.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"
#include "servicer/DSItemURLs.h"

namespace {

void wrote(const std::string& application, const qx::URL& document,
           const std::function<void()>& done) {
  DS_LOG("[INFO] %@ wrote the item at URL %@ in its sandbox.", application, document);
  const auto owner = DSExtensionDocSource::providerForURL(document);
  if (!owner) return done();
  owner->itemChangedAtURL(document, done);
}

/// No provider names an item by its file, so the application's items are searched for the one that
/// is there now.
void wasMoved(const std::string& application, const std::function<bool(const qx::URL&)>& isIt,
              const std::function<void()>& done) {
  constexpr std::chrono::seconds timeForSearching(20);
  std::vector<DSItem> items;
  for (const auto& grant : DSAccessControlStore::sharedStore()->grants()) {
    if (grant.consumer == application) items.push_back({grant.provider, grant.item});
  }
  auto asked = items;
  dsFindItemURLs(
      std::move(asked), timeForSearching,
      [application, isIt, done, items = std::move(items)](const std::vector<DSItemURL>& urls) {
        for (std::size_t i = 0; i < urls.size(); ++i) {
          if (!urls[i] || !*urls[i] || !isIt(**urls[i])) continue;
          showInSandboxes(application, **urls[i], [&] {
            return DSAccessControlStore::sharedStore()
                ->isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
                    items[i].providerID, items[i].itemID, application);
          });
        }
        done();
      });
}

}  // namespace

void dsBeginToShowDocuments() { qx::DocumentViews::begin(wrote, wasMoved); }
