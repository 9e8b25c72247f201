// What each side looks like, taken over into its tree.
//
// A look at a name or a directory notes entries that are as they were, entries that no item is
// known to be (found) and items that are not where they were (missing). Only when nothing is left
// to be looked at, the found are matched with the missing; what is missing then is gone.

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "mirror/Engine.h"
#include "mirror/Parts.h"
#include "platform/files/FileManager.h"

namespace docsource::mirror {
namespace {

constexpr unsigned watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                   IN_CLOSE_WRITE | IN_ATTRIB | IN_ONLYDIR;
/// Names that are looked at in one transaction.
constexpr std::size_t batch = 256;
/// How long a remote is listed, after what was new was made here, before more is; in milliseconds.
constexpr std::int64_t betweenNew = 2000;
/// What has failed and changes there waits no longer than that, in milliseconds.
constexpr std::int64_t afterFailure = 5000;
/// Where an item is whose name was taken by another and that was not found yet.
const Place nowhere{-1, {}};

std::optional<Node>& nodeOf(Item& item, Side side) {
  return side == Side::here ? item.here : item.there;
}

bool isSameEntry(const Node& known, const Node& seen) {
  const bool isLink = known.kind == Kind::link && seen.kind == Kind::file;
  return known.identity == seen.identity && (known.kind == seen.kind || isLink);
}

/// A placeholder has no content whose version would count: that of its inode moves on whenever it
/// is hidden or shown.
bool isUnchanged(const Node& known, const Node& seen) {
  const bool isSameVersion =
      known.version == seen.version || (known.isPlaceholder && seen.isPlaceholder);
  return isSameVersion && known.mode == seen.mode && known.size == seen.size &&
         known.modified == seen.modified && known.isPlaceholder == seen.isPlaceholder &&
         known.isExposed == seen.isExposed;
}

/// Whether a directory can have such an entry. A remote may say anything, and what it says becomes
/// part of a path here.
bool isName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

/// Why an entry of a listing is left out; absent when it is not.
std::optional<std::string> troubleWith(const RemoteItem& item) {
  if (!isName(item.name)) return item.trouble.value_or("no document can have that name here");
  if (!item.trouble && item.size > static_cast<std::uint64_t>(INT64_MAX)) {
    return "it has no size that a document can have";
  }
  return item.trouble;
}

bool isNothing(const std::optional<Item>& item) {
  return item && !item->here && !item->agreed && !item->there;
}

}  // namespace

Node Engine::nodeHere(Place place, const LocalEntry& entry) const {
  Node node;
  node.place = std::move(place);
  node.kind = *entry.kind;
  node.identity = entry.identity;
  node.version = entry.version;
  node.size = entry.size;
  node.mode = entry.mode;
  node.isPlaceholder = entry.isPlaceholder;
  node.isExposed = entry.isExposed;
  // While content is being brought in, the time is that of the last piece.
  if (node.kind == Kind::file && !entry.isProviding) node.modified = entry.modified;
  return node;
}

Node Engine::nodeThere(Place place, const RemoteItem& item) {
  Node node;
  node.place = std::move(place);
  node.kind = item.kind == RemoteKind::file ? Kind::file : Kind::directory;
  node.identity = item.identifier;
  if (item.mode) node.mode = *item.mode;
  if (node.kind == Kind::directory) return node;
  node.version = item.version;
  node.size = static_cast<std::int64_t>(item.size);
  if (item.modified) node.modified = item.modified->time_since_epoch().count();
  return node;
}

/// Whether a name that no item has yet is left alone.
bool Engine::stays(ItemNumber directory, const std::string& name, const LocalEntry& entry) {
  if (entry.isPlaceholder) return false;
  std::string path = name;
  bool isInRepository = false;
  std::vector<std::pair<ItemNumber, std::string>> questions;
  for (ItemNumber at = directory;;) {
    questions.emplace_back(at, path);
    const auto item = items_->load(at);
    if (!item || !item->here || at == rootItem) break;
    isInRepository = isInRepository || item->here->place.name == ".git";
    path.insert(0, item->here->place.name + "/");
    at = item->here->place.parent;
  }
  if (isTemporaryName(name, isInRepository)) return true;
  for (const auto& [number, below] : questions) {
    auto rules = ignoreRules_.find(number);
    if (rules == ignoreRules_.end()) {
      std::string text;
      const auto file = directoryHere(number);
      if (file) {
        const auto opened = openFile(file->get(), IgnoreRules::fileName, O_RDONLY);
        const auto status = opened ? lookAtFile(opened.get()) : std::nullopt;
        constexpr std::int64_t most = 1 << 20U;
        if (status && status->kind == Kind::file && !status->isPlaceholder &&
            status->size <= most) {
          text.resize(static_cast<std::size_t>(status->size));
          const ssize_t size = ::pread(opened.get(), text.data(), text.size(), 0);
          text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        }
      }
      rules = ignoreRules_.emplace(number, IgnoreRules(text)).first;
    }
    const auto answer = rules->second.ask(below, entry.kind == Kind::directory);
    if (answer != IgnoreRules::Answer::nothing) return answer == IgnoreRules::Answer::ignored;
  }
  return false;
}

/// Takes care of what a crash of the placeholder library left beside a document; true when the
/// entry is that.
bool Engine::cleanUp(ItemNumber number, int directory, const std::string& name,
                     const LocalEntry& entry) {
  constexpr std::string_view sideName = ".docsource-";
  if (!name.starts_with(sideName)) return false;
  const auto known = items_->withIdentity(Side::here, entry.identity);
  const bool isUnderWay = !busy_.empty();
  if (isUnderWay || entry.kind != Kind::file) return true;
  const auto children = items_->children(Side::here, number);
  // Content that was brought in for a placeholder, and did not come to its place.
  const bool isThereToo = std::any_of(children.begin(), children.end(), [&](ItemNumber child) {
    const auto item = items_->load(child);
    return item && item->here && item->here->isPlaceholder && item->agreed &&
           item->agreed->size == entry.size && item->agreed->modified == entry.modified;
  });
  if (entry.isPlaceholder || (known.empty() && isThereToo)) {
    ::unlinkat(directory, name.c_str(), 0);
    return true;
  }
  if (known.empty()) {
    // What a program has put in the document's place in the moment of an exchange.
    constexpr int most = 1000;
    for (int attempt = 1; attempt < most; ++attempt) {
      const auto shown = nameBeside("Recovered document", conflictText(), attempt);
      if (moveEntry(directory, name, directory, shown) || errno != EEXIST) break;
    }
    return true;
  }
  // The content was exchanged for a placeholder and never given up: it returns to its name.
  const Node& node = *known.front().here;
  const auto parent = directoryHere(node.place.parent);
  if (!parent) return true;
  const auto now = lookAt(parent->get(), node.place.name);
  if (now && now->isPlaceholder &&
      ::renameat2(directory, name.c_str(), parent->get(), node.place.name.c_str(),
                  RENAME_EXCHANGE) == 0) {
    ::unlinkat(directory, name.c_str(), 0);
  } else if (!now && errno == ENOENT) {
    moveEntry(directory, name, parent->get(), node.place.name);
  }
  lookAgain(Side::here, node.place);
  return true;
}

/// Sets what a side has of an item, and when the item is to be looked at.
void Engine::put(Side side, Item& item, Node node) {
  const bool rests = side == Side::here && node.kind == Kind::file && !node.isPlaceholder &&
                     node.version != item.agreedHere.value_or(std::string());
  auto& old = nodeOf(item, side);
  const std::string before = old ? old->identity : std::string();
  if (old && old->identity != node.identity && old->kind == Kind::directory)
    watches_.erase(item.number);
  if (side == Side::there && old && item.agreed && old->place != node.place &&
      items_->fact(factOf(moving, item.number, node.place))) {
    // Moved from here, without an answer.
    item.agreed->place = node.place;
    items_->forgetFacts(factsOf(moving, item.number));
  }
  if (side == Side::there && old) carrySent(old->place, node.place);
  // What is another version whenever it is looked at rests in between.
  const bool hasFailed = side == Side::there && old && old->kind == node.kind &&
                         old->place == node.place && item.tries > 0 && item.due;
  old = std::move(node);
  if (hasFailed) {
    item.due = std::min(*item.due, now() + afterFailure);
  } else {
    item.due = now() + (rests ? options_.rest.count() : 0);
    item.tries = 0;
    item.reason.reset();
  }
  if (side == Side::here) item.movedOut = false;
  items_->save(item);
  if (side == Side::here && !before.empty() && before != item.here->identity) freeLinks(before);
}

/// A second name of a file whose first one is gone becomes a document.
void Engine::freeLinks(const std::string& identity) {
  auto named = items_->withIdentity(Side::here, identity);
  const bool hasFirst = std::any_of(named.begin(), named.end(),
                                    [](const Item& item) { return item.here->kind != Kind::link; });
  if (hasFirst || named.empty()) return;
  Node node = *named.front().here;
  node.kind = Kind::file;
  put(Side::here, named.front(), std::move(node));
}

/// The item whose name a new entry has taken after it was gone on that side; a new one where there
/// is none.
Item Engine::goneOrNew(Side side, const Node& node) {
  if (node.kind == Kind::link || (side == Side::here && node.isPlaceholder)) return {};
  auto gone = items_->at(side == Side::here ? Side::there : Side::here, node.place);
  const auto isThat = [&] {
    return gone && gone->agreed && !nodeOf(*gone, side) && !gone->movedOut &&
           gone->agreed->kind == node.kind && gone->agreed->place == node.place;
  };
  if (!isThat()) gone = items_->lastAt(side, node.place);
  return isThat() ? *std::move(gone) : Item();
}

/// The item that is being moved there from here, where the remote has no identifiers that tell.
std::optional<Item> Engine::movingTo(Side side, const Node& node) {
  if (side == Side::here || !node.identity.empty()) return std::nullopt;
  auto item = items_->withFact(moving, textOf(node.place));
  if (!item || !item->there || item->there->kind != node.kind) return std::nullopt;
  const bool isSame = item->there->size == node.size && item->there->modified == node.modified;
  return isSame ? item : std::nullopt;
}

/// The document whose name an unknown file had before it was renamed: somebody replaced the
/// document's file, and renamed it before anybody looked.
std::optional<Item> Engine::renamedTo(Side side, const Node& node) {
  if (side == Side::there || node.kind != Kind::file || node.isPlaceholder) return std::nullopt;
  const auto places = departures_.before({node.place.parent, node.place.name});
  for (auto key = places.rbegin(); key != places.rend(); ++key) {
    auto item = items_->at(side, {key->first, key->second});
    if (!item) continue;
    const bool isGone = item->here->kind == Kind::file && !item->here->isPlaceholder &&
                        !seen(side).found.contains(*key);
    return isGone ? item : std::nullopt;
  }
  return std::nullopt;
}

/// Items with that inode, or the one that is being given it.
std::vector<Item> Engine::knownHere(const std::string& identity) {
  auto known = items_->withIdentity(Side::here, identity);
  const auto coming = coming_.find(identity);
  if (known.empty() && coming != coming_.end()) {
    auto item = items_->load(coming->second);
    if (item && item->here) known.push_back(*std::move(item));
  }
  return known;
}

void Engine::beginChange(const Place& place) { changing_.emplace(place.parent, place.name); }

void Engine::endChange(const Place& place) {
  const Key key(place.parent, place.name);
  changing_.erase(changing_.find(key));
  overtaken_[key] = ++learnt_;
  const bool isHeard = heard_.erase(key) > 0;
  if (there_.found.erase(key) > 0 || isHeard) lookAgain(Side::there, place);
}

/// Whether what the remote says of a place may be older than what an upload did there, or than what
/// it said later; it is asked again when that has ended.
bool Engine::isOvertaken(Side side, const Place& place) {
  if (side == Side::here) return false;
  const Key key(place.parent, place.name);
  const bool isChanging = changing_.contains(key);
  if (isChanging) heard_.insert(key);
  if (isChanging) return true;
  const auto overtaken = overtaken_.find(key);
  if (overtaken == overtaken_.end() || overtaken->second <= asOf_) return false;
  lookAgain(side, place);
  return true;
}

/// Returns the item that is known at that place afterwards.
std::optional<ItemNumber> Engine::note(Side side, Node node, bool recursive) {
  const auto numberOf = [](const std::optional<Item>& item) {
    return item ? std::optional(item->number) : std::nullopt;
  };
  if (isOvertaken(side, node.place)) return numberOf(items_->at(side, node.place));
  auto& seen = this->seen(side);
  const Key key(node.place.parent, node.place.name);
  auto known = items_->at(side, node.place);
  seen.found.erase(key);
  if (known && isSameEntry(*nodeOf(*known, side), node)) {
    seen.missing.erase(known->number);
    const Node& before = *nodeOf(*known, side);
    node.kind = before.kind;
    if (!isUnchanged(before, node)) put(side, *known, node);
    if (node.kind == Kind::directory && recursive)
      seen.directories.emplace_back(known->number, true);
    return known->number;
  }
  if (known) seen.missing.insert(known->number);
  if (known || !items_->withIdentity(side, node.identity).empty() ||
      coming_.contains(node.identity) || movingTo(side, node) || renamedTo(side, node)) {
    seen.found.insert_or_assign(key, std::move(node));
    return numberOf(known);
  }
  Item item = goneOrNew(side, node);
  const bool isDirectory = node.kind == Kind::directory;
  put(side, item, std::move(node));
  if (isDirectory) seen.directories.emplace_back(item.number, true);
  return item.number;
}

/// Takes note of an entry that is as it was known to be; false when it is not.
bool Engine::noteAsBefore(Side side, const std::pair<ItemNumber, Node>& known, const Node& node,
                          bool recursive) {
  const auto& [number, before] = known;
  if (!isSameEntry(before, node) || !isUnchanged(before, node) || isOvertaken(side, node.place)) {
    return false;
  }
  auto& seen = this->seen(side);
  seen.found.erase({node.place.parent, node.place.name});
  seen.missing.erase(number);
  if (node.kind == Kind::directory && recursive) seen.directories.emplace_back(number, true);
  return true;
}

void Engine::noteGone(Side side, const Place& place) {
  if (isOvertaken(side, place)) return;
  auto& seen = this->seen(side);
  seen.found.erase({place.parent, place.name});
  if (const auto known = items_->at(side, place)) seen.missing.insert(known->number);
}

/// Items without a place, from a look that was cut off, are missed in the next one.
void Engine::missNowhere(Side side) {
  items_->forEach(side == Side::here ? "hereParent=-1" : "thereParent=-1",
                  [&](const Item& item) { seen(side).missing.insert(item.number); });
}

/// Items of a directory that was read, and that were not met.
void Engine::noteAbsent(Side side, ItemNumber directory, Numbers met) {
  std::sort(met.begin(), met.end());
  constexpr std::int64_t most = 1000;
  for (ItemNumber last = 0;;) {
    const auto children = items_->children(side, directory, last, most);
    for (const ItemNumber child : children) {
      if (std::binary_search(met.begin(), met.end(), child)) continue;
      auto item = items_->load(child);
      if (!isOvertaken(side, nodeOf(*item, side)->place)) seen(side).missing.insert(child);
    }
    if (children.size() < static_cast<std::size_t>(most)) return;
    last = children.back();
  }
}

/// Whether it was a placeholder whose mark somebody had taken off, or had written another file's
/// over, and has its own again. What is seen without it has the size and the time of the document
/// and zeros for its content, and nobody has written to it: that is no edit.
bool Engine::restoreMark(int directory, const std::string& name, const LocalEntry& entry) {
  if (entry.kind != Kind::file || entry.isPlaceholder || entry.isHidden) return false;
  const auto known = knownHere(entry.identity);
  if (known.empty() || !known.front().here->isPlaceholder || !known.front().agreed) return false;
  const Node& here = *known.front().here;
  // What somebody has emptied is content, which platformd says by taking the mark off.
  if (entry.size == 0 || entry.size != known.front().agreed->size) return false;
  if (entry.size != here.size || (here.modified && entry.modified != *here.modified)) return false;
  const auto file = openFile(directory, name, O_RDONLY);
  if (!file || holdsContent(file.get(), entry.size)) return false;
  return reshape(file.get(), shapeOf(*known.front().agreed, here, entry),
                 announceFor(known.front().number, nullptr));
}

void Engine::noteHere(ItemNumber directory, int file, const std::string& name, bool recursive) {
  const Place place{directory, name};
  auto entry = lookAt(file, name);
  if (!entry) {
    if (errno == ENOENT) noteGone(Side::here, place);
    return;
  }
  if (cleanUp(directory, file, name, *entry)) return;
  if (!entry->kind) return noteGone(Side::here, place);
  const auto before = items_->at(Side::here, place);
  const bool wasContent =
      before && before->here->identity == entry->identity && !before->here->isPlaceholder;
  if (!wasContent && restoreMark(file, name, *entry)) {
    entry = lookAt(file, name);
    if (!entry) return lookAgain(Side::here, place);
  }
  if (entry->isHidden) {
    // What it is cannot be told from its mark; what is known of it is believed.
    const auto known = knownHere(entry->identity);
    const auto revealed = revealed_.find(entry->identity);
    if (!known.empty()) {
      Node node = *known.front().here;
      node.identity = entry->identity;
      believe(entry, node);
    } else if (revealed == revealed_.end()) {
      hidden_.push_back(place);
      return;
    } else if (revealed->second.isPlaceholder) {
      entry->isPlaceholder = true;
      entry->mode = revealed->second.mode;
    } else {
      return;
    }
  }
  if (!before && stays(directory, name, *entry)) {
    here_.found.erase({directory, name});
    return;
  }
  note(Side::here, nodeHere(place, *entry), recursive);
}

void Engine::lookHere(ItemNumber directory, const std::string& name) {
  const auto file = directoryHere(directory);
  if (file) return noteHere(directory, file->get(), name, false);
  const auto item = items_->load(directory);
  if (item && item->here && directory != rootItem && !here_.missing.contains(directory)) {
    lookAgain(Side::here, item->here->place);
  }
}

void Engine::readDirectoryHere(ItemNumber directory, bool recursive) {
  if (directory == rootItem) missNowhere(Side::here);
  const auto file = directoryHere(directory);
  if (!file) {
    const auto item = items_->load(directory);
    if (item && item->here && directory != rootItem && !here_.missing.contains(directory)) {
      lookAgain(Side::here, item->here->place);
    }
    return;
  }
  // Watched before it is read: what comes later is told.
  if (!watches_.contains(directory)) {
    auto watch = inotify_.watch("/proc/self/fd/" + std::to_string(file->get()), watchedEvents);
    if (watch) {
      watched_[watch.number()] = directory;
      watches_[directory] = std::move(watch);
    }
  }
  Database::Transaction transaction(*database_, Durable::later);
  Numbers met;
  const auto before = entriesOf(Side::here, directory);
  const bool isWhole = listDirectory(file->get(), [&](const std::string& name) {
    const auto known = before.find(name);
    const auto entry = known == before.end() ? std::nullopt : lookAt(file->get(), name);
    if (entry && entry->kind && !entry->isHidden &&
        noteAsBefore(Side::here, known->second, nodeHere({directory, name}, *entry), recursive)) {
      met.push_back(known->second.first);
      return true;
    }
    noteHere(directory, file->get(), name, recursive);
    if (const auto item = items_->at(Side::here, {directory, name})) met.push_back(item->number);
    return true;
  });
  if (isWhole) noteAbsent(Side::here, directory, std::move(met));
  transaction.commit();
}

void Engine::takeEvents() {
  for (const auto& event : inotify_.read()) {
    if (event.isOverflow()) {
      here_.directories.emplace_back(rootItem, true);
      continue;
    }
    const auto watched = watched_.find(event.watch);
    if (watched == watched_.end() || event.name.empty()) continue;
    const ItemNumber directory = watched->second;
    const bool isSameFile = !(event.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO));
    if (isSameFile && filling_.contains({directory, event.name})) continue;
    here_.names.emplace(directory, event.name);
    departures_.take({directory, event.name}, event);
    if (event.name == IgnoreRules::fileName) {
      ignoreRules_.erase(directory);
      here_.directories.emplace_back(directory, true);
    }
  }
}

