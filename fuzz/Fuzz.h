#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

#include "platform/base/Value.h"
#include "platform/log/Log.h"

/// What the fuzzers share. A fuzzer is one function that gets bytes, does with them what the system
/// does, and calls `require` for everything that must hold whatever the bytes are.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace qx::fuzz {

/// Ends the program, which keeps the input as a finding.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fuzz: it does not hold that %s\n", what);
  std::abort();
}

inline std::string_view textOf(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Whether the value holds, somewhere, a real that is no number, and is not equal to itself.
inline bool holdsNaN(const Value& value) {
  const auto holds = [](const auto& entry) { return holdsNaN(entry.second); };
  if (const auto* real = value.as<double>()) return std::isnan(*real);
  if (const auto* array = value.as<Array>()) {
    return std::any_of(array->begin(), array->end(), holdsNaN);
  }
  if (const auto* dictionary = value.as<Dictionary>()) {
    return std::any_of(dictionary->begin(), dictionary->end(), holds);
  }
  if (const auto* error = value.as<Error>()) {
    return std::any_of(error->info().begin(), error->info().end(), holds);
  }
  return false;
}

/// Messages are put together at every level as they are in the daemon, and go nowhere.
inline void muteLog() {
  ds_default_log().setLowestLevel(LogLevel::debug);
  ds_default_log().setSink([](LogLevel, const std::string&) {});
}

/// Takes what steers a fuzzer off the front of its input: a byte at a time, 0 past the end.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : bytes_(data, size) {}

  std::uint8_t byte() {
    if (bytes_.empty()) return 0;
    const std::uint8_t first = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return first;
  }
  std::uint16_t word() {
    const unsigned high = byte();
    return static_cast<std::uint16_t>(high << 8U | byte());
  }
  /// Up to so many bytes.
  std::span<const std::uint8_t> take(std::size_t count) {
    const auto taken = bytes_.first(count < bytes_.size() ? count : bytes_.size());
    bytes_ = bytes_.subspan(taken.size());
    return taken;
  }
  std::span<const std::uint8_t> rest() const { return bytes_; }
  bool isAtEnd() const { return bytes_.empty(); }

 private:
  std::span<const std::uint8_t> bytes_;
};

}  // namespace qx::fuzz
