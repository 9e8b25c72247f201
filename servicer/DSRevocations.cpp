// Revocations that are under way are kept in one property list beside the access-control file. It
// is written whole before the first step of a revocation and again after the last.

#include "servicer/DSRevocations.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/base/Value.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/plist/PropertyList.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/views/DocumentViews.h"
#include "servicer/DSConduitServicer.h"
#include "servicer/DSItemURLs.h"

namespace {

/// Without the URLs, a revocation takes back more than was asked for.
constexpr std::chrono::seconds timeForURLs(20);

constexpr const char* providerKey = "provider";
constexpr const char* itemKey = "item";
constexpr const char* consumerKey = "consumer";

class UnderWay {
 public:
  using Entry = std::list<DSRevocation>::iterator;

  static UnderWay& shared() {
    static auto& one = *new UnderWay;
    return one;
  }
  Entry add(const DSRevocation& revocation) {
    std::lock_guard lock(mutex_);
    all_.push_back(revocation);
    save();
    return std::prev(all_.end());
  }
  void remove(Entry entry) {
    std::lock_guard lock(mutex_);
    all_.erase(entry);
    save();
  }

  static std::vector<DSRevocation> left() {
    std::vector<DSRevocation> all;
    if (!qx::FileManager::fileExists(path())) return all;
    const auto list = qx::PropertyList::readFile(path());
    const auto* entries = list ? list->as<qx::Array>() : nullptr;
    if (!entries) {
      DS_LOG("[ERROR] What was being taken back cannot be read: %@", path());
      return all;
    }
    for (const auto& each : *entries) {
      const auto* entry = each.as<qx::Dictionary>();
      const auto text = [&](const char* key) -> std::optional<std::string> {
        const auto* value = entry ? qx::find(*entry, key) : nullptr;
        const auto* string = value ? value->as<std::string>() : nullptr;
        return string ? std::optional(*string) : std::nullopt;
      };
      auto provider = text(providerKey), consumer = text(consumerKey);
      if (provider && consumer) all.push_back({*provider, text(itemKey), *consumer});
    }
    return all;
  }

 private:
  static std::string path() { return qx::Places::home() + "/Library/DocSource/Revocations.plist"; }

  void save() {
    qx::Array list;
    for (const auto& each : all_) {
      qx::Dictionary entry{{providerKey, each.providerID}, {consumerKey, each.consumerID}};
      if (each.itemID) entry.emplace(itemKey, *each.itemID);
      list.emplace_back(std::move(entry));
    }
    const auto text = qx::PropertyList::write(list);
    const auto error = text ? qx::FileManager::replaceFile(path(), *text) : text.error();
    if (error) DS_LOG("[ERROR] What is being taken back cannot be kept. Error: %@", error);
  }

  std::mutex mutex_;
  std::list<DSRevocation> all_;
};

/// `isAgain` says that the grants may be gone already, while nothing else is done.
void carryOut(DSAccessControlStore& store, const DSRevocation& revocation, bool isAgain,
              std::function<void(const std::optional<qx::Error>&)> done) {
  const auto& [providerID, itemID, consumerID] = revocation;
  auto [revoked, writeError] = store.revoke(providerID, itemID, consumerID);
  if (writeError) {
    DS_LOG("[ERROR] Could not take back grants of provider ID %@ to consumer ID %@. Error: %@",
           providerID, consumerID, writeError);
    return done(writeError);
  }
  std::vector<DSItem> items;
  items.reserve(revoked.size());
  for (auto& item : revoked) items.push_back({providerID, std::move(item)});
  const bool isAll = isAgain && !itemID;
  dsFindItemURLs(
      std::move(items), timeForURLs,
      [done = std::move(done), revocation, isAll](const std::vector<DSItemURL>& urls) {
        std::optional<qx::Error> failure;
        const auto note = [&](const std::optional<qx::Error>& problem) {
          if (problem && !failure) failure = DSPluginOperationFailedError(problem);
        };
        if (!isAll && std::all_of(urls.begin(), urls.end(),
                                  [](const DSItemURL& url) { return url && *url; })) {
          // Takes back as many as possible, whatever becomes of the others.
          for (const auto& url : urls) {
            note(takeBackSandboxExtensionsForURL(**url));
            note(qx::DocumentViews::hide(revocation.consumerID, **url));
          }
        } else {
          // The provider does not say which document it was, so it could be any.
          DS_LOG(
              "[NOTICE] Provider ID %@ cannot name a document that consumer ID %@ had: every token "
              "is taken back.",
              revocation.providerID, revocation.consumerID);
          note(SandboxTakeBackAllFileExtensions());
          note(qx::DocumentViews::hideAll(revocation.consumerID));
        }
        if (failure) {
          DS_LOG(
              "[ERROR] Could not take back the tokens of what provider ID %@ gave to consumer ID "
              "%@. Error: %@",
              revocation.providerID, revocation.consumerID, failure);
        }
        done(failure);
      });
}

void revoke(DSAccessControlStore& store, const DSRevocation& revocation, bool isAgain,
            std::function<void(const std::optional<qx::Error>&)> done) {
  const auto entry = UnderWay::shared().add(revocation);
  carryOut(store, revocation, isAgain,
           [entry, done = std::move(done)](const std::optional<qx::Error>& error) {
             UnderWay::shared().remove(entry);
             if (done) done(error);
           });
}

}  // namespace

void dsRevoke(const std::shared_ptr<DSAccessControlStore>& store, const DSRevocation& revocation,
              std::function<void(const std::optional<qx::Error>& error)> done) {
  revoke(*store, revocation, false, std::move(done));
}

void dsGoOnWithRevocations(const std::shared_ptr<DSAccessControlStore>& store) {
  for (const auto& each : UnderWay::left()) {
    DS_LOG("[NOTICE] Goes on taking back what provider ID %@ gave to consumer ID %@.",
           each.providerID, each.consumerID);
    revoke(*store, each, true, nullptr);
  }
}
