// Everything that people and programs do to files, by several of them at a time, while the mirror
// is at work, offline, or being killed.
//
// A content is "content N" in a file of a size that no other content has, so that a placeholder
// tells which one it stands for. Whoever changes something on a side has seen what that side
// showed: what it shows no more afterwards is owed no longer, and what is new is owed.

#include "tests/mirror/Model.h"

#include <sstream>

namespace docsource::test {
namespace {

constexpr std::size_t firstSize = 64;
constexpr std::string_view partial = "PARTIAL";

}  // namespace

Model::Model(std::uint64_t seed, Server* server)
    : server_(server), base_("/m" + std::to_string(seed)), clock_(newClock()), random_(seed) {
  qx::Clock::setCurrent(clock_);
  clock_.advance(std::chrono::hours(1));
  coordinate(chance(50) ? "access" : "cooperative");
  fs::create_directories(there_);
  const bool hasIdentifiers = chance(80);
  const unsigned count = chance(25) ? 2 : 1;
  isAlone_ = count == 1 && chance(30);
  for (unsigned number = 0; number < count; ++number) {
    auto remote = std::make_unique<UnreliableRemote>(reach(false));
    remote->random = &random_;
    if (server_) remote->isDead = &isCrashed_;
    remote->hasIdentifiers = hasIdentifiers;
    if (chance(30)) remote->failures = 1 + below(80);
    if (chance(15)) remote->lies = 1 + below(100);
    remotes_.push_back(remote.get());
    const auto name = "m" + std::to_string(number);
    machines_.push_back(std::make_unique<Machine>(scratch_ / name, std::move(remote), name));
    if (seed % 2 == 1) machines_.back()->options().newAtATime = 2;
    sides_.push_back({machines_.back()->storage, machines_.back().get()});
    // The engine goes on while a transfer is under way.
    remotes_.back()->hasWritten = [this, &machine = *machines_.back(), remote = remotes_.back()] {
      if (isMeanwhile_ || isCrashed_ || !chance(30)) return;
      isMeanwhile_ = true;
      say("    ! step meanwhile");
      if (remote->tell) remote->tell();
      machine.engine().step();
      isMeanwhile_ = false;
    };
  }
  if (!server_) sides_.push_back({there_, nullptr});
  interference_ = chance(60) ? 1 + below(25) : 0;
}

/// The documents there; on a server directly, or as the machines reach it.
std::unique_ptr<Remote> Model::reach(bool isDirect) const {
  if (!server_) return makeFolderRemote(there_);
  const AllSeeing all;
  return server_->documents(base_, isDirect);
}

std::string Model::trace() const {
  std::ostringstream text;
  for (const auto& line : trace_) text << "  " << line << "\n";
  return text.str();
}

std::string Model::relative(const std::string& path) const {
  return path.substr((scratch_ / "").size());
}

std::string Model::newContent() {
  const int number = contents_++;
  std::string text = "content " + std::to_string(number) + "\n";
  text.resize(firstSize + static_cast<std::size_t>(number), '.');
  return text;
}

/// -1 when it is none of the model's.
int Model::contentOf(const std::string& path) {
  const AllSeeing all;
  const auto entry = mirror::lookAt(AT_FDCWD, path);
  if (!entry || entry->kind != mirror::Kind::file) return -1;
  if (entry->isPlaceholder) return static_cast<int>(entry->size) - static_cast<int>(firstSize);
  const auto text = read(path);
  int number = -1;
  if (std::sscanf(text.c_str(), "content %d", &number) != 1) return -1;
  return text.size() == firstSize + static_cast<std::size_t>(number) ? number : -1;
}

std::vector<std::string> Model::entries(const std::string& root) const {
  std::vector<std::string> found;
  std::error_code ignored;
  for (auto entry = fs::recursive_directory_iterator(root, ignored);
       entry != fs::recursive_directory_iterator(); entry.increment(ignored)) {
    if (ignored) break;
    if (entry->path().filename().string().starts_with(".docsource-")) continue;
    found.push_back(entry->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

Model::Contents Model::shown(const std::string& root) const {
  Contents shown;
  for (const auto& path : entries(root)) {
    const int content = contentOf(path);
    if (content >= 0) ++shown[content];
  }
  return shown;
}

std::string Model::randomName(Model& model) {
  static const std::array<std::string, 9> names = {"a",     "b",  "c",  "d.txt", "e.txt",
                                                   "f.odt", "x1", "x2", "x3"};
  return names[model.below(names.size())];
}

std::string Model::randomPath(const Side& side) {
  const auto all = entries(side.root);
  if (!all.empty() && chance(75)) return all[below(all.size())];
  std::vector<std::string> directories{side.root};
  for (const auto& path : all) {
    if (fs::is_directory(fs::symlink_status(path))) directories.push_back(path);
  }
  return directories[below(directories.size())] + "/" + randomName(*this);
}

/// Whether a program gets at the content: it would wait for it, and here it asks for it.
bool Model::have(const Side& side, const std::string& path, bool isInside) {
  if (!isPlaceholder(path)) return true;
  if (isInside || !side.machine) return false;
  const auto provided = side.machine->engine().provide(path);
  say("provide " + relative(path) + (provided ? "" : ": " + provided.error().text()));
  return provided.ok() && !isPlaceholder(path);
}

void Model::change(const Side& side, bool isInside) {
  const auto path = randomPath(side);
  const auto other = randomPath(side);
  // A program that is not there to be asked would wait; what it waits for comes first.
  const bool isThere = fs::is_regular_file(fs::symlink_status(path));
  if (isThere && chance(50)) have(side, path, isInside);
  seen({side.root}, [&] { apply(side, path, other, isInside); });
}

/// Whoever does something on a side has seen what it showed.
void Model::seen(const std::vector<std::string>& roots, const std::function<void()>& work) {
  std::vector<Contents> before;
  for (const auto& root : roots) before.push_back(shown(root));
  const int known = contents_;
  work();
  for (std::size_t at = 0; at < roots.size(); ++at) {
    const auto after = shown(roots[at]);
    for (const auto& [content, count] : before[at]) {
      const auto left = after.find(content);
      const bool isFewer = left == after.end() || left->second < count;
      if (isFewer && owed_.erase(content) > 0) say("      -" + std::to_string(content));
    }
    for (const auto& [content, count] : after) {
      if (content >= known && owed_.insert(content).second) {
        say("      +" + std::to_string(content));
      }
    }
  }
}

void Model::apply(const Side& side, const std::string& path, const std::string& other,
                  bool isInside) {
  std::error_code problem;
  const auto status = fs::symlink_status(path);
  const bool isFile = fs::is_regular_file(status);
  const bool isDirectory = fs::is_directory(status);
  const bool isOtherBelow = other.starts_with(path + "/") || other == path;
  // A link at the remote takes a name that nobody here knows of; it keeps to its own.
  const bool movesLink =
      side.root == there_ && (fs::is_symlink(status) || fs::is_symlink(fs::symlink_status(other)));
  const auto label = [&](const std::string& what) {
    say((isInside ? "    ! " : "") + what + " " + relative(path));
  };
  // A program that opens a file for which a lease is held waits: here it goes without.
  const auto overwrite = [&](int flags, const std::string& text) {
    const qx::FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | flags, 0644));
    if (!file) return;
    label("write " + text.substr(0, text.find('\n')));
    (void)!::write(file.get(), text.data(), text.size());
    if (flags == 0) (void)!::ftruncate(file.get(), static_cast<off_t>(text.size()));
  };
  switch (below(18)) {
    case 0:
    case 1:
      if (!fs::exists(status)) overwrite(O_CREAT | O_EXCL, newContent());
      return;
    case 2:
      if (isFile && !isPlaceholder(path)) overwrite(0, newContent());
      return;
    case 3:
      if (isFile && !isPlaceholder(path)) overwrite(O_TRUNC, newContent());
      return;
    case 4: {  // by a file beside
      if (!isFile) return;
      label("save");
      const auto beside = chance(50) ? path + ".part" : path + "~";
      ::unlink(beside.c_str());  // nobody writes in a placeholder
      if (fs::is_directory(fs::symlink_status(beside))) return;
      write(beside, newContent());
      ::chmod(beside.c_str(), 0644);
      ::rename(beside.c_str(), path.c_str());
      return;
    }
    case 5: {  // with a backup
      if (!isFile || isPlaceholder(path)) return;
      label("save with a backup");
      const auto backup = path + (chance(70) ? "~" : ".bak");
      if (chance(50)) {
        ::rename(path.c_str(), backup.c_str());
      } else {
        ::unlink(backup.c_str());
        if (::link(path.c_str(), backup.c_str()) != 0) return;
        ::unlink(path.c_str());
      }
      write(path, newContent());
      if (chance(60)) ::unlink(backup.c_str());
      return;
    }
    case 6:
    case 7:
      if (!fs::exists(status) || isOtherBelow || fs::exists(fs::symlink_status(other))) return;
      if (movesLink) return;
      label("rename to " + relative(other) + ":");
      ::rename(path.c_str(), other.c_str());
      return;
    case 8:  // over something
      if (!fs::exists(status) || isOtherBelow || movesLink) return;
      label("rename over " + relative(other) + ":");
      ::rename(path.c_str(), other.c_str());
      return;
    case 9:
      if (!isFile || isOtherBelow || movesLink) return;
      label("exchange with " + relative(other) + ":");
      ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
      return;
    case 10:
      if (!isFile && !fs::is_symlink(status)) return;
      label("remove");
      ::unlink(path.c_str());
      return;
    case 11:
      if (!isDirectory || !chance(50)) return;
      label("remove all of");
      fs::remove_all(path, problem);
      return;
    case 12:
      if (fs::exists(status)) return;
      label("make directory");
      ::mkdir(path.c_str(), 0755);
      return;
    case 13:
      if (!fs::exists(status) || fs::is_symlink(status)) return;
      label("chmod");
      ::chmod(path.c_str(), isDirectory ? (chance(50) ? 0700 : 0755) : (chance(50) ? 0600 : 0640));
      return;
    case 14:
      if (chance(50)) {
        label("link symbolically");
        // There under a name that nothing else takes.
        const bool isThere = side.root == there_;
        ::symlink("nothing", (path + (isThere ? ".link" : "")).c_str());
      } else if (isFile && !fs::exists(fs::symlink_status(other))) {
        label("link as " + relative(other) + ":");
        ::link(path.c_str(), other.c_str());
      }
      return;
    case 15: {  // as cp -a does, with times and attributes
      if (!isFile || isPlaceholder(path) || fs::exists(fs::symlink_status(other))) return;
      label("copy to " + relative(other) + ":");
      const auto entry = mirror::lookAt(AT_FDCWD, path);
      write(other, read(path));
      const timespec times[2] = {
          {0, UTIME_OMIT}, {entry->modified / 1'000'000'000, entry->modified % 1'000'000'000}};
      ::utimensat(AT_FDCWD, other.c_str(), times, 0);
      ::setxattr(other.c_str(), "user.docsource.placeholder", "placeholder inode:1:1.000000001", 31,
                 0);
      return;
    }
    case 16: {  // bit by bit
      if (writing_ >= 0 || (isFile && isPlaceholder(path)) || isDirectory) return;
      if (fs::is_symlink(status)) return;
      label("begin to write");
      writing_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0644);
      writingPath_ = path;
      if (writing_ >= 0) (void)!::write(writing_, partial.data(), partial.size());
      return;
    }
    default:
      if (!side.machine || isInside) return;
      if (chance(50)) {
        label("evict");
        (void)side.machine->engine().evict(path).ok();
      } else {
        label("pin");
        (void)side.machine->engine().pin(path, chance(50)).ok();
      }
      return;
  }
}

void Model::finishWriting() {
  if (writing_ < 0) return;
  std::string text;
  say("finish writing " + relative(writingPath_) + " content " + std::to_string(contents_));
  std::vector<std::string> roots;
  for (const auto& side : sides_) roots.push_back(side.root);
  seen(roots, [&] {
    text = newContent();
    (void)!::pwrite(writing_, text.data(), text.size(), 0);
    (void)!::ftruncate(writing_, static_cast<off_t>(text.size()));
    ::close(std::exchange(writing_, -1));
  });
}

void Model::interfere() {
  // While a file is held, programs that want it wait; so does everything here.
  for (const auto& side : sides_) {
    for (const auto& path : entries(side.root)) {
      const qx::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
      if (!file && errno == EWOULDBLOCK) return;
    }
  }
  if (chance(8)) return finishWriting();
  change(anySide(), true);
}

/// A piece of the engine's work, in which others work as well, and which may end in its middle.
bool Model::work(Machine& machine) {
  bool hasMore = false;
  {
    const WatchedCalls calls([&](const char* name, bool changes) {
      if (isCrashed_) return changes ? EIO : 0;
      if (crashAfter_ && (*crashAfter_)-- == 0) {
        say(std::string("    ! crash before ") + name);
        isCrashed_ = true;
        crashAfter_.reset();
        return changes ? EIO : 0;
      }
      if (interference_ > 0 && below(1000) < interference_) {
        say(std::string("    before ") + name);
        interfere();
      }
      return 0;
    });
    hasMore = machine.engine().step();
    if (isCrashed_) machine.stop();
  }
  if (isCrashed_) {
    isCrashed_ = false;
    hasMore = true;
    const auto started = machine.start();
    if (!started) say("start: " + started.error().text());
  }
  return hasMore;
}

/// What becomes of the requests to come.
void Model::disturbTheLine() {
  std::string faults;
  for (unsigned count = 1 + below(8); count > 0; --count) {
    static const std::array<std::string, 7> kinds = {"null", R"("reset")", "500",        "502",
                                                     "503",  "429",        R"("repeat")"};
    const auto kind = below(kinds.size() + 2);
    const auto fault = kind < kinds.size() ? kinds[kind]
                       : kind == kinds.size()
                           ? R"({"cut": )" + std::to_string(1 + below(300)) + "}"
                           : R"({"corrupt": )" + std::to_string(below(2000)) + "}";
    faults += (faults.empty() ? "" : ",") + fault;
  }
  say("line: " + faults);
  server_->tell(R"({"faults": [)" + faults + "]}");
}

void Model::act() {
  if (server_ && chance(30)) disturbTheLine();
  const auto kind = below(100);
  auto& machine = *machines_[below(machines_.size())];
  if (kind < 45) {
    change(anySide(), false);
  } else if (kind < 85) {
    say("step " + relative(machine.storage));
    for (auto* remote : remotes_) {
      if (remote->tell && chance(70)) remote->tell();
    }
    if (chance(8)) crashAfter_ = below(400);
    for (unsigned count = 1 + below(4); count > 0 && work(machine); --count) {
    }
    crashAfter_.reset();
  } else if (kind < 89) {
    say("restart");
    machine.stop();
    for (unsigned count = below(4); count > 0; --count) {
      change({machine.storage, nullptr}, false);
    }
    (void)machine.start().ok();
  } else if (kind < 92) {
    auto& remote = *remotes_[below(remotes_.size())];
    remote.isOffline = !remote.isOffline;
    say(remote.isOffline ? "offline" : "online");
  } else if (kind < 94) {
    finishWriting();
  } else {
    clock_.advance(std::chrono::milliseconds(below(5000)));
  }
}

/// The trees of a machine, for a person.
std::string Model::trees(Machine& machine) {
  machine.stop();
  std::ostringstream text;
  mirror::Database database(machine.options().state + "/items.sqlite");
  mirror::Items(database).forEach("1", [&](const mirror::Item& item) {
    text << "    " << item.number;
    for (const auto* node : {&item.here, &item.agreed, &item.there}) {
      text << " | ";
      if (!*node) continue;
      text << (*node)->place.parent << "/" << (*node)->place.name << " "
           << static_cast<int>((*node)->kind) << ((*node)->isPlaceholder ? "p " : " ")
           << (*node)->identity << " " << (*node)->version << " " << std::oct
           << (*node)->mode.value_or(0) << std::dec;
    }
    text << " | " << item.agreedHere.value_or("-") << " due " << item.due.value_or(-1) << " tries "
         << item.tries << " " << item.reason.value_or("") << "\n";
  });
  return text.str();
}

std::string Model::rest() {
  finishWriting();
  say("rest");
  for (auto* remote : remotes_) {
    remote->isOffline = false;
    remote->failures = 0;
    remote->lies = 0;
  }
  if (server_) server_->tell(R"({"faults": []})");
  interference_ = 0;
  // Each brings the other's work home.
  for (int round = 0; round < 4; ++round) {
    for (auto& machine : machines_) {
      machine->engine().beginSync(true);
      if (!machine->settle(clock_)) {
        return machine->storage + " does not come to rest\n" + trees(*machine);
      }
    }
  }
  return {};
}

/// Copies what the server has, as it tells itself.
std::string Model::fetch() {
  if (!server_) return {};
  const auto remote = reach(true);
  if (const auto identity = remote->identity(false); !identity) return identity.error().text();
  // The version of an object in a store says nothing of its permissions, so nobody sees it when a
  // request that comes twice takes them back.
  hasModes_ = remote->capabilities().modes && !server_->isStore();
  std::vector<std::string> directories{""};
  while (!directories.empty()) {
    const auto directory = std::exchange(directories.back(), "");
    directories.pop_back();
    std::vector<RemoteItem> items;
    const auto listed =
        remote->list(directory, [&](const RemoteItem& item) { items.push_back(item); });
    if (!listed) return listed.error().text();
    for (const auto& item : items) {
      const auto path = directory.empty() ? item.name : directory + "/" + item.name;
      const auto copy = there_ + "/" + path;
      if (item.kind == RemoteKind::directory) {
        fs::create_directory(copy);
        directories.push_back(path);
      } else {
        std::string text;
        const auto read =
            remote->read(path, item.version, 0, item.size, [&](std::string_view part) {
              text += part;
              return Result<void>();
            });
        if (!read) return path + ": " + read.error().text();
        write(copy, text);
      }
      if (hasModes_ && item.mode) ::chmod(copy.c_str(), *item.mode);
    }
  }
  return {};
}

std::string Model::compare() {
  if (auto problem = fetch(); !problem.empty()) return problem;
  const auto& there = there_;
  // Servers keep permissions of documents at most.
  const auto modeOf = [&](const mirror::LocalEntry& entry) {
    return server_ && (!hasModes_ || entry.kind != mirror::Kind::file) ? 0 : entry.mode;
  };
  std::map<std::string, std::string> expected;
  for (const auto& path : entries(there)) {
    const auto entry = mirror::lookAt(AT_FDCWD, path);
    if (!entry || !entry->kind) continue;
    std::ostringstream line;
    line << static_cast<int>(*entry->kind) << " " << std::oct << modeOf(*entry) << " ";
    if (entry->kind == mirror::Kind::file) line << read(path);
    expected[path.substr(there.size())] = line.str();
    if (isAlone_ && path.find("(conflict ") != std::string::npos) {
      return relative(path) + " is in conflict with nobody";
    }
  }
  for (auto& machine : machines_) {
    auto left = expected;
    if (const auto provided = machine->engine().provide(machine->storage); !provided) {
      return "cannot be provided: " + provided.error().text() + "\n" + trees(*machine);
    }
    for (const auto& path : entries(machine->storage)) {
      const auto name = path.substr(machine->storage.size());
      const auto status = machine->engine().status(path);
      const auto entry = mirror::lookAt(AT_FDCWD, path);
      const bool isLocal = status && status->state == MirrorItemState::localOnly;
      const auto theirs = left.find(name);
      if (theirs == left.end()) {
        // A link at the remote is not shown here, and keeps its name.
        const bool isTaken = status && status->reason && status->reason->ends_with("special file.");
        if (isLocal || isTaken) continue;
        return relative(path) + " is not there" +
               (status && status->reason ? ": " + *status->reason : "");
      }
      std::ostringstream line;
      line << (entry->kind ? static_cast<int>(*entry->kind) : 0) << " " << std::oct
           << modeOf(*entry) << " ";
      if (entry->kind == mirror::Kind::file) line << read(path);
      if (line.str() != theirs->second) {
        return relative(path) + " is another: " + line.str().substr(0, 24) + " and there " +
               theirs->second.substr(0, 24) + "\n" + trees(*machine);
      }
      left.erase(theirs);
    }
    if (!left.empty())
      return left.begin()->first + " is not in " + relative(machine->storage) + "\n" +
             trees(*machine);
  }
  Contents found = shown(there);
  for (auto& machine : machines_) {
    // What stays here is there as well.
    found.merge(shown(machine->storage));
  }
  for (const int content : owed_) {
    if (content >= 0 && !found.contains(content))
      return "content " + std::to_string(content) + " is lost";
  }
  return {};
}

std::string Model::run() {
  for (auto& machine : machines_) {
    if (auto started = machine->start(); !started) return started.error().text();
  }
  for (unsigned count = 20 + below(80); count > 0; --count) act();
  auto problem = rest();
  if (problem.empty()) problem = compare();
  if (writing_ >= 0) ::close(writing_);
  return problem;
}

}  // namespace docsource::test
