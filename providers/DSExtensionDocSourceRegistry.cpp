// The registry of provider extensions: one instance for each identifier, kept current.
//
// A refresh holds the refresh queue suspended from its start until the instances it made are
// registered, so refreshes never overlap; the table itself changes in one barrier on the registry
// queue, and look-ups are synchronous blocks on that queue.

#include <map>
#include <mutex>
#include <utility>

#include "platform/log/Log.h"
#include "platform/queue/Once.h"
#include "providers/DSExtensionDocSource.h"
#include "providers/DSExtensionDocSourceRegistry.h"
#include "providers/_QXDocSourceExtensionHostContext.h"

DSExtensionDocSource::Registry& DSExtensionDocSource::registry() {
  static auto& registry = *new Registry;
  return registry;
}

void DSExtensionDocSource::createInstancesCompletion(Callback completion) {
  Registry& shared = registry();
  bool answerNow = true;
  shared.startUp.run([&] {
    answerNow = false;
    {
      std::lock_guard lock(shared.pendingMutex);
      shared.pendingCompletion = completion;
    }
    shared.matchingContext = QXExtension::beginMatchingExtensionsWithAttributes_completion(
        {{QXExtensionPointName, docSourceExtensionPoint}},
        [](std::vector<std::shared_ptr<QXExtension>> extensions,
           const std::optional<qx::Error>& /*error*/) {
          updateProviderList(std::move(extensions));
        });
  });
  if (completion && answerNow) qx::WorkQueue::global().async(std::move(completion));
}

void DSExtensionDocSource::updateProviderList(
    std::vector<std::shared_ptr<QXExtension>> extensions) {
  registry().refreshQueue->async([extensions = std::move(extensions)] {
    registry().refreshQueue->suspend();
    DS_LOG("[INFO] Updating provider list.");
    registry().registryQueue->barrierAsync([extensions] { refresh(extensions); });
  });
}

void DSExtensionDocSource::refresh(const std::vector<std::shared_ptr<QXExtension>>& extensions) {
  Registry& shared = registry();
  std::vector<std::shared_ptr<DSExtensionDocSource>> created;
  Registry::Table leftover = shared.instances;
  Registry::Table next;
  for (const auto& extension : extensions) {
    const auto identifier = extension->identifier();
    if (!identifier) {
      DS_LOG("[NOTICE] Doc source extension %@ has no identifier. Ignoring.", extension);
      continue;
    }
    std::shared_ptr<DSExtensionDocSource> instance;
    auto known = leftover.find(*identifier);
    if (known != leftover.end() && known->second->extension()->isEqual(*extension)) {
      instance = std::move(known->second);
      leftover.erase(known);
    } else {
      instance = initWithExtension(extension);
      if (instance) created.push_back(instance);
    }
    if (instance) next[*identifier] = std::move(instance);
  }
  for (const auto& [identifier, instance] : leftover) instance->unregisterFromFileCoordinator();
  if (shared.instances != next) shared.instances = std::move(next);

  qx::WorkQueue::global().async([created = std::move(created)] {
    refreshOperationsQueueRegisterProviders_completion(created, [] { refreshEnded(); });
  });
}

void DSExtensionDocSource::refreshEnded() {
  Registry& shared = registry();
  shared.refreshQueue->resume();
  Callback pending;
  {
    std::lock_guard lock(shared.pendingMutex);
    pending = std::exchange(shared.pendingCompletion, nullptr);
  }
  if (pending) pending();
}

void DSExtensionDocSource::refreshOperationsQueueRegisterProviders_completion(
    std::vector<std::shared_ptr<DSExtensionDocSource>> providers, Callback completion) {
  if (providers.empty()) {
    if (completion) qx::WorkQueue::global().async(std::move(completion));
    return;
  }
  constexpr std::int32_t attempts = 3;
  auto first = providers.front();
  first->registerWithFileCoordinatorRetryCount_completion(
      attempts, [first, providers = std::move(providers), completion = std::move(completion)](
                    const std::optional<qx::Error>& error) mutable {
        if (error) {
          DS_LOG("[ERROR] Could not register doc source %@. Error: %@", first->identifier(), error);
        }
        providers.erase(providers.begin());
        refreshOperationsQueueRegisterProviders_completion(std::move(providers),
                                                           std::move(completion));
      });
}

std::shared_ptr<DSExtensionDocSource> DSExtensionDocSource::providerWithIdentifier(
    const std::optional<std::string>& identifier) {
  if (!identifier) return nullptr;
  return registry().registryQueue->sync([&]() -> std::shared_ptr<DSExtensionDocSource> {
    const auto& instances = registry().instances;
    auto found = instances.find(*identifier);
    return found == instances.end() ? nullptr : found->second;
  });
}

qx::Dictionary DSExtensionDocSource::providersInfo() {
  return registry().registryQueue->sync([] {
    qx::Dictionary listing;
    for (const auto& [identifier, instance] : registry().instances) {
      // The pairs of an instance end at the first value that is absent.
      qx::Dictionary information;
      if (auto url = instance->_providedItemsURL()) {
        information.emplace("documentStorageURL", *url);
        if (auto reactor = instance->_fileReactorID()) {
          information.emplace("providerIdentifier", *reactor);
        }
      }
      listing.emplace(identifier, std::move(information));
    }
    return listing;
  });
}

void DSExtensionDocSource::setDocSourceAccessControl(
    const std::shared_ptr<DSAccessControl>& accessControl) {
  registry().accessControl = accessControl;
}
