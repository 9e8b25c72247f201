// The daemon's side of file coordination.
//
// Everything is kept on one serial queue: the doc sources by identifier, the connection while there
// is one, and what has been sent over it. A connection is tried for when a doc source is added,
// when a connection was lost, and when the service's socket file appears or changes, the user's own
// or the machine's; a socket file that nobody listens behind is left alone until its next change.
// A doc source whose directory the service did not find is added again when that appears.

#include "platform/coordination/QXFileCoordinator.h"

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/conduit/ServiceWatch.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/files/DirectoryWatch.h"
#include "platform/files/FileManager.h"
#include "platform/identity/Bundles.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkPool.h"
#include "platform/queue/WorkQueue.h"

namespace {

using ConnectionPointer = std::shared_ptr<QXConduitConnection>;
using SourcePointer = std::shared_ptr<QXDocSource>;

class Coordinator {
 public:
  static Coordinator& shared() {
    static auto& coordinator = *new Coordinator;
    return coordinator;
  }

  void add(const SourcePointer& source) {
    const auto answer = std::make_shared<Answer>();
    queue_->async([this, source, answer] {
      if (hasLeft_) return answer->give();
      watchForService();
      const auto identifier = source->_fileReactorID();
      if (identifier) {
        sources_[*identifier] = source;
        if (connection_) sendAdd(*identifier, *source);
      } else {
        nameless_.insert(source);
      }
      connect();
      if (connection_ && !isSlow_ && identifier && sent_.contains(*identifier)) {
        awaited_.emplace(*identifier, answer);
      } else {
        answer->give();
      }
    });
    if (answer->wait(patience)) return;
    queue_->async([this] { isSlow_ = true; });
  }

  void leave() {
    queue_->sync([this] {
      hasLeft_ = true;
      sources_.clear();
      nameless_.clear();
      releaseAll();
      if (const auto connection = std::exchange(connection_, nullptr)) connection->invalidate();
    });
  }

  void remove(const SourcePointer& source) {
    queue_->async([this, source] {
      nameless_.erase(source);
      for (auto entry = sources_.begin(); entry != sources_.end(); ++entry) {
        if (entry->second != source) continue;
        sendRemove(entry->first);
        sources_.erase(entry);
        return;
      }
    });
  }

  /// Null for an identifier that nobody has any more.
  SourcePointer source(const std::string& identifier) {
    return queue_->sync([&]() -> SourcePointer {
      auto found = sources_.find(identifier);
      return found == sources_.end() ? nullptr : found->second;
    });
  }

 private:
  /// What a thread waits for.
  class Answer {
   public:
    void give() {
      const std::lock_guard lock(mutex_);
      isThere_ = true;
      came_.notify_one();
    }
    bool wait(std::chrono::seconds time) {
      const qx::WorkPool::Waiting waiting;
      std::unique_lock lock(mutex_);
      return came_.wait_for(lock, time, [this] { return isThere_; });
    }

   private:
    std::mutex mutex_;
    std::condition_variable came_;
    bool isThere_ = false;
  };
  static constexpr std::chrono::seconds patience{10};

  void watchForService() {
    if (watch_) return;
    watch_.emplace(fileCoordinationServiceName, [this] { queue_->async([this] { connect(); }); });
  }

  void connect();
  void lost(const QXConduitConnection* connection);
  void sendAdd(const std::string& identifier, QXDocSource& source);
  void sendRemove(const std::string& identifier);
  void awaitDirectory(const std::string& identifier);
  void release(const std::string& identifier) {
    for (auto [each, end] = awaited_.equal_range(identifier); each != end;
         each = awaited_.erase(each)) {
      each->second->give();
    }
  }
  void releaseAll() {
    for (const auto& [identifier, answer] : std::exchange(awaited_, {})) answer->give();
  }

  std::shared_ptr<QXFileCoordination> service(QXConduitConnection::ErrorHandler onError) {
    return connection_->remoteObjectProxyWithErrorHandler<QXFileCoordination>(std::move(onError));
  }

