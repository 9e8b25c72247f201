// What a file holds after the machine stopped while it was being replaced: a file system of its
// own, ended as a power failure ends it (ext4's shutdown without writing its log), and mounted
// anew.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "platform/files/FileManager.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace qx;
using namespace qx::test;

/// A disk in a file, seen by this process alone.
class Disk {
 public:
  Disk() = default;
  ~Disk() { unmount(); }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;

  /// Why there can be none; empty when there is one.
  std::string make() {
    const std::string image = directory_ / "image";
    FileDescriptor file(::open(image.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file || ::ftruncate(file.get(), 32 << 20) != 0) return "no image can be made";
    const char* words[] = {"mkfs.ext4", "-q", image.c_str(), nullptr};
    pid_t child = 0;
    int status = 0;
    if (::posix_spawnp(&child, words[0], nullptr, nullptr, const_cast<char**>(words), environ) !=
            0 ||
        ::waitpid(child, &status, 0) != child || status != 0) {
      return "there is no mkfs.ext4";
    }
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return "a mount namespace needs CAP_SYS_ADMIN";
    }
    const FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    do {
      name_ = "/dev/loop" + std::to_string(::ioctl(control.get(), LOOP_CTL_GET_FREE));
      loop_.reset(::open(name_.c_str(), O_RDWR | O_CLOEXEC));
      if (!loop_) return "there are no loop devices";
      loop_config config{};
      config.fd = static_cast<unsigned>(file.get());
      config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
      if (::ioctl(loop_.get(), LOOP_CONFIGURE, &config) == 0) break;
      if (errno != EBUSY) return "a loop device cannot be set up";
    } while (true);
    return FileManager::createDirectory(path()) || !mount() ? "the disk cannot be mounted" : "";
  }

  bool mount() { return ::mount(name_.c_str(), path().c_str(), "ext4", 0, nullptr) == 0; }
  void unmount() { ::umount2(path().c_str(), 0); }
  /// Nothing reaches the disk any more, not even the log.
  void fail() {
    const FileDescriptor root(::open(path().c_str(), O_RDONLY | O_CLOEXEC));
    std::uint32_t withoutLog = 2;
    EXPECT_EQ(::ioctl(root.get(), _IOR('X', 125, std::uint32_t), &withoutLog), 0);
  }

  std::string path() const { return directory_ / "disk"; }

 private:
  TemporaryDirectory directory_;
  std::string name_;
  FileDescriptor loop_;
};

std::string contentOf(int number) {
  std::string content = std::to_string(number) + "\n";
  content.append(static_cast<std::size_t>(number % 7) * 50'000 + 10,
                 static_cast<char>('a' + number % 26));
  return content;
}

TEST(PowerFailureTest, LosesNothingThatWasReplaced) {
  Disk disk;
  if (const auto why = disk.make(); !why.empty()) GTEST_SKIP() << why;
  const std::string path = disk.path() + "/list";
  std::minstd_rand random(std::random_device{}());
  int number = 0;
  ASSERT_FALSE(FileManager::replaceFile(path, contentOf(number)));
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> kept = number;
    std::atomic<int> begun = number;
    std::thread writer([&] {
      while (!FileManager::replaceFile(path, contentOf(++begun))) kept = begun.load();
    });
    // At some moment of some replacement.
    const int last = number + 2 + static_cast<int>(random() % 5);
    while (begun < last) std::this_thread::yield();
    const auto moment =
        std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 4000);
    while (begun == last && std::chrono::steady_clock::now() < moment) std::this_thread::yield();
    disk.fail();
    writer.join();
    disk.unmount();
    ASSERT_TRUE(disk.mount());

    const auto found = FileManager::readFile(path);
    ASSERT_TRUE(found) << found.error().text();
    number = std::atoi(found->c_str());
    EXPECT_EQ(*found, contentOf(number)) << "of " << found->size() << " bytes";
    EXPECT_GE(number, kept);
    EXPECT_LE(number, begun);
    number = begun;
  }
}

}  // namespace
