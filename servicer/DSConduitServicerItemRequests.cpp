// Requests of an entitled client that a provider act on one of its documents for a consumer: put a
// placeholder, start providing, stop providing.
//
// The three look alike. Placeholder finds the provider by its identifier and answers an early error
// as it is. Start and stop find it by the URL and answer every early error as "not found"; the log
// has the precise error. Stop needs no grant.

#include <utility>

#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"

namespace {

using Provider = std::shared_ptr<DSExtensionDocSource>;

/// The arguments that the three operations share.
struct ItemRequest {
  std::optional<qx::URL> url;
  std::optional<std::string> providerID;
  std::optional<std::string> consumerID;

  std::optional<qx::Error> missingArgument() const {
    if (!url) return DSInvalidParameterError("URL", std::nullopt);
    if (!providerID) return DSInvalidParameterError("providerID", std::nullopt);
    if (!consumerID) return DSInvalidParameterError("consumerID", std::nullopt);
    return std::nullopt;
  }
};

qx::Result<Provider> providerNamedBy(const ItemRequest& request) {
  if (auto missing = request.missingArgument()) return *missing;
  auto provider = DSExtensionDocSource::providerWithIdentifier(request.providerID);
  if (!provider) return DSNotFoundError(request.providerID);
  return provider;
}

/// Returns the provider that owns the URL, which must be the one that was named; when it is not,
/// `mismatchValue` is the value of the error.
qx::Result<Provider> providerOwningURLOf(const ItemRequest& request,
                                         const std::optional<std::string>& mismatchValue) {
  if (auto missing = request.missingArgument()) return *missing;
  auto provider = DSExtensionDocSource::providerForURL(request.url);
  if (!provider) return DSNotFoundError(request.providerID);
  if (provider->identifier() != request.providerID) {
    return DSInvalidParameterError("providerID", mismatchValue);
  }
  return provider;
}

}  // namespace

void DSConduitServicer::forwardIfGranted(ItemOperation operation,
                                         const std::shared_ptr<DSExtensionDocSource>& provider,
                                         const std::optional<qx::URL>& url,
                                         const std::optional<std::string>& providerID,
                                         const std::optional<std::string>& consumerID,
                                         qx::Completion<qx::Error> completion) {
  provider->itemIDForURL_completionHandler(
      url, [self = shared_from_this(), operation, provider, url, providerID, consumerID,
            completion = std::move(completion)](const std::optional<qx::Error>& error,
                                                const std::optional<std::string>& itemID) {
        if (error) {
          if (completion) completion(DSPluginOperationFailedError(error));
        } else if (self->isAllowed(providerID, itemID, consumerID)) {
          ((*provider).*operation)(url, completion);
        } else {
          DS_LOG(
              "[ERROR] Consumer ID %@ is not allowed to access item ID “%@” from provider ID %@.",
              consumerID, itemID, providerID);
          if (completion) completion(DSNotPermittedError());
        }
      });
}

void DSConduitServicer::
    providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler(
        const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
        const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  if (!clientHasOneOfAllowedEntitlements(dsReadOrWriteEntitlements)) {
    answerEarly(std::move(completion), DSClientLacksEntitlement(std::nullopt));
    return;
  }
  const ItemRequest request{url, providerID, consumerID};
  const auto provider = providerNamedBy(request);
  if (!provider) {
    DS_LOG(
        "[ERROR] Could not provide placeholder for URL %@ from provider ID %@ to consumer ID %@. "
        "Error: %@",
        url, providerID, consumerID, provider.error());
    answerEarly(std::move(completion), provider.error());
    return;
  }
  forwardIfGranted(&DSExtensionDocSource::providePlaceholderForItemAtURL_completionHandler,
                   *provider, url, providerID, consumerID, std::move(completion));
}

void DSConduitServicer::startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
    const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
    const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  if (!clientHasOneOfAllowedEntitlements(dsReadOrWriteEntitlements)) {
    answerEarly(std::move(completion), DSClientLacksEntitlement(std::nullopt));
    return;
  }
  const ItemRequest request{url, providerID, consumerID};
  const auto provider = providerOwningURLOf(request, providerID);
  if (!provider) {
    DS_LOG("[ERROR] Cannot provide item at URL %@ from provider ID %@ to consumer ID %@. Error: %@",
           url, providerID, consumerID, provider.error());
    answerEarly(std::move(completion), DSNotFoundError(providerID));
    return;
  }
  forwardIfGranted(&DSExtensionDocSource::startProvidingItemAtURL_completionHandler, *provider, url,
                   providerID, consumerID, std::move(completion));
}

void DSConduitServicer::stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
    const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
    const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  if (!clientHasOneOfAllowedEntitlements(dsReadOrWriteEntitlements)) {
    answerEarly(std::move(completion), DSClientLacksEntitlement(std::nullopt));
    return;
  }
  const auto provider = providerOwningURLOf({url, providerID, consumerID}, std::nullopt);
  if (!provider) {
    DS_LOG(
        "[ERROR] Could not stop providing item at URL %@ from provider ID %@ to consumer ID %@. "
        "Error: %@",
        url, providerID, consumerID, provider.error());
    answerEarly(std::move(completion), DSNotFoundError(providerID));
    return;
  }
  (*provider)->stopProvidingItemAtURL_completionHandler(
      url,
      [providerID, url, completion = std::move(completion)](const std::optional<qx::Error>& error) {
        if (error) {
          DS_LOG("[ERROR] Could not ask provider ID %@ to stop providing item at URL %@. Error: %@",
                 providerID, url, error);
        }
        if (completion) completion(DSPluginOperationFailedError(error));
      });
}
