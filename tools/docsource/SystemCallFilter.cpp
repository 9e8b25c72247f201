// The filter is a list of what is refused, made with libseccomp (seccomp_rule_add(3)). The kernel
// looks at the lower half of an argument that is an int; comparisons are made on that half where
// only some of its values are refused.

#include "tools/docsource/SystemCallFilter.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <initializer_list>
#include <memory>

#include "platform/base/Errors.h"

namespace tool {
namespace {

constexpr std::uint32_t refusal = SCMP_ACT_ERRNO(EPERM);
constexpr std::uint64_t lowerHalf = 0xffffffff;

/// Refused whatever the arguments are. What an architecture or the library does not have is passed
/// over.
constexpr std::array refused{
    // Keyrings, which all processes of the user share.
    "add_key", "keyctl", "request_key",
    // Other processes.
    "kcmp", "pidfd_getfd", "process_madvise", "process_vm_readv", "process_vm_writev", "ptrace",
    // The kernel: its programs, modules, successors, faults and figures.
    "acct", "bpf", "create_module", "delete_module", "finit_module", "get_kernel_syms",
    "init_module", "ioperm", "iopl", "kexec_file_load", "kexec_load", "lookup_dcookie",
    "nfsservctl", "open_by_handle_at", "perf_event_open", "query_module", "quotactl", "quotactl_fd",
    "reboot", "swapoff", "swapon", "syslog", "userfaultfd", "vhangup", "vm86", "vm86old",
    // Hard links, by which a document would stay within reach when its grant is taken back.
    "link", "linkat",
    // What does the work of other system calls without being seen by a filter.
    "io_uring_enter", "io_uring_register", "io_uring_setup",
    // Mounts and namespaces.
    "chroot", "fsconfig", "fsmount", "fsopen", "fspick", "mount", "mount_setattr", "move_mount",
    "open_tree", "pivot_root", "setns", "umount", "umount2"};
/// Those that this version of the library has no name for; the number is the same everywhere.
constexpr std::array refusedNumbers{467 /* open_tree_attr */};

class Filter {
 public:
  Filter() : context_(::seccomp_init(SCMP_ACT_ALLOW), ::seccomp_release) {
    if (!context_) failed_ = ENOMEM;
    keep([&] { return ::seccomp_attr_set(get(), SCMP_FLTATR_ACT_BADARCH, refusal); });
  }

  void refuse(int call) { add(refusal, call, {}); }
  /// Where all of the comparisons hold.
  void refuse(int call, std::initializer_list<scmp_arg_cmp> comparisons) {
    add(refusal, call, comparisons);
  }
  void refuse(const char* name) {
    const int call = ::seccomp_syscall_resolve_name(name);
    if (call != __NR_SCMP_ERROR) refuse(call);
  }
  void pretendToLack(int call) { add(SCMP_ACT_ERRNO(ENOSYS), call, {}); }

  qx::Result<qx::FileDescriptor> file() {
    qx::FileDescriptor file(::memfd_create("filter", MFD_CLOEXEC));
    if (!file) return qx::posixError(errno, "The filter of system calls");
    keep([&] { return ::seccomp_export_bpf(get(), file.get()); });
    if (failed_ == 0 && ::lseek(file.get(), 0, SEEK_SET) != 0) failed_ = errno;
    if (failed_ != 0) return qx::posixError(failed_, "The filter of system calls");
    return file;
  }

 private:
  scmp_filter_ctx get() const { return context_.get(); }

  template <class Operation>
  void keep(Operation operation) {
    if (failed_ != 0) return;
    failed_ = -operation();
  }

  void add(std::uint32_t action, int call, std::initializer_list<scmp_arg_cmp> comparisons) {
    keep([&] {
      return ::seccomp_rule_add_array(get(), action, call,
                                      static_cast<unsigned>(comparisons.size()),
                                      comparisons.size() == 0 ? nullptr : comparisons.begin());
    });
  }

