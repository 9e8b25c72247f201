// Bookmarkable strings: "docsource:", the provider's identifier, "/", the item's identifier as it
// stands. Nothing is escaped; the first "/" ends the provider's identifier.

#include <string_view>
#include <utility>

#include "acl/DSAccessControlStore.h"
#include "platform/files/ItemGuard.h"
#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"

namespace {

constexpr std::string_view bookmarkPrefix = "docsource:";

std::string bookmarkableString(const std::optional<std::string>& providerID,
                               const std::optional<std::string>& itemID) {
  return std::string(bookmarkPrefix) + qx::logText(providerID) + "/" + qx::logText(itemID);
}

struct Bookmark {
  std::string providerID;
  std::string itemID;
};

/// The two parts of a bookmarkable string. The item's identifier may hold "/", but not begin with
/// it: the second component must not be empty.
std::optional<Bookmark> parseBookmark(const std::optional<std::string>& string) {
  if (!string || !string->starts_with(bookmarkPrefix)) return std::nullopt;
  const std::string_view rest = std::string_view(*string).substr(bookmarkPrefix.size());
  const std::size_t separator = rest.find('/');
  if (separator == std::string_view::npos || separator == 0) return std::nullopt;
  const std::string_view item = rest.substr(separator + 1);
  if (item.empty() || item.front() == '/') return std::nullopt;
  return Bookmark{std::string(rest.substr(0, separator)), std::string(item)};
}

void logExtendBookmarkFailure(const std::optional<qx::URL>& url,
                              const std::optional<std::string>& clientID,
                              const std::optional<std::string>& consumerID,
                              const qx::Error& error) {
  DS_LOG(
      "[ERROR] Could not extend bookmark privileges for URL %@ from bundle %@ to consumer ID %@, "
      "error: %@",
      url, clientID, consumerID, error);
}

/// An extension that is permitted and waits for the provider to say which item it is about.
struct BookmarkExtension {
  std::optional<qx::URL> url;
  std::optional<std::string> clientID;
  std::optional<std::string> consumerID;
  std::shared_ptr<DSExtensionDocSource> provider;
  std::shared_ptr<qx::ItemGuard> guard;
  std::shared_ptr<DSAccessControlStore> store;  // null, like the next, when there is none any more
  std::shared_ptr<const DSAccessControlStore::Moment> began;

  void finish(const std::optional<std::string>& itemID, const std::optional<qx::URL>& itemURL,
              const qx::Completion<std::string, qx::Error>& completion) const {
    const auto providerID = provider->identifier();
    const bool isThatFile = guard->isAlso(itemURL) && guard->isUntouched();
    if (!isThatFile ||
        (store && !store->allowUnlessRevokedSince(*began, providerID, itemID, consumerID))) {
      const auto error = DSNotPermittedError();
      logExtendBookmarkFailure(url, clientID, consumerID, error);
      if (completion) completion(std::nullopt, error);
      return;
    }
    showInSandboxes(consumerID, itemURL, [&] {
      return !store || !store->wasRevokedSince(*began, providerID, itemID, consumerID);
    });
    const auto string = bookmarkableString(providerID, itemID);
    DS_LOG("[DEBUG] Successfully generated bookmarkable string “%@” from URL %@.", string, url);
    completion(string, std::nullopt);
  }
};

}  // namespace

void DSConduitServicer::extendBookmarkForFileURL_toConsumerID_completionHandler(
    const std::optional<qx::URL>& url, const std::optional<std::string>& consumerID,
    qx::Completion<std::string, qx::Error> completion) {
  const auto clientID = clientBundleIdentifier();
  DS_LOG("[DEBUG] Extending bookmark privileges for URL: “%@” from bundle %@ to %@.", url, clientID,
         consumerID);
  std::optional<qx::Error> error;
  if (!consumerID || !clientID) error = DSNotPermittedError();
  if (!clientHasSandboxAccessToFile(url)) error = DSNotPermittedError();
  std::shared_ptr<DSExtensionDocSource> provider;
  if (!error) {
    provider = DSExtensionDocSource::providerForURL(url);
    if (!provider) error = DSNotFoundErrorURL(url);
  }
  // The grant is to be for the file that the client may write, whatever happens to its name while
  // the provider is asked. So the file is held before the client's access is looked at (again).
  std::shared_ptr<qx::ItemGuard> guard;
  if (!error) {
    guard = qx::ItemGuard::hold(provider->providedItemsURL(), url);
    if (!guard || !clientHasSandboxAccessToFile(guard->url())) error = DSNotPermittedError();
  }
  if (error) {
    logExtendBookmarkFailure(url, clientID, consumerID, *error);
    answerEarly(std::move(completion), std::nullopt, error);
    return;
  }

  const auto store = accessControlStore();
  const BookmarkExtension extension{
      url, clientID, consumerID, provider, guard, store, store ? store->moment() : nullptr};
  provider->itemIDForURL_completionHandler(
      guard->url(),
      [completion = std::move(completion), extension](const std::optional<qx::Error>& lookupError,
                                                      const std::optional<std::string>& itemID) {
        if (lookupError) {
          if (completion) completion(std::nullopt, DSPluginOperationFailedError(lookupError));
          return;
        }
        // The provider's word is not enough: the item's own URL must lead to the file that was
        // held.
        extension.provider->URLForItemID_completionHandler(
            itemID, [completion, extension, itemID](const std::optional<qx::Error>& urlError,
                                                    const std::optional<qx::URL>& itemURL) {
              if (urlError) {
                if (completion) completion(std::nullopt, DSPluginOperationFailedError(urlError));
                return;
              }
              extension.finish(itemID, itemURL, completion);
            });
      });
}

