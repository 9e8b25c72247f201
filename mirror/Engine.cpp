// What the engine's parts share, and what others ask of it.

#include "mirror/Engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "mirror/Parts.h"
#include "platform/base/UUID.h"
#include "platform/files/FileManager.h"
#include "platform/queue/Clock.h"

namespace docsource::mirror {
namespace {

constexpr std::int64_t perMillisecond = 1'000'000;
constexpr std::int64_t whileBroken = 5000;

std::chrono::sys_seconds currentTime() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

/// Leads to the entry itself, with everything before it resolved; empty when there is no such path.
std::string resolved(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  const std::unique_ptr<char, decltype(&std::free)> parent(
      ::realpath(path.substr(0, std::max<std::size_t>(slash, 1)).c_str(), nullptr), &std::free);
  return parent ? std::string(parent.get()) + path.substr(slash) : std::string();
}

}  // namespace

Engine::Engine(MirrorOptions options, Remote& remote, Executor executor, Wake wake)
    : options_(std::move(options)),
      remote_(remote),
      executor_(std::move(executor)),
      wake_(std::move(wake)) {}

Engine::~Engine() { close(); }

std::int64_t Engine::now() const { return qx::Clock::current().now().count() / perMillisecond; }

Error Engine::trouble(const Error& error) {
  const auto problem = remoteProblemOf(error);
  auto state = MirrorHealth::State::offline;
  if (problem == RemoteProblem::notAuthorised) state = MirrorHealth::State::unauthorised;
  if (problem == RemoteProblem::notTheSame) state = MirrorHealth::State::wrongRemote;
  const bool isTrouble = state != MirrorHealth::State::offline ||
                         problem == RemoteProblem::unreachable || problem == RemoteProblem::notNow;
  if (!isTrouble) return error;
  constexpr std::int64_t longest = 30'000;
  constexpr std::int64_t longestAsked = 3600;
  const std::int64_t shift = std::min<std::int64_t>(troubleTries_++, 10);
  auto delay = std::min<std::int64_t>(1000LL << shift, longest);
  if (const auto asked = remoteRetryAfter(error))
    delay = std::clamp<std::int64_t>(asked->count(), 0, longestAsked) * 1000 + 1;
  troubleUntil_ = now() + delay;
  // To wait for a moment at the remote's wish is no trouble to speak of.
  if (state_ != state && (problem != RemoteProblem::notNow || delay > longest)) {
    state_ = state;
    since_ = currentTime();
    changes_.note(rootItem);
  }
  trouble_ = error;
  shallLookThere_ = true;
  return error;
}

bool Engine::isInTrouble() const { return trouble_ && now() < troubleUntil_; }

void Engine::wellAgain() {
  if (trouble_) items_->makeAllDue(now());
  trouble_.reset();
  if (state_ != MirrorHealth::State::ok && hasLookedThere_) {
    state_ = MirrorHealth::State::ok;
    since_ = currentTime();
    changes_.note(rootItem);
  }
}

void Engine::change(ItemNumber number, const std::function<void(Item&)>& edit) {
  Database::Transaction transaction(*database_);
  auto item = items_->load(number);
  if (!item) return transaction.commit();
  edit(*item);
  items_->save(*item);
  transaction.commit();
}

Result<qx::FileDescriptor> Engine::directoryHere(ItemNumber number) {
  const auto path = items_->path(Side::here, number);
  const auto item = items_->load(number);
  errno = ENOENT;
  if (!path || !item) return Error::posix(ENOENT, "The directory is gone");
  auto directory = openDirectoryBelow(storage_.get(), *path);
  if (!directory) {
    const int problem = errno;
    auto error = Error::posix(problem, "The directory cannot be opened");
    errno = problem;
    return error;
  }
  const auto entry = lookAtFile(directory.get());
  if (number != rootItem && (!entry || entry->identity != item->here->identity)) {
    auto error = Error::posix(ESTALE, "Another directory is in its place");
    errno = ESTALE;
    return error;
  }
  return directory;
}

Result<qx::FileDescriptor> Engine::fileHere(const Item& item, int flags) {
  const auto directory = directoryHere(item.here->place.parent);
  if (!directory) return directory.error();
  auto file = openFile(directory->get(), item.here->place.name, flags);
  if (!file) return Error::posix(errno, "The document cannot be opened");
  const auto entry = lookAtFile(file.get());
  if (!entry || entry->identity != item.here->identity) {
    return Error::posix(ESTALE, "Another file is in its place");
  }
  return file;
}

std::string Engine::absolute(Side side, ItemNumber number) {
  const auto path = items_->path(side, number);
  return path && !path->empty() ? storagePath_ + "/" + *path : storagePath_;
}

bool Engine::isBusyBelow(Side side, ItemNumber directory) {
  return std::any_of(busy_.begin(), busy_.end(), [&](const auto& entry) {
    // What is sent there for the first time is not there yet.
    const auto& sent = entry.second->sent;
    return items_->isBelow(side, entry.first, directory) ||
           (side == Side::there && sent && items_->isBelow(side, sent->parent, directory));
  });
}

bool Engine::isPinned(const Item& item) {
  if (item.isPinned) return true;
  for (auto at = item.here ? item.here->place.parent : 0; at != 0;) {
    const auto parent = items_->load(at);
    if (!parent) return false;
    if (parent->isPinned) return true;
    at = parent->here ? parent->here->place.parent : 0;
  }
  return false;
}

Result<void> Engine::open() {
  const Lock lock(mutex_);
  if (const auto problem = qx::FileManager::createDirectory(options_.storage)) {
    return Error::posix(EIO, "The document storage cannot be made");
  }
  if (const auto problem = qx::FileManager::createDirectory(options_.state + "/aside")) {
    return Error::posix(EIO, "The mirror's directory cannot be made");
  }
  const std::unique_ptr<char, decltype(&std::free)> real(
      ::realpath(options_.storage.c_str(), nullptr), &std::free);
  storagePath_ = real ? real.get() : options_.storage;
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  storage_.reset(::open(storagePath_.c_str(), flags));
  aside_.reset(::open((options_.state + "/aside").c_str(), flags));
  const auto entry = storage_ ? lookAtFile(storage_.get()) : std::nullopt;
  if (!entry || !aside_) return Error::file(errno, options_.storage);
  return guarded([&]() -> Result<void> {
    database_.emplace(options_.state + "/items.sqlite");
    items_.emplace(*database_, [this](ItemNumber number) {
      changes_.note(number);
      mayNeedSpace_ = true;
    });
    Database::Transaction transaction(*database_);
    const auto prefix = items_->fact("prefix");
    identifierPrefix_ = prefix.value_or(qx::UUID::random().text().substr(0, 8));
    if (!prefix) items_->setFact("prefix", identifierPrefix_);
    const auto storage = items_->fact("storage");
    if (storage && *storage != entry->identity) {
      // The storage was deleted or put in from elsewhere. Nothing of that is anybody's wish about
      // single documents: what the remote has comes back.
      database_->run(
          "UPDATE item SET hereParent=NULL, hereName=NULL, hereKind=NULL, hereIdentity=NULL,"
          " agreedKind=NULL, agreedHere=NULL, hash=NULL, due=0 WHERE number<>1;"
          "DELETE FROM item WHERE thereKind IS NULL");
    }
    items_->setFact("storage", entry->identity);
    items_->makeAllDue(now());
    transaction.commit();
    inDoubt_ = items_->numbersWithFact(moving);
    recoverAside();
    here_.directories.emplace_back(rootItem, true);
    since_ = currentTime();
    isToldOfChanges_ = false;
    remote_.notifyOfChanges([this] {
      isToldOfChanges_ = true;
      wake_();
    });
    return {};
  });
}

void Engine::close() {
  if (isClosed_.exchange(true)) return;
  remote_.notifyOfChanges({});
  Lock lock(mutex_);
  for (auto& [number, transfer] : busy_) transfer->isCancelled = true;
  for (const auto& listing : listings_) listing->abandon();
  changed_.wait(lock, [&] { return busy_.empty(); });
}

bool Engine::step() {
  Lock lock(mutex_);
  broken_.reset();
  return guarded([&] {
    if (isClosed_) return false;
    if (std::exchange(shallTryAgain_, false)) troubleUntil_ = 0;
    if (now() >= lookHereAt_) {
      constexpr std::int64_t many = 10'000;
      const auto times = 1 + items_->count() / many;
      if (lookHereAt_ != 0) here_.directories.emplace_back(rootItem, true);
      lookHereAt_ = now() + times * options_.lookThroughHere.count();
    }
    bool hasDone = observeHere(lock);
    hasDone = observeThere(lock) || hasDone;
    hasDone = settleDue(lock) || hasDone;
    hasDone = bringAhead(lock) || hasDone;
    hasDone = giveBack() || hasDone;
    const bool isLeft = !here_.isEmpty() || (!there_.isEmpty() && !isInTrouble());
    changed_.notify_all();
    return hasDone || isLeft;
  });
}

std::optional<std::int64_t> Engine::idleFor() {
  const Lock lock(mutex_);
  if (broken_) return whileBroken;
  return guarded([&]() -> std::optional<std::int64_t> {
    auto next = items_->nextDue(heldBack());
    if (options_.keep && mayNeedSpace_) next = std::min(next.value_or(giveBackAt_), giveBackAt_);
    const auto look = isInTrouble() ? troubleUntil_ : shallLookThere_ ? now() : lookThereAt_;
    next = std::min({next.value_or(look), look, lookHereAt_});
    for (const Side side : {Side::here, Side::there}) {
      next = std::min(*next, goingUntil(side).value_or(*next));
    }
    return std::max<std::int64_t>(*next - now(), 0);
  });
}

/// The item that the path leads to, or the item of that file when it lies elsewhere.
Result<Item> Engine::find(Lock& lock, const std::string& path) {
  const std::string real =
      path == options_.storage || path == storagePath_ ? storagePath_ : resolved(path);
  if (real == storagePath_) return *items_->load(rootItem);
  for (const bool isLast : {false, true}) {
    const auto entry = real.empty() ? std::nullopt : lookAt(AT_FDCWD, real);
    if (!entry) return Error::file(real.empty() ? ENOENT : errno, path);
    const auto named = items_->withIdentity(Side::here, entry->identity);
    const auto first = std::find_if(named.begin(), named.end(),
                                    [](const Item& item) { return item.here->kind != Kind::link; });
    // Written without anybody's being told.
    if (first != named.end() && !entry->isPlaceholder && first->here->kind == Kind::file &&
        first->here->version != entry->version && !isBusy(first->number)) {
      lookAgain(Side::here, first->here->place);
      wake_();
    }
    // Also when its file was exchanged for another that is not known yet.
    if (first != named.end() && (isLast || absolute(Side::here, first->number) == real))
      return *first;
    if (isLast && !named.empty()) return named.front();
    if (!isLast) observeHere(lock);
  }
  return Error::file(real.starts_with(storagePath_ + "/") ? ENOENT : EINVAL, path);
}

Result<void> Engine::provide(const std::string& path) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<void> {
    const auto found = find(lock, path);
    if (!found) {
      const auto entry = lookAt(AT_FDCWD, path);
      const bool isContent = entry && !entry->isPlaceholder && !entry->isHidden;
      return isContent ? Result<void>() : found.error();
    }
    if (found->here && found->here->kind == Kind::directory) {
      const auto directory = absolute(Side::here, found->number);
      for (ItemNumber last = 0;;) {
        const auto children = items_->children(Side::here, found->number, last, 1);
        if (children.empty()) return {};
        last = children.front();
        const auto child = absolute(Side::here, last);
        lock.unlock();
        auto provided = provide(child);
        lock.lock();
        if (!provided && !lookAt(AT_FDCWD, child)) continue;  // gone meanwhile
        if (!provided) return provided;
      }
    }
    const ItemNumber number = found->number;
    while (true) {
      changed_.wait(lock, [&] { return !isBusy(number); });
      const auto item = items_->load(number);
      if (!item || !item->here) return Error::file(ENOENT, path);
      if (!item->here->isPlaceholder) return {};
      if (isClosed_) return Error::posix(ECANCELED, "The account is being stopped");
      if (!item->agreed || !item->there) {
        return remoteError(RemoteProblem::notFound, "The document is not at its remote any more.");
      }
      noteReader(*item);
      auto transfer = begin(*item, false, item->agreed->size);
      lock.unlock();
      auto filled = fill(transfer);
      lock.lock();
      end(transfer);
      wake_();
      return filled;
    }
  });
}

