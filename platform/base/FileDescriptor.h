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

  /// Returns a second descriptor of the same open file (close-on-exec); empty when none can be
  /// made.
  FileDescriptor duplicate() const;

 private:
  int fd_ = -1;
};

/// What comes of standard input, output or error that was closed: empty, or what a tool needs whose
/// output somebody wants, reading and writing fail with EBADF as before.
enum class StandardDescriptors { areEmpty, fail };

/// Opens /dev/null where standard input, output or error is closed. Otherwise another file or a
/// connection would get one of their numbers, and what is printed would be written into it. Called
/// in main, before anything is opened.
void fillStandardDescriptors(StandardDescriptors closed = StandardDescriptors::areEmpty);

/// Raises the limit of descriptors as far as this process may, and returns it (getrlimit(2)): every
/// client costs a descriptor, and a login gives only a thousand. Called in main, before other
/// threads exist; a second call changes nothing.
std::size_t raiseDescriptorLimit();

/// Gives a child the limit that this process was started with: a program that uses select(2) counts
/// on numbers below 1024.
void restoreDescriptorLimit(pid_t child);

}  // namespace qx
