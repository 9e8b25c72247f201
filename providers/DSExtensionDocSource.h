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

/// One installed provider extension and, in the static members, the registry of them all.
///
/// An instance knows its extension, its identifier and its provided-items directory, talks to the
/// extension, and answers the file-coordination service. The registry makes it when the extension
/// appears, and replaces it, instead of changing it, when the extension changes. The registry owns
/// the instances; requests under way keep theirs alive.
///
/// Everything may be called from any thread, with two exceptions: a block that runs on the registry
/// queue makes no look-up of the registry, and a block that runs on the instance's member queue
/// reads no guarded property. Each would wait for itself. Only look-ups block, and only while a
/// refresh changes the table.
///
/// The source files are named after the concerns: registry, URL resolution, instance, extension
/// requests, coordinator registration, item operations, coordinator callbacks.
class DSExtensionDocSource final : public QXDocSource,
                                   public std::enable_shared_from_this<DSExtensionDocSource> {
 public:
  using Callback = std::function<void()>;

  // The registry.

  /// The first call begins to discover the installed extensions, and calls back when those that
  /// were found first are registered with the file-coordination service. Every later call is
  /// answered at once. The completion may be absent.
  static void createInstancesCompletion(Callback completion);

  /// Registers the instances one after another. A failure is logged, and the next instance follows.
  static void refreshOperationsQueueRegisterProviders_completion(
      std::vector<std::shared_ptr<DSExtensionDocSource>> providers, Callback completion);

  /// Returns the instance with that identifier, or null.
  static std::shared_ptr<DSExtensionDocSource> providerWithIdentifier(
      const std::optional<std::string>& identifier);

  /// Returns for each identifier a dictionary with "documentStorageURL" and "providerIdentifier";
  /// it is empty for an instance without a provided-items directory.
  static qx::Dictionary providersInfo();

  /// Returns the instance whose provided-items directory holds the item, or null. `outExcludedURL`,
  /// when given, receives whether the URL is such a directory itself.
  static std::shared_ptr<DSExtensionDocSource> providerForURL_outExcludedURL(
      const std::optional<qx::URL>& url, bool* outExcludedURL);
  static std::shared_ptr<DSExtensionDocSource> providerForURL(const std::optional<qx::URL>& url);

  /// Kept weakly; nothing reads it.
  static void setDocSourceAccessControl(const std::shared_ptr<DSAccessControl>& accessControl);

  // The instance.

  static std::shared_ptr<DSExtensionDocSource> initWithExtension(
      const std::shared_ptr<QXExtension>& extension);

  /// The guarded properties. They are read synchronously through the member queue, and written in a
  /// barrier for which the setter does not wait. A read that follows a write on one thread sees the
  /// write.
  std::shared_ptr<QXExtension> extension() const;
  void setExtension(std::shared_ptr<QXExtension> extension);
  /// Returns the extension's own identifier when the member is absent.
  std::optional<std::string> identifier() const;
  void setIdentifier(std::optional<std::string> identifier);
  std::optional<qx::URL> providedItemsURL() const;
  void setProvidedItemsURL(std::optional<qx::URL> url);

  /// The members themselves, without any locking: for code on the member queue, and for the
  /// constructor.
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

  /// Receives the proxy of a request, or the error; and the done callback, which ends the request
  /// and must be called once, when the proxy is not needed any more. It is called a second time,
  /// with the error and no proxy, when a call of the proxy fails.
  using RequestCallback =
      std::function<void(const std::optional<qx::Error>& error,
                         const std::shared_ptr<_QXDocSourceVendor>& proxy, const Callback& done)>;

  /// Opens a request to the extension, and returns at once. The callback runs on a thread of the
  /// extension host or of the connection.
  void performExtensionRequest(RequestCallback callback);

  /// Returns the proxy of an open request, or null. The handler, which may be absent, gets the
  /// error of each call of the proxy that fails.
  std::shared_ptr<_QXDocSourceVendor> proxyForIdentifier_errorHandler(
      const std::optional<qx::UUID>& request,
      std::function<void(const qx::Error& error)> errorHandler);

  // Registration with the file-coordination service.

  /// Has the extension set itself up and adds the instance to the file coordinator, in up to
  /// `count` attempts, two seconds apart. The completion, which may be absent, is called once, from
  /// a background thread.
  void registerWithFileCoordinatorRetryCount_completion(std::int32_t count,
                                                        qx::Completion<qx::Error> completion);
  void retryRegisterWithFileCoordinatorRetryCount_lastError_completion(
      std::int32_t count, const qx::Error& lastError, qx::Completion<qx::Error> completion);
  /// Makes one attempt.
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
