// What people and programs do, case by case; the model has what nobody thinks of.

#include <gtest/gtest.h>

#include "tests/mirror/Model.h"
#include "tests/mirror/Servers.h"

namespace {

using namespace docsource;
using namespace docsource::test;

bool run(const std::string& command) { return std::system((command + " >&2").c_str()) == 0; }

class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    qx::Clock::setCurrent(clock_);
    coordinate("access");
    fs::create_directories(there_ + "/d/e");
    write(there("a.txt"), "first");
    write(there("d/e/b.txt"), "second");
    fs::permissions(there("d"), fs::perms::owner_all);
    machine_ = std::make_unique<Machine>(scratch_ / "here", makeFolderRemote(there_));
    EXPECT_TRUE(machine_->start());
    settle();
  }
  void settle() {
    machine_->engine().beginSync(false);
    EXPECT_TRUE(machine_->settle(clock_));
  }
  void bringIn() { EXPECT_TRUE(machine_->engine().provide(machine_->storage)); }
  std::string here(const std::string& name) const { return machine_->storage + "/" + name; }
  std::string there(const std::string& name) const { return there_ + "/" + name; }
  std::string identifier(const std::string& name) {
    const auto identifier = machine_->engine().identifierForItem(here(name));
    return identifier ? *identifier : identifier.error().text();
  }
  MirrorItemState state(const std::string& name) {
    const auto status = machine_->engine().status(here(name));
    EXPECT_TRUE(status) << name;
    return status ? status->state : MirrorItemState::failed;
  }
  /// All names below, sorted.
  static std::string names(const std::string& root) {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      const auto name = entry.path().string().substr(root.size() + 1);
      if (!name.starts_with(".docsource-")) names.insert(name);
    }
    std::string text;
    for (const auto& name : names) text += name + " ";
    return text;
  }

  qx::ManualClock& clock_ = newClock();
  Scratch scratch_;
  const std::string there_ = scratch_ / "there";
  std::unique_ptr<Machine> machine_;
};

TEST_F(EngineTest, CarriesWhatIsDoneHereAndThere) {
  EXPECT_TRUE(isPlaceholder(here("a.txt")));
  EXPECT_EQ(fs::file_size(here("a.txt")), 5U);
  EXPECT_EQ(fs::status(here("d")).permissions(), fs::perms::owner_all);
  // A placeholder is moved with its directory, and stays one.
  fs::rename(here("d"), here("moved"));
  fs::create_directories(here("x/y"));
  ASSERT_EQ(::chmod(here("x").c_str(), 0700), 0);
  write(here("new.txt"), "new");
  settle();
  EXPECT_EQ(names(there_), "a.txt moved moved/e moved/e/b.txt new.txt x x/y ");
  EXPECT_EQ(read(there("moved/e/b.txt")), "second");
  EXPECT_EQ(fs::status(there("x")).permissions(), fs::perms::owner_all);
  EXPECT_TRUE(isPlaceholder(here("moved/e/b.txt")));
  fs::remove(here("a.txt"));
  fs::rename(there("moved"), there("x/back"));
  write(there("new.txt"), "newer, from there");
  settle();
  EXPECT_EQ(names(there_), names(machine_->storage));
  EXPECT_EQ(names(there_), "new.txt x x/back x/back/e x/back/e/b.txt x/y ");
  bringIn();
  EXPECT_EQ(read(here("x/back/e/b.txt")), "second");
  EXPECT_EQ(read(here("new.txt")), "newer, from there");
  // Given back, and not while somebody has it open.
  {
    const std::ifstream open(here("new.txt"));
    EXPECT_FALSE(machine_->engine().evict(here("new.txt")));
    save(there("new.txt"), "newest");
    settle();
    EXPECT_EQ(read(here("new.txt")), "newer, from there");
  }
  settle();
  EXPECT_EQ(read(here("new.txt")), "newest");
  EXPECT_TRUE(machine_->engine().evict(here("new.txt")));
  EXPECT_TRUE(isPlaceholder(here("new.txt")));
  // A directory gives way to what was in it.
  fs::create_directory(here("way"));
  write(here("way/in"), "what was in it");
  settle();
  fs::rename(here("way/in"), here("kept"));
  fs::remove(here("way"));
  fs::rename(here("kept"), here("way"));
  settle();
  EXPECT_EQ(names(there_), "new.txt way x x/back x/back/e x/back/e/b.txt x/y ");
  EXPECT_EQ(read(there("way")), "what was in it");
  // A second name stays here, and is a document when the first one has another file.
  fs::create_hard_link(here("way"), here("second"));
  settle();
  EXPECT_FALSE(fs::exists(there("second")));
  save(here("way"), "another file");
  settle();
  EXPECT_EQ(read(there("way")), "another file");
  EXPECT_EQ(read(there("second")), "what was in it");
}

