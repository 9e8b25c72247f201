// The provider's side: the vendor interface over the connection that the broker handed to this
// process.
//
// The calls arrive on the connection's thread and are put on the queue that the provider chose. An
// operation is counted from its beginning to its end, under the same lock as the decision to stop:
// after run() has seen that none is running, none begins any more.

#include "docsource/provider.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iterator>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/conduit/AfterReading.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/plist/PropertyList.h"
#include "providers/_QXDocSourceVendor.h"
#include "sdk/src/Bridge.h"

namespace docsource {
namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::optional(std::string(value)) : std::nullopt;
}

/// The descriptor that the environment names, when it is a socket.
qx::FileDescriptor connectionSocket() {
  const auto text = environment("QX_EXTENSION_CONNECTION");
  if (!text) return {};
  int fd = -1;
  const auto [end, problem] = std::from_chars(text->data(), text->data() + text->size(), fd);
  struct stat status {};
  if (problem != std::errc() || end != text->data() + text->size() || fd < 0 ||
      ::fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode)) {
    return {};
  }
  // What the provider starts itself has no business on this connection.
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  ::unsetenv("QX_EXTENSION_CONNECTION");
  return qx::FileDescriptor(fd);
}

std::optional<qx::Error> errorOf(const Result<void>& result) {
  return result ? std::nullopt : std::optional(bridge::toPlatform(result.error()));
}

/// When operations run, and how the end waits for them. Shared with the tasks that wait, which may
/// outlive the provider.
class Operations : public std::enable_shared_from_this<Operations> {
 public:
  explicit Operations(Provider::Concurrency concurrency)
      : isSerial_(concurrency == Provider::Concurrency::serial) {}

  /// Runs `operation` when the call was read, unless the end has come before.
  void submit(std::function<void()> operation) {
    if (!isSerial_) {
      qx::conduit::afterReading([self = shared_from_this(), operation = std::move(operation)] {
        self->during(operation);
      });
      return;
    }
    {
      const std::lock_guard lock(mutex_);
      waiting_.push_back(std::move(operation));
    }
    qx::conduit::afterReading([self = shared_from_this()] { self->runWaiting(); });
  }

  /// Runs it at once, beside the operations, unless the end has come before.
  void during(const std::function<void()>& work) {
    if (!begin()) return;
    work();
    end();
  }

  /// Returns when no operation is running and none will begin any more.
  void stop() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    idle_.wait(lock, [this] { return running_ == 0; });
  }

 private:
  /// In their order, unless another thread is at it.
  void runWaiting() {
    std::unique_lock lock(mutex_);
    if (isAtIt_) return;
    isAtIt_ = true;
    while (!waiting_.empty()) {
      auto operation = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      during(operation);
      operation = nullptr;
      lock.lock();
    }
    isAtIt_ = false;
  }
  bool begin() {
    const std::lock_guard lock(mutex_);
    if (!stopping_) ++running_;
    return !stopping_;
  }
  void end() {
    const std::lock_guard lock(mutex_);
    --running_;
    idle_.notify_all();
  }

  const bool isSerial_;
  std::mutex mutex_;
  std::condition_variable idle_;
  // Under the mutex.
  std::deque<std::function<void()>> waiting_;
  bool isAtIt_ = false;
  bool stopping_ = false;
  std::size_t running_ = 0;
};

}  // namespace

/// The exported object. Owned by the connection, it may outlive the provider, which is touched by
/// operations alone.
class Provider::Vendor final : public _QXDocSourceVendor {
 public:
  Vendor(Provider& provider, std::shared_ptr<Operations> operations)
      : provider_(provider), operations_(std::move(operations)) {}

  void _performInitialSetupWithCompletion(
      qx::Completion<std::string, qx::URL, qx::Error> completion) override {
    operations_->submit([&provider = provider_, completion = std::move(completion)] {
      if (auto error = errorOf(provider.performInitialSetup())) {
        completion({}, {}, std::move(error));
        return;
      }
      std::optional<qx::URL> storage;
      if (provider.documentStorage()) storage = qx::URL::fileURL(*provider.documentStorage(), true);
      completion(provider.identifier(), std::move(storage), {});
    });
  }

  void _providePlaceholderAtURL_completion(const std::optional<qx::URL>& url,
                                           qx::Completion<qx::URL, qx::Error> completion) override {
    withPath(
        url,
        [&provider = provider_, url, completion](const std::string& path) {
          auto error = errorOf(provider.providePlaceholder(path));
          completion(error ? std::nullopt : url, error);
        },
        [completion](const qx::Error& error) { completion({}, error); });
  }

  void _startProvidingItemAtURL_completion(const std::optional<qx::URL>& url,
                                           qx::Completion<qx::Error> completion) override {
    request(&Provider::startProviding, url, std::move(completion));
  }
  /// On the thread of the connection: a provider that does one thing at a time is doing it.
  void _readerOfItemAtURL_waitsForBytes_completion(const std::optional<qx::URL>& url,
                                                   const std::optional<qx::Array>& bytes,
                                                   qx::Completion<> completion) override {
    const auto path = url ? url->path() : std::nullopt;
    const auto* offset = bytes && bytes->size() == 2 ? bytes->at(0).as<std::int64_t>() : nullptr;
    const auto* size = offset ? bytes->at(1).as<std::int64_t>() : nullptr;
    if (path && size && *offset >= 0 && *size > 0) {
      operations_->during([&] {
        provider_.readerWaits(*path, static_cast<std::uint64_t>(*offset),
                              static_cast<std::uint64_t>(*size));
      });
    }
    completion();
  }
  void _itemChangedAtURL_completion(const std::optional<qx::URL>& url,
                                    qx::Completion<qx::Error> completion) override {
    request(&Provider::itemChanged, url, std::move(completion));
  }
  void _stopProvidingItemAtURL_completion(const std::optional<qx::URL>& url,
                                          qx::Completion<qx::Error> completion) override {
    request(&Provider::stopProviding, url, std::move(completion));
  }