void DSConduitServicer::bookmarkableStringFromDocumentURL_completion(
    const std::optional<qx::URL>& url, qx::Completion<std::string, qx::Error> completion) {
  DS_LOG("[DEBUG] Getting bookmarkable string for URL %@", url);
  const auto provider = DSExtensionDocSource::providerForURL(url);
  if (!provider) {
    DS_LOG("[INFO] Could not find the provider for URL %@", url);
    answerEarly(std::move(completion), std::nullopt, std::nullopt);
    return;
  }
  provider->itemIDForURL_completionHandler(url, [completion = std::move(completion), provider, url](
                                                    const std::optional<qx::Error>& error,
                                                    const std::optional<std::string>& itemID) {
    if (error) {
      if (completion) completion(std::nullopt, error);
    } else if (itemID) {
      const auto string = bookmarkableString(provider->identifier(), itemID);
      DS_LOG("[DEBUG] Successfully generated bookmarkable string “%@” from URL %@.", string, url);
      if (completion) completion(string, std::nullopt);
    } else {
      DS_LOG("[ERROR] Could not get Item ID for URL %@.", url);
      if (completion) completion(std::nullopt, std::nullopt);
    }
  });
}

void DSConduitServicer::documentURLFromBookmarkableString_completion(
    const std::optional<std::string>& string,
    qx::Completion<qx::URL, qx::Bytes, qx::URL, qx::Bytes, qx::Error> completion) {
  DS_LOG("[DEBUG] Getting URL from bookmarkable string: “%@”.", string);
  const auto refuse = [&completion](const qx::Error& error) {
    answerEarly(std::move(completion), std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                error);
  };
  const auto clientID = clientBundleIdentifier();
  if (!clientID) {
    refuse(DSNotPermittedError());
    return;
  }
  const auto bookmark = parseBookmark(string);
  if (!bookmark) {
    refuse(DSInvalidBookmarkableStringError());
    return;
  }
  const auto& [providerID, itemID] = *bookmark;
  const auto isGranted = [providerID = providerID, itemID = itemID, clientID] {
    return DSAccessControlStore::sharedStore()
        ->isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(providerID, itemID,
                                                                               clientID);
  };
  if (!isGranted()) {
    DS_LOG("[ERROR] Provider ID %@ is not allowed to provide item ID “%@” to consumer ID %@",
           providerID, itemID, clientID);
    refuse(DSNotPermittedError());
    return;
  }
  const auto provider = DSExtensionDocSource::providerWithIdentifier(providerID);
  // Without the provider there is no answer: the string may be good when the provider is installed
  // again.
  if (!provider) return;

  provider->URLForItemID_completionHandler(
      itemID, [completion = std::move(completion), providerID = providerID, clientID, isGranted](
                  const std::optional<qx::Error>& lookupError, const std::optional<qx::URL>& url) {
        const auto fail = [&completion](const std::optional<qx::Error>& failure) {
          if (completion) {
            completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt, failure);
          }
        };
        if (lookupError) return fail(DSSandboxExtensionFailedError(url));
        std::optional<qx::Bytes> token;
        std::optional<qx::URL> siblingURL;
        std::optional<qx::Bytes> siblingToken;
        std::optional<qx::Error> issueError;
        const bool isIssued =
            issueSandboxExtensionsForURL(url, &token, &siblingURL, &siblingToken, &issueError);
        showInSandboxes(clientID, url, isGranted);
        // Tokens that are issued after the grant was taken back would redeem.
        if (!isGranted()) return fail(DSNotPermittedError());
        if (isIssued) {
          DS_LOG(
              "[INFO] Successfully extended sandbox of URL %@ from provider ID %@ to consumer ID "
              "%@.",
              url, providerID, clientID);
          if (completion) completion(url, token, siblingURL, siblingToken, std::nullopt);
        } else {
          DS_LOG(
              "[ERROR] Failed to extend sandbox of URL %@ from provider ID %@ to consumer ID %@. "
              "Error: %@",
              url, providerID, clientID, issueError);
          fail(issueError);
        }
      });
}
