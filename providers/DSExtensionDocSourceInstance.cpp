// One provider extension: what it is, and the queues that guard what is known of it.

#include <utility>

#include "platform/extension/CatalogExtensionProxy.h"
#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"

namespace {

/// Returns the provided-items directory according to the extension's bundle; absent, with a line in
/// the log, when the bundle does not tell.
std::optional<qx::URL> providedItemsURLOf(const std::shared_ptr<QXExtension>& extension) {
  const auto record = CatalogExtensionProxy::catalogProxyForIdentifier(extension->identifier());
  if (!record) {
    DS_LOG("[ERROR] Cannot instantiate a Catalog Services proxy for %@", extension);
    return std::nullopt;
  }
  const auto* dictionary =
      record->objectForInfoDictionaryKey_ofClass<qx::Dictionary>("QXExtension");
  if (!dictionary) {
    DS_LOG("[ERROR] Cannot read QXExtension dictionary from the Info.plist of %@", extension);
    return std::nullopt;
  }
  const auto* group = qx::find<std::string>(*dictionary, "QXExtensionDocSourceDocumentGroup");
  if (!group) {
    DS_LOG("[ERROR] Cannot read QXExtensionDocSourceDocumentGroup key from the Info.plist of %@",
           extension);
    return std::nullopt;
  }
  const auto containers = record->groupContainerURLs();
  const auto container = containers.find(*group);
  if (container == containers.end()) {
    DS_LOG("[ERROR] Cannot deduce the provided items URL for %@", extension);
    return std::nullopt;
  }
  return container->second.URLByAppendingPathComponent_isDirectory("Doc Source Storage", true);
}

}  // namespace

std::shared_ptr<DSExtensionDocSource> DSExtensionDocSource::initWithExtension(
    const std::shared_ptr<QXExtension>& extension) {
  std::shared_ptr<DSExtensionDocSource> instance(new DSExtensionDocSource);
  const std::string identifier = qx::logText(extension->identifier());

  auto operationQueue = std::make_shared<qx::OperationQueue>();
  operationQueue->setName("Operation queue for " + identifier);
  instance->setOperationQueue(std::move(operationQueue));
  instance->setMemberQueue(
      qx::WorkQueue::concurrent("DSExtensionDocSource concurrent member queue for " + identifier));
  instance->setMemberQueueExtension(extension);
  instance->setMemberQueueIdentifier(extension->identifier());
  instance->setMemberQueueProvidedItemsURL(providedItemsURLOf(extension));
  return instance;
}

std::shared_ptr<QXExtension> DSExtensionDocSource::extension() const {
  return memberQueue()->sync([this] { return memberQueueExtension(); });
}

void DSExtensionDocSource::setExtension(std::shared_ptr<QXExtension> extension) {
  memberQueue()->barrierAsync([self = shared_from_this(), extension = std::move(extension)] {
    self->setMemberQueueExtension(extension);
  });
}

std::optional<std::string> DSExtensionDocSource::identifier() const {
  return memberQueue()->sync([this] {
    return memberQueueIdentifier() ? memberQueueIdentifier() : memberQueueExtension()->identifier();
  });
}

void DSExtensionDocSource::setIdentifier(std::optional<std::string> identifier) {
  memberQueue()->barrierAsync([self = shared_from_this(), identifier = std::move(identifier)] {
    self->setMemberQueueIdentifier(identifier);
  });
}

std::optional<qx::URL> DSExtensionDocSource::providedItemsURL() const {
  return memberQueue()->sync([this] { return memberQueueProvidedItemsURL(); });
}

void DSExtensionDocSource::setProvidedItemsURL(std::optional<qx::URL> url) {
  memberQueue()->barrierAsync([self = shared_from_this(), url = std::move(url)] {
    self->setMemberQueueProvidedItemsURL(url);
  });
}

std::optional<qx::URL> DSExtensionDocSource::_providedItemsURL() { return providedItemsURL(); }

std::shared_ptr<qx::OperationQueue> DSExtensionDocSource::_providedItemsOperationQueue() {
  return operationQueue();
}

std::optional<std::string> DSExtensionDocSource::_fileReactorID() { return identifier(); }