  void _identifierForItemAtURL_completion(
      const std::optional<qx::URL>& url,
      qx::Completion<qx::Error, std::string> completion) override {
    withPath(
        url,
        [&provider = provider_, completion](const std::string& path) {
          const auto identifier = provider.identifierForItem(path);
          if (identifier) {
            completion({}, *identifier);
          } else {
            completion(bridge::toPlatform(identifier.error()), {});
          }
        },
        [completion](const qx::Error& error) { completion(error, {}); });
  }

  void _URLForItemIdentifier_completion(const std::optional<std::string>& identifier,
                                        qx::Completion<qx::Error, qx::URL> completion) override {
    if (!identifier) {
      completion(DSInvalidParameterError("identifier", std::nullopt), {});
      return;
    }
    operations_->submit(
        [&provider = provider_, identifier = *identifier, completion = std::move(completion)] {
          const auto path = provider.pathForItem(identifier);
          if (path) {
            completion({}, qx::URL::fileURL(*path));
          } else {
            completion(bridge::toPlatform(path.error()), {});
          }
        });
  }

 private:
  /// Runs `operation` with the path of the URL, or refuses at once a URL that has none.
  void withPath(const std::optional<qx::URL>& url,
                std::function<void(const std::string& path)> operation,
                const std::function<void(const qx::Error&)>& refuse) {
    auto path = url ? url->path() : std::nullopt;
    if (!path) {
      refuse(DSInvalidParameterError("URL",
                                     url ? std::optional(url->absoluteString()) : std::nullopt));
      return;
    }
    operations_->submit(
        [path = *std::move(path), operation = std::move(operation)] { operation(path); });
  }

  void request(Result<void> (Provider::*operation)(const std::string&),
               const std::optional<qx::URL>& url, qx::Completion<qx::Error> completion) {
    const auto refuse = [completion](const qx::Error& error) { completion(error); };
    withPath(
        url,
        [&provider = provider_, operation, completion = std::move(completion)](
            const std::string& path) { completion(errorOf((provider.*operation)(path))); },
        refuse);
  }

  Provider& provider_;
  const std::shared_ptr<Operations> operations_;
};

class Provider::Implementation {
 public:
  explicit Implementation(Concurrency chosen)
      : concurrency(chosen),
        identifier(environment("QX_EXTENSION_IDENTIFIER").value_or("")),
        documentStorage(environment("QX_DOCUMENT_STORAGE")) {
    while (documentStorage && documentStorage->size() > 1 && documentStorage->back() == '/') {
      documentStorage->pop_back();
    }
  }

  const Concurrency concurrency;
  const std::string identifier;
  std::optional<std::string> documentStorage;
};

Provider::Provider(Concurrency concurrency)
    : implementation_(std::make_unique<Implementation>(concurrency)) {}
Provider::~Provider() = default;

void Provider::readerWaits(const std::string& /*path*/, std::uint64_t /*offset*/,
                           std::uint64_t /*size*/) {}

const std::string& Provider::identifier() const { return implementation_->identifier; }
const std::optional<std::string>& Provider::documentStorage() const {
  return implementation_->documentStorage;
}

std::optional<std::string> Provider::infoString(const std::string& key) const {
  const auto list = qx::PropertyList::readFile("Info.plist");
  const auto* top = list ? list->as<qx::Dictionary>() : nullptr;
  if (!top) return std::nullopt;
  const auto* extension = qx::find<qx::Dictionary>(*top, "QXExtension");
  const auto* text = extension ? qx::find<std::string>(*extension, key) : nullptr;
  if (!text) text = qx::find<std::string>(*top, key);
  return text ? std::optional(*text) : std::nullopt;
}

int Provider::run() {
  constexpr int notStartedByTheBroker = 2;
  qx::FileDescriptor socket = connectionSocket();
  if (!socket) {
    std::fputs(
        "This program is a provider extension; it is started by the document broker and is not to "
        "be run by hand.\n",
        stderr);
    return notStartedByTheBroker;
  }

  // Before the first thread, so that none of them takes the signal.
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &termination, nullptr);
  const qx::FileDescriptor terminated(signalfd(-1, &termination, SFD_CLOEXEC));
  const auto closed = std::make_shared<const qx::FileDescriptor>(eventfd(0, EFD_CLOEXEC));
  begin();

  const auto operations = std::make_shared<Operations>(implementation_->concurrency);
  const auto connection = QXConduitConnection::overSocket(std::move(socket));
  connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<_QXDocSourceVendor>());
  connection->setExportedObject<_QXDocSourceVendor>(std::make_shared<Vendor>(*this, operations));
  // Requests may begin and end as they like: an operation needs nothing but its call.
  connection->setRequestHandler([](bool, const qx::UUID&) {});
  connection->setInvalidationHandler([closed] { eventfd_write(closed->get(), 1); });
  connection->resume();

  pollfd ends[] = {{closed->get(), POLLIN, 0}, {terminated.get(), POLLIN, 0}};
  while (poll(ends, std::size(ends), -1) < 0 && errno == EINTR) {
  }
  operations->stop();
  connection->invalidate();
  return 0;
}

}  // namespace docsource