bool Engine::observeHere(Lock& lock) {
  if (isObservingHere_) return false;
  isObservingHere_ = true;
  const struct Finally {
    bool& flag;
    ~Finally() { flag = false; }
  } finally{isObservingHere_};
  const auto storage = lookAtFile(storage_.get());
  const auto named = lookAt(AT_FDCWD, storagePath_);
  if (!storage || !named || storage->identity != named->identity) {
    throw DatabaseFailure{0, "Another directory is in the place of the document storage."};
  }
  bool hasSeen = false;
  while (true) {
    takeEvents();
    if (!here_.names.empty()) {
      Database::Transaction transaction(*database_, Durable::later);
      for (std::size_t count = 0; count < batch && !here_.names.empty(); ++count) {
        const auto [directory, name] = *here_.names.begin();
        here_.names.erase(here_.names.begin());
        lookHere(directory, name);
      }
      transaction.commit();
    } else if (!here_.directories.empty()) {
      const auto [directory, recursive] = here_.directories.front();
      here_.directories.pop_front();
      readDirectoryHere(directory, recursive);
      // Others get their turn in a long look.
      lock.unlock();
      lock.lock();
    } else if (!hidden_.empty()) {
      const Place place = std::move(hidden_.back());
      hidden_.pop_back();
      reveal(place);
    } else if (!here_.found.empty()) {
      (void)resolve(lock, Side::here).ok();
    } else if (!here_.missing.empty()) {
      dropMissing(Side::here);
    } else {
      break;
    }
    hasSeen = true;
  }
  departures_.clear();
  return hasSeen;
}

