// Sparse files that stand for documents.
//
// Every step that takes content away is preceded by the mark, made durable, and the mark is cleared
// as the last step of bringing content in. So whatever is cut off, and wherever, the file says
// itself whether its content can be trusted. Eviction marks under a lease: nobody else has the file
// open or mapped while it is looked at, and who opens it is held back. It empties without: to tell
// of an access the kernel opens the file itself, and would wait for the lease.

#include "docsource/placeholder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <limits>
#include <memory>
#include <utility>

#include "platform/base/FileDescriptor.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/queue/WorkQueue.h"

namespace docsource {
namespace {

constexpr const char* placeholderText = "placeholder";
constexpr std::string_view providingText = "providing ";

std::string attributeName(const char* mark) { return std::string("user.docsource.") + mark; }

class ExtendedAttributes final : public PlaceholderMarks {
 public:
  std::optional<std::string> get(int file, const char* name) const override {
    std::array<char, 1024> value{};
    const ssize_t size = ::fgetxattr(file, attributeName(name).c_str(), value.data(), value.size());
    if (size < 0) return std::nullopt;
    return std::string(value.data(), static_cast<std::size_t>(size));
  }
  bool set(int file, const char* name, const std::string& value) const override {
    return ::fsetxattr(file, attributeName(name).c_str(), value.data(), value.size(), 0) == 0;
  }
  bool clear(int file, const char* name) const override {
    return ::fremovexattr(file, attributeName(name).c_str()) == 0 || errno == ENODATA;
  }
};

std::optional<std::string> attributeOfPath(const std::string& path, const char* mark) {
  std::array<char, 1024> value{};
  const ssize_t size =
      ::getxattr(path.c_str(), attributeName(mark).c_str(), value.data(), value.size());
  if (size < 0) return std::nullopt;
  return std::string(value.data(), static_cast<std::size_t>(size));
}

std::string pathOf(int file) {
  std::array<char, 4096> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
  return size < 0 ? link : std::string(path.data(), static_cast<std::size_t>(size));
}

/// The mark of a file that this process fills.
std::string providingMark() {
  const auto self = qx::ProcessDirectory::open(::getpid());
  const auto state = self ? self->state() : std::nullopt;
  return std::string(providingText) + std::to_string(::getpid()) + " " +
         std::to_string(state ? state->startTime : 0);
}

/// Whether the process that the mark names still runs.
bool isBeingFilled(std::string_view mark) {
  if (!mark.starts_with(providingText)) return false;
  mark.remove_prefix(providingText.size());
  pid_t process = -1;
  std::uint64_t startTime = 0;
  const char* end = mark.data() + mark.size();
  const auto first = std::from_chars(mark.data(), end, process);
  if (first.ec != std::errc() || first.ptr == end) return false;
  const auto second = std::from_chars(first.ptr + 1, end, startTime);
  if (second.ec != std::errc() || second.ptr != end || process <= 0) return false;
  const auto directory = qx::ProcessDirectory::open(process);
  const auto state = directory ? directory->state() : std::nullopt;
  return state && state->startTime == startTime && directory->isRunning();
}

PlaceholderState stateOfMark(const std::optional<std::string>& mark) {
  if (!mark) return PlaceholderState::present;
  return isBeingFilled(*mark) ? PlaceholderState::providing : PlaceholderState::placeholder;
}

std::string versionOf(const struct stat& status) {
  return std::to_string(status.st_ino) + ":" + std::to_string(status.st_size) + ":" +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

Placeholder::Time timeOf(const timespec& time) {
  return Placeholder::Time(std::chrono::seconds(time.tv_sec) +
                           std::chrono::nanoseconds(time.tv_nsec));
}
timespec timespecOf(Placeholder::Time time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {static_cast<time_t>(seconds.time_since_epoch().count()),
          static_cast<long>((time - seconds).count())};
}
Placeholder::Shape shapeOf(const struct stat& status) {
  return {static_cast<std::uint64_t>(status.st_size), timeOf(status.st_mtim),
          timeOf(status.st_atim)};
}

// These set errno when they fail.

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

/// The size and times of the shape, and no blocks but the first: programs that copy files skip
/// holes without reading, and would never find out that there is something to wait for.
bool makeSparse(int file, const Placeholder::Shape& shape) {
  // The hole ends beyond the last block, of which only a part would be zeroed otherwise.
  constexpr off_t largestBlock = 1 << 20U;
  constexpr off_t leastWithHoles = 512;
  struct stat status {};
  if (::fstat(file, &status) != 0 || !setSize(file, shape.size)) return false;
  const auto size = static_cast<off_t>(shape.size);
  // Marked elsewhere, a file is known by its holes alone, and must have some.
  const bool isMarked =
      ::fgetxattr(file, attributeName(PlaceholderMarks::placeholder).c_str(), nullptr, 0) >= 0;
  const bool hasFirst = size > status.st_blksize || (isMarked && size >= leastWithHoles);
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

/// The file for oneself: held from when it is found that nobody else has it open or mapped. Others
/// that want to open it wait.
class Lease {
 public:
  explicit Lease(int file) : file_(file) {
    // Instead of SIGIO, which ends a process that does not expect it.
    if (::fcntl(file_, F_SETSIG, SIGURG) != 0 || ::fcntl(file_, F_SETLEASE, F_WRLCK) != 0) {
      problem_ = errno;
    }
  }
  ~Lease() {
    if (problem_ == 0) ::fcntl(file_, F_SETLEASE, F_UNLCK);
    ::fcntl(file_, F_SETSIG, 0);
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  /// 0, or the errno of what stood in the way: EAGAIN when the file is in use.
  int problem() const { return problem_; }
  bool isWaitedFor() const { return ::fcntl(file_, F_GETLEASE) != F_WRLCK; }

 private:
  int file_;
  int problem_ = 0;
};

/// Has the kernel tell of every access again, without a change: it lets accesses to a file pass
/// until its modification time is set (fanotify_mark(2), FAN_MARK_IGNORE).
bool withdrawLeave(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return false;
  const timespec times[2] = {{0, UTIME_OMIT}, status.st_mtim};
  return ::futimens(file, times) == 0;
}

}  // namespace

PlaceholderMarks::~PlaceholderMarks() = default;

const PlaceholderMarks& PlaceholderMarks::extendedAttributes() {
  static const auto& attributes = *new ExtendedAttributes;
  return attributes;
}

Result<PlaceholderStatus> placeholderStatus(const std::string& path) {
  constexpr std::uint64_t blockUnit = 512;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return Error::file(errno, path);
  if (!S_ISREG(status.st_mode)) {
    return Error::file(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
  }
  PlaceholderStatus result;
  result.size = static_cast<std::uint64_t>(status.st_size);
  result.occupied = static_cast<std::uint64_t>(status.st_blocks) * blockUnit;
  const auto mark = attributeOfPath(path, PlaceholderMarks::placeholder);
  const auto provided = attributeOfPath(path, PlaceholderMarks::provided);
  result.state = stateOfMark(mark);
  if (!mark && !provided && result.occupied < result.size) {
    result.state = PlaceholderState::placeholder;
  }
  if (!mark && provided) result.changed = *provided != versionOf(status);
  return result;
}

Result<bool> isFileInUse(int file) {
  const Lease lease(file);
  if (lease.problem() == 0) return false;
  if (lease.problem() == EAGAIN) return true;
  return Error::file(lease.problem(), pathOf(file));
}

Result<Placeholder::Shape> Placeholder::shapeOf(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return Error::file(errno, pathOf(file));
  return docsource::shapeOf(status);
}

Result<void> Placeholder::make(const std::string& path, const Shape& shape, unsigned mode) {
  const auto slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const qx::FileDescriptor made(
      ::open(directory.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, static_cast<mode_t>(mode)));
  if (!made) return Error::file(errno, path);
  if (auto reset = Placeholder(made.get()).reset(shape); !reset) return reset;
  if (::fsync(made.get()) != 0) return Error::file(errno, path);
  const std::string link = "/proc/self/fd/" + std::to_string(made.get());
  if (::linkat(AT_FDCWD, link.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    return Error::file(errno, path);
  }
  return {};
}

Error Placeholder::error(int errnum) const { return Error::file(errnum, pathOf(file_)); }

PlaceholderState Placeholder::state() const {
  return stateOfMark(marks_->get(file_, PlaceholderMarks::placeholder));
}

Result<void> Placeholder::reset(const Shape& shape) const {
  struct stat status {};
  if (::fstat(file_, &status) != 0) return error(errno);
  // A file that is being made has nothing yet that could go before the mark is durable.
  const bool isNew =
      status.st_size == 0 && !marks_->get(file_, PlaceholderMarks::provided).has_value();
  if (marks_->get(file_, PlaceholderMarks::placeholder) != placeholderText &&
      (!marks_->set(file_, PlaceholderMarks::placeholder, placeholderText) ||
       (!isNew && ::fsync(file_) != 0))) {
    return error(errno);
  }
  if (!makeSparse(file_, shape) || !marks_->clear(file_, PlaceholderMarks::provided)) {
    return error(errno);
  }
  return {};
}

Result<PlaceholderWriter> Placeholder::fill() const {
  const auto shape = shapeOf(file_);
  if (!shape) return shape.error();
  const bool wasMarked = marks_->get(file_, PlaceholderMarks::placeholder).has_value();
  if (!marks_->set(file_, PlaceholderMarks::placeholder, providingMark())) return error(errno);
  PlaceholderWriter writer(*this, *shape);
  if (wasMarked ? !makeSparse(file_, *shape) : ::fsync(file_) != 0) return error(errno);
  return writer;
}

Result<std::string> Placeholder::version() const {
  struct stat status {};
  if (::fstat(file_, &status) != 0) return error(errno);
  return versionOf(status);
}

bool Placeholder::isChanged() const {
  const auto now = version();
  return !now || marks_->get(file_, PlaceholderMarks::provided) != *now;
}

Result<void> Placeholder::setUnchanged(const std::string& version) const {
  if (!marks_->set(file_, PlaceholderMarks::provided, version)) return error(errno);
  return {};
}

Result<Placeholder::Eviction> Placeholder::evict(const std::optional<Shape>& shape) const {
  auto eviction = markUnlessInUse();
  if (!eviction || *eviction != Eviction::evicted) return eviction;
  const auto now = shapeOf(file_);
  if (!now) return now.error();
  if (auto emptied = reset(shape.value_or(*now)); !emptied) return emptied.error();
  return Eviction::evicted;
}

/// Up to where there is no way back. Whoever gets at the file afterwards waits for its content.
Result<Placeholder::Eviction> Placeholder::markUnlessInUse() const {
  if (marks_->get(file_, PlaceholderMarks::placeholder)) return Eviction::notPresent;
  const Lease lease(file_);
  if (lease.problem() == EAGAIN) return Eviction::inUse;
  if (lease.problem() != 0) return error(lease.problem());
  // Only now, with nobody left who could change it.
  if (isChanged()) return Eviction::changed;
  if (!marks_->set(file_, PlaceholderMarks::placeholder, placeholderText)) return error(errno);
  const bool isMarked = ::fsync(file_) == 0 && withdrawLeave(file_);
  const int problem = errno;
  if (isMarked && !lease.isWaitedFor()) return Eviction::evicted;
  if (!marks_->clear(file_, PlaceholderMarks::placeholder)) return error(errno);
  if (!isMarked) return error(problem);
  return Eviction::inUse;
}

PlaceholderWriter::PlaceholderWriter(PlaceholderWriter&& other) noexcept
    : placeholder_(other.placeholder_),
      shape_(other.shape_),
      position_(other.position_),
      isOpen_(std::exchange(other.isOpen_, false)) {}

PlaceholderWriter::~PlaceholderWriter() {
  // What cannot be given back stays, in what is a placeholder all the same.
  if (isOpen_) static_cast<void>(placeholder_.reset(shape_).ok());
}

Result<void> PlaceholderWriter::write(std::string_view bytes) { return writeAt(position_, bytes); }

Result<void> PlaceholderWriter::writeAt(std::uint64_t offset, std::string_view bytes) {
  constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (offset > largest || bytes.size() > largest - offset) return placeholder_.error(EFBIG);
  if (!docsource::writeAt(placeholder_.file_, static_cast<off_t>(offset), bytes)) {
    return placeholder_.error(errno);
  }
  position_ = offset + bytes.size();
  return {};
}

Result<void> PlaceholderWriter::copy(int source) {
  const int file = placeholder_.file_;
  struct stat status {};
  if (::fstat(source, &status) != 0) return placeholder_.error(errno);
  const WriteBehind disk(file);
  off_t piece = smallestPiece;
  off_t reserved = 0;
  position_ = 0;
  while (true) {
    const auto begin = std::chrono::steady_clock::now();
    const auto offset = static_cast<off_t>(position_);
    if (offset >= reserved) {
      reserved = std::min(offset + piecesWithRoom * piece, status.st_size);
      reserve(file, offset, reserved - offset);
    }
    const ssize_t count = copyPiece(source, file, offset, piece);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return placeholder_.error(errno);
    if (count == 0) return {};
    // No thread is woken for what finish() has on disk as soon.
    if (count >= smallestPiece) disk.begin(offset, count);
    position_ += static_cast<std::uint64_t>(count);
    const bool isQuick = std::chrono::steady_clock::now() - begin < moment;
    if (isQuick) piece = std::min(2 * piece, largestPiece);
  }
}

Result<void> PlaceholderWriter::finish(const Placeholder::Shape& shape) {
  const int file = placeholder_.file_;
  const auto& marks = *placeholder_.marks_;
  struct stat status {};
  if (::fstat(file, &status) != 0) return placeholder_.error(errno);
  if (static_cast<std::uint64_t>(status.st_size) != shape.size && !setSize(file, shape.size)) {
    return placeholder_.error(errno);
  }
  if (::fsync(file) != 0 || !setTimes(file, shape) || ::fstat(file, &status) != 0 ||
      !marks.set(file, PlaceholderMarks::provided, versionOf(status)) || ::fsync(file) != 0 ||
      !marks.clear(file, PlaceholderMarks::placeholder)) {
    return placeholder_.error(errno);
  }
  isOpen_ = false;
  return {};
}

}  // namespace docsource
