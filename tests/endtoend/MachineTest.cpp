// A machine with several users and one platformd: what each gets, and what none can do to another.

#include <sched.h>
#include <sys/stat.h>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "platform/sandbox/EncodedPath.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxKey.h"
#include "platform/sandbox/TakenBackExtensions.h"
#include "tests/support/Machine.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const char* const addDocSource = "addDocSource:providedItemsURL:completion:";
const char* const useKeyDirectory = "useKeyDirectory:completion:";

Bytes bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

SharedDescriptor openDirectory(const std::string& path) {
  return std::make_shared<const FileDescriptor>(
      open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/// A token as only the holder of the key can make it, for whatever path.
std::string signedToken(const std::string& path) {
  const auto store = SandboxKeyStore::own();
  const auto key = store->readOrMakeKey();
  const std::string content = "2:" + std::string(sandboxExtensionReadWrite) +
                              ":00:" + std::to_string(bootTimeNow()) + ":" + encodedPath(path);
  return content + ":" + authenticationCode(*key, content);
}

/// What below a directory is not the user's, among daemons that work; what goes meanwhile is
/// nobody's.
std::string notOf(uid_t user, const std::string& directory) {
  std::string others;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator(directory, gone)) {
    struct stat status;
    if (lstat(entry.path().c_str(), &status) != 0) continue;
    if (status.st_uid != user) others += entry.path().string() + " ";
    if (S_ISDIR(status.st_mode)) others += notOf(user, entry.path());
  }
  return others;
}

TEST_F(MachineTest, EachUserReadsTheOwnDocumentsAndNobodyHearsOfAnothers) {
  for (const auto& user : users_) user->start();
  for (const auto& user : users_) {
    const std::string path = user->document("letter");
    if (coordinatesEverybody()) {
      EXPECT_EQ(user->output({"cat", path}), user->content("letter"));
    }
    EXPECT_TRUE(user->reads("diary"));
  }
  // All three have the same provider under the same identifier, and each was asked for its own.
  for (const auto& user : users_) {
    for (const auto& other : users_) {
      if (user == other) continue;
      EXPECT_EQ(user->daemon().count(other->root()), 0U);
      // What nobody is to see is not owned by anybody, whether it is there or not.
      EXPECT_EQ(user->run([&] {
        Wire wire = connectTo(coordinationService);
        for (const auto& path : {other->document("plan"), other->document("no such"),
                                 other->storage(), other->root() + "/nothing"}) {
          const auto read = wire.call(coordinateReading, {URL::fileURL(path)});
          if (read.outcome() != "success") return 1;
        }
        const auto url = URL::fileURL(other->document("plan"));
        return wire.call(finishedWriting, {url}).outcome() == "success" ? 2 : 0;
      }),
                0);
    }
  }
  // The service comes back, and nobody has to do anything; a user goes, and nobody notices.
  mallory().stop();
  EXPECT_EQ(platform_->end(SIGTERM), 0);
  startPlatform();
  EXPECT_TRUE(eventually([&] { return alice().reads("plan"); }));
  // Nothing of root's is in anybody's root.
  for (const auto& user : users_) {
    EXPECT_EQ(notOf(user->number(), user->root()), "");
  }
}

TEST_F(MachineTest, NobodyHostsTheDirectoryOfAnother) {
  alice().start();
  const std::string bait = mallory().root() + "/bait";
  EXPECT_EQ(mallory().run([&] {
    fs::create_directories(bait);
    fs::create_directory_symlink(alice().storage(), mallory().root() + "/link");
    fs::create_directory_symlink("/root", mallory().root() + "/roots");
    Wire wire = connectTo(coordinationService);
    const auto add = [&](const char* name, const std::string& path) {
      return wire.call(addDocSource, {name, URL::fileURL(path, true)}).outcome();
    };
    for (const auto& path :
         {alice().storage(), alice().root(), mallory().root() + "/link",
          mallory().root() + "/roots", mallory().root() + "/link/..", std::string("/"),
          std::string("/tmp"), std::string("/root"), std::string("/proc/self/cwd")}) {
      if (add("com.example.provider", path) == "success") return 1;
    }
    // The own directory, under an identifier that another user has.
    if (add("com.example.provider", bait) != "success") return 2;
    // It changes hands behind the service's back: it becomes a link to another's.
    fs::rename(bait, bait + ".old");
    fs::create_directory_symlink(alice().storage(), bait);
    return wire.call("removeDocSource:completion:", {"com.example.provider"}).outcome() == "success"
               ? 0
               : 3;
  }),
            0);
  EXPECT_TRUE(alice().reads("letter"));
  EXPECT_EQ(platform_->count("user " + std::to_string(mallory().number())), 1U)
      << "one doc source was ever coordinated for the other user";
}

/// Lets others reach what is in a user's storage.
void openTheWayTo(const MachineUser& user) {
  for (fs::path path = user.storage(); path.string().size() >= user.root().size();
       path = path.parent_path()) {
    fs::permissions(path, fs::perms(0755));
  }
}

TEST_F(MachineTest, NobodyGainsBySetUserIDProgramsOrSharedDirectories) {
  alice().start();
  mallory().start();
  openTheWayTo(alice());
  openTheWayTo(mallory());
  const std::string plan = alice().document("plan"), program = machine_ / "set-uid";
  chmod(plan.c_str(), 0600);
  fs::copy_file("/bin/cat", program);
  chmod(program.c_str(), 04755);
  // The process that connected executes a program of root's; its child has the socket.
  EXPECT_EQ(mallory().run([&] {
    Wire wire = connectTo(coordinationService);
    const auto succeeds = [&](const char* operation) {
      return wire.call(operation, {URL::fileURL(plan)}).outcome() == "success";
    };
    if (succeeds(coordinateReading) || succeeds(finishedWriting)) return 1;
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) return 2;
    const pid_t process = getpid();
    if (fork() == 0) {
      close(ends[0]);
      const bool isRoot = eventually([&] {
        struct stat status;
        const std::string directory = "/proc/" + std::to_string(process);
        return stat(directory.c_str(), &status) == 0 && status.st_uid == 0;
      });
      std::ofstream(mallory().root() + "/found")
          << isRoot << succeeds(coordinateReading) << succeeds(finishedWriting) << std::endl;
      _exit(0);
    }
    close(ends[1]);
    dup2(ends[0], STDIN_FILENO);  // until the child has ended
    execl(program.c_str(), program.c_str(), nullptr);
    return 3;
  }),
            0);
  EXPECT_EQ(*FileManager::readFile(mallory().root() + "/found"), "100\n");

  // In a tree of one user's there is a directory of another's.
  const std::string theirs = mallory().storage() + "/alice's";
  fs::create_directory(theirs);
  alice().give(theirs);
  chmod(theirs.c_str(), 0700);
  EXPECT_EQ(alice().run([&] {
    Wire wire = connectTo(coordinationService);
    for (const char* operation : {coordinateReading, finishedWriting}) {
      std::ofstream(theirs + "/secret") << "alice's";
      if (wire.call(operation, {URL::fileURL(theirs + "/secret")}).outcome() != "success") return 1;
    }
    // What is mallory's is asked for, and after that nothing else is on its way.
    const auto url = URL::fileURL(mallory().document("letter"));
    return wire.call(coordinateReading, {url}).outcome() == "success" ? 0 : 2;
  }),
            0);
  EXPECT_TRUE(mallory().daemon().logs("/letter"));
  EXPECT_EQ(mallory().daemon().count("/secret"), 0U);
}

