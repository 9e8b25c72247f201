// Nobody reads zeros, whatever becomes of the processes that watch.

#include <sys/un.h>

#include <cstdio>
#include <random>

#include "tests/kernel/Fixture.h"
#include "tests/support/CountedCalls.h"
#include "tests/support/RawPeer.h"

namespace {

using namespace qx::test;
using qx::Error;
using qx::FileDescriptor;

class ContinuityTest : public KernelTest {};

int rounds() {
  const char* wanted = std::getenv("DOCSOURCE_KILL_ROUNDS");
  return wanted ? std::atoi(wanted) : 3;
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : ~mode_t{0};
}

TEST_P(ContinuityTest, EveryByteIsRightWhileWorkersAreKilled) {
  constexpr int placeholders = 200;
  for (int i = 0; i < placeholders; ++i) makePlaceholder(item(std::to_string(i)), 5000 + i);
  const auto source = add();
  // When, is not left to the pace of the readers alone.
  std::mt19937 random(std::random_device{}());
  int killed = 0;
  for (int round = 0; round < rounds(); ++round) {
    for (int i = 0; i < placeholders; ++i) makePlaceholder(item(std::to_string(i)), 5000 + i);
    source->provides.take();
    std::vector<std::unique_ptr<ChildProcess>> readers;
    for (int i = 0; i < 8; ++i) {
      readers.push_back(std::make_unique<ChildProcess>(reader("each", items())));
    }
    // Whenever so many more have been provided, or never in this round.
    for (std::size_t next = random() % 60; next < placeholders; next += 1 + random() % 60) {
      if (!source->provides.waitForCount(next)) break;
      if (const pid_t id = worker(); id > 0 && kill(id, SIGKILL) == 0) ++killed;
    }
    for (auto& each : readers) ASSERT_EQ(each->readLine(), "right") << "in round " << round;
  }
  EXPECT_GT(killed, rounds());
  std::printf("%d workers were killed in %d rounds\n", killed, rounds());
}

TEST_P(ContinuityTest, NothingIsSaidToBeWatchedBeforeItIs) {
  constexpr int directories = 2000;
  for (int i = 0; i < directories; ++i) fs::create_directories(item(std::to_string(i)));
  makePlaceholder(item("1/placeholder"), 5000);
  add();
  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  platformd_.emplace("platformd", temporaryRoot(),
                     std::map<std::string, std::string>{{"DOCSOURCE_COORDINATION", GetParam()}});
  // What is made where nothing is watched yet would be read as zeros.
  const std::string announcement = temporaryRoot() + "/run/coordination";
  while (!fs::exists(announcement))
    ASSERT_TRUE(platformd_->id() > 0 && kill(platformd_->id(), 0) == 0);
  const pid_t serving = worker();
  ASSERT_TRUE(serving > 0 && kill(serving, SIGSTOP) == 0);
  int marked = 0;
  const std::string facts = "/proc/" + std::to_string(platformd_->id()) + "/fdinfo";
  for (const auto& entry : fs::directory_iterator(facts)) {
    std::ifstream file(entry.path());
    int marks = 0;
    for (std::string line; std::getline(file, line);) marks += line.starts_with("fanotify ino:");
    marked = std::max(marked, marks);
  }
  kill(serving, SIGCONT);
  EXPECT_GT(marked, directories);
}

TEST_P(ContinuityTest, AWorkerThatWaitsForAHolderThatHasFallenComesToItsEnd) {
  add();
  const pid_t working = worker();
  ASSERT_EQ(kill(platformd_->id(), SIGSTOP), 0);
  // It gives this a first block, and its own opening needs the holder's leave.
  makePlaceholder(temporaryRoot() + "/new", 5000, Mark::named);
  fs::rename(temporaryRoot() + "/new", item("new"));
  const auto waitsForLeave = [&] {
    for (const auto& each : fs::directory_iterator("/proc/" + std::to_string(working) + "/task")) {
      if (readAll(each.path() / "wchan") == "fanotify_handle_event") return true;
    }
    return false;
  };
  EXPECT_TRUE(eventually(waitsForLeave));
  EXPECT_EQ(platformd_->end(SIGKILL), -SIGKILL);
  start();
  ASSERT_TRUE(isWatched("com.example.source"));
  EXPECT_EQ(run(reader("read", item("new"))).line, "right");
}

TEST_P(ContinuityTest, APlannedStopMakesPlaceholdersUnreadableAndAStartReadable) {
  const auto source = add();
  makePlaceholder(item("marked"), 1000);
  makePlaceholder(item("named"), 1000, Mark::named);
  chmod(item("marked").c_str(), 0640);
  std::ofstream(item("content")) << contentOf("content", 10);
  source->behave([](const std::string&, const qx::Completion<Error>&) {});
  ChildProcess waiting(reader("read", item("marked")));
  ASSERT_TRUE(source->provides.waitForCount(1));

  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  EXPECT_EQ(waiting.readLine(), "Resource temporarily unavailable");
  EXPECT_EQ(platformd_->count("placeholders are unreadable until the next start"), 1u);
  EXPECT_EQ(modeOf(item("marked")), 0u);
  EXPECT_EQ(modeOf(item("named")), 0u);
  EXPECT_EQ(modeOf(item("content")), 0644u);

  start();
  ASSERT_TRUE(isWatched("com.example.source"));
  EXPECT_EQ(modeOf(item("marked")), 0640u);
  EXPECT_EQ(modeOf(item("named")), 0644u);
  source->behave(nullptr);
  EXPECT_EQ(run(reader("read", item("marked"))).line, "right");
  EXPECT_EQ(run(reader("read", item("named"))).line, "right");
}

TEST_P(ContinuityTest, AStopWhileTheNextWorkerLooksAroundConcealsEverything) {
  constexpr int count = 1000;
  for (int i = 0; i < count; ++i) {
    const std::string directory = item(std::to_string(i / 50));
    fs::create_directories(directory);
    makePlaceholder(directory + "/" + std::to_string(i), 1000);
  }
  const auto source = add();
  kill(worker(), SIGKILL);
  ASSERT_TRUE(platformd_->logs("for doc source com.example.source.", 2));
  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  EXPECT_TRUE(platformd_->logs(std::to_string(count) + " placeholders are unreadable"));
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(modeOf(item(std::to_string(i / 50) + "/" + std::to_string(i))), 0u) << i;
  }
}

