#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "docsource/client.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "sdk/src/Bridge.h"
#include "servicer/DSDaemon.h"
#include "servicer/DSGrants.h"

namespace docsource {

/// Takes the result of one call. It is called on any thread, perhaps more than once, so whoever
/// begins a call wraps it by qx::once.
template <class T>
using Sink = std::function<void(Result<T>)>;
/// Begins a call whose result goes to the sink.
template <class T>
using Start = std::function<void(Sink<T>)>;

/// The connection to one service. It is made when it is first needed, and anew when it has ended.
/// Any thread may use it.
class ServiceConnection {
 public:
  ServiceConnection(std::string name, std::shared_ptr<const QXConduitInterface> interface)
      : name_(std::move(name)), interface_(std::move(interface)) {}

  Result<std::shared_ptr<QXConduitConnection>> get();

 private:
  const std::string name_;
  const std::shared_ptr<const QXConduitInterface> interface_;
  std::mutex mutex_;
  std::shared_ptr<QXConduitConnection> connection_;  // under the mutex
};

template <class Protocol>
class Service {
 public:
  Service(std::string name, std::shared_ptr<const QXConduitInterface> interface)
      : connection_(std::move(name), std::move(interface)) {}

  /// Hands a proxy to `send`, or the error to the sink, which also gets later failures.
  template <class T, class Send>
  void call(const Sink<T>& sink, Send send) {
    auto connection = connection_.get();
    if (!connection) {
      sink(connection.error());
      return;
    }
    send(*(*connection)
              ->template remoteObjectProxyWithErrorHandler<Protocol>(
                  [sink](const qx::Error& error) { sink(bridge::fromPlatform(error)); }));
  }

 private:
  ServiceConnection connection_;
};

/// The calls of a client, which either wait for their answer or call back.
class Client::Implementation {
 public:
  explicit Implementation(std::chrono::milliseconds usualTimeout) : timeout_(usualTimeout) {}

  std::chrono::milliseconds timeout(const Timeout& given) const { return given.value_or(timeout_); }

  Start<void> wakeUp();
  Start<SandboxExtension> extendSandbox(const std::string& url, const std::string& provider,
                                        const std::string& consumer);
  /// The three item requests differ only in their operation.
  using ItemOperation = void (DSDaemon::*)(const std::optional<qx::URL>&,
                                           const std::optional<std::string>&,
                                           const std::optional<std::string>&,
                                           qx::Completion<qx::Error>);
  Start<void> requestItem(ItemOperation operation, const std::string& url,
                          const std::string& provider, const std::string& consumer);
  Start<std::vector<ProviderInfo>> providers();
  Start<std::string> extendBookmark(const std::string& url, const std::string& consumer);
  Start<std::optional<std::string>> bookmarkableString(const std::string& url);
  Start<ResolvedBookmark> resolveBookmark(const std::string& bookmark);
  Start<std::vector<Grant>> grants();
  Start<void> revoke(const std::optional<std::string>& item, const std::string& provider,
                     const std::string& consumer);
  Start<Descriptor> redeem(const Token& token);
  using CoordinationOperation = void (QXFileCoordination::*)(const std::optional<qx::URL>&,
                                                             qx::Completion<qx::Error>);
  Start<void> coordinate(CoordinationOperation operation, const std::string& url);
  Start<Descriptor> openForReading(const std::string& url);

 private:
  const std::chrono::milliseconds timeout_;
  Service<DSDaemon> daemon_{dsDaemonServiceName, dsDaemonInterface()};
  Service<DSGrants> grants_{dsGrantsServiceName, dsGrantsInterface()};
  Service<QXSandbox> sandbox_{std::string(qx::sandboxServiceName),
                              QXConduitInterface::interfaceWithProtocol<QXSandbox>()};
  Service<QXFileCoordination> coordination_{
      fileCoordinationServiceName, QXConduitInterface::interfaceWithProtocol<QXFileCoordination>()};
};

}  // namespace docsource
