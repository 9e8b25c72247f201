// Grants, while the daemon is killed and while its disk fails: what was acknowledged is on the disk
// afterwards, and what is on the disk can be read.

#include <sched.h>
#include <sys/mount.h>

#include <atomic>
#include <csignal>

#include "platform/files/FileManager.h"
#include "tests/abuse/Abuse.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

class Crash : public Abuse {
 protected:
  static constexpr std::size_t clients = 4;

  static std::string directory() { return fs::path(accessControlFile()).parent_path(); }
  /// What lies in the file's directory and is not the file.
  static std::size_t sideFiles() {
    return static_cast<std::size_t>(
        std::count_if(fs::directory_iterator(directory()), {}, [](const auto& entry) {
          return entry.path() != accessControlFile() && !entry.is_directory();
        }));
  }
  /// How many of these the file does not hold; all when it cannot be parsed, a fault besides.
  static std::size_t missing(const std::vector<std::string>& names, Tally& tally) {
    const auto found = grantsOnDisk();
    if (!found) ++tally.faults;
    return static_cast<std::size_t>(
        std::count_if(names.begin(), names.end(),
                      [&](const auto& name) { return !found || !found->contains(grantOf(name)); }));
  }
};

TEST_F(Crash, LosesNoGrantThatWasAcknowledged) {
  Tally tally("docsourced killed during grants");
  const std::size_t grants = tries(2000, 200);
  const std::size_t rounds = tries(100, 4);
  std::vector<std::string> acknowledged;
  std::size_t all = 0;
  std::size_t left = 0;
  start();
  for (std::size_t round = 0; round < rounds; ++round) {
    std::mutex mutex;
    std::atomic<std::size_t> count = 0;
    std::vector<std::thread> threads;
    for (std::size_t client = 0; client < clients; ++client) {
      threads.emplace_back([&, client] {
        Wire wire = connect();
        for (std::size_t i = 0; i < grants / clients; ++i) {
          const auto name =
              std::to_string(round) + "-" + std::to_string(client) + "-" + std::to_string(i);
          if (grant(wire, name) != "success") return;
          const std::lock_guard lock(mutex);
          acknowledged.push_back(name);
          ++count;
        }
      });
    }
    // The moment: after some of the grants, and then anywhere within the next.
    const std::size_t moment = randomBelow(grants / clients * clients);
    while (count < moment) std::this_thread::yield();
    for (std::size_t spin = randomBelow(20000); spin > 0; --spin) count.load();
    kill();
    for (auto& thread : threads) thread.join();
    ++tally.tries;
    all += count;
    tally.losses += missing(acknowledged, tally);
    left += sideFiles();

    std::ofstream(directory() + "/.side-of a process that was killed").put('x');
    start();
    Wire wire = connect();
    if (use(wire, "none") != "DSErrorDomain 3" || sideFiles() != 0) ++tally.faults;
    for (std::size_t i = acknowledged.size() - std::min<std::size_t>(count, 3);
         i < acknowledged.size(); ++i) {
      if (use(wire, acknowledged[i]) != "success") ++tally.losses;
    }
    if (acknowledged.size() < 2 * grants) continue;
    acknowledged.clear();
    EXPECT_EQ(daemon_->end(SIGTERM), 0);
    fs::remove(accessControlFile());
    start();
  }
  tally.note = std::to_string(all) + " grants acknowledged, " + std::to_string(left) +
               " side files left to the next start";
}

class FailingDisk : public Crash, public testing::WithParamInterface<const char*> {
 protected:
  static bool is(std::string_view disk) { return GetParam() == disk; }

  /// A file system of 1 MiB for the list alone, which nobody but this process and its children
  /// sees.
  static bool mountSmallDisk() {
    fs::create_directories(directory());
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", directory().c_str(), "tmpfs", 0, "size=1m") == 0;
  }

  /// Lets the writing of a list of this size fail, or a part of it.
  void inflict(std::size_t size) const {
    if (is("Full")) {
      const auto room = fs::space(directory()).available;
      std::ofstream(ballast_) << std::string(room - std::min(room, randomBelow(size + size / 2)),
                                             'x');
    } else if (is("ReadOnly")) {
      remount(MS_RDONLY);
    } else {
      limitFiles(randomBelow(size));
    }
  }
  void relieve() const {
    if (is("Full")) {
      fs::remove(ballast_);
    } else if (is("ReadOnly")) {
      remount(0);
    } else {
      limitFiles(RLIM_INFINITY);
    }
  }

 private:
  static void remount(unsigned long flags) {
    EXPECT_EQ(mount(nullptr, directory().c_str(), nullptr, MS_REMOUNT | flags, nullptr), 0);
  }
  void limitFiles(rlim_t size) const {
    const rlimit limit{size, RLIM_INFINITY};
    EXPECT_EQ(prlimit(daemon_->id(), RLIMIT_FSIZE, &limit, nullptr), 0);
  }

  const std::string ballast_ = directory() + "/ballast";
};

TEST_P(FailingDisk, KeepsTheOldFileAndIsWrittenOnceItCanBe) {
  if (!is("Limited") && !mountSmallDisk()) {
    GTEST_SKIP() << "mounting a small file system is not permitted here";
  }
  Tally tally(std::string("grants on a disk that fails: ") + GetParam());
  start();
  Wire wire = connect();
  std::vector<std::string> granted;
  const auto add = [&] {
    granted.push_back(std::to_string(granted.size()) + std::string(200, 'n'));
    if (grant(wire, granted.back()) != "success") ++tally.faults;
  };
  for (int i = 0; i < 100; ++i) add();
  std::size_t failures = 0;
  const std::size_t rounds = tries(500, 25);
  for (std::size_t round = 0; round < rounds; ++round) {
    const auto before = FileManager::readFile(accessControlFile());
    const auto reported = daemon_->count("[ERROR] Could not write to ");
    inflict(before.ok() ? before->size() : 1);
    add();
    const auto after = FileManager::readFile(accessControlFile());
    ++tally.tries;
    if (!before.ok() || !after.ok()) {
      ++tally.losses;
    } else if (*after == *before) {
      // It fails with a report, and the grant holds as long as the daemon lives.
      ++failures;
      if (!daemon_->logs("[ERROR] Could not write to ", reported + 1)) ++tally.faults;
    } else {
      tally.losses += missing(granted, tally);
    }
    const bool isUsable = use(wire, granted.back()) == "success";
    if (!isUsable) ++tally.losses;
    relieve();
    if (sideFiles() != 0) ++tally.faults;
    add();
    tally.losses += missing(granted, tally);
  }
  EXPECT_GT(failures, 0U);
  tally.note = std::to_string(failures) + " writes failed";
}

INSTANTIATE_TEST_SUITE_P(Disks, FailingDisk, testing::Values("Full", "ReadOnly", "Limited"),
                         [](const auto& each) { return each.param; });

}  // namespace
}  // namespace qx::test
