#include "platform/platformd/DocSourceRegistry.h"

#include <filesystem>
#include <system_error>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"

namespace {

/// Of one provider. A connection takes 1,024 calls without an answer.
constexpr std::size_t mostUnderWay = 64;

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
                            const std::shared_ptr<DocSourceHost>& host,
                            const std::function<void()>& completion) {
  SourcePointer source;
  {
    std::lock_guard lock(mutex_);
    source = std::make_shared<const DocSource>(DocSource{
        ++lastNumber_, host->process().effectiveUser(), identifier, providedItemsURL, host});
    sources_[identifier] = source;
  }
  const auto observer = observer_.lock();
  if (observer) observer->docSourceAdded(*source, completion);
  DS_LOG("[INFO] Coordinating %@ for doc source %@.", providedItemsURL, identifier);
  if (!observer) completion();
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
  const Provide provide{{owner->number, resolved(url)}, owner, url, readerID};
  {
    std::lock_guard lock(mutex_);
    auto& readers = readers_[provide.item];
    readers.push_back(std::move(completion));
    if (readers.size() > 1) return;
    Turns& turns = turns_[owner->number];
    if (turns.underWay == mostUnderWay) {
      turns.waiting.push_back(provide);
      return;
    }
    ++turns.underWay;
  }
  ask(provide);
}

void DocSourceRegistry::ask(const Provide& provide) {
  DS_LOG("[INFO] Doc source %@ is to provide %@ to %@.", provide.owner->identifier, provide.url,
         provide.readerID);
  provide.owner->host->provideItem(
      provide.owner->identifier, provide.url, provide.readerID,
      [self = shared_from_this(), provide](const std::optional<qx::Error>& error) {
        self->answered(provide, error);
      });
}

void DocSourceRegistry::answered(const Provide& provide, const std::optional<qx::Error>& error) {
  if (error) {
    DS_LOG("[NOTICE] Doc source %@ did not provide %@. Error: %@", provide.owner->identifier,
           provide.url, *error);
  }
  std::vector<qx::Completion<qx::Error>> readers;
  std::optional<Provide> next;
  {
    std::lock_guard lock(mutex_);
    if (auto node = readers_.extract(provide.item)) readers = std::move(node.mapped());
    auto turns = turns_.find(provide.owner->number);
    auto& waiting = turns->second.waiting;
    if (!waiting.empty()) {
      next = std::move(waiting.front());
      waiting.pop_front();
    } else if (--turns->second.underWay == 0) {
      turns_.erase(turns);
    }
  }
  // From a queue, as a host that is lost answers at once, and a thousand may be waiting.
  if (next) {
    qx::WorkQueue::global().async(
        [self = shared_from_this(), next = *std::move(next)] { self->ask(next); });
  }
  for (const auto& reader : readers) reader(error);
}

void DocSourceRegistry::didFinishWriting(const qx::URL& url, const std::string& writerID) {
  const SourcePointer owner = ownerOf(url);
  if (!owner) return;
  DS_LOG("[INFO] Doc source %@ is told that %@ wrote %@.", owner->identifier, writerID, url);
  owner->host->writerDidFinish(owner->identifier, writerID, url);
}