TEST_F(EngineTest, KeepsAnIdentifierHoweverADocumentIsSavedAndGivesACopyAnother) {
  std::array<char, 256> mark{};
  const auto size =
      ::getxattr(here("d/e/b.txt").c_str(), "user.docsource.placeholder", mark.data(), mark.size());
  ASSERT_GT(size, 0);
  bringIn();
  const auto before = identifier("a.txt");
  write(here("a.txt.tmp123"), "saved");
  settle();  // long enough for the temporary file to be carried over
  fs::rename(here("a.txt.tmp123"), here("a.txt"));
  settle();
  EXPECT_EQ(identifier("a.txt"), before);
  EXPECT_EQ(read(there("a.txt")), "saved");
  fs::rename(here("a.txt"), here("a.txt~"));
  write(here("a.txt"), "saved with a backup");
  settle();
  EXPECT_EQ(identifier("a.txt"), before);
  EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt ");
  EXPECT_EQ(state("a.txt~"), MirrorItemState::localOnly);
  ASSERT_TRUE(run("cp -a '" + here("a.txt") + "' '" + here("copy.txt") + "'"));
  write(here("copy.txt"), "the copy");
  // With a mark that was copied along as well.
  ASSERT_EQ(::setxattr(here("copy.txt").c_str(), "user.docsource.placeholder", mark.data(),
                       static_cast<std::size_t>(size), 0),
            0);
  settle();
  EXPECT_NE(identifier("copy.txt"), before);
  EXPECT_EQ(read(there("a.txt")), "saved with a backup");
  EXPECT_EQ(read(there("copy.txt")), "the copy");
  // Saved and renamed before anybody looks.
  write(here("x"), "saved with a backup");
  fs::rename(here("x"), here("a.txt"));
  fs::rename(here("a.txt"), here("d/renamed.txt"));
  settle();
  EXPECT_EQ(identifier("d/renamed.txt"), before);
  machine_->stop();
  fs::rename(here("d/renamed.txt"), here("d/again.txt"));
  ASSERT_TRUE(machine_->start());
  settle();
  EXPECT_EQ(identifier("d/again.txt"), before);
  const auto path = machine_->engine().pathForItem(before);
  ASSERT_TRUE(path);
  EXPECT_EQ(*path, here("d/again.txt"));
  // What takes a placeholder's place and goes on to another has not moved the placeholder out.
  ASSERT_TRUE(machine_->engine().evict(here("d/e/b.txt")));
  write(here("d/e/b.txt~"), "saved");
  fs::rename(here("d/e/b.txt~"), here("d/e/b.txt"));
  fs::rename(here("d/e/b.txt"), here("d/e/c.txt"));
  settle();
  EXPECT_EQ(names(there_), "copy.txt d d/again.txt d/e d/e/c.txt ");
  // What is no document stays here.
  fs::create_symlink("a.txt", here("link"));
  fs::create_hard_link(here("copy.txt"), here("second"));
  write(here(".docsourceignore"), "*.o\n!keep.o\n");
  settle();
  write(here("x.o"), "object");
  write(here("keep.o"), "kept");
  settle();
  for (const std::string name : {"link", "second", "x.o"}) {
    EXPECT_EQ(state(name), MirrorItemState::localOnly) << name;
    EXPECT_FALSE(fs::exists(there(name))) << name;
  }
  EXPECT_TRUE(fs::exists(there("keep.o")));
}

