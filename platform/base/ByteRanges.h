#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// Bytes of a file from `begin` up to, but not including, `end`.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;

  bool isEmpty() const { return begin >= end; }
  std::uint64_t size() const { return isEmpty() ? 0 : end - begin; }
  ByteRange within(std::uint64_t size) const {
    return {std::min(begin, size), std::min(end, size)};
  }
  friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

/// Which bytes of a file are there. Ranges that touch become one. Used by one thread at a time.
class ByteRanges {
 public:
  void add(ByteRange range);
  /// An empty range is contained everywhere.
  bool contains(ByteRange range) const;
  bool isEmpty() const { return ends_.empty(); }
  std::uint64_t size() const;
  /// Returns the first bytes between `from` and `end` that are not there; absent when all are.
  std::optional<ByteRange> missing(std::uint64_t from, std::uint64_t end) const;
  /// Returns the largest ranges, at most so many.
  ByteRanges largest(std::size_t most) const;
  /// All ranges, in their order.
  const std::map<std::uint64_t, std::uint64_t>& all() const { return ends_; }

  /// The ranges as "BEGIN-END,BEGIN-END", in decimal. Text that is not of that form, or not in
  /// order, is refused.
  std::string text() const;
  static std::optional<ByteRanges> parse(std::string_view text);

  friend bool operator==(const ByteRanges&, const ByteRanges&) = default;

 private:
  std::map<std::uint64_t, std::uint64_t> ends_;  // by where they begin
};

}  // namespace qx
