#include "platform/platformd/SandboxService.h"

#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"

namespace {

class SandboxClient final : public QXSandbox {
 public:
  explicit SandboxClient(pid_t process) : process_(process) {}

  void consumeExtension_completion(
      const std::optional<qx::Bytes>& token,
      qx::Completion<qx::Error, qx::SharedDescriptor> completion) override {
    if (!token) {
      completion(DSInvalidParameterError("token", std::nullopt), std::nullopt);
      return;
    }
    auto descriptor = qx::consumeSandboxExtension(
        std::string_view(reinterpret_cast<const char*>(token->data()), token->size()));
    if (!descriptor) {
      DS_LOG("[NOTICE] PID %d presented a sandbox extension that is not good. Error: %@", process_,
             descriptor.error());
      completion(descriptor.error(), std::nullopt);
      return;
    }
    completion(std::nullopt, std::make_shared<const qx::FileDescriptor>(std::move(*descriptor)));
  }

 private:
  const pid_t process_;
};

}  // namespace

std::shared_ptr<SandboxService> SandboxService::make() {
  auto service = std::make_shared<SandboxService>();
  service->listener_.setDelegate(service);
  return service;
}

SandboxService::SandboxService() : listener_(std::string(qx::sandboxServiceName)) {}

bool SandboxService::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<QXSandbox>());
  connection->setExportedObject<QXSandbox>(
      std::make_shared<SandboxClient>(connection->processIdentifier()));
  connection->resume();
  return true;
}