TEST_F(EngineTest, KeepsBothVersionsOfAConflict) {
  bringIn();
  save(there("a.txt"), "a colleague's");
  save(here("a.txt"), "mine");
  settle();
  EXPECT_EQ(read(there("a.txt")), "a colleague's");
  bringIn();
  EXPECT_EQ(read(here("a.txt")), "a colleague's");
  const auto conflicts = machine_->engine().conflicts();
  ASSERT_EQ(conflicts.size(), 1U);
  EXPECT_EQ(conflicts[0].path, here("a.txt"));
  EXPECT_TRUE(conflicts[0].copy.starts_with(here("a (conflict host "))) << conflicts[0].copy;
  EXPECT_EQ(read(conflicts[0].copy), "mine");
  EXPECT_EQ(state("a.txt"), MirrorItemState::conflict);
  ASSERT_TRUE(machine_->engine().take(conflicts[0].copy));
  settle();
  EXPECT_EQ(read(there("a.txt")), "mine");
  EXPECT_TRUE(machine_->engine().conflicts().empty());
  EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt ");
  // What was changed survives what was removed, on either side.
  write(here("a.txt"), "edited here");
  fs::remove(there("a.txt"));
  fs::remove(here("d/e/b.txt"));
  write(there("d/e/b.txt"), "edited there");
  settle();
  EXPECT_EQ(read(there("a.txt")), "edited here");
  EXPECT_EQ(names(machine_->storage), "a.txt d d/e d/e/b.txt ");
}

/// A store that compares nothing: two machines compare, and then both write. The first finds that
/// the second has not seen what it replaced.
TEST(StoreThatComparesNothing, KeepsWhatAnotherHasOverwrittenUnseen) {
  const Server server("s3rver");
  if (!server.runs()) GTEST_SKIP() << server.says();
  auto& clock = newClock();
  qx::Clock::setCurrent(clock);
  const Scratch scratch;
  coordinate("access");
  std::vector<std::unique_ptr<Machine>> machines;
  for (const std::string name : {"one", "other"}) {
    machines.push_back(std::make_unique<Machine>(scratch / name, server.documents("", true), name));
    ASSERT_TRUE(machines.back()->start());
  }
  const auto& one = *machines[0];
  const auto& other = *machines[1];
  const auto settle = [&](std::initializer_list<int> which) {
    for (const int i : which) {
      machines[static_cast<std::size_t>(i)]->engine().beginSync(false);
      ASSERT_TRUE(machines[static_cast<std::size_t>(i)]->settle(clock));
    }
  };
  const std::string files = server.files() + "/docs";
  const std::string aside = scratch / "aside";
  const auto atStore = [&](const std::string& from, const std::string& to) {
    fs::remove_all(to);
    fs::create_directories(to);
    fs::copy(from, to, fs::copy_options::recursive);
  };
  const auto contents = [](const Machine& machine) {
    EXPECT_TRUE(const_cast<Machine&>(machine).engine().provide(machine.storage));
    std::multiset<std::string> found;
    for (const auto& entry : fs::directory_iterator(machine.storage)) {
      if (!entry.path().filename().string().starts_with(".docsource-"))
        found.insert(read(entry.path()));
    }
    return found;
  };
  // What the second sends arrives last, though it compared before the first had sent its own.
  const auto crossed = [&](const std::string& name, const std::string& suffix) {
    atStore(files, scratch / "before");
    write(other.storage + name, "the second's" + suffix);
    settle({1});
    atStore(files, aside);
    atStore(scratch / "before", files);
    write(one.storage + name, "the first's" + suffix);
    settle({0});
    atStore(aside, files);
    settle({0, 1, 0, 1});
  };
  settle({0, 1});
  crossed("/new", "");
  const std::multiset<std::string> both{"the first's", "the second's"};
  EXPECT_EQ(contents(one), both);
  EXPECT_EQ(contents(other), both);
  // Who has read the version of the other replaces it, and nothing is kept beside.
  write(one.storage + "/new", "the third");
  settle({0, 1, 0});
  write(other.storage + "/new", "the fourth");
  settle({1, 0, 1});
  EXPECT_EQ(contents(one), (std::multiset<std::string>{"the first's", "the fourth"}));
  crossed("/new", ", again");
  const std::multiset<std::string> all{"the first's", "the first's, again", "the second's, again"};
  EXPECT_EQ(contents(one), all);
  EXPECT_EQ(contents(other), all);
}

