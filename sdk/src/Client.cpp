// The consumer's side: one lazily made connection per service, and one way for every call.
//
// A call ends in a sink, which takes its result once: from the reply, from the connection's error
// handler, or from the timeout, whichever is first. The sink of a waiting call wakes its thread
// straight from the thread that read the reply, so that a wait inside a callback needs no thread
// but those of the reactor; the sink of a call with a callback submits that to the global queue.

#include "docsource/client.h"

#include <fcntl.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/base/Completion.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/queue/Clock.h"
#include "platform/queue/WorkPool.h"
#include "platform/queue/WorkQueue.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "sdk/src/Bridge.h"
#include "sdk/src/PlaceholderMark.h"
#include "servicer/DSDaemon.h"
#include "servicer/DSGrants.h"

namespace docsource {
namespace {

using std::chrono::milliseconds;

template <class T>
using Sink = std::function<void(Result<T>)>;
/// Begins a call whose result goes to the sink.
template <class T>
using Start = std::function<void(Sink<T>)>;

Error timedOut() { return {LibraryError::timedOut, "The service did not answer in time."}; }
Error emptyAnswer() {
  return {LibraryError::emptyAnswer, "The service answered with neither a value nor an error."};
}

template <class T>
Result<T> wait(const Start<T>& start, milliseconds timeout) {
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<Result<T>> result;
  };
  const auto state = std::make_shared<State>();
  start(qx::once(Sink<T>([state](Result<T> result) {
    const std::lock_guard lock(state->mutex);
    state->result.emplace(std::move(result));
    state->changed.notify_all();
  })));
  const qx::WorkPool::Waiting waiting;
  std::unique_lock lock(state->mutex);
  const auto answered = [&state] { return state->result.has_value(); };
  if (timeout == Client::noTimeout) {
    state->changed.wait(lock, answered);
  } else if (!state->changed.wait_for(lock, timeout, answered)) {
    return timedOut();
  }
  return *std::move(state->result);
}

template <class T>
void deliver(const Start<T>& start, Client::Callback<T> callback, milliseconds timeout) {
  auto timer = std::make_shared<std::atomic<qx::Clock::TimerID>>(0);
  Sink<T> sink = qx::once(Sink<T>([timer, callback = std::move(callback)](Result<T> result) {
    qx::Clock::current().cancel(*timer);
    if (!callback) return;
    qx::WorkQueue::global().async([callback, result = std::make_shared<Result<T>>(std::move(
                                                 result))] { callback(std::move(*result)); });
  }));
  if (timeout != Client::noTimeout) {
    *timer = qx::Clock::current().schedule(timeout, [sink] { sink(timedOut()); });
  }
  start(std::move(sink));
}

/// The connection to one service, made when it is first needed and anew when it has ended.
template <class Protocol>
class Service {
 public:
  Service(std::string name, std::shared_ptr<const QXConduitInterface> interface)
      : name_(std::move(name)), interface_(std::move(interface)) {}

  /// Hands a proxy to `send`, or the error to the sink; what fails later goes to the sink as well.
  template <class T, class Send>
  void call(const Sink<T>& sink, Send send) {
    auto connection = connected();
    if (!connection) {
      sink(connection.error());
      return;
    }
    send(*(*connection)
              ->template remoteObjectProxyWithErrorHandler<Protocol>(
                  [sink](const qx::Error& error) { sink(bridge::fromPlatform(error)); }));
  }

 private:
  Result<std::shared_ptr<QXConduitConnection>> connected() {
    const std::lock_guard lock(mutex_);
    // A service that was started anew between two calls is no error.
    if (connection_ && !connection_->isGone()) return connection_;
    auto made = QXConduitConnection::connectToService(name_);
    if (!made) {
      return Error(LibraryError::serviceUnavailable, "The service " + name_ + " cannot be reached.",
                   {}, Error::posix(static_cast<int>(made.error().code()), "Its socket"));
    }
    connection_ = std::move(*made);
    connection_->setRemoteObjectInterface(interface_);
    connection_->resume();
    return connection_;
  }

