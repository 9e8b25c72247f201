#pragma once

#include <algorithm>

#include "tests/mirror/Servers.h"
#include "tests/mirror/World.h"

/// Random work on both sides, and a simple account of every content that was ever written.
namespace docsource::test {

/// A remote that misbehaves as a random generator wants it.
class UnreliableRemote final : public Remote {
 public:
  explicit UnreliableRemote(std::unique_ptr<Remote> remote) : remote_(std::move(remote)) {}

  bool isOffline = false;
  RemoteProblem problem = RemoteProblem::unreachable;
  /// Does everything, and nobody hears of it.
  bool isMute = false;
  /// In a thousand: operations that fail before they were done, and answers that are lost.
  unsigned failures = 0;
  /// In a thousand: entries that are left out of a listing.
  unsigned lies = 0;
  /// For how long it says that it does not want to be asked.
  std::optional<std::chrono::seconds> retryAfter;
  /// What it lists at the top besides, or in the place of what has that name.
  std::optional<RemoteItem> added;
  /// Documents have another version whenever they are looked at; how often that was.
  bool isRestless = false;
  mutable unsigned looks = 0;
  bool hasIdentifiers = true;
  std::mt19937_64* random = nullptr;
  /// The process that uses it is dead as long as that is true, and sends nothing any more.
  const bool* isDead = nullptr;
  /// Called when something was written there, before whoever wrote it is told.
  std::function<void()> hasWritten;
  /// Called when a directory is to be listed, before it is.
  std::function<void(const std::string& path)> isListing;
  /// Has the mirror ask what has changed; the run decides when.
  std::function<void()> tell;

  RemoteCapabilities capabilities() const override {
    auto able = remote_->capabilities();
    able.identifiers = able.identifiers && hasIdentifiers;
    return able;
  }
  Result<std::string> identity(bool create) override {
    return tried<std::string>([&] { return remote_->identity(create); });
  }
  Result<void> list(const std::string& path, const Visitor& visit) override {
    if (isListing) isListing(path);
    return tried<void>([&] {
      const bool isAdded = path.empty() && added;
      if (isAdded) visit(*added);
      return remote_->list(path, [&](const RemoteItem& item) {
        if (!happens(lies) && !(isAdded && item.name == added->name)) visit(shown(item));
      });
    });
  }
  Result<RemoteItem> look(const std::string& path) override {
    return tried<RemoteItem>([&] { return shown(remote_->look(path)); });
  }
  Result<Changes> changes(const std::string& cursor) override {
    return tried<Changes>([&] {
      auto changes = remote_->changes(cursor);
      // What a lie has hidden has to be seen at last.
      if (changes && lies > 0) changes->everything = true;
      return changes;
    });
  }
  bool notifyOfChanges(std::function<void()> callback) override {
    tell = std::move(callback);
    return true;
  }
  Result<void> read(const std::string& path, const std::string& version, std::uint64_t offset,
                    std::uint64_t length, const Sink& sink) override {
    return tried<void>([&] { return remote_->read(path, version, offset, length, sink); });
  }
  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& ifVersion,
                           const RemoteAttributes& attributes, RemoteSource& source) override {
    return tried<RemoteItem>([&] {
      auto written = shown(remote_->write(path, ifVersion, attributes, source));
      if (hasWritten) hasWritten();
      return written;
    });
  }
  Result<RemoteItem> makeDirectory(const std::string& path,
                                   const RemoteAttributes& attributes) override {
    return tried<RemoteItem>([&] { return shown(remote_->makeDirectory(path, attributes)); });
  }
  Result<RemoteItem> move(const std::string& from, const std::string& to,
                          const std::optional<std::string>& ifVersion) override {
    return tried<RemoteItem>([&] { return shown(remote_->move(from, to, ifVersion)); });
  }
  Result<void> remove(const std::string& path,
                      const std::optional<std::string>& ifVersion) override {
    return tried<void>([&] { return remote_->remove(path, ifVersion); });
  }
  Result<RemoteItem> setAttributes(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes) override {
    return tried<RemoteItem>(
        [&] { return shown(remote_->setAttributes(path, ifVersion, attributes)); });
  }

 private:
  bool happens(unsigned rate) { return rate > 0 && random && (*random)() % 1000 < rate; }
  Error gone() const { return remoteError(problem, "The line is cut.", retryAfter); }
  template <class T, class F>
  Result<T> tried(F work) {
    if (isOffline || (isDead && *isDead) || happens(failures)) return gone();
    auto answer = work();
    if (isMute || (isDead && *isDead) || happens(failures)) return gone();
    return answer;
  }
  RemoteItem shown(RemoteItem item) const {
    if (!hasIdentifiers) item.identifier.clear();
    if (isRestless && item.kind == RemoteKind::file) {
      item.version += " " + std::to_string(++looks);
    }
    return item;
  }
  Result<RemoteItem> shown(Result<RemoteItem> item) const {
    return item ? Result<RemoteItem>(shown(*item)) : item;
  }

  const std::unique_ptr<Remote> remote_;
};

/// One run: from a seed, so many actions, a rest, and the comparison.
class Model {
 public:
  /// The documents lie in a directory, which people work in too; or on a server, which only the
  /// machines reach, through a proxy that breaks what they ask and are told.
  explicit Model(std::uint64_t seed, Server* server = nullptr);
  /// What is wrong at the end; empty when nothing is.
  std::string run();
  /// What was done, for a person.
  std::string trace() const;

 private:
  struct Side {
    std::string root;
    Machine* machine = nullptr;  // null for the directory that the remote stands for
  };
  /// Which contents a tree shows, and how often.
  using Contents = std::map<int, int>;

  unsigned below(std::size_t limit) { return static_cast<unsigned>(random_() % limit); }
  bool chance(unsigned percent) { return below(100) < percent; }

  const Side& anySide() { return sides_[isAlone_ ? 0 : below(sides_.size())]; }
  void act();
  bool work(Machine& machine);
  void interfere();
  void change(const Side& side, bool isInside);
  void apply(const Side& side, const std::string& path, const std::string& other, bool isInside);
  bool have(const Side& side, const std::string& path, bool isInside);
  void seen(const std::vector<std::string>& roots, const std::function<void()>& work);
  void finishWriting();
  void disturbTheLine();
  std::unique_ptr<Remote> reach(bool isDirect) const;
  std::string fetch();
  std::string newContent();
  std::string randomPath(const Side& side);
  static std::string randomName(Model& model);
  std::vector<std::string> entries(const std::string& root) const;
  Contents shown(const std::string& root) const;
  static int contentOf(const std::string& path);
  std::string compare();
  static std::string trees(Machine& machine);
  std::string rest();
  void say(const std::string& line) { trace_.push_back(line); }
  std::string relative(const std::string& path) const;

  const OrdinaryUser user_;
  Scratch scratch_;
  /// What the remote stands for, or a copy of what the server has.
  const std::string there_ = scratch_ / "there";
  Server* const server_;
  const std::string base_;
  bool hasModes_ = true;
  qx::ManualClock& clock_;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<Machine>> machines_;
  std::vector<UnreliableRemote*> remotes_;
  std::vector<Side> sides_;
  /// Contents that have to be there at the end.
  std::set<int> owed_;
  int contents_ = 0;
  unsigned interference_ = 0;
  bool isCrashed_ = false;
  /// Nobody changes anything but the one machine, which then has nobody to be in conflict with.
  bool isAlone_ = false;
  bool isMeanwhile_ = false;
  std::optional<unsigned> crashAfter_;
  int writing_ = -1;
  std::string writingPath_;
  std::vector<std::string> trace_;
};

}  // namespace docsource::test
