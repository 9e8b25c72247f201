// Sizes, holes and bytes of the files that placeholders are.

#include "sdk/src/SparseFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <string>

namespace docsource::sparse {
namespace {

timespec timespecOf(Placeholder::Time time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {static_cast<time_t>(seconds.time_since_epoch().count()),
          static_cast<long>((time - seconds).count())};
}

/// What is copied in one call grows while that takes less than a moment.
constexpr off_t smallestPiece = 1 << 20U;
constexpr off_t largestPiece = 16 << 20U;
constexpr std::chrono::milliseconds moment{20};
/// Room is found for so many pieces at once: few, lest who looks at the blocks sees none come, and
/// many, since that waits for what goes to disk meanwhile.
constexpr off_t piecesWithRoom = 16;

/// Finds room, which is cheaper than page by page. Where it cannot be done the copying finds it, or
/// finds none.
void reserve(int file, off_t offset, off_t count) {
  if (count >= smallestPiece) ::fallocate(file, FALLOC_FL_KEEP_SIZE, offset, count);
}

/// A piece of one file to the same place in another: how much, 0 at the end, or -1 with errno set.
ssize_t copyPiece(int source, int file, off_t offset, off_t most) {
  off_t from = offset;
  off_t to = offset;
  ssize_t count = ::copy_file_range(source, &from, file, &to, static_cast<std::size_t>(most), 0);
  if (count > 0 || (count < 0 && (errno == EINTR || errno == ENOSPC))) return count;
  // The end, or two files between which the kernel does not copy.
  std::string buffer(std::size_t{smallestPiece}, '\0');
  count = ::pread(source, buffer.data(), buffer.size(), offset);
  if (count <= 0) return count;
  buffer.resize(static_cast<std::size_t>(count));
  return writeAt(file, offset, buffer) ? count : -1;
}

/// Has the disk begin with what is written to a file, on another thread: to find room for the pages
/// and to hand them over takes the kernel a good part of the time that it takes to copy them.
class WriteBehind {
 public:
  explicit WriteBehind(int file) : file_(file) {}
  ~WriteBehind() {
    queue_->sync([] {});
  }
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;

  /// A hint: what it misses waits for fsync(2).
  void begin(off_t offset, off_t count) const {
    queue_->async([file = file_, offset, count] {
      ::sync_file_range(file, offset, count, SYNC_FILE_RANGE_WRITE);
    });
  }

 private:
  const int file_;
  const std::shared_ptr<qx::WorkQueue> queue_ = qx::WorkQueue::serial("placeholder writing queue");
};

}  // namespace

Placeholder::Time timeOf(const timespec& time) {
  return Placeholder::Time(std::chrono::seconds(time.tv_sec) +
                           std::chrono::nanoseconds(time.tv_nsec));
}

bool setTimes(int file, const Placeholder::Shape& shape) {
  const timespec times[2] = {shape.accessed ? timespecOf(*shape.accessed) : timespec{0, UTIME_OMIT},
                             timespecOf(shape.modified)};
  return ::futimens(file, times) == 0;
}

bool setSize(int file, std::uint64_t size) {
  if (size <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    return ::ftruncate(file, static_cast<off_t>(size)) == 0;
  }
  errno = EFBIG;
  return false;
}

/// All of it; sets errno when it fails.
bool writeAt(int file, off_t offset, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::pwrite(file, bytes.data(), bytes.size(), offset);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    offset += count;
  }
  return true;
}

bool makeSparse(int file, const Placeholder::Shape& shape, bool hasFirstBlock) {
  // The hole ends beyond the last block, of which only a part would be zeroed otherwise.
  constexpr off_t largestBlock = 1 << 20U;
  constexpr off_t leastWithHoles = 512;
  struct stat status {};
  if (::fstat(file, &status) != 0 || !setSize(file, shape.size)) return false;
  const auto size = static_cast<off_t>(shape.size);
  const bool hasFirst = hasFirstBlock && size >= leastWithHoles;
  const off_t first = hasFirst ? std::min<off_t>(size, status.st_blksize) : 0;
  const off_t room = std::numeric_limits<off_t>::max() - size;
  if (status.st_blocks > 0 && size > first &&
      ::fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, first,
                  size - first + std::min(room, largestBlock)) != 0) {
    return false;
  }
  return writeAt(file, 0, std::string(static_cast<std::size_t>(first), '\0')) &&
         setTimes(file, shape);
}

off_t copy(int source, int file) {
  struct stat status {};
  if (::fstat(source, &status) != 0) return -1;
  const WriteBehind disk(file);
  off_t piece = smallestPiece;
  off_t reserved = 0;
  off_t offset = 0;
  while (true) {
    const auto begin = std::chrono::steady_clock::now();
    if (offset >= reserved) {
      reserved = std::min(offset + piecesWithRoom * piece, status.st_size);
      reserve(file, offset, reserved - offset);
    }
    const ssize_t count = copyPiece(source, file, offset, piece);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) return offset;
    // No thread is woken for what finish() has on disk as soon.
    if (count >= smallestPiece) disk.begin(offset, count);
    offset += count;
    const bool isQuick = std::chrono::steady_clock::now() - begin < moment;
    if (isQuick) piece = std::min(2 * piece, largestPiece);
  }
}

}  // namespace docsource::sparse
