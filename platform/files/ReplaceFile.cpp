// Replacing a file: its new content gets a name in the directory only when it is complete and on
// the disk, so a process that is killed while it writes leaves nothing behind (O_TMPFILE, open(2)).
// A file system that has no files without names gets a side file that is unlinked on failure. Its
// name begins with a full stop, which whoever looks through a directory passes over.
//
// What makes it last are two commits of the file system's journal, one for the file and one for the
// directory, and each waits for the disk. Where one journal holds both, in order, the second is
// enough: the content is written out first, so it lies on the disk before anything that is
// committed later, the new name among it.

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "platform/files/FileManager.h"
#include "platform/queue/WorkPool.h"

namespace qx::FileManager {
namespace {

constexpr std::string_view sidePrefix = ".side-";
constexpr std::size_t bufferSize = 65536;
/// How much the disk is given at a time.
constexpr off_t share = 1 << 20;

/// Whether one journal brings all changes to the file system to the disk in the order in which they
/// were made: ext4 that has a journal (ext4(5), /sys/fs/ext4/<disk>/journal_task). Anything else is
/// taken to have no order.
bool isOrdered(int file) {
  struct statfs system;
  struct stat status;
  if (::fstatfs(file, &system) != 0 || system.f_type != EXT4_SUPER_MAGIC) return false;
  if (::fstat(file, &status) != 0) return false;
  const std::string device = "/sys/dev/block/" + std::to_string(major(status.st_dev)) + ":" +
                             std::to_string(minor(status.st_dev));
  std::array<char, 256> target;
  const ssize_t size = ::readlink(device.c_str(), target.data(), target.size());
  if (size <= 0) return false;
  const std::string_view disk(target.data(), static_cast<std::size_t>(size));
  const std::string journal =
      "/sys/fs/ext4/" + std::string(disk.substr(disk.rfind('/') + 1)) + "/journal_task";
  return ::access(journal.c_str(), F_OK) == 0;
}

class SideFile {
 public:
  SideFile(const std::string& directory, mode_t mode)
      : directory_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (directory_) {
      file_.reset(::openat(directory_.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
      if (!file_ && (errno == EOPNOTSUPP || errno == EISDIR || errno == ENOENT)) openNamed(mode);
    }
    // Others read some of these files. A file system that keeps no modes may refuse.
    const bool isOpen = static_cast<bool>(file_);
    if (!isOpen || (::fchmod(file_.get(), mode) != 0 && errno != EPERM && errno != EOPNOTSUPP)) {
      fail();
    }
  }
  ~SideFile() {
    if (isNamed_) ::unlinkat(directory_.get(), name_.c_str(), 0);
  }
  SideFile(const SideFile&) = delete;
  SideFile& operator=(const SideFile&) = delete;

  void append(std::string_view text) {
    if (failed_ != 0) return;
    if (buffer_.size() + text.size() > bufferSize) {
      flush();
      if (text.size() > bufferSize) return write(text);
    }
    buffer_ += text;
  }

  /// Puts the file in the place of `name`.
  void replace(const std::string& name) {
    flush();
    const WorkPool::Waiting waiting;
    if (failed_ == 0 && !settle()) fail();
    if (failed_ == 0 && !isNamed_) giveName();
    // A file system that delays writing may report a failure as late as here.
    if (failed_ != 0) return;
    if (::renameat(directory_.get(), name_.c_str(), directory_.get(), name.c_str()) != 0) {
      return fail();
    }
    isNamed_ = false;
    if (::fsync(directory_.get()) != 0) fail();
  }

  /// The errno of the first failure, or 0.
  int failed() const { return failed_; }

 private:
  /// Sees to it that no crash leaves the new name without the content.
  bool settle() {
    if (!isOrdered(file_.get())) return ::fsync(file_.get()) == 0;
    // Waits until the blocks are written and what says that they are is in the journal; a disk that
    // keeps them in a cache is made to write them before the next commit (sync_file_range(2)).
    constexpr unsigned all =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    return ::sync_file_range(file_.get(), 0, 0, all) == 0;
  }

  void fail() {
    if (failed_ == 0) failed_ = errno;
  }

  void newName() {
    std::uint64_t number = 0;
    while (::getrandom(&number, sizeof number, 0) < 0 && errno == EINTR) {
    }
    name_ = sidePrefix;
    name_ += hexEncode({reinterpret_cast<const std::uint8_t*>(&number), sizeof number});
  }

  void openNamed(mode_t mode) {
    do {
      newName();
      file_.reset(::openat(directory_.get(), name_.c_str(),
                           O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, mode));
    } while (!file_ && (errno == EEXIST || errno == EINTR));
    isNamed_ = static_cast<bool>(file_);
  }

  void giveName() {
    // AT_EMPTY_PATH would need a capability; the way through /proc needs none (open(2)).
    const std::string link = "/proc/self/fd/" + std::to_string(file_.get());
    do {
      newName();
      isNamed_ =
          ::linkat(AT_FDCWD, link.c_str(), directory_.get(), name_.c_str(), AT_SYMLINK_FOLLOW) == 0;
    } while (!isNamed_ && errno == EEXIST);
    if (!isNamed_) fail();
  }

  void flush() {
    write(buffer_);
    buffer_.clear();
  }

  void write(std::string_view text) {
    while (failed_ == 0 && !text.empty()) {
      const ssize_t count = ::write(file_.get(), text.data(), text.size());
      if (count > 0) {
        text.remove_prefix(static_cast<std::size_t>(count));
        written_ += count;
        if (written_ - begun_ >= share) beginWriting();
      } else if (count == 0 || errno != EINTR) {
        fail();
      }
    }
  }

  /// Has the disk begin with what is complete while the rest is being made (sync_file_range(2)).
  void beginWriting() {
    ::sync_file_range(file_.get(), begun_, written_ - begun_, SYNC_FILE_RANGE_WRITE);
    begun_ = written_;
  }

  FileDescriptor directory_;
  FileDescriptor file_;
  off_t written_ = 0;
  off_t begun_ = 0;
  std::string name_;
  bool isNamed_ = false;
  std::string buffer_;
  int failed_ = 0;
};

}  // namespace

std::optional<Error> replaceFile(
    const std::string& path,
    const std::function<void(const std::function<void(std::string_view)>& append)>& write,
    unsigned mode) {
  const URL url = URL::fileURL(path);
  const std::size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty()) return fileError(EISDIR, url);

  SideFile file(slash == std::string::npos ? "." : path.substr(0, slash + 1), mode);
  if (file.failed() == 0) {
    write([&file](std::string_view text) { file.append(text); });
    file.replace(name);
  }
  if (file.failed() != 0) return fileError(file.failed(), url);
  return std::nullopt;
}

std::optional<Error> replaceFile(const std::string& path, std::string_view text, unsigned mode) {
  return replaceFile(
      path, [text](const std::function<void(std::string_view)>& append) { append(text); }, mode);
}

void removeSideFiles(const std::string& directory) {
  std::error_code problem;
  std::filesystem::directory_iterator entry(directory, problem);
  for (; !problem && entry != end(entry); entry.increment(problem)) {
    const auto& path = entry->path();
    std::error_code ignored;
    if (path.filename().string().starts_with(sidePrefix)) std::filesystem::remove(path, ignored);
  }
}

}  // namespace qx::FileManager