/// A store copies and then removes. The line breaks after some of its requests, for a moment or
/// until the machine was started again, before or after the directory went on or was removed.
TEST(StoreThatComparesNothing, MovesAWholeDirectoryWhereverItIsBrokenOff) {
  Server server("s3rver");
  if (!server.runs()) GTEST_SKIP() << server.says();
  auto& clock = newClock();
  qx::Clock::setCurrent(clock);
  const Scratch scratch;
  coordinate("access");
  constexpr int most = 28;
  for (int passed = 0; passed < most; passed += 3) {
    const bool isGone = passed % 2 == 0;
    const bool isEnded = passed % 12 < 6;
    const auto base = "/" + std::to_string(passed);
    Machine machine(scratch / std::to_string(passed), server.documents(base, false));
    ASSERT_TRUE(machine.start());
    const std::string d = machine.storage + "/d";
    const auto settle = [&] {
      machine.engine().beginSync(true);
      ASSERT_TRUE(machine.settle(clock));
    };
    fs::create_directories(d + "/e");
    for (const char* name : {"/a", "/b", "/e/c"}) write(d + name, name);
    settle();
    fs::rename(d, d + "1");
    std::string faults;
    for (int i = 0; i < passed; ++i) faults += "null,";
    for (int i = 0; i < (isEnded ? 1000 : 2); ++i) faults += "\"reset\",";
    server.tell("{\"faults\":[" + faults + "null]}");
    for (int i = 0; i < (isEnded ? 3 : 1); ++i) machine.engine().step();
    if (isEnded) {
      machine.stop();
      server.tell("{\"faults\":[]}");
      ASSERT_TRUE(machine.start());
    }
    if (isGone) {
      fs::remove_all(d + "1");
    } else {
      fs::rename(d + "1", d + "2");
      fs::rename(d + "2/a", d + "a");
    }
    settle();
    server.tell("{\"faults\":[]}");
    settle();
    ASSERT_TRUE(machine.engine().provide(machine.storage));
    std::map<std::string, std::string> here;
    for (const auto& entry : fs::recursive_directory_iterator(machine.storage)) {
      const auto name = entry.path().string().substr(machine.storage.size());
      if (entry.is_regular_file()) here[name] = read(entry.path());
    }
    const std::map<std::string, std::string> moved{
        {"/d2/b", "/b"}, {"/d2/e/c", "/e/c"}, {"/da", "/a"}};
    EXPECT_EQ(here, isGone ? decltype(here)() : moved) << passed;
    std::size_t count = 0;
    const auto files = server.files() + "/docs" + base;
    for (const auto& entry : fs::recursive_directory_iterator(files)) {
      const auto name = entry.path().filename().string();
      if (name.ends_with("._S3rver_object") && !name.starts_with(".")) ++count;
    }
    EXPECT_EQ(count, here.size()) << passed << " at the store";
  }
}

TEST_F(EngineTest, MovesNoDirectoryWhileSomethingIsSentIntoIt) {
  machine_->stop();
  std::vector<std::function<void()>> sending;
  mirror::Engine engine(
      machine_->options(), machine_->remote(),
      [&](std::function<void()> work) { sending.push_back(std::move(work)); }, [] {});
  ASSERT_TRUE(engine.open());
  write(here("d/e/new"), "third");
  while (engine.step()) {
  }
  ASSERT_EQ(sending.size(), 1U);
  fs::rename(here("d"), here("f"));
  while (engine.step()) {
  }
  EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt ");
  sending.front()();
  clock_.advance(std::chrono::seconds(2));
  while (engine.step()) {
  }
  EXPECT_EQ(names(there_), "a.txt f f/e f/e/b.txt f/e/new ");
}

TEST_F(EngineTest, BelievesNoListingThatIsOlderThanWhatItHasSent) {
  for (const std::string directory : {"d", "x"}) {
    fs::create_directories(there(directory));
    write(there(directory + "/sent"), "old");
  }
  auto owned = std::make_unique<UnreliableRemote>(makeFolderRemote(there_));
  auto& remote = *owned;
  remote.hasIdentifiers = false;
  machine_ = std::make_unique<Machine>(scratch_ / "other", std::move(owned));
  std::deque<std::function<void()>> waiting;
  bool shallWait = false;
  const auto execute = [&](std::function<void()> work) {
    shallWait ? waiting.push_back(std::move(work)) : work();
  };
  std::vector<std::string> listed;
  remote.isListing = [&](const std::string& path) {
    if (path == "d" || path == "x") listed.push_back(path);
  };
  mirror::Engine engine(machine_->options(), remote, execute, [] {});
  ASSERT_TRUE(engine.open());
  const auto steps = [&] {
    for (int count = 0; count < 1000 && engine.step(); ++count) {
    }
    clock_.advance(std::chrono::seconds(2));
  };
  steps();
  ASSERT_EQ(listed.size(), 2U);
  const auto document = listed.front() + "/sent";  // what is listed ahead, is listed first
  ASSERT_TRUE(engine.provide(here(document)));
  steps();
  write(here(document), "new and longer");
  shallWait = true;
  for (int round = 0; round < 10 && waiting.empty(); ++round) steps();
  ASSERT_EQ(waiting.size(), 1U);
  // It is sent when its directory was listed, while another one is.
  remote.isListing = [&](const std::string& path) {
    if (path != listed.back()) return;
    EXPECT_GT(waiting.size(), 1U);
    for (; !waiting.empty(); waiting.pop_back()) waiting.back()();
  };
  remote.lies = 1;  // everything is listed
  engine.beginSync(false);
  steps();
  shallWait = false;
  steps();
  EXPECT_EQ(read(there(document)), "new and longer");
  EXPECT_FALSE(isPlaceholder(here(document))) << "the old version was taken for the last";
  EXPECT_EQ(read(here(document)), "new and longer");
}

