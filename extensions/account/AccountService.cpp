#include "extensions/account/AccountService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "extensions/account/AccountProtocol.h"
#include "platform/base/Errors.h"
#include "platform/conduit/ServiceSocket.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"
#include "sdk/src/Bridge.h"

namespace {

using docsource::Mirror;
using docsource::MirrorHealth;
using docsource::MirrorItemState;
using docsource::Result;
namespace bridge = docsource::bridge;

const char* nameOf(MirrorHealth::State state) {
  switch (state) {
    case MirrorHealth::State::ok:
      return "ok";
    case MirrorHealth::State::starting:
      return "starting";
    case MirrorHealth::State::offline:
      return "offline";
    case MirrorHealth::State::unauthorised:
      return "unauthorised";
    case MirrorHealth::State::wrongRemote:
      return "wrong-remote";
    case MirrorHealth::State::needsConfirmation:
      return "needs-confirmation";
    case MirrorHealth::State::broken:
      break;
  }
  return "broken";
}

const char* nameOf(MirrorItemState state) {
  switch (state) {
    case MirrorItemState::present:
      return "present";
    case MirrorItemState::placeholder:
      return "placeholder";
    case MirrorItemState::providing:
      return "providing";
    case MirrorItemState::changed:
      return "changed";
    case MirrorItemState::uploading:
      return "uploading";
    case MirrorItemState::failed:
      return "failed";
    case MirrorItemState::conflict:
      return "conflict";
    case MirrorItemState::localOnly:
      break;
  }
  return "local";
}

/// What travels has 63 bits.
std::int64_t number(std::uint64_t value) { return static_cast<std::int64_t>(value); }
std::int64_t seconds(std::chrono::sys_seconds time) { return time.time_since_epoch().count(); }

std::optional<qx::Error> errorOf(const Result<void>& result) {
  return result ? std::nullopt : std::optional(bridge::toPlatform(result.error()));
}

qx::Dictionary describe(const Result<docsource::MirrorStatus>& status) {
  if (!status) return {{"error", bridge::toPlatform(status.error())}};
  qx::Dictionary item{{"state", nameOf(status->state)},
                      {"isDirectory", status->isDirectory},
                      {"isPinned", status->isPinned}};
  if (status->reason) item["reason"] = *status->reason;
  return item;
}

/// Carries the operations out for one connection, each on the global queue, as many wait for the
/// remote.
class AccountServicer final : public DSAccount {
 public:
  explicit AccountServicer(std::shared_ptr<Mirror> mirror) : mirror_(std::move(mirror)) {}

  void healthCompletion(qx::Completion<qx::Error, qx::Dictionary> completion) override {
    later([completion = std::move(completion)](Mirror& mirror) {
      const auto health = mirror.health();
      qx::Dictionary dictionary{{"state", nameOf(health.state)},
                                {"since", seconds(health.since)},
                                {"items", number(health.items)},
                                {"waiting", number(health.waiting)},
                                {"failed", number(health.failed)},
                                {"removalsHere", number(health.removalsHere)},
                                {"removalsThere", number(health.removalsThere)}};
      if (health.reason) dictionary["reason"] = *health.reason;
      completion({}, std::move(dictionary));
    });
  }

  void syncConfirmingRemovals_completion(const std::optional<bool>& confirms,
                                         qx::Completion<qx::Error> completion) override {
    later([confirms = confirms.value_or(false), completion = std::move(completion)](
              Mirror& mirror) { completion(errorOf(mirror.sync(confirms))); });
  }

  void statusOfItemsAtURLs_completion(const std::optional<qx::Array>& urls,
                                      qx::Completion<qx::Error, qx::Array> completion) override {
    later([urls = urls.value_or(qx::Array()), completion = std::move(completion)](Mirror& mirror) {
      qx::Array items;
      for (const auto& value : urls) {
        const auto* url = value.as<qx::URL>();
        const auto path = url ? url->path() : std::nullopt;
        items.emplace_back(describe(path ? mirror.status(*path)
                                         : docsource::Error::posix(EINVAL, "This is no file URL")));
      }
      completion({}, std::move(items));
    });
  }

  void provideItemAtURL_completion(const std::optional<qx::URL>& url,
                                   qx::Completion<qx::Error> completion) override {
    onItem(&Mirror::provide, url, std::move(completion));
  }
  void evictItemAtURL_completion(const std::optional<qx::URL>& url,
                                 qx::Completion<qx::Error> completion) override {
    onItem(&Mirror::evict, url, std::move(completion));
  }
  void pinItemAtURL_completion(const std::optional<qx::URL>& url,
                               qx::Completion<qx::Error> completion) override {
    onItem(&Mirror::pin, url, std::move(completion));
  }
  void unpinItemAtURL_completion(const std::optional<qx::URL>& url,
                                 qx::Completion<qx::Error> completion) override {
    onItem(&Mirror::unpin, url, std::move(completion));
  }
  void cancelTransferOfItemAtURL_completion(const std::optional<qx::URL>& url,
                                            qx::Completion<qx::Error> completion) override {
    onItem(&Mirror::cancel, url, std::move(completion));
  }
  void takeConflictCopyAtURL_completion(const std::optional<qx::URL>& url,
                                        qx::Completion<qx::Error> completion) override {
    onItem(&Mirror::take, url, std::move(completion));
  }

