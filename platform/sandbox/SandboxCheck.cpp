// The sandbox check.
//
// A path is walked the way the kernel would walk it for the process (path_resolution(7)): from the
// process's own root, one component at a time, with links resolved here. Each step is taken on a
// descriptor, so what was checked is what is used. What cannot be told from outside the process
// counts against it.

#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/stat.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstring>
#include <deque>
#include <string_view>
#include <vector>

#include "platform/identity/ProcessDirectory.h"
#include "platform/sandbox/Sandbox.h"

namespace {

using qx::AuditToken;
using qx::FileDescriptor;
using qx::ProcessDirectory;

constexpr int linkLimit = 40;
constexpr long procMagic = 0x9fa0;

enum Permission : unsigned { execute = 1, writing = 2, reading = 4 };

/// What the process may do with a file that the walk reached.
class Authority {
 public:
  static std::optional<Authority> of(const ProcessDirectory& process) {
    auto credentials = process.credentials();
    if (!credentials) return std::nullopt;
    return Authority(process, std::move(*credentials));
  }

  uid_t user() const { return credentials_.fileSystemUser; }
  bool isOf(const AuditToken& token) const {
    return credentials_.effectiveUser == token.effectiveUser() &&
           credentials_.effectiveGroup == token.effectiveGroup();
  }

  /// 0 or the errno, as inode_permission does it in the kernel.
  int check(const FileDescriptor& file, const struct stat& status, unsigned wanted) const {
    if (permits(file, status, wanted)) return 0;
    bool isDirectory = S_ISDIR(status.st_mode);
    if (!(wanted & writing) && (isDirectory || !(wanted & execute)) &&
        hasCapability(CAP_DAC_READ_SEARCH, status)) {
      return 0;
    }
    if ((isDirectory || !(wanted & execute)) && hasCapability(CAP_DAC_OVERRIDE, status)) return 0;
    return EACCES;
  }

 private:
  struct Range {
    std::uint64_t first, count;
  };

  Authority(const ProcessDirectory& process, ProcessDirectory::Credentials credentials)
      : credentials_(std::move(credentials)) {
    struct stat own, other;
    isKnown_ = stat("/proc/self/ns/user", &own) == 0 &&
               fstatat(process.descriptor(), "ns/user", &other, 0) == 0;
    isOurs_ = isKnown_ && qx::identityOf(own) == qx::identityOf(other);
    if (isKnown_ && !isOurs_) {
      users_ = mapped(process, "uid_map");
      groups_ = mapped(process, "gid_map");
    }
  }

  /// The numbers, as they are seen from here, that a user namespace knows (user_namespaces(7)).
  static std::vector<Range> mapped(const ProcessDirectory& process, const char* map) {
    std::vector<Range> ranges;
    auto text = process.read(map).value_or("");
    const char* at = text.data();
    const char* end = at + text.size();
    while (at != end) {
      std::array<std::uint64_t, 3> line{};
      for (auto& number : line) {
        while (at != end && *at == ' ') ++at;
        auto [behind, error] = std::from_chars(at, end, number);
        if (error != std::errc()) return {};
        at = behind;
      }
      ranges.push_back({line[1], line[2]});
      while (at != end && (*at == '\n' || *at == ' ')) ++at;
    }
    return ranges;
  }

  static bool contains(const std::vector<Range>& ranges, std::uint64_t number) {
    return std::any_of(ranges.begin(), ranges.end(), [&](const Range& range) {
      return number >= range.first && number - range.first < range.count;
    });
  }

  /// A capability counts for a file whose owner and group the process's user namespace knows.
  bool hasCapability(int capability, const struct stat& status) const {
    if (!(credentials_.effectiveCapabilities >> capability & 1) || !isKnown_) return false;
    return isOurs_ || (contains(users_, status.st_uid) && contains(groups_, status.st_gid));
  }

  bool isIn(gid_t group) const {
    return group == credentials_.fileSystemGroup ||
           std::find(credentials_.groups.begin(), credentials_.groups.end(), group) !=
               credentials_.groups.end();
  }

  bool permits(const FileDescriptor& file, const struct stat& status, unsigned wanted) const {
    auto has = [wanted](unsigned granted) { return (granted & wanted) == wanted; };
    if (status.st_uid == user()) return has(status.st_mode >> 6 & 7);
    // The group bits are the mask of an access-control list, and without any it gives nothing.
    if (status.st_mode & 070) {
      if (auto list = accessList(file)) return permitsByList(*list, status, wanted);
    }
    return has(isIn(status.st_gid) ? status.st_mode >> 3 & 7 : status.st_mode & 7);
  }