Result<bool> Engine::isStillAt(Lock& lock, Side side, const Item& item) {
  const Node& node = side == Side::here ? *item.here : *item.there;
  if (seen(side).missing.contains(item.number) || node.place == nowhere) return false;
  if (side == Side::here) {
    const auto directory = directoryHere(node.place.parent);
    const auto entry = directory ? lookAt(directory->get(), node.place.name) : std::nullopt;
    return entry && entry->identity == node.identity;
  }
  const auto path = items_->path(side, item.number);
  if (!path) return false;
  const auto now = remotely(lock, [&] { return remote_.look(*path); });
  if (now) return now->identifier == node.identity;
  if (remoteProblemOf(now.error()) == RemoteProblem::notFound) return false;
  return now.error();
}

Result<void> Engine::resolve(Lock& lock, Side side) {
  std::set<ItemNumber> still;
  for (const auto& [key, node] : std::map(seen(side).found)) {
    auto items = items_->withIdentity(side, node.identity);
    const auto moved = movingTo(side, node);
    if (moved) items.push_back(*moved);
    for (const Item& item : items) {
      const auto answer = isStillAt(lock, side, item);
      if (!answer) return answer.error();
      if (!*answer) continue;
      still.insert(item.number);
      if (!moved || item.number != moved->number) continue;
      // It has arrived for one half, later than it was asked for.
      const auto ended = endMove(lock, item, node.place);
      if (isInTrouble()) return *trouble_;
      if (!ended) inDoubt_.insert(item.number);
      if (!ended || *ended) seen(side).found.erase(key);
    }
  }
  assign(side, still);
  return {};
}

