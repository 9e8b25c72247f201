#include "platform/platformd/DocSourceRegistry.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"

namespace {

/// Of one provider. A connection takes 1,024 calls without an answer.
constexpr std::size_t mostUnderWay = 64;

/// Of these for readers of other users than the provider's.
constexpr std::size_t mostOfOthers = 48;

std::optional<qx::FileIdentity> identityOfDirectory(const qx::URL& directory) {
  struct stat status;
  const auto path = directory.path();
  if (!path || stat(path->c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
  return qx::identityOf(status);
}

/// One name for one file, whichever links lead to it; it need not exist yet.
std::string resolved(const qx::URL& url) {
  const std::string path = url.path().value_or(url.absoluteString());
  std::error_code error;
  auto canonical = std::filesystem::weakly_canonical(path, error);
  return error ? path : canonical.string();
}

}  // namespace

bool DocSourceRegistry::Turns::hasRoomFor(const Provide& provide) const {
  const bool isOwn = provide.reader == provide.owner->owner;
  return underWay < mostUnderWay && (isOwn || underWayOfOthers < mostOfOthers);
}

void DocSourceRegistry::Turns::begin(const Provide& provide) {
  ++underWay;
  if (provide.reader != provide.owner->owner) ++underWayOfOthers;
}

void DocSourceRegistry::Turns::end(const Provide& provide) {
  --underWay;
  if (provide.reader != provide.owner->owner) --underWayOfOthers;
}

/// The next user's first, of those who may.
std::optional<DocSourceRegistry::Provide> DocSourceRegistry::Turns::takeNext() {
  auto next = waiting.upper_bound(last);
  for (std::size_t tried = 0; tried < waiting.size(); ++tried, ++next) {
    if (next == waiting.end()) next = waiting.begin();
    if (!hasRoomFor(next->second.front())) continue;
    Provide provide = std::move(next->second.front());
    next->second.pop_front();
    last = next->first;
    if (next->second.empty()) waiting.erase(next);
    begin(provide);
    return provide;
  }
  return std::nullopt;
}

void DocSourceRegistry::add(const std::string& identifier, const qx::URL& providedItemsURL,
                            const std::shared_ptr<DocSourceHost>& host,
                            const qx::Completion<qx::Error>& completion) {
  const uid_t user = host->process().effectiveUser();
  const auto directory = identityOfDirectory(providedItemsURL);
  SourcePointer source;
  {
    std::lock_guard lock(mutex_);
    Entry& entry = sources_[{user, identifier}];
    if (!entry.source || entry.source->host == host || entry.source->host->isLost()) {
      source = std::make_shared<const DocSource>(
          DocSource{++lastNumber_, user, identifier, providedItemsURL, host});
      entry = {source, directory};
    }
  }
  if (!source) {
    DS_LOG("[NOTICE] PID %d may not add doc source %@ of user %d: another process serves it.",
           host->process().processIdentifier(), identifier, user);
    completion(DSNotPermittedError());
    return;
  }
  const auto observer = observer_.lock();
  if (observer) observer->docSourceAdded(*source, [completion] { completion(std::nullopt); });
  DS_LOG("[INFO] Coordinating %@ of user %d for doc source %@.", providedItemsURL, user,
         identifier);
  if (!observer) completion(std::nullopt);
}

std::optional<qx::Error> DocSourceRegistry::remove(const std::string& identifier,
                                                   const std::shared_ptr<DocSourceHost>& host) {
  SourcePointer source;
  {
    std::lock_guard lock(mutex_);
    auto found = sources_.find({host->process().effectiveUser(), identifier});
    if (found == sources_.end()) return DSNotFoundError(identifier);
    if (found->second.source->host != host) return DSNotPermittedError();
    source = found->second.source;
    sources_.erase(found);
  }
  DS_LOG("[INFO] Doc source %@ was removed.", identifier);
  if (const auto observer = observer_.lock()) observer->docSourceRemoved(*source);
  return std::nullopt;
}

void DocSourceRegistry::forget(const std::shared_ptr<DocSourceHost>& host) {
  std::lock_guard lock(mutex_);
  std::erase_if(sources_, [&](const auto& entry) {
    const bool isOurs = entry.second.source->host == host;
    if (isOurs) {
      DS_LOG("[NOTICE] Doc source %@ is gone: its connection was lost.",
             entry.second.source->identifier);
    }
    return isOurs;
  });
}

DocSourceRegistry::Place DocSourceRegistry::placeOf(const qx::URL& url,
                                                    const std::optional<qx::User>& as) {
  // File operations only in here: a thread that was started would be that user's.
  std::optional<qx::UserIdentity> identity;
  if (as) identity.emplace(*as);
  if (identity && identity->errnum() != 0) return {};
  auto owner = ownerOf(url, as ? std::optional(as->user) : std::nullopt);
  auto file = owner ? resolved(url) : std::string();
  return {std::move(owner), std::move(file)};
}

DocSourceRegistry::SourcePointer DocSourceRegistry::ownerOf(const qx::URL& url,
                                                            std::optional<uid_t> user) {
  const auto around = qx::FileManager::ItemPlace(url).directories();
  if (!around) return nullptr;
  for (const bool isAgain : {false, true}) {
    {
      std::lock_guard lock(mutex_);
      for (const auto& directory : *around) {
        // What lies in another user's directory is not the owner's of one further up: not even its
        // name is.
        if (isForAllUsers_ && directory.owner != around->front().owner) break;
        const qx::FileIdentity identity{directory.device, directory.inode};
        for (const auto& [key, entry] : sources_) {
          if (entry.directory != identity) continue;
          if (!isForAllUsers_ || directory.owner == entry.source->owner) return entry.source;
        }
      }
    }
    // A directory that was made, or made anew, since it was added.
    if (!isAgain && !lookAgain(user)) break;
  }
  return nullptr;
}

bool DocSourceRegistry::lookAgain(std::optional<uid_t> user) {
  // Nobody's directories are touched for somebody else.
  if (!user && isForAllUsers_) return false;
  std::vector<SourcePointer> sources;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [key, entry] : sources_) {
      if (!user || key.first == *user) sources.push_back(entry.source);
    }
  }
  bool hasChanged = false;
  for (const auto& source : sources) {
    const auto directory = identityOfDirectory(source->directory);
    std::lock_guard lock(mutex_);
    const auto entry = sources_.find({source->owner, source->identifier});
    if (entry == sources_.end() || entry->second.source != source) continue;
    hasChanged = hasChanged || entry->second.directory != directory;
    entry->second.directory = directory;
  }
  return hasChanged;
}