void Engine::hurry(const std::string& path, std::uint64_t offset, std::uint64_t size) {
  std::shared_ptr<Transfer> transfer;
  {
    Lock lock(mutex_);
    transfer = guarded([&]() -> std::shared_ptr<Transfer> {
      const auto found = find(lock, path);
      const auto busy = found ? busy_.find(found->number) : busy_.end();
      return busy == busy_.end() ? nullptr : busy->second;
    });
  }
  if (transfer && !transfer->isUpload) transfer->arrival.want({offset, offset + size});
}

Result<void> Engine::evict(const std::string& path) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<void> {
    observeHere(lock);
    const auto found = find(lock, path);
    if (!found) return found.error();
    const Item& item = *found;
    if (!item.here) return Error::file(ENOENT, path);
    if (item.here->kind == Kind::directory) {
      std::optional<Error> first;
      for (const ItemNumber child : items_->children(Side::here, item.number)) {
        const auto below = absolute(Side::here, child);
        lock.unlock();
        auto evicted = evict(below);
        lock.lock();
        if (!evicted && !first && lookAt(AT_FDCWD, below)) first = evicted.error();
      }
      return first ? Result<void>(*first) : Result<void>();
    }
    return evictFile(item, path);
  });
}

Result<void> Engine::pin(const std::string& path, bool isPinned) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<void> {
    const auto found = find(lock, path);
    if (!found) return found.error();
    if (!isPinned && !found->isPinned && this->isPinned(*found)) {
      return Error::posix(EBUSY, path + " stays: a directory above it is pinned");
    }
    std::vector<ItemNumber> waiting{found->number};
    if (isPinned) change(found->number, [](Item& item) { item.isPinned = true; });
    Database::Transaction transaction(*database_);
    while (!waiting.empty()) {
      const ItemNumber number = waiting.back();
      waiting.pop_back();
      change(number, [&](Item& item) {
        if (!isPinned) item.isPinned = false;
        if (isPinned && item.here && item.here->isPlaceholder) item.due = now();
      });
      const auto children = items_->children(Side::here, number);
      waiting.insert(waiting.end(), children.begin(), children.end());
    }
    transaction.commit();
    wake_();
    return {};
  });
}

