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
    ExtensionHost::shared().beginRequest(bundle_, std::move(completion));
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

bool keepsRunning(const Bundle& bundle) {
  const auto* extension = find<Dictionary>(bundle.info, "QXExtension");
  const auto* keeps = extension ? find<bool>(*extension, "QXExtensionKeepsRunning") : nullptr;
  return keeps && *keeps;
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
        if (keepsRunning(*bundle)) ExtensionHost::shared().keepRunning(*bundle);
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
  auto found = places_.find(bundle.path);
  if (found == places_.end() || !found->second.process ||
      !isSameInstallation(found->second.process->bundle(), bundle)) {
    return nullptr;
  }
  return found->second.process;
}

void ExtensionHost::beginRequest(const std::shared_ptr<const Bundle>& asked,
                                 Completion<UUID, Error> answer) {
  if (auto process = processOf(*asked)) {
    if (auto request = process->beginRequest()) {
      answer(*request, std::nullopt);
      return;
    }
  }
  std::lock_guard lock(mutex_);
  Place& place = places_[asked->path];
  place.waiting.push_back({asked, std::move(answer)});
  startSoonLocked(asked->path, place);
}

void ExtensionHost::startSoonLocked(const std::string& path, Place& place) {
  if (std::exchange(place.isStarting, true)) return;
  ++starts_;
  WorkQueue::global().async([this, path] { start(path); });
}

void ExtensionHost::start(const std::string& path) {
  // Who was replaced and has not been told yet means what is installed in its place.
  const auto installed = BundleCatalog::shared().bundles(BundleKind::extension);
  const auto found = std::find_if(installed.begin(), installed.end(),
                                  [&path](const auto& each) { return each->path == path; });
  const auto bundle = found == installed.end() ? nullptr : *found;
  const auto process =
      bundle ? runningProcess(bundle) : extensionError(ExtensionErrorCode::notInstalled, path);
  std::vector<Waiting> waiting;
  {
    std::lock_guard lock(mutex_);
    Place& place = places_[path];
    place.isStarting = false;
    waiting.swap(place.waiting);
    if (!process && bundle && keepsRunning(*bundle)) startLaterLocked(path, place);
    if (!process && place.restart == 0 && !place.process) places_.erase(path);
    --starts_;
    startEnded_.notify_all();
  }
  for (const auto& [asked, answer] : waiting) {
    if (!bundle || bundle->identifier != asked->identifier) {
      answer(std::nullopt, extensionError(ExtensionErrorCode::notInstalled, asked->identifier));
    } else if (!process) {
      answer(std::nullopt, process.error());
    } else if (auto request = (*process)->beginRequest()) {
      answer(*request, std::nullopt);
    } else {
      answer(std::nullopt, extensionError(ExtensionErrorCode::couldNotLaunch, asked->identifier));
    }
  }
}

Result<std::shared_ptr<ExtensionProcess>> ExtensionHost::runningProcess(
    const std::shared_ptr<const Bundle>& bundle) {
  if (auto process = processOf(*bundle); process && process->takesRequests()) return process;
  const QXExtensionPoint* point = nullptr;
  {
    std::lock_guard lock(mutex_);
    const std::string* name = pointName(*bundle);
    auto known = name ? points_.find(*name) : points_.end();
    if (known != points_.end()) point = known->second;
    if (shutDown_) return extensionError(ExtensionErrorCode::couldNotLaunch, bundle->identifier);
  }
  if (!point) return extensionError(ExtensionErrorCode::notInstalled, bundle->identifier);
  auto process = ExtensionProcess::start(bundle, *point);
  if (!process) return process.error();
  std::shared_ptr<ExtensionProcess> replaced;
  {
    std::lock_guard lock(mutex_);
    Place& place = places_[bundle->path];
    replaced = std::exchange(place.process, *process);
    place.startedAt = Clock::current().now();
    if (place.restart != 0) Clock::current().cancel(std::exchange(place.restart, 0));
    std::erase_if(leaving_, [](const auto& each) { return each.expired(); });
    if (replaced) leaving_.push_back(replaced);
  }
  if (replaced) replaced->retire();
  return process;
}

void ExtensionHost::keepRunning(const Bundle& bundle) {
  if (auto process = processOf(bundle); process && process->takesRequests()) return;
  std::lock_guard lock(mutex_);
  Place& place = places_[bundle.path];
  if (shutDown_ || place.restart != 0) return;
  startSoonLocked(bundle.path, place);
}

void ExtensionHost::startLaterLocked(const std::string& path, Place& place) {
  constexpr Clock::Duration first = std::chrono::seconds(1);
  constexpr Clock::Duration longest = std::chrono::minutes(1);
  if (shutDown_ || place.restart != 0) return;
  const bool ranForLong = Clock::current().now() - place.startedAt >= longest;
  if (place.nextDelay == Clock::Duration::zero() || (place.process && ranForLong)) {
    place.nextDelay = first;
  }
  const auto delay = std::exchange(place.nextDelay, std::min(2 * place.nextDelay, longest));
  place.restart = Clock::current().schedule(delay, [this, path] {
    std::lock_guard lock(mutex_);
    Place& due = places_[path];
    due.restart = 0;
    if (!shutDown_) startSoonLocked(path, due);
  });
}

/// Null when the request is not open. A process that was replaced keeps its requests.
std::shared_ptr<ExtensionProcess> ExtensionHost::processWithRequest(const Bundle& bundle,
                                                                    const UUID& request) {
  std::vector<std::shared_ptr<ExtensionProcess>> processes;  // released outside the lock
  std::lock_guard lock(mutex_);
  auto current = places_.find(bundle.path);
  if (current != places_.end() && current->second.process) {
    processes.push_back(current->second.process);
  }
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
  auto found = places_.find(process.bundle().path);
  if (found == places_.end() || found->second.process.get() != &process) return;
  Place& place = found->second;
  if (keepsRunning(process.bundle())) startLaterLocked(found->first, place);
  last = std::move(place.process);
  if (!place.isStarting && place.restart == 0) places_.erase(found);
}

/// Processes of extensions that are not installed any more end with their last request.
void ExtensionHost::retireUninstalled() {
  const auto installed = BundleCatalog::shared().bundles(BundleKind::extension);
  std::vector<std::shared_ptr<ExtensionProcess>> running;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [path, place] : places_) {
      if (place.process) running.push_back(place.process);
    }
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
  {
    std::unique_lock lock(mutex_);
    shutDown_ = true;
    // A start that hangs is not worth the daemon's own end.
    startEnded_.wait_for(lock, std::chrono::seconds(5), [this] { return starts_ == 0; });
    for (const auto& [path, place] : places_) {
      if (place.process) running.push_back(place.process);
    }
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
