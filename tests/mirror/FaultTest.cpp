// Each operation with its first, second, … call failing, once and from then on, and ending the
// process there, until it succeeds. DOCSOURCE_FAULTS=all takes every call; otherwise some are left
// out.

#include <gtest/gtest.h>

#include "tests/mirror/Model.h"

namespace {

using namespace docsource;
using namespace docsource::test;

struct Operation {
  std::string name;
  /// After both sides agree on "a" (present here) and "d/b" (a placeholder).
  std::function<void(const std::string& here, const std::string& there)> prepare;
  /// Asked of the engine while calls fail.
  std::function<void(Machine&)> ask;
  /// The contents that are there at the end, sorted and joined.
  std::string expected;
  bool hasIdentifiers = true;
  /// Done here before the engine goes on.
  std::function<void(const std::string& here)> meanwhile = {};
  /// Of how many calls one fails.
  int stride = 23;
};

enum class Fault { ioOnce, ioFromThenOn, fullFromThenOn, kill };

void settleSomehow(Machine& machine, qx::ManualClock& clock) {
  constexpr int rounds = 12;
  for (int round = 0; round < rounds; ++round) {
    machine.engine().step();
    clock.advance(std::chrono::seconds(5));
  }
}

/// And whether a copy of a conflict is among them.
std::string contents(const std::string& root) {
  std::set<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    // What the remote wrote beside is never shown, and may be left by who was killed.
    const auto name = entry.path().filename().string();
    if (entry.is_regular_file() && !name.starts_with(".docsource-"))
      found.insert(read(entry.path()));
    if (name.find("(conflict ") != std::string::npos) found.insert("(conflict)");
  }
  std::string text;
  for (const auto& content : found) text += content + " ";
  return text;
}

/// Both sides agree on "a" (present here) and "d/b" (a placeholder).
struct Scene {
  explicit Scene(const std::string& mechanism, bool identifies = true, mode_t mode = 0644)
      : hasIdentifiers(identifies) {
    qx::Clock::setCurrent(clock);
    coordinate(mechanism);
    fs::create_directories(there + "/d");
    write(there + "/a", "first");
    write(there + "/d/b", "second");
    for (const auto* name : {"/a", "/d/b"}) ::chmod((there + name).c_str(), mode);
    const auto before = machine();
    EXPECT_TRUE(before->start());
    EXPECT_TRUE(before->settle(clock));
    EXPECT_TRUE(before->engine().provide(here + "/a"));
    EXPECT_TRUE(before->settle(clock));
  }
  std::unique_ptr<Machine> machine() const {
    auto remote = std::make_unique<UnreliableRemote>(makeFolderRemote(there));
    remote->hasIdentifiers = hasIdentifiers;
    return std::make_unique<Machine>(scratch / "here", std::move(remote));
  }
  /// What the engine does, watched by whoever may end it; whether it was ended.
  bool work(const std::function<void(Machine&)>& ask, const BeforeCall& watch, bool mayEnd) const {
    const auto all = [&] {
      const WatchedCalls watched(watch);
      const auto broken = machine();
      if (!broken->start()) return;
      settleSomehow(*broken, clock);
      if (ask) ask(*broken);
      settleSomehow(*broken, clock);
    };
    if (!mayEnd) return all(), false;
    const pid_t child = ::fork();
    if (child == 0) {
      all();
      ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) && WEXITSTATUS(status) == 1;
  }
  void heal() const {
    const auto healed = machine();
    EXPECT_TRUE(healed->start());
    for (int round = 0; round < 2; ++round) {
      healed->engine().beginSync(true);
      EXPECT_TRUE(healed->settle(clock));
    }
    EXPECT_TRUE(healed->engine().provide(here));
  }

  const OrdinaryUser user;
  const Scratch scratch;
  const std::string there = scratch / "there";
  const std::string here = scratch / "here/storage";
  const bool hasIdentifiers;
  qx::ManualClock& clock = newClock();
};