Result<MirrorStatus> Engine::status(const std::string& path) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<MirrorStatus> {
    observeHere(lock);
    const auto found = find(lock, path);
    MirrorStatus status;
    if (!found) {
      const auto entry = lookAt(AT_FDCWD, path);
      if (!entry || !resolved(path).starts_with(storagePath_ + "/")) return found.error();
      status.state = MirrorItemState::localOnly;
      status.isDirectory = entry->kind == Kind::directory;
      status.reason = entry->kind ? "It is a temporary file, or .docsourceignore names it."
                                  : "Links and special files are not carried to the remote.";
      return status;
    }
    const Item& item = *found;
    status.isDirectory = item.here->kind == Kind::directory;
    status.isPinned = isPinned(item);
    status.reason = item.reason;
    const auto transfer = busy_.find(item.number);
    const bool isChanged = !item.agreed || !item.there || item.here->place != item.there->place ||
                           (item.here->kind == Kind::file && !item.here->isPlaceholder &&
                            item.here->version != item.agreedHere);
    const auto hasCopy = [&] {
      auto row = database_->prepare("SELECT 1 FROM item WHERE conflictWith=?");
      row.bind(item.number);
      return row.step();
    };
    if (status.isDirectory && !status.reason) {
      // What could never be made here has no path of its own that anybody could ask about.
      LeftOut leftOut;
      for (const Item& each : items_->failedIn(item.number)) {
        leftOut.add(each.there->place.name, *each.reason);
      }
      status.reason = leftOut.text();
    }
    if (item.number == rootItem) {
      status.state = status.reason ? MirrorItemState::failed : MirrorItemState::present;
    } else if (item.here->kind == Kind::link ||
               absolute(Side::here, item.number) != resolved(path)) {
      status.state = MirrorItemState::localOnly;
      status.reason = "It is a second name of a document, and not carried to the remote.";
    } else if (transfer != busy_.end()) {
      status.state =
          transfer->second->isUpload ? MirrorItemState::uploading : MirrorItemState::providing;
    } else if (status.reason) {
      status.state = MirrorItemState::failed;
    } else if (item.conflictWith || hasCopy()) {
      status.state = MirrorItemState::conflict;
    } else if (item.here->isPlaceholder) {
      status.state = MirrorItemState::placeholder;
    } else if (isChanged) {
      status.state = MirrorItemState::changed;
    }
    return status;
  });
}

