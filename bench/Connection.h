#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/Figures.h"
#include "platform/base/FileDescriptor.h"
#include "platform/conduit/Codec.h"

namespace bench {

using Frame = std::vector<std::uint8_t>;

/// The frame of a call. Numbers from `firstID` on all take the same place, so that a call can be
/// numbered again where it lies.
inline constexpr std::uint32_t firstID = 1U << 24U;

template <class... Arguments>
Frame callFrame(std::string_view operation, const Arguments&... arguments) {
  qx::conduit::Encoder message;
  message.array(4);
  message.integer(1);
  message.integer(firstID);
  message.string(operation);
  message.array(sizeof...(Arguments));
  (encode(message, arguments), ...);
  return message.takeFrame();
}

inline void setID(std::span<std::uint8_t> frame, std::uint32_t id) {
  constexpr std::size_t place = qx::conduit::frameHeaderSize + 3;
  for (std::size_t i = 0; i < sizeof id; ++i) {
    frame[place + i] = static_cast<std::uint8_t>(id >> (8 * (sizeof id - 1 - i)));
  }
}

/// A client with nothing in it that could be left out: a blocking socket and a buffer. The same for
/// ours and for the floor.
class Connection {
 public:
  explicit Connection(const std::string& path)
      : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      fail(path + " cannot be connected to");
    }
  }

  int descriptor() const { return socket_.get(); }

  void send(std::span<const std::uint8_t> bytes) {
    if (::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
      fail("a call cannot be sent");
    }
  }

  /// Waits for bytes and returns how many frames are complete with them.
  std::size_t receive() {
    const ssize_t count =
        recv(socket_.get(), buffer_.data() + filled_, buffer_.size() - filled_, 0);
    if (count <= 0) fail("the connection is over");
    filled_ += static_cast<std::size_t>(count);
    std::size_t frames = 0;
    std::size_t begin = 0;
    while (filled_ - begin >= qx::conduit::frameHeaderSize) {
      std::size_t size = qx::conduit::frameHeaderSize;
      for (std::size_t i = 0, shift = 24; i < 4; ++i, shift -= 8) {
        size += std::size_t{buffer_[begin + i]} << shift;
      }
      if (filled_ - begin < size) break;
      last_.assign(buffer_.begin() + static_cast<std::ptrdiff_t>(begin),
                   buffer_.begin() + static_cast<std::ptrdiff_t>(begin + size));
      begin += size;
      ++frames;
    }
    std::memmove(buffer_.data(), buffer_.data() + begin, filled_ - begin);
    filled_ -= begin;
    return frames;
  }

  void roundTrip(std::span<const std::uint8_t> frame) {
    send(frame);
    while (receive() == 0) {
    }
  }

  /// Whether what came last is a reply without an error among its values.
  bool lastSucceeded() const {
    const auto body = std::span(last_).subspan(qx::conduit::frameHeaderSize);
    qx::conduit::Decoder decoder(body, {});
    qx::Array message;
    if (!qx::conduit::decode(decoder, message) || message.size() != 3) return false;
    const auto* kind = message.front().as<std::int64_t>();
    const auto* values = message.back().as<qx::Array>();
    if (!kind || *kind != 2 || !values) return false;
    for (const qx::Value& value : *values) {
      if (value.as<qx::Error>()) return false;
    }
    return true;
  }

 private:
  qx::FileDescriptor socket_;
  std::array<std::uint8_t, 65536> buffer_{};
  std::size_t filled_ = 0;
  Frame last_;
};

}  // namespace bench
