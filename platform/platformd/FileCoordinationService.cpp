#include "platform/platformd/FileCoordinationService.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <map>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/files/Places.h"
#include "platform/identity/Bundles.h"
#include "platform/platformd/ServicePeer.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/platformd/kernel/CooperativeGuard.h"
#include "platform/platformd/kernel/Placeholder.h"
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

  void readerWaits(const std::string& docSource, const qx::URL& url, qx::ByteRange bytes) override {
    const auto connection = connection_.lock();
    if (!connection) return;
    // A host that does not know of it provides all the same.
    connection->remoteObjectProxyWithErrorHandler<QXFileCoordinationHost>([](const qx::Error&) {})
        ->docSource_readerOfItemAtURL_waitsForBytes_completionHandler(
            docSource, url,
            qx::Array{static_cast<std::int64_t>(bytes.begin),
                      static_cast<std::int64_t>(bytes.size())},
            [] {});
  }

  void writerDidFinish(const std::string& docSource, const std::string& writerID,
                       const qx::URL& url, qx::Completion<> completion) override {
    const auto heard = completion ? qx::once(std::move(completion)) : [] {};
    auto connection = connection_.lock();
    if (!connection) {
      heard();
      return;
    }
    connection
        ->remoteObjectProxyWithErrorHandler<QXFileCoordinationHost>(
            [heard](const qx::Error&) { heard(); })
        ->docSource_writerWithID_didFinishWritingForURL_completionHandler(docSource, writerID, url,
                                                                          heard);
  }

  qx::AuditToken process() const override { return process_; }
  bool isLost() const override {
    auto connection = connection_.lock();
    return !connection || connection->isGone();
  }

 private:
  const std::weak_ptr<QXConduitConnection> connection_;
  const qx::AuditToken process_;
};

int accessCheck(const qx::AuditToken& process, std::string_view operation,
                const std::string& path) {
  return SandboxCheckByAuditToken(process, operation, qx::SandboxFilter::path,
                                  qx::sandboxCheckNoReport, path);
}

/// 0, or the errno that keeps the process from an item; of one that is not there, or not yet, from
/// the nearest directory above it that is, so many up at most.
int accessCheck(const qx::AuditToken& process, std::string_view operation, const std::string& path,
                int directoriesUp) {
  const int errnum = accessCheck(process, operation, path);
  // A placeholder that nobody guards has no permissions: its owner may have it provided, where the
  // process sees it.
  if (errnum == EACCES && qx::kernel::isHiddenFile(path, process.effectiveUser()) &&
      accessCheck(process, "file-read-metadata", path) == 0) {
    return 0;
  }
  if (errnum != ENOENT) return errnum;
  std::filesystem::path above = path;
  for (; directoriesUp > 0; --directoriesUp) {
    above = above.parent_path();
    const int failed = accessCheck(process, operation, above.string());
    if (failed != ENOENT) return failed == 0 ? 0 : ENOENT;
  }
  return ENOENT;
}

/// An errno that says that the path leads to nothing that anybody could own.
bool leadsNowhere(int errnum) {
  return errnum == ENOTDIR || errnum == ELOOP || errnum == ENAMETOOLONG;
}

