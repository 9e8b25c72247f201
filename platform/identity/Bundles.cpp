// The catalog of installed bundles.
//
// One inotify instance watches the two folders, every bundle directory, and the directories on the
// way from there to the bundle's executable. What changed is read again when the reactor reports
// it, and also before each answer, so that an answer is never older than its question: asking the
// instance costs one system call while nothing happens. Each bundle is watched before it is read.
//
// An executable outside its bundle can become another file where nobody watches; a claim to one is
// checked when it decides an answer, and all of them are looked at again when no claim fits.

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
#include <climits>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/files/Inotify.h"
#include "platform/files/Places.h"
#include "platform/identity/BundleReader.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/log/Log.h"
#include "platform/queue/Reactor.h"

namespace qx {
namespace {

constexpr std::uint32_t changeMask = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                     IN_MOVED_TO | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::array kinds{BundleKind::application, BundleKind::extension};
/// A bundle whose Info.plist names another executable at each look is read again at its next event.
constexpr int attempts = 5;

bool isDirectory(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isSame(const Bundle& a, const Bundle& b) {
  return a.path == b.path && a.identifier == b.identifier && a.executable == b.executable &&
         a.infoStamp == b.infoStamp && a.info == b.info && a.entitlements == b.entitlements;
}

/// A directory that is watched for a bundle and the entries in it that matter to the bundle.
struct Claim {
  Inotify::Watch watch;
  std::set<std::string, std::less<>> awaited;
};

struct Entry {
  /// Null while the bundle is broken.
  std::shared_ptr<const Bundle> bundle;
  std::string complaint;
  std::optional<std::string> declaredExecutable;
  std::optional<FileIdentity> executable;
  bool executableIsOutside = false;
  std::vector<Claim> claims;
};

struct Folder {
  Folder(BundleKind itsKind, std::string itsSuffix, Inotify& inotify, std::string path)
      : kind(itsKind), suffix(std::move(itsSuffix)), place(inotify, std::move(path), changeMask) {}

  bool mayHold(const std::string& name) const {
    return !name.starts_with('.') && name.ends_with(suffix) && name.size() > suffix.size();
  }

  BundleKind kind;
  std::string suffix;
  WatchedPath place;
  /// In byte order.
  std::map<std::string, Entry> entries;
  std::map<FileIdentity, std::vector<const Entry*>> byExecutable;
  std::vector<std::shared_ptr<const Bundle>> good;
  /// How many bundles call themselves that.
  std::map<std::string, unsigned> identifiers;
};

/// The processes that were asked about last. Their directories are held open, which is cheaper than
/// making sure each time that a number still means the same process.
class RecentProcesses {
 public:
  std::optional<FileIdentity> executableOf(const AuditToken& token) {
    auto found = std::find_if(known_.begin(), known_.end(),
                              [&](const Known& known) { return known.token == token; });
    if (found == known_.end()) {
      auto directory = ProcessDirectory::open(token);
      if (!directory) return std::nullopt;
      if (known_.size() == most) known_.pop_back();
      found = known_.insert(known_.begin(), {token, std::move(*directory)});
    } else if (found != known_.begin()) {
      std::rotate(known_.begin(), found, found + 1);
      found = known_.begin();
    }
    auto executable = found->directory.executable();
    if (!executable) known_.erase(found);
    return executable;
  }

 private:
  static constexpr std::size_t most = 16;
  struct Known {
    AuditToken token;
    ProcessDirectory directory;
  };
  std::vector<Known> known_;  // the last one first
};

class WatchingCatalog final : public BundleCatalog {
 public:
  WatchingCatalog() : changed_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    std::lock_guard lock(mutex_);
    if (inotify_.descriptor() < 0) beBlind(errno);
    for (auto& folder : folders_) reread(folder);
    index();
    serve(inotify_.descriptor());
    serve(changed_.get());
  }

  std::vector<std::shared_ptr<const Bundle>> bundles(BundleKind kind) override {
    Answer answer(*this);
    return folder(kind).good;
  }

  std::shared_ptr<const Bundle> bundle(BundleKind kind, std::string_view identifier) override {
    Answer answer(*this);
    for (const auto& candidate : folder(kind).good) {
      if (candidate->identifier == identifier) return candidate;
    }
    return nullptr;
  }

  std::shared_ptr<const Bundle> bundleOfProcess(const AuditToken& token) override {
    Answer answer(*this);
    auto executable = processes_.executableOf(token);
    if (!executable) return nullptr;
    auto claimants = claimantsOf(*executable);
    bool isStale = std::any_of(claimants.begin(), claimants.end(),
                               [](const Entry* entry) { return !claimStands(*entry); });
    if (claimants.empty() || isStale) {
      rereadOutsideExecutables();
      claimants = claimantsOf(*executable);
    }
    if (claimants.size() != 1 || isDisputed(*claimants.front()->bundle)) return nullptr;
    return claimants.front()->bundle;
  }

  void observeChanges(std::function<void()> observer) override {
    std::lock_guard lock(observersMutex_);
    observers_.push_back(std::move(observer));
  }

 private:
  /// Holds the lock while one question is answered, on the current state of things.
  class Answer {
   public:
    explicit Answer(WatchingCatalog& catalog) : catalog_(catalog), lock_(catalog.mutex_) {
      catalog_.catchUp();
    }

   private:
    WatchingCatalog& catalog_;
    std::lock_guard<std::mutex> lock_;
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

  /// On a thread of the reactor: something happened, or an answer found that something had.
  void changesAreDue() {
    {
      Answer answer(*this);
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

  Folder& folder(BundleKind kind) { return folders_[kind == BundleKind::application ? 0 : 1]; }

  /// The claimants that decide: the applications or, where there is none, the extensions.
  std::vector<const Entry*> claimantsOf(const FileIdentity& executable) {
    for (auto kind : kinds) {
      auto found = folder(kind).byExecutable.find(executable);
      if (found != folder(kind).byExecutable.end()) return found->second;
    }
    return {};
  }

  /// Whether another bundle calls itself the same: its processes must not pass for this one's. As
  /// with executables, applications go before extensions.
  bool isDisputed(const Bundle& bundle) {
    const auto count = [&](BundleKind kind) {
      const auto& identifiers = folder(kind).identifiers;
      const auto found = identifiers.find(bundle.identifier);
      return found == identifiers.end() ? 0U : found->second;
    };
    const auto applications = count(BundleKind::application);
    if (bundle.kind == BundleKind::application) return applications > 1;
    return applications > 0 || count(BundleKind::extension) > 1;
  }

  static bool claimStands(const Entry& entry) {
    if (!entry.executableIsOutside) return true;
    struct stat status;
    return stat(entry.bundle->executable.c_str(), &status) == 0 &&
           identityOf(status) == entry.executable;
  }

  void rereadOutsideExecutables() {
    for (auto& folder : folders_) {
      std::vector<std::string> names;
      for (const auto& [name, entry] : folder.entries) {
        if (entry.bundle && !claimStands(entry)) names.push_back(name);
      }
      for (const auto& name : names) reread(folder, name);
    }
    publish();
  }

  /// Brings the catalog up to what has happened until now.
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
      }
      auto [first, last] = claims_.equal_range(event.watch);
      for (auto claim = first; claim != last; ++claim) {
        const auto& [folder, name, awaited] = claim->second;
        if (event.name.empty() || awaited.contains(event.name)) single.emplace(folder, name);
      }
    }
    if (isBlind_) {
      for (auto& folder : folders_) wholeFolders.insert(&folder);
    }
    for (auto* folder : wholeFolders) reread(*folder);
    for (const auto& [folder, name] : single) {
      if (!wholeFolders.contains(folder)) reread(*folder, name);
    }
    publish();
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
    const auto path = folder.place.path() + "/" + name;
    if (!isDirectory(path)) {
      forget(folder, name);
      return;
    }
    auto& entry = folder.entries[name];
    std::optional<BundleInspection> inspection;
    for (int attempt = 0; attempt < attempts; ++attempt) {
      claim(folder, name, entry, path);
      inspection = inspectBundle(folder.kind, path);
      // What the executable's directories held was seen only if they were watched already.
      if (entry.declaredExecutable == inspection->declaredExecutable) break;
      entry.declaredExecutable = inspection->declaredExecutable;
    }
    const auto& result = inspection->bundle;
    if (!result) {
      auto complaint = result.error().text();
      if (complaint != entry.complaint) {
        DS_LOG("[ERROR] Skipping bundle %@: %@", path, complaint);
        entry.complaint = std::move(complaint);
      }
      if (entry.bundle) isChanged_ = true;
      entry.bundle = nullptr;
      entry.executable.reset();
      return;
    }
    entry.complaint.clear();
    if (!entry.bundle || !isSame(*entry.bundle, *result)) {
      entry.bundle = std::make_shared<const Bundle>(*result);
      isChanged_ = true;
    }
    if (entry.executable != inspection->executable) isChanged_ = true;
    entry.executable = inspection->executable;
    entry.executableIsOutside = inspection->executableIsOutside;
  }

  void forget(Folder& folder, const std::string& name) {
    auto found = folder.entries.find(name);
    if (found == folder.entries.end()) return;
    dropClaims(folder, name, found->second);
    if (found->second.bundle) isChanged_ = true;
    folder.entries.erase(found);
  }

  /// Watches what the bundle consists of, as far as it is known.
  void claim(Folder& folder, const std::string& name, Entry& entry, const std::string& path) {
    std::vector<Claim> claims;
    auto add = [&](const std::string& directory, std::set<std::string, std::less<>> awaited) {
      auto watch = inotify_.watch(directory, changeMask);
      if (!watch && (errno == ENOSPC || errno == ENOMEM)) beBlind(errno);
      bool isWatched{watch};
      if (isWatched) claims.push_back({std::move(watch), std::move(awaited)});
      return isWatched;
    };
    add(path, {"Info.plist", "Entitlements.plist"});
    if (entry.declaredExecutable) {
      auto program = executablePath(path, *entry.declaredExecutable);
      // Watches the directory that ends at `slash` for the component behind it.
      auto step = [&](std::size_t slash) {
        auto end = std::min(program.find('/', slash + 1), program.size());
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
    dropClaims(folder, name, entry);
    entry.claims = std::move(claims);
    for (const auto& added : entry.claims) {
      claims_.emplace(added.watch.number(), Interest{&folder, name, added.awaited});
    }
  }

  void dropClaims(const Folder& folder, const std::string& name, Entry& entry) {
    for (const auto& old : entry.claims) {
      auto [first, last] = claims_.equal_range(old.watch.number());
      while (first != last) {
        bool isOurs = first->second.folder == &folder && first->second.name == name;
        first = isOurs ? claims_.erase(first) : std::next(first);
      }
    }
    entry.claims.clear();
  }

  void beBlind(int errnum) {
    if (isBlind_) return;
    isBlind_ = true;
    DS_LOG("[ERROR] Cannot watch all bundles, reading them at every question: %@",
           posixError(errnum, "inotify"));
  }

  void publish() {
    if (!isChanged_) return;
    index();
    ++generation_;
    eventfd_write(changed_.get(), 1);
  }

  void index() {
    isChanged_ = false;
    for (auto& folder : folders_) {
      folder.good.clear();
      folder.byExecutable.clear();
      folder.identifiers.clear();
      for (const auto& [name, entry] : folder.entries) {
        if (!entry.bundle) continue;
        folder.good.push_back(entry.bundle);
        ++folder.identifiers[entry.bundle->identifier];
        folder.byExecutable[*entry.executable].push_back(&entry);
      }
    }
  }

  struct Interest {
    Folder* folder;
    std::string name;
    std::set<std::string, std::less<>> awaited;
  };

  std::mutex mutex_;
  RecentProcesses processes_;
  Inotify inotify_;
  std::array<Folder, 2> folders_{
      Folder(BundleKind::application, ".app", inotify_, Places::applications()),
      Folder(BundleKind::extension, ".docext", inotify_, Places::extensions())};
  std::multimap<int, Interest> claims_;
  bool isBlind_ = false;
  bool isChanged_ = false;
  std::uint64_t generation_ = 0;
  std::uint64_t toldGeneration_ = 0;

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
  auto process = ProcessDirectory::open(token);
  return process && process->executable() == identityOf(status);
}

}  // namespace

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
  auto bundle = qx::BundleCatalog::shared().bundleOfProcess(token);
  return bundle ? std::optional(bundle->identifier) : std::nullopt;
}
