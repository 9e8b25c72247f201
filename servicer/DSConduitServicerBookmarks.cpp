// Bookmarkable strings: "docsource:", the provider's identifier, "/", the item's identifier as it
// stands. Nothing is escaped; the first "/" ends the provider's identifier.

#include <string_view>
#include <utility>

#include "acl/DSAccessControlStore.h"
#include "platform/files/FileManager.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"
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
  // What the client may write must be what the provider is asked about, although a link on the way
  // may lead elsewhere at each look: from here on it is the item under the provider's own name.
  std::optional<qx::URL> item;
  if (!error) {
    item = qx::FileManager::itemURLBelowDirectory(provider->providedItemsURL(), url);
    const bool isTheSame = item && item->absoluteString() == url->absoluteString();
    if (!item || (!isTheSame && !clientHasSandboxAccessToFile(item))) error = DSNotPermittedError();
  }
  if (error) {
    DS_LOG(
        "[ERROR] Could not extend bookmark privileges for URL %@ from bundle %@ to consumer ID %@, "
        "error: %@",
        url, clientID, consumerID, error);
    qx::answerFromGlobalQueue([completion = std::move(completion), error] {
      if (completion) completion(std::nullopt, error);
    });
    return;
  }

  lookUpItemID(
      provider, item,
      [completion = std::move(completion), self = shared_from_this(), provider, consumerID, url](
          const std::optional<qx::Error>& lookupError, const std::optional<std::string>& itemID) {
        if (lookupError) {
          if (completion) completion(std::nullopt, DSPluginOperationFailedError(lookupError));
          return;
        }
        self->allow(provider->identifier(), itemID, consumerID);
        const auto string = bookmarkableString(provider->identifier(), itemID);
        DS_LOG("[DEBUG] Successfully generated bookmarkable string “%@” from URL %@.", string, url);
        completion(string, std::nullopt);
      });
}

void DSConduitServicer::bookmarkableStringFromDocumentURL_completion(
    const std::optional<qx::URL>& url, qx::Completion<std::string, qx::Error> completion) {
  DS_LOG("[DEBUG] Getting bookmarkable string for URL %@", url);
  const auto provider = DSExtensionDocSource::providerForURL(url);
  if (!provider) {
    DS_LOG("[INFO] Could not find the provider for URL %@", url);
    if (!completion) return;
    qx::answerFromGlobalQueue(
        [completion = std::move(completion)] { completion(std::nullopt, std::nullopt); });
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
    if (!completion) return;
    qx::answerFromGlobalQueue([completion = std::move(completion), error] {
      completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt, error);
    });
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
  if (!DSAccessControlStore::sharedStore()
           ->isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
               providerID, itemID, clientID)) {
    DS_LOG("[ERROR] Provider ID %@ is not allowed to provide item ID “%@” to consumer ID %@",
           providerID, itemID, clientID);
    refuse(DSNotPermittedError());
    return;
  }
  const auto provider = DSExtensionDocSource::providerWithIdentifier(providerID);
  // No provider, no answer: the string may come true when the provider is installed again.
  if (!provider) return;

  provider->URLForItemID_completionHandler(
      itemID, [completion = std::move(completion), providerID = providerID, clientID](
                  const std::optional<qx::Error>& lookupError, const std::optional<qx::URL>& url) {
        if (lookupError) {
          if (completion) {
            completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                       DSSandboxExtensionFailedError(url));
          }
          return;
        }
        std::optional<qx::Bytes> token;
        std::optional<qx::URL> siblingURL;
        std::optional<qx::Bytes> siblingToken;
        std::optional<qx::Error> issueError;
        if (issueSandboxExtensionsForURL(url, &token, &siblingURL, &siblingToken, &issueError)) {
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
          if (completion) {
            completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt, issueError);
          }
        }
      });
}