TEST_P(ContinuityTest, WhenTheHolderIsKilledNobodyReadsZeros) {
  const auto source = add();
  makePlaceholder(item("awaited"), 1000);
  source->behave([](const std::string&, const qx::Completion<Error>&) {});
  ChildProcess waiting(reader("read", item("awaited")));
  ASSERT_TRUE(source->provides.waitForCount(1));
  platformd_->end(SIGKILL);
  EXPECT_EQ(waiting.readLine(), "Resource temporarily unavailable");
  EXPECT_TRUE(platformd_->everyProcessEnds());
}

TEST_P(ContinuityTest, AStartThatIsCutOffAnywhereShowsNoZeros) {
  if (*ENDED_AT_CALL == '\0') GTEST_SKIP() << "the runtime of a sanitizer comes first";
  const CountedCalls calls(temporaryRoot() + "/calls");
  const auto source = add();
  const TemporaryDirectory elsewhere;  // which nobody watches
  chmod(elsewhere.path().c_str(), 0755);
  bool hasCome = true;
  for (int call = 1; hasCome; ++call) {
    const std::string name = "document" + std::to_string(call);
    makePlaceholder(item(name), 1000, Mark::named);
    fs::create_hard_link(item(name), elsewhere / name);
    ASSERT_EQ(platformd_->end(SIGTERM), 0);
    ASSERT_EQ(modeOf(item(name)), 0u);
    calls.endAt(call);
    platformd_.emplace("platformd", temporaryRoot(),
                       calls.environment({{"DOCSOURCE_COORDINATION", GetParam()}}));
    ASSERT_TRUE(eventually(
        [&] { return calls->ended != 0 || platformd_->count("placeholders from before.") == 1; }));
    calls.stop();
    const pid_t ended = calls->ended;
    hasCome = ended != 0;
    const std::string last = hasCome ? calls->call.data() : "none";
    ChildProcess stranger(asUser(4001, reader("read", elsewhere / name)));
    if (ended == platformd_->id()) {
      EXPECT_EQ(platformd_->wait(), -SIGKILL);
      start();
    }
    ASSERT_TRUE(platformd_->logs("placeholders from before."));
    const auto line = stranger.readLine();
    EXPECT_TRUE(line == "right" || line == "Permission denied" ||
                line == "Resource temporarily unavailable")
        << line << ", ended before call " << call << ", " << last;
    EXPECT_EQ(run(reader("read", item(name))).line, "right");
    fs::remove(elsewhere / name);
    fs::remove(item(name));
    if (HasFailure()) break;
  }
}

