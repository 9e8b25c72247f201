// What comes and goes without being asked for by name: the next small documents of a program that
// goes through a tree, and content that has to make room.
//
// A program that goes through a tree waits for one small document after the other, for each of them
// as long as the remote is away. The second time it waits within a moment, the next ones are
// brought in ahead of it, in the order in which the file system lists them; twice as many each time
// that it waits again, since it has read what was brought until then. What a program did not want
// after all is bounded so by what it read.

#include <sys/stat.h>

#include <algorithm>
#include <iterator>

#include "mirror/Engine.h"
#include "mirror/Parts.h"

namespace docsource::mirror {
namespace {

/// Larger documents are not brought in ahead.
constexpr std::int64_t smallSize = 256L << 10U;
/// Who waits again so soon goes on with what it began.
constexpr std::int64_t moment = 2000;
constexpr std::size_t fewestAhead = 16;
constexpr std::size_t mostAhead = 512;
/// Entries that are looked at for each document that is wanted, where most are here already.
constexpr std::size_t looksForEach = 8;
/// How often it is looked whether there is too much content, and how long what has come stays.
constexpr std::int64_t betweenLooks = 5000;
constexpr std::int64_t stay = 10'000;

/// When the content was read, as the file system tells (mount(8), relatime): right the first time
/// after it came, and then to the day.
std::int64_t lastRead(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return 0;
  constexpr std::int64_t perSecond = 1'000'000'000;
  return status.st_atim.tv_sec * perSecond + status.st_atim.tv_nsec;
}

}  // namespace

/// Makes a placeholder again of a document whose content is the agreed one and nobody's at the
/// moment.
Result<void> Engine::evictFile(const Item& item, const std::string& path) {
  const bool hasParts =
      item.here->isPlaceholder && items_->fact(partsFact + item.here->identity).has_value();
  if (item.here->isPlaceholder && !hasParts) return {};
  const auto busy = [&](const char* why) {
    return Error(std::string(posixErrorDomain), EBUSY,
                 "The content of " + path + " is kept, as " + why + ".");
  };
  if (item.here->kind == Kind::link) return busy("it is a second name of a document");
  if (isPinned(item)) return busy("it is pinned (docsource unpin)");
  if (isBusy(item.number)) return busy("it is being transferred");
  if (!item.agreed || !item.there || (!hasParts && item.here->version != item.agreedHere)) {
    return busy("it has not been uploaded yet");
  }
  Node now;
  if (reshapeHere(item, *item.agreed, std::nullopt, now)) {
    wake_();
    return busy("a program has it open, or has changed it");
  }
  items_->forgetFact(partsFact + item.here->identity);
  change(item.number, [&](Item& evicted) {
    if (!evicted.here) return;
    now.place = evicted.here->place;
    evicted.here = now;
    evicted.agreedHere.reset();
    evicted.hash.reset();
    evicted.isWanted = false;
    evicted.due = this->now();
  });
  return {};
}

/// Gives content back while there is more than the account is to keep.
bool Engine::giveBack() {
  if (!options_.keep || !mayNeedSpace_ || now() < giveBackAt_) return false;
  giveBackAt_ = now() + betweenLooks;
  std::erase_if(arrived_, [&](const auto& each) { return now() - each.second > stay; });
  std::uint64_t content = 0;
  {
    auto row =
        database_->prepare("SELECT SUM(hereSize) FROM item WHERE hereKind=1 AND herePlaceholder=0");
    if (row.step() && !row.isNull(0)) content = static_cast<std::uint64_t>(row.integer(0));
  }
  mayNeedSpace_ = content > *options_.keep;
  if (!mayNeedSpace_) return false;
  std::vector<std::pair<std::int64_t, ItemNumber>> candidates;
  items_->forEach(
      "hereKind=1 AND herePlaceholder=0 AND hereVersion=agreedHere AND thereKind=1 AND hereSize>0",
      [&](const Item& item) {
        if (arrived_.contains(item.number) || isBusy(item.number) || isPinned(item)) return;
        candidates.emplace_back(lastRead(absolute(Side::here, item.number)), item.number);
      });
  std::sort(candidates.begin(), candidates.end());
  bool hasGiven = false;
  for (const auto& [read, number] : candidates) {
    if (content <= *options_.keep) break;
    const auto item = items_->load(number);
    if (!item || !item->here || item->here->kind != Kind::file) continue;
    // What is open or was changed meanwhile stays, and the next one goes.
    if (!evictFile(*item, absolute(Side::here, number))) continue;
    content -= std::min(content, static_cast<std::uint64_t>(item->here->size));
    hasGiven = true;
  }
  return hasGiven;
}

/// A program waits for that document.
void Engine::noteReader(const Item& item) {
  if (item.agreed->size > smallSize) return;
  const auto directory = item.here->place.parent;
  const bool goesOn = walk_.top != 0 && now() - walk_.at < moment;
  walk_.at = now();
  if (!goesOn) {
    walk_ = {directory, now(), 0};
    ahead_.clear();
    return;
  }
  while (walk_.top != rootItem && !items_->isBelow(Side::here, directory, walk_.top)) {
    const auto above = items_->load(walk_.top);
    walk_.top = above && above->here ? above->here->place.parent : rootItem;
  }
  walk_.ahead = std::clamp(walk_.ahead * 2, fewestAhead, mostAhead);
  const auto next = documentsAfter(item, walk_.top, walk_.ahead);
  ahead_.assign(next.begin(), next.end());
  wake_();
}

/// The small documents that are not here and come after that one, in its directory and then in
/// those beside it, up to `top`.
Engine::Numbers Engine::documentsAfter(const Item& item, ItemNumber top, std::size_t most) {
  Numbers found;
  std::size_t looks = most * looksForEach;
  Place place = item.here->place;
  while (collectBelow(place.parent, place.name, most, looks, found) && place.parent != top) {
    const auto above = items_->load(place.parent);
    if (!above || !above->here || above->number == rootItem) break;
    place = above->here->place;
  }
  return found;
}

/// Goes through a directory from that entry on, and from its beginning up to there; false when
/// there is enough.
bool Engine::collectBelow(ItemNumber directory, const std::string& after, std::size_t most,
                          std::size_t& looks, Numbers& found) {
  const auto opened = directoryHere(directory);
  if (!opened) return true;
  std::vector<std::string> names;
  listDirectory(opened->get(), [&](const std::string& name) {
    names.push_back(name);
    return true;
  });
  const auto at = std::find(names.begin(), names.end(), after);
  if (at != names.end()) std::rotate(names.begin(), std::next(at), names.end());
  for (const auto& name : names) {
    if (found.size() >= most || looks == 0) return false;
    --looks;
    const auto item = name == after ? std::nullopt : items_->at(Side::here, {directory, name});
    if (!item) continue;
    if (item->here->kind == Kind::directory) {
      if (!collectBelow(item->number, {}, most, looks, found)) return false;
      continue;
    }
    const bool isWanted = item->here->kind == Kind::file && item->here->isPlaceholder &&
                          item->agreed && item->there && item->agreed->size <= smallSize &&
                          !isBusy(item->number);
    if (isWanted) found.push_back(item->number);
  }
  return true;
}

/// Begins to bring in what a program will want next.
bool Engine::bringAhead(Lock& lock) {
  bool hasBegun = false;
  while (!ahead_.empty() && aheadUnderWay_ < options_.transfersAhead && !isInTrouble() &&
         !isClosed_) {
    const auto item = items_->load(ahead_.front());
    ahead_.pop_front();
    if (!item || !item->here || !item->here->isPlaceholder || !item->agreed || !item->there ||
        isBusy(item->number)) {
      continue;
    }
    auto transfer = begin(*item, false, item->agreed->size);
    ++aheadUnderWay_;
    hasBegun = true;
    run(lock, [this, transfer] {
      // Who really wants it asks for it, and is told then.
      (void)fill(transfer);
      const Lock inner(mutex_);
      --aheadUnderWay_;
      end(transfer);
    });
  }
  return hasBegun;
}

}  // namespace docsource::mirror
