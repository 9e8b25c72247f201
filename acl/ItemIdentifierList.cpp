#include "acl/ItemIdentifierList.h"

bool ItemIdentifierList::add(std::string_view identifier) {
  if (contains(identifier)) return false;
  append(identifier);
  return true;
}

void ItemIdentifierList::appendForeign(qx::Value element) {
  if (!foreign_) foreign_ = std::make_unique<std::vector<ForeignElement>>();
  foreign_->push_back({identifiers_.size(), std::move(element)});
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