void DocSourceRegistry::provide(const qx::URL& url, const std::string& readerID,
                                qx::Completion<qx::Error> completion,
                                const std::optional<qx::User>& as) {
  auto [owner, file] = placeOf(url, as);
  if (!owner) {
    completion(std::nullopt);
    return;
  }
  const uid_t reader = as ? as->user : owner->owner;
  const std::uint64_t number = owner->number;
  provide({{number, std::move(file)}, std::move(owner), url, readerID, reader},
          std::move(completion));
}

void DocSourceRegistry::provide(const DocSource& owner, const qx::URL& url,
                                const std::string& readerID, qx::Completion<qx::Error> completion) {
  provide({{owner.number, url.path().value_or("")},
           std::make_shared<const DocSource>(owner),
           url,
           readerID,
           owner.owner},
          std::move(completion));
}

void DocSourceRegistry::provide(const Provide& provide, qx::Completion<qx::Error> completion) {
  {
    std::lock_guard lock(mutex_);
    auto& readers = readers_[provide.item];
    readers.push_back(std::move(completion));
    if (readers.size() > 1) return;
    Turns& turns = turns_[provide.owner->number];
    if (!turns.hasRoomFor(provide)) {
      turns.waiting[provide.reader].push_back(provide);
      return;
    }
    turns.begin(provide);
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
    turns->second.end(provide);
    next = turns->second.takeNext();
    if (turns->second.underWay == 0) turns_.erase(turns);
  }
  // From a queue, as a host that is lost answers at once, and a thousand may be waiting.
  if (next) {
    qx::WorkQueue::global().async(
        [self = shared_from_this(), next = *std::move(next)] { self->ask(next); });
  }
  for (const auto& reader : readers) reader(error);
}

void DocSourceRegistry::didFinishWriting(const qx::URL& url, const std::string& writerID,
                                         qx::Completion<> completion,
                                         const std::optional<qx::User>& as) {
  if (const SourcePointer owner = placeOf(url, as).owner) {
    didFinishWriting(*owner, url, writerID, std::move(completion));
  } else if (completion) {
    completion();
  }
}

void DocSourceRegistry::didFinishWriting(const DocSource& owner, const qx::URL& url,
                                         const std::string& writerID, qx::Completion<> completion) {
  DS_LOG("[INFO] Doc source %@ is told that %@ wrote %@.", owner.identifier, writerID, url);
  owner.host->writerDidFinish(owner.identifier, writerID, url, std::move(completion));
}
