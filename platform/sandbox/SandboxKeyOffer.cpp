// The connection over which platformd has the user's key directory: it lasts as long as both
// processes do, and everything about it happens on one serial queue.

#include "platform/sandbox/SandboxKeyOffer.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/conduit/ServiceWatch.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxKey.h"
#include "platform/sandbox/SandboxProtocol.h"

namespace qx::SandboxKeyOffer {
namespace {

class Offer {
 public:
  void begin() {
    queue_->async([this] {
      watch_.emplace(std::string(sandboxServiceName),
                     [this] { queue_->async([this] { connect(); }); });
      connect();
    });
  }

 private:
  void connect() {
    if (connection_) return;
    auto connected = QXConduitConnection::connectToService(std::string(sandboxServiceName));
    if (!connected) return;
    const auto store = SandboxKeyStore::own();
    if (!store || !store->readOrMakeKey()) {
      DS_LOG("[ERROR] There is no sandbox key: tokens cannot be redeemed.");
      return;
    }
    connection_ = std::move(*connected);
    hasAnswered_ = false;
    connection_->setRemoteObjectInterface(QXConduitInterface::interfaceWithProtocol<QXSandbox>());
    connection_->setInvalidationHandler([this, connection = connection_.get()] {
      queue_->async([this, connection] { lost(connection); });
    });
    connection_->resume();
    connection_->remoteObjectProxyWithErrorHandler<QXSandbox>({})->useKeyDirectory_completion(
        store->sharedDirectory(), [this](const std::optional<Error>& error) {
          if (error) DS_LOG("[ERROR] The sandbox key was not taken. Error: %@", *error);
          queue_->async([this] { hasAnswered_ = true; });
        });
  }

  void lost(const QXConduitConnection* connection) {
    if (connection_.get() != connection) return;
    connection_.reset();
    // One that hangs up on everybody is not to be asked in a circle.
    const std::chrono::seconds pause(hasAnswered_ ? 0 : 1);
    queue_->after(pause, [this] { connect(); });
  }

  const std::shared_ptr<WorkQueue> queue_ = WorkQueue::serial("SandboxKeyOffer queue");
  // On the queue.
  std::optional<ServiceWatch> watch_;
  std::shared_ptr<QXConduitConnection> connection_;
  bool hasAnswered_ = false;
};

}  // namespace

void begin() {
  static auto& offer = *new Offer;
  offer.begin();
}

}  // namespace qx::SandboxKeyOffer