/// Matches what was found with the items. `still`: those that are where they were, although
/// something of their identity was found elsewhere.
void Engine::assign(Side side, const std::set<ItemNumber>& still) {
  auto& seen = this->seen(side);
  Database::Transaction transaction(*database_);
  const auto found = std::exchange(seen.found, {});
  const auto livesElsewhere = [&](const Item& item, const Place& place) {
    const std::string& identity = (side == Side::here ? item.here : item.there)->identity;
    if (identity.empty()) return false;
    const bool isFound = std::any_of(found.begin(), found.end(), [&](const auto& entry) {
      return entry.second.identity == identity && entry.second.place != place;
    });
    if (isFound || side == Side::there || !item.here->isPlaceholder) return isFound;
    // A placeholder goes on under its second name.
    const auto others = items_->withIdentity(side, identity);
    return std::any_of(others.begin(), others.end(), [&](const Item& other) {
      return other.here->kind == Kind::link && !seen.missing.contains(other.number);
    });
  };
  for (const auto& [key, seenNode] : found) {
    Node node = seenNode;
    auto named = items_->at(side, node.place);
    std::optional<Item> same;
    bool isSecondName = false;
    auto items =
        side == Side::here ? knownHere(node.identity) : items_->withIdentity(side, node.identity);
    if (auto item = movingTo(side, node)) items.push_back(*std::move(item));
    for (auto& item : items) {
      if ((named && item.number == named->number) || nodeOf(item, side)->kind == Kind::link) {
        continue;
      }
      if (still.contains(item.number)) {
        isSecondName = true;
      } else if (!same) {
        same = std::move(item);
      }
    }
    if (isSecondName) {
      same.reset();
      if (side == Side::there) node.identity.clear();
      if (side == Side::here && node.kind == Kind::file) node.kind = Kind::link;
    }
    if (named && nodeOf(*named, side)->place == nowhere) named.reset();
    if (!named && !same && !isSecondName) {
      same = renamedTo(side, node);
      if (same && (!seen.missing.contains(same->number) || livesElsewhere(*same, node.place))) {
        same.reset();
      }
    }
    const bool isKnownThere = named && (named->agreed || named->there);
    const bool nameWins =
        named && nodeOf(*named, side)->kind == node.kind && !livesElsewhere(*named, node.place) &&
        (!same || (node.kind == Kind::file && !node.isPlaceholder && isKnownThere));
    if (nameWins) {
      seen.missing.erase(named->number);
      if (same) seen.missing.insert(same->number);
      put(side, *named, node);
      if (node.kind == Kind::directory) seen.directories.emplace_back(named->number, true);
      continue;
    }
    if (named) {
      nodeOf(*named, side)->place = nowhere;
      items_->save(*named);
      seen.missing.insert(named->number);
    }
    Item item = same ? std::move(*same) : goneOrNew(side, node);
    seen.missing.erase(item.number);
    put(side, item, node);
    if (node.kind == Kind::directory) seen.directories.emplace_back(item.number, true);
  }
  transaction.commit();
}