  const std::string name_;
  const std::shared_ptr<const QXConduitInterface> interface_;
  std::mutex mutex_;
  std::shared_ptr<QXConduitConnection> connection_;  // under the mutex
};

/// A reply that is an error or nothing.
qx::Completion<qx::Error> errorOnly(Sink<void> sink) {
  return [sink = std::move(sink)](const std::optional<qx::Error>& error) {
    sink(error ? Result<void>(bridge::fromPlatform(*error)) : Result<void>());
  };
}

std::optional<Token> tokenFrom(const std::optional<qx::Bytes>& bytes) {
  return bytes ? std::optional(Token(bytes->begin(), bytes->end())) : std::nullopt;
}
std::optional<std::string> textOf(const std::optional<qx::URL>& url) {
  return url ? std::optional(url->absoluteString()) : std::nullopt;
}

Result<Descriptor> openDocument(const std::string& path) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  Descriptor file(fd);
  if (!file) return Error::file(errno, path);
  // Whoever was to bring the content in said that it is there; nobody gets zeros for it.
  if (mark::read(file.get()).state != PlaceholderState::present) return Error::file(EAGAIN, path);
  return file;
}

}  // namespace

class Client::Implementation {
 public:
  explicit Implementation(milliseconds usualTimeout) : timeout_(usualTimeout) {}

  milliseconds timeout(const Timeout& given) const { return given.value_or(timeout_); }

