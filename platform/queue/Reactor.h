#pragma once

#include <cstdint>
#include <memory>

namespace qx {

/// Something that waits for a descriptor. The reactor keeps it alive from add() to remove().
class ReactorHandler {
 public:
  virtual ~ReactorHandler() = default;
  /// Runs on a thread of the reactor with the epoll events (epoll_ctl(2)) that are ready. It may
  /// block: then another thread takes the events.
  virtual void ready(std::uint32_t events) = 0;
  /// Does what soon() asked for. It must not block.
  virtual void late() {}
};

/// The threads that wait for descriptors, over one epoll set (epoll(7)).
///
/// A source is one-shot: after ready() was called it stays silent until it is armed again, so a
/// handler that arms it only at its end is never run twice at a time. EPOLLHUP and EPOLLERR are
/// always reported to an armed source. A handler that waits inside a queue or for the disk holds
/// nobody else up, since another thread takes the events first. One that blocks in any other way
/// holds others up until the reactor notices, a millisecond or two later.
class Reactor {
 public:
  /// The reactor of this process.
  static Reactor& shared();

  /// Never 0.
  using SourceID = std::uint64_t;

  /// Watches `fd` (owned by the caller, open until remove()) and arms it for `events`. Returns 0
  /// when the kernel refuses. Any thread may call it.
  virtual SourceID add(int fd, std::uint32_t events, std::shared_ptr<ReactorHandler> handler) = 0;
  virtual void arm(SourceID source, int fd, std::uint32_t events) = 0;
  /// No call begins after the return; one that has begun may still be running. Unknown sources are
  /// ignored, so several callers may remove the same one.
  virtual void remove(SourceID source, int fd) = 0;
  /// Has late() called once, after a millisecond or two. It is for work that can wait for more of
  /// its kind, so that much work costs one wake-up.
  virtual void soon(std::shared_ptr<ReactorHandler> handler) = 0;

 protected:
  virtual ~Reactor() = default;
};

}  // namespace qx