/// What is missing when everything was looked at is gone.
void Engine::dropMissing(Side side) {
  auto& seen = this->seen(side);
  Database::Transaction transaction(*database_);
  for (const ItemNumber number : std::exchange(seen.missing, {})) {
    auto item = items_->load(number);
    if (!item || !nodeOf(*item, side)) continue;
    const Node node = *nodeOf(*item, side);
    if (side == Side::here && node.kind != Kind::link) {
      // A second name becomes the first.
      bool hasOther = false;
      for (const Item& other : items_->withIdentity(side, node.identity)) {
        if (other.here->kind != Kind::link || seen.missing.contains(other.number)) continue;
        Node next = *other.here;
        next.kind = Kind::file;
        items_->erase(other.number);
        put(side, *item, std::move(next));
        hasOther = true;
        break;
      }
      if (hasOther) continue;
    }
    removeFrom(side, number, departures_.contains({node.place.parent, node.place.name}));
  }
  transaction.commit();
}

/// The item and everything below it is not on that side any more.
void Engine::removeFrom(Side side, ItemNumber number, bool movedOut) {
  auto item = items_->load(number);
  if (!item || !nodeOf(*item, side)) return;
  if (nodeOf(*item, side)->kind == Kind::directory) {
    for (const ItemNumber child : items_->children(side, number)) removeFrom(side, child, movedOut);
    if (side == Side::here) {
      watches_.erase(number);
      ignoreRules_.erase(number);
    }
  }
  item->movedOut = side == Side::here && movedOut && item->here->isPlaceholder;
  const auto sent = side == Side::here && !item->agreed ? sentTo(number) : std::nullopt;
  if (sent) {
    // Its first version may have arrived there: it is looked for, and removed.
    item->agreed = item->here;
    item->agreed->place = *sent;
    item->agreed->identity.clear();
    item->agreed->version.clear();
  }
  nodeOf(*item, side).reset();
  item->due = now() + (side == Side::here ? options_.rest.count() : 0);
  item->tries = 0;
  item->reason.reset();
  item->isConfirmed = false;
  if (item->agreed) {
    auto& seen = this->seen(side);
    seen.lastGone = now();
    if (!seen.firstGone) seen.firstGone = seen.lastGone;
  }
  // What is being uploaded is removed there when it has arrived, and what was there is asked for.
  if (isNothing(item) && !item->agreed && !isBusy(number)) return items_->erase(number);
  items_->save(*item);
}

