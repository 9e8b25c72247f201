// Trees stay guarded, whatever becomes of their doc sources and of the names in them, and at nobody
// else's cost.

#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <set>

#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/KernelCoordinator.h"
#include "platform/queue/Clock.h"
#include "tests/kernel/Fixture.h"
#include "tests/support/InChild.h"

namespace {

using namespace qx::test;
using qx::Error;
using qx::FileDescriptor;

class GuardTest : public KernelTest {
 protected:
  void restart() {
    EXPECT_EQ(platformd_->end(SIGTERM), 0);
    start();
  }
  /// Whether it waits for the platform: in state D of proc(5), as long as nobody answers.
  static bool isHeldBack(const ChildProcess& reader) {
    return readAll("/proc/" + std::to_string(reader.id()) + "/wchan") == "fanotify_handle_event";
  }
  static std::ptrdiff_t descriptorsOf(pid_t process) {
    return std::distance(fs::directory_iterator("/proc/" + std::to_string(process) + "/fd"), {});
  }
};

TEST_P(GuardTest, WhatWasAddedOnceIsGuardedWhoeverIsThere) {
  fs::create_directories(item("below"));
  makePlaceholder(item("below/removed"), 5000);
  makePlaceholder(item("moved"), 5000, Mark::named);
  fs::create_directories(item("wandering"));
  makePlaceholder(item("wandering/document"), 5000, Mark::named);
  makePlaceholder(item("unlinked"), 5000, Mark::named);
  const auto source = add();
  const std::string outside = temporaryRoot() + "/outside";
  fs::create_directories(outside);
  fs::rename(item("moved"), outside + "/moved");
  fs::rename(item("wandering"), outside + "/wandering");
  fs::create_hard_link(item("unlinked"), outside + "/link");
  fs::remove(item("unlinked"));
  const auto isRemembered = [] {
    const std::string list = readAll(temporaryRoot() + "/State/guarded");
    std::size_t moved = 0;
    for (auto at = list.find("moved "); at != list.npos; at = list.find("moved ", at + 1)) ++moved;
    return moved == 3;
  };
  EXPECT_TRUE(eventually(isRemembered));
  QXFileCoordinator::_removeDocSource(source);
  ASSERT_TRUE(platformd_->logs("Doc source com.example.source was removed"));
  restart();
  // Nobody is there to provide anything, so all of them wait.
  ChildProcess removed(reader("read", item("below/removed")));
  ChildProcess moved(reader("mmap", outside + "/moved"));
  ChildProcess wandering(reader("read", outside + "/wandering/document"));
  ChildProcess linked(reader("read", outside + "/link"));
  for (const auto* each : {&removed, &moved, &wandering, &linked}) {
    EXPECT_TRUE(eventually([&] { return isHeldBack(*each); }));
  }
  // They come back to where somebody is.
  add("com.example.next");
  EXPECT_EQ(removed.readLine(), "right");
  fs::rename(outside + "/moved", item("moved"));
  EXPECT_EQ(moved.readLine(), "right");
  fs::rename(outside + "/wandering", item("wandering"));
  EXPECT_EQ(wandering.readLine(), "right");
  fs::rename(outside + "/link", item("link"));
  EXPECT_NE(linked.readLine().find("zeros"), 0u);

  // A tree without placeholders is forgotten when nobody claims it.
  QXFileCoordinator::_removeDocSource(sources_.back());
  EXPECT_TRUE(eventually([] {
    return readAll(temporaryRoot() + "/State/guarded").find("tree ") == std::string::npos;
  }));
}

TEST_P(GuardTest, TheKernelMayForgetWhatIsGuarded) {
  if (access("/proc/sys/vm/drop_caches", W_OK) != 0) GTEST_SKIP() << "the kernel cannot be told to";
  constexpr std::size_t kept = 30;
  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  start({{"DOCSOURCE_KEPT_PLACEHOLDERS", std::to_string(kept)}});
  const auto name = [](std::size_t number) { return "document-" + std::to_string(number); };
  for (std::size_t i = 0; i < 2 * kept; ++i) makePlaceholder(item(name(i)), 5000, Mark::named);
  add();
  // The inodes that have marks.
  const auto marked = [&] {
    std::set<ino_t> inodes;
    const std::string process = "/proc/" + std::to_string(platformd_->id());
    for (const auto& each : fs::directory_iterator(process + "/fdinfo")) {
      std::ifstream lines(each.path());
      for (std::string line; std::getline(lines, line);) {
        if (ino_t inode = 0; sscanf(line.c_str(), "fanotify ino:%lx", &inode) == 1) {
          inodes.insert(inode);
        }
      }
    }
    return inodes;
  };
  ASSERT_EQ(marked().size(), 2 * kept + 1);
  const FileDescriptor directory(open(items().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(syncfs(directory.get()), 0);
  ASSERT_TRUE(eventually([&] {
    std::ofstream("/proc/sys/vm/drop_caches") << 3;
    return marked().size() <= 2 * kept - 3;
  }));
  const auto left = marked();
  EXPECT_GE(left.size(), kept);
  std::vector<std::string> forgotten;
  for (const auto& each : fs::directory_iterator(items())) {
    struct stat status {};
    stat(each.path().c_str(), &status);
    if (!left.contains(status.st_ino)) forgotten.push_back(each.path().filename());
  }
  ASSERT_GE(forgotten.size(), 3u);
  const std::string outside = temporaryRoot() + "/outside", &linked = forgotten[1],
                    &moved = forgotten[2];
  fs::create_directories(outside);
  const auto isMarked = [&](const std::string& document) {
    struct stat status {};
    stat((outside + "/" + document).c_str(), &status);
    return eventually([&] { return marked().contains(status.st_ino); });
  };
  // By their own names, by another one, and away.
  EXPECT_EQ(run(reader("read", item(forgotten[0]))).line, "right");
  fs::create_hard_link(item(linked), outside + "/" + linked);
  EXPECT_TRUE(isMarked(linked));
  EXPECT_EQ(run(reader("read", outside + "/" + linked)).line, "right");
  fs::rename(item(moved), outside + "/" + moved);
  EXPECT_TRUE(isMarked(moved));
  ChildProcess waiting(reader("read", outside + "/" + moved));
  EXPECT_TRUE(eventually([&] { return isHeldBack(waiting); }));
  fs::rename(outside + "/" + moved, item(moved));
  EXPECT_EQ(waiting.readLine(), "right");
}

TEST_P(GuardTest, NoToolMakesAPlaceholderOfContent) {
  fs::create_directories(item("from"));
  const auto source = add();
  const std::string archive = temporaryRoot() + "/archive.tar";
  for (const auto kind : {Mark::named, Mark::plain}) {
    const std::string name = kind == Mark::named ? "named" : "plain";
    makePlaceholder(item("from/" + name), 20000, kind);
    // The archive has the mark of the placeholder, and its content.
    EXPECT_EQ(shell("cd " + items() + "/from && tar --xattrs --xattrs-include='*' -cf " + archive +
                    " " + name +
                    " && mkdir -p ../restored && cd ../restored && tar --xattrs "
                    "--xattrs-include='*' -xf " +
                    archive)
                  .status,
              0);
    makePlaceholder(item("from/" + name), 20000, kind);
    EXPECT_EQ(shell("cp -a " + item("from/" + name) + " " + item("copied")).status, 0);
    makePlaceholder(item("from/" + name), 20000, kind);
    // It says so (23) when the mark goes while it lists the attributes.
    EXPECT_EQ(shell("rsync -aX " + item("from/" + name) + " " + item("synced") + " || test $? = 23")
                  .status,
              0);
    source->provides.take();
    for (const char* copy : {"copied", "synced", "restored/"}) {
      const std::string path = item(copy) + (copy[std::strlen(copy) - 1] == '/' ? name : "");
      EXPECT_TRUE(readAll(path) == contentOf(name, 20000)) << path;
      EXPECT_EQ(run({"cat", path}).line, contentOf(name, 20000)) << path;
      fs::remove(path);
    }
    EXPECT_TRUE(source->provides.all().empty());
  }
  // A directory takes its placeholders along; an inode's next life is not bound by its last.
  makePlaceholder(item("from/named"), 3000, Mark::named);
  fs::rename(item("from"), item("to"));
  EXPECT_EQ(run(reader("read", item("to/named"))).line, "right");
  EXPECT_EQ(source->provides.take(), std::vector<std::string>{item("to/named")});
  makePlaceholder(item("old"), 3000, Mark::named);
  std::array<char, 200> value{};
  const auto size = getxattr(item("old").c_str(), "user.docsource.placeholder", value.data(), 200);
  ASSERT_GT(size, 0);
  fs::remove(item("old"));
  std::ofstream(item("new")) << "new\n";
  setxattr(item("new").c_str(), "user.docsource.placeholder", value.data(), std::size_t(size), 0);
  EXPECT_EQ(run({"cat", item("new")}).line, "new");
}

TEST_P(GuardTest, ProgramsThatSkipHolesGetTheWholeFileAndIndexersNothing) {
  const std::string config = temporaryRoot() + "/config";
  fs::create_directories(config + "/docsource");
  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  start({{"XDG_CONFIG_HOME", config}});
  const auto source = add();
  for (const char* archive : {"tar -S -cf -", "tar -cf -", "bsdtar -cf -"}) {
    if (shell("command -v " + std::string(archive).substr(0, std::string(archive).find(' ')))
            .line.empty()) {
      std::printf("skipped: %s is not installed\n", archive);
      continue;
    }
    makePlaceholder(item("archived"), 3 << 20, Mark::named);
    const std::string copied = temporaryRoot() + "/unpacked";
    EXPECT_EQ(
        shell("cd " + items() + " && " + archive + " archived | tar xOf - > " + copied).status, 0);
    EXPECT_TRUE(readAll(copied) == contentOf("archived", 3 << 20)) << archive;
  }
  makePlaceholder(item("indexed"), 5000, Mark::named);
  std::ofstream(config + "/docsource/programs.conf") << "# mine\nnever-provide head\n";
  EXPECT_TRUE(platformd_->logs("[INFO] Read " + config + "/docsource/programs.conf."));
  source->provides.take();
  EXPECT_EQ(shell("head -c 1 " + item("indexed") + " 2>&1 | grep -c 'not permitted'").line, "1");
  EXPECT_TRUE(source->provides.all().empty());
  EXPECT_EQ(run(reader("read", item("indexed"))).line, "right");
}

TEST_P(GuardTest, AUserWhoWaitsWithVeryManyThreadsHoldsUpNobodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to be several users";
  chmod(temporaryRoot().c_str(), 0755);
  const auto source = add();
  makePlaceholder(item("slow"), 5000, Mark::named);
  source->behave([](const std::string& path, qx::Completion<Error> completion) {
    if (path.ends_with("slow")) return;
    fill(path);
    completion(std::nullopt);
  });
  const std::string program = temporaryRoot() + "/kernel-tests";
  fs::copy_file(ownProgram(), program);
  const auto readsQuick = [&](uid_t user) {
    makePlaceholder(item("quick"), 5000, Mark::named);
    return run(asUser(user, {program, "read", item("quick")})).line;
  };
  // What a user was charged for a document is the user's again.
  fs::create_directories(item("many"));
  for (std::size_t i = 0; i <= qx::kernel::Charges::bound; ++i) {
    makePlaceholder(item("many/" + std::to_string(i)), 100, Mark::named);
  }
  EXPECT_EQ(run(asUser(4001, {program, "each", item("many")})).line, "right");
  const auto holderBefore = descriptorsOf(platformd_->id());
  const auto workerBefore = descriptorsOf(worker());
  constexpr int processes = 15;
  constexpr int threads = 100;
  static_assert(processes * threads > int(qx::kernel::Charges::bound));
  std::vector<std::unique_ptr<ChildProcess>> storm;
  for (int i = 0; i < processes; ++i) {
    storm.push_back(std::make_unique<ChildProcess>(
        asUser(4001, {program, "storm-" + std::to_string(threads), item("slow")})));
  }
  for (auto& each : storm) EXPECT_EQ(each->readLine(), "waiting");
  EXPECT_TRUE(eventually([&] {
    return descriptorsOf(platformd_->id()) >= holderBefore + int(qx::kernel::Charges::bound) - 1;
  }));
  // Of the document the worker has one descriptor, and of each process one.
  EXPECT_LE(descriptorsOf(worker()), workerBefore + processes + 10);
  EXPECT_EQ(readsQuick(4002), "right");
  // Past the bound others of that user are told at once.
  EXPECT_EQ(readsQuick(4001), "Resource temporarily unavailable");
  EXPECT_EQ(run(asUser(4002, {program, "read", item("quick")})).line, "right");
  // Who is killed is let go of, although the provider has said nothing.
  for (auto& each : storm) each->end();
  EXPECT_TRUE(eventually([&] {
    return descriptorsOf(platformd_->id()) <= holderBefore + 4 &&
           descriptorsOf(worker()) <= workerBefore + 4;
  }));
  EXPECT_EQ(readsQuick(4001), "right");
  EXPECT_EQ(source->provideCount(item("slow")), 1u);
}

TEST_P(GuardTest, WhenEventsAreLostEverythingIsLookedAtAgain) {
  const auto source = add();
  const pid_t stopped = worker();
  ASSERT_EQ(kill(stopped, SIGSTOP), 0);
  // More than the kernel keeps (fanotify(7), max_queued_events), by a way that opens nothing.
  for (int i = 0; i < 17000; ++i) symlink("nowhere", item("link" + std::to_string(i)).c_str());
  fs::create_directories(temporaryRoot() + "/made");
  makePlaceholder(temporaryRoot() + "/made/unheard", 5000);
  fs::rename(temporaryRoot() + "/made", item("made"));
  ASSERT_EQ(kill(stopped, SIGCONT), 0);
  ASSERT_TRUE(platformd_->logs("Changes of files were lost; looking at everything again"));
  ASSERT_TRUE(platformd_->logs("[INFO] Looked at " + items() + " again."));
  EXPECT_EQ(run(reader("read", item("made/unheard"))).line, "right");
}

IN_BOTH_WAYS(GuardTest);

/// The part of the holder that a test needs, and a worker in the test's own process, so that its
/// clock can be moved.
class PatienceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = reasonNotToWatch("access")) GTEST_SKIP() << *reason;
    static auto& clock = *new qx::ManualClock;
    clock_ = &clock;
    qx::Clock::setCurrent(clock);
    temporaryRoot();
    fs::create_directories(documents());
  }
  static std::string documents() { return temporaryRoot() + "/Documents"; }

