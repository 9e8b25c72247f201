#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "acl/PositionIndex.h"

/// A table from identifiers to entries: found by hash, gone through in the byte order of the
/// identifiers. The order is worked out when it is wanted and then kept up, so that neither
/// reading a file nor adding to a large table sorts anything again.
///
/// An entry stays where it is until one is erased.
template <class Entry>
class IdentifierTable {
 public:
  bool isEmpty() const { return nodes_.empty(); }

  const Entry* find(std::string_view identifier) const {
    const std::size_t position = positionOf(identifier);
    return position == PositionIndex::npos ? nullptr : &nodes_[position].entry;
  }
  Entry* find(std::string_view identifier) {
    return const_cast<Entry*>(std::as_const(*this).find(identifier));
  }

  Entry& findOrAdd(std::string_view identifier) {
    Entry* entry = find(identifier);
    return entry ? *entry : add(identifier);
  }

  /// One that is not there.
  Entry& add(std::string_view identifier) {
    nodes_.push_back({std::string(identifier), Entry()});
    indexFrom(index_.isEmpty() ? 0 : nodes_.size() - 1);
    return nodes_.back().entry;
  }

  /// Takes time in proportion to the table.
  void erase(std::string_view identifier) {
    const std::size_t position = positionOf(identifier);
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

  /// `visit(identifier, entry)` in byte order.
  template <class Visit>
  void forEach(Visit&& visit) {
    sortNewNodes();
    for (const std::uint32_t position : order_) {
      visit(std::as_const(nodes_[position].identifier), nodes_[position].entry);
    }
  }

 private:
  struct Node {
    std::string identifier;
    Entry entry;
  };

  std::size_t positionOf(std::string_view identifier) const {
    if (!index_.isEmpty()) {
      return index_.find(identifierHash(identifier), [&](std::size_t position) {
        return nodes_[position].identifier == identifier;
      });
    }
    for (std::size_t position = 0; position < nodes_.size(); ++position) {
      if (nodes_[position].identifier == identifier) return position;
    }
    return PositionIndex::npos;
  }

  void indexFrom(std::size_t position) {
    if (nodes_.size() <= PositionIndex::unindexedLength) return;
    for (; position < nodes_.size(); ++position) {
      index_.add(identifierHash(nodes_[position].identifier), position,
                 [](std::size_t) { return false; });  // The table holds nothing twice.
    }
  }

  void sortNewNodes() {
    constexpr std::size_t few = 16;
    const std::size_t sorted = order_.size();
    const std::size_t added = nodes_.size() - sorted;
    const auto isBefore = [this](std::uint32_t a, std::uint32_t b) {
      return nodes_[a].identifier < nodes_[b].identifier;
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
  std::vector<std::uint32_t> order_;  // positions by identifier; of all nodes but the newest
};
