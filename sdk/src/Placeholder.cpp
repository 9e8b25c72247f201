// Sparse files that stand for documents.
//
// Every step that takes content away is preceded by the mark, made durable, and the mark is cleared
// as the last step of bringing content in. So whatever is cut off, and wherever, the file says
// itself whether its content can be trusted.
//
// Eviction marks under a lease: nobody else has the file open or mapped while it is looked at, and
// who opens it is held back. Asking for the lease a second time, with the mark set, tells whether
// somebody came in between: the kernel counts who opens a file before it tells the platform, so
// that nobody who was let through because there was no mark is overlooked. Content goes without
// the lease where it goes in place: to tell of an access the kernel opens the file itself, and
// would wait for it.

#include "docsource/placeholder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <limits>
#include <utility>

#include "platform/coordination/CoordinationState.h"
#include "sdk/src/AsOwner.h"
#include "sdk/src/PlaceholderMark.h"
#include "sdk/src/Replacement.h"
#include "sdk/src/SparseFile.h"

namespace docsource {
namespace {

constexpr mode_t permissions = 07777;
constexpr mode_t ownerAccess = S_IRUSR | S_IWUSR;
constexpr mode_t usualMode = 0644;

/// Whether nobody keeps readers waiting, as far as is known.
bool isCooperative() {
  return qx::readCoordinationMechanism().value_or(qx::CoordinationMechanism::cooperative) ==
         qx::CoordinationMechanism::cooperative;
}

/// Whether nobody would keep readers of this file waiting if it had permissions: platformd gives
/// them to a placeholder that has none as soon as it guards it, and nobody does before.
bool isUnguarded(const struct stat& status) {
  return (status.st_mode & permissions) == 0 || isCooperative();
}
bool isUnguarded(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 ? isUnguarded(status) : isCooperative();
}

std::string pathOf(int file) {
  std::string path(4096, '\0');
  const auto link = mark::descriptorPath(file);
  const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
  return size < 0 ? link : path.substr(0, static_cast<std::size_t>(size));
}
Error fileError(int file, int errnum) { return Error::file(errnum, pathOf(file)); }

Placeholder::Shape shapeOf(const struct stat& status, const mark::Mark& mark) {
  Placeholder::Shape shape{static_cast<std::uint64_t>(status.st_size),
                           sparse::timeOf(status.st_mtim), sparse::timeOf(status.st_atim)};
  // Root reads the mark of a placeholder that platformd has hidden, which does not say its mode.
  const bool isHidden = mark.isHidden || (mark.state != PlaceholderState::present && !mark.mode &&
                                          (status.st_mode & permissions) == 0);
  if (!isHidden) shape.mode = mark.mode.value_or(status.st_mode & permissions);
  return shape;
}

mode_t modeOf(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 ? status.st_mode & permissions : 0;
}

/// A descriptor that reads and writes, or only reads: the caller's own, or one more.
class Access {
 public:
  static Result<Access> open(int file, int flags = O_RDWR) {
    Access access(file);
    const int has = ::fcntl(file, F_GETFL);
    const bool canWrite = (has & O_ACCMODE) == O_RDWR;
    if (!(has & O_PATH) && (canWrite || flags == O_RDONLY)) return access;
    const auto path = mark::descriptorPath(file);
    access.own_ =
        Descriptor(asOwner(file, [&] { return ::open(path.c_str(), flags | O_CLOEXEC); }));
    if (!access.own_) return fileError(file, errno);
    return access;
  }
  int get() const { return own_ ? own_.get() : file_; }

 private:
  explicit Access(int file) : file_(file) {}

