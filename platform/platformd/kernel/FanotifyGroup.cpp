// The two kinds of fanotify groups, as far as they are used here.

#include "platform/platformd/kernel/FanotifyGroup.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {
namespace {

constexpr std::uint64_t changeMask = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO |
                                     FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ATTRIB | FAN_ONDIR |
                                     FAN_EVENT_ON_CHILD;

/// What tells of the bytes that somebody wants to get at (fanotify(7), since Linux 6.14); not in
/// the headers of older C libraries.
constexpr std::uint8_t rangeRecord = 6;
struct RangeRecord {
  fanotify_event_info_header header;
  std::uint32_t pad;
  std::uint64_t offset;
  std::uint64_t count;
};

/// A denial that names its errno (FAN_DENY_ERRNO of later headers).
std::uint32_t response(int errnum) {
  return errnum == 0 ? FAN_ALLOW : FAN_DENY | (static_cast<std::uint32_t>(errnum & 0xff) << 24U);
}

int mark(int group, unsigned flags, std::uint64_t mask, int file) {
  return fanotify_mark(group, flags, mask, AT_FDCWD, procPath(file).c_str()) == 0 ? 0 : errno;
}

/// Hands each event that can be read now to `take`, with its length, or some of them.
template <class Take>
void readEvents(int group, bool all, Take take) {
  alignas(fanotify_event_metadata) std::array<char, 16384> buffer;
  for (;;) {
    const ssize_t length = read(group, buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return;
    for (std::size_t at = 0; at + sizeof(fanotify_event_metadata) <= std::size_t(length);) {
      fanotify_event_metadata event;
      std::memcpy(&event, buffer.data() + at, sizeof event);
      if (event.event_len < sizeof event || at + event.event_len > std::size_t(length)) break;
      take(event, buffer.data() + at);
      at += event.event_len;
    }
    if (!all) return;
  }
}

std::optional<ByteRange> rangeIn(const char* event, const fanotify_event_metadata& metadata) {
  std::size_t at = metadata.metadata_len;
  while (at + sizeof(fanotify_event_info_header) <= metadata.event_len) {
    RangeRecord record;
    std::memcpy(&record.header, event + at, sizeof record.header);
    if (record.header.len < sizeof record.header || at + record.header.len > metadata.event_len) {
      return std::nullopt;
    }
    if (record.header.info_type == rangeRecord && record.header.len >= sizeof record) {
      std::memcpy(&record, event + at, sizeof record);
      constexpr auto most = std::numeric_limits<std::uint64_t>::max();
      return ByteRange{record.offset, record.offset + std::min(record.count, most - record.offset)};
    }
    at += record.header.len;
  }
  return std::nullopt;
}

/// A thread that is no process of its own is told by no descriptor (pidfd_open(2)), without a look
/// into its directory.
pid_t processOf(pid_t thread) {
  if (FileDescriptor(static_cast<int>(syscall(SYS_pidfd_open, thread, 0)))) return thread;
  const auto directory = ProcessDirectory::open(thread);
  const auto status = directory ? directory->read("status") : std::nullopt;
  const auto at = status ? status->find("\nTgid:") : std::string::npos;
  return at == std::string::npos ? thread : std::atoi(status->c_str() + at + 6);
}

/// The directory, name and file that an event's records give.
void readRecords(const char* event, const fanotify_event_metadata& metadata, ChangeEvent& change) {
  std::size_t at = metadata.metadata_len;
  while (at + sizeof(fanotify_event_info_header) <= metadata.event_len) {
    fanotify_event_info_header header;
    std::memcpy(&header, event + at, sizeof header);
    if (header.len < sizeof header || at + header.len > metadata.event_len) return;
    constexpr std::size_t handleOffset = offsetof(fanotify_event_info_fid, handle);
    const bool isName = header.info_type == FAN_EVENT_INFO_TYPE_DFID_NAME;
    if ((isName || header.info_type == FAN_EVENT_INFO_TYPE_FID) &&
        header.len >= handleOffset + sizeof(file_handle)) {
      file_handle handle;
      std::memcpy(&handle, event + at + handleOffset, sizeof handle);
      const std::size_t nameOffset = handleOffset + sizeof handle + handle.handle_bytes;
      if (nameOffset > header.len) return;
      FileHandle file{{}, handle.handle_type, {}};
      std::memcpy(file.fileSystem.data(), event + at + offsetof(fanotify_event_info_fid, fsid),
                  file.fileSystem.size());
      file.bytes.assign(event + at + handleOffset + sizeof handle, handle.handle_bytes);
      if (isName) {
        const char* name = event + at + nameOffset;
        change.name.assign(name, strnlen(name, header.len - nameOffset));
        change.directory = std::move(file);
      } else {
        change.target = std::move(file);
      }
    }
    at += header.len;
  }
}

}  // namespace

Result<AccessGroup> AccessGroup::create(bool waitsForLeases) {
  // Read-only, so that the kernel can open the file for us on a mount that is.
  const int opening = O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NOATIME;
  FileDescriptor group(
      fanotify_init(FAN_CLASS_PRE_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE |
                        FAN_UNLIMITED_MARKS | FAN_REPORT_TID,
                    static_cast<unsigned>(waitsForLeases ? opening : opening | O_NONBLOCK)));
  if (!group) return posixError(errno, "The kernel cannot be asked for accesses to files");
  return AccessGroup(std::move(group));
}

std::vector<AccessEvent> AccessGroup::read() const {
  std::vector<AccessEvent> events;
  readEvents(descriptor_.get(), true, [&](const fanotify_event_metadata& event, const char* bytes) {
    if (event.fd < 0) return;
    events.push_back({FileDescriptor(event.fd), event.pid, processOf(event.pid), event.mask,
                      rangeIn(bytes, event)});
  });
  return events;
}

bool AccessGroup::answer(int number, int errnum) const {
  fanotify_response reply{number, response(errnum)};
  if (write(descriptor_.get(), &reply, sizeof reply) == sizeof reply) return true;
  if (errno != EINVAL) return false;
  reply.response = FAN_DENY;
  return write(descriptor_.get(), &reply, sizeof reply) == sizeof reply;
}

bool AccessGroup::knowsAccess(const std::string& directory) const {
  // On the directory itself, which has no content that anybody accesses; taken away again.
  const FileDescriptor opened(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened || mark(descriptor_.get(), FAN_MARK_ADD, preAccess, opened.get()) != 0) return false;
  mark(descriptor_.get(), FAN_MARK_REMOVE, preAccess, opened.get());
  return true;
}

int AccessGroup::watchDirectory(int directory, std::uint64_t mask) const {
  return mark(descriptor_.get(), FAN_MARK_ADD, mask | FAN_EVENT_ON_CHILD, directory);
}

int AccessGroup::watchFile(int file, std::uint64_t mask) const {
  return mark(descriptor_.get(), FAN_MARK_ADD, mask, file);
}

int AccessGroup::watchFileInMemory(int file, std::uint64_t mask) const {
  const int errnum = mark(descriptor_.get(), FAN_MARK_ADD | FAN_MARK_EVICTABLE, mask, file);
  return errnum == EEXIST ? watchFile(file, mask) : errnum;
}

int AccessGroup::unwatchFile(int file, std::uint64_t mask) const {
  return mark(descriptor_.get(), FAN_MARK_REMOVE, mask, file);
}

int AccessGroup::ignoreFile(int file, std::uint64_t mask) const {
  const unsigned flags = FAN_MARK_ADD | FAN_MARK_IGNORE;
  const int errnum = mark(descriptor_.get(), flags | FAN_MARK_EVICTABLE, mask, file);
  // The file has a mark that is to stay: this one joins it.
  return errnum == EEXIST ? mark(descriptor_.get(), flags, mask, file) : errnum;
}

int AccessGroup::stopIgnoring(int file, std::uint64_t mask) const {
  return mark(descriptor_.get(), FAN_MARK_REMOVE | FAN_MARK_IGNORE, mask, file);
}

Result<ChangeGroup> ChangeGroup::create() {
  FileDescriptor group(fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME_TARGET | FAN_CLOEXEC |
                                         FAN_NONBLOCK | FAN_UNLIMITED_MARKS,
                                     O_RDONLY | O_LARGEFILE | O_CLOEXEC));
  if (!group) return posixError(errno, "The kernel cannot be asked for changes of files");
  return ChangeGroup(std::move(group));
}

std::vector<ChangeEvent> ChangeGroup::read(bool all) const {
  std::vector<ChangeEvent> events;
  readEvents(descriptor_.get(), all, [&](const fanotify_event_metadata& event, const char* bytes) {
    ChangeEvent change{event.mask, event.pid, {}, {}, {}};
    if (!(event.mask & FAN_Q_OVERFLOW)) {
      readRecords(bytes, event, change);
      if (!change.directory) return;
    }
    events.push_back(std::move(change));
  });
  return events;
}

int ChangeGroup::watchDirectory(int directory) const {
  return mark(descriptor_.get(), FAN_MARK_ADD, changeMask, directory);
}

int ChangeGroup::watchNames(int file) const {
  return mark(descriptor_.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_CREATE | FAN_MOVED_TO,
              file);
}

}  // namespace qx::kernel
