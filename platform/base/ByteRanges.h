#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// Bytes of a file from `begin` on, up to `end` and without it.
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

/// Which bytes of a file there are. Ranges that touch are one. One thread at a time.
class ByteRanges {
 public:
  void add(ByteRange range);
  /// Nothing is everywhere.
  bool contains(ByteRange range) const;
  bool isEmpty() const { return ends_.empty(); }
  std::uint64_t size() const;
  /// The first bytes from `from` on, before `end`, that are not there; absent when all are.
  std::optional<ByteRange> missing(std::uint64_t from, std::uint64_t end) const;
  /// The largest, at most so many.
  ByteRanges largest(std::size_t most) const;
  /// In their order.
  const std::map<std::uint64_t, std::uint64_t>& all() const { return ends_; }

  /// "BEGIN-END,BEGIN-END", decimal. What is none, or not in order, is refused.
  std::string text() const;
  static std::optional<ByteRanges> parse(std::string_view text);

  friend bool operator==(const ByteRanges&, const ByteRanges&) = default;

 private:
  std::map<std::uint64_t, std::uint64_t> ends_;  // by where they begin
};

}  // namespace qx