/// Whether the fault came; not when there are fewer calls.
bool tryWith(const Operation& operation, const std::string& mechanism, Fault fault, int at) {
  const Scene scene(mechanism, operation.hasIdentifiers);
  operation.prepare(scene.here, scene.there);
  bool hasCome = false;
  int calls = 0;
  const auto watch = [&](const char*, bool changes) {
    if (!changes || ++calls < at) return 0;
    hasCome = true;
    if (fault == Fault::kill) ::_exit(1);
    if (fault == Fault::ioOnce && calls > at) return 0;
    return fault == Fault::fullFromThenOn ? ENOSPC : EIO;
  };
  const bool isEnded = scene.work(operation.ask, watch, fault == Fault::kill);
  if (operation.meanwhile) operation.meanwhile(scene.here);
  scene.heal();
  EXPECT_EQ(contents(scene.there), operation.expected);
  EXPECT_EQ(contents(scene.here), operation.expected);
  return hasCome || isEnded;
}

bool triesEach() {
  const char* wanted = std::getenv("DOCSOURCE_FAULTS");
  return wanted && std::string(wanted) == "all";
}

class FaultTest : public testing::TestWithParam<Operation> {};

TEST_P(FaultTest, LosesNothingAndGoesOn) {
  const int stride = triesEach() ? 1 : GetParam().stride;
  for (const std::string mechanism : {"access", "cooperative"}) {
    for (const auto fault :
         {Fault::ioOnce, Fault::ioFromThenOn, Fault::fullFromThenOn, Fault::kill}) {
      int at = 1 + static_cast<int>(fault);
      while (tryWith(GetParam(), mechanism, fault, at) && !HasFailure()) at += stride;
      ASSERT_FALSE(HasFailure()) << mechanism << ", fault " << static_cast<int>(fault)
                                 << " at call " << at;
    }
  }
}

const Operation operations[] = {
    {"BringIn", [](const auto&, const auto&) {},
     [](Machine& machine) { (void)machine.engine().provide(machine.storage + "/d/b").ok(); },
     "first second "},
    {"BringInWhatIsReplacedThen", [](const auto&, const auto&) {},
     [](Machine& machine) { (void)machine.engine().provide(machine.storage + "/d/b").ok(); },
     "a newer second first ", true,
     [](const auto& here) { save(here + "/../../there/d/b", "a newer second"); }, 3},
    {"GiveBack", [](const auto&, const auto&) {},
     [](Machine& machine) { (void)machine.engine().evict(machine.storage + "/a").ok(); },
     "first second "},
    {"Upload",
     [](const auto& here, const auto&) {
       save(here + "/a", "edited");
       fs::create_directories(here + "/n");
       write(here + "/n/c", "new");
     },
     {},
     "edited new second "},
    {"Move",
     [](const auto& here, const auto& there) {
       fs::rename(here + "/d", here + "/e");
       fs::rename(there + "/a", there + "/d/a");
     },
     {},
     "first second "},
    {"RemoveThere",
     [](const auto& here, const auto&) { fs::remove_all(here + "/d"); },
     {},
     "first "},
    {"RemoveHere",
     [](const auto&, const auto& there) {
       fs::remove(there + "/a");
       fs::remove_all(there + "/d");
     },
     {},
     ""},
    {"Refresh",
     [](const auto&, const auto& there) {
       save(there + "/a", "a newer one");
       save(there + "/d/b", "a newer second");
     },
     {},
     "a newer one a newer second "},
    {"Conflict",
     [](const auto& here, const auto& there) {
       save(there + "/a", "theirs");
       save(here + "/a", "ours");
     },
     {},
     "(conflict) ours second theirs "},
    {"MoveOfAnEditedOne",
     [](const auto& here, const auto&) {
       fs::rename(here + "/a", here + "/c");
       write(here + "/c", "edited");
     },
     {},
     "edited second ",
     false},
    {"SaveWithABackupAfterAnUpload",
     [](const auto& here, const auto&) { write(here + "/c", "draft"); },
     {},
     "draft final first second ",
     false,
     [](const auto& here) {
       fs::rename(here + "/c", here + "/c.bak");
       write(here + "/c", "final");
     }},
};