TEST_F(EngineTest, MovesADirectoryIntoWhatWasMovedOutOfIt) {
  write(here("d/e/c.txt"), "third");
  fs::create_directory(here("d/e/f"));
  settle();
  fs::rename(here("d/e"), here("e"));
  fs::rename(here("d"), here("e/f/d"));
  settle();
  EXPECT_EQ(names(machine_->storage), "a.txt e e/b.txt e/c.txt e/f e/f/d ");
  EXPECT_EQ(names(there_), "a.txt e e/b.txt e/c.txt e/f e/f/d ");
}

TEST_F(EngineTest, KnowsWhatItDidItselfWhenTheAnswerWasLost) {
  for (const bool hasIdentifiers : {true, false}) {
    auto owned = std::make_unique<UnreliableRemote>(makeFolderRemote(there_));
    auto& remote = *owned;
    remote.hasIdentifiers = hasIdentifiers;
    machine_ =
        std::make_unique<Machine>(scratch_ / (hasIdentifiers ? "one" : "other"), std::move(owned));
    ASSERT_TRUE(machine_->start());
    settle();
    bringIn();
    const auto unheard = [&](const std::function<void()>& work) {
      work();
      remote.isMute = true;
      while (machine_->engine().step()) {
      }
      remote.isMute = false;
    };
    const auto exchange = [&](const std::string& one, const std::string& other) {
      EXPECT_EQ(
          ::renameat2(AT_FDCWD, here(one).c_str(), AT_FDCWD, here(other).c_str(), RENAME_EXCHANGE),
          0);
    };
    // A new document, elsewhere by the time it is known to have arrived; nowhere; in another's
    // place.
    unheard([&] { write(here("new1"), "new one"); });
    fs::rename(here("new1"), here("moved"));
    settle();
    unheard([&] { write(here("new2"), "new two"); });
    fs::rename(here("new2"), here("removed"));
    machine_->engine().step();
    fs::remove(here("removed"));
    settle();
    unheard([&] { write(here("new3"), "new three"); });
    exchange("new3", "a.txt");
    settle();
    EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt moved new3 ");
    EXPECT_EQ(read(there("a.txt")), "new three");
    EXPECT_EQ(read(there("new3")), "first");
    // A directory, as well.
    unheard([&] { fs::create_directory(here("made")); });
    fs::rename(here("made"), here("other"));
    write(here("made"), "in its place");
    settle();
    EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt made moved new3 other ");
    EXPECT_EQ(read(there("made")), "in its place");
    fs::remove(here("made"));
    fs::remove(here("other"));
    // One that was moved, while another has taken its old name, and then its new one.
    unheard([&] {
      fs::rename(here("moved"), here("once"));
      write(here("moved"), "another");
    });
    exchange("moved", "once");
    settle();
    EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt moved new3 once ");
    EXPECT_EQ(names(machine_->storage), names(there_));
    EXPECT_EQ(read(there("moved")), "new one");
    EXPECT_EQ(read(there("once")), "another");
    // As it was.
    fs::rename(here("new3"), here("a.txt"));
    fs::remove(here("moved"));
    fs::remove(here("once"));
    settle();
    EXPECT_EQ(names(there_), "a.txt d d/e d/e/b.txt ");
  }
}

