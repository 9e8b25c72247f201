#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "platform/base/FileDescriptor.h"

namespace qx::kernel {

/// What the holder, which has the groups, and the worker tell each other.
struct Message {
  enum class Kind : std::uint32_t {
    event,    // to the worker, with the file: number, process, thread, mask, begin and end
    answer,   // to the holder: number, errnum
    ready,    // to the holder: the services are served
    stop,     // to the worker: end; errnum is 1 when the group stays alive without us
    stopped,  // to the holder: nothing is left to do
  };
  Kind kind{};
  std::int32_t number = 0;
  std::int32_t process = 0;
  std::int32_t errnum = 0;
  std::uint64_t mask = 0;
  std::int32_t thread = 0;
  /// Whether it is known which bytes are wanted, and which they are.
  std::uint32_t hasRange = 0;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

/// One end of the connection between the two, a SOCK_SEQPACKET socket pair (unix(7)): whole
/// messages, and a descriptor with each event. Any thread may send; one receives.
class EventChannel {
 public:
  EventChannel() = default;
  explicit EventChannel(FileDescriptor socket) : socket_(std::move(socket)) {}

  /// Makes two connected ends; both are empty when no descriptors can be had.
  static std::pair<EventChannel, EventChannel> pair();

  int descriptor() const { return socket_.get(); }
  explicit operator bool() const { return static_cast<bool>(socket_); }

  enum class Sent { yes, later, never };
  /// Waits for room only when `wait` is set; otherwise it says that the caller has to try again
  /// later.
  Sent send(const Message& message, int descriptor = -1, bool wait = false) const;

  struct Received {
    Message message;
    FileDescriptor descriptor;
  };
  enum class State { message, nothing, ended };
  /// Receives without waiting.
  State receive(Received& received) const;
  /// Returns whether the other end is gone; there may be something left to receive.
  bool hasEnded() const;

 private:
  FileDescriptor socket_;
};

}  // namespace qx::kernel