  Start<void> wakeUp() {
    return [this](const Sink<void>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) { daemon.wakeUpCompletion([sink] { sink({}); }); });
    };
  }

  Start<SandboxExtension> extendSandbox(const std::string& url, const std::string& provider,
                                        const std::string& consumer) {
    return [=, this](const Sink<SandboxExtension>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) {
        daemon.extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
            qx::URL(url), provider, consumer,
            [sink](const std::optional<qx::Error>& error, const std::optional<qx::Bytes>& token,
                   const std::optional<qx::URL>& sibling,
                   const std::optional<qx::Bytes>& siblingToken) {
              if (error) {
                sink(bridge::fromPlatform(*error));
              } else {
                sink(SandboxExtension{tokenFrom(token), textOf(sibling), tokenFrom(siblingToken)});
              }
            });
      });
    };
  }

  /// The three item requests differ in nothing but their operation.
  using ItemOperation = void (DSDaemon::*)(const std::optional<qx::URL>&,
                                           const std::optional<std::string>&,
                                           const std::optional<std::string>&,
                                           qx::Completion<qx::Error>);
  Start<void> requestItem(ItemOperation operation, const std::string& url,
                          const std::string& provider, const std::string& consumer) {
    return [=, this](const Sink<void>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) {
        (daemon.*operation)(qx::URL(url), provider, consumer, errorOnly(sink));
      });
    };
  }

  Start<std::vector<ProviderInfo>> providers() {
    return [this](const Sink<std::vector<ProviderInfo>>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) {
        daemon.providersCompletionHandler([sink](const std::optional<qx::Error>& error,
                                                 const std::optional<qx::Dictionary>& listing) {
          if (error) {
            sink(bridge::fromPlatform(*error));
          } else if (!listing) {
            sink(emptyAnswer());
          } else {
            sink(providersFrom(*listing));
          }
        });
      });
    };
  }

  Start<std::string> extendBookmark(const std::string& url, const std::string& consumer) {
    return [=, this](const Sink<std::string>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) {
        daemon.extendBookmarkForFileURL_toConsumerID_completionHandler(
            qx::URL(url), consumer,
            [sink](std::optional<std::string> bookmark, const std::optional<qx::Error>& error) {
              if (error) {
                sink(bridge::fromPlatform(*error));
              } else if (!bookmark) {
                sink(emptyAnswer());
              } else {
                sink(*std::move(bookmark));
              }
            });
      });
    };
  }

  Start<std::optional<std::string>> bookmarkableString(const std::string& url) {
    return [=, this](const Sink<std::optional<std::string>>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) {
        daemon.bookmarkableStringFromDocumentURL_completion(
            qx::URL(url),
            [sink](std::optional<std::string> bookmark, const std::optional<qx::Error>& error) {
              if (error) {
                sink(bridge::fromPlatform(*error));
              } else {
                sink(std::move(bookmark));
              }
            });
      });
    };
  }

  Start<ResolvedBookmark> resolveBookmark(const std::string& bookmark) {
    return [=, this](const Sink<ResolvedBookmark>& sink) {
      daemon_.call(sink, [&](DSDaemon& daemon) {
        daemon.documentURLFromBookmarkableString_completion(
            bookmark,
            [sink](const std::optional<qx::URL>& url, const std::optional<qx::Bytes>& token,
                   const std::optional<qx::URL>& sibling,
                   const std::optional<qx::Bytes>& siblingToken,
                   const std::optional<qx::Error>& error) {
              if (error) {
                sink(bridge::fromPlatform(*error));
              } else if (!url) {
                sink(emptyAnswer());
              } else {
                sink(
                    ResolvedBookmark{url->absoluteString(),
                                     {tokenFrom(token), textOf(sibling), tokenFrom(siblingToken)}});
              }
            });
      });
    };
  }

  Start<std::vector<Grant>> grants() {
    return [this](const Sink<std::vector<Grant>>& sink) {
      grants_.call(sink, [&](DSGrants& service) {
        service.grantsCompletion(
            [sink](const std::optional<qx::Error>& error, const std::optional<qx::Array>& listing) {
              if (error) {
                sink(bridge::fromPlatform(*error));
              } else if (!listing) {
                sink(emptyAnswer());
              } else {
                sink(grantsFrom(*listing));
              }
            });
      });
    };
  }

  Start<void> revoke(const std::optional<std::string>& item, const std::string& provider,
                     const std::string& consumer) {
    return [=, this](const Sink<void>& sink) {
      grants_.call(sink, [&](DSGrants& service) {
        service.revokeItemWithID_ofProviderID_forConsumerID_completion(item, provider, consumer,
                                                                       errorOnly(sink));
      });
    };
  }

  Start<Descriptor> redeem(const Token& token) {
    return [=, this](const Sink<Descriptor>& sink) {
      sandbox_.call(sink, [&](QXSandbox& sandbox) {
        sandbox.consumeExtension_completion(
            qx::Bytes(token.begin(), token.end()),
            [sink](const std::optional<qx::Error>& error,
                   const std::optional<qx::SharedDescriptor>& descriptor) {
              if (error) {
                sink(bridge::fromPlatform(*error));
              } else if (!descriptor || !*descriptor) {
                sink(emptyAnswer());
              } else if (auto own = (*descriptor)->duplicate()) {
                sink(Descriptor(own.release()));
              } else {
                sink(Error::posix(errno, "The document's descriptor cannot be kept"));
              }
            });
      });
    };
  }

  using CoordinationOperation = void (QXFileCoordination::*)(const std::optional<qx::URL>&,
                                                             qx::Completion<qx::Error>);
  Start<void> coordinate(CoordinationOperation operation, const std::string& url) {
    return [=, this](const Sink<void>& sink) {
      coordination_.call(sink, [&](QXFileCoordination& coordination) {
        (coordination.*operation)(qx::URL(url), errorOnly(sink));
      });
    };
  }

  Start<Descriptor> openForReading(const std::string& url) {
    return [=, this](const Sink<Descriptor>& sink) {
      const auto path = pathOfURL(url);
      if (!path) {
        sink(Error(LibraryError::notAFileURL, "\"" + url + "\" is not the URL of a file.",
                   {{"URL", url}}));
        return;
      }
      coordinate(&QXFileCoordination::coordinateReadingItemAtURL_completion,
                 url)([sink, path = *path](const Result<void>& ready) {
        sink(ready ? openDocument(path) : Result<Descriptor>(ready.error()));
      });
    };
  }

 private:
  static Result<std::vector<ProviderInfo>> providersFrom(const qx::Dictionary& listing) {
    std::vector<ProviderInfo> providers;
    for (const auto& [key, value] : listing) {
      const auto* entry = value.as<qx::Dictionary>();
      if (!entry) continue;
      const auto* identifier = qx::find<std::string>(*entry, "providerIdentifier");
      const auto* storage = qx::find<qx::URL>(*entry, "documentStorageURL");
      providers.push_back({identifier ? *identifier : key,
                           storage ? std::optional(storage->absoluteString()) : std::nullopt});
    }
    return providers;
  }

  static Result<std::vector<Grant>> grantsFrom(const qx::Array& listing) {
    std::vector<Grant> grants;
    for (const auto& value : listing) {
      const auto* entry = value.as<qx::Dictionary>();
      if (!entry) continue;
      const auto* provider = qx::find<std::string>(*entry, "providerIdentifier");
      const auto* item = qx::find<std::string>(*entry, "itemIdentifier");
      const auto* consumer = qx::find<std::string>(*entry, "consumerIdentifier");
      const auto* url = qx::find<qx::URL>(*entry, "URL");
      if (!provider || !item || !consumer) continue;
      grants.push_back(
          {*provider, *item, *consumer, url ? std::optional(url->absoluteString()) : std::nullopt});
    }
    return grants;
  }

  const milliseconds timeout_;
  Service<DSDaemon> daemon_{dsDaemonServiceName, dsDaemonInterface()};
  Service<DSGrants> grants_{dsGrantsServiceName, dsGrantsInterface()};
  Service<QXSandbox> sandbox_{std::string(qx::sandboxServiceName),
                              QXConduitInterface::interfaceWithProtocol<QXSandbox>()};
  Service<QXFileCoordination> coordination_{
      fileCoordinationServiceName, QXConduitInterface::interfaceWithProtocol<QXFileCoordination>()};
};

