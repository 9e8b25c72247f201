// Access to one document for a consumer: the grant, and the tokens that open the consumer's sandbox
// to the document and its hidden sibling.

#include <string_view>
#include <utility>

#include "acl/DSAccessControlStore.h"
#include "platform/log/Log.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/views/DocumentViews.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"

namespace {

std::optional<std::string> pathOf(const std::optional<qx::URL>& url) {
  return url ? url->path() : std::nullopt;
}

/// Whether the path is that of the hidden file beside the document. The URL of a sibling is made
/// from text: where the last component holds an escaped "/", it may lead to another folder.
bool isHiddenBeside(const std::optional<std::string>& sibling, std::string_view document) {
  while (document.ends_with('/')) document.remove_suffix(1);
  const std::size_t separator = document.rfind('/');
  if (!sibling || separator == std::string_view::npos) return false;
  std::string expected(document);
  return *sibling == expected.insert(separator + 1, 1, '.');
}

std::optional<qx::Bytes> issueToken(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  const auto token = SandboxIssueFileExtension(qx::sandboxExtensionReadWrite, *path, 0);
  if (!token) return std::nullopt;
  return qx::Bytes(token->begin(), token->end());
}

}  // namespace

void DSConduitServicer::extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
    const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
    const std::optional<std::string>& consumerID,
    qx::Completion<qx::Error, qx::Bytes, qx::URL, qx::Bytes> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  const auto refuse = [&completion](const qx::Error& error) {
    answerEarly(std::move(completion), error, std::nullopt, std::nullopt, std::nullopt);
  };
  if (!clientHasOneOfAllowedEntitlements(dsWriteEntitlements)) {
    refuse(DSClientLacksEntitlement(std::nullopt));
    return;
  }

  std::optional<qx::Error> error;
  std::shared_ptr<DSExtensionDocSource> provider;
  if (!url) {
    error = DSInvalidParameterError("URL", std::nullopt);
  } else if (!providerID) {
    error = DSInvalidParameterError("providerID", std::nullopt);
  } else if (!consumerID) {
    error = DSInvalidParameterError("consumerID", std::nullopt);
  } else {
    provider = DSExtensionDocSource::providerWithIdentifier(providerID);
    if (!provider) error = DSNotFoundError(providerID);
  }
  if (error) {
    DS_LOG(
        "[ERROR] Could not extend sandbox for URL %@ from provider ID %@ to consumer ID %@, error: "
        "%@",
        url, providerID, consumerID, error);
    refuse(*error);
    return;
  }

  const auto store = accessControlStore();
  provider->itemIDForURL_completionHandler(
      url, [completion = std::move(completion), providerID, consumerID, url, store,
            began = store ? store->moment() : nullptr](const std::optional<qx::Error>& lookupError,
                                                       const std::optional<std::string>& itemID) {
        const auto fail = [&completion](const std::optional<qx::Error>& failure) {
          if (completion) completion(failure, std::nullopt, std::nullopt, std::nullopt);
        };
        const auto wasRevoked = [&] {
          return store && store->wasRevokedSince(*began, providerID, itemID, consumerID);
        };
        if (lookupError) return fail(DSPluginOperationFailedError(lookupError));
        if (store) store->allowUnlessRevokedSince(*began, providerID, itemID, consumerID);
        std::optional<qx::Bytes> token;
        std::optional<qx::URL> siblingURL;
        std::optional<qx::Bytes> siblingToken;
        std::optional<qx::Error> issueError;
        const bool isIssued =
            issueSandboxExtensionsForURL(url, &token, &siblingURL, &siblingToken, &issueError);
        showInSandboxes(consumerID, url, [&] { return !wasRevoked(); });
        // Tokens that are issued after those of the document were taken back would redeem.
        if (wasRevoked()) return fail(DSNotPermittedError());
        if (isIssued) {
          DS_LOG(
              "[INFO] Successfully extended sandbox for URL %@ from provider ID %@ to consumer ID "
              "%@.",
              url, providerID, consumerID);
          if (completion) completion(std::nullopt, token, siblingURL, siblingToken);
        } else {
          DS_LOG(
              "[ERROR] Failed to extend sandbox for URL %@ from provider ID %@ to consumer ID %@.",
              url, providerID, consumerID);
          fail(DSSandboxExtensionFailedError(url));
        }
      });
}

std::optional<qx::URL> hiddenSiblingURLForURL(const qx::URL& url) {
  std::string_view text = url.absoluteString();
  while (text.size() > 1 && text.ends_with('/')) text.remove_suffix(1);
  const std::size_t separator = text.rfind('/');
  const std::size_t nameStart = separator == std::string_view::npos ? 0 : separator + 1;
  std::string sibling(text.substr(0, nameStart));
  sibling += '.';
  sibling += text.substr(nameStart);
  return qx::URL::parse(sibling);
}

void showInSandboxes(const std::optional<std::string>& consumerID,
                     const std::optional<qx::URL>& url, const std::function<bool()>& isGranted) {
  if (!consumerID || !url) return;
  const auto failure = qx::DocumentViews::show(*consumerID, *url);
  // A document that was taken back meanwhile may have been shown after it was taken out.
  const auto left = isGranted() ? std::nullopt : qx::DocumentViews::hide(*consumerID, *url);
  for (const auto& error : {failure, left}) {
    if (!error) continue;
    DS_LOG("[ERROR] What the sandboxes of %@ show of URL %@ is not right. Error: %@", consumerID,
           url, *error);
  }
}

std::optional<qx::Error> takeBackSandboxExtensionsForURL(const qx::URL& url) {
  const auto path = url.path();
  if (!path) return std::nullopt;
  if (auto error = SandboxTakeBackFileExtensions(*path)) return error;
  const auto sibling = pathOf(hiddenSiblingURLForURL(url));
  return isHiddenBeside(sibling, *path) ? SandboxTakeBackFileExtensions(*sibling) : std::nullopt;
}

bool issueSandboxExtensionsForURL(const std::optional<qx::URL>& url,
                                  std::optional<qx::Bytes>* outToken,
                                  std::optional<qx::URL>* outSiblingURL,
                                  std::optional<qx::Bytes>* outSiblingToken,
                                  std::optional<qx::Error>* /*outError*/) {
  const auto siblingURL = url ? hiddenSiblingURLForURL(*url) : std::nullopt;
  const auto path = pathOf(url);
  const auto siblingPath = pathOf(siblingURL);
  auto token = issueToken(path);
  std::optional<qx::Bytes> siblingToken;
  if (path && isHiddenBeside(siblingPath, *path)) siblingToken = issueToken(siblingPath);
  if (outToken) *outToken = std::move(token);
  if (outSiblingURL) *outSiblingURL = siblingURL;
  if (outSiblingToken) *outSiblingToken = std::move(siblingToken);
  return true;
}
