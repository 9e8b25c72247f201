#include "platform/platformd/FileCoordinationService.h"

#include <cerrno>
#include <filesystem>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/identity/Bundles.h"
#include "platform/platformd/kernel/CooperativeGuard.h"
#include "platform/sandbox/Sandbox.h"

namespace {

/// The doc sources' side of a connection.
class ConnectionHost final : public DocSourceHost {
 public:
  explicit ConnectionHost(const std::shared_ptr<QXConduitConnection>& connection)
      : connection_(connection), process_(connection->auditToken()) {}

  void provideItem(const std::string& docSource, const qx::URL& url, const std::string& readerID,
                   qx::Completion<qx::Error> completion) override {
    auto answer = qx::once(std::move(completion));
    auto connection = connection_.lock();
    if (!connection) {
      answer(qx::conduitError(qx::ConduitErrorCode::connectionLost,
                              "The provider's connection was lost."));
      return;
    }
    connection
        ->remoteObjectProxyWithErrorHandler<QXFileCoordinationHost>(
            [answer](const qx::Error& error) { answer(error); })
        ->docSource_provideItemAtURL_toReaderWithID_completionHandler(docSource, url, readerID,
                                                                      answer);
  }

  void writerDidFinish(const std::string& docSource, const std::string& writerID,
                       const qx::URL& url) override {
    auto connection = connection_.lock();
    if (!connection) return;
    connection->remoteObjectProxyWithErrorHandler<QXFileCoordinationHost>({})
        ->docSource_writerWithID_didFinishWritingForURL_completionHandler(docSource, writerID, url,
                                                                          {});
  }

  qx::AuditToken process() const override { return process_; }
  bool isLost() const override {
    auto connection = connection_.lock();
    return !connection || connection->isInvalid();
  }

 private:
  const std::weak_ptr<QXConduitConnection> connection_;
  const qx::AuditToken process_;
};

/// 0, or the errno that keeps the process from the item.
int accessCheck(const qx::AuditToken& process, std::string_view operation,
                const std::string& path) {
  const auto check = [&](const std::string& checked) {
    return SandboxCheckByAuditToken(process, operation, qx::SandboxFilter::path,
                                    qx::sandboxCheckNoReport, checked);
  };
  const int errnum = check(path);
  // A placeholder that nobody guards has no permissions: its owner may have it provided.
  if (errnum == EACCES && qx::kernel::isHiddenFile(path, process.effectiveUser())) return 0;
  if (errnum != ENOENT) return errnum;
  const auto parent = std::filesystem::path(path).parent_path();
  return check(parent.string()) == 0 ? 0 : ENOENT;
}

/// What one connection's peer may do.
class FileCoordinationClient final : public QXFileCoordination {
 public:
  FileCoordinationClient(std::weak_ptr<QXConduitConnection> connection,
                         std::shared_ptr<DocSourceRegistry> registry,
                         std::shared_ptr<DocSourceHost> host)
      : connection_(std::move(connection)),
        registry_(std::move(registry)),
        host_(std::move(host)) {}

  void addDocSource_providedItemsURL_completion(const std::optional<std::string>& identifier,
                                                const std::optional<qx::URL>& providedItemsURL,
                                                qx::Completion<qx::Error> completion) override {
    auto connection = connection_.lock();
    if (!connection) return;
    const auto entitlement = connection->valueForEntitlement(fileCoordinationHostEntitlement);
    if (!entitlement || !entitlement->numberAsBool().value_or(false)) {
      completion(DSClientLacksEntitlement(fileCoordinationHostEntitlement));
    } else if (!identifier) {
      completion(DSInvalidParameterError("identifier", std::nullopt));
    } else if (!providedItemsURL || !providedItemsURL->path()) {
      completion(invalidURL(providedItemsURL));
    } else {
      registry_->add(*identifier, *providedItemsURL, host_, [completion] { completion({}); });
      // A connection that ended meanwhile has had its doc sources forgotten before this one came.
      if (connection->isInvalid()) registry_->forget(host_);
    }
  }

  void removeDocSource_completion(const std::optional<std::string>& identifier,
                                  qx::Completion<qx::Error> completion) override {
    if (!identifier) {
      completion(DSInvalidParameterError("identifier", std::nullopt));
    } else {
      completion(registry_->remove(*identifier, host_));
    }
  }

  void coordinateReadingItemAtURL_completion(const std::optional<qx::URL>& url,
                                             qx::Completion<qx::Error> completion) override {
    auto connection = connection_.lock();
    if (!connection) return;
    if (auto error = refusal(*connection, "file-read-data", url)) {
      // What is nowhere has nobody to bring it in.
      const bool isNowhere = error->is(QXStandardErrorDomain, qx::fileNoSuchFileError);
      completion(isNowhere && !registry_->owns(*url) ? std::nullopt : error);
    } else {
      registry_->provide(*url, identifierOf(*connection), std::move(completion));
    }
  }

  void didFinishWritingItemAtURL_completion(const std::optional<qx::URL>& url,
                                            qx::Completion<qx::Error> completion) override {
    auto connection = connection_.lock();
    if (!connection) return;
    if (auto error = refusal(*connection, "file-write-data", url)) {
      completion(*error);
    } else {
      registry_->didFinishWriting(*url, identifierOf(*connection));
      completion(std::nullopt);
    }
  }

 private:
  static qx::Error invalidURL(const std::optional<qx::URL>& url) {
    return DSInvalidParameterError("URL",
                                   url ? std::optional(url->absoluteString()) : std::nullopt);
  }

  /// Why the peer may not do this to the item; absent when it may.
  static std::optional<qx::Error> refusal(const QXConduitConnection& connection,
                                          std::string_view operation,
                                          const std::optional<qx::URL>& url) {
    const auto path = url ? url->path() : std::nullopt;
    if (!path) return invalidURL(url);
    const int errnum = accessCheck(connection.auditToken(), operation, *path);
    return errnum == 0 ? std::nullopt : std::optional(qx::fileError(errnum, url));
  }

  /// The name under which the doc source hears of the peer.
  static std::string identifierOf(const QXConduitConnection& connection) {
    auto bundle = BundleIdentifierFromAuditToken(connection.auditToken());
    return bundle ? *bundle : "pid:" + std::to_string(connection.processIdentifier());
  }

  const std::weak_ptr<QXConduitConnection> connection_;
  const std::shared_ptr<DocSourceRegistry> registry_;
  const std::shared_ptr<DocSourceHost> host_;
};

}  // namespace

std::shared_ptr<FileCoordinationService> FileCoordinationService::make(
    std::shared_ptr<DocSourceRegistry> registry) {
  auto service = std::make_shared<FileCoordinationService>(std::move(registry));
  service->listener_.setDelegate(service);
  return service;
}

FileCoordinationService::FileCoordinationService(std::shared_ptr<DocSourceRegistry> registry)
    : registry_(std::move(registry)), listener_(fileCoordinationServiceName) {}

bool FileCoordinationService::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  auto host = std::make_shared<ConnectionHost>(connection);
  connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<QXFileCoordination>());
  connection->setExportedObject<QXFileCoordination>(
      std::make_shared<FileCoordinationClient>(connection, registry_, host));
  connection->setRemoteObjectInterface(
      QXConduitInterface::interfaceWithProtocol<QXFileCoordinationHost>());
  connection->setInvalidationHandler([registry = registry_, host] { registry->forget(host); });
  connection->resume();
  return true;
}
