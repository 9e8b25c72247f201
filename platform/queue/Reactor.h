#pragma once

#include <cstdint>
#include <memory>

namespace qx {

/// What waits for a descriptor. Kept alive by the reactor from add() to remove().
class ReactorHandler {
 public:
  virtual ~ReactorHandler() = default;
  /// Runs on a thread of the reactor with the epoll events (epoll_ctl(2)) that are ready. May
  /// block: then another thread takes the events.
  virtual void ready(std::uint32_t events) = 0;
  /// What soon() asked for. Must not block.
  virtual void late() {}
};

/// The threads that wait for descriptors, over one epoll set (epoll(7)).
///
/// A source is one-shot: after ready() was called it stays silent until it is armed again, so a
/// handler that arms only at its end is never run twice at a time. EPOLLHUP and EPOLLERR are
/// always reported to an armed source. A handler that waits inside a queue or for the disk holds
/// nobody else up, since another thread takes the events first; one that blocks otherwise holds
/// others up until the reactor notices, a millisecond or two later.
class Reactor {
 public:
  /// The one of this process.
  static Reactor& shared();

  /// Never 0.
  using SourceID = std::uint64_t;

  /// Watches `fd` (owned by the caller, open until remove()) and arms it for `events`; 0 when the
  /// kernel refuses. Any thread.
  virtual SourceID add(int fd, std::uint32_t events, std::shared_ptr<ReactorHandler> handler) = 0;
  virtual void arm(SourceID source, int fd, std::uint32_t events) = 0;
  /// No call begins after the return; one that has begun may still be running. Unknown sources
  /// are ignored, so that the first of several who remove wins.
  virtual void remove(SourceID source, int fd) = 0;
  /// Has late() called once, after a millisecond or two. For what can wait for company, so that
  /// many such things cost one wake-up.
  virtual void soon(std::shared_ptr<ReactorHandler> handler) = 0;

 protected:
  virtual ~Reactor() = default;
};

}  // namespace qx
