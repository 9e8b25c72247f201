#include "servicer/DSShownDocuments.h"

#include <algorithm>
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

/// No provider names an item by its file, so all of the application's items are asked for.
void wereMoved(const std::string& application, const qx::DocumentViews::Choose& choose,
               const std::function<void()>& done) {
  constexpr std::chrono::seconds timeForSearching(20);
  std::vector<DSItem> items;
  for (const auto& grant : DSAccessControlStore::sharedStore()->grants()) {
    if (grant.consumer == application) items.push_back({grant.provider, grant.item});
  }
  auto asked = items;
  dsFindItemURLs(
      std::move(asked), timeForSearching,
      [application, choose, done, items = std::move(items)](const std::vector<DSItemURL>& answers) {
        std::vector<qx::URL> urls;
        for (const auto& answer : answers) {
          if (answer && *answer) urls.push_back(**answer);
        }
        const auto chosen = choose(urls);
        for (std::size_t i = 0; i < answers.size(); ++i) {
          if (!answers[i] || !*answers[i] ||
              std::find(chosen.begin(), chosen.end(), **answers[i]) == chosen.end()) {
            continue;
          }
          showInSandboxes(application, **answers[i], [&] {
            return DSAccessControlStore::sharedStore()
                ->isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
                    items[i].providerID, items[i].itemID, application);
          });
        }
        done();
      });
}

}  // namespace

void dsBeginToShowDocuments() { qx::DocumentViews::begin(wrote, wereMoved); }