Client::Client(milliseconds timeout) : implementation_(std::make_shared<Implementation>(timeout)) {}
Client::~Client() = default;

Result<void> Client::wakeUp(Timeout timeout) {
  return wait(implementation_->wakeUp(), implementation_->timeout(timeout));
}
void Client::wakeUp(Callback<void> callback, Timeout timeout) {
  deliver(implementation_->wakeUp(), std::move(callback), implementation_->timeout(timeout));
}

Result<SandboxExtension> Client::extendSandbox(const std::string& url, const std::string& provider,
                                               const std::string& consumer, Timeout timeout) {
  return wait(implementation_->extendSandbox(url, provider, consumer),
              implementation_->timeout(timeout));
}
void Client::extendSandbox(const std::string& url, const std::string& provider,
                           const std::string& consumer, Callback<SandboxExtension> callback,
                           Timeout timeout) {
  deliver(implementation_->extendSandbox(url, provider, consumer), std::move(callback),
          implementation_->timeout(timeout));
}

namespace {
constexpr auto placeholderOperation =
    &DSDaemon::providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler;
constexpr auto startOperation =
    &DSDaemon::startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler;
constexpr auto stopOperation =
    &DSDaemon::stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler;
constexpr auto readOperation = &QXFileCoordination::coordinateReadingItemAtURL_completion;
constexpr auto writtenOperation = &QXFileCoordination::didFinishWritingItemAtURL_completion;
}  // namespace

Result<void> Client::providePlaceholder(const std::string& url, const std::string& provider,
                                        const std::string& consumer, Timeout timeout) {
  return wait(implementation_->requestItem(placeholderOperation, url, provider, consumer),
              implementation_->timeout(timeout));
}
void Client::providePlaceholder(const std::string& url, const std::string& provider,
                                const std::string& consumer, Callback<void> callback,
                                Timeout timeout) {
  deliver(implementation_->requestItem(placeholderOperation, url, provider, consumer),
          std::move(callback), implementation_->timeout(timeout));
}

Result<void> Client::startProviding(const std::string& url, const std::string& provider,
                                    const std::string& consumer, Timeout timeout) {
  return wait(implementation_->requestItem(startOperation, url, provider, consumer),
              implementation_->timeout(timeout));
}
void Client::startProviding(const std::string& url, const std::string& provider,
                            const std::string& consumer, Callback<void> callback, Timeout timeout) {
  deliver(implementation_->requestItem(startOperation, url, provider, consumer),
          std::move(callback), implementation_->timeout(timeout));
}

Result<void> Client::stopProviding(const std::string& url, const std::string& provider,
                                   const std::string& consumer, Timeout timeout) {
  return wait(implementation_->requestItem(stopOperation, url, provider, consumer),
              implementation_->timeout(timeout));
}
void Client::stopProviding(const std::string& url, const std::string& provider,
                           const std::string& consumer, Callback<void> callback, Timeout timeout) {
  deliver(implementation_->requestItem(stopOperation, url, provider, consumer), std::move(callback),
          implementation_->timeout(timeout));
}

