// Content on its way: up, down, or read from the remote only to be compared.
//
// A transfer works on copies of what it needs, without the mutex, and notes its result at the end
// in whatever the item has become meanwhile: that a remote has a version, that a file here has the
// content of one. What follows from it is the next comparison's affair.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <memory>
#include <utility>

#include "mirror/Checksum.h"
#include "mirror/Engine.h"
#include "mirror/Parts.h"

namespace docsource::mirror {
namespace {

constexpr std::size_t pieceSize = 1U << 20U;
/// The platform is asked before each write to a placeholder.
constexpr std::size_t pieceToWrite = 8U << 20U;
/// Of so many uploads without an answer the contents are remembered.
constexpr std::size_t mostSent = 8;

/// Of content, to know it again (Item::hash).
Checksum contentHash() { return *Checksum::named("SHA256"); }

Error cancelledError() {
  return remoteError(RemoteProblem::cancelled, "It was given up. `docsource sync` tries it again.");
}
Error notWholeError() {
  return remoteError(RemoteProblem::changedMeanwhile,
                     "The document was changed while it was read.");
}

/// A file here from its beginning to its end, as one version of it or not at all.
class FileSource final : public RemoteSource {
 public:
  /// Called with the hash of all of it before the last bytes are handed over: until then nobody
  /// can have all of it.
  using BeforeTheLast = std::function<Result<void>(const std::string& hash)>;

  FileSource(int file, std::string version, std::int64_t size, Engine::Transfer& transfer,
             BeforeTheLast beforeTheLast = {})
      : file_(file),
        version_(std::move(version)),
        size_(size),
        transfer_(transfer),
        beforeTheLast_(std::move(beforeTheLast)) {}

  std::uint64_t size() const override { return static_cast<std::uint64_t>(size_); }

  Result<std::string_view> read(std::size_t most) override {
    if (transfer_.isCancelled) return cancelledError();
    buffer_.resize(std::min(most, pieceSize));
    const ssize_t count = ::pread(file_, buffer_.data(), buffer_.size(), position_);
    if (count < 0) return Error::posix(errno, "The document cannot be read");
    position_ += count;
    if (position_ > size_ || (count == 0 && position_ != size_)) return notWholeError();
    const std::string_view bytes(buffer_.data(), static_cast<std::size_t>(count));
    hash_.add(bytes);
    if (position_ == size_) {
      const auto now = lookAtFile(file_);
      if (!now || now->version != version_ || now->isPlaceholder) return notWholeError();
      if (!isWhole_) {
        isWhole_ = true;
        whole_ = hash_.bytes();
        if (beforeTheLast_) {
          if (auto noted = beforeTheLast_(whole_); !noted) return noted.error();
        }
      }
    }
    transfer_.done = static_cast<std::uint64_t>(position_);
    return bytes;
  }

  /// Of all of it, once it was read.
  const std::string& hash() const { return whole_; }