TEST_F(EngineTest, TriesAgainOfItsOwnAccord) {
  auto owned = std::make_unique<UnreliableRemote>(makeFolderRemote(there_));
  auto& remote = *owned;
  std::mt19937_64 random;
  remote.random = &random;
  machine_ = std::make_unique<Machine>(scratch_ / "tries", std::move(owned));
  ASSERT_TRUE(machine_->start());
  settle();
  bringIn();
  for (const auto problem : {RemoteProblem::unreachable, RemoteProblem::noRoom,
                             RemoteProblem::changedMeanwhile, RemoteProblem::failed}) {
    remote.problem = problem;
    remote.failures = 1000;
    const auto text = "edit " + std::to_string(static_cast<int>(problem));
    write(here("a.txt"), text);
    write(here("new.txt"), text);
    fs::rename(here("d/e"), here("d/f"));
    const auto pass = [&] {  // two minutes
      for (int round = 0; round < 120; ++round) {
        machine_->engine().step();
        clock_.advance(std::chrono::seconds(1));
      }
    };
    pass();
    EXPECT_FALSE(read(there("a.txt")) == text || fs::exists(there("d/f")));
    remote.failures = 0;
    pass();
    pass();
    EXPECT_EQ(read(there("a.txt")), text);
    EXPECT_EQ(read(there("new.txt")), text);
    EXPECT_TRUE(fs::exists(there("d/f/b.txt")));
    fs::rename(here("d/f"), here("d/e"));
    pass();
  }
  const auto health = [&] { return machine_->engine().health().state; };
  // What leads out of the tree is not followed, and what nothing is told about or can be had of
  // stays as it was. Nobody is told that all is well, and everything else goes on.
  constexpr auto tooMuch = std::uint64_t{1} << 63U;
  for (const auto& [name, size, trouble] :
       std::initializer_list<std::tuple<std::string, std::uint64_t, std::string>>{
           {"", 0, ""},
           {"..", 0, ""},
           {"../out", 0, ""},
           {"./out", 0, ""},
           {std::string("o\0t", 3), 0, ""},
           {std::string(300, 'n'), 0, ""},
           {"out", tooMuch, ""},
           {"a.txt", tooMuch, ""},
           {"a.txt", 0, "not told"},
           {"d", 0, "not told"}}) {
    remote.added = RemoteItem{};
    remote.added->name = name;
    remote.added->version = "1";
    remote.added->size = size;
    if (!trouble.empty()) remote.added->trouble = trouble;
    const auto before = names(machine_->storage);
    const auto text = read(here("a.txt"));
    write(there("beside"), "x");
    for (int times = 0; times < 2; ++times) settle();
    EXPECT_EQ(health(), MirrorHealth::State::ok) << name;
    EXPECT_EQ(machine_->engine().health().failed, 1U) << name;
    const auto status = machine_->engine().status(machine_->storage);
    EXPECT_EQ(status->state, MirrorItemState::failed) << name;
    EXPECT_NE(status->reason.value_or("").find('"' + name.substr(0, 255)), std::string::npos);
    EXPECT_TRUE(fs::remove(here("beside"))) << name;
    EXPECT_EQ(names(machine_->storage), before) << name;
    EXPECT_EQ(read(here("a.txt")), text) << name;
    remote.added.reset();
    settle();
    EXPECT_FALSE(machine_->engine().status(machine_->storage)->reason) << name;
    EXPECT_EQ(machine_->engine().health().failed, 0U) << name;
    EXPECT_FALSE(fs::exists(here("../out")) || fs::exists(here("out"))) << name;
  }
  // What is never twice the same is left alone for a while.
  ASSERT_TRUE(machine_->engine().evict(here("a.txt")));
  remote.isRestless = true;
  machine_->engine().beginSync(false);
  ASSERT_TRUE(machine_->engine().pin(here("a.txt"), true));
  for (int round = 0; round < 12'000 && remote.looks < 2000; ++round) {
    if (!machine_->engine().step()) clock_.advance(std::chrono::milliseconds(10));
  }
  EXPECT_LT(remote.looks, 600U) << "in two minutes";
  remote.isRestless = false;
  settle();
  EXPECT_EQ(state("a.txt"), MirrorItemState::present);
  ASSERT_TRUE(machine_->engine().pin(here("a.txt"), false));
  // Nobody is sent away for years, or without being told.
  remote.problem = RemoteProblem::notNow;
  remote.retryAfter = std::chrono::seconds::max();
  remote.failures = 1000;
  machine_->engine().beginSync(false);
  machine_->engine().step();
  EXPECT_EQ(health(), MirrorHealth::State::offline);
  remote.failures = 0;
  clock_.advance(std::chrono::hours(1) + std::chrono::seconds(1));
  settle();
  EXPECT_EQ(health(), MirrorHealth::State::ok);
}

