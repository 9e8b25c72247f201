#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

namespace qx {

/// A hash of `text` that differs from process to process, so that nobody can choose texts that
/// collide.
std::uint64_t hashOf(std::string_view text);

/// A hash index of positions in a sequence that somebody else holds: open addressing over slots of
/// a position and half of the hash, at most three quarters full. It does not know the elements. The
/// owner hashes and compares them, and is asked to compare hardly more than those that are equal.
/// There is room for 2^32 - 1 positions. An index costs its owner next to nothing until the
/// sequence is longer than `unindexedLength`; up to there, walking along it is quicker.
class PositionIndex {
 public:
  static constexpr std::size_t unindexedLength = 8;
  static constexpr std::size_t npos = std::numeric_limits<std::size_t>::max();

  bool isEmpty() const { return slots_.empty(); }

  /// Returns the position for which `matches(position)` is true among those of this hash, or npos.
  template <class Matches>
  std::size_t find(std::uint64_t hash, Matches&& matches) const {
    if (slots_.empty()) return npos;
    const Slot& slot = slots_[slotFor(hash, matches)];
    return slot.isFree() ? npos : slot.position();
  }

  /// Adds a position unless one for which `matches` is true is there.
  template <class Matches>
  void add(std::uint64_t hash, std::size_t position, Matches&& matches) {
    if ((used_ + 1) * 4 > slots_.size() * 3) grow();
    Slot& slot = slots_[slotFor(hash, matches)];
    if (!slot.isFree()) return;
    slot = Slot(hash, position);
    ++used_;
  }

  void clear() {
    slots_ = {};
    used_ = 0;
  }

 private:
  struct Slot {
    Slot() = default;
    Slot(std::uint64_t fullHash, std::size_t position)
        : hash(static_cast<std::uint32_t>(fullHash)),
          positionPlusOne(static_cast<std::uint32_t>(position + 1)) {}
    bool isFree() const { return positionPlusOne == 0; }
    std::size_t position() const { return positionPlusOne - 1; }

    std::uint32_t hash = 0;
    std::uint32_t positionPlusOne = 0;
  };

  /// Returns the slot of the element, or the free one where it belongs.
  template <class Matches>
  std::size_t slotFor(std::uint64_t hash, Matches&& matches) const {
    const std::size_t mask = slots_.size() - 1;
    const auto wanted = static_cast<std::uint32_t>(hash);
    for (std::size_t i = wanted & mask;; i = (i + 1) & mask) {
      const Slot& slot = slots_[i];
      if (slot.isFree() || (slot.hash == wanted && matches(slot.position()))) return i;
    }
  }

  void grow() {
    const std::vector<Slot> old =
        std::exchange(slots_, std::vector<Slot>(slots_.empty() ? 16 : slots_.size() * 2));
    for (const Slot& slot : old) {
      if (!slot.isFree()) slots_[slotFor(slot.hash, [](std::size_t) { return false; })] = slot;
    }
  }

  std::vector<Slot> slots_;  // a power of two
  std::size_t used_ = 0;
};

}  // namespace qx
