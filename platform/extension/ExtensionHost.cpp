// The extension host: which extensions are installed, and which of them run.

#include "platform/extension/ExtensionHost.h"

#include <algorithm>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"

QXExtensionPoint::QXExtensionPoint(
    std::string pointName, std::function<std::shared_ptr<QXExtensionContext>()> contextMaker,
    std::shared_ptr<const QXConduitInterface> host,
    std::shared_ptr<const QXConduitInterface> vendor)
    : name(std::move(pointName)),
      makeContext(std::move(contextMaker)),
      hostProtocol(std::move(host)),
      vendorProtocol(std::move(vendor)) {
  qx::ExtensionHost::shared().addPoint(*this);
}

std::string logText(const QXExtension& extension) {
  return extension.identifier().value_or("(null)") + " (" + extension.bundlePath() + ")";
}

namespace qx {
namespace {

/// The name of the extension point of a bundle, or null.
const std::string* pointName(const Bundle& bundle) {
  const auto* extension = find<Dictionary>(bundle.info, "QXExtension");
  return extension ? find<std::string>(*extension, QXExtensionPointName) : nullptr;
}

bool matches(const Bundle& bundle, const Dictionary& attributes) {
  const auto* extension = find<Dictionary>(bundle.info, "QXExtension");
  return extension &&
         std::all_of(attributes.begin(), attributes.end(), [extension](const auto& attribute) {
           const Value* value = find(*extension, attribute.first);
           return value && *value == attribute.second;
         });
}

class InstalledExtension final : public QXExtension {
 public:
  explicit InstalledExtension(std::shared_ptr<const Bundle> bundle) : bundle_(std::move(bundle)) {}

  std::optional<std::string> identifier() const override { return bundle_->identifier; }
  std::string bundlePath() const override { return bundle_->path; }

  bool isEqual(const QXExtension& other) const override {
    const auto* installed = dynamic_cast<const InstalledExtension*>(&other);
    return installed && isSameInstallation(*bundle_, *installed->bundle_);
  }

  void beginExtensionRequestWithInputItems_completion(const std::optional<Array>& /*inputItems*/,
                                                      Completion<UUID, Error> completion) override {
    auto request = ExtensionHost::shared().beginRequest(bundle_);
    if (request) {
      completion(*request, std::nullopt);
    } else {
      completion(std::nullopt, request.error());
    }
  }

  void cancelExtensionRequestWithIdentifier(const std::optional<UUID>& request) override {
    if (request) ExtensionHost::shared().endRequest(*bundle_, *request);
  }

  std::shared_ptr<QXExtensionContext> _extensionContextForUUID(
      const std::optional<UUID>& request) override {
    return request ? ExtensionHost::shared().context(*bundle_, *request) : nullptr;
  }

 private:
  const std::shared_ptr<const Bundle> bundle_;
};

}  // namespace

bool isSameInstallation(const Bundle& a, const Bundle& b) {
  return a.identifier == b.identifier && a.path == b.path && a.infoStamp == b.infoStamp;
}

/// One matching that goes on: looks at the installed bundles when it is told to, and calls back
/// when those that match are not the same any more.
class ExtensionHost::Matching : public std::enable_shared_from_this<Matching> {
 public:
  Matching(Dictionary attributes, QXExtension::MatchingCallback callback)
      : attributes_(std::move(attributes)), callback_(std::move(callback)) {}

  void update() {
    queue_->async([self = shared_from_this()] { self->look(); });
  }

 private:
  void look() {
    std::vector<std::shared_ptr<QXExtension>> extensions;
    for (auto& bundle : BundleCatalog::shared().bundles(BundleKind::extension)) {
      if (matches(*bundle, attributes_)) {
        extensions.push_back(std::make_shared<InstalledExtension>(std::move(bundle)));
      }
    }
    const bool same =
        looked_ && std::equal(extensions.begin(), extensions.end(), last_.begin(), last_.end(),
                              [](const auto& a, const auto& b) { return a->isEqual(*b); });
    looked_ = true;
    if (same) return;
    last_ = extensions;
    callback_(std::move(extensions), std::nullopt);
  }