TEST_F(MachineTest, APlaceholderInAnothersTreeIsReadWhenItIsBackAndNeverAsZeros) {
  if (!coordinatesEverybody()) GTEST_SKIP() << "needs CAP_SYS_ADMIN, to keep readers waiting";
  alice().start();
  mallory().start();
  openTheWayTo(mallory());
  fs::permissions(mallory().storage(), fs::perms(0777));
  const std::string here = alice().document("plan"), there = mallory().document("alice's");
  fs::rename(here, there);
  ChildProcess reader(asUser(alice().number(), {"cat", there}));
  EXPECT_TRUE(eventually([&] {
    const auto place = FileManager::readFile("/proc/" + std::to_string(reader.id()) + "/wchan");
    return place && place->starts_with("fanotify");
  }));
  fs::rename(there, here);
  EXPECT_EQ(reader.readLine() + "\n", alice().content("plan"));
  EXPECT_EQ(mallory().daemon().count("alice's"), 0U);
}

TEST_F(MachineTest, AKeyOpensWhatItsUserMayOpenAndNothingElse) {
  alice().start();
  mallory().start();
  const std::string shared = machine_ / "shared", secret = machine_ / "root's";
  std::ofstream(shared) << "for everybody";
  std::ofstream(secret) << "root's";
  chmod(secret.c_str(), 0600);
  chmod(shared.c_str(), 0644);
  const std::string token = alice().root() + "/token";
  ASSERT_EQ(alice().run([&] {
    std::ofstream(token) << SandboxIssueFileExtension(sandboxExtensionRead,
                                                      alice().root() + "/Origin/letter", 0)
                                .value_or("none");
    Wire wire = connectTo(sandboxService);
    const auto text = FileManager::readFile(token);
    const auto redeemed = wire.call(consumeExtension, {bytesOf(*text)});
    return redeemed.at<SharedDescriptor>(1) ? 0 : 1;
  }),
            0);
  const auto stolen = *FileManager::readFile(token);
  EXPECT_EQ(mallory().run([&] {
    Wire wire = connectTo(sandboxService);
    const auto opens = [&](const std::string& text) {
      return wire.call(consumeExtension, {bytesOf(text)}).at<SharedDescriptor>(1) != nullptr;
    };
    const std::string own = mallory().root() + "/own";
    std::ofstream(own) << "mine";
    if (!opens(signedToken(own))) return 1;
    // Signed with the own key for what the user cannot open, and what it can only read.
    for (const auto& path : {secret, shared, alice().root() + "/Origin/letter",
                             std::string("/etc/shadow"), std::string("/etc/passwd")}) {
      if (opens(signedToken(path))) return 2;
    }
    // A good one of another user's, and one whose file is exchanged for a link.
    if (opens(stolen)) return 3;
    const auto exchanged = signedToken(own);
    fs::rename(own, own + ".old");
    fs::create_symlink(secret, own);
    if (opens(exchanged)) return 4;
    // The directory of a key is one's own.
    const auto use = [&](const std::string& path) {
      return wire.call(useKeyDirectory, {openDirectory(path)}).outcome() == "success";
    };
    if (use("/tmp") || use("/root") || use(machine_.path())) return 5;
    return use(mallory().root() + "/run") ? 0 : 6;
  }),
            0);
  // Root's own redeem nothing by a user's key either.
  EXPECT_EQ(inChild([&] {
              ::setenv("DOCSOURCE_MACHINE", machine_.path().c_str(), 1);
              ::setenv("DOCSOURCE_ROOT", machine_.path().c_str(), 1);
              Wire wire = connectTo(sandboxService);
              return wire.call(consumeExtension, {bytesOf(stolen)}).at<SharedDescriptor>(1) ? 1 : 0;
            }),
            0);
}

