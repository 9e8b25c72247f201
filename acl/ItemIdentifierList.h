#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "acl/PositionIndex.h"
#include "platform/base/Value.h"

/// The item identifiers that one consumer may have of one provider, in the order in which they
/// were granted. Membership and adding take the same time however many there are. Compact: the
/// bytes of all identifiers lie one after the other, and each costs some twenty to thirty bytes
/// besides its own.
///
/// A list that came from a file may hold an identifier twice and things that are no identifiers;
/// they keep their places and are handed back, and only identifiers count as granted.
class ItemIdentifierList {
 public:
  bool contains(std::string_view identifier) const;

  /// At the end, unless it is there. True when it was added.
  bool add(std::string_view identifier);
  /// Every occurrence, the others staying in order. False when there was none.
  bool remove(std::string_view identifier);

  /// At the end, whatever is there.
  void append(std::string_view identifier);
  void appendForeign(qx::Value element);

  bool isEmpty() const { return count_ == 0 && !foreign_; }

  /// In order: `identifier(std::string_view)` and `foreign(const qx::Value&)`.
  template <class Identifier, class Foreign>
  void forEach(Identifier&& identifier, Foreign&& foreign) const {
    std::size_t nextForeign = 0;
    for (std::size_t position = 0; position <= count_; ++position) {
      for (; foreign_ && nextForeign < foreign_->size() &&
             (*foreign_)[nextForeign].identifiersBefore == position;
           ++nextForeign) {
        foreign((*foreign_)[nextForeign].element);
      }
      if (position < count_) identifier(at(position));
    }
  }

 private:
  struct ForeignElement {
    std::size_t identifiersBefore;
    qx::Value element;
  };

  std::string_view at(std::size_t position) const {
    const std::size_t begin = position == 0 ? 0 : begins_[position - 1];
    const std::size_t end = position + 1 == count_ ? bytes_.size() : begins_[position];
    return std::string_view(bytes_).substr(begin, end - begin);
  }
  void indexLast();

  // Many lists hold one identifier, and take no memory but for its bytes then.
  std::string bytes_;
  std::vector<std::size_t> begins_;  // of each identifier in bytes_ but the first
  std::size_t count_ = 0;
  std::unique_ptr<PositionIndex> index_;  // first occurrences; null up to the length without
  std::unique_ptr<std::vector<ForeignElement>> foreign_;
};
