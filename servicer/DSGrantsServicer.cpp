#include "servicer/DSGrantsServicer.h"

#include <chrono>
#include <map>
#include <utility>

#include "acl/DSAccessControlStore.h"
#include "platform/log/Log.h"
#include "servicer/DSConduitServicer.h"
#include "servicer/DSItemURLs.h"
#include "servicer/DSRevocations.h"

namespace {

/// A listing is useful even without the URLs.
constexpr std::chrono::seconds timeForListing(5);

}  // namespace

void DSGrantsServicer::grantsCompletion(qx::Completion<qx::Error, qx::Array> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  if (!clientHasOneOfAllowedEntitlements(dsWriteEntitlements)) {
    answerEarly(std::move(completion), DSClientLacksEntitlement(std::nullopt), std::nullopt);
    return;
  }
  const auto store = accessControlStore();
  auto grants = store ? store->grants() : std::vector<DSAccessControlStore::Grant>();
  // Each item is asked about once, however many consumers have it.
  std::vector<DSItem> items;
  std::map<std::pair<std::string, std::string>, std::size_t> places;
  for (const auto& grant : grants) {
    if (places.try_emplace({grant.provider, grant.item}, items.size()).second) {
      items.push_back({grant.provider, grant.item});
    }
  }
  dsFindItemURLs(std::move(items), timeForListing,
                 [completion = std::move(completion), grants = std::move(grants),
                  places = std::move(places)](const std::vector<DSItemURL>& urls) {
                   qx::Array listing;
                   for (const auto& [provider, item, consumer] : grants) {
                     qx::Dictionary grant{{"providerIdentifier", provider},
                                          {"itemIdentifier", item},
                                          {"consumerIdentifier", consumer}};
                     const auto& url = urls[places.at({provider, item})];
                     if (url && *url) grant.emplace("URL", **url);
                     listing.emplace_back(std::move(grant));
                   }
                   answerEarly(completion, std::nullopt, std::move(listing));
                 });
}

void DSGrantsServicer::revokeItemWithID_ofProviderID_forConsumerID_completion(
    const std::optional<std::string>& itemID, const std::optional<std::string>& providerID,
    const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  std::optional<qx::Error> error;
  const auto store = accessControlStore();
  if (!clientHasOneOfAllowedEntitlements(dsWriteEntitlements)) {
    error = DSClientLacksEntitlement(std::nullopt);
  } else if (!providerID) {
    error = DSInvalidParameterError("providerID", std::nullopt);
  } else if (!consumerID) {
    error = DSInvalidParameterError("consumerID", std::nullopt);
  } else if (!store) {
    error = DSNotPermittedError();
  }
  if (error) {
    answerEarly(std::move(completion), error);
    return;
  }

  dsRevoke(store, {*providerID, itemID, *consumerID},
           [completion = std::move(completion)](const std::optional<qx::Error>& failure) {
             answerEarly(completion, failure);
           });
}