  int file_;
  Descriptor own_;
};

/// The file for oneself: held from when it is found that nobody else has it open or mapped. Others
/// that want to open it wait.
class Lease {
 public:
  explicit Lease(int file) : file_(file) {
    // Instead of SIGIO, which ends a process that does not expect it.
    if (::fcntl(file_, F_SETSIG, SIGURG) != 0 || !take()) problem_ = errno;
  }
  ~Lease() {
    if (problem_ == 0) ::fcntl(file_, F_SETLEASE, F_UNLCK);
    ::fcntl(file_, F_SETSIG, 0);
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  /// 0, or the errno of what stood in the way: EAGAIN when the file is in use.
  int problem() const { return problem_; }
  /// Lets others open the file to read it. The kernel does so too when it tells platformd of them,
  /// and where it would have to wait, it refuses them instead. With a descriptor that can write
  /// this is not possible.
  void admitReaders() const { ::fcntl(file_, F_SETLEASE, F_RDLCK); }
  /// Whether nobody has it open, nor has come since to wait.
  bool isAlone() const { return take(); }

 private:
  bool take() const { return ::fcntl(file_, F_SETLEASE, F_WRLCK) == 0; }

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

bool isOfShape(int file, const Placeholder::Shape& shape) {
  struct stat status {};
  constexpr mode_t compared = 0777;
  return ::fstat(file, &status) == 0 && static_cast<std::uint64_t>(status.st_size) == shape.size &&
         sparse::timeOf(status.st_mtim) == shape.modified &&
         (!shape.mode || ((status.st_mode ^ *shape.mode) & compared) == 0);
}

/// Whether programs may have read parts of the file before all of it was there.
bool hasParts(int file) {
  const auto mark = mark::read(file);
  return mark.state != PlaceholderState::present && mark.parts && !mark.parts->isEmpty();
}

/// Whether a placeholder is as it was made, so that there is nothing in it to clear away. Its first
/// block may hold anything: nobody is let read it before it is written.
bool isUntouched(int file, const Placeholder::Shape& shape) {
  constexpr blkcnt_t unit = 512;  // inode(7)
  struct stat status {};
  return ::fstat(file, &status) == 0 && status.st_blocks > 0 &&
         status.st_blocks * unit <= status.st_blksize &&
         static_cast<std::uint64_t>(status.st_size) == shape.size &&
         sparse::timeOf(status.st_mtim) == shape.modified;
}

/// Makes a placeholder of a file that is new. One without a name is marked last: nobody else can
/// see it, and its size changes without anybody being asked.
bool makePlaceholder(int file, const Placeholder::Shape& shape, mode_t mode, bool cooperative) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return false;
  const bool isNamed = status.st_nlink > 0;
  if (!isNamed && !sparse::makeSparse(file, shape, !cooperative)) return false;
  return mark::setPlaceholder(file, cooperative ? std::optional(mode) : std::nullopt) &&
         ::fchmod(file, cooperative ? 0 : mode) == 0 &&
         (!isNamed || sparse::makeSparse(file, shape, !cooperative));
}

/// Makes a placeholder of a file that is marked already, where readers are kept waiting. Its
/// permissions stay what they are, unless others are asked for.
bool emptyInPlace(int file, const Placeholder::Shape& shape, std::optional<unsigned> mode) {
  return mark::setPlaceholder(file, std::nullopt) &&
         (!mode || ::fchmod(file, static_cast<mode_t>(*mode)) == 0) &&
         sparse::makeSparse(file, shape, true);
}

/// A placeholder, on its way to the place of `old`.
Result<Replacement> placeholderFor(int old, const Placeholder::Shape& shape, mode_t mode,
                                   const Placeholder::Announcement& announce,
                                   bool cooperative = true) {
  auto made = Replacement::beginFor(old);
  if (!made) return made;
  mark::copyOtherAttributes(old, made->file());
  if (!makePlaceholder(made->file(), shape, mode, cooperative) || ::fsync(made->file()) != 0) {
    return fileError(old, errno);
  }
  if (announce) {
    if (auto announced = announce(made->file()); !announced) return announced.error();
  }
  return made;
}

/// Marks a file whose content is there, durably.
bool markDurably(int file) {
  return mark::setPlaceholder(file, std::nullopt) && ::fsync(file) == 0 && withdrawLeave(file);
}

}  // namespace

Result<PlaceholderStatus> placeholderStatus(const std::string& path) {
  constexpr std::uint64_t blockUnit = 512;
  const Descriptor file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return Error::file(errno, path);
  if (!S_ISREG(status.st_mode)) {
    return Error::file(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
  }
  return PlaceholderStatus{mark::read(file.get()).state, static_cast<std::uint64_t>(status.st_size),
                           static_cast<std::uint64_t>(status.st_blocks) * blockUnit};
}

Result<bool> isFileInUse(int file) {
  const Lease lease(file);
  if (lease.problem() == 0) return false;
  if (lease.problem() == EAGAIN) return true;
  return fileError(file, lease.problem());
}

Result<Placeholder::Shape> Placeholder::shapeOf(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return fileError(file, errno);
  return docsource::shapeOf(status, mark::read(file));
}

Result<void> Placeholder::make(const std::string& path, const Shape& shape,
                               const Announcement& announce) {
  const auto slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor made(::open(directory.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC,
                               shape.mode ? ownerAccess : usualMode));
  if (!made) return Error::file(errno, path);
  if (auto reset = Placeholder(made.get()).reset(shape); !reset) return reset;
  if (announce) {
    if (auto announced = announce(made.get()); !announced) return announced;
  }
  if (::fsync(made.get()) != 0 || ::linkat(AT_FDCWD, mark::descriptorPath(made.get()).c_str(),
                                           AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    return Error::file(errno, path);
  }
  return {};
}

PlaceholderState Placeholder::state() const { return mark::read(file_).state; }

Result<void> Placeholder::reset(const Shape& shape, const Announcement& announce) const {
  struct stat status {};
  if (::fstat(file_, &status) != 0) return fileError(file_, errno);
  const auto mark = mark::read(file_);
  if (mark.isEmptied) return fileError(file_, ESTALE);
  const auto mode = static_cast<mode_t>(
      shape.mode.value_or(docsource::shapeOf(status, mark).mode.value_or(usualMode)));
  const bool isPresent = mark.state == PlaceholderState::present;
  const bool isNew = status.st_size == 0 && isPresent;
  const bool isHidden = !isNew && isUnguarded(status);
  // What programs may have read of the content keeps to its file.
  if (!isNew && (isHidden || hasParts(file_))) {
    auto made = placeholderFor(file_, shape, mode, announce, isHidden);
    if (!made) return made.error();
    if (auto exchanged = made->exchange(); !exchanged) return exchanged;
    if (modeOf(file_) == (status.st_mode & permissions)) return made->settle();
    // Somebody has just changed its permissions: those count.
    if (auto undone = made->undo(); !undone) return undone;
    return fileError(file_, ESTALE);
  }
  auto access = Access::open(file_);
  if (!access) return access.error();
  if (announce) {
    if (auto announced = announce(file_); !announced) return announced.error();
  }
  const int file = access->get();
  // A file that is being made has nothing yet that could go before the mark is durable.
  const bool done =
      isNew ? makePlaceholder(file, shape, mode, isCooperative())
            : (!isPresent || (mark::setPlaceholder(file, std::nullopt) && ::fsync(file) == 0)) &&
                  emptyInPlace(file, shape, shape.mode);
  if (!done) return fileError(file_, errno);
  return {};
}

Result<void> Placeholder::adapt(const Announcement& announce) const {
  struct stat status {};
  if (::fstat(file_, &status) != 0) return fileError(file_, errno);
  const auto mark = mark::read(file_);
  if (mark.state == PlaceholderState::present) return {};
  const bool isHidden = (status.st_mode & permissions) == 0;
  if (isHidden || !isCooperative()) return {};
  return reset(docsource::shapeOf(status, mark), announce);
}

class PlaceholderWriter::Target {
 public:
  Target(Access access, const Placeholder::Shape& shape)
      : access_(std::move(access)), shape_(shape), modeBefore_(modeNow()) {}
  Target(Replacement replacement, int old, const Placeholder::Shape& shape)
      : replacement_(std::move(replacement)), old_(old), shape_(shape), modeBefore_(modeNow()) {}
  ~Target() {
    if (isDone_ || !access_ || !check()) return;
    if (parts_ && !parts_->isEmpty()) {
      // Somebody may have read them.
      mark::setPlaceholder(file(), std::nullopt, parts_);
    } else {
      // What cannot be given back stays, in what is a placeholder all the same.
      static_cast<void>(emptyInPlace(file(), shape_, std::nullopt));
    }
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  int file() const { return access_ ? access_->get() : replacement_->file(); }
  Error error(int errnum) const { return fileError(file(), errnum); }

  const std::optional<qx::ByteRanges>& parts() const { return parts_; }
  void setParts(std::optional<qx::ByteRanges> parts) { parts_ = std::move(parts); }
  Result<void> publish(const qx::ByteRanges& parts) {
    if (!access_) return {};
    if (auto checked = check(); !checked) return checked;
    auto all = parts_.value_or(qx::ByteRanges());
    for (const auto& [begin, end] : parts.all()) all.add({begin, end});
    if (all != parts_ && !all.isEmpty() && ::fsync(file()) != 0) return error(errno);
    // Set again even if it says so already: who is told of it may not have been.
    if (!mark::setProviding(file(), std::nullopt, all, true)) {
      return error(errno == ENODATA ? ESTALE : errno);
    }
    parts_ = std::move(all);
    return {};
  }

  /// Fails when a program has emptied the file: what it has from then on is that program's content.
  /// The mark has gone, then. Or the file is shorter, and platformd may not find it empty any more;
  /// the program, which waits before it writes, goes on when platformd has made it so.
  Result<void> check() {
    if (!access_) return {};
    const bool isMarked = mark::read(file()).state != PlaceholderState::present;
    if (isMarked && !isShorter()) return {};
    if (isMarked) mark::setEmptied(file());
    isDone_ = true;
    return error(ESTALE);
  }

  /// Why it could not be written to: platformd, too, keeps old content out of what was emptied.
  Result<void> failed(int errnum) {
    if (auto checked = check(); !checked) return checked;
    return error(errnum);
  }

  Result<void> finish(const Placeholder::Shape& shape) {
    if (auto checked = check(); !checked) return checked;
    struct stat status {};
    if (::fstat(file(), &status) != 0) return error(errno);
    if (static_cast<std::uint64_t>(status.st_size) != shape.size &&
        !sparse::setSize(file(), shape.size)) {
      return error(errno);
    }
    return access_ ? finishInPlace(shape) : finishReplacement(shape);
  }

 private:
  /// Of the document, as far as it is known: what somebody has given it while it was filled.
  mode_t mode(const Placeholder::Shape& shape) const {
    const auto now = modeNow();
    if (now != 0 && now != modeBefore_) return now;
    return static_cast<mode_t>(shape.mode.value_or(shape_.mode.value_or(usualMode)));
  }
  /// Of the placeholder.
  mode_t modeNow() const { return modeOf(access_ ? file() : old_); }

  /// Where only openings wait, who empties the file by its name means what it leaves of it.
  bool isShorter() const {
    struct stat status {};
    return ::fstat(file(), &status) == 0 &&
           static_cast<std::uint64_t>(status.st_size) < shape_.size &&
           qx::readCoordinationMechanism() == qx::CoordinationMechanism::access;
  }

  Result<void> finishInPlace(const Placeholder::Shape& shape) {
    if (!sparse::setTimes(file(), shape) || ::fsync(file()) != 0 || !mark::clear(file())) {
      return error(errno);
    }
    isDone_ = true;
    // It may have been hidden meanwhile by who guarded it and ended.
    const bool shallChange = shape.mode || modeNow() == 0;
    if (shallChange && ::fchmod(file(), mode(shape)) != 0) return error(errno);
    return {};
  }

  Result<void> finishReplacement(const Placeholder::Shape& shape) {
    const bool knowsMode = shape.mode || shape_.mode;
    if (!sparse::setTimes(file(), shape) ||
        ::fchmod(file(), knowsMode ? mode(shape) : ownerAccess) != 0 || ::fsync(file()) != 0) {
      return error(errno);
    }
    if (auto exchanged = replacement_->exchange(); !exchanged) return exchanged;
    // Given to the placeholder until that moment.
    if (const auto given = modeNow(); given != 0 && given != modeBefore_) {
      if (::fchmod(file(), given) != 0) return error(errno);
    }
    if (!shape_.mode) {
      // It keeps having no permissions: who was about to open it by its name would read zeros.
      // Without a namespace it may have some for a moment, unless platformd hides it again.
      auto mark = mark::readAsOwner(old_);
      for (int attempt = 1; mark.isHidden && attempt < 100; ++attempt) {
        mark = mark::readAsOwner(old_);
      }
      if (mark.state == PlaceholderState::present) {
        if (auto undone = replacement_->undo(); !undone) return undone;
        return error(ESTALE);
      }
      if (!shape.mode && ::fchmod(file(), mark.mode.value_or(usualMode)) != 0) return error(errno);
    }
    mark::copyOtherAttributes(old_, file());
    return replacement_->settle();
  }

  std::optional<Access> access_;  // in place
  std::optional<Replacement> replacement_;
  int old_ = -1;
  Placeholder::Shape shape_;
  mode_t modeBefore_ = 0;
  std::optional<qx::ByteRanges> parts_;  // that the mark tells of
  bool isDone_ = false;
};

Result<PlaceholderWriter> Placeholder::fill(bool goesOn, bool onlyPlaceholder) const {
  const auto shape = shapeOf(file_);
  if (!shape) return shape.error();
  const auto was = mark::read(file_);
  const bool wasPresent = was.state == PlaceholderState::present && !was.isHidden;
  if (was.isEmptied || (onlyPlaceholder && wasPresent)) return fileError(file_, ESTALE);
  if (isUnguarded(file_) || (!goesOn && hasParts(file_))) {
    auto replacement = Replacement::beginFor(file_);
    if (!replacement) return replacement.error();
    if (!sparse::setSize(replacement->file(), shape->size)) return fileError(file_, errno);
    return PlaceholderWriter(
        std::make_unique<PlaceholderWriter::Target>(*std::move(replacement), file_, *shape));
  }
  auto access = Access::open(file_);
  if (!access) return access.error();
  const auto& now = *shape;
  auto kept = goesOn ? was.parts : std::nullopt;
  if (!mark::setProviding(access->get(), std::nullopt, kept, !wasPresent)) {
    return fileError(file_, errno == ENODATA ? ESTALE : errno);
  }
  auto target = std::make_unique<PlaceholderWriter::Target>(*std::move(access), now);
  const int file = target->file();
  if (kept && !kept->isEmpty()) {
    target->setParts(std::move(kept));
    return PlaceholderWriter(std::move(target));
  }
  if (was.state == PlaceholderState::present) {
    if (::fsync(file) != 0) return fileError(file_, errno);
  } else if (was.state != PlaceholderState::placeholder || !isUntouched(file, now)) {
    if (!sparse::makeSparse(file, now, true)) return fileError(file_, errno);
  }
  return PlaceholderWriter(std::move(target));
}

Result<Placeholder::Eviction> Placeholder::evict(const Shape& provided,
                                                 const std::optional<Shape>& next,
                                                 const Announcement& announce) const {
  if (state() != PlaceholderState::present) return Eviction::notPresent;
  const bool cooperative = isUnguarded(file_);
  // Nobody may have it open for the lease, this process neither, but for the one descriptor.
  auto access = Access::open(file_, O_RDONLY);
  if (!access) return access.error();
  const int file = access->get();
  struct stat status {};
  if (::fstat(file, &status) != 0) return fileError(file_, errno);
  const auto shape = next.value_or(docsource::shapeOf(status, {}));
  const mode_t now = status.st_mode & permissions;
  {
    const Lease lease(file);
    if (lease.problem() == EAGAIN) return Eviction::inUse;
    if (lease.problem() != 0) return fileError(file_, lease.problem());
    // Only now, with nobody left who could change it.
    if (!isOfShape(file, provided)) return Eviction::changed;
    if (cooperative) {
      if (status.st_nlink > 1) return Eviction::inUse;
      const auto mode = next && next->mode ? static_cast<mode_t>(*next->mode) : now;
      auto made = placeholderFor(file_, shape, mode, announce);
      if (!made) return made.error();
      if (auto exchanged = made->exchange(); !exchanged) return exchanged.error();
      const bool isAlone = lease.isAlone() && isOfShape(file, provided) && modeOf(file) == now;
      const auto ended = isAlone ? made->settle() : made->undo();
      if (!ended) return ended.error();
      return isAlone ? Eviction::evicted : Eviction::inUse;
    }
    lease.admitReaders();
    if (announce) {
      if (auto announced = announce(file_); !announced) return announced.error();
    }
    const bool isMarked = markDurably(file);
    const int problem = errno;
    if (!isMarked || !lease.isAlone() || !isOfShape(file, provided)) {
      if (!mark::clear(file)) return fileError(file_, errno);
      if (!isMarked) return fileError(file_, problem);
      return Eviction::inUse;
    }
  }
  // There is no way back. Whoever gets at the file from now on waits for its content.
  const auto writable = Access::open(file);
  if (!writable) return writable.error();
  if (!emptyInPlace(writable->get(), shape, next ? next->mode : std::nullopt)) {
    return fileError(file_, errno);
  }
  return Eviction::evicted;
}

PlaceholderWriter::PlaceholderWriter(std::unique_ptr<Target> target) : target_(std::move(target)) {}
PlaceholderWriter::PlaceholderWriter(PlaceholderWriter&& other) noexcept = default;
PlaceholderWriter::~PlaceholderWriter() = default;

int PlaceholderWriter::file() const { return target_->file(); }

Result<void> PlaceholderWriter::write(std::string_view bytes) { return writeAt(position_, bytes); }

Result<void> PlaceholderWriter::writeAt(std::uint64_t offset, std::string_view bytes) {
  constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (offset > largest || bytes.size() > largest - offset) return target_->error(EFBIG);
  if (auto checked = target_->check(); !checked) return checked;
  if (!sparse::writeAt(file(), static_cast<off_t>(offset), bytes)) return target_->failed(errno);
  position_ = offset + bytes.size();
  return {};
}

PlaceholderWriter::Parts PlaceholderWriter::parts() const {
  const auto& parts = target_->parts();
  return parts ? Parts(parts->all().begin(), parts->all().end()) : Parts();
}

Result<void> PlaceholderWriter::publish(const Parts& parts) {
  qx::ByteRanges ranges;
  for (const auto& [begin, end] : parts) ranges.add({begin, end});
  return target_->publish(ranges);
}

Result<void> PlaceholderWriter::copy(int source) {
  if (auto checked = target_->check(); !checked) return checked;
  const off_t size = sparse::copy(source, file());
  if (size < 0) return target_->failed(errno);
  position_ = static_cast<std::uint64_t>(size);
  return {};
}

Result<void> PlaceholderWriter::finish(const Placeholder::Shape& shape) {
  return target_->finish(shape);
}

}  // namespace docsource