  void changesAfter_completion(
      const std::optional<std::int64_t>& last,
      qx::Completion<qx::Error, std::int64_t, qx::Array> completion) override {
    const auto after = static_cast<std::uint64_t>(last.value_or(0));
    // The mirror holds it while it waits, and is held by nobody who waits.
    mirror_->whenChangedAfter(
        after, [weakly = std::weak_ptr(mirror_), after, completion = std::move(completion)] {
          qx::WorkQueue::global().async([weakly, after, completion] {
            const auto mirror = weakly.lock();
            if (!mirror) return;
            const auto changes = mirror->changesAfter(after);
            if (!changes.paths) return completion({}, number(changes.last), std::nullopt);
            qx::Array items;
            for (const auto& path : *changes.paths) {
              auto item = describe(mirror->status(path));
              item["URL"] = qx::URL::fileURL(path);
              items.emplace_back(std::move(item));
            }
            completion({}, number(changes.last), std::move(items));
          });
        });
  }

  void transfersCompletion(qx::Completion<qx::Error, qx::Array> completion) override {
    later([completion = std::move(completion)](Mirror& mirror) {
      qx::Array transfers;
      for (const auto& each : mirror.transfers()) {
        transfers.emplace_back(qx::Dictionary{{"URL", qx::URL::fileURL(each.path)},
                                              {"isUpload", each.isUpload},
                                              {"done", number(each.done)},
                                              {"total", number(each.total)}});
      }
      completion({}, std::move(transfers));
    });
  }

  void conflictsCompletion(qx::Completion<qx::Error, qx::Array> completion) override {
    later([completion = std::move(completion)](Mirror& mirror) {
      qx::Array conflicts;
      for (const auto& each : mirror.conflicts()) {
        conflicts.emplace_back(qx::Dictionary{{"URL", qx::URL::fileURL(each.path)},
                                              {"copyURL", qx::URL::fileURL(each.copy)},
                                              {"since", seconds(each.since)}});
      }
      completion({}, std::move(conflicts));
    });
  }

 private:
  void later(std::function<void(Mirror&)> operation) const {
    qx::WorkQueue::global().async(
        [mirror = mirror_, operation = std::move(operation)] { operation(*mirror); });
  }
  void onItem(Result<void> (Mirror::*operation)(const std::string&),
              const std::optional<qx::URL>& url, qx::Completion<qx::Error> completion) const {
    auto path = url ? url->path() : std::nullopt;
    later([operation, path = std::move(path), completion = std::move(completion)](Mirror& mirror) {
      completion(path ? errorOf((mirror.*operation)(*path))
                      : qx::posixError(EINVAL, "This is no file URL"));
    });
  }

  const std::shared_ptr<Mirror> mirror_;
};

/// Whether the process is this user's and not in a sandbox, which has a user namespace of its own
/// (user_namespaces(7)).
bool isOurs(const qx::AuditToken& peer) {
  struct stat theirs {};
  struct stat ours {};
  const auto process = qx::ProcessDirectory::open(peer);
  return process && peer.effectiveUser() == ::geteuid() &&
         ::fstatat(process->descriptor(), "ns/user", &theirs, 0) == 0 &&
         ::stat("/proc/self/ns/user", &ours) == 0 && theirs.st_ino == ours.st_ino &&
         theirs.st_dev == ours.st_dev;
}

}  // namespace

qx::Result<std::shared_ptr<AccountService>> AccountService::serve(const std::string& name,
                                                                  std::shared_ptr<Mirror> mirror) {
  if (auto error = qx::claimService(name)) return *error;
  auto service = std::make_shared<AccountService>(name, std::move(mirror));
  service->listener_.setDelegate(service);
  service->listener_.resume();
  return service;
}

AccountService::AccountService(const std::string& name, std::shared_ptr<Mirror> mirror)
    : mirror_(std::move(mirror)), listener_(name) {}

bool AccountService::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  if (!isOurs(connection->auditToken())) {
    DS_LOG("[NOTICE] PID %d is not served: it is another user's, or in a sandbox.",
           connection->processIdentifier());
    return false;
  }
  connection->setExportedInterface(dsAccountInterface());
  connection->setExportedObject<DSAccount>(std::make_shared<AccountServicer>(mirror_));
  connection->resume();
  return true;
}
