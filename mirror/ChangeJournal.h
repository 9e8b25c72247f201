#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "mirror/Items.h"

namespace docsource::mirror {

/// Which items have changed, for those who show them. Each change has a number, and who has seen
/// the changes up to one asks for those after it. An item that changes again is listed once. Any
/// thread may use it.
class ChangeJournal {
 public:
  struct Changes {
    /// The number of the last change.
    std::uint64_t last = 0;
    /// Absent when more has changed than is remembered: everything may be different.
    std::optional<std::vector<ItemNumber>> items;
  };

  /// Notes a change. Those who wait are called on the caller's thread, which may hold the engine's
  /// mutex.
  void note(ItemNumber number);
  /// Calls once, when there is something after `last`: at once, or when a change comes. Nobody has
  /// seen 0, so there is always something after it.
  void whenAfter(std::uint64_t last, std::function<void()> isThere);
  Changes after(std::uint64_t last) const;

 private:
  mutable std::mutex mutex_;
  std::uint64_t last_ = 1;
  /// The last change of which nothing is remembered any more.
  std::uint64_t forgotten_ = 1;
  std::map<ItemNumber, std::uint64_t> changeOf_;
  std::map<std::uint64_t, ItemNumber> changed_;
  std::vector<std::function<void()>> waiting_;
};

}  // namespace docsource::mirror