  qx::ManualClock* clock_ = nullptr;
};

TEST_F(PatienceTest, WhoWaitsForNobodyIsLetGoAfterThirtySeconds) {
  auto accesses = qx::kernel::AccessGroup::create();
  auto changes = qx::kernel::ChangeGroup::create();
  ASSERT_TRUE(accesses.ok() && changes.ok());
  auto channel = qx::kernel::EventChannel::pair();
  auto& ours = channel.first;
  auto& theirs = channel.second;
  const auto coordinator = std::make_shared<qx::kernel::KernelCoordinator>(
      std::make_shared<DocSourceRegistry>(), std::move(theirs),
      qx::kernel::AccessGroup(FileDescriptor(fcntl(accesses->descriptor(), F_DUPFD_CLOEXEC, 0))),
      *std::move(changes), qx::kernel::preAccess, qx::kernel::GuardList({}));
  const std::string path = documents() + "/document";
  makePlaceholder(path, 5000, Mark::named);
  // The tree is on nobody's list: the file's own mark has the kernel ask.
  const FileDescriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
  ASSERT_EQ(accesses->watchFile(file.get(), qx::kernel::preAccess), 0);
  coordinator->start([] {});
  ChildProcess waiting(reader("read", path));
  std::vector<qx::kernel::AccessEvent> events;
  ASSERT_TRUE(eventually([&] {
    events = accesses->read();
    return !events.empty();
  }));
  const int number = events.front().file.get();
  ours.send(
      {qx::kernel::Message::Kind::event, number, events.front().process, 0, events.front().mask},
      number, true);
  clock_->waitForActionIn(std::chrono::seconds(30));
  clock_->advance(std::chrono::seconds(29));
  qx::kernel::EventChannel::Received received;
  const auto nextAnswer = [&] {
    while (ours.receive(received) == qx::kernel::EventChannel::State::message) {
      if (received.message.kind == qx::kernel::Message::Kind::answer) return true;
    }
    return false;
  };
  EXPECT_FALSE(nextAnswer());
  clock_->advance(std::chrono::seconds(1));
  ASSERT_TRUE(eventually(nextAnswer));
  EXPECT_EQ(received.message.number, number);
  EXPECT_EQ(received.message.errnum, EAGAIN);
  events.clear();
  accesses->answer(number, EAGAIN);
  EXPECT_EQ(waiting.readLine(), "Resource temporarily unavailable");
}