Result<std::vector<ProviderInfo>> Client::providers(Timeout timeout) {
  return wait(implementation_->providers(), implementation_->timeout(timeout));
}
void Client::providers(Callback<std::vector<ProviderInfo>> callback, Timeout timeout) {
  deliver(implementation_->providers(), std::move(callback), implementation_->timeout(timeout));
}

Result<std::string> Client::extendBookmark(const std::string& url, const std::string& consumer,
                                           Timeout timeout) {
  return wait(implementation_->extendBookmark(url, consumer), implementation_->timeout(timeout));
}
void Client::extendBookmark(const std::string& url, const std::string& consumer,
                            Callback<std::string> callback, Timeout timeout) {
  deliver(implementation_->extendBookmark(url, consumer), std::move(callback),
          implementation_->timeout(timeout));
}

Result<std::optional<std::string>> Client::bookmarkableString(const std::string& url,
                                                              Timeout timeout) {
  return wait(implementation_->bookmarkableString(url), implementation_->timeout(timeout));
}
void Client::bookmarkableString(const std::string& url,
                                Callback<std::optional<std::string>> callback, Timeout timeout) {
  deliver(implementation_->bookmarkableString(url), std::move(callback),
          implementation_->timeout(timeout));
}

Result<ResolvedBookmark> Client::resolveBookmark(const std::string& bookmark, Timeout timeout) {
  return wait(implementation_->resolveBookmark(bookmark), implementation_->timeout(timeout));
}
void Client::resolveBookmark(const std::string& bookmark, Callback<ResolvedBookmark> callback,
                             Timeout timeout) {
  deliver(implementation_->resolveBookmark(bookmark), std::move(callback),
          implementation_->timeout(timeout));
}

Result<std::vector<Grant>> Client::grants(Timeout timeout) {
  return wait(implementation_->grants(), implementation_->timeout(timeout));
}
void Client::grants(Callback<std::vector<Grant>> callback, Timeout timeout) {
  deliver(implementation_->grants(), std::move(callback), implementation_->timeout(timeout));
}

Result<void> Client::revoke(const std::optional<std::string>& item, const std::string& provider,
                            const std::string& consumer, Timeout timeout) {
  return wait(implementation_->revoke(item, provider, consumer), implementation_->timeout(timeout));
}
void Client::revoke(const std::optional<std::string>& item, const std::string& provider,
                    const std::string& consumer, Callback<void> callback, Timeout timeout) {
  deliver(implementation_->revoke(item, provider, consumer), std::move(callback),
          implementation_->timeout(timeout));
}

Result<Descriptor> Client::redeem(const Token& token, Timeout timeout) {
  return wait(implementation_->redeem(token), implementation_->timeout(timeout));
}
void Client::redeem(const Token& token, Callback<Descriptor> callback, Timeout timeout) {
  deliver(implementation_->redeem(token), std::move(callback), implementation_->timeout(timeout));
}

Result<void> Client::coordinateReading(const std::string& url, Timeout timeout) {
  return wait(implementation_->coordinate(readOperation, url), implementation_->timeout(timeout));
}
void Client::coordinateReading(const std::string& url, Callback<void> callback, Timeout timeout) {
  deliver(implementation_->coordinate(readOperation, url), std::move(callback),
          implementation_->timeout(timeout));
}

Result<Descriptor> Client::openForReading(const std::string& url, Timeout timeout) {
  return wait(implementation_->openForReading(url), implementation_->timeout(timeout));
}
void Client::openForReading(const std::string& url, Callback<Descriptor> callback,
                            Timeout timeout) {
  deliver(implementation_->openForReading(url), std::move(callback),
          implementation_->timeout(timeout));
}

Result<void> Client::finishedWriting(const std::string& url, Timeout timeout) {
  return wait(implementation_->coordinate(writtenOperation, url),
              implementation_->timeout(timeout));
}
void Client::finishedWriting(const std::string& url, Callback<void> callback, Timeout timeout) {
  deliver(implementation_->coordinate(writtenOperation, url), std::move(callback),
          implementation_->timeout(timeout));
}

}  // namespace docsource
