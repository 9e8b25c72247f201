// One item after the other is brought to where here, there and agreed are the same.
//
// settleOnce() compares the three nodes and does the one next thing; every function below answers
// `again` when something has changed and the item has to be compared anew, `later` when it has to
// wait (the item says until when), and `done` when nothing is left to do.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "mirror/Engine.h"
#include "mirror/Parts.h"

namespace docsource::mirror {
namespace {

/// How long a document that somebody has open is left alone.
constexpr std::int64_t whileInUse = 2000;
constexpr std::int64_t firstRetry = 1000;
constexpr std::int64_t longestRetry = 300'000;
/// Removals at a time that are believed without asking, and below how many no share counts.
constexpr std::int64_t mostRemovals = 1000;
constexpr std::int64_t fewRemovals = 3;
constexpr std::int64_t inOneRound = 64;

bool isContentChangedHere(const Item& item) {
  return item.here->kind == Kind::file && !item.here->isPlaceholder &&
         item.here->version != item.agreedHere;
}
bool isContentChangedThere(const Item& item) {
  return item.there->kind == Kind::file && item.there->version != item.agreed->version;
}

RemoteAttributes attributesOf(const Node& node) {
  RemoteAttributes attributes;
  if (node.modified) attributes.modified = RemoteTime(std::chrono::nanoseconds(*node.modified));
  if (node.mode) attributes.mode = static_cast<unsigned>(*node.mode);
  return attributes;
}

std::string joined(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

std::optional<std::string> versionOf(const Node& node) {
  return node.kind == Kind::file ? std::optional(node.version) : std::nullopt;
}

}  // namespace

void Engine::countRemovals() {
  const auto here = items_->count(
      "agreedKind IS NOT NULL AND (hereKind IS NULL OR thereKind IS NULL) AND hereKind IS NULL AND "
      "thereKind IS NOT NULL");
  const auto there = items_->count(
      "agreedKind IS NOT NULL AND (hereKind IS NULL OR thereKind IS NULL) AND hereKind IS NOT "
      "NULL");
  const auto isMuch = [&](std::int64_t removed) {
    if (removed <= fewRemovals) return false;
    return removed > mostRemovals || 2 * removed > items_->count("agreedKind IS NOT NULL") - 1;
  };
  const auto before = std::pair(areHeldHere_, areHeldThere_);
  areHeldHere_ = isMuch(here);
  areHeldThere_ = isMuch(there);
  if (before != std::pair(areHeldHere_, areHeldThere_)) changes_.note(rootItem);
}

/// Until when more may be about to go on that side: how much goes at once is known only when
/// nothing goes any more. Who goes on removing for long is not waited for; absent then too.
std::optional<std::int64_t> Engine::goingUntil(Side side) {
  constexpr std::int64_t atMost = 10;
  auto& seen = this->seen(side);
  const auto rest = options_.rest.count();
  if (seen.firstGone && now() >= seen.lastGone + rest) seen.firstGone.reset();
  if (!seen.firstGone || now() >= *seen.firstGone + atMost * rest) return std::nullopt;
  return std::min(seen.lastGone + rest, *seen.firstGone + atMost * rest);
}

/// What is not held back until somebody confirms it, or until nothing goes any more. "Here" are
/// removals that happened here.
std::string Engine::heldBack() {
  std::string condition = "1";
  if (areHeldHere_ || goingUntil(Side::here))
    condition += " AND NOT (agreedKind IS NOT NULL AND hereKind IS NULL AND NOT confirmed)";
  if (areHeldThere_ || goingUntil(Side::there))
    condition += " AND NOT (agreedKind IS NOT NULL AND thereKind IS NULL AND NOT confirmed)";
  return condition;
}

std::string Engine::pair(const Item& item) {
  return item.here->version + " " + item.there->version;
}

/// Whether the two contents are known to be different, and the one there to be none that was sent
/// from here, nor the one that was agreed on.
bool Engine::areDifferent(const Item& item) {
  const auto compared = different_.find(item.number);
  if (compared != different_.end() && compared->second == pair(item)) return true;
  const bool canBeAgreed = item.agreed && item.hash && item.agreed->size == item.here->size;
  return !canBeAgreed && areOfOtherSizes(item);
}

/// Whether the sizes tell as much, when the content here is not the agreed one.
bool Engine::areOfOtherSizes(const Item& item) {
  const bool canBeAgreed = item.agreed && item.hash && item.agreed->size == item.there->size;
  return item.here->size != item.there->size && !canBeAgreed &&
         !items_->fact(sentFact(item.there->place));
}

/// Whether such content was sent to that place there, by whichever item, without an answer. What is
/// being sent there is its item's.
bool Engine::wasSent(const Place& place, const std::string& hash) {
  if (changing_.contains({place.parent, place.name})) return false;
  return items_->fact(sentFact(place)).value_or(std::string()).find(hash) != std::string::npos;
}

/// What was sent to a place there may be at another by now.
void Engine::carrySent(const Place& from, const Place& to) {
  const auto sent = items_->fact(sentFact(from));
  if (!sent || from == to) return;
  items_->setFact(sentFact(to), *sent);
  items_->forgetFact(sentFact(from));
}

/// The document whose first version was sent there without an answer, or the directory that was to
/// be made there, that has gone elsewhere here since.
std::optional<Item> Engine::senderTo(const Node& there) {
  const bool isFile = there.kind == Kind::file;
  if (isFile && !items_->fact(sentFact(there.place))) return std::nullopt;
  auto item = items_->withFact(sending, textOf(there.place));
  const bool isIt = item && item->here && item->here->kind == there.kind &&
                    item->here->place != there.place && !item->agreed && !item->there;
  return isIt ? std::move(item) : std::nullopt;
}

/// What has arrived there is what the sender has sent: both are one item, and agree on that.
void Engine::adopt(const Item& sender, const Item& arrived) {
  Database::Transaction transaction(*database_);
  change(sender.number, [&](Item& sent) {
    sent.there = arrived.there;
    sent.agreed = arrived.there;
    sent.due = now();
  });
  items_->erase(arrived.number);
  items_->forgetFacts(factsOf(sending, sender.number));
  transaction.commit();
}

/// Where the first version of an item was sent to without an answer.
std::optional<Place> Engine::sentTo(ItemNumber number) {
  const auto sent = items_->firstFact(factsOf(sending, number));
  return sent ? std::optional(placeOf(*sent)) : std::nullopt;
}

std::string Engine::conflictText() const {
  std::array<char, 32> date{};
  const std::time_t time = std::time(nullptr);
  std::tm parts{};
  ::localtime_r(&time, &parts);
  const auto size = std::strftime(date.data(), date.size(), "%Y-%m-%d", &parts);
  return "conflict " + options_.host + " " + std::string(date.data(), size);
}

bool Engine::settleDue(Lock& lock) {
  countRemovals();
  const bool isMoreNew = makeNewHere(lock, 2);
  bool hasDone = isMoreNew;
  for (const bool removals : {false, true}) {
    // What is left of the new comes in the next round, together as well.
    const auto due = isMoreNew ? items_->dueHere(now(), heldBack(), inOneRound)
                               : items_->due(now(), removals, heldBack(), inOneRound);
    for (const ItemNumber number : due) {
      if (isClosed_) return false;
      hasDone = settle(lock, number) != Outcome::later || hasDone;
    }
    items_->writeSettled();
    // Nothing is removed while there is something to be carried over.
    if (hasDone) return true;
  }
  return false;
}

/// What is new there appears here, many at a time, if it is at least so much: the disk is waited
/// for once for all of them, and they count only afterwards. What cannot be made, or not yet, is
/// left to settle().
bool Engine::makeNewHere(Lock& lock, std::size_t atLeast) {
  const auto numbers = items_->newThere(now(), options_.newAtATime);
  if (numbers.size() < atLeast) return false;
  std::vector<std::pair<ItemNumber, Node>> made;
  ItemNumber parent = 0;
  qx::FileDescriptor directory;
  for (const ItemNumber number : numbers) {
    const auto item = items_->load(number);
    if (!item || isBusy(number)) continue;
    const Node& there = *item->there;
    const auto parentItem = items_->load(there.place.parent);
    if (!parentItem || !parentItem->here || items_->at(Side::here, there.place)) continue;
    if (senderTo(there)) continue;
    if (parent != there.place.parent) {
      auto opened = directoryHere(there.place.parent);
      if (!opened) continue;
      directory = std::move(*opened);
      parent = there.place.parent;
    }
    const auto entry = makeHere(directory.get(), there);
    if (entry && entry->kind == there.kind)
      made.emplace_back(number, nodeHere(there.place, *entry));
  }
  if (made.empty() || !syncFileSystem(storage_.get())) return false;
  Database::Transaction transaction(*database_);
  for (const auto& [number, node] : made) agreeOnNew(number, node);
  transaction.commit();
  for (const auto& [number, node] : made) settle(lock, number);
  items_->writeSettled();
  return true;
}

std::optional<LocalEntry> Engine::makeHere(int directory, const Node& there) {
  if (there.kind != Kind::directory) {
    return makePlaceholder(directory, aside_.get(), there.place.name, shapeOf(there));
  }
  return makeDirectory(directory, there.place.name, there.mode.value_or(0755));
}

void Engine::agreeOnNew(ItemNumber number, const Node& here) {
  change(number, [&](Item& item) {
    item.here = here;
    item.agreed = item.there;
    item.agreedHere.reset();
    item.hash.reset();
    item.due = now();
  });
  if (here.kind == Kind::directory) here_.directories.emplace_back(number, true);
}

Engine::Outcome Engine::settle(Lock& lock, ItemNumber number) {
  if (!settling_.insert(number).second) return Outcome::later;
  const struct Finally {
    std::set<ItemNumber>& settling;
    ItemNumber number;
    ~Finally() { settling.erase(number); }
  } finally{settling_, number};
  constexpr int most = 16;
  for (int round = 0; round < most; ++round) {
    auto item = items_->load(number);
    if (!item) return Outcome::done;
    if (isBusy(number)) return Outcome::later;
    // A transfer that has ended meanwhile may have failed.
    if (round > 0 && item->tries > 0 && item->due > now()) return Outcome::later;
    if (isInDoubt(number) || (item->here && isInDoubt(item->here->place.parent))) {
      return waitFor(number, firstRetry);
    }
    const auto outcome = settleOnce(lock, *item);
    if (outcome == Outcome::later) return outcome;
    if (outcome == Outcome::again) continue;
    different_.erase(number);
    if (item->due || item->reason || item->tries != 0) items_->settled(number);
    return outcome;
  }
  return waitFor(number, firstRetry);
}

Engine::Outcome Engine::settleOnce(Lock& lock, Item item) {
  if (item.number == rootItem) return Outcome::done;
  if (item.here && item.here->kind == Kind::link) return Outcome::done;
  // What was noted of a directory that is gone by now is looked at again when that is seen anew.
  const auto hasNoParent = [&](const std::optional<Node>& node, Side side) {
    if (!node || node->place.parent <= rootItem) return false;
    const auto parent = items_->load(node->place.parent);
    return !parent || !(side == Side::here ? parent->here : parent->there);
  };
  const bool isOrphanHere = hasNoParent(item.here, Side::here);
  if (isOrphanHere || hasNoParent(item.there, Side::there)) {
    change(item.number, [&](Item& orphan) { (isOrphanHere ? orphan.here : orphan.there).reset(); });
    return Outcome::again;
  }
  if (!item.here && !item.there) {
    if (item.agreed) {
      if (const auto outcome = askAgain(lock, item)) return *outcome;
      const auto now = items_->load(item.number);
      if (!now || now->here || now->there) return Outcome::again;
    }
    Database::Transaction transaction(*database_);
    items_->erase(item.number);
    transaction.commit();
    return Outcome::again;
  }
  if (!item.agreed) {
    if (!item.there) return newHere(lock, item);
    if (!item.here) return newThere(lock, item);
    return meet(lock, std::move(item));
  }
  if (!item.there) return goneThere(lock, item);
  if (!item.here) return goneHere(lock, item);
  return both(lock, std::move(item));
}

Engine::Outcome Engine::waitFor(ItemNumber number, std::int64_t milliseconds) {
  change(number, [&](Item& item) { item.due = now() + milliseconds; });
  return Outcome::later;
}

/// Until a program has closed a document, or something else is out of the way that takes no work of
/// ours.
Engine::Outcome Engine::waitForOthers(ItemNumber number) {
  change(number, [&](Item& item) {
    item.due = now() + whileInUse;
    item.tries = waitsForOthers;
  });
  return Outcome::later;
}

/// Somebody has it open: for a moment, as most have, or for longer.
Engine::Outcome Engine::waitForClosing(const Item& item) {
  constexpr std::int64_t moment = 20;
  constexpr std::int64_t mostMoments = 5;
  if (item.tries < 0 || item.tries >= mostMoments) return waitForOthers(item.number);
  change(item.number, [&](Item& waiting) {
    waiting.due = now() + moment;
    ++waiting.tries;
  });
  return Outcome::later;
}

/// Until what has the place there has gone on, or is removed: not before removals are carried over.
Engine::Outcome Engine::waitForRoomThere(ItemNumber number) {
  if (areHeldHere_) return waitForOthers(number);
  const auto until = goingUntil(Side::here);
  return waitFor(number, until ? std::max<std::int64_t>(*until - now(), 1) : 1);
}

/// Notes why something could not be done there, and when it is tried again.
Engine::Outcome Engine::failed(const Item& item, const Error& error) {
  if (isInTrouble()) return waitFor(item.number, std::max<std::int64_t>(troubleUntil_ - now(), 1));
  const auto problem = remoteProblemOf(error);
  change(item.number, [&](Item& now) {
    if (problem == RemoteProblem::cancelled) {
      now.due.reset();
    } else {
      now.tries = std::max<std::int64_t>(now.tries, 0);
      const auto shift = std::min<std::int64_t>(now.tries, 20);
      now.due = this->now() + std::min(firstRetry << shift, longestRetry);
      ++now.tries;
    }
    // What another one has changed is compared anew, and nothing to be told of.
    if (problem != RemoteProblem::changedMeanwhile && problem != RemoteProblem::notFound) {
      now.reason = error.description();
    } else if (now.tries == 1) {
      now.due = this->now();
    }
  });
  return Outcome::later;
}

Engine::Outcome Engine::failedHere(const Item& item, int errnum, const std::string& what) {
  if (errnum == ENOENT || errnum == ESTALE || errnum == ENOTDIR) {
    if (item.here) lookAgain(Side::here, item.here->place);
    return waitFor(item.number, 1);
  }
  return failed(item, Error::posix(errnum, what));
}

/// The directory is there on that side as well; brought back if need be, since something in it
/// lives.
bool Engine::haveParent(Lock& lock, Side side, ItemNumber parent) {
  if (parent == rootItem) return true;
  const auto has = [&](const std::optional<Item>& item) {
    return item && (side == Side::here ? item->here : item->there).has_value();
  };
  auto item = items_->load(parent);
  if (!item) return false;
  if (has(item)) {
    if (item->here && item->there && item->here->place != item->there->place) settle(lock, parent);
    return has(items_->load(parent));
  }
  if (item->agreed && side == Side::there && askAgain(lock, *item)) {
    return has(items_->load(parent));
  }
  if (item->agreed) change(parent, [](Item& revived) { revived.agreed.reset(); });
  item = items_->load(parent);
  if (!item || has(item)) return item.has_value();
  if (!(side == Side::here ? item->there : item->here)) return false;
  if (side == Side::here) {
    newThere(lock, *item);
  } else {
    newHere(lock, *item);
  }
  return has(items_->load(parent));
}

/// Has the remote move an item, both of whose paths are known. Should the answer be lost, the item
/// is known to have come to its place from here.
Result<RemoteItem> Engine::moveThere(Lock& lock, const Item& item, const Place& to) {
  if (isInTrouble()) return *trouble_;
  const auto from = *items_->path(Side::there, item.number);
  const auto target = joined(*items_->path(Side::there, to.parent), to.name);
  const std::string fact = factOf(moving, item.number, to);
  const bool wasTried = items_->fact(fact).has_value();
  {
    Database::Transaction transaction(*database_);
    items_->setFact(fact, textOf(to));
    transaction.commit();
  }
  auto moved = remotely(lock, [&] { return remote_.move(from, target, versionOf(*item.there)); });
  if (moved) {
    inDoubt_.erase(item.number);
    return moved;
  }
  const auto problem = remoteProblemOf(moved.error());
  if (problem == RemoteProblem::changedMeanwhile || problem == RemoteProblem::notFound) {
    // An earlier attempt may be the reason.
    if (!wasTried) items_->forgetFact(fact);
    lookAgain(Side::there, item.there->place);
    lookAgain(Side::there, to);
  }
  if (items_->fact(fact)) {
    inDoubt_.insert(item.number);
    endMovesAt_ = now();
  }
  return moved;
}

/// Both sides agree on what the remote has moved from here.
void Engine::noteMoved(const Item& item, const Place& to, const RemoteItem& moved) {
  Database::Transaction transaction(*database_);
  change(item.number, [&](Item& now) {
    if (!now.there) return;
    const bool wasAgreed = now.agreed && now.agreed->version == item.there->version;
    now.there = nodeThere(to, moved);
    now.due = this->now();
    if (!now.agreed) return;
    now.agreed->place = to;
    if (now.there->kind == Kind::file && wasAgreed) now.agreed->version = now.there->version;
  });
  carrySent(item.there->place, to);
  items_->forgetFacts(factsOf(moving, item.number));
  transaction.commit();
}

/// Has the remote end a move that was broken off when there was something at its goal already;
/// whether it did. Where the goal is somebody else's, nothing was moved.
Result<bool> Engine::endMove(Lock& lock, const Item& item, const Place& to) {
  const auto from = items_->path(Side::there, item.number);
  const auto parent = items_->path(Side::there, to.parent);
  if (!from || !parent || items_->isBelow(Side::there, to.parent, item.number)) return false;
  if (isBusyBelow(Side::there, item.number)) {
    return remoteError(RemoteProblem::failed, "Something in it is under way.");
  }
  const auto target = joined(*parent, to.name);
  const auto moved =
      remotely(lock, [&] { return remote_.move(*from, target, versionOf(*item.there)); });
  if (moved) {
    noteMoved(item, to, *moved);
    there_.missing.erase(item.number);
    if (moved->kind == RemoteKind::directory) there_.directories.emplace_back(item.number, true);
    return true;
  }
  const auto problem = remoteProblemOf(moved.error());
  if (problem == RemoteProblem::changedMeanwhile) {
    items_->forgetFact(factOf(moving, item.number, to));
    return false;
  }
  if (problem == RemoteProblem::notFound) return false;
  return moved.error();
}

/// Finds out what has become of the moves there that were not answered. A remote that copies and
/// then removes may have been broken off anywhere in between: what it has copied must not be taken
/// for somebody else's, and nothing be removed or carried over that is at two places.
void Engine::endMoves(Lock& lock) {
  for (const ItemNumber number : std::set(inDoubt_)) {
    bool isKnown = true;
    for (const auto& fact : items_->facts(factsOf(moving, number))) {
      const Place to = placeOf(fact);
      const auto item = items_->load(number);
      const auto parent = items_->path(Side::there, to.parent);
      if (!item || !item->there || !parent || item->there->place == to) continue;
      const auto path = joined(*parent, to.name);
      const auto found = remotely(lock, [&] { return remote_.look(path); });
      if (!found && remoteProblemOf(found.error()) == RemoteProblem::notFound) continue;
      const bool canBeIt =
          !found || (found->identifier.empty() &&
                     (found->kind == RemoteKind::file) == (item->there->kind == Kind::file));
      if (!canBeIt) continue;
      isKnown = found && endMove(lock, *item, to).ok();
      if (isInTrouble()) return;
      if (!isKnown) break;
      lookAgain(Side::there, to);
    }
    if (!isKnown) continue;
    inDoubt_.erase(number);
    const auto item = items_->load(number);
    if (item && item->there && item->there->kind == Kind::directory) {
      there_.directories.emplace_back(number, true);
    }
  }
  endMovesAt_ = now() + firstRetry;
}

/// Whether it is not known where a directory is there, or one above it.
bool Engine::isInDoubt(ItemNumber directory) {
  return std::any_of(inDoubt_.begin(), inDoubt_.end(), [&](const ItemNumber number) {
    return items_->isBelow(Side::there, directory, number);
  });
}

/// Nothing else has the place; what has it goes on to where it belongs, or aside.
bool Engine::haveRoom(Lock& lock, Side side, const Item& item, const Place& place) {
  auto other = items_->at(side, place);
  if (!other || other->number == item.number) return true;
  settle(lock, other->number);
  // It may be known by now that the item is another one, or belongs elsewhere.
  const auto wanting = items_->load(item.number);
  const auto goal = !wanting ? std::nullopt : side == Side::here ? wanting->there : wanting->here;
  if (!goal || goal->place != place) return false;
  other = items_->at(side, place);
  if (!other || other->number == item.number) return true;
  if (side == Side::here) return !isBusy(other->number) && setAside(*other);
  if (isBusy(other->number)) return false;
  const auto from = items_->path(Side::there, other->number);
  if (!from || !items_->path(Side::there, place.parent)) return false;
  // Its removal has not been carried there yet. A directory that gives way to what was in it waits
  // for that to go out.
  if (!other->here && other->agreed) {
    if (wanting->there && items_->isBelow(Side::there, item.number, other->number)) {
      moveBeside(lock, *wanting, place);
    }
    return false;
  }
  if (!other->here) {
    // The name belongs to the remote's; ours gives way.
    const auto own = items_->load(item.number);
    if (own && own->here) setAside(*own);
    return false;
  }
  // Two that exchange their names.
  return moveBeside(lock, *other, place);
}

/// Has the remote give an item that is on both sides a name beside a place, for as long as it is in
/// the way, or something is in its own.
bool Engine::moveBeside(Lock& lock, const Item& item, const Place& place) {
  if (isBusyBelow(Side::there, item.number)) return false;
  for (int attempt = 1; attempt < 10; ++attempt) {
    const std::string name = nameBeside(place.name, conflictText(), attempt);
    const auto moved = moveThere(lock, item, {place.parent, name});
    if (!moved && remoteProblemOf(moved.error()) == RemoteProblem::changedMeanwhile) continue;
    if (!moved) return false;
    // It was not somebody else who moved it.
    noteMoved(item, {place.parent, name}, *moved);
    return true;
  }
  return false;
}

/// Gives what is here another name beside its own.
bool Engine::setAside(const Item& item) {
  const Place& place = item.here->place;
  const auto directory = directoryHere(place.parent);
  if (!directory) return false;
  for (int attempt = 1; attempt < 1000; ++attempt) {
    const std::string name = nameBeside(place.name, conflictText(), attempt);
    if (!moveEntry(directory->get(), place.name, directory->get(), name)) {
      if (errno == EEXIST) continue;
      lookAgain(Side::here, place);
      return false;
    }
    const auto moved = lookAt(directory->get(), name);
    if (!moved || moved->identity != item.here->identity) {
      moveEntry(directory->get(), name, directory->get(), place.name);
      lookAgain(Side::here, place);
      lookAgain(Side::here, {place.parent, name});
      return false;
    }
    change(item.number, [&](Item& now) {
      if (now.here) now.here->place.name = name;
      now.due = this->now();
    });
    lookAgain(Side::here, {place.parent, name});
    return true;
  }
  return false;
}

/// The same for what no item is: a link, a temporary file.
bool Engine::setAsideUnknown(const Place& place) {
  const auto directory = directoryHere(place.parent);
  if (!directory || items_->at(Side::here, place)) return false;
  const auto entry = lookAt(directory->get(), place.name);
  if (!entry) return errno == ENOENT;
  if (entry->kind && !stays(place.parent, place.name, *entry)) return false;
  for (int attempt = 1; attempt < 1000; ++attempt) {
    const std::string name = nameBeside(place.name, conflictText(), attempt);
    if (moveEntry(directory->get(), place.name, directory->get(), name)) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

Engine::Outcome Engine::newHere(Lock& lock, const Item& item) {
  const Node& here = *item.here;
  if (here.isPlaceholder && !items_->at(Side::there, here.place)) return removeStray(item);
  if (!haveParent(lock, Side::there, here.place.parent)) return waitForOthers(item.number);
  if (const auto other = items_->at(Side::there, here.place);
      other && other->number != item.number && !other->here && !other->agreed) {
    // New on both sides, or come from here, and gone on.
    if (senderTo(*other->there)) {
      const bool isLater = settle(lock, other->number) == Outcome::later;
      return isLater ? waitFor(item.number, firstRetry) : Outcome::again;
    }
    if (other->there->kind != here.kind) {
      setAside(item);
      return Outcome::again;
    }
    if (isBusy(other->number)) return Outcome::later;
    Database::Transaction transaction(*database_);
    for (const ItemNumber child : items_->children(Side::there, other->number)) {
      change(child, [&](Item& moved) { moved.there->place.parent = item.number; });
    }
    items_->erase(other->number);
    change(item.number, [&](Item& met) { met.there = other->there; });
    transaction.commit();
    return Outcome::again;
  }
  if (!haveRoom(lock, Side::there, item, here.place)) return waitForRoomThere(item.number);
  const auto parent = items_->path(Side::there, here.place.parent);
  if (!parent) return waitFor(item.number, firstRetry);
  // It may have arrived at the place that it had before.
  const auto sent = sentTo(item.number);
  const auto arrived = sent ? items_->at(Side::there, *sent) : std::nullopt;
  if (arrived && senderTo(*arrived->there) && settle(lock, arrived->number) == Outcome::later) {
    return waitFor(item.number, firstRetry);
  }
  const auto current = items_->load(item.number);
  if (!current || !current->here || current->there) return Outcome::again;
  if (here.kind == Kind::file) return upload(lock, *current);
  if (isInTrouble()) return failed(item, *trouble_);
  const std::string fact = factOf(sending, item.number, here.place);
  const bool isInDoubt = items_->fact(fact).has_value();
  items_->setFact(fact, textOf(here.place));
  const auto made = remotely(lock, [&] {
    return remote_.makeDirectory(joined(*parent, here.place.name), {{}, attributesOf(here).mode});
  });
  if (!made) {
    const bool isUnknown = remoteProblemOf(made.error()) == RemoteProblem::unreachable;
    if (!isUnknown && !isInDoubt) items_->forgetFact(fact);
    lookAgain(Side::there, here.place);
    return failed(item, made.error());
  }
  change(item.number, [&](Item& now) {
    now.there = nodeThere(here.place, *made);
    now.agreed = now.there;
    now.agreed->mode = here.mode;
    now.due = this->now();
  });
  items_->forgetFacts(factsOf(sending, item.number));
  return Outcome::again;
}

/// A placeholder whose document is nowhere: another name of one that is a document of its own by
/// now, or what a crash has left.
Engine::Outcome Engine::removeStray(const Item& item) {
  const Node& here = *item.here;
  if (!hasLookedThere_ || isInTrouble() || !there_.isEmpty())
    return waitFor(item.number, firstRetry);
  const auto directory = directoryHere(here.place.parent);
  auto entry = directory ? lookAt(directory->get(), here.place.name) : std::nullopt;
  believe(entry, here);
  if (!entry || entry->identity != here.identity || !entry->isPlaceholder) {
    lookAgain(Side::here, here.place);
    return waitFor(item.number, firstRetry);
  }
  const bool isRemoved = removeEntry(directory->get(), here.place, [&](const LocalEntry& taken) {
    return taken.identity == here.identity && taken.isPlaceholder;
  });
  if (!isRemoved) return waitForOthers(item.number);
  Database::Transaction transaction(*database_);
  change(item.number, [](Item& now) { now.here.reset(); });
  freeLinks(here.identity);
  transaction.commit();
  return Outcome::again;
}

/// Has the further names of a document stand for the file that it has now; `identity` is that of
/// the file they stood for.
void Engine::relink(const std::string& identity, const Node& now) {
  const auto source = directoryHere(now.place.parent);
  for (Item& other : items_->withIdentity(Side::here, identity)) {
    if (other.here->kind != Kind::link || !source) continue;
    const Place place = other.here->place;
    const auto directory = directoryHere(place.parent);
    const auto entry = directory ? lookAt(directory->get(), place.name) : std::nullopt;
    const bool isAway = directory && !entry && errno == ENOENT;
    if (!isAway && (!entry || entry->identity != identity || identity == now.identity)) continue;
    const int to = isAway ? directory->get() : aside_.get();
    const std::string name = isAway ? place.name : "link";
    if (::linkat(source->get(), now.place.name.c_str(), to, name.c_str(), 0) != 0) continue;
    if (!isAway) {
      // Exchanged: whoever has put something else under the name meanwhile keeps it.
      const auto exchange = [&] {
        return ::renameat2(to, name.c_str(), directory->get(), place.name.c_str(),
                           RENAME_EXCHANGE) == 0;
      };
      const bool isExchanged = exchange();
      const auto out = lookAt(to, name);
      const bool isIt = isExchanged && out && out->identity == identity;
      if (isExchanged && !isIt) exchange();
      const auto left = lookAt(to, name);
      if (left && (left->identity == identity || left->names > 1)) {
        ::unlinkat(to, name.c_str(), 0);
      } else {
        recoverAside();
      }
      if (!isIt) continue;
    }
    change(other.number, [&](Item& linked) {
      linked.here = now;
      linked.here->place = place;
      linked.here->kind = Kind::link;
    });
  }
  if (identity != now.identity) freeLinks(identity);
}

/// Takes the further names of a document away for a moment; whether there were any.
bool Engine::unlinkOthers(const Item& item) {
  bool hasAny = false;
  for (const Item& other : items_->withIdentity(Side::here, item.here->identity)) {
    if (other.here->kind != Kind::link) continue;
    const auto directory = directoryHere(other.here->place.parent);
    const auto entry = directory ? lookAt(directory->get(), other.here->place.name) : std::nullopt;
    if (!entry || entry->identity != item.here->identity) continue;
    hasAny = removeEntry(directory->get(), other.here->place,
                         [&](const LocalEntry& taken) {
                           return taken.identity == item.here->identity && taken.names > 1;
                         }) ||
             hasAny;
  }
  return hasAny;
}

Engine::Outcome Engine::newThere(Lock& lock, const Item& item) {
  const Node there = *item.there;
  if (const auto sender = senderTo(there)) {
    if (isBusy(sender->number)) return waitFor(item.number, firstRetry);
    if (there.kind == Kind::file) return recognise(lock, item);
    if (items_->children(Side::there, item.number, 0, 1).empty()) {
      adopt(*sender, item);
      return Outcome::again;
    }
    items_->forgetFacts(factsOf(sending, sender->number));  // something is in it: somebody else's
  }
  if (!haveParent(lock, Side::here, there.place.parent)) return waitForOthers(item.number);
  if (const auto other = items_->at(Side::here, there.place);
      other && other->number != item.number) {
    if (!other->agreed && !other->there && other->here->kind == there.kind) {
      settle(lock, other->number);  // which finds this one at its name
      return items_->load(item.number) ? waitFor(item.number, firstRetry) : Outcome::again;
    }
    if (!haveRoom(lock, Side::here, item, there.place)) return waitForOthers(item.number);
    return Outcome::again;
  }
  const auto directory = directoryHere(there.place.parent);
  if (!directory) return failedHere(item, errno, "Its directory cannot be opened");
  const std::string& name = there.place.name;
  const auto entry = makeHere(directory->get(), there);
  if (!entry && errno == EEXIST) {
    lookAgain(Side::here, there.place);
    if (setAsideUnknown(there.place)) return Outcome::again;
    const auto other = lookAt(directory->get(), name);
    return other && other->isHidden ? waitForOthers(item.number) : waitFor(item.number, 1);
  }
  if (!entry || !syncFileSystem(directory->get())) {
    return failedHere(item, errno, "It cannot be made here");
  }
  if (entry->kind != there.kind) {
    lookAgain(Side::here, there.place);
    return waitFor(item.number, 1);
  }
  agreeOnNew(item.number, nodeHere(there.place, *entry));
  return Outcome::again;
}

/// Both have something of that name, and never agreed.
Engine::Outcome Engine::meet(Lock& lock, Item item) {
  if (item.here->kind != item.there->kind) return conflict(item);
  if (item.here->kind == Kind::directory) {
    change(item.number, [](Item& now) { now.agreed = now.there; });
    return Outcome::again;
  }
  if (item.here->isPlaceholder) {
    // A placeholder of ours whose item was forgotten: it takes what is there now.
    change(item.number, [](Item& now) {
      now.agreed = now.there;
      now.agreed->version.clear();
    });
    return Outcome::again;
  }
  return areDifferent(item) ? conflict(item) : compare(lock, item);
}

Engine::Outcome Engine::goneThere(Lock& lock, const Item& item) {
  const Node& here = *item.here;
  const bool isChanged = isContentChangedHere(item) && !isTouchedOnly(item);
  const bool isMoved = here.place != item.agreed->place && !here.isPlaceholder;
  const bool isKept = isChanged || isMoved;
  if (!isKept && areHeldThere_ && !item.isConfirmed) return Outcome::later;
  if (const auto outcome = askAgain(lock, item)) return *outcome;
  if (isKept) {
    // What was done here is not undone by a removal there.
    change(item.number, [](Item& now) {
      now.agreed.reset();
      now.agreedHere.reset();
      now.hash.reset();
    });
    return Outcome::again;
  }
  return removeHere(lock, item);
}

/// Asks once more for what is said to be gone there, since a listing may have lied; absent when it
/// is gone.
std::optional<Engine::Outcome> Engine::askAgain(Lock& lock, const Item& item) {
  const Place& agreed = item.agreed->place;
  const auto parent = items_->path(Side::there, agreed.parent);
  if (!parent) {
    if (isInTrouble() || !hasLookedThere_) return waitFor(item.number, firstRetry);
    const auto above = items_->load(agreed.parent);
    const bool isGoneToo = above && above->agreed && !above->there;
    const auto outcome = isGoneToo ? askAgain(lock, *above) : std::nullopt;
    return outcome == Outcome::later ? waitFor(item.number, firstRetry) : outcome;
  }
  const Key key(agreed.parent, agreed.name);
  if (changing_.contains(key)) return waitFor(item.number, 1);
  const auto found = remotely(lock, [&] { return remote_.look(joined(*parent, agreed.name)); });
  // What another item is uploading there is not this one.
  if (changing_.contains(key)) return waitFor(item.number, 1);
  if (!found && remoteProblemOf(found.error()) != RemoteProblem::notFound) {
    return failed(item, found.error());
  }
  const bool isIt = found &&
                    (found->identifier == item.agreed->identity || found->identifier.empty() ||
                     item.agreed->identity.empty()) &&
                    (found->kind == RemoteKind::file) == (item.agreed->kind == Kind::file);
  if (!isIt) return std::nullopt;
  const auto other = items_->at(Side::there, agreed);
  if (other && (other->here || other->agreed || other->there->kind == Kind::directory)) {
    return std::nullopt;
  }
  Database::Transaction transaction(*database_);
  if (other) items_->erase(other->number);
  change(item.number, [&](Item& now) {
    if (!now.there) now.there = nodeThere(agreed, *found);
  });
  transaction.commit();
  if (item.agreed->kind == Kind::directory) there_.directories.emplace_back(item.number, true);
  return Outcome::again;
}

std::string Engine::decisionOn(const LocalEntry& entry) {
  return entry.identity + " " + std::to_string(entry.size) + " " + std::to_string(entry.modified) +
         (entry.isPlaceholder ? " placeholder" : "");
}

/// Removes a file after it was taken aside, where nobody reaches it by its name any more, and found
/// to be what is to go; otherwise it returns.
bool Engine::removeEntry(int directory, const Place& place,
                         const std::function<bool(const LocalEntry&)>& isIt,
                         const std::optional<LocalEntry>& decided) {
  std::string aside;
  for (int number = 1; aside.empty() || lookAt(aside_.get(), aside); ++number) {
    aside = std::to_string(number);
  }
  {
    Database::Transaction transaction(*database_);
    items_->setFact("aside " + aside, textOf(place));
    items_->setFact("decided " + aside, decided ? decisionOn(*decided) : std::string());
    transaction.commit();
  }
  if (!moveEntry(directory, place.name, aside_.get(), aside)) {
    lookAgain(Side::here, place);
    return false;
  }
  auto taken = lookAt(aside_.get(), aside);
  if (taken && taken->isHidden) {
    const auto known = items_->withIdentity(Side::here, taken->identity);
    if (!known.empty()) {
      believe(taken, *known.front().here);
    } else {
      items_->setFact("decided " + aside, hiddenAside);
      taken = lookAtHidden(aside_.get(), aside);
    }
  }
  if (taken && isIt(*taken) && ::unlinkat(aside_.get(), aside.c_str(), 0) == 0) return true;
  recoverAside();
  lookAgain(Side::here, place);
  return false;
}

Engine::Outcome Engine::removeHere(Lock& lock, const Item& noted) {
  Item item = noted;
  if (item.here->kind == Kind::file && !item.here->isPlaceholder) {
    item.agreedHere = item.here->version;
    change(item.number, [&](Item& now) { now.agreedHere = item.agreedHere; });
  }
  const auto current = items_->load(item.number);
  if (!current || !current->here || current->there || isBusy(item.number) ||
      current->here->version != item.here->version || current->here->place != item.here->place) {
    return Outcome::again;
  }
  const Node here = *current->here;
  const auto directory = directoryHere(here.place.parent);
  if (!directory) return failedHere(item, errno, "Its directory cannot be opened");
  const std::string& name = here.place.name;
  if (here.kind == Kind::directory) {
    for (const ItemNumber child : items_->children(Side::here, item.number)) {
      // Removals of the whole tree are one removal.
      if (item.isConfirmed) change(child, [](Item& confirmed) { confirmed.isConfirmed = true; });
      settle(lock, child);
    }
    const auto now = items_->load(item.number);
    if (!now || !now->here || now->there || !now->agreed) return Outcome::again;
    const auto children = items_->children(Side::here, item.number);
    const bool areLinks = std::all_of(children.begin(), children.end(), [&](ItemNumber child) {
      const auto left = items_->load(child);
      return left && left->here && left->here->kind == Kind::link;
    });
    if (!areLinks) return waitForOthers(item.number);
    if (::unlinkat(directory->get(), name.c_str(), AT_REMOVEDIR) != 0) {
      if (errno != ENOTEMPTY && errno != EEXIST) {
        return failedHere(item, errno, "The directory cannot be removed");
      }
      // Something in it is only here.
      here_.directories.emplace_back(item.number, false);
      change(item.number, [](Item& kept) { kept.agreed.reset(); });
      return Outcome::again;
    }
  } else {
    const auto file = openFile(directory->get(), name, here.isPlaceholder ? O_PATH : O_RDONLY);
    if (!file) return failedHere(item, errno, "The document cannot be opened");
    auto before = lookAtFile(file.get());
    believe(before, here);
    const bool isSame = before && before->identity == here.identity &&
                        before->isPlaceholder == here.isPlaceholder &&
                        (here.isPlaceholder || before->version == here.version);
    if (!isSame) {
      lookAgain(Side::here, here.place);
      return waitFor(item.number, 1);
    }
    if (!here.isPlaceholder && isOpenElsewhere(file.get())) {
      return waitForOthers(item.number);
    }
    const auto isIt = [&](const LocalEntry& taken) {
      return taken.identity == here.identity && taken.isPlaceholder == here.isPlaceholder &&
             taken.size == before->size && taken.modified == before->modified &&
             (here.isPlaceholder || !isOpenElsewhere(file.get()));
    };
    const bool isRemoved = removeEntry(directory->get(), here.place, isIt, before);
    if (!isRemoved) return waitForOthers(item.number);
  }
  Database::Transaction transaction(*database_);
  watches_.erase(item.number);
  change(item.number, [](Item& now) {
    now.here.reset();
    if (!now.there) now.agreed.reset();
  });
  freeLinks(here.identity);
  transaction.commit();
  return Outcome::again;
}

Engine::Outcome Engine::goneHere(Lock& lock, const Item& item) {
  const Node& there = *item.there;
  const bool isInDoubt = isContentChangedThere(item) && items_->fact(sentFact(there.place));
  if (isInDoubt && !item.movedOut) return recognise(lock, item);
  if (isContentChangedThere(item) || there.place != item.agreed->place || item.movedOut) {
    change(item.number, [](Item& now) {
      now.agreed.reset();
      now.agreedHere.reset();
      now.hash.reset();
    });
    return Outcome::again;
  }
  if (areHeldHere_ && !item.isConfirmed) return Outcome::later;
  if (there.kind == Kind::directory) {
    for (const ItemNumber child : items_->children(Side::there, item.number)) {
      if (item.isConfirmed) change(child, [](Item& confirmed) { confirmed.isConfirmed = true; });
      settle(lock, child);
    }
    const auto now = items_->load(item.number);
    if (!now || now->here || !now->there || !now->agreed) return Outcome::again;
    if (!items_->children(Side::there, item.number, 0, 1).empty()) {
      return waitFor(item.number, firstRetry);
    }
  }
  const auto path = items_->path(Side::there, item.number);
  if (!path || isBusy(item.number)) return waitFor(item.number, firstRetry);
  const auto removed = remotely(lock, [&] { return remote_.remove(*path, versionOf(there)); });
  if (!removed && remoteProblemOf(removed.error()) != RemoteProblem::notFound) {
    if (remoteProblemOf(removed.error()) == RemoteProblem::changedMeanwhile) {
      lookAgain(Side::there, there.place);
      if (there.kind == Kind::directory) {
        // Something in it was not seen: it comes back.
        there_.directories.emplace_back(item.number, true);
        change(item.number, [](Item& now) { now.agreed.reset(); });
        return waitFor(item.number, 1);
      }
    }
    return failed(item, removed.error());
  }
  change(item.number, [](Item& now) {
    now.there.reset();
    if (!now.here) now.agreed.reset();
  });
  return Outcome::again;
}

void Engine::agreeOnContent(Item& item, const Node& there) {
  item.agreed->identity = there.identity;
  item.agreed->version = there.version;
  item.agreed->size = there.size;
  item.agreed->modified = there.modified;
}

Engine::Outcome Engine::both(Lock& lock, Item item) {
  if (item.here->kind != item.there->kind) return conflict(item);
  const bool isMovedHere = item.here->place != item.agreed->place;
  const bool isMovedThere = item.there->place != item.agreed->place;
  if (item.here->place != item.there->place) {
    return isMovedThere ? moveHere(lock, item) : moveThere(lock, item);
  }
  if (isMovedHere || item.agreed->identity != item.there->identity) {
    change(item.number, [](Item& now) {
      now.agreed->place = now.there->place;
      now.agreed->identity = now.there->identity;
    });
    return Outcome::again;
  }
  if (item.here->kind == Kind::directory) return attributes(lock, std::move(item));
  if (item.here->isPlaceholder && item.agreedHere) {
    // Given up, and the process was ended before that was noted.
    change(item.number, [](Item& now) {
      now.isWanted = true;
      now.agreedHere.reset();
      now.hash.reset();
    });
    return Outcome::again;
  }
  if (item.here->isExposed) return cover(item);
  const bool isChangedHere = isContentChangedHere(item);
  const bool isChangedThere = isContentChangedThere(item);
  if (isChangedHere) {
    const bool isDifferent = areDifferent(item);
    // Of content that appeared in a placeholder it is not known whether it was only brought in.
    const bool isUnknown = !item.agreedHere;
    if (isChangedThere || isUnknown) {
      if (!isDifferent) return compare(lock, item);
      if (isChangedThere) return conflict(item);
    }
    return upload(lock, item);
  }
  // Filled by who ended before it was.
  const bool isCutOff = item.here->isPlaceholder && !item.here->modified;
  if (isChangedThere) {
    if (const auto outcome = keepOverwritten(lock, item)) return *outcome;
  }
  if (isChangedThere || isCutOff) return refresh(item);
  // Truncated by its path, of which no program's being kept waiting tells.
  const bool isCut = item.here->isPlaceholder && item.here->size != item.agreed->size;
  if (item.here->isPlaceholder && (isCut || item.isWanted || isPinned(item))) {
    return download(lock, item);
  }
  return attributes(lock, std::move(item));
}

/// Our last version may have been replaced by somebody who had not seen it: both compared, and then
/// both wrote. Only a remote that does not compare in one step with writing lets that happen. Ours
/// is then kept beside; absent when what is there comes from ours.
std::optional<Engine::Outcome> Engine::keepOverwritten(Lock& lock, const Item& item) {
  const auto replaced = items_->fact(replacedFact(item.number));
  const auto path = items_->path(Side::there, item.number);
  if (item.here->isPlaceholder || !replaced || !path) return std::nullopt;
  const auto found = remotely(lock, [&] { return remote_.look(*path); });
  if (!found || found->version != item.there->version) {
    lookAgain(Side::there, item.there->place);
    return found ? waitFor(item.number, 1) : failed(item, found.error());
  }
  const auto came = [&](const std::string& version) {
    return std::find(found->ancestors.begin(), found->ancestors.end(), version) !=
           found->ancestors.end();
  };
  if (came(item.agreed->version) || !came(*replaced)) return std::nullopt;
  const auto now = items_->load(item.number);
  const bool isSame = now && now->here && now->there && now->agreed &&
                      now->here->version == item.here->version &&
                      now->there->version == item.there->version;
  return isSame ? conflict(*now) : Outcome::again;
}

/// What somebody has done to a placeholder's permissions was meant for the document: they are
/// noted, and the placeholder has none again, so that nobody reads its zeros.
Engine::Outcome Engine::cover(const Item& item) {
  Node now;
  if (const auto first = reshapeHere(item, *item.here, item.here->mode, now)) return *first;
  change(item.number, [&](Item& covered) {
    if (!covered.here) return;
    now.place = covered.here->place;
    covered.here = now;
  });
  return Outcome::again;
}

/// Permissions and times of a document or directory whose content both agree on.
Engine::Outcome Engine::attributes(Lock& lock, Item item) {
  const Node& here = *item.here;
  const Node& there = *item.there;
  const auto able = remote_.capabilities();
  // What was changed on both sides stays as it is here: what is there may have been sent from here,
  // without an answer.
  const bool isChangedHere = item.agreed->mode && here.mode != item.agreed->mode;
  const bool isChangedThere = there.mode && there.mode != item.agreed->mode && !isChangedHere;
  if (isChangedThere && here.isPlaceholder) {
    Node now;
    if (const auto first = reshapeHere(item, *item.agreed, there.mode, now)) return *first;
    change(item.number, [&](Item& changed) {
      changed.agreed->mode = there.mode;
      if (changed.here) now.place = changed.here->place;
      if (changed.here) changed.here = now;
    });
    return Outcome::again;
  }
  if (isChangedThere) {
    const auto directory = directoryHere(here.place.parent);
    if (!directory) return failedHere(item, errno, "Its directory cannot be opened");
    const auto entry = lookAt(directory->get(), here.place.name);
    if (entry && entry->mode != here.mode) {
      lookAgain(Side::here, here.place);
      return waitFor(item.number, 1);
    }
    if (!entry || entry->identity != here.identity ||
        ::fchmodat(directory->get(), here.place.name.c_str(), static_cast<mode_t>(*there.mode),
                   0) != 0) {
      return failedHere(item, errno, "Its permissions cannot be set");
    }
    auto now = lookAt(directory->get(), here.place.name);
    believe(now, here);
    change(item.number, [&](Item& changed) {
      changed.agreed->mode = there.mode;
      if (!now || now->identity != here.identity || !changed.here) return;
      // Only the time of the last change may have moved.
      const bool isSame = now->size == here.size &&
                          (here.kind == Kind::directory || now->modified == here.modified);
      const Node node = nodeHere(changed.here->place, *now);
      if (isSame && changed.agreedHere == changed.here->version) changed.agreedHere = node.version;
      changed.here = node;
    });
    return Outcome::again;
  }
  RemoteAttributes wanted;
  if (able.modes && here.mode != item.agreed->mode) {
    wanted.mode = static_cast<unsigned>(*here.mode);
  }
  const bool hasTime = here.kind == Kind::file && here.modified && item.agreed->modified;
  if (able.modificationTimes && hasTime && here.modified != item.agreed->modified) {
    wanted.modified = attributesOf(here).modified;
  }
  if (!wanted.mode && !wanted.modified) return Outcome::done;
  const auto path = items_->path(Side::there, item.number);
  if (!path) return waitFor(item.number, firstRetry);
  const auto set =
      remotely(lock, [&] { return remote_.setAttributes(*path, versionOf(there), wanted); });
  if (!set) {
    lookAgain(Side::there, there.place);
    return failed(item, set.error());
  }
  change(item.number, [&](Item& now) {
    if (!now.there || !now.agreed) return;
    const Place place = now.there->place;
    now.there = nodeThere(place, *set);
    if (now.there->kind == Kind::file) agreeOnContent(now, *now.there);
    now.agreed->mode = wanted.mode ? here.mode : now.agreed->mode;
    if (wanted.modified) now.agreed->modified = here.modified;
  });
  return Outcome::again;
}

Engine::Outcome Engine::moveHere(Lock& lock, const Item& item) {
  const Place target = item.there->place;
  if (!haveParent(lock, Side::here, target.parent)) return waitForOthers(item.number);
  if (items_->isBelow(Side::here, target.parent, item.number)) {
    // Each was moved into the other, on different sides: the remote's way.
    for (ItemNumber at = target.parent; at != item.number;) {
      const auto between = items_->load(at);
      if (between->there && between->here->place != between->there->place &&
          settling_.insert(at).second) {
        const auto outcome = moveHere(lock, *between);
        settling_.erase(at);
        if (outcome == Outcome::again) return outcome;
      }
      at = between->here->place.parent;
    }
    return waitFor(item.number, firstRetry);
  }
  if (!haveRoom(lock, Side::here, item, target)) return waitForOthers(item.number);
  const auto current = items_->load(item.number);
  if (!current || !current->here || !current->there || current->there->place != target) {
    return Outcome::again;
  }
  const Place from = current->here->place;
  const auto source = directoryHere(from.parent);
  if (!source) return failedHere(*current, errno, "Its directory cannot be opened");
  const auto goal = directoryHere(target.parent);
  if (!goal) return failedHere(*current, errno, "Its new directory cannot be opened");
  const auto entry = lookAt(source->get(), from.name);
  if (!entry || entry->identity != current->here->identity) {
    lookAgain(Side::here, from);
    return waitFor(item.number, 1);
  }
  if (!moveEntry(source->get(), from.name, goal->get(), target.name)) {
    if (errno == EEXIST) {
      lookAgain(Side::here, target);
      return setAsideUnknown(target) ? Outcome::again : waitFor(item.number, 1);
    }
    return failedHere(*current, errno, "It cannot be moved");
  }
  auto moved = lookAt(goal->get(), target.name);
  believe(moved, *current->here);
  if (!moved || moved->identity != current->here->identity) {
    moveEntry(goal->get(), target.name, source->get(), from.name);
    lookAgain(Side::here, from);
    lookAgain(Side::here, target);
    return waitFor(item.number, 1);
  }
  change(item.number, [&](Item& now) {
    if (!now.here) return;
    const bool wasAgreed = now.agreedHere == now.here->version;
    Node node = nodeHere(target, *moved);
    const bool isSame = node.size == now.here->size && node.modified == now.here->modified &&
                        node.isPlaceholder == now.here->isPlaceholder;
    if (wasAgreed && isSame && node.kind == Kind::file) now.agreedHere = node.version;
    now.here = std::move(node);
    now.agreed->place = target;
  });
  lookAgain(Side::here, from);
  return Outcome::again;
}

Engine::Outcome Engine::moveThere(Lock& lock, const Item& item) {
  const Place target = item.here->place;
  if (!haveParent(lock, Side::there, target.parent)) return waitForOthers(item.number);
  if (items_->isBelow(Side::there, target.parent, item.number)) {
    // What it was moved into was moved out of it before, here; unless that was done there.
    for (ItemNumber at = target.parent; at != item.number;) {
      const auto between = items_->load(at);
      if (between->here && between->agreed && between->here->place != between->there->place &&
          between->there->place == between->agreed->place) {
        return settle(lock, at) == Outcome::later ? waitFor(item.number, firstRetry)
                                                  : Outcome::again;
      }
      at = between->there->place.parent;
    }
    return moveHere(lock, item);
  }
  if (!haveRoom(lock, Side::there, item, target)) return waitForRoomThere(item.number);
  if (isBusyBelow(Side::there, item.number)) return waitFor(item.number, firstRetry);
  const auto current = items_->load(item.number);
  if (!current || !current->here || !current->there || current->here->place != target) {
    return Outcome::again;
  }
  const bool canBe =
      items_->path(Side::there, item.number) && items_->path(Side::there, target.parent);
  if (!canBe) return waitFor(item.number, firstRetry);
  const auto moved = moveThere(lock, *current, target);
  if (!moved) return failed(item, moved.error());
  noteMoved(*current, target, *moved);
  return Outcome::again;
}

/// Tells what inode a document is about to have. With a lock for a thread that does not hold the
/// mutex.
Announcement Engine::announceFor(ItemNumber number, Lock* lock) {
  return [this, number, lock](int file) -> Result<void> {
    const auto entry = lookAtFile(file);
    if (!entry) return Error::posix(errno, "The new file cannot be looked at");
    if (lock) lock->lock();
    coming_[entry->identity] = number;
    if (lock) lock->unlock();
    return {};
  };
}

/// Makes a placeholder of that content of what is here, a placeholder or unchanged content; `now`
/// is what there is then. Without a mode its permissions stay what they are. Answers what else has
/// to be done first.
std::optional<Engine::Outcome> Engine::reshapeHere(const Item& item, const Node& content,
                                                   std::optional<std::int64_t> mode, Node& now) {
  const Node& here = *item.here;
  const auto directory = directoryHere(here.place.parent);
  if (!directory) return failedHere(item, errno, "Its directory cannot be opened");
  const auto file = openFile(directory->get(), here.place.name, O_PATH);
  if (!file) return failedHere(item, errno, "The document cannot be opened");
  const auto again = [&] {
    coming_.clear();
    lookAgain(Side::here, here.place);
    return waitFor(item.number, 1);
  };
  const auto before = lookAtFile(file.get());
  if (!before || before->identity != here.identity ||
      (before->isPlaceholder != here.isPlaceholder && !before->isHidden)) {
    return again();
  }
  if (wasJustEmptied(*before, *item.agreed)) return again();
  auto shape = shapeOf(content, here, *before);
  if (mode) shape.mode = static_cast<unsigned>(*mode);
  // The inode that it has then, should it get another one.
  std::optional<std::string> made;
  const Announcement announce = [&, tell = announceFor(item.number, nullptr)](int next) {
    auto told = tell(next);
    if (const auto status = lookAtFile(next); told && status) made = status->identity;
    return told;
  };
  if (here.isPlaceholder) {
    if (!reshape(file.get(), shape, announce)) {
      return failedHere(item, errno, "The placeholder cannot be made");
    }
  } else {
    auto giving = giveUpContent(file.get(), *item.agreedHere, shape, announce);
    // Where the document changes its inode it must have no other name.
    if (giving == Giving::inUse && unlinkOthers(item)) {
      const auto alone = lookAtFile(file.get());
      const bool isSame =
          alone && alone->size == before->size && alone->modified == before->modified;
      if (isSame) giving = giveUpContent(file.get(), alone->version, shape, announce);
      if (giving != Giving::done) {
        relink(here.identity, here);
        lookAgain(Side::here, here.place);
      }
    }
    switch (giving) {
      case Giving::done:
        break;
      case Giving::inUse:
        return waitForOthers(item.number);
      case Giving::changed:
        return again();
      case Giving::failed:
        return failedHere(item, errno, "The newer version cannot take its place");
    }
  }
  // Whoever puts something in its place from now on has seen the new version's size and time.
  auto entry = lookAt(directory->get(), here.place.name);
  if (!entry || (entry->identity != here.identity && !coming_.contains(entry->identity))) {
    // Somebody has moved it meanwhile: it is found by its inode.
    if (made) {
      change(item.number, [&](Item& moved) {
        if (!moved.here) return;
        moved.here->identity = *made;
        moved.here->isPlaceholder = true;
      });
    }
    return again();
  }
  if (entry->isHidden) {
    entry->isPlaceholder = true;
    entry->mode = shape.mode ? static_cast<std::int64_t>(*shape.mode) : before->mode;
  }
  if (!entry->isPlaceholder) return again();
  coming_.clear();
  now = nodeHere(here.place, *entry);
  relink(here.identity, now);
  return std::nullopt;
}

/// Without coordination a document changes its inode with its version. Where the old one has names
/// that no item has, a backup's beside it, it is left to them, and the document is made anew: as
/// the remote has another version, it comes back from there whatever happens in between.
bool Engine::leaveToOtherNames(const Item& item) {
  const Node& here = *item.here;
  const auto directory = directoryHere(here.place.parent);
  const auto file =
      directory ? openFile(directory->get(), here.place.name, O_RDONLY) : qx::FileDescriptor();
  const auto entry = file ? lookAtFile(file.get()) : std::nullopt;
  const auto isIt = [&](const LocalEntry& now) {
    return now.identity == here.identity && now.names > 1 && !now.isPlaceholder &&
           now.size == here.size && now.modified == here.modified && !isOpenElsewhere(file.get());
  };
  const bool isLeft = entry && isContentChangedThere(item) && isIt(*entry) &&
                      removeEntry(directory->get(), here.place, isIt);
  if (!isLeft) return false;
  Database::Transaction transaction(*database_);
  change(item.number, [](Item& now) {
    now.here.reset();
    now.agreed.reset();
    now.agreedHere.reset();
    now.hash.reset();
    now.isWanted = true;
  });
  freeLinks(here.identity);
  transaction.commit();
  return true;
}

/// The remote has another content, here nothing was changed: a placeholder of the new one.
Engine::Outcome Engine::refresh(const Item& item) {
  const Node there = *item.there;
  Node now;
  if (const auto first = reshapeHere(item, there, std::nullopt, now)) {
    return leaveToOtherNames(item) ? Outcome::again : *first;
  }
  items_->forgetFact(replacedFact(item.number));
  change(item.number, [&](Item& changed) {
    if (!changed.here || !changed.agreed) return;
    changed.isWanted = changed.isWanted || !item.here->isPlaceholder;
    now.place = changed.here->place;
    changed.here = now;
    agreeOnContent(changed, there);
    changed.agreedHere.reset();
    changed.hash.reset();
  });
  return Outcome::again;
}

/// Ours goes beside the remote's, as an item of its own.
Engine::Outcome Engine::conflict(const Item& item) {
  const Place place = item.here->place;
  const auto directory = directoryHere(place.parent);
  if (!directory) return failedHere(item, errno, "Its directory cannot be opened");
  // Who has ours open and saves by its name would replace a version that he has not seen.
  const bool isContent = item.here->kind == Kind::file && !item.here->isPlaceholder;
  const auto file =
      isContent ? openFile(directory->get(), place.name, O_RDONLY) : qx::FileDescriptor();
  if (file && Lease(file.get(), F_WRLCK).problem() == EAGAIN) return waitForClosing(item);
  Item copy;
  for (int attempt = 1;; ++attempt) {
    const std::string name = nameBeside(place.name, conflictText(), attempt);
    const auto entry = lookAt(directory->get(), name);
    if (entry || errno != ENOENT || items_->at(Side::here, {place.parent, name})) {
      constexpr int most = 1000;
      if (attempt == most) return waitFor(item.number, firstRetry);
      continue;
    }
    // Noted first: cut off in between, the file is found under its old name as the copy that it is,
    // and meets the remote's there.
    Database::Transaction transaction(*database_);
    copy.here = item.here;
    copy.here->place.name = name;
    copy.isPinned = item.isPinned;
    copy.conflictWith = item.number;
    copy.conflictSince = static_cast<std::int64_t>(std::time(nullptr));
    copy.due = now();
    items_->save(copy);
    // What was sent is of the copy's contents: the remote's are somebody else's from now on.
    items_->forgetFact(sentFact(item.there->place));
    items_->forgetFact(replacedFact(item.number));
    for (const ItemNumber child : items_->children(Side::here, item.number)) {
      change(child, [&](Item& moved) { moved.here->place.parent = copy.number; });
    }
    change(item.number, [&](Item& now) {
      now.here.reset();
      now.agreed.reset();
      now.agreedHere.reset();
      now.hash.reset();
      now.isWanted = !item.here->isPlaceholder;
    });
    transaction.commit();
    break;
  }
  if (item.here->kind == Kind::directory) {
    watches_.erase(item.number);
    here_.directories.emplace_back(copy.number, true);
  }
  if (!moveEntry(directory->get(), place.name, directory->get(), copy.here->place.name)) {
    lookAgain(Side::here, copy.here->place);
    lookAgain(Side::here, place);
    return waitFor(item.number, 1);
  }
  lookAgain(Side::here, copy.here->place);
  lookAgain(Side::here, place);
  return Outcome::again;
}

}  // namespace docsource::mirror