  struct ListEntry {
    std::uint16_t tag, granted;
    std::uint32_t identifier;
  };
  [[maybe_unused]] static constexpr std::uint16_t ownerTag = 1, userTag = 2, owningGroupTag = 4,
                                                  groupTag = 8, maskTag = 16, otherTag = 32;

  /// The POSIX access-control list (acl(5)) in the form of its extended attribute: a version and
  /// then the entries, little-endian. Absent when the file has none; one that cannot be read
  /// grants nothing.
  static std::optional<std::vector<ListEntry>> accessList(const FileDescriptor& file) {
    constexpr std::size_t header = 4;
    auto path = "/proc/self/fd/" + std::to_string(file.get());
    std::vector<char> bytes(XATTR_SIZE_MAX);
    ssize_t length = getxattr(path.c_str(), "system.posix_acl_access", bytes.data(), bytes.size());
    if (length < 0 && (errno == ENODATA || errno == EOPNOTSUPP)) return std::nullopt;
    std::vector<ListEntry> entries;
    for (std::size_t at = header;
         at + sizeof(ListEntry) <= static_cast<std::size_t>(std::max<ssize_t>(length, 0));
         at += sizeof(ListEntry)) {
      ListEntry entry;
      std::memcpy(&entry, bytes.data() + at, sizeof entry);
      entries.push_back(entry);
    }
    return entries;
  }

  bool permitsByList(const std::vector<ListEntry>& list, const struct stat& status,
                     unsigned wanted) const {
    unsigned mask = 7;
    for (const auto& entry : list) {
      if (entry.tag == maskTag) mask = entry.granted;
    }
    auto has = [wanted](unsigned granted) { return (granted & wanted) == wanted; };
    for (const auto& entry : list) {
      if (entry.tag == userTag && entry.identifier == user()) return has(entry.granted & mask);
    }
    bool isMember = false;
    for (const auto& entry : list) {
      bool matches = (entry.tag == owningGroupTag && isIn(status.st_gid)) ||
                     (entry.tag == groupTag && isIn(entry.identifier));
      if (matches && has(entry.granted & mask)) return true;
      isMember = isMember || matches;
    }
    if (isMember) return false;
    for (const auto& entry : list) {
      if (entry.tag == otherTag) return has(entry.granted);
    }
    return false;
  }