/// What a directory was last seen to hold, by name; nothing of one that holds very much.
std::unordered_map<std::string, std::pair<ItemNumber, Node>> Engine::entriesOf(
    Side side, ItemNumber directory) {
  constexpr std::size_t most = 4096;
  std::unordered_map<std::string, std::pair<ItemNumber, Node>> known;
  if (auto entries = items_->entries(side, directory, most)) {
    for (auto& entry : *entries) {
      std::string name = entry.second.place.name;
      known.emplace(std::move(name), std::move(entry));
    }
  }
  return known;
}

/// Has another thread list the directories that are read next, while what has come is noted.
void Engine::listAhead(Lock& lock) {
  constexpr std::size_t most = 4;
  while (!isClosed_ && !isInTrouble() && listings_.size() < most &&
         listings_.size() < there_.directories.size()) {
    const ItemNumber directory = there_.directories[listings_.size()].first;
    const auto path = items_->path(Side::there, directory);
    if (!path) return;
    const auto listing = std::make_shared<Listing>(remote_, directory, *path, learnt_);
    listings_.push_back(listing);
    lock.unlock();
    executor_([listing] { listing->run(); });
    lock.lock();
  }
}

/// The listing of the next directory, begun earlier where it was known then.
std::shared_ptr<Listing> Engine::nextListing(ItemNumber directory, const std::string& path) {
  if (!listings_.empty()) {
    const auto& listing = listings_.front();
    if (listing->directory() == directory && listing->path() == path) return listing;
    endListings();
  }
  overtaken_.clear();
  listings_.push_back(std::make_shared<Listing>(remote_, directory, path, learnt_));
  return listings_.front();
}

void Engine::popDirectoryThere() {
  const ItemNumber directory = there_.directories.front().first;
  there_.directories.pop_front();
  if (listings_.empty() || listings_.front()->directory() != directory) return;
  listings_.front()->abandon();
  listings_.pop_front();
}

void Engine::endListings() {
  for (const auto& listing : listings_) listing->abandon();
  listings_.clear();
}

