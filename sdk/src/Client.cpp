// The consumer's side: every call of the implementation in two forms.
//
// A call ends in a sink, which takes its result once: from the reply, from the connection's error
// handler, or from the timeout, whichever is first. The sink of a waiting call wakes its thread
// straight from the thread that read the reply, so that a wait inside a callback needs no thread
// but those of the reactor; the sink of a call with a callback submits that to the global queue.

#include "docsource/client.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/base/Completion.h"
#include "platform/queue/Clock.h"
#include "platform/queue/WorkPool.h"
#include "platform/queue/WorkQueue.h"
#include "sdk/src/ClientImplementation.h"

namespace docsource {
namespace {

using std::chrono::milliseconds;

Error timedOut() { return {LibraryError::timedOut, "The service did not answer in time."}; }

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

}  // namespace

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