TEST_F(MachineTest, WhatRootRunsIsRootsAlone) {
  // A daemon that root runs serves root.
  const std::string root = machine_ / "roots-root";
  Daemon daemon("docsourced", root, {{"DOCSOURCE_MACHINE", machine_.path()}});
  ASSERT_TRUE(eventually([&] { return fs::exists(root + "/run/com.veltro.DocSource"); }));
  EXPECT_NE(mallory().output({"test", "-e", root + "/run/com.veltro.DocSource"}), "");
  EXPECT_NE(
      mallory().output({"env", "DOCSOURCE_ROOT=" + root, builtProgram("docsource"), "providers"}),
      "");

  // A platformd of root's in a user's root, before anything else is there: it works for that user.
  const std::string theirs = machine_ / "theirs";
  fs::create_directory(theirs);
  alice().give(theirs);
  Daemon platform("platformd", theirs);
  ASSERT_TRUE(eventually([&] { return fs::exists(theirs + "/run/com.veltro.Sandbox"); }));
  Daemon broker("docsourced", theirs, {}, alice().number());
  ASSERT_TRUE(broker.logs("[INFO] Server starting."));
  ASSERT_TRUE(eventually([&] { return fs::exists(theirs + "/run/com.veltro.DocSource"); }));
  EXPECT_EQ(notOf(alice().number(), theirs), "");
}

TEST_F(MachineTest, ASandboxedApplicationLeavesRoomForItsUser) {
  alice().start();
  auto ends = socketPair();
  FileDescriptor here = std::move(ends.first), there = std::move(ends.second);
  const pid_t application = fork();
  if (application == 0) {
    here.reset();
    _exit(alice().run([&] {
      std::vector<Wire> held;
      char state = unshare(CLONE_NEWUSER) == 0 ? 'y' : 'n';
      const auto isServed = [&] {
        held.push_back(connectTo(coordinationService));
        return held.back().call(coordinateReading, {URL::fileURL("/")}).outcome() == "success";
      };
      raiseDescriptorLimit();
      while (state == 'y' && isServed()) {
      }
      const bool isTold = write(there.get(), &state, 1) == 1;
      return isTold && read(there.get(), &state, 1) == 0 ? 0 : 1;
    }));
  }
  ASSERT_GT(application, 0);
  there.reset();
  char state = 0;
  ASSERT_EQ(read(here.get(), &state, 1), 1);
  EXPECT_TRUE(state == 'n' || alice().reads("letter"));
  here.reset();
  int status = 0;
  ASSERT_EQ(waitpid(application, &status, 0), application);
  EXPECT_EQ(status, 0);
  if (state == 'n') GTEST_SKIP() << "needs a user namespace";
}

TEST_F(MachineTest, WhatRootLocksIsLockedForAll) {
  for (const bool lock : {true, false}) {
    ChildProcess root({"env", "DOCSOURCE_MACHINE=" + machine_.path(),
                       "DOCSOURCE_ROOT=" + (machine_ / "roots-root"), "sh", "-c",
                       "umask 077 && exec \"$@\" > /dev/null", "sh", builtProgram("docsource"),
                       "device", lock ? "lock" : "unlock"});
    ASSERT_EQ(root.wait(), 0);
    const auto seen = alice().output({"env", "DOCSOURCE_MACHINE=" + machine_.path(),
                                      "DOCSOURCE_ROOT=" + alice().root(), builtProgram("docsource"),
                                      "device", "status"});
    EXPECT_TRUE(seen.starts_with(lock ? "locked (lock state 0), unlocked since boot\n"
                                      : "unlocked (lock state 3), unlocked since boot\n"))
        << seen;
  }
}

}  // namespace
}  // namespace qx::test