  const std::shared_ptr<qx::WorkQueue> queue_ = qx::WorkQueue::serial("QXFileCoordinator queue");
  // On the queue.
  std::optional<qx::ServiceWatch> watch_;
  std::map<std::string, std::unique_ptr<qx::DirectoryWatch>> missing_;  // directories
  std::map<std::string, SourcePointer> sources_;
  std::set<SourcePointer> nameless_;
  ConnectionPointer connection_;
  std::set<std::string> sent_;
  std::multimap<std::string, std::shared_ptr<Answer>> awaited_;
  bool hasAnswered_ = false;  // over this connection
  bool isSlow_ = false;       // over this connection
  bool isMissed_ = false;
  bool hasLeft_ = false;
};

/// What the service calls back.
class CoordinationHost final : public QXFileCoordinationHost {
 public:
  void docSource_provideItemAtURL_toReaderWithID_completionHandler(
      const std::optional<std::string>& docSource, const std::optional<qx::URL>& url,
      const std::optional<std::string>& readerID, qx::Completion<qx::Error> completion) override {
    auto source = sourceWith(docSource);
    if (!source) {
      completion(DSNotFoundError(docSource));
      return;
    }
    source->_providedItemsOperationQueue()->addOperation([=] {
      source->_provideItemAtURL_toReaderWithID_completionHandler(url, named(readerID), completion);
    });
  }

  void docSource_readerOfItemAtURL_waitsForBytes_completionHandler(
      const std::optional<std::string>& docSource, const std::optional<qx::URL>& url,
      const std::optional<qx::Array>& bytes, qx::Completion<> completion) override {
    if (auto source = sourceWith(docSource)) {
      source->_providedItemsOperationQueue()->addOperation(
          [=] { source->_readerOfItemAtURL_waitsForBytes(url, bytes); });
    }
    completion();
  }

  void docSource_writerWithID_didFinishWritingForURL_completionHandler(
      const std::optional<std::string>& docSource, const std::optional<std::string>& writerID,
      const std::optional<qx::URL>& url, qx::Completion<> completion) override {
    if (auto source = sourceWith(docSource)) {
      source->_providedItemsOperationQueue()->addOperation(
          [=] { source->_writerWithID_didFinishWritingForURL(named(writerID), url); });
    }
    completion();
  }