TEST_F(EngineTest, WaitsForARemoteThatIsAwayOrNotTheSame) {
  // A program may want a document before the remote was looked at.
  machine_->stop();
  machine_ = std::make_unique<Machine>(scratch_ / "here", makeFolderRemote(there_));
  ASSERT_TRUE(machine_->start());
  bringIn();
  const auto away = scratch_ / "away";
  for (const bool isReplaced : {false, true}) {
    fs::rename(there_, away);
    if (isReplaced) fs::create_directories(there_);
    machine_->stop();
    write(here("a.txt"), isReplaced ? "edited again" : "edited while it was away");
    ASSERT_TRUE(machine_->start());
    settle();
    EXPECT_EQ(names(machine_->storage), "a.txt d d/e d/e/b.txt ");
    EXPECT_EQ(state("a.txt"), MirrorItemState::changed);
    const auto health = machine_->engine().health();
    EXPECT_EQ(health.state,
              isReplaced ? MirrorHealth::State::wrongRemote : MirrorHealth::State::offline);
    EXPECT_EQ(health.waiting, 1U);
    if (isReplaced) {
      EXPECT_TRUE(fs::is_empty(there_));
      fs::remove(there_);
    }
    fs::rename(away, there_);
    settle();
    EXPECT_EQ(read(there("a.txt")), read(here("a.txt")));
    EXPECT_EQ(machine_->engine().health().state, MirrorHealth::State::ok);
  }
}

TEST_F(EngineTest, RemovesMuchAtATimeOnlyWhenItIsConfirmed) {
  for (int number = 0; number < 20; ++number) write(here("n" + std::to_string(number)), "x");
  settle();
  machine_->stop();
  machine_->options().rest = std::chrono::seconds(2);
  ASSERT_TRUE(machine_->start());
  settle();
  const auto all = names(there_);
  for (const bool isThere : {false, true}) {
    const auto root = isThere ? there_ : machine_->storage;
    for (int number = isThere ? 15 : 0; number < (isThere ? 20 : 15); ++number) {
      fs::remove(root + "/n" + std::to_string(number));
      // One after the other is at once as well.
      machine_->engine().beginSync(false);
      machine_->engine().step();
    }
    if (isThere) fs::remove_all(there("d"));
    settle();
    const auto& other = isThere ? machine_->storage : there_;
    EXPECT_TRUE(fs::exists(other + "/n15"));
    const auto health = machine_->engine().health();
    EXPECT_EQ(health.state, MirrorHealth::State::needsConfirmation);
    EXPECT_EQ(health.removalsThere, isThere ? 0U : 15U);
    EXPECT_EQ(health.removalsHere, isThere ? 8U : 0U);
    machine_->engine().beginSync(true);
    EXPECT_TRUE(machine_->settle(clock_));
    EXPECT_EQ(names(there_), names(machine_->storage));
  }
  EXPECT_EQ(names(there_), "a.txt ");
}

TEST_F(EngineTest, ShowsNothingThereThatWasNeverWholeHere) {
  constexpr std::size_t size = 3U << 20U;
  save(here("a.txt"), std::string(size, 'a'));
  char letter = 'a';
  bool isTorn = false;
  {
    // Overwritten in place between two pieces, again and again.
    const WatchedCalls watched([&](const char* name, bool changes) {
      const auto shown = changes ? read(there("a.txt")) : std::string();
      isTorn = isTorn ||
               (shown.size() == size && shown.find_first_not_of(shown[0]) != std::string::npos);
      if (std::string_view(name).starts_with("pread") && letter < 'p') {
        std::fstream(here("a.txt")) << std::string(size, ++letter);
      }
      return 0;
    });
    settle();
  }
  EXPECT_FALSE(isTorn);
  EXPECT_EQ(letter, 'p');
  EXPECT_TRUE(read(there("a.txt")) == std::string(size, 'p'));
}

TEST_F(EngineTest, GivesAPlaceholderItsMarkBackThatSomebodyTook) {
  const std::string large(100000, 'l');
  write(there("large"), large);
  settle();
  constexpr const char* mark = "user.docsource.placeholder";
  const std::string another = "placeholder inode:1:1.000000001";
  for (const char* name : {"a.txt", "large"}) {
    const auto path = here(name);
    ASSERT_EQ(::removexattr(path.c_str(), mark), 0);
    settle();
    EXPECT_TRUE(isPlaceholder(path));
    ASSERT_EQ(::setxattr(path.c_str(), mark, another.data(), another.size(), 0), 0);
    settle();
    EXPECT_TRUE(isPlaceholder(path));
  }
  EXPECT_EQ(read(there("a.txt")), "first");
  EXPECT_TRUE(read(there("large")) == large);
  bringIn();
  EXPECT_EQ(read(here("a.txt")), "first");
  EXPECT_TRUE(read(here("large")) == large);
}

