#include "platform/conduit/QXConduitListener.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "platform/conduit/ServiceSocket.h"
#include "platform/identity/AuditToken.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/log/Log.h"
#include "platform/queue/Clock.h"
#include "platform/queue/Reactor.h"

namespace {

/// What one connection takes of the room. Its peer is looked at only when there is little left.
class Share {
 public:
  Share(std::shared_ptr<qx::SandboxRoom> room, const qx::AuditToken& peer)
      : room_(std::move(room)), peer_(peer) {
    take({0, 0});
  }
  ~Share() {
    room_->descriptors -= held_.descriptors;
    room_->bytes -= held_.bytes;
  }
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  bool mayKeep(const qx::conduit::ConduitChannel::Kept& kept) {
    take(kept);
    return fits();
  }
  bool fits() const {
    if (room_->isLeft()) return true;
    const auto process = qx::ProcessDirectory::open(peer_);
    return process && process->isOutsideOfSandboxes();
  }

 private:
  void take(qx::conduit::ConduitChannel::Kept kept) {
    ++kept.descriptors;  // the connection itself
    room_->descriptors += kept.descriptors - held_.descriptors;
    room_->bytes += kept.bytes - held_.bytes;
    held_ = kept;
  }

  const std::shared_ptr<qx::SandboxRoom> room_;
  const qx::AuditToken peer_;
  qx::conduit::ConduitChannel::Kept held_;
};

}  // namespace

/// What the reactor and the connections hold of a listener.
class QXConduitListener::State final : public qx::ReactorHandler,
                                       public std::enable_shared_from_this<State> {
 public:
  State(QXConduitListener& listener, std::string serviceName)
      : listener_(&listener), serviceName_(std::move(serviceName)) {
    auto socket = qx::listenOnServiceSocket(serviceName_);
    if (socket) {
      socket_ = std::move(*socket);
    } else {
      DS_LOG("[ERROR] Cannot listen on %@. Error: %@", serviceName_, socket.error());
    }
  }

  void setDelegate(const std::shared_ptr<QXConduitListenerDelegate>& delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = delegate;
  }

  void boundSandboxes(std::shared_ptr<qx::SandboxRoom> room) { room_ = std::move(room); }

  void resume() {
    {
      std::lock_guard lock(mutex_);
      if (!socket_.socket || source_ != 0 || stopped_) return;
      source_ = qx::Reactor::shared().add(socket_.socket.get(), EPOLLIN, shared_from_this());
    }
    sd_notify(0, "READY=1");
  }

  void stop() {
    std::unordered_set<std::shared_ptr<QXConduitConnection>> connections;
    // Waits for a delegate that is being asked; afterwards nobody uses the listener any more.
    std::lock_guard accepting(acceptMutex_);
    {
      std::lock_guard lock(mutex_);
      stopped_ = true;
      if (source_ != 0) qx::Reactor::shared().remove(source_, socket_.socket.get());
      if (socket_.socket && socket_.boundHere) qx::removeServiceSocket(serviceName_);
      connections.swap(connections_);
    }
    for (const auto& connection : connections) connection->invalidate();
  }

  void ready(std::uint32_t /*events*/) override {
    constexpr int most = 16;
    for (int i = 0; i < most; ++i) {
      qx::FileDescriptor socket(
          accept4(socket_.socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (socket) {
        // What a peer has sent may take its time to be closed (SO_LINGER, socket(7), of a socket
        // that was handed over): others are accepted meanwhile.
        if (const auto refused = accept(std::move(socket))) return arm();
      } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // Out of descriptors: who waits in the backlog is taken when there are some again.
        DS_LOG("[ERROR] Cannot accept a connection to %@: too many open files.", serviceName_);
        qx::Clock::current().schedule(std::chrono::milliseconds(100),
                                      [self = shared_from_this()] { self->arm(); });
        return;
      } else if (errno != EINTR && errno != ECONNABORTED) {
        break;
      }
    }
    arm();
  }

 private:
  void arm() {
    std::lock_guard lock(mutex_);
    if (!stopped_) qx::Reactor::shared().arm(source_, socket_.socket.get(), EPOLLIN);
  }

  /// The connection where it is not served: to be let go of when nobody waits for that.
  std::shared_ptr<QXConduitConnection> accept(qx::FileDescriptor socket) {
    // Let go after the lock: it may own the listener, and this may be the last reference to it.
    std::shared_ptr<QXConduitListenerDelegate> delegate;
    std::lock_guard accepting(acceptMutex_);
    auto connection = QXConduitConnection::overSocket(std::move(socket));
    if (room_) {
      auto share = std::make_shared<Share>(room_, connection->auditToken());
      if (!share->fits()) {
        DS_LOG("[INFO] Dropping a connection of PID %d: sandboxes have too much.",
               connection->processIdentifier());
        return connection;
      }
      connection->setAllowance([share](const auto& kept) { return share->mayKeep(kept); });
    }
    connection->forget_ = [self = weak_from_this(), ended = std::weak_ptr(connection)] {
      if (auto state = self.lock()) state->forget(ended.lock());
    };
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return connection;
      delegate = delegate_.lock();
      connections_.insert(connection);
    }
    if (delegate && delegate->listener_shouldAcceptNewConnection(*listener_, connection)) {
      return nullptr;
    }
    forget(connection);
    return connection;
  }

  void forget(const std::shared_ptr<QXConduitConnection>& connection) {
    std::lock_guard lock(mutex_);
    connections_.erase(connection);
  }

  QXConduitListener* const listener_;
  const std::string serviceName_;
  qx::ListeningSocket socket_;
  std::shared_ptr<qx::SandboxRoom> room_;  // set before resume()
  std::mutex acceptMutex_;
  std::mutex mutex_;
  // Under the mutex.
  std::weak_ptr<QXConduitListenerDelegate> delegate_;
  qx::Reactor::SourceID source_ = 0;
  bool stopped_ = false;
  std::unordered_set<std::shared_ptr<QXConduitConnection>> connections_;
};

QXConduitListener::QXConduitListener(std::string serviceName)
    : state_(std::make_shared<State>(*this, std::move(serviceName))) {}

QXConduitListener::~QXConduitListener() { state_->stop(); }

void QXConduitListener::setDelegate(const std::shared_ptr<QXConduitListenerDelegate>& delegate) {
  state_->setDelegate(delegate);
}

void QXConduitListener::boundSandboxes(std::shared_ptr<qx::SandboxRoom> room) {
  state_->boundSandboxes(std::move(room));
}

void QXConduitListener::resume() { state_->resume(); }
