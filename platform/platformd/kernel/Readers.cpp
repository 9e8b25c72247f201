// Programs that wait to get at files.

#include "platform/platformd/kernel/Readers.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/log/Log.h"
#include "platform/platformd/kernel/Placeholder.h"
#include "platform/platformd/kernel/ReadCall.h"
#include "platform/platformd/kernel/ReaderErrors.h"

namespace qx::kernel {
namespace {

bool isRunning(pid_t process) {
  const auto directory = ProcessDirectory::open(process);
  const auto state = directory ? directory->state() : std::nullopt;
  return state && state->isRunning();
}

}  // namespace

Readers::Readers(std::shared_ptr<DocSourceRegistry> registry, const EventChannel& holder,
                 const AccessGroup& group, GuardedTrees& trees, Claims& claims, Programs& programs,
                 std::function<void()> drain, OnQueue onQueue, Slowly slowly)
    : registry_(std::move(registry)),
      holder_(holder),
      group_(group),
      trees_(trees),
      claims_(claims),
      programs_(programs),
      drain_(std::move(drain)),
      onQueue_(std::move(onQueue)),
      slowly_(std::move(slowly)),
      processes_([this](pid_t process) { onQueue_([this, process] { processEnded(process); }); }) {}

void Readers::answer(const Access& access, int errnum) const {
  const Message message{Message::Kind::answer, access.number, access.process, errnum, 0};
  if (holder_.send(message, -1, true) == EventChannel::Sent::never) {
    group_.answer(access.number, errnum);
  }
}

void Readers::decide(const Access& access, FileDescriptor file) {
  // The file first: who goes on may want to know that nobody else has it open.
  const auto end = [&](int errnum) {
    file.reset();
    answer(access, errnum);
  };
  struct stat status;
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return end(0);
  const FileIdentity identity = identityOf(status);
  auto known = documents_.find(identity);
  lastEmptied_.reset();
  if (known == documents_.end() && Placeholder::isOne(file.get(), status)) {
    // Perhaps it was emptied by whoever writes now: its change was queued before this. And what was
    // changed before anybody waited for the file says nothing later.
    drain_();
    Placeholder::emptyIfAsked(file.get());
    if (fstat(file.get(), &status) != 0) return end(0);
    known = documents_.find(identity);
  }
  // To a file that a program has emptied, its doc source may write nothing more.
  const int leave =
      lastEmptied_ == identity || (known != documents_.end() && known->second.isEmptied) ? EAGAIN
                                                                                         : 0;
  // Who fills the file asks for each piece.
  if (known != documents_.end() && claims_.isKnownToBeExempt(access.process, known->second.place)) {
    return end(leave);
  }
  if (known == documents_.end() && trees_.settle(file.get())) {
    filled_.erase(identity);
    const auto place =
        leave != 0 || status.st_size == 0 ? trees_.locate(file.get(), status) : std::nullopt;
    // Whoever makes a file now may be gone when the change is told: whose process it is, is
    // remembered.
    const bool isExempt = place && claims_.isExempt(access.process, place);
    return end(isExempt ? leave : 0);
  }

  const uid_t user = processes_.userOf(access.process);
  const auto kind = programs_.kindOf(access.process, user);
  const bool isLook = (access.mask & preAccess) == 0 && !trees_.tellsOfOpeningsOnly(status.st_dev);
  if (isLook && kind != ProgramKind::wholeFile) return end(0);
  Access waiting = access;
  waiting.range = kind == ProgramKind::wholeFile || !access.range
                      ? std::nullopt
                      : std::optional(access.range->within(std::uint64_t(status.st_size)));
  // Before the longer question whose process it is: this is asked for each read of what arrives.
  if (known != documents_.end() && known->second.isAsked && waiting.range &&
      kind != ProgramKind::neverProvide) {
    const auto parts = Placeholder::partsThere(file.get());
    if (parts && parts->contains(*waiting.range) &&
        partOf(waiting, identity, parts) == Part::there) {
      return end(0);
    }
  }
  auto place = known == documents_.end() ? trees_.locate(file.get(), status) : known->second.place;
  if (claims_.isExempt(access.process, place)) {
    if (known == documents_.end()) noteFilling(identity);
    return end(leave);
  }
  if (kind == ProgramKind::neverProvide) return end(EPERM);
  wait(identity, waiting, user, std::move(file), std::move(place));
}

/// Whether the program may go on with the parts that there are.
Readers::Part Readers::partOf(Access& access, const FileIdentity& identity,
                              const std::optional<ByteRanges>& parts) {
  if (!parts || !access.range) return Part::absent;
  if (!access.isReader) {
    const auto call = readCallOf(access.thread, identity);
    if (call == ReadCall::unknown) return Part::unknown;
    if (call == ReadCall::no) {
      access.range.reset();
      return Part::absent;
    }
    access.isReader = true;
  }
  return parts->contains(*access.range) ? Part::there : Part::absent;
}

void Readers::progressed(const FileIdentity& identity) {
  constexpr std::chrono::milliseconds moment{1};
  const auto found = documents_.find(identity);
  if (found == documents_.end() || !found->second.isAsked) return;
  Document& document = found->second;
  const auto parts = Placeholder::partsThere(document.file.get());
  if (!parts) return;
  bool isUnknown = false;
  std::erase_if(document.accesses, [&](Access& access) {
    const Part part = partOf(access, identity, parts);
    isUnknown = isUnknown || part == Part::unknown;
    if (part == Part::there) letGo(access, 0);
    if (part == Part::absent && access.isReader && !std::exchange(access.isTold, true)) {
      registry_->hurry(*document.source, URL::fileURL(document.place->path), *access.range);
    }
    return part == Part::there;
  });
  if (!isUnknown) return;
  Clock::current().schedule(moment, [this, onQueue = onQueue_, identity] {
    onQueue([this, identity] { progressed(identity); });
  });
}

/// A doc source writes to a placeholder that nobody waits for.
void Readers::noteFilling(const FileIdentity& identity) {
  constexpr std::size_t most = 1024;
  if (filled_.size() >= most) {
    std::erase_if(filled_, [this](const auto& entry) { return !isFilled(entry.first); });
  }
  if (filled_.size() < most) filled_[identity] = std::chrono::steady_clock::now();
}

/// What was changed before that writing says nothing, and has been looked at before it. So nothing
/// is remembered for long: until then the file may have become content, have been changed, and be a
/// placeholder once more.
bool Readers::isFilled(const FileIdentity& identity) const {
  constexpr std::chrono::seconds moment{3};
  const auto found = filled_.find(identity);
  return found != filled_.end() && std::chrono::steady_clock::now() - found->second < moment;
}

void Readers::wasModified(pid_t program, const FileDescriptor& file, const struct stat& status) {
  const FileIdentity identity = identityOf(status);
  // Where only openings are asked about, a file may get another size by its name.
  const bool asksForAll = !trees_.tellsOfOpeningsOnly(status.st_dev);
  const auto found = documents_.find(identity);
  const bool isKnown = asksForAll && found != documents_.end();
  const bool wasFilled = asksForAll && isFilled(identity) && Placeholder::isOne(file.get(), status);
  // Of a process that has ended nobody can tell any more that it did not work for the doc source.
  const bool mayHaveRefilled = (isKnown || wasFilled) && isRunning(program);
  if (status.st_size != 0 && !mayHaveRefilled) return;
  const bool isFilled =
      wasFilled || (asksForAll && !isKnown && Placeholder::isBeingFilled(file.get()));
  Placeholder::unmark(file.get());
  lastEmptied_ = identity;
  if (!isKnown) {
    auto place = isFilled ? trees_.locate(file.get(), status) : std::nullopt;
    if (!place || !charges_.take(place->owner)) return;
    Document& document = documents_[identity];
    document.file = file.duplicate();
    document.first = program;
    document.user = place->owner;
    document.place = std::move(place);
  }
  Document& document = documents_.at(identity);
  document.isEmptied = true;
  DS_LOG("[INFO] Process %d has emptied a document while it was filled: %@", program,
         document.place ? document.place->path : std::string());
  filled_.erase(identity);
  if (!isKnown) ask(identity);
  // Whom nobody asked has nothing to answer; and who waits for a server has nothing to write.
  const auto asked = documents_.find(identity);
  const bool isAsked = asked != documents_.end() && asked->second.isAsked;
  constexpr std::chrono::seconds longest{5};
  Clock::current().schedule(isAsked ? longest : std::chrono::seconds(0),
                            [this, onQueue = onQueue_, identity] {
                              onQueue([this, identity] { leaveEmpty(identity); });
                            });
}

/// Takes away what the doc source has written since a program emptied the file.
void Readers::leaveEmpty(const FileIdentity& identity) {
  const auto found = documents_.find(identity);
  if (found == documents_.end() || !found->second.isEmptied) return;
  const int file = found->second.file.get();
  if (!Placeholder::empty(file)) return finish(identity, EIO);
  trees_.settle(file);
  finish(identity, 0);
}

void Readers::wait(const FileIdentity& identity, const Access& access, uid_t user,
                   FileDescriptor file, std::optional<GuardedTrees::Place> place) {
  const bool isNew = !documents_.contains(identity);
  if (!charges_.take(user)) {
    file.reset();
    return answer(access, EAGAIN);
  }
  if (isNew && !charges_.take(user)) {
    charges_.giveBack(user);
    file.reset();
    return answer(access, EAGAIN);
  }
  auto& document = documents_[identity];
  document.accesses.push_back(access);
  if (isNew) {
    filled_.erase(identity);
    document.file = std::move(file);
    document.first = access.process;
    document.user = user;
    document.place = std::move(place);
  }
  processes_.begin(access.process, user);
  isNew ? ask(identity) : progressed(identity);
}

void Readers::letGo(const Access& access, int errnum) {
  charges_.giveBack(processes_.userOf(access.process));
  processes_.end(access.process);
  answer(access, errnum);
}

bool Readers::isStillAwaited(Document& document) {
  std::erase_if(document.accesses, [&](const Access& access) {
    const bool isFree = claims_.isExempt(access.process, document.place);
    if (isFree) letGo(access, 0);
    return isFree;
  });
  return !document.accesses.empty();
}

/// Asks the doc source that the file belongs to, if it is there.
void Readers::ask(const FileIdentity& identity) {
  Document& document = documents_.at(identity);
  struct stat status;
  if (fstat(document.file.get(), &status) != 0) return finish(identity, EIO);
  // Another file has its place, and nobody provides this one any more.
  if (status.st_nlink == 0) return finish(identity, EAGAIN);
  if (auto now = trees_.locate(document.file.get(), status)) document.place = std::move(now);
  if (!document.place && status.st_nlink > 1 && !std::exchange(document.isSearched, true)) {
    await(identity);
    return searchFor(identity, status);
  }
  const Claims::Claim* claim = document.place ? claims_.of(*document.place) : nullptr;
  if (!claim || claim->isAway()) return await(identity);
  if (document.deadline != 0) Clock::current().cancel(std::exchange(document.deadline, 0));
  Placeholder::vouch(document.file.get());
  if (fstat(document.file.get(), &status) != 0) return finish(identity, EIO);
  document.isAsked = true;
  document.turn = ++lastTurn_;
  document.changed = status.st_ctim;
  document.source = claim->source;
  registry_->provide(claim->source, URL::fileURL(document.place->path),
                     ProcessLineage::identifierOf(document.first),
                     [this, onQueue = onQueue_, identity,
                      turn = document.turn](const std::optional<Error>& error) {
                       onQueue([this, identity, turn, error] { provided(identity, turn, error); });
                     });
  progressed(identity);
}

/// By a name that is not quickly found: it has several, or is seen through another mount.
void Readers::searchFor(const FileIdentity& identity, const struct stat& status) {
  slowly_(status.st_uid, [this, identity, status] {
    const auto place = trees_.search(status);
    onQueue_([this, identity, place] {
      const auto found = documents_.find(identity);
      if (found == documents_.end() || found->second.isAsked || !place) return;
      found->second.place = place;
      if (isStillAwaited(found->second)) {
        ask(identity);
      } else {
        finish(identity, 0);
      }
    });
  });
}

/// Waits, but not for ever, until there is a doc source to ask.
void Readers::await(const FileIdentity& identity) {
  Document& document = documents_.at(identity);
  document.isAsked = false;
  // The doc source may have been lost when all was there.
  if (trees_.settle(document.file.get())) return finish(identity, 0);
  if (document.deadline != 0) return;
  document.patience = ++lastTurn_;
  document.deadline = Clock::current().schedule(patience, [this, onQueue = onQueue_, identity,
                                                           turn = document.patience] {
    onQueue([this, identity, turn] {
      const auto found = documents_.find(identity);
      if (found == documents_.end() || found->second.isAsked || found->second.patience != turn) {
        return;
      }
      DS_LOG("[NOTICE] No doc source came for a file that %d wait for.",
             found->second.accesses.size());
      finish(identity, trees_.settle(found->second.file.get()) ? 0 : EAGAIN);
    });
  });
}

void Readers::askAgain() {
  std::vector<FileIdentity> unasked;
  for (const auto& [identity, document] : documents_) {
    if (!document.isAsked) unasked.push_back(identity);
  }
  for (const auto& identity : unasked) {
    // Who works for the doc source that came back does not wait for it.
    if (isStillAwaited(documents_.at(identity))) {
      ask(identity);
    } else {
      finish(identity, 0);
    }
  }
}

void Readers::arrived(const FileIdentity& identity) {
  const auto document = documents_.find(identity);
  if (document != documents_.end() && !document->second.isAsked) ask(identity);
}

void Readers::lookWhoIsAway() {
  std::vector<FileIdentity> abandoned;
  for (const auto& [identity, document] : documents_) {
    const Claims::Claim* claim = document.place ? claims_.of(*document.place) : nullptr;
    if (document.isAsked && (!claim || claim->isAway())) abandoned.push_back(identity);
  }
  for (const auto& identity : abandoned) {
    if (documents_.at(identity).accesses.empty()) {
      finish(identity, EAGAIN);
    } else {
      await(identity);
    }
  }
}

void Readers::provided(const FileIdentity& identity, std::uint64_t turn,
                       const std::optional<Error>& error) {
  // Perhaps a program has emptied the file meanwhile.
  drain_();
  const auto found = documents_.find(identity);
  if (found == documents_.end() || found->second.turn != turn) return;
  Document& document = found->second;
  if (document.isEmptied) return leaveEmpty(identity);
  if (error) {
    if (!document.isAsked) return;  // and waits for another to ask
    // Who lost the doc source waits for the next, which may be there already.
    if (document.source->host->isLost() && !document.accesses.empty()) return ask(identity);
    return finish(identity, errnoFor(*error));
  }
  struct stat status;
  const int file = document.file.get();
  if (fstat(file, &status) != 0) return finish(identity, EIO);
  // Whether anything was written, its time of change tells even when it needed no new block.
  if (status.st_ctim.tv_sec != document.changed.tv_sec ||
      status.st_ctim.tv_nsec != document.changed.tv_nsec) {
    Placeholder::stopVouching(file);
  }
  if (trees_.settle(file)) return finish(identity, 0);
  // Content that came as another file is found by whoever opens the name again.
  finish(identity, status.st_nlink == 0 ? EAGAIN : EIO);
}

/// Answers all who wait for the file.
void Readers::finish(const FileIdentity& identity, int errnum) {
  auto node = documents_.extract(identity);
  if (!node) return;
  Document& document = node.mapped();
  if (document.deadline != 0) Clock::current().cancel(document.deadline);
  document.file.reset();
  charges_.giveBack(document.user);
  for (const auto& access : document.accesses) letGo(access, errnum);
}

/// The kernel keeps what a process that was killed waited for until it is answered.
void Readers::processEnded(pid_t process) {
  if (!processes_.hasEnded(process)) return;
  std::vector<FileIdentity> unwanted;
  for (auto& [identity, document] : documents_) {
    std::erase_if(document.accesses, [&](const Access& access) {
      if (access.process != process) return false;
      letGo(access, EAGAIN);
      return true;
    });
    if (document.accesses.empty() && !document.isAsked) unwanted.push_back(identity);
  }
  for (const auto& identity : unwanted) finish(identity, EAGAIN);
}

}  // namespace qx::kernel