std::vector<MirrorTransfer> Engine::transfers() {
  const Lock lock(mutex_);
  return guarded([&] {
    std::vector<std::shared_ptr<Transfer>> ordered;
    for (const auto& [number, transfer] : busy_) ordered.push_back(transfer);
    std::sort(ordered.begin(), ordered.end(),
              [](const auto& one, const auto& other) { return one->order < other->order; });
    std::vector<MirrorTransfer> transfers;
    transfers.reserve(ordered.size());
    for (const auto& transfer : ordered) {
      transfers.push_back({absolute(Side::here, transfer->number), transfer->isUpload,
                           transfer->done, transfer->total});
    }
    return transfers;
  });
}

Result<void> Engine::cancel(const std::string& path) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<void> {
    const auto found = find(lock, path);
    if (!found) return found.error();
    bool hasAny = false;
    for (auto& [number, transfer] : busy_) {
      if (!items_->isBelow(Side::here, number, found->number)) continue;
      transfer->isCancelled = true;
      hasAny = true;
    }
    if (!hasAny) {
      return Error(std::string(posixErrorDomain), ENOENT,
                   "Nothing of " + path + " is being transferred.");
    }
    return {};
  });
}

std::vector<MirrorConflict> Engine::conflicts() {
  Lock lock(mutex_);
  return guarded([&] {
    observeHere(lock);
    std::vector<MirrorConflict> conflicts;
    items_->forEach("conflictWith IS NOT NULL AND hereKind IS NOT NULL", [&](const Item& copy) {
      conflicts.push_back({absolute(Side::here, *copy.conflictWith),
                           absolute(Side::here, copy.number),
                           std::chrono::sys_seconds(std::chrono::seconds(copy.conflictSince))});
    });
    return conflicts;
  });
}