/// The service manager's end of a notification socket, as far as descriptors are stored
/// (sd_pid_notify_with_fds(3)).
class DescriptorStore {
 public:
  explicit DescriptorStore(const std::string& path)
      : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const timeval limit{patience.count(), 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  /// The descriptor that is stored next, under this name.
  FileDescriptor next(const std::string& name) {
    std::array<std::uint8_t, 4096> text{};
    for (;;) {
      std::vector<FileDescriptor> stored;
      const ssize_t size = receiveFrom(socket_.get(), text, stored);
      if (size < 0) return {};
      const std::string said(text.begin(), text.begin() + size);
      if (!stored.empty() && said.find("FDNAME=" + name) != std::string::npos) {
        return std::move(stored.front());
      }
    }
  }

 private:
  const FileDescriptor socket_;
};

TEST_P(ContinuityTest, WithADescriptorStoreReadersWaitForTheNextStart) {
  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  DescriptorStore store(temporaryRoot() + "/manager");
  start({{"NOTIFY_SOCKET", temporaryRoot() + "/manager"}, {"FDSTORE", "4"}});
  FileDescriptor accesses = store.next("fanotify-accesses");
  FileDescriptor changes = store.next("fanotify-changes");
  ASSERT_TRUE(accesses && changes);
  const auto source = add();
  makePlaceholder(item("asked"), 1000);
  makePlaceholder(item("unasked"), 1000);
  source->behave([](const std::string&, const qx::Completion<Error>&) {});
  ChildProcess waiting(reader("read", item("asked")));
  ASSERT_TRUE(source->provides.waitForCount(1));

  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  EXPECT_EQ(platformd_->count("programs that read placeholders wait for the next start"), 1u);
  ChildProcess late(reader("read", item("unasked")));
  source->behave(nullptr);
  // For the next start alone, and out of the way of the numbers that they get there.
  constexpr int outOfTheWay = 20;
  accesses = FileDescriptor(fcntl(accesses.get(), F_DUPFD, outOfTheWay));
  changes = FileDescriptor(fcntl(changes.get(), F_DUPFD, outOfTheWay));
  const auto number = [](const FileDescriptor& file) { return std::to_string(file.get()); };
  ChildProcess next({"bash", "-c",
                     "exec 3<&" + number(accesses) + " 4<&" + number(changes) +
                         "; LISTEN_PID=$$ LISTEN_FDS=2 "
                         "LISTEN_FDNAMES=fanotify-accesses:fanotify-changes "
                         "DOCSOURCE_COORDINATION=" +
                         GetParam() + " exec " + builtProgram("platformd")});
  accesses.reset();
  changes.reset();
  // Nobody knows any more what this one waited for.
  EXPECT_EQ(waiting.readLine(), "Resource temporarily unavailable");
  EXPECT_EQ(late.readLine(), "right");
  EXPECT_EQ(kill(next.id(), SIGTERM), 0);
  EXPECT_EQ(next.wait(), 0);
}

IN_BOTH_WAYS(ContinuityTest);

}  // namespace
