#pragma once

#include <sys/types.h>

#include <cstddef>
#include <utility>

namespace qx {

/// Owns one file descriptor and closes it. The only place that calls close(2).
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1);

  /// A second descriptor of the same open file (close-on-exec); empty when there is none to be had.
  FileDescriptor duplicate() const;

 private:
  int fd_ = -1;
};

/// Opens /dev/null where standard input, output or error is closed, so that no other file gets one
/// of their numbers and the log written into it. For main, before anything is opened.
void fillStandardDescriptors();

/// Lets this process have as many descriptors as it may ask for, and returns how many that are
/// (getrlimit(2)): every client costs one, and what a login gives is a thousand. For main, before
/// other threads exist; a second call changes nothing.
std::size_t raiseDescriptorLimit();

/// Gives a child the limit that this process was started with: a program that uses select(2) counts
/// on numbers below 1024.
void restoreDescriptorLimit(pid_t child);

}  // namespace qx
