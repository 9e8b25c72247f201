#pragma once

#include <sched.h>

namespace qx {

/// Where one thread may run. Another thread binds it to its own processor before it wakes it, and
/// it releases itself before it does anything that takes long. It stays within what the
/// administrator or the program allows the thread (sched_setaffinity(2)), and nothing happens where
/// binding is not possible.
///
/// The owner makes it on its thread. One other thread may bind it while the owner sleeps, until it
/// wakes the owner; everything else is for the owner.
class ProcessorBinding {
 public:
  ProcessorBinding();
  ProcessorBinding(const ProcessorBinding&) = delete;
  ProcessorBinding& operator=(const ProcessorBinding&) = delete;

  /// Binds the owner to the processor of the calling thread. It makes no system call when the owner
  /// is bound to it already.
  void bindToThisProcessor();
  /// Lets the owner run again wherever it was allowed to. It makes no system call when the owner is
  /// not bound.
  void release();

 private:
  static constexpr int free = -1;

  /// Notes what others have allowed the thread. Returns false when the system does not say.
  bool lookAtWhatIsAllowed();

  pid_t thread_;
  int processor_ = free;
  cpu_set_t allowed_{};
};

}  // namespace qx
