// A keyed hash of short strings: sixteen bytes at a time are mixed with random numbers of this
// process by one full multiplication, whose halves are folded onto each other.

#include "platform/containers/PositionIndex.h"

#include <array>
#include <cstring>
#include <random>

namespace qx {

namespace {

__extension__ using Wide = unsigned __int128;

std::uint64_t fold(std::uint64_t a, std::uint64_t b) {
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

template <class Word>
std::uint64_t load(const char* from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

std::array<std::uint64_t, 3> makeKeys() {
  std::random_device random;
  std::array<std::uint64_t, 3> keys;
  for (auto& key : keys) key = (std::uint64_t{random()} << 32) | random() | 1;
  return keys;
}

const std::array<std::uint64_t, 3> keys = makeKeys();

}  // namespace

std::uint64_t hashOf(std::string_view text) {
  const char* from = text.data();
  std::size_t left = text.size();
  std::uint64_t state = keys[0] ^ left;
  for (; left > 16; from += 16, left -= 16) {
    state = fold(load<std::uint64_t>(from) ^ keys[1], load<std::uint64_t>(from + 8) ^ state);
  }
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  if (left >= 8) {
    first = load<std::uint64_t>(from);
    last = load<std::uint64_t>(from + left - 8);
  } else if (left >= 4) {
    first = load<std::uint32_t>(from);
    last = load<std::uint32_t>(from + left - 4);
  } else if (left > 0) {
    const auto byte = [from](std::size_t i) {
      return std::uint64_t{static_cast<unsigned char>(from[i])};
    };
    first = byte(0) | byte(left / 2) << 8 | byte(left - 1) << 16;
  }
  return fold(fold(first ^ keys[2], last ^ state), keys[1]);
}

}  // namespace qx
