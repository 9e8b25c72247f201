#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/containers/PositionIndex.h"

namespace qx {

/// A table from names to entries, which are found by hash and visited in the byte order of the
/// names. The order is worked out when it is first wanted and then kept, so that neither reading a
/// file nor adding to a large table sorts anything again.
///
/// We have a table of our own for the access-control list of a million grants: with the tables of
/// the standard library and others either a query or the start of the daemon takes longer than it
/// may (docs/performance.md has the figures).
///
/// An entry stays where it is until one is erased. Not safe for concurrent use.
template <class Entry>
class NameTable {
 public:
  bool isEmpty() const { return nodes_.empty(); }

  const Entry* find(std::string_view name) const {
    const std::size_t position = positionOf(name);
    return position == PositionIndex::npos ? nullptr : &nodes_[position].entry;
  }
  Entry* find(std::string_view name) { return const_cast<Entry*>(std::as_const(*this).find(name)); }

  Entry& findOrAdd(std::string_view name) {
    Entry* entry = find(name);
    return entry ? *entry : add(name);
  }

  /// Adds a name that is not there.
  Entry& add(std::string_view name) {
    nodes_.push_back({std::string(name), Entry()});
    indexFrom(index_.isEmpty() ? 0 : nodes_.size() - 1);
    return nodes_.back().entry;
  }

  /// Takes time in proportion to the table.
  void erase(std::string_view name) {
    const std::size_t position = positionOf(name);
    if (position == PositionIndex::npos) return;
    sortNewNodes();
    // The last node moves into the gap.
    const std::size_t last = nodes_.size() - 1;
    std::erase(order_, static_cast<std::uint32_t>(position));
    std::replace(order_.begin(), order_.end(), static_cast<std::uint32_t>(last),
                 static_cast<std::uint32_t>(position));
    if (position != last) nodes_[position] = std::move(nodes_[last]);
    nodes_.pop_back();
    index_.clear();
    indexFrom(0);
  }

  /// Calls `visit(name, entry)` in byte order.
  template <class Visit>
  void forEach(Visit&& visit) {
    sortNewNodes();
    for (const std::uint32_t position : order_) {
      visit(std::as_const(nodes_[position].name), nodes_[position].entry);
    }
  }

 private:
  struct Node {
    std::string name;
    Entry entry;
  };

  std::size_t positionOf(std::string_view name) const {
    if (!index_.isEmpty()) {
      return index_.find(hashOf(name),
                         [&](std::size_t position) { return nodes_[position].name == name; });
    }
    for (std::size_t position = 0; position < nodes_.size(); ++position) {
      if (nodes_[position].name == name) return position;
    }
    return PositionIndex::npos;
  }

  void indexFrom(std::size_t position) {
    if (nodes_.size() <= PositionIndex::unindexedLength) return;
    for (; position < nodes_.size(); ++position) {
      index_.add(hashOf(nodes_[position].name), position,
                 [](std::size_t) { return false; });  // The table holds nothing twice.
    }
  }

  void sortNewNodes() {
    constexpr std::size_t few = 16;
    const std::size_t sorted = order_.size();
    const std::size_t added = nodes_.size() - sorted;
    const auto isBefore = [this](std::uint32_t a, std::uint32_t b) {
      return nodes_[a].name < nodes_[b].name;
    };
    for (std::size_t i = sorted; i < nodes_.size(); ++i) {
      const auto position = static_cast<std::uint32_t>(i);
      if (added <= few) {
        order_.insert(std::upper_bound(order_.begin(), order_.end(), position, isBefore), position);
      } else {
        order_.push_back(position);
      }
    }
    if (added <= few || std::is_sorted(order_.begin(), order_.end(), isBefore)) return;
    const auto middle = order_.begin() + static_cast<std::ptrdiff_t>(sorted);
    std::sort(middle, order_.end(), isBefore);
    std::inplace_merge(order_.begin(), middle, order_.end(), isBefore);
  }

  std::deque<Node> nodes_;  // grows without being moved, and without room to spare
  PositionIndex index_;
  std::vector<std::uint32_t> order_;  // positions by name; of all nodes but the newest
};

}  // namespace qx