 private:
  const int file_;
  const std::string version_;
  const std::int64_t size_;
  Engine::Transfer& transfer_;
  const BeforeTheLast beforeTheLast_;
  std::int64_t position_ = 0;
  bool isWhole_ = false;
  std::string whole_;
  std::string buffer_;
  Checksum hash_ = contentHash();
};

/// The hash of all of it.
Result<std::string> hashOf(FileSource& source) {
  while (true) {
    const auto bytes = source.read(pieceSize);
    if (!bytes) return bytes.error();
    if (bytes->empty()) return source.hash();
  }
}

}  // namespace

std::shared_ptr<Engine::Transfer> Engine::begin(const Item& item, bool isUpload,
                                                std::int64_t total) {
  auto transfer = std::make_shared<Transfer>();
  transfer->number = item.number;
  transfer->order = ++transfersBegun_;
  transfer->isUpload = isUpload;
  transfer->total = static_cast<std::uint64_t>(total);
  busy_.emplace(item.number, transfer);
  changes_.note(item.number);
  return transfer;
}

void Engine::end(const std::shared_ptr<Transfer>& transfer) {
  busy_.erase(transfer->number);
  if (const auto place = std::exchange(transfer->filled, std::nullopt)) {
    filling_.erase(filling_.find({place->parent, place->name}));
    lookAgain(Side::here, *place);
  }
  changes_.note(transfer->number);
  changed_.notify_all();
}

/// Has the work done, with the mutex released; `again` when it is done already.
Engine::Outcome Engine::run(Lock& lock, std::function<void()> work) {
  auto isDone = std::make_shared<std::atomic<bool>>(false);
  lock.unlock();
  executor_([this, isDone, work = std::move(work)] {
    work();
    *isDone = true;
    wake_();
  });
  lock.lock();
  return *isDone ? Outcome::again : Outcome::later;
}

Engine::Outcome Engine::upload(Lock& lock, const Item& item) {
  const Node here = *item.here;
  if (item.due && *item.due > now()) return Outcome::later;  // it rests
  if (isInTrouble()) return waitFor(item.number, std::max<std::int64_t>(troubleUntil_ - now(), 1));
  if (isClosed_ || busy_.size() >= options_.transfers) return Outcome::later;
  const auto parent =
      items_->path(Side::there, item.there ? item.there->place.parent : here.place.parent);
  if (!parent) return waitFor(item.number, 1000);
  const Place target = item.there ? item.there->place : here.place;
  auto file = fileHere(item, O_RDONLY);
  if (!file) {
    lookAgain(Side::here, here.place);
    return waitFor(item.number, 1);
  }
  const auto isAsNoted = [&] {
    const auto now = lookAtFile(file->get());
    return now && now->identity == here.identity && now->version == here.version &&
           !now->isPlaceholder;
  };
  const auto age = std::time(nullptr) - here.modified.value_or(0) / 1'000'000'000;
  if (age * 1000 < options_.restWhileOpen.count() && isBeingWritten(file->get())) {
    return waitFor(item.number, std::max<std::int64_t>(options_.rest.count(), 1));
  }
  // What is in memory goes to disk: from here on whoever writes through a mapping is noticed.
  if (::fsync(file->get()) != 0) return failedHere(item, errno, "The document cannot be synced");
  if (!isAsNoted()) {
    lookAgain(Side::here, here.place);
    return waitFor(item.number, 1);
  }
  auto transfer = begin(item, true, here.size);
  transfer->sent = target;
  const auto opened = std::make_shared<qx::FileDescriptor>(std::move(*file));
  const std::string path = parent->empty() ? target.name : *parent + "/" + target.name;
  return run(lock, [this, transfer, opened, item, here, target, path] {
    // Touched, or written with what it had: nothing to be carried.
    if (item.agreed && item.there && item.hash && here.size == item.agreed->size) {
      FileSource again(opened->get(), here.version, here.size, *transfer);
      const auto hash = hashOf(again);
      if (hash && *hash == *item.hash) {
        Lock inner(mutex_);
        guarded([&] {
          change(item.number, [&](Item& now) {
            now.agreedHere = here.version;
            now.due = this->now();
          });
          return true;
        });
        return end(transfer);
      }
      transfer->done = 0;
    }
    const auto ifVersion = item.there ? std::optional(item.agreed->version) : std::nullopt;
    // Should its answer be lost, what the remote has then is known as what was sent.
    const auto noteSent = [this, &item, &target,
                           &ifVersion](const std::string& hash) -> Result<void> {
      const Lock noting(mutex_);
      return guarded([&]() -> Result<void> {
        auto sent = items_->fact(sentFact(target)).value_or(std::string());
        if (sent.find(hash) == std::string::npos) sent += hash;
        sent.erase(0, sent.size() - std::min(sent.size(), mostSent * hash.size()));
        Database::Transaction transaction(*database_);
        items_->setFact(sentFact(target), sent);
        if (!item.there) items_->setFact(factOf(sending, item.number, target), textOf(target));
        if (remote_.capabilities().ancestors) {
          items_->setFact(replacedFact(item.number), ifVersion.value_or(""));
        }
        transaction.commit();
        return {};
      });
    };
    FileSource source(opened->get(), here.version, here.size, *transfer, noteSent);
    RemoteAttributes attributes;
    attributes.modified = RemoteTime(std::chrono::nanoseconds(here.modified.value_or(0)));
    attributes.mode = static_cast<unsigned>(here.mode.value_or(0644));
    Lock inner(mutex_);
    beginChange(target);
    const auto written = guarded([&] {
      return remotely(inner, [&] { return remote_.write(path, ifVersion, attributes, source); });
    });
    endChange(target);
    // Whoever settles the item next may ask whether somebody has it open.
    opened->reset();
    guarded([&] {
      if (!written) {
        lookAgain(Side::here, here.place);
        lookAgain(Side::there, target);
        failed(item, written.error());
        return true;
      }
      if (written->size != static_cast<std::uint64_t>(here.size)) {
        lookAgain(Side::there, target);
        failed(item, remoteError(RemoteProblem::failed,
                                 "The remote has another size than what was sent to it."));
        return true;
      }
      Database::Transaction transaction(*database_);
      change(item.number, [&](Item& now) {
        now.there = nodeThere(target, *written);
        now.agreed = now.there;
        now.agreed->mode = here.mode;
        now.agreed->modified = here.modified;
        now.agreedHere = here.version;
        now.hash = source.hash();
        now.tries = 0;
        now.reason.reset();
        const bool rests = now.here && now.here->version != here.version;
        if (!rests) now.due = this->now();
      });
      items_->forgetFact(sentFact(target));
      items_->forgetFacts(factsOf(sending, item.number));
      transaction.commit();
      return true;
    });
    end(transfer);
  });
}

Result<std::string> Engine::hashThere(const std::string& path, const std::string& version,
                                      Transfer& transfer) {
  Checksum hash = contentHash();
  auto read = remote_.read(path, version, 0, transfer.total, [&](std::string_view bytes) {
    hash.add(bytes);
    transfer.done += bytes.size();
    return transfer.isCancelled ? Result<void>(cancelledError()) : Result<void>();
  });
  if (!read) return read.error();
  if (transfer.done != transfer.total) return notWholeError();
  return hash.bytes();
}

/// Whether a file whose times have moved has the agreed content all the same.
bool Engine::isTouchedOnly(const Item& item) {
  if (!item.hash || item.here->size != item.agreed->size) return false;
  const auto file = fileHere(item, O_RDONLY);
  if (!file || ::fsync(file->get()) != 0) return false;
  Transfer unnoticed;
  FileSource source(file->get(), item.here->version, item.here->size, unnoticed);
  const auto hash = hashOf(source);
  return hash && *hash == *item.hash;
}

/// Whether the content here is that of the version there.
Engine::Outcome Engine::compare(Lock& lock, const Item& item) {
  if (item.due && *item.due > now()) return Outcome::later;
  if (isInTrouble()) return waitFor(item.number, std::max<std::int64_t>(troubleUntil_ - now(), 1));
  if (isClosed_ || busy_.size() >= options_.transfers) return Outcome::later;
  const Node here = *item.here;
  const Node there = *item.there;
  const auto path = items_->path(Side::there, item.number);
  auto file = fileHere(item, O_RDONLY);
  if (!file || !path) {
    lookAgain(Side::here, here.place);
    return waitFor(item.number, 1);
  }
  ::fsync(file->get());
  auto transfer = begin(item, false, there.size);
  const auto opened = std::make_shared<qx::FileDescriptor>(std::move(*file));
  return run(lock, [this, transfer, opened, item, here, there, path] {
    FileSource source(opened->get(), here.version, here.size, *transfer);
    const auto own = hashOf(source);
    // Whoever settles the item next may ask whether somebody has it open.
    opened->reset();
    transfer->done = 0;
    Lock inner(mutex_);
    const bool isDecided = guarded([&] {
      // Only touched: what is there is another version, and in conflict with nothing.
      const bool isTouched = own && item.agreed && item.hash == *own;
      if (isTouched) change(item.number, [&](Item& now) { now.agreedHere = here.version; });
      const bool isOther = own && !isTouched && areOfOtherSizes(item);
      if (isOther) different_[item.number] = pair(item);
      if (isTouched || isOther) change(item.number, [&](Item& now) { now.due = this->now(); });
      return isTouched || isOther;
    });
    if (isDecided) return end(transfer);
    const auto other = guarded([&] {
      return remotely(inner, [&] { return hashThere(*path, there.version, *transfer); });
    });
    guarded([&] {
      if (!own || !other) {
        lookAgain(Side::here, here.place);
        lookAgain(Side::there, there.place);
        failed(item, own ? other.error() : own.error());
        return true;
      }
      const bool isEqual = *own == *other;
      if (!isEqual) different_[item.number] = pair(item);
      change(item.number, [&](Item& now) {
        now.due = this->now();
        // What was sent before is no version of somebody else's, and neither is what was agreed on
        // and got another version without having changed.
        const bool isAgreed = now.agreed && now.hash == *other;
        const bool isOwn = isEqual || isAgreed || wasSent(there.place, *other);
        if (!isOwn || !now.there || now.there->version != there.version) return;
        if (!now.agreed) {
          now.agreed = there;
        } else {
          agreeOnContent(now, there);
        }
        now.agreedHere = isEqual ? std::optional(here.version) : std::nullopt;
        now.hash = *other;
        items_->forgetFact(sentFact(there.place));
      });
      return true;
    });
    end(transfer);
  });
}

/// Finds out whether what is there of a document that is gone here, or is at another place by now,
/// is a version that was sent from here, without an answer; if so, both had agreed on it.
Engine::Outcome Engine::recognise(Lock& lock, const Item& item) {
  if (isInTrouble()) return waitFor(item.number, std::max<std::int64_t>(troubleUntil_ - now(), 1));
  if (isClosed_ || busy_.size() >= options_.transfers) return Outcome::later;
  const Node there = *item.there;
  const auto path = items_->path(Side::there, item.number);
  if (!path) return waitFor(item.number, 1);
  auto transfer = begin(item, false, there.size);
  return run(lock, [this, transfer, item, there, path] {
    Lock inner(mutex_);
    const auto found = guarded([&] {
      return remotely(inner, [&] { return hashThere(*path, there.version, *transfer); });
    });
    guarded([&] {
      if (!found) {
        lookAgain(Side::there, there.place);
        failed(item, found.error());
        return true;
      }
      Database::Transaction transaction(*database_);
      auto now = items_->load(item.number);
      if (now) now->due = this->now();
      if (now && now->there && now->there->version == there.version) {
        const bool isOwn = wasSent(there.place, *found);
        const auto sender = senderTo(there);
        if (isOwn && now->agreed) {
          agreeOnContent(*now, there);
          now->hash = *found;
        }
        if (isOwn && sender && !isBusy(sender->number) && !now->here && !now->agreed) {
          adopt(*sender, *now);
          change(sender->number, [&](Item& sent) { sent.hash = *found; });
          now.reset();
        } else if (sender) {
          items_->forgetFact(factOf(sending, sender->number, there.place));
        }
        items_->forgetFact(sentFact(there.place));
      }
      if (now) items_->save(*now);
      transaction.commit();
      return true;
    });
    end(transfer);
  });
}

Engine::Outcome Engine::download(Lock& lock, const Item& item) {
  if (isInTrouble()) return waitFor(item.number, std::max<std::int64_t>(troubleUntil_ - now(), 1));
  if (isClosed_ || busy_.size() >= options_.transfers) return Outcome::later;
  auto transfer = begin(item, false, item.agreed->size);
  return run(lock, [this, transfer, item] {
    const auto filled = fill(transfer);
    Lock inner(mutex_);
    guarded([&] {
      if (!filled) failed(item, filled.error());
      return true;
    });
    end(transfer);
  });
}

/// Brings the content of a placeholder in; of the newest version, should there be one by now.
Result<void> Engine::fill(const std::shared_ptr<Transfer>& transfer) {
  constexpr int most = 5;
  Result<void> result = remoteError(RemoteProblem::changedMeanwhile,
                                    "The document keeps changing at its remote. Try again later.");
  for (int attempt = 0; attempt < most; ++attempt) {
    Lock lock(mutex_);
    auto item = guarded([&]() -> Result<Item> {
      // A program may want it before the first look.
      if (!isIdentified_) {
        if (auto identified = identify(lock); !identified) return identified.error();
      }
      auto now = items_->load(transfer->number);
      if (!now || !now->here || !now->agreed) return Error::posix(ENOENT, "The document is gone");
      if (!now->there) {
        return remoteError(RemoteProblem::notFound, "The document is not at its remote any more.");
      }
      if (now->here->isPlaceholder && now->there->version != now->agreed->version) {
        refresh(*now);
        now = items_->load(transfer->number);
        if (!now || !now->here || !now->agreed || !now->there) {
          return Error::posix(ENOENT, "The document is gone");
        }
      }
      return *now;
    });
    if (!item) return item.error();
    if (!item->here->isPlaceholder) return {};
    if (!transfer->filled) {
      transfer->filled = item->here->place;
      filling_.emplace(item->here->place.parent, item->here->place.name);
    }
    lock.unlock();
    result = fillOnce(transfer, *item);
    if (result) return {};
    const auto problem = remoteProblemOf(result.error());
    if (problem != RemoteProblem::changedMeanwhile && problem != RemoteProblem::notFound) break;
    lock.lock();
    const auto looked = guarded([&]() -> Result<void> {
      const auto path = items_->path(Side::there, transfer->number);
      if (!path) return result.error();
      const auto now = remotely(lock, [&] { return remote_.look(*path); });
      if (item->there) lookAgain(Side::there, item->there->place);
      if (!now) return now.error();
      if (now->kind != RemoteKind::file) return result.error();
      change(transfer->number, [&](Item& changed) {
        if (!changed.there) return;
        changed.there = nodeThere(changed.there->place, *now);
        // No look finds it anew, and more than its content may be another's.
        changed.due = this->now();
      });
      return {};
    });
    if (!looked) return looked.error();
  }
  return result;
}

/// Fetches what is not there yet of the agreed version, what somebody waits for first. The hash of
/// all of it.
Result<std::string> Engine::fetch(PlaceholderWriter& writer, Transfer& transfer, const Item& item,
                                  const std::string& path) {
  /// Less than that comes at once.
  constexpr std::uint64_t leastInParts = 1U << 20U;
  const auto wanted = static_cast<std::uint64_t>(item.agreed->size);
  auto& arrival = transfer.arrival;
  qx::ByteRanges before;
  for (const auto& [begin, end] : writer.parts()) before.add({begin, end});
  const auto publish = [&](const qx::ByteRanges& there) -> Result<void> {
    {
      const Lock noting(mutex_);
      auto noted = guarded([&]() -> Result<void> {
        items_->setFact(partsFact + item.here->identity, item.agreed->version);
        return {};
      });
      if (!noted) return noted;
    }
    return writer.publish({there.all().begin(), there.all().end()});
  };
  if (wanted >= leastInParts) {
    if (auto announced = writer.publish({}); !announced) return announced.error();
  }
  arrival.begin(wanted, before, remote_.capabilities().ranges, publish);
  transfer.done = before.size();

  Checksum hash = contentHash();
  std::uint64_t hashed = 0;
  std::string piece;
  const auto catchUp = [&]() -> Result<void> {
    const auto missing = arrival.there().missing(0, wanted);
    const auto end = missing ? missing->begin : wanted;
    while (hashed < end) {
      piece.resize(std::min<std::uint64_t>(pieceSize, end - hashed));
      const auto count =
          ::pread(writer.file(), piece.data(), piece.size(), static_cast<off_t>(hashed));
      if (count <= 0) return Error::posix(count < 0 ? errno : EIO, "The document cannot be read");
      hash.add({piece.data(), static_cast<std::size_t>(count)});
      hashed += static_cast<std::uint64_t>(count);
    }
    return {};
  };
  Result<void> result;
  while (result) {
    const auto range = arrival.next();
    if (result = catchUp(); !range || !result) break;
    std::uint64_t at = range->begin;
    bool isTurning = false;
    piece.clear();
    const auto flush = [&]() -> Result<void> {
      if (piece.empty()) return {};
      if (auto written = writer.writeAt(at, piece); !written) return written;
      if (at == hashed) {
        hash.add(piece);
        hashed += piece.size();
      }
      at += piece.size();
      piece.clear();
      return {};
    };
    const auto vouched = hash;
    const auto vouchedTo = hashed;
    Lock lock(mutex_);
    result = guarded([&]() -> Result<void> {
      return remotely(lock, [&]() -> Result<void> {
        const auto take = [&](std::string_view bytes) -> Result<void> {
          isTurning = arrival.shallTurn();
          if (isTurning || transfer.isCancelled) return cancelledError();
          if (bytes.size() > range->end - at - piece.size()) return notWholeError();
          piece.append(bytes);
          transfer.done += bytes.size();
          return piece.size() >= pieceToWrite ? flush() : Result<void>();
        };
        auto read = remote_.read(path, item.agreed->version, at, range->size(), take);
        return read ? flush() : read;
      });
    });
    if (result && at != range->end) result = notWholeError();
    if (result) {
      arrival.add(*range);
      continue;
    }
    // The remote has not stood for what came.
    hash = vouched;
    hashed = vouchedTo;
    transfer.done = arrival.there().size();
    if (isTurning) result = {};
  }
  const auto published = arrival.end();
  if (result && !published) result = published;
  if (result) return hash.bytes();
  // What is here of the right version is not fetched again.
  const auto problem = remoteProblemOf(result.error());
  const bool staysRight = problem == RemoteProblem::unreachable ||
                          problem == RemoteProblem::notNow || (transfer.isCancelled && isClosed_);
  if (staysRight && wanted >= leastInParts && published) {
    if (const auto there = arrival.there(); !there.isEmpty()) (void)publish(there);
  }
  return result.error();
}

Result<void> Engine::fillOnce(const std::shared_ptr<Transfer>& transfer, const Item& item) {
  const auto wanted = static_cast<std::uint64_t>(item.agreed->size);
  Lock lock(mutex_);
  auto opened = guarded([&]() -> Result<std::pair<qx::FileDescriptor, std::string>> {
    const auto path = items_->path(Side::there, item.number);
    if (!path) return remoteError(RemoteProblem::notFound, "The document is gone.");
    auto file = fileHere(item, O_PATH);
    if (!file) return file.error();
    return std::pair(std::move(*file), *path);
  });
  lock.unlock();
  if (!opened) return opened.error();
  const auto& file = opened->first;
  const auto& path = opened->second;
  transfer->done = 0;
  transfer->total = wanted;
  const auto before = lookAtFile(file.get());
  if (!before) return Error::posix(errno, "The document cannot be looked at");
  // What a program has emptied, and perhaps written to, is content, although it was noted
  // otherwise. With the time of the document it was brought in by a process that ended before it
  // noted that, and is brought in again.
  const bool isOurs = !before->isPlaceholder && before->size == item.agreed->size &&
                      before->modified == item.agreed->modified;
  const auto isContent = [&] {
    const auto entry = lookAtFile(file.get());
    if (isOurs || !entry || entry->isPlaceholder || entry->isHidden) return false;
    const Lock noting(mutex_);
    lookAgain(Side::here, item.here->place);
    return true;
  };
  if (isContent()) return {};
  if (wasJustEmptied(*before, *item.agreed)) {
    return Error::posix(EAGAIN, "A program has just emptied the document");
  }
  auto shape = shapeOf(*item.agreed, *item.here, *before);
  // A program has given the placeholder another size: it gets what there is, in that size.
  if (before->isPlaceholder && !before->isProviding && before->size != item.agreed->size) {
    shape.size = static_cast<std::uint64_t>(before->size);
    shape.modified = Placeholder::Time(std::chrono::nanoseconds(before->modified));
  }
  std::string hash;
  std::optional<LocalEntry> now;
  const auto known = partsFact + item.here->identity;
  {
    lock.lock();
    const bool goesOn = guarded([&] { return items_->fact(known) == item.agreed->version; });
    lock.unlock();
    auto writer = Placeholder(file.get()).fill(goesOn && remote_.capabilities().ranges, !isOurs);
    if (!writer) return isContent() ? Result<void>() : writer.error();
    auto fetched = fetch(*writer, *transfer, item, path);
    if (!fetched) return isContent() ? Result<void>() : fetched.error();
    hash = *std::move(fetched);
    // Ended before it has noted that the content is here, the next process knows it by that.
    lock.lock();
    guarded([&] {
      Database::Transaction transaction(*database_, Durable::later);
      change(item.number, [&](Item& filled) {
        const bool isAgreed = filled.agreed && filled.agreed->version == item.agreed->version;
        if (isAgreed) filled.hash = hash;
      });
      transaction.commit();
      return true;
    });
    lock.unlock();
    // Which inode the document will have is known before it has it.
    if (auto announced = announceFor(item.number, &lock)(writer->file()); !announced) {
      return announced;
    }
    if (auto finished = writer->finish(shape); !finished) {
      return isContent() ? Result<void>() : finished;
    }
    now = lookAtFile(writer->file());
  }
  lock.lock();
  return guarded([&]() -> Result<void> {
    if (!now) return Error::posix(EIO, "The document cannot be looked at");
    coming_.erase(now->identity);
    items_->forgetFact(known);
    change(item.number, [&](Item& filled) {
      if (!filled.here || (filled.here->identity != item.here->identity &&
                           filled.here->identity != now->identity)) {
        return;
      }
      filled.here = nodeHere(filled.here->place, *now);
      relink(item.here->identity, *filled.here);
      // With another time somebody has written already.
      const bool isWhole = now->size == item.agreed->size && now->modified == item.agreed->modified;
      filled.agreedHere = isWhole ? std::optional(now->version) : std::nullopt;
      filled.hash = hash;
      filled.isWanted = false;
      if (options_.keep) arrived_[filled.number] = this->now();
      filled.tries = 0;
      filled.reason.reset();
      filled.due = this->now();
    });
    return {};
  });
}

}  // namespace docsource::mirror
