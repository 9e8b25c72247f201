#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/base/URL.h"
#include "platform/base/Value.h"
#include "servicer/DSDaemon.h"
#include "servicer/DSServicer.h"

class DSExtensionDocSource;

/// Carries out the client interface for one connection: vets the client, consults the access
/// control store, and asks the providers.
///
/// Operations run on the thread on which the connection delivers them. Early answers are given
/// from the global queue, later ones on whatever thread the provider instance calls back on.
///
/// The source files are named after the concerns: client vetting, sandbox grant, item requests,
/// bookmarkable strings, provider listing.
class DSConduitServicer final : public DSDaemon,
                                public DSServicer,
                                public std::enable_shared_from_this<DSConduitServicer> {
 public:
  /// Returns whether the client's own sandbox lets it write the file.
  bool clientHasSandboxAccessToFile(const std::optional<qx::URL>& url) const;

  // These operations are those of DSDaemon.
  void wakeUpCompletion(qx::Completion<> completion) override;
  void extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
      const std::optional<std::string>& consumerID,
      qx::Completion<qx::Error, qx::Bytes, qx::URL, qx::Bytes> completion) override;
  void providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
      const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) override;
  void startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
      const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) override;
  void stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& providerID,
      const std::optional<std::string>& consumerID, qx::Completion<qx::Error> completion) override;
  void providersCompletionHandler(qx::Completion<qx::Error, qx::Dictionary> completion) override;
  void extendBookmarkForFileURL_toConsumerID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& consumerID,
      qx::Completion<std::string, qx::Error> completion) override;
  void bookmarkableStringFromDocumentURL_completion(
      const std::optional<qx::URL>& url,
      qx::Completion<std::string, qx::Error> completion) override;
  void documentURLFromBookmarkableString_completion(
      const std::optional<std::string>& string,
      qx::Completion<qx::URL, qx::Bytes, qx::URL, qx::Bytes, qx::Error> completion) override;

 private:
  std::optional<std::string> clientBundleIdentifier() const;
  bool isAllowed(const std::optional<std::string>& providerID,
                 const std::optional<std::string>& itemID,
                 const std::optional<std::string>& consumerID) const;

  using ItemOperation = void (DSExtensionDocSource::*)(const std::optional<qx::URL>& url,
                                                       qx::Completion<qx::Error> completion);
  /// Asks the provider for the item's identifier and, when the consumer was granted that item, for
  /// the operation.
  void forwardIfGranted(ItemOperation operation,
                        const std::shared_ptr<DSExtensionDocSource>& provider,
                        const std::optional<qx::URL>& url,
                        const std::optional<std::string>& providerID,
                        const std::optional<std::string>& consumerID,
                        qx::Completion<qx::Error> completion);
};

/// Returns the URL of the file of the same name with a "." in front, beside the document. It is
/// made from the URL's text, so that what is escaped stays escaped; absent when the result is no
/// URL.
std::optional<qx::URL> hiddenSiblingURLForURL(const qx::URL& url);

/// Issues tokens for a document and its hidden sibling, for reading and writing. Each out place may
/// be null, and each token may be absent on success. Always returns true, and never writes the
/// error.
bool issueSandboxExtensionsForURL(const std::optional<qx::URL>& url,
                                  std::optional<qx::Bytes>* outToken,
                                  std::optional<qx::URL>* outSiblingURL,
                                  std::optional<qx::Bytes>* outSiblingToken,
                                  std::optional<qx::Error>* outError);

/// Shows a granted document in the sandboxes of the consumer, and takes it out of them again when
/// `isGranted` does not hold any more after that. When the document cannot be shown that is logged;
/// the tokens are good all the same. Blocks on the disk.
void showInSandboxes(const std::optional<std::string>& consumerID,
                     const std::optional<qx::URL>& url, const std::function<bool()>& isGranted);

/// Takes back every token that was issued for a document or its hidden sibling. Blocks on the disk.
std::optional<qx::Error> takeBackSandboxExtensionsForURL(const qx::URL& url);
