#pragma once

#include <memory>
#include <string>

#include "platform/conduit/QXConduitListener.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "tests/support/Mailbox.h"

namespace qx::test {

/// Stands in for the file-coordination service: notes who is added and removed.
class CoordinationRecorder {
 public:
  CoordinationRecorder()
      : delegate_(std::make_shared<Delegate>()), listener_(fileCoordinationServiceName) {
    listener_.setDelegate(delegate_);
    listener_.resume();
  }

  /// "add identifier", "remove identifier".
  Mailbox<std::string>& events() { return delegate_->service->events; }

 private:
  struct Service final : QXFileCoordination {
    void addDocSource_providedItemsURL_completion(const std::optional<std::string>& identifier,
                                                  const std::optional<URL>& /*url*/,
                                                  Completion<Error> completion) override {
      events.put("add " + identifier.value_or("(null)"));
      completion(std::nullopt);
    }
    void removeDocSource_completion(const std::optional<std::string>& identifier,
                                    Completion<Error> completion) override {
      events.put("remove " + identifier.value_or("(null)"));
      completion(std::nullopt);
    }
    void coordinateReadingItemAtURL_completion(const std::optional<URL>& /*url*/,
                                               Completion<Error> completion) override {
      completion(std::nullopt);
    }
    void didFinishWritingItemAtURL_completion(const std::optional<URL>& /*url*/,
                                              Completion<Error> completion) override {
      completion(std::nullopt);
    }
    Mailbox<std::string> events;
  };
  struct Delegate final : QXConduitListenerDelegate {
    bool listener_shouldAcceptNewConnection(
        QXConduitListener& /*listener*/,
        const std::shared_ptr<QXConduitConnection>& connection) override {
      connection->setExportedInterface(
          QXConduitInterface::interfaceWithProtocol<QXFileCoordination>());
      connection->setExportedObject<QXFileCoordination>(service);
      connection->resume();
      return true;
    }
    std::shared_ptr<Service> service = std::make_shared<Service>();
  };

  std::shared_ptr<Delegate> delegate_;
  QXConduitListener listener_;
};

}  // namespace qx::test
