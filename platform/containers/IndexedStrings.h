#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/containers/PositionIndex.h"

namespace qx {

/// Strings in the order in which they were appended. Whether a string is among them is answered
/// quickly, however many there are.
///
/// It is compact: the bytes of all strings lie one after the other, and each string costs some
/// twenty to thirty bytes besides its own, where a vector of strings beside a table of them takes
/// more than a hundred. A single string takes no memory except for its bytes.
///
/// Not safe for concurrent use.
class IndexedStrings {
 public:
  std::size_t size() const { return count_; }

  /// Valid until the sequence changes.
  std::string_view operator[](std::size_t position) const {
    const std::size_t begin = position == 0 ? 0 : begins_[position - 1];
    const std::size_t end = position + 1 == count_ ? bytes_.size() : begins_[position];
    return std::string_view(bytes_).substr(begin, end - begin);
  }

  bool contains(std::string_view string) const;

  /// Appends the string, whether it is there or not.
  void append(std::string_view string);

 private:
  std::string bytes_;
  std::vector<std::size_t> begins_;  // of each string in bytes_ but the first
  std::size_t count_ = 0;
  std::unique_ptr<PositionIndex> index_;  // first occurrences; null up to the length without
};

}  // namespace qx
