#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "mirror/Items.h"
#include "platform/files/Inotify.h"

namespace docsource::mirror {

/// Which places something was moved away from without coming to another one that is watched, and
/// which places what is at a place had before. What was moved several times counts for each place
/// that it had, since nobody knows which of them it is known under. Used on the engine's thread.
class Departures {
 public:
  using Key = std::pair<ItemNumber, std::string>;

  void take(const Key& place, const qx::Inotify::Event& event);
  bool contains(const Key& place) const { return away_.contains(place); }
  /// The places that what is at a place had before, the first one first.
  std::vector<Key> before(const Key& place) const {
    const auto before = before_.find(place);
    return before == before_.end() ? std::vector<Key>() : before->second;
  }
  void clear();

 private:
  struct Move {
    std::vector<Key> places;
    /// Those of them that nothing had left for good before.
    std::vector<Key> news;
  };

  std::set<Key> away_;
  std::map<Key, std::vector<Key>> before_;
  /// Moves of which only the first half was told, by inotify's number for both (inotify(7)).
  std::map<std::uint32_t, Move> begun_;
};

}  // namespace docsource::mirror