/// A user's directory that another process of that user exchanges for a link all the time.
class LinkSwapTest : public testing::Test {};

TEST_F(LinkSwapTest, WhatIsDoneToPlaceholdersReachesNothingThroughLinks) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to be attacked as root";
  if (const auto reason = reasonNotToWatch("open")) GTEST_SKIP() << *reason;
  constexpr uid_t attacker = 4001;
  TemporaryDirectory place;
  chmod(place.path().c_str(), 0755);
  fs::create_directories(place / "secrets");
  const std::string victim = place / "secrets/document";
  std::ofstream(victim) << "secret";
  chmod(victim.c_str(), 0600);
  ASSERT_EQ(chown(victim.c_str(), 0, 0), 0);
  fs::create_directories(place / "tree/directory");
  makePlaceholder(place / "tree/directory/document", 5000, Mark::named);
  // What an earlier service took its modes from.
  setxattr((place / "tree/directory/document").c_str(), "user.docsource.concealed-mode", "438", 3,
           0);
  for (const char* name : {"tree", "tree/directory", "tree/directory/document"}) {
    ASSERT_EQ(chown((place / name).c_str(), attacker, attacker), 0);
  }
  const pid_t swapping = fork();
  if (swapping == 0) {
    if (setgid(attacker) != 0 || setuid(attacker) != 0 || chdir((place / "tree").c_str()) != 0 ||
        symlink("../secrets", "link") != 0) {
      _exit(1);
    }
    for (;;) syscall(SYS_renameat2, AT_FDCWD, "directory", AT_FDCWD, "link", 2 /* EXCHANGE */);
  }
  ASSERT_TRUE(eventually([&] { return fs::is_symlink(place / "tree/directory"); }));
  const auto accesses = qx::kernel::AccessGroup::create();
  const auto changes = qx::kernel::ChangeGroup::create();
  // Lets everybody through, itself among them, and counts who gets at the secret.
  struct stat secret {};
  ASSERT_EQ(stat(victim.c_str(), &secret), 0);
  std::size_t seen = 0;
  const FileDescriptor stop(eventfd(0, EFD_CLOEXEC));
  std::thread holder([&] {
    for (;;) {
      std::array<pollfd, 2> entries{{{accesses->descriptor(), POLLIN, 0}, {stop.get(), POLLIN, 0}}};
      poll(entries.data(), entries.size(), -1);
      for (auto& event : accesses->read()) {
        struct stat status {};
        if (fstat(event.file.get(), &status) == 0 && status.st_ino == secret.st_ino) ++seen;
        const int number = event.file.get();
        event.file.reset();
        accesses->answer(number, 0);
      }
      if (entries[1].revents != 0) return;
    }
  });
  std::size_t concealed = 0;
  for (int round = 0; round < 300; ++round) {
    qx::kernel::GuardedTrees trees(*accesses, *changes, qx::kernel::openPermission,
                                   qx::kernel::GuardList({}));
    trees.claim(attacker, place / "tree");
    concealed += trees.conceal();
    struct stat status {};
    EXPECT_EQ(stat(victim.c_str(), &status), 0);
    std::array<char, 512> names{};
    const bool isUntouched = (status.st_mode & 07777U) == 0600u &&
                             listxattr(victim.c_str(), names.data(), names.size()) == 0;
    EXPECT_TRUE(isUntouched) << "in round " << round;
    if (!isUntouched) break;
  }
  kill(swapping, SIGKILL);
  waitpid(swapping, nullptr, 0);
  EXPECT_GT(concealed, 0u);  // it did come to the placeholder at times
  EXPECT_EQ(run({"cat", victim}).line, "secret");
  // Nor is a tree anybody's but its owner's.
  qx::kernel::GuardedTrees trees(*accesses, *changes, qx::kernel::openPermission,
                                 qx::kernel::GuardList({}));
  EXPECT_EQ(trees.claim(attacker, place / "secrets").errnum, EACCES);
  eventfd_write(stop.get(), 1);
  holder.join();
  EXPECT_EQ(seen, 0u);  // no mark on it
}

}  // namespace
