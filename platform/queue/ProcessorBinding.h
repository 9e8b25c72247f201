#pragma once

#include <sched.h>

namespace qx {

/// Where one thread may run. Another thread binds it to its own processor before it wakes it; it
/// releases itself before it does anything that takes long. What the administrator or the program
/// has allowed the thread holds meanwhile and afterwards (sched_setaffinity(2)); where binding is
/// not possible nothing happens.
///
/// The owner makes it on the thread. One other thread may bind it while the owner sleeps and until
/// it wakes the owner; all else is for the owner.
class ProcessorBinding {
 public:
  ProcessorBinding();
  ProcessorBinding(const ProcessorBinding&) = delete;
  ProcessorBinding& operator=(const ProcessorBinding&) = delete;

  /// Binds the owner to the processor of the calling thread. No system call where it is already.
  void bindToThisProcessor();
  /// Lets the owner run again wherever it was allowed to. No system call where it is not bound.
  void release();

 private:
  static constexpr int free = -1;

  /// Notes what others have allowed the thread; false where the system does not say.
  bool lookAtWhatIsAllowed();

  pid_t thread_;
  int processor_ = free;
  cpu_set_t allowed_{};
};

}  // namespace qx
