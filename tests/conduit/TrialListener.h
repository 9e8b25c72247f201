#pragma once

#include "platform/conduit/QXConduitListener.h"
#include "tests/conduit/Trial.h"

namespace qx::test {

/// Exports one object to every connection, unless it is told to refuse them.
class TrialDelegate final : public QXConduitListenerDelegate {
 public:
  bool listener_shouldAcceptNewConnection(
      QXConduitListener&, const std::shared_ptr<QXConduitConnection>& connection) override {
    asked.pass();
    if (refuses) return false;
    auto object = std::make_shared<TrialObject>();
    objects.put(object);
    connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<Trial>());
    connection->setExportedObject<Trial>(std::move(object));
    connection->setInvalidationHandler([gate = ended] { gate->pass(); });
    connection->resume();
    return true;
  }

  bool refuses = false;
  Gate asked;
  std::shared_ptr<Gate> ended = std::make_shared<Gate>();
  Mailbox<std::weak_ptr<TrialObject>> objects;
};

struct TrialListener {
  explicit TrialListener(const std::string& name) : listener(name) {
    listener.setDelegate(delegate);
  }
  std::shared_ptr<TrialDelegate> delegate = std::make_shared<TrialDelegate>();
  QXConduitListener listener;
};

/// Whether a call to the service is answered.
inline bool callsThrough(const std::string& name) {
  auto connection = QXConduitConnection::connectToService(name);
  if (!connection) return false;
  auto outcome = std::make_shared<Mailbox<bool>>();
  (*connection)->setRemoteObjectInterface(QXConduitInterface::interfaceWithProtocol<Trial>());
  (*connection)->resume();
  (*connection)
      ->remoteObjectProxyWithErrorHandler<Trial>([outcome](const Error&) { outcome->put(false); })
      ->echo_completion("hello", [outcome](const auto& text) { outcome->put(text == "hello"); });
  return outcome->waitForCount(1) && outcome->all().front();
}

}  // namespace qx::test