TEST_F(EngineTest, TakesTheSizeThatAProgramGaveToAPlaceholder) {
  fs::resize_file(here("a.txt"), 2);
  fs::resize_file(here("d/e/b.txt"), 8);
  settle();
  EXPECT_EQ(read(there("a.txt")), "fi");
  EXPECT_EQ(read(there("d/e/b.txt")), std::string("second\0\0", 8));
  EXPECT_EQ(state("a.txt"), MirrorItemState::present);
}

TEST_F(EngineTest, EndsWhatAWriterHasLeftThatWasEnded) {
  // Half of an upload, and what somebody put there in the moment of an exchange.
  write(there("d/.docsource-half.new"), "hal");
  write(there("d/.docsource-one.1.2.old"), "somebody's");
  settle();
  settle();  // What got a name while its directory was being read is told of by another thread.
  EXPECT_EQ(names(there_), "a.txt d d/Recovered document d/e d/e/b.txt ");
  EXPECT_EQ(read(there("d/Recovered document")), "somebody's");
  EXPECT_EQ(names(there_), names(machine_->storage));
  EXPECT_EQ(std::distance(fs::directory_iterator(there("d")), {}), 2);
  // Nothing of that keeps a directory.
  write(there("d/e/.docsource-half.new"), "hal");
  fs::remove_all(here("d/e"));
  settle();
  EXPECT_FALSE(fs::exists(there("d/e")));
  EXPECT_FALSE(fs::exists(here("d/e")));
}

// Two machines work on the same five repositories in turn.
TEST_F(EngineTest, CarriesGitRepositories) {
  if (!run("git --version")) GTEST_SKIP() << "there is no git";
  Machine other(scratch_ / "other", makeFolderRemote(there_), "other");
  ASSERT_TRUE(other.start());
  constexpr int repositories = 5;
  const char* text = std::getenv("DOCSOURCE_COMMITS");
  const int commits = text ? std::atoi(text) : 4;
  const auto settleBoth = [&] {
    for (int round = 0; round < 2; ++round) {
      settle();
      other.engine().beginSync(false);
      ASSERT_TRUE(other.settle(clock_));
    }
  };
  const std::string git = "git -c user.name=n -c user.email=e -c gc.auto=0 -C ";
  for (int number = 0; number < repositories; ++number) {
    const auto path = here("r" + std::to_string(number));
    ASSERT_TRUE(run("git init -q '" + path + "'"));
  }
  for (int commit = 0; commit < commits; ++commit) {
    Machine& machine = commit % 2 == 0 ? *machine_ : other;
    settleBoth();
    ASSERT_TRUE(machine.engine().provide(machine.storage));
    for (int number = 0; number < repositories; ++number) {
      const auto path = machine.storage + "/r" + std::to_string(number);
      write(path + "/file" + std::to_string(commit % 7), std::to_string(commit * 31 + number));
      ASSERT_TRUE(run(git + path + " add -A && " + git + path + " commit -q -m c"));
      machine.engine().step();
    }
    // What git has under way stays where it is, for however long.
    const std::string locks[] = {"/r0/.git/index.lock", "/r0/.git/objects/tmp_obj_Ab12Cd"};
    for (const auto& name : locks) write(machine.storage + name, "half");
    settleBoth();
    for (const auto& name : locks) {
      EXPECT_FALSE(fs::exists(there_ + name)) << name;
      fs::remove(machine.storage + name);
    }
  }
  settleBoth();
  ASSERT_TRUE(other.engine().provide(other.storage));
  bringIn();
  for (const auto& root : {there_, machine_->storage, other.storage}) {
    for (int number = 0; number < repositories; ++number) {
      const auto path = root + "/r" + std::to_string(number);
      EXPECT_TRUE(run("git -C " + path + " fsck --strict")) << path;
      EXPECT_TRUE(
          run("test $(git -C " + path + " rev-list --count HEAD) = " + std::to_string(commits)))
          << path;
      EXPECT_TRUE(run("test -z \"$(git -C " + path + " status --porcelain)\"")) << path;
    }
  }
}

}  // namespace
