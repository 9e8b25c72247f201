#include "platform/platformd/DocSourceRegistry.h"

#include <filesystem>
#include <system_error>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/log/Log.h"

namespace {

bool contains(const qx::URL& directory, const qx::URL& item) {
  auto relationship =
      qx::FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(directory, item);
  return relationship && *relationship == qx::DirectoryRelationship::contains;
}

/// One name for one file, whichever links lead to it; it need not exist yet.
std::string resolved(const qx::URL& url) {
  const std::string path = url.path().value_or(url.absoluteString());
  std::error_code error;
  auto canonical = std::filesystem::weakly_canonical(path, error);
  return error ? path : canonical.string();
}

}  // namespace

void DocSourceRegistry::add(const std::string& identifier, const qx::URL& providedItemsURL,
                            const std::shared_ptr<DocSourceHost>& host) {
  SourcePointer source;
  {
    std::lock_guard lock(mutex_);
    source = std::make_shared<const DocSource>(
        DocSource{++lastNumber_, identifier, providedItemsURL, host});
    sources_[identifier] = source;
  }
  if (const auto observer = observer_.lock()) observer->docSourceAdded(*source);
  DS_LOG("[INFO] Coordinating %@ for doc source %@.", providedItemsURL, identifier);
}

std::optional<qx::Error> DocSourceRegistry::remove(const std::string& identifier,
                                                   const std::shared_ptr<DocSourceHost>& host) {
  SourcePointer source;
  {
    std::lock_guard lock(mutex_);
    auto found = sources_.find(identifier);
    if (found == sources_.end()) return DSNotFoundError(identifier);
    if (found->second->host != host) return DSNotPermittedError();
    source = found->second;
    sources_.erase(found);
  }
  DS_LOG("[INFO] Doc source %@ was removed.", identifier);
  if (const auto observer = observer_.lock()) observer->docSourceRemoved(*source);
  return std::nullopt;
}

void DocSourceRegistry::forget(const std::shared_ptr<DocSourceHost>& host) {
  std::vector<SourcePointer> forgotten;
  {
    std::lock_guard lock(mutex_);
    std::erase_if(sources_, [&](const auto& entry) {
      const bool isOurs = entry.second->host == host;
      if (isOurs) forgotten.push_back(entry.second);
      return isOurs;
    });
  }
  for (const auto& source : forgotten) {
    DS_LOG("[NOTICE] Doc source %@ is gone: its connection was lost.", source->identifier);
    if (const auto observer = observer_.lock()) observer->docSourceLost(*source);
  }
}

DocSourceRegistry::SourcePointer DocSourceRegistry::ownerOf(const qx::URL& url) const {
  std::vector<SourcePointer> candidates;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [identifier, source] : sources_) candidates.push_back(source);
  }
  SourcePointer owner;
  for (const auto& candidate : candidates) {
    if (!contains(candidate->directory, url)) continue;
    if (!owner || contains(owner->directory, candidate->directory)) owner = candidate;
  }
  return owner;
}

void DocSourceRegistry::provide(const qx::URL& url, const std::string& readerID,
                                qx::Completion<qx::Error> completion) {
  const SourcePointer owner = ownerOf(url);
  if (!owner) {
    completion(std::nullopt);
    return;
  }
  const Item item{owner->number, resolved(url)};
  {
    std::lock_guard lock(mutex_);
    auto& readers = underWay_[item];
    readers.push_back(std::move(completion));
    if (readers.size() > 1) return;
  }
  DS_LOG("[INFO] Doc source %@ is to provide %@ to %@.", owner->identifier, url, readerID);
  owner->host->provideItem(
      owner->identifier, url, readerID,
      [self = shared_from_this(), item, owner, url](const std::optional<qx::Error>& error) {
        if (error) {
          DS_LOG("[NOTICE] Doc source %@ did not provide %@. Error: %@", owner->identifier, url,
                 *error);
        }
        std::vector<qx::Completion<qx::Error>> readers;
        {
          std::lock_guard lock(self->mutex_);
          auto node = self->underWay_.extract(item);
          if (node) readers = std::move(node.mapped());
        }
        for (const auto& reader : readers) reader(error);
      });
}

void DocSourceRegistry::didFinishWriting(const qx::URL& url, const std::string& writerID) {
  const SourcePointer owner = ownerOf(url);
  if (!owner) return;
  DS_LOG("[INFO] Doc source %@ is told that %@ wrote %@.", owner->identifier, writerID, url);
  owner->host->writerDidFinish(owner->identifier, writerID, url);
}
