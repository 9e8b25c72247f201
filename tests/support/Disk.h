#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/files/FileManager.h"
#include "tests/support/TemporaryDirectory.h"

namespace qx::test {

/// A disk in a file, with a file system that this process and its children alone see, and that can
/// be ended as a power failure ends it (ext4's shutdown without writing its log).
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

  /// Without what the file system does beyond its duty for programs that forget fsync(2).
  bool mount() { return ::mount(name_.c_str(), path().c_str(), "ext4", 0, "noauto_da_alloc") == 0; }
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

}  // namespace qx::test