  std::unique_ptr<void, void (*)(void*)> context_;
  int failed_ = 0;
};

scmp_arg_cmp has(unsigned argument, std::uint64_t mask, std::uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

/// Only the ordinary way to execute programs, and the one that calls itself 32-bit or an old
/// kernel; and asking, which is a personality of all ones. So of the one without the highest bit
/// the others are refused, and of the one with it what lacks any other.
void refusePersonalities(Filter& filter) {
  constexpr std::uint64_t highest = std::uint64_t{1} << 31,
                          harmless = std::uint64_t{PER_LINUX32} | std::uint64_t{UNAME26};
  for (std::uint64_t bit = 1; bit < highest; bit <<= 1) {
    if ((bit & harmless) == 0) filter.refuse(SCMP_SYS(personality), {has(0, highest | bit, bit)});
    filter.refuse(SCMP_SYS(personality), {has(0, highest | bit, highest)});
  }
}

/// All families but those that have their own network here, and sockets in the file system. Some
/// of the others reach out of every namespace (vsock(7)).
void refuseSockets(Filter& filter) {
  constexpr unsigned last = AF_NETLINK;
  for (const int call : {SCMP_SYS(socket), SCMP_SYS(socketpair)}) {
    for (unsigned family = AF_UNSPEC; family < last; ++family) {
      if (family == AF_UNIX || family == AF_INET || family == AF_INET6) continue;
      filter.refuse(call, {{0, SCMP_CMP_EQ, family, 0}});
    }
    filter.refuse(call, {{0, SCMP_CMP_GT, last, 0}});
  }
}

/// No set-user-ID and no set-group-ID bit: a document that had one would run as the user outside,
/// whoever executed it. Of openat2 a filter cannot see the mode, and programs take openat where it
/// is missing.
void refuseSpecialModes(Filter& filter) {
  constexpr int fchmodat2 = 452, temporary = O_TMPFILE & ~O_DIRECTORY;
  for (const std::uint64_t bit : {S_ISUID, S_ISGID}) {
    filter.refuse(SCMP_SYS(chmod), {has(1, bit, bit)});
    filter.refuse(SCMP_SYS(fchmod), {has(1, bit, bit)});
    filter.refuse(SCMP_SYS(fchmodat), {has(2, bit, bit)});
    filter.refuse(fchmodat2, {has(2, bit, bit)});
    filter.refuse(SCMP_SYS(mknod), {has(1, bit, bit)});
    filter.refuse(SCMP_SYS(mknodat), {has(2, bit, bit)});
    filter.refuse(SCMP_SYS(creat), {has(1, bit, bit)});
    for (const std::uint64_t making : {O_CREAT, temporary}) {
      filter.refuse(SCMP_SYS(open), {has(1, making, making), has(2, bit, bit)});
      filter.refuse(SCMP_SYS(openat), {has(2, making, making), has(3, bit, bit)});
    }
  }
  filter.pretendToLack(SCMP_SYS(openat2));
}

}  // namespace

qx::Result<qx::FileDescriptor> systemCallFilter() {
  Filter filter;
  for (const char* name : refused) filter.refuse(name);
  for (const int number : refusedNumbers) filter.refuse(number);
    // The order of clone's arguments differs on one architecture; flags come first on all others.
#if defined(__s390__) || defined(__CRIS__)
  constexpr unsigned flags = 1;
#else
  constexpr unsigned flags = 0;
#endif
  filter.refuse(SCMP_SYS(clone), {has(flags, CLONE_NEWUSER, CLONE_NEWUSER)});
  filter.refuse(SCMP_SYS(unshare), {has(0, CLONE_NEWUSER, CLONE_NEWUSER)});
  filter.pretendToLack(SCMP_SYS(clone3));
  filter.refuse(SCMP_SYS(ioctl), {has(1, lowerHalf, TIOCSTI)});
  filter.refuse(SCMP_SYS(ioctl), {has(1, lowerHalf, TIOCLINUX)});
  refusePersonalities(filter);
  refuseSockets(filter);
  refuseSpecialModes(filter);
  return filter.file();
}

}  // namespace tool
