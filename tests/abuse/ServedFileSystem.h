#pragma once

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "platform/base/FileDescriptor.h"

namespace qx::test {

/// A user's own file system that everybody may look into (fuse(4), "allow_other"), for root to
/// mount: a directory with one file, "document". Once it hangs it answers nothing any more.
class ServedFileSystem {
 public:
  ServedFileSystem(std::string place, uid_t user, bool hangs)
      : place_(std::move(place)),
        user_(user),
        hangs_(hangs),
        device_(open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
    const std::string number = std::to_string(user);
    const std::string options = "fd=" + std::to_string(device_.get()) +
                                ",rootmode=40755,user_id=" + number + ",group_id=" + number +
                                ",allow_other";
    isMounted_ = device_ && mount("test", place_.c_str(), "fuse", 0, options.c_str()) == 0;
    thread_ = std::thread([this] { serve(); });
  }
  ServedFileSystem(const ServedFileSystem&) = delete;
  ServedFileSystem& operator=(const ServedFileSystem&) = delete;
  ~ServedFileSystem() {
    isOver_ = true;
    if (isMounted_) umount2(place_.c_str(), MNT_FORCE);
    if (isMounted_) umount2(place_.c_str(), MNT_DETACH);
    thread_.join();
  }

  bool isMounted() const { return isMounted_; }
  void hang() { hangs_ = true; }

 private:
  void serve() const {
    std::array<char, 1 << 17> request{};
    while (!isOver_) {
      pollfd input{device_.get(), POLLIN, 0};
      poll(&input, 1, 50);
      if ((input.revents & (POLLERR | POLLNVAL)) != 0) return;
      if ((input.revents & POLLIN) == 0) continue;
      if (read(device_.get(), request.data(), request.size()) < ssize_t(sizeof(fuse_in_header))) {
        continue;
      }
      const auto* header = reinterpret_cast<const fuse_in_header*>(request.data());
      if (!hangs_) answer(*header, request.data() + sizeof *header);
    }
  }
  void answer(const fuse_in_header& header, const char* name) const {
    fuse_entry_out entry{};
    fuse_attr_out attributes{};
    fuse_init_out init{};
    fuse_open_out opened{};
    fuse_statfs_out space{};
    switch (header.opcode) {
      case FUSE_INIT:
        init.major = FUSE_KERNEL_VERSION;
        init.minor = FUSE_KERNEL_MINOR_VERSION;
        init.max_write = 4096;
        return reply(header, 0, &init, sizeof init);
      case FUSE_LOOKUP:
        if (std::string(name) != "document") return reply(header, -ENOENT, nullptr, 0);
        entry.nodeid = 2;
        fill(entry.attr, 2);
        return reply(header, 0, &entry, sizeof entry);
      case FUSE_GETATTR:
        fill(attributes.attr, header.nodeid);
        return reply(header, 0, &attributes, sizeof attributes);
      case FUSE_OPEN:
      case FUSE_OPENDIR:
        return reply(header, 0, &opened, sizeof opened);
      case FUSE_STATFS:
        return reply(header, 0, &space, sizeof space);
      case FUSE_READDIR:
        return reply(header, 0, nullptr, 0);
      case FUSE_FORGET:
        return;
      default:
        return reply(header, -ENOSYS, nullptr, 0);
    }
  }
  void fill(fuse_attr& attributes, std::uint64_t node) const {
    attributes.ino = node;
    attributes.mode = node == 1 ? S_IFDIR | 0755U : S_IFREG | 0644U;
    attributes.nlink = 1;
    attributes.uid = attributes.gid = user_;
    attributes.size = 4096;
  }
  void reply(const fuse_in_header& header, int error, const void* body, std::size_t size) const {
    fuse_out_header out{static_cast<std::uint32_t>(sizeof out + size), error, header.unique};
    std::array<iovec, 2> parts{{{&out, sizeof out}, {const_cast<void*>(body), size}}};
    (void)!writev(device_.get(), parts.data(), size == 0 ? 1 : 2);
  }

  const std::string place_;
  const uid_t user_;
  std::atomic<bool> hangs_;
  std::atomic<bool> isOver_ = false;
  const FileDescriptor device_;
  bool isMounted_ = false;
  std::thread thread_;
};

}  // namespace qx::test
