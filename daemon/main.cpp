// docsourced: the document broker.

#include <csignal>
#include <cstdio>
#include <memory>
#include <span>

#include "acl/DSAccessControlStore.h"
#include "daemon/DSServer.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/Memory.h"
#include "platform/base/ProgramOptions.h"
#include "platform/conduit/ServiceSocket.h"
#include "platform/coordination/QXFileCoordinator.h"
#include "platform/extension/ExtensionHost.h"
#include "platform/log/Log.h"
#include "platform/queue/RunLoop.h"
#include "platform/sandbox/SandboxKeyOffer.h"

int main(int argc, char* argv[]) {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  if (const auto status =
          qx::answerOptions(arguments, "Brokers the documents of the user that runs it.")) {
    return *status;
  }
  qx::fillStandardDescriptors();
  qx::raiseDescriptorLimit();
  qx::keepFreeMemorySmall();
  qx::RunLoop::main().stopOnSignals({SIGTERM, SIGINT});
  if (auto taken = qx::claimService(dsDaemonServiceName)) {
    std::fprintf(stderr, "docsourced: %s\n", taken->description().c_str());
    return 1;
  }

  DS_LOG("[NOTICE] %s starting.", arguments.front());
  DS_LOG("[DEBUG] Debug logging enabled.");
  auto server = std::make_shared<DSServer>();
  const auto store = DSAccessControlStore::sharedStore();
  server->setAccessControlStore(store);
  qx::SandboxKeyOffer::begin();
  server->startCompletion(nullptr);
  qx::RunLoop::main().run();

  // There are no new calls after this, no extension is left running, and no write is under way.
  server.reset();
  QXFileCoordinator::leave();
  qx::ExtensionHost::shared().shutdown();
  store->syncQueue()->sync([] {});
  return 0;
}