Result<void> Engine::readDirectoryThere(Lock& lock, ItemNumber directory, bool recursive) {
  if (directory == rootItem) missNowhere(Side::there);
  const auto path = items_->path(Side::there, directory);
  if (!path || isInDoubt(directory)) return {};  // it is read when it is known where it is
  const auto listing = nextListing(directory, *path);
  listAhead(lock);
  std::vector<RemoteItem> entries;
  Numbers met;
  // What is known of it, in one piece: most entries are as they were.
  std::optional<std::unordered_map<std::string, std::pair<ItemNumber, Node>>> known;
  LeftOut leftOut;
  const auto take = [&] {
    if (!known) known = entriesOf(Side::there, directory);
    Database::Transaction transaction(*database_, Durable::later);
    for (const auto& entry : entries) {
      if (const auto trouble = troubleWith(entry)) {
        leftOut.add(entry.name, *trouble);
        // It must not look removed.
        if (const auto item = items_->at(Side::there, {directory, entry.name})) {
          there_.missing.erase(item->number);
          met.push_back(item->number);
        }
        continue;
      }
      Node node = nodeThere({directory, entry.name}, entry);
      const auto before = known->find(entry.name);
      if (before != known->end() && noteAsBefore(Side::there, before->second, node, recursive)) {
        met.push_back(before->second.first);
        continue;
      }
      if (const auto number = note(Side::there, std::move(node), recursive)) met.push_back(*number);
    }
    transaction.commit();
    entries.clear();
  };
  asOf_ = listing->asOf();
  std::exception_ptr failure;
  const auto listed = remotely(lock, [&] {
    return listing->take([&](const RemoteItem& item) {
      entries.push_back(item);
      if (entries.size() < batch || failure) return;
      const Lock inner(mutex_);
      // Not through the remote, which knows nothing of it.
      try {
        take();
      } catch (...) {
        failure = std::current_exception();
      }
    });
  });
  if (failure) std::rethrow_exception(failure);
  if (!listed) {
    if (remoteProblemOf(listed.error()) != RemoteProblem::notFound) return listed.error();
    const auto item = items_->load(directory);
    if (item && item->there && directory != rootItem && !there_.missing.contains(directory)) {
      lookAgain(Side::there, item->there->place);
    }
    return {};
  }
  take();
  noteAbsent(Side::there, directory, std::move(met));
  const auto item = items_->load(directory);
  const auto reason = leftOut.text();
  if (item && item->reason != reason && !(item->reason && item->due)) {
    change(directory, [&](Item& read) { read.reason = reason; });
  }
  return {};
}

Result<void> Engine::lookThere(Lock& lock, ItemNumber directory, const std::string& name) {
  const auto parent = items_->path(Side::there, directory);
  if (!parent || !isName(name) || isInDoubt(directory)) return {};
  if (listings_.empty()) overtaken_.clear();
  asOf_ = learnt_;
  const auto now =
      remotely(lock, [&] { return remote_.look(parent->empty() ? name : *parent + "/" + name); });
  Database::Transaction transaction(*database_, Durable::later);
  if (now) {
    note(Side::there, nodeThere({directory, name}, *now), false);
  } else if (remoteProblemOf(now.error()) == RemoteProblem::notFound) {
    noteGone(Side::there, {directory, name});
  } else if (remoteProblemOf(now.error()) != RemoteProblem::notPermitted) {
    return now.error();
  }
  transaction.commit();
  if (!listings_.empty()) overtaken_[{directory, name}] = ++learnt_;
  return {};
}

std::optional<ItemNumber> Engine::itemThere(const std::string& path) {
  ItemNumber number = rootItem;
  for (std::size_t at = 0; at < path.size();) {
    const auto end = std::min(path.find('/', at), path.size());
    const auto next = items_->at(Side::there, {number, path.substr(at, end - at)});
    if (!next) return std::nullopt;
    number = next->number;
    at = end + 1;
  }
  return number;
}

/// Whether the remote is the one that it was; nothing else is asked of it before.
Result<void> Engine::identify(Lock& lock) {
  const auto known = items_->fact("identity");
  const auto identity = remotely(lock, [&] { return remote_.identity(!known); });
  if (!identity) return identity.error();
  if (known && *known != *identity) {
    return trouble(remoteError(RemoteProblem::notTheSame,
                               "Another remote is in the place of the one that this account was "
                               "made for. Mount or name the right one; nothing is changed until "
                               "then."));
  }
  if (!known) {
    Database::Transaction transaction(*database_);
    items_->setFact("identity", *identity);
    transaction.commit();
  }
  isIdentified_ = true;
  return {};
}

