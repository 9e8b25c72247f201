// The tests of the extension host; the program is also the extension that it starts. Its bundle's
// directory says how it behaves: a file "deaf" lets it ignore the end of its connection, a file
// "stubborn" SIGTERM as well.

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/extension/Trial.h"

namespace {

class TrialProvider final : public TrialVendor {
 public:
  explicit TrialProvider(QXConduitConnection& connection) : connection_(connection) {}

  void processCompletion(qx::Completion<std::int64_t> reply) override { reply(getpid()); }
  void giveUpRequest_completion(const std::optional<qx::UUID>& request,
                                qx::Completion<qx::Error> /*reply*/) override {
    connection_.endRequest(*request);
  }
  void hangCompletion(qx::Completion<> /*reply*/) override {}

 private:
  QXConduitConnection& connection_;
};

[[noreturn]] void provide(int socket) {
  if (std::filesystem::exists("stubborn")) signal(SIGTERM, SIG_IGN);
  auto connection = QXConduitConnection::overSocket(qx::FileDescriptor(socket));
  connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<TrialVendor>());
  connection->setExportedObject<TrialVendor>(std::make_shared<TrialProvider>(*connection));
  connection->setRequestHandler([](bool, const qx::UUID&) {});
  connection->setInvalidationHandler([] {
    if (!std::filesystem::exists("deaf")) _exit(0);
  });
  connection->resume();
  for (;;) pause();
}

}  // namespace

int main(int count, char** arguments) {
  if (const char* socket = std::getenv("QX_EXTENSION_CONNECTION")) provide(std::atoi(socket));
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
