#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/base/Value.h"
#include "platform/containers/IndexedStrings.h"

/// The item identifiers that one consumer may have of one provider, in the order in which they were
/// granted. Membership and adding take the same time, however many there are.
///
/// A list that came from a file may hold an identifier twice, and values that are no identifiers.
/// They keep their places and are handed back, but only identifiers count as granted.
class ItemIdentifierList {
 public:
  bool contains(std::string_view identifier) const { return identifiers_.contains(identifier); }

  /// Adds it at the end, unless it is there. Returns true when it was added.
  bool add(std::string_view identifier);
  /// Removes every occurrence; the others stay in order. Returns false when there was none. Takes
  /// time in proportion to the list, but less than the writing of the file that follows.
  bool remove(std::string_view identifier);

  /// Adds it at the end, whatever is there.
  void append(std::string_view identifier) { identifiers_.append(identifier); }
  void appendForeign(qx::Value element);

  bool isEmpty() const { return identifiers_.size() == 0 && !foreign_; }

  /// Visits everything in order: `identifier(std::string_view)` and `foreign(const qx::Value&)`.
  template <class Identifier, class Foreign>
  void forEach(Identifier&& identifier, Foreign&& foreign) const {
    std::size_t nextForeign = 0;
    for (std::size_t position = 0; position <= identifiers_.size(); ++position) {
      for (; foreign_ && nextForeign < foreign_->size() &&
             (*foreign_)[nextForeign].identifiersBefore == position;
           ++nextForeign) {
        foreign((*foreign_)[nextForeign].element);
      }
      if (position < identifiers_.size()) identifier(identifiers_[position]);
    }
  }

 private:
  struct ForeignElement {
    std::size_t identifiersBefore;
    qx::Value element;
  };

  qx::IndexedStrings identifiers_;
  std::unique_ptr<std::vector<ForeignElement>> foreign_;
};
