// The catalog of installed bundles.
//
// One inotify instance watches the folders, every bundle directory, and the directories on the way
// from there to the bundle's executable. What changed is read again when the reactor reports it,
// and also before each answer, so that an answer is not older than its question: asking the
// instance costs one system call while nothing happens. Each bundle is watched before it is read.
//
// Whatever leads into a bundle, watching included, is done without the lock by a thread for that
// bundle alone. What happened to a bundle while it was read is kept, and has it read again when
// it concerns what was read.
//
// An executable outside its bundle can become another file where nobody watches: such bundles are
// read again at the next question when they were not for half a second.

#include "platform/identity/Bundles.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/files/Inotify.h"
#include "platform/files/Places.h"
#include "platform/identity/BundleReader.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/identity/SandboxRecord.h"
#include "platform/log/Log.h"
#include "platform/queue/Reactor.h"
#include "platform/queue/Thread.h"
#include "platform/queue/WorkPool.h"

namespace qx {
namespace {

using Moment = std::chrono::steady_clock::time_point;

constexpr std::uint32_t changeMask = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                     IN_MOVED_TO | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
/// A bundle whose Info.plist names another executable at each look is read again at its next event.
constexpr int attempts = 5;
/// How long questions wait for a bundle that is being read.
constexpr std::chrono::milliseconds longestWait{500};
/// And how long the first one waits for all that is installed.
constexpr std::chrono::milliseconds longestStart{2000};
/// How old what is known of an executable outside its bundle may be.
constexpr std::chrono::milliseconds oldestOutside{500};
constexpr unsigned mostReaders = 32;
constexpr std::size_t mostRemembered = 1024;

bool isDirectory(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isThere(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

bool isSame(const Bundle& a, const Bundle& b) {
  return a.path == b.path && a.identifier == b.identifier && a.executable == b.executable &&
         a.infoStamp == b.infoStamp && a.info == b.info && a.entitlements == b.entitlements;
}

/// A directory that is watched for a bundle and the entries in it that matter to the bundle.
struct Claim {
  Inotify::Watch watch;
  std::set<std::string, std::less<>> awaited;

  bool concerns(int number, const std::string& name) const {
    return watch.number() == number && (name.empty() || awaited.contains(name));
  }
};

/// What a thread finds out about a bundle.
struct Reading {
  /// Absent when there is no directory.
  std::optional<BundleInspection> inspection;
  std::vector<Claim> claims;
  /// Why something could not be watched for want of watches, or 0.
  int blindness = 0;
};

/// A reading that goes on.
struct PendingReading {
  Moment begun;
  /// Questions wait for it.
  bool isAwaited = true;
  /// It has to be done again.
  bool isOutdated = false;
  /// What happened meanwhile, wherever: it becomes known only at the end what concerns the bundle.
  std::vector<std::pair<int, std::string>> events;
};

struct Entry {
  /// Null while the bundle is broken.
  std::shared_ptr<const Bundle> bundle;
  std::string complaint;
  std::optional<std::string> declaredExecutable;
  std::optional<FileIdentity> executable;
  bool executableIsOutside = false;
  /// Why a good bundle is skipped.
  std::string refusal;
  std::vector<Claim> claims;
  std::shared_ptr<PendingReading> pending;
};

struct Folder {
  Folder(BundleKind itsKind, BundleStanding itsStanding, std::size_t itsRank,
         const std::string& path, Inotify& inotify)
      : kind(itsKind), standing(itsStanding), rank(itsRank), place(inotify, path, changeMask) {}

  bool mayHold(const std::string& name) const {
    const auto suffix = bundleSuffix(kind);
    return !name.starts_with('.') && name.ends_with(suffix) && name.size() > suffix.size();
  }

  BundleKind kind;
  BundleStanding standing;
  /// What is in a folder of a lower one goes before what is here.
  std::size_t rank;
  WatchedPath place;
  /// In byte order.
  std::map<std::string, Entry> entries;
  std::map<FileIdentity, std::vector<const Entry*>> byExecutable;
};

/// In the order of their ranks.
std::deque<Folder> allFolders(Inotify& inotify) {
  constexpr std::array kinds{BundleKind::application, BundleKind::extension};
  std::deque<Folder> folders;
  std::size_t rank = 0;
  for (const auto standing : {BundleStanding::machine, BundleStanding::user}) {
    const auto count = bundleFolders(kinds.front(), standing).size();
    for (std::size_t i = 0; i < count; ++i, ++rank) {
      for (const auto kind : kinds) {
        folders.emplace_back(kind, standing, rank, bundleFolders(kind, standing)[i], inotify);
      }
    }
  }
  return folders;
}

/// Threads that read bundles: as many as there are bundles to read, up to a limit, since each may
/// be held up for ever.
class Readers {
 public:
  void submit(std::function<void()> task) {
    {
      std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    provideThread();
  }
  /// Makes good for a thread that was not to be had.
  void provideThread() {
    {
      std::lock_guard lock(mutex_);
      if (tasks_.empty() || threads_ == mostReaders) return;
      ++threads_;
    }
    auto thread = startThread("bundle reader", [this] { work(); });
    if (thread.joinable()) {
      thread.detach();
    } else {
      std::lock_guard lock(mutex_);
      --threads_;
    }
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    while (!tasks_.empty()) {
      const auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
    --threads_;
  }

  std::mutex mutex_;
  std::deque<std::function<void()>> tasks_;
  unsigned threads_ = 0;
};

/// The processes that were asked about last. Their directories are held open, which is cheaper than
/// making sure each time that a number still means the same process.
class RecentProcesses {
 public:
  std::shared_ptr<const ProcessDirectory> find(const AuditToken& token) {
    std::lock_guard lock(mutex_);
    auto found = std::find_if(known_.begin(), known_.end(),
                              [&](const Known& known) { return known.token == token; });
    if (found == known_.end()) {
      auto directory = ProcessDirectory::open(token);
      if (!directory) return nullptr;
      if (known_.size() == most) known_.pop_back();
      known_.insert(known_.begin(),
                    {token, std::make_shared<const ProcessDirectory>(std::move(*directory))});
    } else {
      std::rotate(known_.begin(), found, found + 1);
    }
    return known_.front().directory;
  }

  void forget(const AuditToken& token) {
    std::lock_guard lock(mutex_);
    std::erase_if(known_, [&](const Known& known) { return known.token == token; });
  }

 private:
  static constexpr std::size_t most = 16;
  struct Known {
    AuditToken token;
    std::shared_ptr<const ProcessDirectory> directory;
  };
  std::mutex mutex_;
  std::vector<Known> known_;  // the last one first
};

/// What the process was started as, if it was as an extension.
std::optional<std::string> startedAs(const ProcessDirectory& process) {
  constexpr std::string_view variable = "QX_EXTENSION_IDENTIFIER=";
  const auto environment = process.read("environ").value_or("");
  for (std::string_view rest = environment; !rest.empty();) {
    const auto end = std::min(rest.find('\0'), rest.size());
    const auto text = rest.substr(0, end);
    if (text.starts_with(variable)) return std::string(text.substr(variable.size()));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return std::nullopt;
}

/// Watches what the bundle consists of, as far as it is known.
void watchBundle(Inotify& inotify, const std::string& path, Reading& reading,
                 const std::optional<std::string>& declaredExecutable) {
  std::vector<Claim> claims;
  const auto add = [&](const std::string& directory,
                       std::set<std::string, std::less<>> awaited) -> bool {
    auto watch = inotify.watch(directory, changeMask);
    if (!watch && (errno == ENOSPC || errno == ENOMEM)) reading.blindness = errno;
    if (!watch) return false;
    claims.push_back({std::move(watch), std::move(awaited)});
    return true;
  };
  add(path, {"Info.plist", "Entitlements.plist"});
  if (declaredExecutable) {
    const auto program = executablePath(path, *declaredExecutable);
    // Watches the directory that ends at `slash` for the component behind it.
    const auto step = [&](std::size_t slash) {
      const auto end = std::min(program.find('/', slash + 1), program.size());
      return add(program.substr(0, std::max<std::size_t>(slash, 1)),
                 {program.substr(slash + 1, end - slash - 1)});
    };
    if (program.starts_with(path + "/")) {
      // From the bundle directory down to the executable, as far as that exists.
      for (auto slash = path.size(); slash != std::string::npos && step(slash);) {
        slash = program.find('/', slash + 1);
      }
    } else {
      // The nearest directory that exists.
      for (auto slash = program.rfind('/'); !step(slash) && slash > 0;) {
        slash = program.rfind('/', slash - 1);
      }
    }
  }
  // The new claims are there before the old ones go, so that nothing is missed in between.
  reading.claims = std::move(claims);
}

/// On a thread of its own: any of this may take for ever.
Reading readWatched(Inotify& inotify, BundleKind kind, const std::string& path,
                    std::optional<std::string> declaredExecutable) {
  Reading reading;
  if (!isDirectory(path)) return reading;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    watchBundle(inotify, path, reading, declaredExecutable);
    reading.inspection = inspectBundle(kind, path);
    // What the executable's directories held was seen only if they were watched already.
    if (declaredExecutable == reading.inspection->declaredExecutable) break;
    declaredExecutable = reading.inspection->declaredExecutable;
  }
  return reading;
}

class WatchingCatalog final : public BundleCatalog {
 public:
  WatchingCatalog() : changed_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    {
      std::unique_lock lock(mutex_);
      if (inotify_.descriptor() < 0) beBlind(errno);
      for (auto& folder : folders_) reread(folder);
      waitForReadings(lock, longestStart);
    }
    serve(inotify_.descriptor());
    serve(changed_.get());
  }

  std::vector<std::shared_ptr<const Bundle>> bundles(BundleKind kind) override {
    Answer answer(*this);
    return good(kind);
  }

  std::shared_ptr<const Bundle> bundle(BundleKind kind, std::string_view identifier) override {
    Answer answer(*this);
    for (const auto& candidate : good(kind)) {
      if (candidate->identifier == identifier) return candidate;
    }
    return nullptr;
  }

  std::shared_ptr<const Bundle> bundleOfProcess(const AuditToken& token) override {
    return belongingOf(token).bundle;
  }

  std::optional<std::string> identifierOfProcess(const AuditToken& token) override {
    auto belonging = belongingOf(token);
    return belonging.bundle ? std::optional(belonging.bundle->identifier)
                            : std::move(belonging.flatpak);
  }

  void observeChanges(std::function<void()> observer) override {
    std::lock_guard lock(observersMutex_);
    observers_.push_back(std::move(observer));
  }

 private:
  /// Holds the lock while one question is answered, on the current state of things.
  class Answer {
   public:
    explicit Answer(WatchingCatalog& catalog) : lock_(catalog.mutex_) {
      catalog.catchUp();
      catalog.waitForReadings(lock_);
    }

   private:
    std::unique_lock<std::mutex> lock_;
  };

  /// Waits for one of the two descriptors.
  class Handler final : public ReactorHandler {
   public:
    Handler(WatchingCatalog& catalog, int descriptor)
        : catalog_(catalog), descriptor_(descriptor) {}
    void ready(std::uint32_t) override {
      catalog_.changesAreDue();
      Reactor::shared().arm(source, descriptor_, EPOLLIN);
    }
    std::atomic<Reactor::SourceID> source{0};

   private:
    WatchingCatalog& catalog_;
    int descriptor_;
  };

  void serve(int descriptor) {
    if (descriptor < 0) return;
    auto handler = std::make_shared<Handler>(*this, descriptor);
    handler->source = Reactor::shared().add(descriptor, 0, handler);
    Reactor::shared().arm(handler->source, descriptor, EPOLLIN);
  }

  /// On a thread of the reactor: something happened, or was found out.
  void changesAreDue() {
    {
      std::lock_guard lock(mutex_);
      catchUp();
      eventfd_t ignored;
      eventfd_read(changed_.get(), &ignored);
    }
    // One thread at a time calls the observers; one that comes meanwhile finds here whether there
    // is anything left to tell.
    std::lock_guard telling(tellingMutex_);
    {
      std::lock_guard lock(mutex_);
      if (toldGeneration_ == generation_) return;
      toldGeneration_ = generation_;
    }
    std::vector<std::function<void()>> observers;
    {
      std::lock_guard lock(observersMutex_);
      observers = observers_;
    }
    for (const auto& observer : observers) observer();
  }

  struct Belonging {
    std::shared_ptr<const Bundle> bundle;
    std::optional<std::string> flatpak;
  };

  Belonging belongingOf(const AuditToken& token) {
    if (token.effectiveUser() != geteuid()) return {};
    const auto process = processes_.find(token);
    if (!process || process->user() != geteuid()) return {};
    auto surroundings = surroundingsOf(*process);
    const auto executable = process->executable();
    if (!surroundings || !executable) {
      processes_.forget(token);
      return {};
    }
    if (!surroundings->isSandbox) return {bundleOfExecutable(*executable, *process), {}};
    if (surroundings->application) return {runningApplication(*surroundings->application), {}};
    return surroundings->flatpak ? belongingOf(*std::move(surroundings->flatpak)) : Belonging();
  }

  Belonging belongingOf(FlatpakApplication flatpak) {
    Answer answer(*this);
    Belonging belonging;
    for (const auto kind : {BundleKind::application, BundleKind::extension}) {
      for (const auto& bundle : good(kind)) {
        if (bundle->identifier != flatpak.identifier) continue;
        if (isDisputed(*bundle)) return {};
        if (bundle->standing == BundleStanding::machine && !flatpak.isMachines) return {};
        if (kind == BundleKind::application) belonging.bundle = bundle;
      }
    }
    belonging.flatpak = std::move(flatpak.identifier);
    return belonging;
  }

  std::shared_ptr<const Bundle> bundleOfExecutable(const FileIdentity& executable,
                                                   const ProcessDirectory& process) {
    std::vector<std::shared_ptr<const Bundle>> sharing;
    {
      Answer answer(*this);
      const auto& claimants = claimantsOf(executable);
      if (claimants.size() == 1) {
        const auto& bundle = claimants.front()->bundle;
        return isDisputed(*bundle) ? nullptr : bundle;
      }
      for (const auto* claimant : claimants) {
        const auto& bundle = claimant->bundle;
        if (bundle->kind == BundleKind::application) return nullptr;
        if (!isDisputed(*bundle)) sharing.push_back(bundle);
      }
    }
    if (sharing.empty()) return nullptr;
    const auto name = startedAs(process);
    const auto found = std::find_if(sharing.begin(), sharing.end(),
                                    [&](const auto& bundle) { return bundle->identifier == name; });
    return found == sharing.end() ? nullptr : *found;
  }

  std::shared_ptr<const Bundle> runningApplication(const std::string& identifier) {
    Answer answer(*this);
    for (const auto& folder : folders_) {
      if (folder.kind != BundleKind::application) continue;
      for (const auto& [executable, claimants] : folder.byExecutable) {
        const auto& bundle = claimants.front()->bundle;
        if (claimants.size() == 1 && bundle->identifier == identifier) {
          return isDisputed(*bundle) ? nullptr : bundle;
        }
      }
    }
    return nullptr;
  }

  std::vector<std::shared_ptr<const Bundle>>& good(BundleKind kind) {
    return good_[kind == BundleKind::application ? 0 : 1];
  }

  /// The claimants that decide: those of the machine before the user's, and applications before
  /// extensions.
  const std::vector<const Entry*>& claimantsOf(const FileIdentity& executable) {
    static const std::vector<const Entry*> none;
    for (const auto& folder : folders_) {
      const auto found = folder.byExecutable.find(executable);
      if (found != folder.byExecutable.end()) return found->second;
    }
    return none;
  }

  /// Whether another bundle calls itself the same: its processes must not pass for this one's. As
  /// with executables, applications go before extensions.
  bool isDisputed(const Bundle& bundle) {
    const auto count = [&](BundleKind kind) {
      return std::count_if(good(kind).begin(), good(kind).end(), [&](const auto& other) {
        return other->identifier == bundle.identifier;
      });
    };
    const auto applications = count(BundleKind::application);
    if (bundle.kind == BundleKind::application) return applications > 1;
    return applications > 0 || count(BundleKind::extension) > 1;
  }

  /// Has read again, with the mutex held, what has changed until now. Does not wait for it.
  void catchUp() {
    std::set<Folder*> wholeFolders;
    std::set<std::pair<Folder*, std::string>> single;
    for (const auto& event : inotify_.read()) {
      for (auto& folder : folders_) {
        if (folder.place.isUnsettledBy(event)) {
          wholeFolders.insert(&folder);
        } else if (event.watch == folder.place.directory() && folder.mayHold(event.name)) {
          single.emplace(&folder, event.name);
        }
        for (auto& [name, entry] : folder.entries) {
          note(event, entry);
          if (concerns(event, entry)) single.emplace(&folder, name);
        }
      }
    }
    if (isBlind_) {
      for (auto& folder : folders_) wholeFolders.insert(&folder);
    }
    for (auto* folder : wholeFolders) reread(*folder);
    for (const auto& [folder, name] : single) {
      if (!wholeFolders.contains(folder)) reread(*folder, name);
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - outsideRead_ >= oldestOutside) {
      outsideRead_ = now;
      for (auto& folder : folders_) {
        for (auto& [name, entry] : folder.entries) {
          if (entry.bundle && entry.executableIsOutside && !entry.pending) read(folder, name, now);
        }
      }
    }
    publish();
  }

  static bool concerns(const Inotify::Event& event, const Entry& entry) {
    return std::any_of(entry.claims.begin(), entry.claims.end(),
                       [&](const Claim& claim) { return claim.concerns(event.watch, event.name); });
  }

  /// Keeps an event for the end of a reading.
  static void note(const Inotify::Event& event, const Entry& entry) {
    if (!entry.pending) return;
    if (entry.pending->events.size() < mostRemembered) {
      entry.pending->events.emplace_back(event.watch, event.name);
    } else {
      entry.pending->isOutdated = true;
    }
  }

  void waitForReadings(std::unique_lock<std::mutex>& lock,
                       std::chrono::milliseconds longest = longestWait) {
    if (awaited_ == 0) return;
    const WorkPool::Waiting waiting;
    readers_.provideThread();
    const auto deadline = std::chrono::steady_clock::now() + longest;
    readingEnded_.wait_until(lock, deadline, [this] { return awaited_ == 0; });
    if (awaited_ == 0) return;
    for (auto& folder : folders_) {
      for (auto& [name, entry] : folder.entries) {
        if (!entry.pending || !entry.pending->isAwaited ||
            entry.pending->begun + longestWait > std::chrono::steady_clock::now()) {
          continue;
        }
        giveUpWaiting(*entry.pending);
        DS_LOG("[NOTICE] Reading bundle %@ takes long", folder.place.path() + "/" + name);
      }
    }
  }

  void giveUpWaiting(PendingReading& pending) {
    if (!pending.isAwaited) return;
    pending.isAwaited = false;
    if (--awaited_ == 0) readingEnded_.notify_all();
  }

  void reread(Folder& folder) {
    folder.place.establish();
    std::set<std::string> names;
    for (const auto& [name, entry] : folder.entries) names.insert(name);
    std::error_code failure;
    std::filesystem::directory_iterator at(folder.place.path(), failure);
    for (; !failure && at != std::filesystem::directory_iterator(); at.increment(failure)) {
      auto name = at->path().filename().string();
      if (folder.mayHold(name)) names.insert(std::move(name));
    }
    for (const auto& name : names) reread(folder, name);
  }

  void reread(Folder& folder, const std::string& name) {
    if (!isThere(folder.place.path() + "/" + name)) {
      forget(folder, name);
      return;
    }
    auto& entry = folder.entries[name];
    if (entry.pending) {
      entry.pending->isOutdated = true;
    } else {
      read(folder, name, std::chrono::steady_clock::now());
    }
  }

  /// Has the bundle read by another thread; questions wait for that until a moment after `begun`.
  void read(Folder& folder, const std::string& name, Moment begun, bool isAwaited = true) {
    auto& entry = folder.entries[name];
    auto pending = std::make_shared<PendingReading>(PendingReading{begun, isAwaited, false, {}});
    entry.pending = pending;
    if (isAwaited) ++awaited_;
    readers_.submit([this, &folder, name, pending, path = folder.place.path() + "/" + name,
                     declared = entry.declaredExecutable] {
      auto reading = readWatched(inotify_, folder.kind, path, declared);
      std::lock_guard lock(mutex_);
      take(folder, name, pending, reading);
    });
  }

  /// What was read, with the mutex held.
  void take(Folder& folder, const std::string& name, const std::shared_ptr<PendingReading>& pending,
            Reading& reading) {
    const auto found = folder.entries.find(name);
    if (found == folder.entries.end() || found->second.pending != pending) return;
    auto& entry = found->second;
    entry.pending = nullptr;
    if (reading.blindness != 0) beBlind(reading.blindness);
    const bool isOutdated =
        pending->isOutdated ||
        std::any_of(pending->events.begin(), pending->events.end(), [&](const auto& event) {
          return std::any_of(reading.claims.begin(), reading.claims.end(), [&](const Claim& claim) {
            return claim.concerns(event.first, event.second);
          });
        });
    if (reading.inspection) {
      store(folder, name, entry, reading);
      if (isOutdated) read(folder, name, pending->begun, pending->isAwaited);
    } else if (isOutdated) {
      read(folder, name, pending->begun, pending->isAwaited);
    } else {
      forget(folder, name);
    }
    publish();
    giveUpWaiting(*pending);
  }

  void store(const Folder& folder, const std::string& name, Entry& entry, Reading& reading) {
    entry.claims = std::move(reading.claims);
    auto& inspection = *reading.inspection;
    entry.declaredExecutable = std::move(inspection.declaredExecutable);
    auto& result = inspection.bundle;
    if (!result) {
      complain(entry.complaint, folder.place.path() + "/" + name, result.error().text());
      if (entry.bundle) isChanged_ = true;
      entry.bundle = nullptr;
      entry.executable.reset();
      return;
    }
    entry.complaint.clear();
    result->standing = folder.standing;
    if (!entry.bundle || !isSame(*entry.bundle, *result)) {
      entry.bundle = std::make_shared<const Bundle>(std::move(*result));
      isChanged_ = true;
    }
    if (entry.executable != inspection.executable) isChanged_ = true;
    entry.executable = inspection.executable;
    entry.executableIsOutside = inspection.executableIsOutside;
  }

  /// Says once what is wrong with the bundle.
  static void complain(std::string& last, const std::string& path, std::string complaint) {
    if (complaint == last) return;
    DS_LOG("[ERROR] Skipping bundle %@: %@", path, complaint);
    last = std::move(complaint);
  }

  void forget(Folder& folder, const std::string& name) {
    const auto found = folder.entries.find(name);
    if (found == folder.entries.end()) return;
    if (found->second.pending) giveUpWaiting(*found->second.pending);
    if (found->second.bundle) isChanged_ = true;
    folder.entries.erase(found);
  }

  void beBlind(int errnum) {
    if (isBlind_) return;
    isBlind_ = true;
    DS_LOG("[ERROR] Cannot watch all bundles, reading them at every question: %@",
           posixError(errnum, "inotify"));
  }

  void publish() {
    if (!isChanged_) return;
    isChanged_ = false;
    index();
    ++generation_;
    eventfd_write(changed_.get(), 1);
  }

  void index() {
    for (auto& bundles : good_) bundles.clear();
    // Those of the machine, and the rank of the first that has them.
    std::map<std::string, std::size_t> identifiers;
    std::map<FileIdentity, std::size_t> executables;
    const auto isTaken = [](const auto& all, const auto& which, std::size_t rank) {
      const auto found = all.find(which);
      return found != all.end() && found->second < rank;
    };
    for (auto& folder : folders_) {
      folder.byExecutable.clear();
      for (auto& [name, entry] : folder.entries) {
        if (!entry.bundle) continue;
        if (isTaken(identifiers, entry.bundle->identifier, folder.rank)) {
          complain(entry.refusal, entry.bundle->path,
                   "A bundle of the machine has its identifier.");
          continue;
        }
        if (folder.kind == BundleKind::application &&
            isTaken(executables, *entry.executable, folder.rank)) {
          complain(entry.refusal, entry.bundle->path,
                   "A bundle of the machine has its executable.");
          continue;
        }
        if (folder.standing == BundleStanding::machine) {
          identifiers.try_emplace(entry.bundle->identifier, folder.rank);
          executables.try_emplace(*entry.executable, folder.rank);
        }
        entry.refusal.clear();
        good(folder.kind).push_back(entry.bundle);
        folder.byExecutable[*entry.executable].push_back(&entry);
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable readingEnded_;
  Inotify inotify_;
  /// Those of the machine first, as index() wants it.
  std::deque<Folder> folders_ = allFolders(inotify_);
  std::array<std::vector<std::shared_ptr<const Bundle>>, 2> good_;
  /// How many readings questions wait for.
  unsigned awaited_ = 0;
  Moment outsideRead_ = std::chrono::steady_clock::now();
  bool isBlind_ = false;
  bool isChanged_ = false;
  std::uint64_t generation_ = 0;
  std::uint64_t toldGeneration_ = 0;

  RecentProcesses processes_;
  Readers readers_;
  FileDescriptor changed_;
  std::mutex tellingMutex_;
  std::mutex observersMutex_;
  std::vector<std::function<void()>> observers_;
};

/// The daemon beside the running program, whose name the kernel marks once it was replaced on disk.
bool isDaemon(const AuditToken& token) {
  std::array<char, PATH_MAX> own;
  ssize_t length = readlink("/proc/self/exe", own.data(), own.size());
  if (length <= 0) return false;
  std::string daemon(own.data(), static_cast<std::size_t>(length));
  daemon.erase(daemon.rfind('/') + 1);
  daemon += "docsourced";
  struct stat status;
  if (stat(daemon.c_str(), &status) != 0) return false;
  const auto process = ProcessDirectory::open(token);
  if (!process || process->executable() != identityOf(status)) return false;
  const auto surroundings = surroundingsOf(*process);
  return surroundings && !surroundings->isSandbox;
}

}  // namespace

std::vector<std::string> bundleFolders(BundleKind kind, BundleStanding standing) {
  const bool isApplication = kind == BundleKind::application;
  if (standing == BundleStanding::user) {
    return {isApplication ? Places::applications() : Places::extensions()};
  }
  auto folders = Places::machineBundles();
  for (auto& folder : folders) folder += isApplication ? "/Applications" : "/Extensions";
  return folders;
}

std::string_view bundleSuffix(BundleKind kind) {
  return kind == BundleKind::application ? ".app" : ".docext";
}

BundleCatalog& BundleCatalog::shared() {
  static auto& catalog = *new WatchingCatalog;
  return catalog;
}

std::optional<Value> entitlementOfProcess(const AuditToken& process, std::string_view name) {
  if (name == "com.veltro.file-coordination.host" && isDaemon(process)) return Value(true);
  auto bundle = BundleCatalog::shared().bundleOfProcess(process);
  if (!bundle) return std::nullopt;
  auto* value = find(bundle->entitlements, name);
  return value ? std::optional(*value) : std::nullopt;
}

}  // namespace qx

std::optional<std::string> BundleIdentifierFromAuditToken(const qx::AuditToken& token) {
  return qx::BundleCatalog::shared().identifierOfProcess(token);
}
