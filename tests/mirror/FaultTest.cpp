// Each operation with its first, second, … call failing, once and from then on, and ending the
// process there, until it succeeds. DOCSOURCE_FAULTS=all takes every call; otherwise some are left
// out.

#include <gtest/gtest.h>
#include <sys/wait.h>

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

/// Whether the fault came; not when there are fewer calls.
bool tryWith(const Operation& operation, const std::string& mechanism, Fault fault, int at) {
  const OrdinaryUser user;
  const Scratch scratch;
  auto& clock = newClock();
  qx::Clock::setCurrent(clock);
  coordinate(scratch / "", mechanism);
  const auto there = scratch / "there";
  fs::create_directories(there + "/d");
  write(there + "/a", "first");
  write(there + "/d/b", "second");
  const auto machine = [&] {
    auto remote = std::make_unique<UnreliableRemote>(makeFolderRemote(there));
    remote->hasIdentifiers = operation.hasIdentifiers;
    return std::make_unique<Machine>(scratch / "here", std::move(remote));
  };
  const auto storage = machine()->storage;
  {
    const auto before = machine();
    EXPECT_TRUE(before->start());
    EXPECT_TRUE(before->settle(clock));
    EXPECT_TRUE(before->engine().provide(storage + "/a"));
    EXPECT_TRUE(before->settle(clock));
  }
  operation.prepare(storage, there);
  bool hasCome = false;
  const auto work = [&] {
    int calls = 0;
    const WatchedCalls watched([&](const char*, bool changes) {
      if (!changes || ++calls < at) return 0;
      hasCome = true;
      if (fault == Fault::kill) ::_exit(1);
      if (fault == Fault::ioOnce && calls > at) return 0;
      return fault == Fault::fullFromThenOn ? ENOSPC : EIO;
    });
    const auto broken = machine();
    if (!broken->start()) return;
    settleSomehow(*broken, clock);
    if (operation.ask) operation.ask(*broken);
    settleSomehow(*broken, clock);
  };
  if (fault == Fault::kill) {
    const pid_t child = ::fork();
    if (child == 0) {
      work();
      ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    hasCome = WIFEXITED(status) && WEXITSTATUS(status) == 1;
  } else {
    work();
  }
  if (operation.meanwhile) operation.meanwhile(storage);
  const auto healed = machine();
  EXPECT_TRUE(healed->start());
  for (int round = 0; round < 2; ++round) {
    healed->engine().beginSync(true);
    EXPECT_TRUE(healed->settle(clock));
  }
  EXPECT_TRUE(healed->engine().provide(storage));
  EXPECT_EQ(contents(there), operation.expected);
  EXPECT_EQ(contents(storage), operation.expected);
  return hasCome;
}

class FaultTest : public testing::TestWithParam<Operation> {};

TEST_P(FaultTest, LosesNothingAndGoesOn) {
  const char* wanted = std::getenv("DOCSOURCE_FAULTS");
  const int stride = wanted && std::string(wanted) == "all" ? 1 : 23;
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

INSTANTIATE_TEST_SUITE_P(Operations, FaultTest, testing::ValuesIn(operations),
                         [](const auto& entry) { return entry.param.name; });

}  // namespace
