#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/URL.h"
#include "platform/base/Value.h"
#include "platform/conduit/QXConduitConnection.h"
#include "servicer/DSDaemon.h"

class DSAccessControlStore;
class DSExtensionDocSource;

/// Where a servicer finds the daemon's access control store. What the daemon's server is to its
/// servicers.
class DSAccessControlStoreOwner {
 public:
  virtual ~DSAccessControlStoreOwner() = default;
  /// Null when the store is gone.
  virtual std::shared_ptr<DSAccessControlStore> accessControlStore() const = 0;
};

/// Carries out the client interface for one connection: vets the client, consults the access
/// control store, and asks the providers.
///
/// The connection owns its servicer; the servicer holds server and connection weakly, and what it
/// cannot reach any more it treats as having nothing: no entitlement, no grant.
///
/// Operations run on the thread on which the connection delivers them. Early answers are given
/// from the global queue, later ones there too or on whatever thread the provider instance calls
/// back on.
///
/// The source files are named after the concerns: client vetting, sandbox grant, item requests,
/// bookmarkable strings, provider listing.
class DSConduitServicer final : public DSDaemon,
                                public std::enable_shared_from_this<DSConduitServicer> {
 public:
  std::shared_ptr<DSAccessControlStoreOwner> server() const { return server_.lock(); }
  void setServer(const std::shared_ptr<DSAccessControlStoreOwner>& server) { server_ = server; }
  std::shared_ptr<QXConduitConnection> connection() const { return connection_.lock(); }
  void setConnection(const std::shared_ptr<QXConduitConnection>& connection) {
    connection_ = connection;
  }

  /// Whether the client holds one of the entitlements: a number whose boolean value is true.
  bool clientHasOneOfAllowedEntitlements(const std::vector<std::string>& names) const;
  /// Whether the client's own sandbox lets it write the file.
  bool clientHasSandboxAccessToFile(const std::optional<qx::URL>& url) const;

  // DSDaemon
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
  /// The server's store, or null.
  std::shared_ptr<DSAccessControlStore> accessControlStore() const;
  /// The client's audit token; nobody's when the connection is gone.
  qx::AuditToken clientAuditToken() const;
  std::optional<std::string> clientBundleIdentifier() const;
  void allow(const std::optional<std::string>& providerID, const std::optional<std::string>& itemID,
             const std::optional<std::string>& consumerID) const;
  bool isAllowed(const std::optional<std::string>& providerID,
                 const std::optional<std::string>& itemID,
                 const std::optional<std::string>& consumerID) const;

  using ItemIDReply = qx::Completion<qx::Error, std::string>;
  /// Asks the provider for the item's identifier. The answer is taken further on the global queue:
  /// what waits for the list or the disk then must not hold up the thread that reads what the
  /// provider answers to others.
  static void lookUpItemID(const std::shared_ptr<DSExtensionDocSource>& provider,
                           const std::optional<qx::URL>& url, ItemIDReply reply);

  using ItemOperation = void (DSExtensionDocSource::*)(const std::optional<qx::URL>& url,
                                                       qx::Completion<qx::Error> completion);
  /// Asks the provider for the item's identifier, and then for the operation when the consumer was
  /// granted the item.
  void forwardIfGranted(ItemOperation operation,
                        const std::shared_ptr<DSExtensionDocSource>& provider,
                        const std::optional<qx::URL>& url,
                        const std::optional<std::string>& providerID,
                        const std::optional<std::string>& consumerID,
                        qx::Completion<qx::Error> completion);

  std::weak_ptr<DSAccessControlStoreOwner> server_;
  std::weak_ptr<QXConduitConnection> connection_;
};

/// The entitlements, and the lists in which the operations accept them.
extern const std::vector<std::string> dsReadOrWriteEntitlements;
extern const std::vector<std::string> dsWriteEntitlements;

/// The file of the same name with a "." in front, beside the document. Made from the URL's text,
/// so that what is escaped stays escaped; absent when the result is no URL.
std::optional<qx::URL> hiddenSiblingURLForURL(const qx::URL& url);

/// Tokens for a document and its hidden sibling, read-write. Each out place may be null; each token
/// may be absent on success. Always true, and never writes the error.
bool issueSandboxExtensionsForURL(const std::optional<qx::URL>& url,
                                  std::optional<qx::Bytes>* outToken,
                                  std::optional<qx::URL>* outSiblingURL,
                                  std::optional<qx::Bytes>* outSiblingToken,
                                  std::optional<qx::Error>* outError);