/// A program gives a document permissions before the first, second, … call of an operation, which
/// goes on, or is ended some calls later. Whether there was such a call.
bool tryPermissions(const Operation& operation, const std::string& name,
                    const std::string& mechanism, mode_t before, int at, int endsAfter) {
  constexpr mode_t given = 0751;
  const Scene scene(mechanism, true, before);
  const auto path = scene.here + name;
  operation.prepare(scene.here, scene.there);
  int calls = 0;
  const auto mode = [](const std::string& file) {
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777U;
  };
  const auto watch = [&](const char* call, bool) {
    // A document without permissions to write has them while it is marked or opened: nobody can
    // change permissions only if they still are what they were.
    if (std::string(call) == "chmod" && calls + 1 == at) return 0;
    if (++calls == at) {
      EXPECT_EQ(::chmod(path.c_str(), given), 0);
    }
    if (calls == at + endsAfter) ::_exit(1);
    return 0;
  };
  constexpr int never = 1'000'000;
  const bool isEnded = scene.work(operation.ask, watch, endsAfter != never);
  if (endsAfter == never && calls < at) return false;
  if (endsAfter != never && !isEnded) return false;
  scene.heal();
  EXPECT_EQ(mode(path), given);
  EXPECT_EQ(mode(scene.there + name), given);
  return true;
}

TEST(PermissionTest, KeepsPermissionsThatAreGivenMeanwhile) {
  constexpr int never = 1'000'000;
  const auto changeThere = [](const auto&, const auto& there) {
    for (const auto* name : {"/a", "/d/b"}) {
      struct stat status {};
      ::stat((there + name).c_str(), &status);
      save(there + name, "a newer one");
      ::chmod((there + name).c_str(), status.st_mode & 07777U);
    }
  };
  const auto nothing = [](const auto&, const auto&) {};
  const std::function<void(Machine&)> bringIn = [](Machine& machine) {
    (void)machine.engine().provide(machine.storage + "/d/b").ok();
  };
  const std::function<void(Machine&)> giveBack = [](Machine& machine) {
    (void)machine.engine().evict(machine.storage + "/a").ok();
  };
  struct Case {
    Operation operation;
    std::string name;
    /// Or it becomes one.
    bool isPlaceholder = true;
  };
  const Case cases[] = {
      {{"BringIn", nothing, bringIn, {}}, "/d/b"},
      {{"GiveBack", nothing, giveBack, {}}, "/a"},
      {{"Refresh", changeThere, {}, {}}, "/a"},
      {{"RefreshAPlaceholder", changeThere, {}, {}}, "/d/b"},
      {{"Upload", [](const auto& here, const auto&) { save(here + "/a", "edited"); }, {}, {}},
       "/a",
       false},
  };
  for (const std::string mechanism : {"access", "cooperative"}) {
    for (const auto& [operation, name, isPlaceholder] : cases) {
      // There a placeholder has no permissions, and those that it is given may be lost.
      if (isPlaceholder && mechanism == "cooperative") continue;
      for (const mode_t before : {0644, 0444}) {
        for (const int endsAfter : {never, 1, 5, 20}) {
          const int stride = triesEach() ? 1 : endsAfter == never ? 17 : 67;
          int at = 1;
          while (tryPermissions(operation, name, mechanism, before, at, endsAfter) &&
                 !HasFailure()) {
            at += stride;
          }
          ASSERT_FALSE(HasFailure())
              << operation.name << ", " << mechanism << ", " << std::oct << before << std::dec
              << " at call " << at << ", ended after " << endsAfter;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultTest, testing::ValuesIn(operations),
                         [](const auto& entry) { return entry.param.name; });

}  // namespace
