// Identifiers are only ever appended, so that three growing blocks hold any number of them: bytes,
// begins, and hash slots that name the first occurrence of each. A removal closes the gaps and
// makes the index anew; it is rare, and the file that follows it takes longer.

#include "acl/ItemIdentifierList.h"

bool ItemIdentifierList::contains(std::string_view identifier) const {
  if (index_) {
    return index_->find(identifierHash(identifier), [&](std::size_t position) {
      return at(position) == identifier;
    }) != PositionIndex::npos;
  }
  for (std::size_t position = 0; position < count_; ++position) {
    if (at(position) == identifier) return true;
  }
  return false;
}

bool ItemIdentifierList::add(std::string_view identifier) {
  if (contains(identifier)) return false;
  append(identifier);
  return true;
}

void ItemIdentifierList::append(std::string_view identifier) {
  if (count_ != 0) begins_.push_back(bytes_.size());
  bytes_.append(identifier);
  ++count_;
  indexLast();
}

void ItemIdentifierList::indexLast() {
  if (count_ <= PositionIndex::unindexedLength) return;
  // The first time round the ones that did without an index follow.
  std::size_t position = count_ - 1;
  if (!index_) {
    index_ = std::make_unique<PositionIndex>();
    position = 0;
  }
  for (; position < count_; ++position) {
    const std::string_view identifier = at(position);
    index_->add(identifierHash(identifier), position,
                [&](std::size_t other) { return at(other) == identifier; });
  }
}

void ItemIdentifierList::appendForeign(qx::Value element) {
  if (!foreign_) foreign_ = std::make_unique<std::vector<ForeignElement>>();
  foreign_->push_back({count_, std::move(element)});
}

bool ItemIdentifierList::remove(std::string_view identifier) {
  if (!contains(identifier)) return false;
  ItemIdentifierList rest;
  forEach(
      [&](std::string_view other) {
        if (other != identifier) rest.append(other);
      },
      [&](const qx::Value& element) { rest.appendForeign(element); });
  *this = std::move(rest);
  return true;
}