 private:
  /// A process that the service knows by its number has the name of its bundle here, where the
  /// user's bundles are known.
  static std::optional<std::string> named(const std::optional<std::string>& identifier) {
    constexpr std::string_view byNumber = "pid:";
    if (!identifier || !identifier->starts_with(byNumber)) return identifier;
    pid_t process = 0;
    const char* end = identifier->data() + identifier->size();
    const auto read = std::from_chars(identifier->data() + byNumber.size(), end, process);
    if (read.ec != std::errc() || read.ptr != end) return identifier;
    auto bundle = BundleIdentifierFromAuditToken(qx::AuditToken::ofProcess(process));
    return bundle ? bundle : identifier;
  }
  static SourcePointer sourceWith(const std::optional<std::string>& identifier) {
    return identifier ? Coordinator::shared().source(*identifier) : nullptr;
  }
};

void Coordinator::connect() {
  if (connection_ || sources_.empty()) return;
  auto connected = QXConduitConnection::connectToService(fileCoordinationServiceName);
  if (!connected) {
    if (!std::exchange(isMissed_, true)) {
      DS_LOG("[NOTICE] The file-coordination service is not there yet; waiting for it. Error: %@",
             connected.error());
    }
    return;
  }
  connection_ = std::move(*connected);
  hasAnswered_ = isSlow_ = false;
  connection_->setExportedInterface(
      QXConduitInterface::interfaceWithProtocol<QXFileCoordinationHost>());
  connection_->setExportedObject<QXFileCoordinationHost>(std::make_shared<CoordinationHost>());
  connection_->setRemoteObjectInterface(
      QXConduitInterface::interfaceWithProtocol<QXFileCoordination>());
  connection_->setInvalidationHandler([this, connection = connection_.get()] {
    queue_->async([this, connection] { lost(connection); });
  });
  connection_->resume();
  for (const auto& [identifier, source] : sources_) sendAdd(identifier, *source);
  if (std::exchange(isMissed_, false)) {
    DS_LOG("[NOTICE] The file-coordination service is there.");
  } else {
    DS_LOG("[INFO] Connected to the file-coordination service.");
  }
}

void Coordinator::lost(const QXConduitConnection* connection) {
  if (connection_.get() != connection) return;
  connection_.reset();
  sent_.clear();
  missing_.clear();
  releaseAll();
  isMissed_ = true;
  DS_LOG("[NOTICE] The connection to the file-coordination service was lost.");
  if (hasAnswered_) {
    connect();
  } else {
    // It hangs up on everybody; not to be asked in a circle.
    queue_->after(std::chrono::seconds(1), [this] { connect(); });
  }
}

void Coordinator::sendAdd(const std::string& identifier, QXDocSource& source) {
  const auto url = source._providedItemsURL();
  if (!url) {
    // One that had the identifier before may still be registered.
    sendRemove(identifier);
    return;
  }
  sent_.insert(identifier);
  const auto refused = [identifier](const qx::Error& error) {
    DS_LOG("[ERROR] Could not add doc source %@ to the file-coordination service. Error: %@",
           identifier, error);
  };
  service([this, identifier, refused](const qx::Error& error) {
    queue_->async([this, identifier] { release(identifier); });
    // A connection that is lost has a line of its own, and a next one is made.
    if (!error.is(QXConduitErrorDomain,
                  static_cast<std::int64_t>(qx::ConduitErrorCode::connectionLost))) {
      refused(error);
    }
  })
      ->addDocSource_providedItemsURL_completion(
          identifier, *url,
          [this, identifier, refused,
           connection = connection_.get()](const std::optional<qx::Error>& error) {
            if (error) refused(*error);
            const bool isMissing =
                error && error->is(QXStandardErrorDomain, qx::fileNoSuchFileError);
            queue_->async([this, connection, identifier, isMissing] {
              if (connection_.get() != connection) return;
              if (isMissing) awaitDirectory(identifier);
              hasAnswered_ = true;
              release(identifier);
            });
          });
}

/// Adds it again when the directory has appeared.
void Coordinator::awaitDirectory(const std::string& identifier) {
  const auto source = sources_.find(identifier);
  const auto url = source == sources_.end() ? std::nullopt : source->second->_providedItemsURL();
  if (!url || !url->path()) return;
  const auto addAgain = [this, identifier] {
    queue_->async([this, identifier] {
      const auto known = sources_.find(identifier);
      if (missing_.erase(identifier) == 0 || known == sources_.end() || !connection_) return;
      sendAdd(identifier, *known->second);
    });
  };
  missing_[identifier] = qx::DirectoryWatch::start(
      *url->path(), [addAgain](const std::string& /*name*/) { addAgain(); });
  // It may have come between the answer and the watch.
  if (qx::FileManager::fileExists(*url->path())) addAgain();
}

void Coordinator::sendRemove(const std::string& identifier) {
  if (!connection_ || sent_.erase(identifier) == 0) return;
  service({})->removeDocSource_completion(
      identifier, [identifier](const std::optional<qx::Error>& error) {
        if (!error) return;
        DS_LOG(
            "[NOTICE] Could not remove doc source %@ from the file-coordination service. "
            "Error: %@",
            identifier, *error);
      });
}

}  // namespace

void QXFileCoordinator::_addDocSource(const std::shared_ptr<QXDocSource>& source) {
  Coordinator::shared().add(source);
}

void QXFileCoordinator::leave() { Coordinator::shared().leave(); }

void QXFileCoordinator::_removeDocSource(const std::shared_ptr<QXDocSource>& source) {
  Coordinator::shared().remove(source);
}