Result<void> Engine::take(const std::string& copy) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<void> {
    observeHere(lock);
    const auto found = find(lock, copy);
    if (!found) return found.error();
    const auto document = found->conflictWith ? items_->load(*found->conflictWith) : std::nullopt;
    if (!document || !document->here) {
      return Error::posix(EINVAL, copy + " is not the copy of a conflict");
    }
    const auto from = directoryHere(found->here->place.parent);
    const auto to = directoryHere(document->here->place.parent);
    if (!from || !to) return Error::file(ENOENT, copy);
    // As an editor saves: the document stays what it is, with another content.
    if (::renameat(from->get(), found->here->place.name.c_str(), to->get(),
                   document->here->place.name.c_str()) != 0) {
      return Error::file(errno, copy);
    }
    wake_();
    return {};
  });
}

void Engine::beginSync(bool confirmRemovals) {
  Lock lock(mutex_);
  guarded([&] {
    Database::Transaction transaction(*database_);
    if (confirmRemovals) {
      database_->run(
          "UPDATE item SET confirmed=1 WHERE agreedKind IS NOT NULL AND"
          " (hereKind IS NULL OR thereKind IS NULL)");
    }
    // What is wrong with the listing of a directory is found out by listing it.
    database_
        ->prepare(
            "UPDATE item SET due=?, tries=0 WHERE due IS NOT NULL OR"
            " (reason IS NOT NULL AND thereKind IS NOT 2)")
        .bind(now())
        .run();
    transaction.commit();
    here_.directories.emplace_back(rootItem, true);
    cursor_.reset();
    shallLookThere_ = true;
    shallTryAgain_ = true;
    return true;
  });
  wake_();
}

