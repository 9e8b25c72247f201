#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "acl/DSAccessControl.h"
#include "platform/base/Completion.h"
#include "platform/base/Value.h"
#include "platform/coordination/QXDocSource.h"
#include "platform/extension/QXExtension.h"
#include "platform/queue/WorkQueue.h"
#include "providers/_QXDocSourceVendor.h"

/// One installed provider extension, and, on the class side, the registry of them all.
///
/// An instance knows its extension, its identifier and its provided-items directory, talks to the
/// extension, and answers the file-coordination service. It is made by the registry when the
/// extension appears and replaced, not changed, when the extension changes. The registry owns the
/// instances; requests under way keep theirs.
///
/// Threads: everything may be called from any thread, except that no look-up of the registry may
/// be made from a block that runs on the registry queue, and no guarded property read from one
/// that runs on the instance's member queue: each would wait for itself. Nothing blocks but the
/// look-ups, and those only while a refresh changes the table.
///
/// The source files are named after the concerns: registry, URL resolution, instance, extension
/// requests, coordinator registration, item operations, coordinator callbacks.
class DSExtensionDocSource final : public QXDocSource,
                                   public std::enable_shared_from_this<DSExtensionDocSource> {
 public:
  using Callback = std::function<void()>;

  // The registry.

  /// Begins, on the first call, to discover the installed extensions, and calls back when those
  /// found first are registered with the file-coordination service. Every later call is answered
  /// at once. The completion may be absent.
  static void createInstancesCompletion(Callback completion);

  /// Registers the instances one after another; a failure is logged and the next one's turn comes.
  static void refreshOperationsQueueRegisterProviders_completion(
      std::vector<std::shared_ptr<DSExtensionDocSource>> providers, Callback completion);

  /// The instance with that identifier, or null.
  static std::shared_ptr<DSExtensionDocSource> providerWithIdentifier(
      const std::optional<std::string>& identifier);

  /// For each identifier a dictionary with "documentStorageURL" and "providerIdentifier"; an empty
  /// one for an instance without a provided-items directory.
  static qx::Dictionary providersInfo();

  /// The instance whose provided-items directory holds the item, or null. `outExcludedURL`, when
  /// given, receives whether the URL is such a directory itself.
  static std::shared_ptr<DSExtensionDocSource> providerForURL_outExcludedURL(
      const std::optional<qx::URL>& url, bool* outExcludedURL);
  static std::shared_ptr<DSExtensionDocSource> providerForURL(const std::optional<qx::URL>& url);

  /// Kept weakly; nothing reads it.
  static void setDocSourceAccessControl(const std::shared_ptr<DSAccessControl>& accessControl);

  // The instance.

  static std::shared_ptr<DSExtensionDocSource> initWithExtension(
      const std::shared_ptr<QXExtension>& extension);

  /// The guarded properties: read synchronously through the member queue, written as a barrier
  /// that the setter does not wait for; a read after a write on one thread sees the write.
  std::shared_ptr<QXExtension> extension() const;
  void setExtension(std::shared_ptr<QXExtension> extension);
  /// The extension's own identifier when the member is absent.
  std::optional<std::string> identifier() const;
  void setIdentifier(std::optional<std::string> identifier);
  std::optional<qx::URL> providedItemsURL() const;
  void setProvidedItemsURL(std::optional<qx::URL> url);

  /// The members themselves, without any locking: for code on the member queue, and for the
  /// initialiser.
  const std::shared_ptr<qx::OperationQueue>& operationQueue() const { return operationQueue_; }
  void setOperationQueue(std::shared_ptr<qx::OperationQueue> queue) {
    operationQueue_ = std::move(queue);
  }
  const std::shared_ptr<qx::WorkQueue>& memberQueue() const { return memberQueue_; }
  void setMemberQueue(std::shared_ptr<qx::WorkQueue> queue) { memberQueue_ = std::move(queue); }
  const std::optional<std::string>& memberQueueIdentifier() const { return memberQueueIdentifier_; }
  void setMemberQueueIdentifier(std::optional<std::string> identifier) {
    memberQueueIdentifier_ = std::move(identifier);
  }
  const std::shared_ptr<QXExtension>& memberQueueExtension() const { return memberQueueExtension_; }
  void setMemberQueueExtension(std::shared_ptr<QXExtension> extension) {
    memberQueueExtension_ = std::move(extension);
  }
  const std::optional<qx::URL>& memberQueueProvidedItemsURL() const {
    return memberQueueProvidedItemsURL_;
  }
  void setMemberQueueProvidedItemsURL(std::optional<qx::URL> url) {
    memberQueueProvidedItemsURL_ = std::move(url);
  }

  // Extension requests.

  /// Gets the proxy of a request, or the error; and the done callback, which ends the request and
  /// is to be called once, when the proxy is not needed any more. Called a second time, with the
  /// error and no proxy, when a call of the proxy fails.
  using RequestCallback =
      std::function<void(const std::optional<qx::Error>& error,
                         const std::shared_ptr<_QXDocSourceVendor>& proxy, const Callback& done)>;

  /// Opens a request to the extension. Returns at once; the callback runs on a thread of the
  /// extension host or of the connection.
  void performExtensionRequest(RequestCallback callback);

  /// The proxy of an open request, or null. The handler, which may be absent, gets the error of
  /// each call of the proxy that fails.
  std::shared_ptr<_QXDocSourceVendor> proxyForIdentifier_errorHandler(
      const std::optional<qx::UUID>& request,
      std::function<void(const qx::Error& error)> errorHandler);

  // Registration with the file-coordination service.

  /// Has the extension set itself up and adds the instance to the file coordinator: up to `count`
  /// attempts, two seconds apart. The completion, which may be absent, is called once, from a
  /// background thread.
  void registerWithFileCoordinatorRetryCount_completion(std::int32_t count,
                                                        qx::Completion<qx::Error> completion);
  void retryRegisterWithFileCoordinatorRetryCount_lastError_completion(
      std::int32_t count, const qx::Error& lastError, qx::Completion<qx::Error> completion);
  /// One attempt.
  void registerWithFileCoordinatorCompletion(qx::Completion<qx::Error> completion);
  void unregisterFromFileCoordinator();

  // Item operations, forwarded to the extension. Each returns at once; its completion, which may
  // be absent, is called once, on a thread of the extension's connection. Every error is one of
  // DSPluginOperationFailedError.

  void providePlaceholderForItemAtURL_completionHandler(const std::optional<qx::URL>& url,
                                                        qx::Completion<qx::Error> completion);
  void startProvidingItemAtURL_completionHandler(const std::optional<qx::URL>& url,
                                                 qx::Completion<qx::Error> completion);
  void stopProvidingItemAtURL_completionHandler(const std::optional<qx::URL>& url,
                                                qx::Completion<qx::Error> completion);
  void itemIDForURL_completionHandler(const std::optional<qx::URL>& url,
                                      qx::Completion<qx::Error, std::string> completion);
  void URLForItemID_completionHandler(const std::optional<std::string>& itemID,
                                      qx::Completion<qx::Error, qx::URL> completion);
  /// `heard`, where there is one, is called when the extension has answered.
  void itemChangedAtURL(const std::optional<qx::URL>& url, const std::function<void()>& heard = {});

  // QXDocSource: what the file-coordination service asks.

  std::optional<qx::URL> _providedItemsURL() override;
  std::shared_ptr<qx::OperationQueue> _providedItemsOperationQueue() override;
  std::optional<std::string> _fileReactorID() override;
  void _provideItemAtURL_completionHandler(const std::optional<qx::URL>& url,
                                           qx::Completion<qx::Error> completion) override;
  void _provideItemAtURL_toReaderWithID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& reader,
      qx::Completion<qx::Error> completion) override;
  void _readerOfItemAtURL_waitsForBytes(const std::optional<qx::URL>& url,
                                        const std::optional<qx::Array>& bytes) override;
  void _writerWithID_didFinishWritingForURL(const std::optional<std::string>& writer,
                                            const std::optional<qx::URL>& url) override;

 private:
  struct Registry;

  DSExtensionDocSource() = default;

  static Registry& registry();
  static void updateProviderList(std::vector<std::shared_ptr<QXExtension>> extensions);
  static void refresh(const std::vector<std::shared_ptr<QXExtension>>& extensions);
  static void refreshEnded();

  void attemptToRegister(std::int32_t count, const qx::Completion<qx::Error>& completion);

  /// The common shape of the item operations that answer.
  template <const auto& messages, class Subject, class... Values, class Send>
  void forward(const std::optional<Subject>& subject,
               qx::Completion<qx::Error, Values...> completion, Send send);

  std::shared_ptr<qx::OperationQueue> operationQueue_;
  std::shared_ptr<qx::WorkQueue> memberQueue_;
  std::optional<std::string> memberQueueIdentifier_;
  std::shared_ptr<QXExtension> memberQueueExtension_;
  std::optional<qx::URL> memberQueueProvidedItemsURL_;
};