  ProcessDirectory::Credentials credentials_;
  bool isKnown_ = false;
  bool isOurs_ = false;
  std::vector<Range> users_;
  std::vector<Range> groups_;
};

/// Walks one path from the process's root; afterwards the file is where it led.
class Walk {
 public:
  Walk(const ProcessDirectory& process, const Authority& authority)
      : authority_(authority),
        root_(openat(process.descriptor(), "root", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

  const FileDescriptor& file() const { return current_; }
  const struct stat& status() const { return status_; }

  /// 0 or the errno.
  int to(const std::string& path) {
    if (!root_) return errno;
    append(path, pending_.end());
    if (int failure = enter(root_.duplicate())) return failure;
    while (!pending_.empty()) {
      auto component = std::move(pending_.front());
      pending_.pop_front();
      if (int failure = step(component)) return failure;
    }
    return isOnProc(current_) ? EACCES : 0;
  }

 private:
  /// The components of a path; a slash at its end asks for a directory, which "." does too.
  void append(std::string_view path, const std::deque<std::string>::iterator& where) {
    std::vector<std::string> components;
    while (!path.empty()) {
      auto end = std::min(path.find('/'), path.size());
      if (end > 0) components.emplace_back(path.substr(0, end));
      if (end + 1 == path.size()) components.emplace_back(".");
      path.remove_prefix(std::min(end + 1, path.size()));
    }
    pending_.insert(where, components.begin(), components.end());
  }

  int enter(FileDescriptor next) {
    if (!next) return errno;
    if (fstat(next.get(), &status_) != 0) return errno;
    current_ = std::move(next);
    return 0;
  }

  int step(const std::string& component) {
    if (!S_ISDIR(status_.st_mode)) return ENOTDIR;
    if (int failure = authority_.check(current_, status_, execute)) return failure;
    if (component == ".") return 0;
    if (component == "..") {
      auto atRoot = isRoot();
      if (!atRoot) return EACCES;
      if (*atRoot) return 0;
      return enter(FileDescriptor(openat(current_.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC)));
    }
    FileDescriptor next(openat(current_.get(), component.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!next) return errno;
    struct stat nextStatus;
    if (fstat(next.get(), &nextStatus) != 0) return errno;
    if (S_ISLNK(nextStatus.st_mode)) return follow(next, nextStatus);
    status_ = nextStatus;
    current_ = std::move(next);
    return 0;
  }

  int follow(const FileDescriptor& link, const struct stat& linkStatus) {
    if (++links_ > linkLimit) return ELOOP;
    // The links of a proc file system lead each reader somewhere else.
    if (isOnProc(link)) return EACCES;
    // Links in shared directories are followed by their owner alone (fs.protected_symlinks).
    bool isShared = (status_.st_mode & S_ISVTX) && (status_.st_mode & S_IWOTH);
    if (isShared && linkStatus.st_uid != authority_.user() && linkStatus.st_uid != status_.st_uid) {
      return EACCES;
    }
    std::array<char, PATH_MAX> target;
    ssize_t length = readlinkat(link.get(), "", target.data(), target.size());
    if (length < 0) return errno;
    if (length == 0) return ENOENT;
    std::string_view text(target.data(), static_cast<std::size_t>(length));
    append(text, pending_.begin());
    return text.starts_with('/') ? enter(root_.duplicate()) : 0;
  }

  static bool isOnProc(const FileDescriptor& file) {
    struct statfs system;
    return fstatfs(file.get(), &system) != 0 || system.f_type == procMagic;
  }

  /// Whether the walk stands on the process's root: the same directory on the same mount.
  std::optional<bool> isRoot() const {
    struct statx here, root;
    auto look = [](const FileDescriptor& file, struct statx& into) {
      return statx(file.get(), "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &into) == 0;
    };
    if (!look(current_, here) || !look(root_, root)) return std::nullopt;
    return here.stx_ino == root.stx_ino && here.stx_dev_major == root.stx_dev_major &&
           here.stx_dev_minor == root.stx_dev_minor && here.stx_mnt_id == root.stx_mnt_id;
  }

  const Authority& authority_;
  FileDescriptor root_;
  FileDescriptor current_;
  struct stat status_ {};
  std::deque<std::string> pending_;
  int links_ = 0;
};

/// What stands against a write whatever the permissions say.
int checkWritable(const FileDescriptor& file) {
  struct statvfs mount;
  if (fstatvfs(file.get(), &mount) != 0) return errno;
  if (mount.f_flag & ST_RDONLY) return EROFS;
  struct statx extended;
  if (statx(file.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &extended) != 0) return errno;
  if (extended.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) return EPERM;
  return 0;
}

int checkPath(const ProcessDirectory& process, const AuditToken& token, unsigned wanted,
              const std::string& path) {
  auto authority = Authority::of(process);
  if (!authority) return ESRCH;
  // Whoever connects and then executes a program that is set-user-ID or set-group-ID (execve(2)),
  // with the socket in a child's hands, gets nothing by that program's rights.
  if (!authority->isOf(token)) return EPERM;
  Walk walk(process, *authority);
  if (int failure = walk.to(path)) return failure;

  FileDescriptor outside(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status;
  if (!outside || fstat(outside.get(), &status) != 0) return errno;
  if (qx::identityOf(status) != qx::identityOf(walk.status())) return EACCES;

  if (int failure = authority->check(walk.file(), walk.status(), wanted)) return failure;
  return wanted & writing ? checkWritable(walk.file()) : 0;
}

}  // namespace

int SandboxCheckByAuditToken(const qx::AuditToken& token, std::string_view operation,
                             qx::SandboxFilter filter, unsigned, const std::string& path) {
  std::optional<unsigned> wanted;
  if (operation == "file-read-metadata") wanted = 0;
  if (operation == "file-read-data") wanted = reading;
  if (operation == "file-write-data") wanted = writing;
  if (!wanted || filter != qx::SandboxFilter::path || !path.starts_with('/') ||
      path.find('\0') != std::string::npos) {
    return EINVAL;
  }
  if (path.size() >= PATH_MAX) return ENAMETOOLONG;
  auto process = ProcessDirectory::open(token);
  if (!process) return ESRCH;
  int answer = checkPath(*process, token, *wanted, path);
  // What was read belonged to the process only if it is there to the end.
  return process->isRunning() ? answer : ESRCH;
}