bool Engine::isQuiet() {
  const Lock lock(mutex_);
  return guarded([&] {
    if (broken_ || isInTrouble() || isClosed_) return true;
    if (goingUntil(Side::here) || goingUntil(Side::there)) return false;
    const auto next = items_->nextDue(heldBack() + " AND reason IS NULL AND tries>=0");
    return here_.isEmpty() && there_.isEmpty() && !shallLookThere_ && busy_.empty() && !next;
  });
}

MirrorHealth Engine::health() {
  const Lock lock(mutex_);
  MirrorHealth health;
  guarded([&] {
    const auto count = [&](const char* condition) {
      return static_cast<std::uint64_t>(items_->count(condition));
    };
    constexpr const char* removal =
        "agreedKind IS NOT NULL AND (hereKind IS NULL OR thereKind IS NULL) AND ";
    countRemovals();
    health.items = static_cast<std::uint64_t>(items_->count() - 1);
    // Each by its index, and not by what is due, which is everything at first.
    health.waiting =
        count(
            "due IS NOT NULL AND hereKind IS NOT NULL AND (herePlaceholder IS NULL OR"
            " herePlaceholder=0) AND hereKind<>3 AND (agreedKind IS NULL OR thereKind IS NULL OR"
            " hereVersion IS NOT agreedHere AND hereKind=1 OR hereName<>thereName OR"
            " hereParent<>thereParent)") +
        count((std::string(removal) + "hereKind IS NULL AND +due IS NOT NULL").c_str());
    health.failed = count("reason IS NOT NULL");
    if (areHeldThere_) {
      health.removalsHere = count((std::string(removal) + "thereKind IS NULL").c_str());
    }
    if (areHeldHere_) {
      health.removalsThere = count((std::string(removal) + "hereKind IS NULL").c_str());
    }
    return true;
  });
  health.state = state_;
  health.since = since_;
  if (trouble_ && state_ != MirrorHealth::State::ok) health.reason = trouble_->description();
  if (state_ == MirrorHealth::State::ok && (areHeldHere_ || areHeldThere_)) {
    health.state = MirrorHealth::State::needsConfirmation;
    health.reason =
        "Many items are gone at once. They stay on the other side until it is confirmed that they "
        "are to be removed there, too.";
  }
  if (broken_) {
    health.state = MirrorHealth::State::broken;
    health.reason = broken_;
  }
  return health;
}

std::vector<std::string> Engine::pathsOf(const std::vector<ItemNumber>& numbers) {
  const Lock lock(mutex_);
  return guarded([&] {
    std::vector<std::string> paths;
    for (const auto number : numbers) {
      const auto path = items_->path(Side::here, number);
      if (path && !path->empty()) paths.push_back(storagePath_ + "/" + *path);
    }
    return paths;
  });
}

void Engine::itemChanged(const std::string& path) {
  Lock lock(mutex_);
  guarded([&] {
    const auto found = find(lock, path);
    if (found && found->here && found->number != rootItem)
      lookAgain(Side::here, found->here->place);
    return true;
  });
  wake_();
}

Result<std::string> Engine::identifierForItem(const std::string& path) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<std::string> {
    const auto found = find(lock, path);
    if (!found) return found.error();
    // Whoever has the number keeps it.
    database_->sync();
    return identifierPrefix_ + "-" + std::to_string(found->number);
  });
}

Result<std::string> Engine::pathForItem(const std::string& identifier) {
  Lock lock(mutex_);
  return guarded([&]() -> Result<std::string> {
    observeHere(lock);
    const std::string prefix = identifierPrefix_ + "-";
    const auto number = identifier.starts_with(prefix)
                            ? std::strtoll(identifier.c_str() + prefix.size(), nullptr, 10)
                            : 0;
    const auto item = number > 0 ? items_->load(number) : std::nullopt;
    if (!item || !item->here || prefix + std::to_string(number) != identifier) {
      return Error::noSuchItem(identifier);
    }
    return absolute(Side::here, number);
  });
}

}  // namespace docsource::mirror