  const Dictionary attributes_;
  const QXExtension::MatchingCallback callback_;
  const std::shared_ptr<WorkQueue> queue_ = WorkQueue::serial("Extension matching");
  // Of the queue.
  bool looked_ = false;
  std::vector<std::shared_ptr<QXExtension>> last_;
};

ExtensionHost& ExtensionHost::shared() {
  static auto& host = *new ExtensionHost;
  return host;
}

ExtensionHost::ExtensionHost() = default;

void ExtensionHost::addPoint(const QXExtensionPoint& point) {
  std::lock_guard lock(mutex_);
  points_.emplace(point.name, &point);
}

std::shared_ptr<void> ExtensionHost::beginMatching(const Dictionary& attributes,
                                                   QXExtension::MatchingCallback callback) {
  auto matching = std::make_shared<Matching>(attributes, std::move(callback));
  bool first = false;
  {
    std::lock_guard lock(mutex_);
    first = matchings_.empty();
    matchings_.push_back(matching);
  }
  if (first) {
    BundleCatalog::shared().observeChanges([this] {
      retireUninstalled();
      std::vector<std::shared_ptr<Matching>> matchings;
      {
        std::lock_guard lock(mutex_);
        matchings = matchings_;
      }
      for (const auto& each : matchings) each->update();
    });
  }
  matching->update();
  return matching;
}

std::shared_ptr<ExtensionProcess> ExtensionHost::processOf(const Bundle& bundle) {
  std::lock_guard lock(mutex_);
  auto found = processes_.find(bundle.path);
  if (found == processes_.end() || !isSameInstallation(found->second->bundle(), bundle)) {
    return nullptr;
  }
  return found->second;
}

Result<UUID> ExtensionHost::beginRequest(const std::shared_ptr<const Bundle>& asked) {
  if (auto process = processOf(*asked)) {
    if (auto request = process->beginRequest()) return *request;
  }
  std::lock_guard starting(starting_);
  // Who was replaced and has not been told yet means what is installed in its place.
  const auto installed = BundleCatalog::shared().bundles(BundleKind::extension);
  const auto found = std::find_if(installed.begin(), installed.end(), [&asked](const auto& each) {
    return each->identifier == asked->identifier && each->path == asked->path;
  });
  const bool isInstalled = found != installed.end();
  const auto& bundle = isInstalled ? *found : asked;
  if (auto process = processOf(*bundle)) {
    if (auto request = process->beginRequest()) return *request;
  }
  const QXExtensionPoint* point = nullptr;
  {
    std::lock_guard lock(mutex_);
    const std::string* name = pointName(*bundle);
    auto known = name ? points_.find(*name) : points_.end();
    if (known != points_.end()) point = known->second;
    if (shutDown_) {
      return extensionError(ExtensionErrorCode::couldNotLaunch, bundle->identifier);
    }
  }
  if (!isInstalled || !point) {
    return extensionError(ExtensionErrorCode::notInstalled, bundle->identifier);
  }
  auto process = ExtensionProcess::start(bundle, *point);
  if (!process) return process.error();
  std::shared_ptr<ExtensionProcess> replaced;
  {
    std::lock_guard lock(mutex_);
    replaced = std::exchange(processes_[bundle->path], *process);
    std::erase_if(leaving_, [](const auto& each) { return each.expired(); });
    if (replaced) leaving_.push_back(replaced);
  }
  if (replaced) replaced->retire();
  if (auto request = (*process)->beginRequest()) return *request;
  return extensionError(ExtensionErrorCode::couldNotLaunch, bundle->identifier);
}

/// Null when the request is not open. A process that was replaced keeps its requests.
std::shared_ptr<ExtensionProcess> ExtensionHost::processWithRequest(const Bundle& bundle,
                                                                    const UUID& request) {
  std::vector<std::shared_ptr<ExtensionProcess>> processes;  // released outside the lock
  std::lock_guard lock(mutex_);
  auto current = processes_.find(bundle.path);
  if (current != processes_.end()) processes.push_back(current->second);
  for (const auto& leaving : leaving_) {
    if (auto process = leaving.lock()) processes.push_back(std::move(process));
  }
  auto found = std::find_if(processes.begin(), processes.end(), [&request](const auto& process) {
    return process->context(request) != nullptr;
  });
  return found == processes.end() ? nullptr : *found;
}

void ExtensionHost::endRequest(const Bundle& bundle, const UUID& request) {
  if (auto process = processWithRequest(bundle, request)) process->endRequest(request);
}

std::shared_ptr<QXExtensionContext> ExtensionHost::context(const Bundle& bundle,
                                                           const UUID& request) {
  auto process = processWithRequest(bundle, request);
  return process ? process->context(request) : nullptr;
}

void ExtensionHost::forget(const ExtensionProcess& process) {
  std::shared_ptr<ExtensionProcess> last;  // released outside the lock
  std::lock_guard lock(mutex_);
  auto found = processes_.find(process.bundle().path);
  if (found == processes_.end() || found->second.get() != &process) return;
  last = std::move(found->second);
  processes_.erase(found);
}

/// Processes of extensions that are not installed any more end with their last request.
void ExtensionHost::retireUninstalled() {
  const auto installed = BundleCatalog::shared().bundles(BundleKind::extension);
  std::vector<std::shared_ptr<ExtensionProcess>> running;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [path, process] : processes_) running.push_back(process);
  }
  for (const auto& process : running) {
    const bool isInstalled = std::any_of(
        installed.begin(), installed.end(),
        [&process](const auto& each) { return isSameInstallation(*each, process->bundle()); });
    if (!isInstalled) process->retire();
  }
}

void ExtensionHost::shutdown() {
  std::vector<std::shared_ptr<ExtensionProcess>> running;
  std::lock_guard starting(starting_);
  {
    std::lock_guard lock(mutex_);
    shutDown_ = true;
    for (const auto& [path, process] : processes_) running.push_back(process);
    for (const auto& leaving : leaving_) {
      if (auto process = leaving.lock()) running.push_back(std::move(process));
    }
  }
  for (const auto& process : running) process->end();
  for (const auto& process : running) process->waitForExit();
}

}  // namespace qx

std::shared_ptr<void> QXExtension::beginMatchingExtensionsWithAttributes_completion(
    const qx::Dictionary& attributes, MatchingCallback callback) {
  return qx::ExtensionHost::shared().beginMatching(attributes, std::move(callback));
}
