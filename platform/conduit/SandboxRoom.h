#pragma once

#include <atomic>
#include <cstddef>

namespace qx {

/// What the connections of one or more listeners may keep together before those that come from a
/// sandbox get no more. So an application leaves room for the others. Shared by the listeners and
/// their connections; any thread.
struct SandboxRoom {
  SandboxRoom(std::size_t withDescriptors, std::size_t withBytes)
      : mostDescriptors(withDescriptors), mostBytes(withBytes) {}

  bool isLeft() const { return descriptors <= mostDescriptors && bytes <= mostBytes; }

  const std::size_t mostDescriptors;
  const std::size_t mostBytes;
  std::atomic<std::size_t> descriptors = 0;
  std::atomic<std::size_t> bytes = 0;
};

}  // namespace qx