/// What one connection's peer may do.
class FileCoordinationClient final : public QXFileCoordination,
                                     public std::enable_shared_from_this<FileCoordinationClient> {
 public:
  FileCoordinationClient(std::weak_ptr<QXConduitConnection> connection,
                         std::shared_ptr<DocSourceRegistry> registry,
                         std::shared_ptr<DocSourceHost> host, std::shared_ptr<ServicePeer> peer)
      : connection_(std::move(connection)),
        registry_(std::move(registry)),
        host_(std::move(host)),
        peer_(std::move(peer)) {}

  void addDocSource_providedItemsURL_completion(const std::optional<std::string>& identifier,
                                                const std::optional<qx::URL>& providedItemsURL,
                                                qx::Completion<qx::Error> completion) override {
    run(completion, [=](const Self& self) {
      if (auto refusal = self->refusalToAdd(identifier, providedItemsURL)) {
        completion(refusal);
        return;
      }
      const auto directory = self->directoryToAdd(*providedItemsURL);
      if (!directory) {
        completion(directory.error());
        return;
      }
      auto [charge, isNew] = self->added_.try_emplace(*identifier);
      if (isNew) charge->second = self->peer_->account().charge(UserAccount::Kind::docSource);
      if (!charge->second) {
        self->added_.erase(charge);
        completion(UserAccount::exhausted());
        return;
      }
      self->registry_->add(*identifier, *directory, self->host_, completion);
      // A connection that ended meanwhile has had its doc sources forgotten before this one came.
      const auto connection = self->connection_.lock();
      if (!connection || connection->isInvalid()) self->registry_->forget(self->host_);
    });
  }

  void removeDocSource_completion(const std::optional<std::string>& identifier,
                                  qx::Completion<qx::Error> completion) override {
    run(completion, [=](const Self& self) {
      if (!identifier) {
        completion(DSInvalidParameterError("identifier", std::nullopt));
        return;
      }
      const auto refusal = self->registry_->remove(*identifier, self->host_);
      if (!refusal) self->added_.erase(*identifier);
      completion(refusal);
    });
  }

  void coordinateReadingItemAtURL_completion(const std::optional<qx::URL>& url,
                                             qx::Completion<qx::Error> completion) override {
    const auto path = url ? url->path() : std::nullopt;
    if (!path || path->size() >= PATH_MAX) {
      completion(std::nullopt);
      return;
    }
    const bool isRun = peer_->run([=, self = shared_from_this()](UserAccount::Charge charge) {
      const int errnum =
          accessCheck(self->peer_->process(), "file-read-data", *path, mostDirectoriesMissing);
      if (errnum != 0) {
        const bool isOwned = !leadsNowhere(errnum) && self->registry_->owns(*url, self->rights());
        completion(isOwned ? std::optional(qx::fileError(errnum, url)) : std::nullopt);
        return;
      }
      const auto held = std::make_shared<UserAccount::Charge>(std::move(charge));
      self->registry_->provide(
          *url, self->identifier(),
          [=](const std::optional<qx::Error>& error) {
            self->peer_->goOn([=] {
              // Whatever its provider says: what is read of a placeholder is not the document.
              const bool isMissing = !error && self->isPlaceholder(*path);
              completion(isMissing ? qx::fileError(EIO, url) : error);
              *held = {};
            });
          },
          self->rights());
    });
    if (!isRun) completion(UserAccount::exhausted());
  }

  void didFinishWritingItemAtURL_completion(const std::optional<qx::URL>& url,
                                            qx::Completion<qx::Error> completion) override {
    const auto path = url ? url->path() : std::nullopt;
    if (!path) {
      completion(invalidURL(url));
      return;
    }
    const bool isRun = peer_->run([=, self = shared_from_this()](UserAccount::Charge charge) {
      const int errnum = path->size() < PATH_MAX
                             ? accessCheck(self->peer_->process(), "file-write-data", *path, 1)
                             : ENAMETOOLONG;
      if (errnum != 0) {
        completion(qx::fileError(errnum, url));
        return;
      }
      // Counts until the provider has heard: who writes faster than that is told to wait.
      const auto held = std::make_shared<UserAccount::Charge>(std::move(charge));
      self->registry_->didFinishWriting(
          *url, self->identifier(), [held] { *held = {}; }, self->rights());
      completion(std::nullopt);
    });
    if (!isRun) completion(UserAccount::exhausted());
  }

 private:
  using Self = std::shared_ptr<FileCoordinationClient>;
  /// An item deeper than that in directories that are not there is nobody's.
  static constexpr int mostDirectoriesMissing = 64;
  static constexpr std::size_t longestIdentifier = 1024;

  template <class Task>
  void run(const qx::Completion<qx::Error>& completion, Task task) {
    const bool isRun =
        peer_->run([self = shared_from_this(), task = std::move(task)](UserAccount::Charge charge) {
          task(self);
          charge = {};
        });
    if (!isRun) completion(UserAccount::exhausted());
  }

  static qx::Error invalidURL(const std::optional<qx::URL>& url) {
    return DSInvalidParameterError("URL",
                                   url ? std::optional(url->absoluteString()) : std::nullopt);
  }

  std::optional<qx::Error> refusalToAdd(const std::optional<std::string>& identifier,
                                        const std::optional<qx::URL>& url) const {
    if (isForAllUsers_) {
      if (!peer_->isOutsideOfSandboxes()) return DSNotPermittedError();
    } else {
      const auto entitlement =
          qx::entitlementOfProcess(peer_->process(), fileCoordinationHostEntitlement);
      if (!entitlement || !entitlement->numberAsBool().value_or(false)) {
        return DSClientLacksEntitlement(fileCoordinationHostEntitlement);
      }
    }
    if (!identifier) return DSInvalidParameterError("identifier", std::nullopt);
    if (identifier->size() > longestIdentifier) {
      return DSInvalidParameterError("identifier", identifier->substr(0, longestIdentifier));
    }
    if (!url || !url->path() || url->path()->size() >= PATH_MAX) return invalidURL(url);
    return std::nullopt;
  }

  /// The directory as it is registered: where there are several users, without a link on the way,
  /// and the peer's.
  qx::Result<qx::URL> directoryToAdd(const qx::URL& url) const {
    if (!isForAllUsers_) return url;
    const auto directory = peer_->asUser([&] { return ownDirectory(url, peer_->user().user); });
    return directory ? *directory : qx::Result<qx::URL>(DSNotPermittedError());
  }

  static qx::Result<qx::URL> ownDirectory(const qx::URL& url, uid_t user) {
    std::error_code problem;
    const auto path = std::filesystem::canonical(*url.path(), problem).string();
    if (problem) return qx::fileError(problem.value(), url);
    open_how how{O_PATH | O_DIRECTORY | O_CLOEXEC, 0, RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS};
    const qx::FileDescriptor directory(
        static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    struct stat status;
    if (!directory || fstat(directory.get(), &status) != 0) return qx::fileError(errno, url);
    if (status.st_uid != user) return DSNotPermittedError();
    // Its placeholders could not be guarded: whoever opened one would wait for that program.
    if (qx::kernel::isServedByProgram(directory.get())) return qx::fileError(EOPNOTSUPP, url);
    return qx::URL::fileURL(path, true);
  }

  /// Whether a path leads to a placeholder, as the peer sees it.
  bool isPlaceholder(const std::string& path) const {
    const auto open = [&] { return qx::FileDescriptor(::open(path.c_str(), O_PATH | O_CLOEXEC)); };
    const auto opened = rights() ? peer_->asUser(open) : std::optional(open());
    struct stat status;
    return opened && *opened && fstat(opened->get(), &status) == 0 &&
           (qx::kernel::Placeholder::isOne(opened->get(), status) ||
            qx::kernel::isHiddenPlaceholder(opened->get(), status));
  }

  /// The rights with which the owner of an item is looked up; absent for this process's own, which
  /// serve where it is the peer's user, or root asks.
  std::optional<qx::User> rights() const {
    return isForAllUsers_ && peer_->user().user != 0 ? std::optional(peer_->user()) : std::nullopt;
  }

  /// The name under which the doc source hears of the peer.
  std::string identifier() const {
    const auto bundle =
        isForAllUsers_ ? std::nullopt : BundleIdentifierFromAuditToken(peer_->process());
    return bundle ? *bundle : "pid:" + std::to_string(peer_->process().processIdentifier());
  }

  const bool isForAllUsers_ = qx::Places::servesMachine();
  const std::weak_ptr<QXConduitConnection> connection_;
  const std::shared_ptr<DocSourceRegistry> registry_;
  const std::shared_ptr<DocSourceHost> host_;
  const std::shared_ptr<ServicePeer> peer_;
  // In the tasks that the peer has run.
  std::map<std::string, UserAccount::Charge> added_;
};

}  // namespace

std::shared_ptr<FileCoordinationService> FileCoordinationService::make(
    std::shared_ptr<DocSourceRegistry> registry, std::shared_ptr<UserAccounts> accounts) {
  auto service =
      std::make_shared<FileCoordinationService>(std::move(registry), std::move(accounts));
  service->listener_.setDelegate(service);
  return service;
}

FileCoordinationService::FileCoordinationService(std::shared_ptr<DocSourceRegistry> registry,
                                                 std::shared_ptr<UserAccounts> accounts)
    : registry_(std::move(registry)),
      accounts_(std::move(accounts)),
      listener_(fileCoordinationServiceName) {}

bool FileCoordinationService::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  auto peer = ServicePeer::accept(*connection, *accounts_);
  if (!peer) return false;
  auto host = std::make_shared<ConnectionHost>(connection);
  connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<QXFileCoordination>());
  connection->setExportedObject<QXFileCoordination>(
      std::make_shared<FileCoordinationClient>(connection, registry_, host, std::move(peer)));
  connection->setRemoteObjectInterface(
      QXConduitInterface::interfaceWithProtocol<QXFileCoordinationHost>());
  connection->setInvalidationHandler([registry = registry_, host] { registry->forget(host); });
  connection->resume();
  return true;
}