bool Engine::observeThere(Lock& lock) {
  if (isInTrouble()) return false;
  const bool isDue = shallLookThere_ || isToldOfChanges_ || now() >= lookThereAt_;
  const bool shallEndMoves = !inDoubt_.empty() && isIdentified_ && now() >= endMovesAt_;
  if (!isDue && there_.isEmpty() && !shallEndMoves) return false;
  if (isDue) {
    if (!identify(lock)) return false;
    isToldOfChanges_ = false;
    shallLookThere_ = false;
    const auto cursor = cursor_.value_or(std::string());
    const auto changes = remotely(lock, [&] { return remote_.changes(cursor); });
    if (!changes) {
      shallLookThere_ = true;
      return false;
    }
    if (!cursor_ || changes->everything) {
      there_.directories.emplace_back(rootItem, true);
    } else {
      for (const auto& changed : changes->directories) {
        const auto number = itemThere(changed.path);
        there_.directories.emplace_back(number.value_or(rootItem), changed.recursive || !number);
      }
      for (const auto& path : changes->items) {
        const auto slash = path.rfind('/');
        const bool isAtTop = slash == std::string::npos;
        // Of a directory that is not known, the one above was named too.
        const auto parent = isAtTop ? std::optional(rootItem) : itemThere(path.substr(0, slash));
        if (parent) lookAgain(Side::there, {*parent, isAtTop ? path : path.substr(slash + 1)});
      }
    }
    cursor_ = changes->cursor;
    constexpr std::int64_t forever = 1'000'000'000'000;
    lookThereAt_ =
        now() + (remote_.capabilities().changes ? forever : options_.lookThrough.count());
  }
  if (!inDoubt_.empty() && (isDue || shallEndMoves)) endMoves(lock);
  if (isInTrouble()) return false;
  bool hasSeen = isDue;
  const struct Finally {
    Engine& engine;
    ~Finally() { engine.endListings(); }
  } finally{*this};
  while (!there_.isEmpty()) {
    if (isClosed_) return false;
    hasSeen = true;
    Result<void> result;
    if (!there_.names.empty()) {
      const auto entry = *there_.names.begin();
      there_.names.erase(entry);
      result = lookThere(lock, entry.first, entry.second);
      if (!result && isInTrouble()) there_.names.insert(entry);
    } else if (!there_.directories.empty()) {
      const auto [directory, recursive] = there_.directories.front();
      result = readDirectoryThere(lock, directory, recursive);
      if (isClosed_) return false;
      // Without the top nothing is known of anything.
      if (!result && !isInTrouble() && directory == rootItem)
        result = trouble(remoteError(RemoteProblem::unreachable, result.error().description()));
      if (result || !isInTrouble()) popDirectoryThere();
      if (!result && !isInTrouble()) {  // this directory cannot be read
        change(directory, [&](Item& unread) { unread.reason = result.error().description(); });
        result = {};
      }
      // Nobody waits for all of a large remote to see the first of it, and who lists it does not
      // wait for all that is made here.
      const bool mayMake = result && !isClosed_ && now() >= makeNewAt_;
      if (mayMake && makeNewHere(lock, options_.newAtATime)) {
        makeNewAt_ = now() + betweenNew;
      }
    } else if (!there_.found.empty()) {
      result = resolve(lock, Side::there);
    } else {
      dropMissing(Side::there);
    }
    if (!result) return !isInTrouble();
  }
  hasLookedThere_ = true;
  troubleTries_ = 0;  // not before: who says who it is may still be unable to say what it has
  if (state_ != MirrorHealth::State::ok) wellAgain();
  return hasSeen;
}

/// Finds out what a file is that is nobody's to read and that no item is known to be: a placeholder
/// that was made and not noted, or somebody's content.
void Engine::reveal(const Place& place) {
  const auto directory = directoryHere(place.parent);
  const auto entry = directory ? lookAt(directory->get(), place.name) : std::nullopt;
  if (!entry || !entry->isHidden || !knownHere(entry->identity).empty()) return;
  removeEntry(directory->get(), place, [this](const LocalEntry& taken) {
    revealed_[taken.identity] = taken;
    return false;
  });
}

/// What was to be removed when the process ended, and is still what it was, goes; unless somebody
/// has it open, or it has come back there.
bool Engine::finishRemoval(const std::string& name) {
  const auto file = openFile(aside_.get(), name, O_RDONLY);
  const auto entry = file ? lookAtFile(file.get()) : std::nullopt;
  if (!entry || (!entry->isPlaceholder && isOpenElsewhere(file.get()))) return false;
  const auto known = items_->withIdentity(Side::here, entry->identity);
  if (known.size() != 1 || known.front().there) return false;
  if (::unlinkat(aside_.get(), name.c_str(), 0) != 0) return false;
  change(known.front().number, [](Item& gone) {
    gone.here.reset();
    gone.agreed.reset();
  });
  return true;
}

/// What was taken aside when the process ended returns to its place, and is decided about anew.
void Engine::recoverAside() {
  listDirectory(aside_.get(), [&](const std::string& name) {
    const auto entry = lookAt(aside_.get(), name);
    if (items_->fact("decided " + name) == hiddenAside)
      ::fchmodat(aside_.get(), name.c_str(), 0, 0);
    if (entry && entry->names > 1) {  // it is somewhere else as well
      ::unlinkat(aside_.get(), name.c_str(), 0);
      return true;
    }
    if (entry && items_->fact("decided " + name) == decisionOn(*entry) && finishRemoval(name)) {
      return true;
    }
    const auto fact = items_->fact("aside " + name);
    Place place{rootItem, name};
    if (fact) place = placeOf(*fact);
    auto directory = directoryHere(place.parent);
    if (!directory) directory = directoryHere(rootItem);
    if (!directory) return true;
    for (int attempt = 0; attempt < 1000; ++attempt) {
      const std::string target =
          attempt == 0 ? place.name : nameBeside(place.name, conflictText(), attempt);
      if (moveEntry(aside_.get(), name, directory->get(), target) || errno != EEXIST) break;
    }
    return true;
  });
}

}  // namespace docsource::mirror
